// The pass-through layer against the virtual array: the CDB layout, the
// request the array receives, the judgement of each completion and the
// opening of disk nodes.
#include "scsi/sg_transport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/handles.h"
#include "scsi_rig.h"

namespace hic_test {
namespace {

using ScsiTransportTest = ScsiRigTest;

// 0xC7 with a 4096-byte length field: a data-in command every LUN of a
// served array answers.
std::array<unsigned char, HIC_CDB_LEN> SwitchCdb() {
    return {0xC7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10, 0, 0x81, 0};
}

TEST_F(ScsiTransportTest, BuildCdbLaysOutTheSixteenBytes) {
    const char* const untouched = "ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee";
    const struct {
        const char* name;
        int cdbLen;
        unsigned char opcode;
        uint64_t address;
        uint32_t length;
        int rc;
        const char* bytes;  // the 20-byte buffer afterwards; it starts as all 0xee
    } cases[] = {
        {"Len15WritesNothing", 15, 0xC9, 1, 1, -1, untouched},
        {"NegativeLenWritesNothing", -1, 0xC9, 1, 1, -1, untouched},
        {"MinLenWritesNothing", INT32_MIN, 0xC9, 1, 1, -1, untouched},
        {"Len16WritesExactly16", 16, 0xC9, 0x0102030405060708ULL, 0x0A0B0C0DU, 0,
         "c9 00 01 02 03 04 05 06 07 08 0a 0b 0c 0d 81 00 ee ee ee ee"},
        {"Len20StillWrites16", 20, 0xC9, 0x0102030405060708ULL, 0x0A0B0C0DU, 0,
         "c9 00 01 02 03 04 05 06 07 08 0a 0b 0c 0d 81 00 ee ee ee ee"},
        {"AddressBelow2To32", 16, 0xCA, 0xFFFFFFFFULL, 0x1000, 0,
         "ca 00 00 00 00 00 ff ff ff ff 00 00 10 00 81 00 ee ee ee ee"},
        {"AllOnes", 16, 0xFF, UINT64_MAX, UINT32_MAX, 0,
         "ff 00 ff ff ff ff ff ff ff ff ff ff ff ff 81 00 ee ee ee ee"},
        {"AllZero", 16, 0x00, 0, 0, 0,
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 81 00 ee ee ee ee"},
        {"TopBitsOnly", 16, 0xC7, 0x8000000000000000ULL, 0x80000000U, 0,
         "c7 00 80 00 00 00 00 00 00 00 80 00 00 00 81 00 ee ee ee ee"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::array<unsigned char, 20> buf{};
        buf.fill(0xEE);
        EXPECT_EQ(HIC_BuildCdb(buf.data(), c.cdbLen, c.opcode, c.address, c.length), c.rc);
        EXPECT_EQ(SpacedHex(buf.data(), buf.size()), c.bytes);
    }
    EXPECT_EQ(HIC_BuildCdb(nullptr, 16, 0xC9, 0, 0), -1);
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// HIC_IoctlSendCmd

// The request fields, the payload of each direction and the common failures
// are checked through the vendor commands built on this call; these are the
// completions they do not meet.
TEST_F(ScsiTransportTest, JudgesTheCompletionAndLogsAtItsLevel) {
    auto failed = [](const char* statuses) {
        return std::string("DEBUG HIC_IoctlSendCmd: send ioctl failed. ") + statuses + ".\n";
    };
    const struct {
        const char* name;
        const char* fault;  // on sdb, kind c7
        std::string line;   // the whole log at DEBUG
        bool infoToo;       // whether the line shows at INFO as well
    } cases[] = {
        {"CheckConditionAlone", R"({"status": 2, "driver_status": 0})",
         failed("status:2, host_status:0, driver_status:0"), false},
        {"BusyStatus", R"({"status": 8})", failed("status:8, host_status:0, driver_status:0"),
         false},
        {"DriverTimeoutAlone", R"({"driver_status": 6})",
         failed("status:0, host_status:0, driver_status:6"), false},
        // A reply later than the 30 ms timeout ends in DID_TIME_OUT.
        {"TimedOut", R"({"delay_ms": 200, "honour_timeout": 1})",
         failed("status:0, host_status:3, driver_status:0"), false},
        {"IoctlFailsWithEnodev", R"({"errno": "ENODEV"})",
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: No such device (errno=19).\n", true},
    };
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NextCase();
        InjectOnB("c7", c.fault);
        hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_ONLY);
        for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
            SCOPED_TRACE(level == HIC_LOG_DEBUG ? "DEBUG" : "INFO");
            (void)std::remove(HIC_LOG_PATH);
            HIC_SetLogLevel(level);
            EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb.data(), buf.data(), 4096, SG_DXFER_FROM_DEV),
                      -1);
            EXPECT_EQ(LoggedMessages(), level == HIC_LOG_DEBUG || c.infoToo ? c.line : "");
        }
        // The array saw both submissions, each judged by its own reply.
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 2U);
        EXPECT_TRUE(commands[0].fault_id.has_value());
    }
}

