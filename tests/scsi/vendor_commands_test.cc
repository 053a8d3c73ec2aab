// The three vendor commands against the virtual array: every CDB byte, the
// transfer and its direction, the payload that arrives, and the log lines
// of each way a command can fail.
#include "scsi/vendor_commands.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "scsi/sg_transport.h"
#include "scsi_rig.h"

namespace hic_test {
namespace {

using VendorCommandTest = ScsiRigTest;

std::vector<unsigned char> Pattern(size_t len, unsigned seed) {
    std::vector<unsigned char> b(len);
    for (size_t i = 0; i < len; ++i) {
        b[i] = static_cast<unsigned char>(seed + i * 7);
    }
    return b;
}

// A write buffer as the upload lays it out: 00 81, then a header, then data.
std::vector<unsigned char> Chunk(size_t len) {
    std::vector<unsigned char> b = Pattern(len, 0x30);
    b[0] = 0x00;
    b[1] = 0x81;
    return b;
}

TEST_F(VendorCommandTest, HeartbeatSendsItsPayloadOut) {
    struct Case {
        const char* name;
        unsigned int len;
        uint64_t address;
        const char* cdb;
    };
    const Case cases[] = {
        {"Daemon", 28, 0, "c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00"},
        {"AddressAndLengthPassedThrough", 100, 0x0102030405060708ULL,
         "c9 00 01 02 03 04 05 06 07 08 00 00 00 64 81 00"},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().Reset();
        std::vector<unsigned char> payload = Chunk(c.len);
        const std::vector<unsigned char> sent = payload;
        EXPECT_EQ(HIC_SendHeartBeat(fd.Get(), payload.data(), c.len, c.address), 0);
        EXPECT_TRUE(payload == sent);
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 1U);
        EXPECT_EQ(SpacedHex(commands[0].cdb), c.cdb);
        ExpectRequestFields(commands[0], -2, 16, c.len);
        EXPECT_EQ(commands[0].open_flags, O_RDWR);
        EXPECT_EQ(SpacedHex(commands[0].data_out), SpacedHex(sent.data(), sent.size()));
    }
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(VendorCommandTest, WriteBufferCarriesOffsetAndLength) {
    struct Case {
        const char* name;
        int32_t offset;
        unsigned int len;
        const char* cdb;
    };
    const Case cases[] = {
        {"FirstChunk", 0, 4096, "ca 00 00 00 00 00 00 00 00 00 00 00 10 00 81 00"},
        {"SecondChunk", 4064, 4096, "ca 00 00 00 00 00 00 00 0f e0 00 00 10 00 81 00"},
        {"LastChunkOf100", 8128, 132, "ca 00 00 00 00 00 00 00 1f c0 00 00 00 84 81 00"},
        {"HeaderOnly", 4064, 32, "ca 00 00 00 00 00 00 00 0f e0 00 00 00 20 81 00"},
        {"LargestOffset", INT32_MAX, 40, "ca 00 00 00 00 00 7f ff ff ff 00 00 00 28 81 00"},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().Reset();
        std::vector<unsigned char> buf = Chunk(c.len);
        const std::vector<unsigned char> sent = buf;
        EXPECT_EQ(HIC_DoWriteBufToArray(fd.Get(), buf.data(), c.len, c.offset), 0);
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 1U);
        EXPECT_EQ(SpacedHex(commands[0].cdb), c.cdb);
        ExpectRequestFields(commands[0], -2, 16, c.len);
        EXPECT_EQ(commands[0].open_flags, O_RDWR);
        EXPECT_EQ(commands[0].transferred, c.len);
        EXPECT_EQ(SpacedHex(commands[0].data_out), SpacedHex(sent.data(), sent.size()));
    }
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(VendorCommandTest, SwitchQueryAsksFor4096WhateverTheBuffer) {
    Array().RaiseSwitch(kArraySn, "0a0b0c0d");
    struct Case {
        const char* name;
        unsigned int len;
        Json fault;  // null: none
        size_t arrived;
    };
    const Case cases[] = {
        {"Daemon", 4096, nullptr, 4096},
        {"SmallerBuffer", 100, nullptr, 100},
        {"TinyBuffer", 6, nullptr, 6},
        // The array sends 4096 at most: the rest of a larger buffer stays zero.
        {"LargerBuffer", 8192, nullptr, 4096},
        // A short reply still succeeds; the unsent bytes stay zero.
        {"ShortReply", 4096, {{"lun", "sdb"}, {"kind", "c7"}, {"short", 7}}, 7},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().ClearFaults();
        Array().Reset();
        if (!c.fault.is_null()) {
            Array().InjectFault(c.fault);
        }
        std::vector<unsigned char> buf(c.len, 0xEE);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(fd.Get(), buf.data(), c.len), 0);
        std::vector<unsigned char> want(c.len, 0);
        const unsigned char reply[] = {0, 0, 0, 0, 1, 0x0A, 0x0B, 0x0C, 0x0D};
        for (size_t i = 0; i < sizeof(reply) && i < c.arrived; ++i) {
            want[i] = reply[i];
        }
        EXPECT_EQ(SpacedHex(buf.data(), std::min<size_t>(buf.size(), 16)),
                  SpacedHex(want.data(), std::min<size_t>(want.size(), 16)));
        EXPECT_TRUE(buf == want);
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 1U);
        EXPECT_EQ(SpacedHex(commands[0].cdb), "c7 00 00 00 00 00 00 00 00 00 00 00 10 00 81 00");
        ExpectRequestFields(commands[0], -3, 16, c.len);
        EXPECT_EQ(commands[0].open_flags, O_RDONLY);
        EXPECT_EQ(commands[0].transferred, c.arrived);
    }
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// Failures

struct FailureCase {
    const char* name;
    const char* kind;
    Json fault;
    const char* debugLog;  // the whole log at DEBUG
    const char* infoLog;   // and at INFO
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const FailureCase& c, std::ostream* os) {
    *os << c.name;
}

constexpr const char* kStatus2 =
    "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:2, host_status:0, driver_status:8.\n";
constexpr const char* kHost7 =
    "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:7, driver_status:0.\n";
constexpr const char* kDriver8 =
    "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:0, driver_status:8.\n";
constexpr const char* kEio =
    "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Input/output error (errno=5).\n";
constexpr const char* kHeartbeat = "ERR HIC_SendHeartBeat: send heartbeat failed.\n";
constexpr const char* kWrite = "ERR HIC_DoWriteBufToArray: write to array failed.\n";
constexpr const char* kQuery = "DEBUG HIC_DoQuerySwitchStatus: query collect switch failed.\n";

std::string Cat(const char* a, const char* b) {
    return std::string(a) + b;
}

const std::vector<FailureCase>& FailureCases() {
    static const std::vector<std::string> texts = {
        Cat(kStatus2, kHeartbeat), Cat(kHost7, kHeartbeat), Cat(kDriver8, kHeartbeat),
        Cat(kEio, kHeartbeat),     Cat(kStatus2, kWrite),   Cat(kHost7, kWrite),
        Cat(kDriver8, kWrite),     Cat(kEio, kWrite),       Cat(kStatus2, kQuery),
        Cat(kHost7, kQuery),       Cat(kDriver8, kQuery),   Cat(kEio, kQuery),
    };
    const Json status = {{"status", 2}};
    const Json host = {{"host_status", 7}};
    const Json driver = {{"driver_status", 8}};
    const Json eio = {{"errno", "EIO"}};
    static const std::vector<FailureCase> cases = {
        {"HeartbeatCheckCondition", "c9", status, texts[0].c_str(), kHeartbeat},
        {"HeartbeatHostStatus", "c9", host, texts[1].c_str(), kHeartbeat},
        {"HeartbeatDriverStatus", "c9", driver, texts[2].c_str(), kHeartbeat},
        {"HeartbeatIoctlError", "c9", eio, texts[3].c_str(), texts[3].c_str()},
        {"WriteCheckCondition", "ca", status, texts[4].c_str(), kWrite},
        {"WriteHostStatus", "ca", host, texts[5].c_str(), kWrite},
        {"WriteDriverStatus", "ca", driver, texts[6].c_str(), kWrite},
        {"WriteIoctlError", "ca", eio, texts[7].c_str(), texts[7].c_str()},
        // A refused query leaves nothing at INFO.
        {"QueryCheckCondition", "c7", status, texts[8].c_str(), ""},
        {"QueryHostStatus", "c7", host, texts[9].c_str(), ""},
        {"QueryDriverStatus", "c7", driver, texts[10].c_str(), ""},
        {"QueryIoctlError", "c7", eio, texts[11].c_str(), kEio},
    };
    return cases;
}

class VendorFailureTest : public ScsiRigTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(VendorFailureTest, FailsWithItsLinesAtTheirLevels) {
    const FailureCase& c = GetParam();
    Json fault = c.fault;
    fault["lun"] = "sdb";
    fault["kind"] = c.kind;
    Array().InjectFault(fault);
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    std::vector<unsigned char> buf = Chunk(4096);
    const std::string kind = c.kind;
    const std::function<int()> send = [&] {
        if (kind == "c9") {
            return HIC_SendHeartBeat(fd.Get(), buf.data(), 28, 0);
        }
        if (kind == "ca") {
            return HIC_DoWriteBufToArray(fd.Get(), buf.data(), 4096, 4064);
        }
        return HIC_DoQuerySwitchStatus(fd.Get(), buf.data(), 4096);
    };
    for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
        SCOPED_TRACE(level == HIC_LOG_DEBUG ? "DEBUG" : "INFO");
        (void)std::remove(HIC_LOG_PATH);
        HIC_SetLogLevel(level);
        EXPECT_EQ(send(), -1);
        EXPECT_EQ(LoggedMessages(), level == HIC_LOG_DEBUG ? c.debugLog : c.infoLog);
    }
    // Each call is one command; nothing is retried.
    EXPECT_EQ(Commands().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Table, VendorFailureTest, ::testing::ValuesIn(FailureCases()), CaseName());

// Refused before anything is sent: on a good descriptor the array sees
// nothing, on a bad one no ioctl error shows.
TEST_F(VendorCommandTest, RefusedArgumentsSendNothingAndLogNothing) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
    ASSERT_TRUE(fd.Valid());
    std::vector<unsigned char> buf = Chunk(4096);
    for (const int target : {fd.Get(), -1}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(HIC_SendHeartBeat(target, nullptr, 28, 0), -1);
        EXPECT_EQ(HIC_SendHeartBeat(target, nullptr, 0, 0), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, nullptr, 4096, 0), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, buf.data(), 4096, -1), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, buf.data(), 4096, INT32_MIN), -1);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(target, nullptr, 4096), -1);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(target, nullptr, 0), -1);
    }
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(LoggedMessages(), "");
}

