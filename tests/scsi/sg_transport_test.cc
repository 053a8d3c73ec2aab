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
#include <ostream>
#include <string>
#include <vector>

#include "base/handles.h"
#include "scsi_rig.h"

namespace hic_test {
namespace {

// A descriptor number that is surely closed: the lowest free one, freed.
int ClosedFd() {
    const int fd = ::dup(0);
    ::close(fd);
    return fd;
}

// 0xC7 with a 4096-byte length field: a data-in command every LUN of a
// served array answers.
std::array<unsigned char, HIC_CDB_LEN> SwitchCdb() {
    return {0xC7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10, 0, 0x81, 0};
}

using ScsiTransportTest = ScsiRigTest;

// ---------------------------------------------------------------------------
// HIC_BuildCdb

struct CdbCase {
    const char* name;
    int cdbLen;
    unsigned char opcode;
    uint64_t address;
    uint32_t length;
    int rc;
    const char* bytes;  // the 20-byte buffer afterwards; it starts as all 0xee
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const CdbCase& c, std::ostream* os) {
    *os << c.name;
}

const CdbCase kCdbCases[] = {
    {"Len15WritesNothing", 15, 0xC9, 1, 1, -1,
     "ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee"},
    {"NegativeLenWritesNothing", -1, 0xC9, 1, 1, -1,
     "ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee"},
    {"MinLenWritesNothing", INT32_MIN, 0xC9, 1, 1, -1,
     "ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee"},
    {"Len16WritesExactly16", 16, 0xC9, 0x0102030405060708ULL, 0x0A0B0C0DU, 0,
     "c9 00 01 02 03 04 05 06 07 08 0a 0b 0c 0d 81 00 ee ee ee ee"},
    {"Len20StillWrites16", 20, 0xC9, 0x0102030405060708ULL, 0x0A0B0C0DU, 0,
     "c9 00 01 02 03 04 05 06 07 08 0a 0b 0c 0d 81 00 ee ee ee ee"},
    {"AddressBelow2To32", 16, 0xCA, 0xFFFFFFFFULL, 0x1000, 0,
     "ca 00 00 00 00 00 ff ff ff ff 00 00 10 00 81 00 ee ee ee ee"},
    {"AllOnes", 16, 0xFF, UINT64_MAX, UINT32_MAX, 0,
     "ff 00 ff ff ff ff ff ff ff ff ff ff ff ff 81 00 ee ee ee ee"},
    {"AllZero", 16, 0x00, 0, 0, 0, "00 00 00 00 00 00 00 00 00 00 00 00 00 00 81 00 ee ee ee ee"},
    {"TopBitsOnly", 16, 0xC7, 0x8000000000000000ULL, 0x80000000U, 0,
     "c7 00 80 00 00 00 00 00 00 00 80 00 00 00 81 00 ee ee ee ee"},
};

class BuildCdbTest : public SandboxTest, public ::testing::WithParamInterface<CdbCase> {};

TEST_P(BuildCdbTest, LaysOutTheSixteenBytes) {
    const CdbCase& c = GetParam();
    std::array<unsigned char, 20> buf{};
    buf.fill(0xEE);
    EXPECT_EQ(HIC_BuildCdb(buf.data(), c.cdbLen, c.opcode, c.address, c.length), c.rc);
    EXPECT_EQ(SpacedHex(buf.data(), buf.size()), c.bytes);
    EXPECT_EQ(LoggedMessages(), "");
}

INSTANTIATE_TEST_SUITE_P(Table, BuildCdbTest, ::testing::ValuesIn(kCdbCases), CaseName());

TEST_F(ScsiTransportTest, BuildCdbRefusesANullBuffer) {
    EXPECT_EQ(HIC_BuildCdb(nullptr, 16, 0xC9, 0, 0), -1);
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// HIC_IoctlSendCmd: what reaches the array

TEST_F(ScsiTransportTest, DataOutRequestArrivesAsBuilt) {
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    unsigned char cdb[HIC_CDB_LEN] = {};
    ASSERT_EQ(HIC_BuildCdb(cdb, HIC_CDB_LEN, 0xC9, 0, 28), 0);
    std::vector<unsigned char> payload(28);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<unsigned char>(0xF0 - i);
    }
    EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb, payload.data(), 28, SG_DXFER_TO_DEV), 0);

    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 1U);
    const CommandRecord& rec = commands[0];
    EXPECT_EQ(SpacedHex(rec.cdb), "c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00");
    ExpectRequestFields(rec, -2, 16, 28);
    EXPECT_EQ(rec.open_flags, O_RDWR);
    EXPECT_EQ(SpacedHex(rec.data_out), SpacedHex(payload.data(), payload.size()));
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(ScsiTransportTest, DataInRequestArrivesAsBuiltAndFillsTheBuffer) {
    Array().RaiseSwitch(kArraySn, "01020304");
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096, 0xEE);
    EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb.data(), buf.data(), 4096, SG_DXFER_FROM_DEV), 0);

    std::vector<unsigned char> want(4096, 0);
    want[4] = 1;
    want[5] = 1;
    want[6] = 2;
    want[7] = 3;
    want[8] = 4;
    EXPECT_TRUE(buf == want) << SpacedHex(buf.data(), 16);
    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 1U);
    ExpectRequestFields(commands[0], -3, 16, 4096);
    EXPECT_EQ(commands[0].open_flags, O_RDONLY);
    EXPECT_EQ(commands[0].transferred, 4096U);
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// HIC_IoctlSendCmd: the judgement of a completion

