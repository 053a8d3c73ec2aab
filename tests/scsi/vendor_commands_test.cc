// The three vendor commands against the virtual array: every CDB byte, the
// transfer and its direction, the payload that arrives, and the log lines
// of each way a command can fail.
#include "scsi/vendor_commands.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "scsi/sg_transport.h"
#include "scsi_rig.h"

namespace hic_test {
namespace {

using VendorCommandTest = ScsiRigTest;

// A write buffer as the upload lays it out: 00 81, then a header, then data.
std::vector<unsigned char> Chunk(size_t len) {
    std::vector<unsigned char> b(len);
    for (size_t i = 0; i < len; ++i) {
        b[i] = static_cast<unsigned char>(0x30 + i * 7);
    }
    b[0] = 0x00;
    b[1] = 0x81;
    return b;
}

TEST_F(VendorCommandTest, DataOutCommandsSendTheirPayloadUnchanged) {
    const struct {
        const char* name;
        bool heartbeat;  // else a write buffer at this offset
        unsigned int len;
        uint64_t address;
        const char* cdb;
    } cases[] = {
        {"Heartbeat", true, 28, 0, "c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00"},
        {"HeartbeatAddressAndLength", true, 100, 0x0102030405060708ULL,
         "c9 00 01 02 03 04 05 06 07 08 00 00 00 64 81 00"},
        {"FirstChunk", false, 4096, 0, "ca 00 00 00 00 00 00 00 00 00 00 00 10 00 81 00"},
        {"SecondChunk", false, 4096, 4064, "ca 00 00 00 00 00 00 00 0f e0 00 00 10 00 81 00"},
        {"LastChunkOf100", false, 132, 8128, "ca 00 00 00 00 00 00 00 1f c0 00 00 00 84 81 00"},
        {"HeaderOnly", false, 32, 4064, "ca 00 00 00 00 00 00 00 0f e0 00 00 00 20 81 00"},
        {"LargestOffset", false, 40, INT32_MAX, "ca 00 00 00 00 00 7f ff ff ff 00 00 00 28 81 00"},
    };
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_WRITE);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NextCase();
        std::vector<unsigned char> payload = Chunk(c.len);
        const std::vector<unsigned char> sent = payload;
        EXPECT_EQ(c.heartbeat ? HIC_SendHeartBeat(fd.Get(), payload.data(), c.len, c.address)
                              : HIC_DoWriteBufToArray(fd.Get(), payload.data(), c.len,
                                                      static_cast<int32_t>(c.address)),
                  0);
        EXPECT_TRUE(payload == sent);
        const CommandRecord rec = ExpectOneRequest(c.cdb, -2, c.len, O_RDWR);
        EXPECT_EQ(rec.transferred, c.len);
        EXPECT_EQ(SpacedHex(rec.data_out), SpacedHex(sent.data(), sent.size()));
    }
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(VendorCommandTest, SwitchQueryAsksFor4096WhateverTheBuffer) {
    const struct {
        const char* name;
        unsigned int len;
        const char* fault;  // on sdb, kind c7; null: none
        size_t arrived;
    } cases[] = {
        {"Daemon", 4096, nullptr, 4096},
        {"SmallerBuffer", 100, nullptr, 100},
        {"TinyBuffer", 6, nullptr, 6},
        // The array sends 4096 at most: the rest of a larger buffer stays zero.
        {"LargerBuffer", 8192, nullptr, 4096},
        // A short reply still succeeds; the unsent bytes stay zero.
        {"ShortReply", 4096, R"({"short": 7})", 7},
    };
    Array().RaiseSwitch(kArraySn, "0a0b0c0d");
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_ONLY);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NextCase();
        if (c.fault != nullptr) {
            InjectOnB("c7", c.fault);
        }
        std::vector<unsigned char> buf(c.len, 0xEE);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(fd.Get(), buf.data(), c.len), 0);
        std::vector<unsigned char> want(c.len, 0);
        const unsigned char reply[] = {0, 0, 0, 0, 1, 0x0A, 0x0B, 0x0C, 0x0D};
        std::copy_n(reply, std::min({sizeof(reply), c.arrived, want.size()}), want.begin());
        EXPECT_TRUE(buf == want) << SpacedHex(buf.data(), std::min<size_t>(buf.size(), 16));
        EXPECT_EQ(
            ExpectOneRequest("c7 00 00 00 00 00 00 00 00 00 00 00 10 00 81 00", -3, c.len, O_RDONLY)
                .transferred,
            c.arrived);
    }
    EXPECT_EQ(LoggedMessages(), "");
}

