// Fixture and expectation builders of the collection tests.
#ifndef HIC_TESTS_COLLECT_COLLECT_FIXTURE_H
#define HIC_TESTS_COLLECT_COLLECT_FIXTURE_H

#include <fcntl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "collect/result_upload.h"
#include "collect/switch_poll.h"
#include "support/collect_rig.h"

namespace hic_test {

inline std::string Info(const std::string& func, const std::string& msg) {
    return "INFO " + func + ": " + msg;
}
inline std::string Err(const std::string& func, const std::string& msg) {
    return "ERR " + func + ": " + msg;
}
inline std::string Debug(const std::string& func, const std::string& msg) {
    return "DEBUG " + func + ": " + msg;
}

// The address of the default settings file (IPv4 10.10.1.20).
inline Bytes DefaultHostIp() {
    return Hex("0A0A0114000000000000000000000000");
}

// Lines of the collection thread once the array asked for a collection
// through dev, up to the start of the heartbeat.
inline std::vector<std::string> ArmedLines(const std::string& sn, const std::string& dev) {
    return {
        Info("HIC_IsValidToExecuteCollectTask", "Get the array{sn:" + sn + "} switchStatus 1.\n"),
        Info("HIC_GetSwitchInfo",
             "Select lun " + dev + " to start the collection task for array:" + sn + ".\n"),
        Info("HIC_CreateDirectory", "The directory{/opt/Vornal/" + sn + "} recreate success.\n"),
        Info("HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: " + sn + ".\n")};
}

// The first two lines of an upload attempt of an archive of size bytes.
inline std::vector<std::string> BeginLines(const std::string& sn, const std::string& dev,
                                           uint32_t size) {
    return {Info("HIC_WriteCollectResultToArray",
                 "begin write result array{sn:" + sn + "} by lun{" + dev + "}.\n"),
            Info("HIC_WriteResultFileBufToArray",
                 "the array{sn:" + sn + "} result fileSize is " + std::to_string(size) + ".\n")};
}

// Lines of one complete upload attempt.
inline std::vector<std::string> UploadLines(const std::string& sn, const std::string& dev,
                                            uint32_t size) {
    std::vector<std::string> lines = BeginLines(sn, dev, size);
    for (uint32_t offset = 0; offset < size; offset += HIC_RESULT_CHUNK_LEN) {
        lines.push_back(Info("HIC_GetFileBufAndWriteToArray",
                             "Write to array Offset " + std::to_string(offset) + " success.\n"));
    }
    return lines;
}

inline std::string FailedOnLine(const std::string& sn, const std::string& dev) {
    return Err("HIC_WriteCollectResultToArray",
               "Write to array{sn:" + sn + "} failed on dev " + dev + ".\n");
}

inline std::string SuccessLine(const std::string& sn) {
    return Info("HIC_CollectTaskThread", "array{sn:" + sn + "} collect task execute success.\n");
}

// The heartbeat thread's lines when it sent count heartbeats and then saw
// the work finished.
inline std::vector<std::string> HeartbeatLines(const std::string& sn, size_t count,
                                               bool exits = true) {
    std::vector<std::string> lines = {Info("HIC_SendC9ToArray", "start HeartBeat thread.\n")};
    lines.insert(lines.end(), count,
                 Info("HIC_SendHeartBeatByLun", "send HeartBeat C9 to array{sn:" + sn + "}.\n"));
    if (exits) {
        lines.push_back(Info("HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n"));
    }
    return lines;
}

// Every chunk of an upload attempt through lun, checked byte for byte
// against the archive the array reassembled.
inline void ExpectChunks(const std::vector<vnarray::CommandRecord>& writes, const Bytes& archive,
                         const Bytes& versions, const Bytes& hostIp, uint8_t ipType) {
    const auto size = static_cast<uint32_t>(archive.size());
    const size_t count = (size + HIC_RESULT_CHUNK_LEN - 1) / HIC_RESULT_CHUNK_LEN;
    ASSERT_EQ(writes.size(), count);
    const Bytes header = ChunkHeader(size, versions, hostIp, ipType);
    for (size_t i = 0; i < count; ++i) {
        const uint32_t offset = static_cast<uint32_t>(i) * HIC_RESULT_CHUNK_LEN;
        const uint32_t n = std::min(size - offset, HIC_RESULT_CHUNK_LEN);
        const vnarray::CommandRecord& w = writes[i];
        SCOPED_TRACE("chunk at " + std::to_string(offset));
        EXPECT_EQ(w.cdb, VendorCdb(0xCA, offset, HIC_RESULT_HEADER_LEN + n));
        ExpectDaemonRequest(w, -2, HIC_RESULT_HEADER_LEN + n, O_RDWR);
        Bytes transfer = header;
        transfer.insert(transfer.end(), archive.begin() + offset, archive.begin() + offset + n);
        EXPECT_EQ(w.data_out, transfer);
    }
}

class CollectTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        CollectRig::Reset();
    }
    void TearDown() override {
        EXPECT_TRUE(CollectRig::WaitReleased()) << "a daemon thread still holds an array";
        SandboxTest::TearDown();
    }

    static vnarray::Client& array() { return CollectRig::client(); }

    // One main-loop array step, then the wait for every thread it started.
    static void Pass() {
        ASSERT_EQ(HIC_GetHostCollectSwitchInfo(), 0);
        ASSERT_TRUE(CollectRig::WaitReleased());
    }

    static HIC_ArrayInfo& Record(const std::string& sn) {
        HIC_ArrayInfo* a = CollectRig::FindArray(sn);
        EXPECT_NE(a, nullptr) << sn;
        static HIC_ArrayInfo none{};
        return a != nullptr ? *a : none;
    }

    static Bytes Versions(const HIC_ArrayInfo& a) { return {a.versions, a.versions + 4}; }

    static std::vector<vnarray::CommandRecord> Commands(const std::string& lun,
                                                        const std::string& kind) {
        return array().Commands({{"lun", lun}, {"kind", kind}});
    }

    static std::vector<std::string> Devs(const std::vector<vnarray::CommandRecord>& cmds) {
        std::vector<std::string> out;
        for (const auto& c : cmds) {
            out.push_back(c.lun);
        }
        return out;
    }
};

}  // namespace hic_test

#endif  // HIC_TESTS_COLLECT_COLLECT_FIXTURE_H