struct StatusCase {
    const char* name;
    Json fault;  // on sdb, kind c7
    int rc;
    const char* line;  // the whole log at DEBUG
    bool infoToo;      // whether the line shows at INFO as well
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const StatusCase& c, std::ostream* os) {
    *os << c.name;
}

const std::vector<StatusCase>& StatusCases() {
    static const std::vector<StatusCase> cases = {
        {"CheckConditionAlone",
         {{"status", 2}, {"driver_status", 0}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:2, host_status:0, driver_status:0.\n",
         false},
        {"CheckConditionWithSense",
         {{"status", 2}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:2, host_status:0, driver_status:8.\n",
         false},
        {"BusyStatus",
         {{"status", 8}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:8, host_status:0, driver_status:0.\n",
         false},
        {"HostStatusAlone",
         {{"host_status", 7}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:7, driver_status:0.\n",
         false},
        {"DriverSenseFlagAlone",
         {{"driver_status", 8}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:0, driver_status:8.\n",
         false},
        {"DriverTimeoutAlone",
         {{"driver_status", 6}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:0, driver_status:6.\n",
         false},
        // A reply later than the 30 ms timeout ends in DID_TIME_OUT.
        {"TimedOut",
         {{"delay_ms", 200}, {"honour_timeout", 1}},
         -1,
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:3, driver_status:0.\n",
         false},
        {"IoctlFailsWithEio",
         {{"errno", "EIO"}},
         -1,
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Input/output error (errno=5).\n",
         true},
        {"IoctlFailsWithEnodev",
         {{"errno", "ENODEV"}},
         -1,
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: No such device (errno=19).\n",
         true},
        // The residual count is not consulted.
        {"ShortTransferSucceeds", {{"short", 10}}, 0, "", false},
    };
    return cases;
}

class IoctlStatusTest : public ScsiRigTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(IoctlStatusTest, JudgesTheCompletionAndLogsAtItsLevel) {
    const StatusCase& c = GetParam();
    Json fault = c.fault;
    fault["lun"] = "sdb";
    fault["kind"] = "c7";
    Array().InjectFault(fault);
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096);

    for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
        SCOPED_TRACE(level == HIC_LOG_DEBUG ? "DEBUG" : "INFO");
        (void)std::remove(HIC_LOG_PATH);
        HIC_SetLogLevel(level);
        EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb.data(), buf.data(), 4096, SG_DXFER_FROM_DEV),
                  c.rc);
        EXPECT_EQ(LoggedMessages(), level == HIC_LOG_DEBUG || c.infoToo ? c.line : "");
    }
    // The array saw both submissions, each judged by its own reply.
    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_TRUE(commands[0].fault_id.has_value());
}

INSTANTIATE_TEST_SUITE_P(Table, IoctlStatusTest, ::testing::ValuesIn(StatusCases()), CaseName());

TEST_F(ScsiTransportTest, ShortTransferKeepsWhatArrived) {
    Array().RaiseSwitch(kArraySn, "0a0b0c0d");
    Array().InjectFault({{"lun", "sdb"}, {"kind", "c7"}, {"short", 6}});
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(16, 0xEE);
    EXPECT_EQ(HIC_IoctlSendCmd(fd.Get(), cdb.data(), buf.data(), 16, SG_DXFER_FROM_DEV), 0);
    EXPECT_EQ(SpacedHex(buf.data(), buf.size()), "00 00 00 00 01 0a ee ee ee ee ee ee ee ee ee ee");
    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].transferred, 6U);
    EXPECT_EQ(commands[0].resid, 10U);
}