// Every command against every kind of failure: the transport's line, then
// the command's own, each at its level; nothing is retried.
TEST_F(VendorCommandTest, FailuresLogTheirLinesAtTheirLevels) {
    const struct {
        const char* kind;
        const char* line;
        bool lineAtInfo;
    } commands[] = {
        {"c9", "ERR HIC_SendHeartBeat: send heartbeat failed.\n", true},
        {"ca", "ERR HIC_DoWriteBufToArray: write to array failed.\n", true},
        // A refused query leaves nothing at INFO.
        {"c7", "DEBUG HIC_DoQuerySwitchStatus: query collect switch failed.\n", false},
    };
    const struct {
        const char* fault;
        const char* line;
        bool lineAtInfo;
    } faults[] = {
        {R"({"status": 2})",
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:2, host_status:0, driver_status:8.\n",
         false},
        {R"({"host_status": 7})",
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:7, driver_status:0.\n",
         false},
        {R"({"driver_status": 8})",
         "DEBUG HIC_IoctlSendCmd: send ioctl failed. status:0, host_status:0, driver_status:8.\n",
         false},
        {R"({"errno": "EIO"})",
         "ERR HIC_IoctlSendCmd: ioctl(SG_IO) failed: Input/output error (errno=5).\n", true},
    };
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_WRITE);
    std::vector<unsigned char> buf = Chunk(4096);
    for (const auto& cmd : commands) {
        for (const auto& f : faults) {
            SCOPED_TRACE(std::string(cmd.kind) + " " + f.fault);
            NextCase();
            InjectOnB(cmd.kind, f.fault);
            const std::string kind = cmd.kind;
            for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
                SCOPED_TRACE(level == HIC_LOG_DEBUG ? "DEBUG" : "INFO");
                (void)std::remove(HIC_LOG_PATH);
                HIC_SetLogLevel(level);
                const int rc = kind == "c9" ? HIC_SendHeartBeat(fd.Get(), buf.data(), 28, 0)
                               : kind == "ca"
                                   ? HIC_DoWriteBufToArray(fd.Get(), buf.data(), 4096, 4064)
                                   : HIC_DoQuerySwitchStatus(fd.Get(), buf.data(), 4096);
                EXPECT_EQ(rc, -1);
                const bool debug = level == HIC_LOG_DEBUG;
                EXPECT_EQ(LoggedMessages(), std::string(debug || f.lineAtInfo ? f.line : "") +
                                                (debug || cmd.lineAtInfo ? cmd.line : ""));
            }
            EXPECT_EQ(Commands().size(), 2U);
        }
    }
}

// Refused before any system call: on a good descriptor the array sees
// nothing, on a bad one no ioctl error shows.
TEST_F(VendorCommandTest, RefusedArgumentsSendNothingAndLogNothing) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_WRITE);
    std::vector<unsigned char> buf = Chunk(4096);
    unsigned char* cdb = buf.data();
    for (const int target : {fd.Get(), -1}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(HIC_IoctlSendCmd(target, nullptr, buf.data(), 4096, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(HIC_IoctlSendCmd(target, cdb, nullptr, 4096, SG_DXFER_FROM_DEV), -1);
        // Even a transfer of nothing needs a buffer.
        EXPECT_EQ(HIC_IoctlSendCmd(target, cdb, nullptr, 0, SG_DXFER_FROM_DEV), -1);
        EXPECT_EQ(HIC_IoctlSendCmd(target, nullptr, nullptr, 0, SG_DXFER_TO_DEV), -1);
        EXPECT_EQ(HIC_SendHeartBeat(target, nullptr, 28, 0), -1);
        EXPECT_EQ(HIC_SendHeartBeat(target, nullptr, 0, 0), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, nullptr, 4096, 0), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, buf.data(), 4096, -1), -1);
        EXPECT_EQ(HIC_DoWriteBufToArray(target, buf.data(), 4096, INT32_MIN), -1);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(target, nullptr, 4096), -1);
        EXPECT_EQ(HIC_DoQuerySwitchStatus(target, nullptr, 0), -1);
    }
    EXPECT_EQ(HIC_OpenDevByPath(nullptr, HIC_OPEN_READ_ONLY), -1);
    EXPECT_EQ(HIC_OpenDevByPath(nullptr, HIC_OPEN_READ_WRITE), -1);
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(Opens().size(), 1U);  // the test's own
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
