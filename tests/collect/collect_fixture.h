// Fixture and expectation builders of the collection tests.
#ifndef HIC_TESTS_COLLECT_COLLECT_FIXTURE_H
#define HIC_TESTS_COLLECT_COLLECT_FIXTURE_H

#include <fcntl.h>
#include <pthread.h>

#include <algorithm>
#include <string>
#include <vector>

#include "collect/result_upload.h"
#include "collect/switch_poll.h"
#include "support/collect_rig.h"

namespace hic_test {

// The address of the default settings file (IPv4 10.10.1.20).
inline Bytes DefaultHostIp() {
    return Hex("0A0A0114000000000000000000000000");
}

// At DEBUG, the collection thread's lines up to the version check through dev.
inline LogList QueryLines(const std::string& dev, const std::string& version = "3.0") {
    return {Debug("HIC_GetArrayList", "get array info list success.\n"),
            Debug("HIC_GetSendIPAndType", "trans IP string to number 0, ip is 10.10.1.20.\n"),
            Debug("HIC_GetCollectScriptFromArray", "Select lun " + dev + ".\n"),
            Debug("HIC_CheckArrayVersion", "get array version {" + version + "}.\n")};
}

// Lines of the collection thread once the array asked for a collection
// through dev, up to the start of the heartbeat.
inline LogList ArmedLines(const std::string& sn, const std::string& dev) {
    return {
        Info("HIC_IsValidToExecuteCollectTask", "Get the array{sn:" + sn + "} switchStatus 1.\n"),
        Info("HIC_GetSwitchInfo",
             "Select lun " + dev + " to start the collection task for array:" + sn + ".\n"),
        Info("HIC_CreateDirectory", "The directory{/opt/Vornal/" + sn + "} recreate success.\n"),
        Info("HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: " + sn + ".\n")};
}

// At DEBUG, the commands that run the script and pack its files.
inline LogList ScriptLines(const std::string& sn) {
    const std::string dir = "/opt/Vornal/" + sn;
    return {Debug("HIC_ExecuteCollectScript",
                  "sh " + dir + "/hic_collect.sh -scene upgrade >/dev/null 2>&1.\n"),
            Debug("HIC_ExecuteCollectScript", "cd " + dir + "/; tar zcf " + dir +
                                                  "/result.tar.gz *.data CollectLog_*.txt "
                                                  ">/dev/null 2>&1.\n")};
}

// The first two lines of an upload attempt of an archive of size bytes.
inline LogList BeginLines(const std::string& sn, const std::string& dev, uint32_t size) {
    return {Info("HIC_WriteCollectResultToArray",
                 "begin write result array{sn:" + sn + "} by lun{" + dev + "}.\n"),
            Info("HIC_WriteResultFileBufToArray",
                 "the array{sn:" + sn + "} result fileSize is " + std::to_string(size) + ".\n")};
}

// Lines of one complete upload attempt.
inline LogList UploadLines(const std::string& sn, const std::string& dev, uint32_t size) {
    LogList lines = BeginLines(sn, dev, size);
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

// The heartbeat thread's lines: failures right after its start, count
// heartbeats, and its exit once the work finished.
inline LogList HeartbeatLines(const std::string& sn, size_t count, const LogList& failures = {},
                              bool exits = true) {
    LogList lines = Cat(Info("HIC_SendC9ToArray", "start HeartBeat thread.\n"), failures);
    lines.insert(lines.end(), count,
                 Info("HIC_SendHeartBeatByLun", "send HeartBeat C9 to array{sn:" + sn + "}.\n"));
    if (exits) {
        lines.push_back(Info("HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n"));
    }
    return lines;
}

// Every chunk of an upload attempt, byte for byte against the archive.
inline void ExpectChunks(const std::vector<vnarray::CommandRecord>& writes, const Bytes& archive,
                         const Bytes& versions, const Bytes& hostIp, uint8_t ipType) {
    const auto size = static_cast<uint32_t>(archive.size());
    const size_t count = (size + HIC_RESULT_CHUNK_LEN - 1) / HIC_RESULT_CHUNK_LEN;
    ASSERT_EQ(writes.size(), count);
    const Bytes header = ChunkHeader(size, versions, hostIp, ipType);
    for (size_t i = 0; i < count; ++i) {
        const uint32_t offset = static_cast<uint32_t>(i) * HIC_RESULT_CHUNK_LEN;
        const uint32_t n = std::min(size - offset, HIC_RESULT_CHUNK_LEN);
        SCOPED_TRACE("chunk at " + std::to_string(offset));
        EXPECT_EQ(writes[i].cdb, VendorCdb(0xCA, offset, HIC_RESULT_HEADER_LEN + n));
        ExpectDaemonRequest(writes[i], -2, HIC_RESULT_HEADER_LEN + n, O_RDWR);
        Bytes transfer = header;
        transfer.insert(transfer.end(), archive.begin() + offset, archive.begin() + offset + n);
        EXPECT_EQ(writes[i].data_out, transfer);
    }
}

// The shared array and, as start-up does before the main loop, the mutex.
class CollectEnvironment : public RigEnvironment {
  public:
    using RigEnvironment::RigEnvironment;
    void SetUp() override {
        ASSERT_EQ(pthread_mutex_init(&HIC_ResultWriteMutex, nullptr), 0);
        RigEnvironment::SetUp();
    }
};

class CollectTest : public RigTest {
  protected:
    // One main-loop array step, then the wait for every thread it started.
    static void Pass() {
        ASSERT_EQ(HIC_GetHostCollectSwitchInfo(), 0);
        ASSERT_TRUE(CollectRig::WaitReleased());
    }

    // ROAD01 alone asks for a collection, with a fault (JSON) and script
    // settings, then one pass. Pass() also proves every record idle again.
    static void RequestAndPass(const std::string& fault = "", const std::string& conf = "",
                               const std::string& version = "00000001") {
        CollectRig::UseArrays({"ROAD01"});
        if (!fault.empty()) {
            array().InjectFault(vnarray::Json::parse(fault));
        }
        ScriptConf("ROAD01", conf);
        array().RaiseSwitch("ROAD01", version);
        Pass();
    }

    // The LUNs of the commands of a kind, space-separated; only failed ones
    // if asked.
    static std::string LunsOf(const std::string& kind, bool failed = false) {
        std::string out;
        for (const auto& cmd : array().Commands({{"kind", kind}})) {
            if (!failed || cmd.status != 0) {
                out += (out.empty() ? "" : " ") + cmd.lun;
            }
        }
        return out;
    }

    static Bytes Versions(const HIC_ArrayInfo& a) { return {a.versions, a.versions + 4}; }
};

}  // namespace hic_test

#endif  // HIC_TESTS_COLLECT_COLLECT_FIXTURE_H