TEST_F(ScsiTransportTest, DescriptorsThatTakeNoSgIoFailWithTheErrno) {
    struct Case {
        const char* name;
        int fd;
        const char* line;
    };
    hic::UniqueFd devNull(::open("/dev/null", O_RDWR));
    ASSERT_TRUE(devNull.Valid());
    const Case cases[] = {
        {"Closed", ClosedFd(),
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Bad file descriptor (errno=9).\n"},
        {"MinusOne", -1,
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Bad file descriptor (errno=9).\n"},
        {"NotADisk", devNull.Get(),
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Inappropriate ioctl for device "
         "(errno=25).\n"},
    };
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        (void)std::remove(HIC_LOG_PATH);
        EXPECT_EQ(HIC_IoctlSendCmd(c.fd, cdb.data(), buf.data(), 4096, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(LoggedMessages(), c.line);
    }
}

// A null argument is refused before any system call: on a good descriptor
// the array sees nothing, and on a bad one no ioctl error shows up.
TEST_F(ScsiTransportTest, NullArgumentsSendNothingAndLogNothing) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    auto cdb = SwitchCdb();
    std::vector<unsigned char> buf(4096);
    for (const int target : {fd.Get(), -1}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(HIC_IoctlSendCmd(target, nullptr, buf.data(), 4096, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(HIC_IoctlSendCmd(target, cdb.data(), nullptr, 4096, SG_DXFER_FROM_DEV), -1);
        // Even a transfer of nothing needs a buffer.
        EXPECT_EQ(HIC_IoctlSendCmd(target, cdb.data(), nullptr, 0, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(HIC_IoctlSendCmd(target, nullptr, nullptr, 0, SG_DXFER_TO_DEV), -1);
    }
    EXPECT_EQ(HIC_OpenDevByPath(nullptr, HIC_OPEN_READ_ONLY), -1);
    EXPECT_EQ(HIC_OpenDevByPath(nullptr, HIC_OPEN_READ_WRITE), -1);
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(Opens().size(), 1U);  // the test's own
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// HIC_OpenDevByPath

TEST_F(ScsiTransportTest, OnlyModeOneOpensReadOnly) {
    struct Case {
        int mode;
        int accmode;
    };
    const Case cases[] = {{0, O_RDWR}, {1, O_RDONLY}, {2, O_RDWR},
                          {3, O_RDWR}, {-1, O_RDWR},  {INT32_MAX, O_RDWR}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        Array().Reset();
        hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, c.mode));
        ASSERT_TRUE(fd.Valid());
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
    Array().InjectFault(
        {{"lun", "sdb"}, {"kind", "open"}, {"errno", "EACCES"}, {"open_mode", "rw"}});
    struct Case {
        const char* path;
        int mode;
        bool opens;
        const char* line;
    };
    const Case cases[] = {
        {"/dev/sdz", HIC_OPEN_READ_ONLY, false, "ERR HIC_OpenDevByPath: open /dev/sdz failed.\n"},
        {"/dev/sdb", HIC_OPEN_READ_WRITE, false, "ERR HIC_OpenDevByPath: open /dev/sdb failed.\n"},
        {"/dev/sdb", 0, false, "ERR HIC_OpenDevByPath: open /dev/sdb failed.\n"},
        {"/dev/sdb", HIC_OPEN_READ_ONLY, true, ""},
        {"", HIC_OPEN_READ_ONLY, false, "ERR HIC_OpenDevByPath: open  failed.\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.path) + " mode " + std::to_string(c.mode));
        (void)std::remove(HIC_LOG_PATH);
        hic::UniqueFd fd(HIC_OpenDevByPath(c.path, c.mode));
        EXPECT_EQ(fd.Valid(), c.opens);
        if (!c.opens) {
            EXPECT_EQ(fd.Get(), -1);
        }
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