// The commands share nothing: a heartbeat thread and a collection thread
// work side by side, each on its own descriptor.
TEST_F(VendorCommandTest, ThreadsSendSideBySide) {
    constexpr int kRounds = 40;
    int heartbeatFailures = 0;
    int otherFailures = 0;
    std::thread heartbeat([&] {
        hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_WRITE));
        std::vector<unsigned char> payload = Chunk(28);
        for (int i = 0; i < kRounds; ++i) {
            heartbeatFailures += HIC_SendHeartBeat(fd.Get(), payload.data(), 28, 0) != 0 ? 1 : 0;
        }
    });
    {
        hic::UniqueFd ro(HIC_OpenDevByPath("/dev/sdc", HIC_OPEN_READ_ONLY));
        hic::UniqueFd rw(HIC_OpenDevByPath("/dev/sdc", HIC_OPEN_READ_WRITE));
        std::vector<unsigned char> reply(4096);
        std::vector<unsigned char> chunk = Chunk(4096);
        for (int i = 0; i < kRounds; ++i) {
            otherFailures += HIC_DoQuerySwitchStatus(ro.Get(), reply.data(), 4096) != 0 ? 1 : 0;
            otherFailures += HIC_DoWriteBufToArray(rw.Get(), chunk.data(), 4096, 0) != 0 ? 1 : 0;
        }
    }
    heartbeat.join();
    EXPECT_EQ(heartbeatFailures, 0);
    EXPECT_EQ(otherFailures, 0);
    const auto commands = Commands();
    ASSERT_EQ(commands.size(), 3U * kRounds);
    int heartbeats = 0;
    for (const CommandRecord& rec : commands) {
        EXPECT_EQ(rec.err, 0);
        EXPECT_EQ(rec.status, 0);
        heartbeats += rec.cdb.at(0) == 0xC9 ? 1 : 0;
    }
    EXPECT_EQ(heartbeats, kRounds);
    EXPECT_EQ(LoggedMessages(), "");
}

}  // namespace
}  // namespace hic_test