// The residual count is not consulted: a short transfer succeeds quietly.
TEST_F(ScsiTransportTest, ShortTransferKeepsWhatArrived) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    Array().RaiseSwitch(kArraySn, "0a0b0c0d");
    InjectOnB("c7", R"({"short": 6})");
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_ONLY);
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(16, 0xEE);
    EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb.data(), buf.data(), 16, SG_DXFER_FROM_DEV), 0);
    EXPECT_EQ(SpacedHex(buf.data(), buf.size()), "00 00 00 00 01 0a ee ee ee ee ee ee ee ee ee ee");
    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].transferred, 6U);
    EXPECT_EQ(commands[0].resid, 10U);
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(ScsiTransportTest, DescriptorsThatTakeNoSgIoFailWithTheErrno) {
    hic::UniqueFd devNull(::open("/dev/null", O_RDWR));
    ASSERT_TRUE(devNull.Valid());
    const char* const badFd =
        "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Bad file descriptor (errno=9).\n";
    const struct {
        int fd;
        const char* line;
    } cases[] = {
        {ClosedFd(), badFd},
        {-1, badFd},
        {devNull.Get(),
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Inappropriate ioctl for device "
         "(errno=25).\n"},
    };
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fd);
        (void)std::remove(HIC_LOG_PATH);
        EXPECT_EQ(HIC_IoctlSendCmd(c.fd, cdb.data(), buf.data(), 4096, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(LoggedMessages(), c.line);
    }
}

// ---------------------------------------------------------------------------
// HIC_OpenDevByPath

TEST_F(ScsiTransportTest, OnlyModeOneOpensReadOnly) {
    const struct {
        int mode;
        int accmode;
    } cases[] = {{0, O_RDWR}, {1, O_RDONLY}, {2, O_RDWR},
                 {3, O_RDWR}, {-1, O_RDWR},  {INT32_MAX, O_RDWR}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        NextCase();
        hic::UniqueFd fd = OpenLun(kLunB, c.mode);
        const int flags = ::fcntl(fd.Get(), F_GETFL);
        EXPECT_EQ(flags & O_ACCMODE, c.accmode);
        EXPECT_EQ(flags & O_NONBLOCK, 0);
        const auto opens = Opens();
        ASSERT_EQ(opens.size(), 1U);
        EXPECT_EQ(opens[0].lun, "sdb");
        EXPECT_EQ(opens[0].flags, c.accmode);
        EXPECT_EQ(opens[0].err, 0);
    }
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(ScsiTransportTest, NodeThatCannotBeOpenedIsLogged) {
    // The array refuses read-write opens of sdb only.
    InjectOnB("open", R"({"errno": "EACCES", "open_mode": "rw"})");
    const struct {
        const char* path;
        int mode;
        bool opens;
        const char* line;
    } cases[] = {
        {"/dev/sdz", HIC_OPEN_READ_ONLY, false, "ERR HIC_OpenDevByPath: open /dev/sdz failed.\n"},
        {"/dev/sdb", HIC_OPEN_READ_WRITE, false, "ERR HIC_OpenDevByPath: open /dev/sdb failed.\n"},
        {"/dev/sdb", 0, false, "ERR HIC_OpenDevByPath: open /dev/sdb failed.\n"},
        {"/dev/sdb", HIC_OPEN_READ_ONLY, true, ""},
        {"", HIC_OPEN_READ_ONLY, false, "ERR HIC_OpenDevByPath: open  failed.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.path) + " mode " + std::to_string(c.mode));
        (void)std::remove(HIC_LOG_PATH);
        hic::UniqueFd fd(HIC_OpenDevByPath(c.path, c.mode));
        EXPECT_EQ(fd.Valid(), c.opens);
        EXPECT_TRUE(c.opens || fd.Get() == -1);
        EXPECT_EQ(LoggedMessages(), c.line);
    }
    const auto opens = Opens();
    ASSERT_EQ(opens.size(), 3U);
    EXPECT_EQ(opens[0].err, EACCES);
    EXPECT_EQ(opens[1].err, EACCES);
    EXPECT_EQ(opens[2].err, 0);
    EXPECT_EQ(opens[2].flags, O_RDONLY);
}

}  // namespace
}  // namespace hic_test
