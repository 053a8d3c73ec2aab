// The road of a collection through the real daemon code against the
// virtual array: switch polling and the version gate, the workspace and the
// scripts, the heartbeat beside the collection, the upload, and the hand
// back of the array; and the faults a collection must survive.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "collect/collect_fixture.h"
#include "collect/collect_task.h"
#include "collect/switch_poll.h"
#include "heartbeat/heartbeat.h"
#include "inventory/array_list.h"

namespace hic_test {
namespace {

using vnarray::UploadAttempt;

// Unpacks an archive the array received and returns "name=content" for
// every member, in archive order.
std::vector<std::string> Members(const Bytes& archive) {
    const std::string dir = std::string(kRunDir) + "/unpacked";
    const std::string file = std::string(kRunDir) + "/received.tar.gz";
    WriteFile(file, std::string(archive.begin(), archive.end()));
    EXPECT_EQ(std::system(("rm -rf " + dir + " && mkdir " + dir + " && tar xzf " + file + " -C " +
                           dir + " && tar tzf " + file + " > " + dir + ".list")
                              .c_str()),
              0);
    std::vector<std::string> out;
    std::string names = ReadFile((dir + ".list").c_str());
    for (size_t pos = 0; pos < names.size();) {
        const size_t end = names.find('\n', pos);
        const std::string name = names.substr(pos, end - pos);
        std::string path = dir;
        path += "/";
        path += name;
        std::string member = name;
        member += "=";
        member += ReadFile(path.c_str());
        out.push_back(member);
        pos = end + 1;
    }
    return out;
}

// What the stand-in script leaves for an array when it gets its two words.
std::vector<std::string> ExpectedMembers(const std::string& sn, bool big) {
    std::vector<std::string> out = {"args.data=2\n-scene\nupgrade\n"};
    if (big) {
        out.push_back("big.data=" + ReadFile((std::string(kRunDir) + "/" + sn + ".big").c_str()));
    }
    out.insert(out.end(), {"copy.data=same\n", "listing.data=hic_collect.sh\nhic_data.sh\n",
                           "mode.data=600\n", "CollectLog_1.txt=collection for " + sn + "\n"});
    return out;
}

TEST_F(CollectTest, RoadOfOneCollection) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    CollectRig::UseArrays({"ROAD01"});
    ScriptConf("ROAD01", "BIG=9000\n");
    array().RaiseSwitch("ROAD01", "0A0B0C0D");
    Pass();

    HIC_ArrayInfo& rec = Record("ROAD01");
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(rec.heartBeatRunning.load(), 0);
    EXPECT_EQ(Versions(rec), Hex("0A0B0C0D"));
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);

    // The query: once, through the first LUN, read-only.
    const auto queries = array().Commands({{"kind", "c7"}});
    ASSERT_EQ(Devs(queries), std::vector<std::string>{"sdb"});
    EXPECT_EQ(queries[0].cdb, Hex("C700"
                                  "0000000000000000"
                                  "00001000"
                                  "8100"));
    ExpectDaemonRequest(queries[0], -3, 4096, O_RDONLY);

    // The heartbeat: the first LUN, the exact payload.
    const auto heartbeats = array().Heartbeats("ROAD01");
    ASSERT_GE(heartbeats.size(), 1U);
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, "sdb");
        EXPECT_EQ(hb.cdb, Hex("C900"
                              "0000000000000000"
                              "0000001C"
                              "8100"));
        EXPECT_EQ(hb.payload, HeartbeatPayload(Hex("0A0B0C0D"), DefaultHostIp(), 0));
        EXPECT_TRUE(hb.issues.empty());
    }
    for (const auto& c : Commands("sdb", "c9")) {
        ExpectDaemonRequest(c, -2, 28, O_RDWR);
    }

    // The upload: one attempt through the first LUN, byte for byte.
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    const UploadAttempt& up = uploads[0];
    EXPECT_TRUE(up.complete);
    EXPECT_TRUE(up.issues.empty()) << up.issues.front();
    EXPECT_EQ(up.luns, std::vector<std::string>{"sdb"});
    const Bytes archive = array().UploadData("ROAD01");
    ASSERT_EQ(archive.size(), up.size);
    ASSERT_GT(up.size, 2 * HIC_RESULT_CHUNK_LEN);  // three chunks, the last one short
    ExpectChunks(Commands("sdb", "ca"), archive, Hex("0A0B0C0D"), DefaultHostIp(), 0);
    EXPECT_EQ(Members(archive), ExpectedMembers("ROAD01", true));
    EXPECT_TRUE(array().Commands({{"lun", "sdc"}}).empty());
    EXPECT_TRUE(array().Opens("sdc").empty());

    const Lines task =
        Lines()
            .Add(Debug("HIC_GetArrayList", "get array info list success.\n"))
            .Add(Debug("HIC_GetSendIPAndType", "trans IP string to number 0, ip is 10.10.1.20.\n"))
            .Add(Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdb.\n"))
            .Add(Debug("HIC_CheckArrayVersion", "get array version {3.0}.\n"))
            .Add(ArmedLines("ROAD01", "/dev/sdb"))
            .Add(Debug("HIC_ExecuteCollectScript",
                       "sh /opt/Vornal/ROAD01/hic_collect.sh -scene upgrade "
                       ">/dev/null 2>&1.\n"))
            .Add(Debug("HIC_ExecuteCollectScript",
                       "cd /opt/Vornal/ROAD01/; tar zcf "
                       "/opt/Vornal/ROAD01/result.tar.gz *.data CollectLog_*.txt "
                       ">/dev/null 2>&1.\n"))
            .Add(UploadLines("ROAD01", "/dev/sdb", up.size))
            .Add(SuccessLine("ROAD01"));
    const Lines hb = Lines().Add(HeartbeatLines("ROAD01", heartbeats.size()));
    EXPECT_LOG_INTERLEAVES(task, hb);

    // The same version again: the gate holds, nothing else happens.
    array().Reset();
    (void)std::remove(HIC_LOG_PATH);
    HIC_SetLogLevel(HIC_LOG_INFO);
    Pass();
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);
    EXPECT_TRUE(array().Uploads("ROAD01").empty());
    EXPECT_TRUE(array().Heartbeats("ROAD01").empty());
    EXPECT_EQ(LoggedMessages(), Info("HIC_IsValidToExecuteCollectTask",
                                     "Get the array{sn:ROAD01} switchStatus 1.\n"));

    // A version that differs only in its last byte is a new request.
    array().RaiseSwitch("ROAD01", "0A0B0C0E");
    Pass();
    EXPECT_EQ(ScriptRuns("ROAD01"), 2);
    EXPECT_EQ(Versions(Record("ROAD01")), Hex("0A0B0C0E"));
    ASSERT_EQ(array().Uploads("ROAD01").size(), 1U);
    EXPECT_EQ(array().Uploads("ROAD01")[0].versions, (vnarray::Version{0x0A, 0x0B, 0x0C, 0x0E}));
}

struct GateCase {
    const char* name;
    int switchState;
    const char* version;
    int major;
    int minor;
    bool queried;                  // the 0xC7 query reached the array
    bool collects;                 // the script ran
    std::vector<std::string> log;  // at DEBUG, after the LUN was selected
};

void PrintTo(const GateCase& c, std::ostream* os) {
    *os << c.name;
}

class GateTest : public CollectTest, public ::testing::WithParamInterface<GateCase> {};

TEST_P(GateTest, DecidesOnSwitchVersionAndSoftware) {
    const GateCase& c = GetParam();
    CollectRig::UseArrays({"ROAD01"});
    array().SetVersion("ROAD01", c.major, c.minor);
    array().SetSwitch("ROAD01", c.switchState, c.version);
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    Pass();
    HIC_SetLogLevel(HIC_LOG_INFO);

    EXPECT_EQ(ScriptRuns("ROAD01"), c.collects ? 1 : 0);
    // One LUN answering is enough: the second is never asked.
    EXPECT_EQ(Devs(array().Commands({{"kind", "c7"}})),
              c.queried ? std::vector<std::string>{"sdb"} : std::vector<std::string>{});
    EXPECT_TRUE(array().Opens("sdc").empty());
    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    if (c.collects) {
        EXPECT_EQ(array().Uploads("ROAD01").size(), 1U);
        return;
    }
    EXPECT_EQ(Versions(Record("ROAD01")), Hex("00000000"));
    std::vector<std::string> log = {
        Debug("HIC_GetArrayList", "get array info list success.\n"),
        Debug("HIC_GetSendIPAndType", "trans IP string to number 0, ip is 10.10.1.20.\n"),
        Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdb.\n"),
        Debug("HIC_CheckArrayVersion", "get array version {" + std::to_string(c.major) + "." +
                                           std::to_string(c.minor) + "}.\n")};
    log.insert(log.end(), c.log.begin(), c.log.end());
    EXPECT_EQ(LoggedMessages(), Joined(log));
}

std::string Status1() {
    return Info("HIC_IsValidToExecuteCollectTask", "Get the array{sn:ROAD01} switchStatus 1.\n");
}
std::string Unchanged() {
    return Debug("HIC_IsValidToExecuteCollectTask",
                 "the versions are not change, not execute collect.\n");
}

INSTANTIATE_TEST_SUITE_P(
    Collect, GateTest,
    ::testing::Values(
        GateCase{"SwitchOff", 0, "00000001", 3, 0, true, false, {}},
        GateCase{"SwitchTwo", 2, "00000001", 3, 0, true, false, {}},
        GateCase{"SwitchAllOnes", 255, "00000001", 3, 0, true, false, {}},
        GateCase{
            "FreshRecordVersionZero", 1, "00000000", 3, 0, true, false, {Status1(), Unchanged()}},
        GateCase{"Software26NotAsked", 1, "00000001", 2, 6, false, false, {}},
        GateCase{"Software27", 1, "00000001", 2, 7, true, true, {}},
        GateCase{"Software210", 1, "00000001", 2, 10, true, true, {}}),
    CaseName());

TEST_F(CollectTest, FirstLunCannotBeOpened) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "sdb"}, {"kind", "open"}, {"errno", "EIO"}});
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    EXPECT_EQ(Devs(array().Commands({{"kind", "c7"}})), std::vector<std::string>{"sdc"});
    const auto heartbeats = array().Heartbeats("ROAD01");
    ASSERT_GE(heartbeats.size(), 1U);
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, "sdc");
    }
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_TRUE(uploads[0].complete);
    EXPECT_EQ(uploads[0].luns, std::vector<std::string>{"sdc"});
    // The query opens read-only, heartbeat and upload read-write; every
    // open of the first LUN failed.
    std::vector<int> flags;
    for (const auto& o : array().Opens("sdb")) {
        EXPECT_EQ(o.err, EIO);
        flags.push_back(o.flags);
    }
    std::sort(flags.begin(), flags.end());
    EXPECT_EQ(flags, (std::vector<int>{O_RDONLY, O_RDWR, O_RDWR}));

    const std::string openFailed = Err("HIC_OpenDevByPath", "open /dev/sdb failed.\n");
    const Lines task = Lines()
                           .Add(openFailed)
                           .Add(Err("HIC_GetSwitchInfo", "open /dev/sdb failed, fd:-1, errno:5.\n"))
                           .Add(ArmedLines("ROAD01", "/dev/sdc"))
                           .Add(Info("HIC_WriteCollectResultToArray",
                                     "begin write result array{sn:ROAD01} by lun{/dev/sdb}.\n"))
                           .Add(openFailed)
                           .Add(Err("HIC_WriteResultToArray", "open /dev/sdb failed.\n"))
                           .Add(FailedOnLine("ROAD01", "/dev/sdb"))
                           .Add(UploadLines("ROAD01", "/dev/sdc", uploads[0].size))
                           .Add(SuccessLine("ROAD01"));
    std::vector<std::string> hbLines = HeartbeatLines("ROAD01", heartbeats.size());
    hbLines.insert(hbLines.begin() + 1,
                   {openFailed, Err("HIC_SendHeartBeatByLun", "open /dev/sdb failed.\n")});
    EXPECT_LOG_INTERLEAVES(task, Lines().Add(hbLines));
}

TEST_F(CollectTest, QueryFailsOnFirstLun) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "sdb"}, {"kind", "c7"}, {"status", 2}});
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    const auto queries = array().Commands({{"kind", "c7"}});
    ASSERT_EQ(Devs(queries), (std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(queries[0].status, 2);
    // The LUN that answered armed the collection; heartbeat and upload
    // still take the array's LUNs in list order.
    const auto heartbeats = array().Heartbeats("ROAD01");
    ASSERT_GE(heartbeats.size(), 1U);
    EXPECT_EQ(heartbeats[0].lun, "sdb");
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(uploads[0].luns, std::vector<std::string>{"sdb"});

    const Lines task =
        Lines()
            .Add(Debug("HIC_GetArrayList", "get array info list success.\n"))
            .Add(Debug("HIC_GetSendIPAndType", "trans IP string to number 0, ip is 10.10.1.20.\n"))
            .Add(Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdb.\n"))
            .Add(Debug("HIC_CheckArrayVersion", "get array version {3.0}.\n"))
            .Add(Debug("HIC_IoctlSendCmd",
                       "send ioctl failed. status:2, host_status:0, driver_status:8.\n"))
            .Add(Debug("HIC_DoQuerySwitchStatus", "query collect switch failed.\n"))
            .Add(Debug("HIC_GetSwitchInfo", "get collect switch info failed.\n"))
            .Add(Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdc.\n"))
            .Add(Debug("HIC_CheckArrayVersion", "get array version {3.0}.\n"))
            .Add(ArmedLines("ROAD01", "/dev/sdc"))
            .Add(Debug("HIC_ExecuteCollectScript",
                       "sh /opt/Vornal/ROAD01/hic_collect.sh -scene upgrade >/dev/null 2>&1.\n"))
            .Add(Debug("HIC_ExecuteCollectScript",
                       "cd /opt/Vornal/ROAD01/; tar zcf /opt/Vornal/ROAD01/result.tar.gz *.data "
                       "CollectLog_*.txt >/dev/null 2>&1.\n"))
            .Add(UploadLines("ROAD01", "/dev/sdb", uploads[0].size))
            .Add(SuccessLine("ROAD01"));
    EXPECT_LOG_INTERLEAVES(task, Lines().Add(HeartbeatLines("ROAD01", heartbeats.size())));
}

TEST_F(CollectTest, HeartbeatFailsOverToNextLun) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "sdb"}, {"kind", "c9"}, {"status", 2}, {"count", 1}});
    ScriptConf("ROAD01", "SLEEP=15\n");
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    // The failed heartbeat is not repeated on its LUN; the next one carries on.
    EXPECT_EQ(Commands("sdb", "c9").size(), 1U);
    const auto heartbeats = array().Heartbeats("ROAD01");
    ASSERT_GE(heartbeats.size(), 2U);
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, "sdc");
    }
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(uploads[0].luns, std::vector<std::string>{"sdb"});

    const Lines task = Lines()
                           .Add(ArmedLines("ROAD01", "/dev/sdb"))
                           .Add(UploadLines("ROAD01", "/dev/sdb", uploads[0].size))
                           .Add(SuccessLine("ROAD01"));
    std::vector<std::string> hbLines = HeartbeatLines("ROAD01", heartbeats.size());
    hbLines.insert(hbLines.begin() + 1,
                   {Err("HIC_SendHeartBeat", "send heartbeat failed.\n"),
                    Err("HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev /dev/sdb.\n")});
    EXPECT_LOG_INTERLEAVES(task, Lines().Add(hbLines));
}

TEST_F(CollectTest, SecondChunkFailsAndNextLunGetsWholeArchive) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault(
        {{"lun", "sdb"}, {"kind", "ca"}, {"status", 2}, {"after", 1}, {"count", 1}});
    ScriptConf("ROAD01", "BIG=9000\n");
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 2U);
    EXPECT_EQ(uploads[0].luns, std::vector<std::string>{"sdb"});
    EXPECT_FALSE(uploads[0].complete);
    ASSERT_EQ(uploads[0].chunks.size(), 1U);
    EXPECT_EQ(uploads[0].chunks[0].offset, 0U);
    EXPECT_EQ(uploads[1].luns, std::vector<std::string>{"sdc"});
    EXPECT_TRUE(uploads[1].complete);
    EXPECT_TRUE(uploads[1].issues.empty());
    const Bytes archive = array().UploadData("ROAD01", 1);
    EXPECT_EQ(Members(archive), ExpectedMembers("ROAD01", true));
    // The second LUN starts again at offset 0 and sends every chunk.
    ExpectChunks(Commands("sdc", "ca"), archive, Hex("00000001"), DefaultHostIp(), 0);
    const auto first = Commands("sdb", "ca");
    ASSERT_EQ(first.size(), 2U);
    EXPECT_EQ(first[1].cdb, VendorCdb(0xCA, 4064, 4096));
    EXPECT_EQ(first[1].status, 2);

    const Lines expected =
        Lines()
            .Add(ArmedLines("ROAD01", "/dev/sdb"))
            .Add(BeginLines("ROAD01", "/dev/sdb", uploads[1].size))
            .Add(Info("HIC_GetFileBufAndWriteToArray", "Write to array Offset 0 success.\n"))
            .Add(Err("HIC_DoWriteBufToArray", "write to array failed.\n"))
            .Add(Err("HIC_GetFileBufAndWriteToArray", "Write buf to array failed, offset 4064.\n"))
            .Add(FailedOnLine("ROAD01", "/dev/sdb"))
            .Add(UploadLines("ROAD01", "/dev/sdc", uploads[1].size))
            .Add(SuccessLine("ROAD01"));
    EXPECT_LOG_INTERLEAVES(expected,
                           Lines().Add(HeartbeatLines("ROAD01", array().Heartbeats().size())));
}

TEST_F(CollectTest, EveryLunRejectsUpload) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "*"}, {"kind", "ca"}, {"status", 2}});
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    EXPECT_EQ(Devs(array().Commands({{"kind", "ca"}})), (std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    // Nothing reached the array; the size is the one the daemon found, the
    // same for both attempts.
    EXPECT_TRUE(array().Uploads("ROAD01").empty());
    const std::string log = LoggedMessages();
    const std::string sizeText = "result fileSize is ";
    const size_t at = log.find(sizeText);
    ASSERT_NE(at, std::string::npos) << log;
    const auto size = static_cast<uint32_t>(std::stoul(log.substr(at + sizeText.size())));
    EXPECT_GT(size, 0U);
    Lines task = Lines().Add(ArmedLines("ROAD01", "/dev/sdb"));
    for (const char* dev : {"/dev/sdb", "/dev/sdc"}) {
        task.Add(BeginLines("ROAD01", dev, size))
            .Add(Err("HIC_DoWriteBufToArray", "write to array failed.\n"))
            .Add(Err("HIC_GetFileBufAndWriteToArray", "Write buf to array failed, offset 0.\n"))
            .Add(FailedOnLine("ROAD01", dev));
    }
    task.Add(Err("HIC_CollectTaskThread", "array{sn:ROAD01} collect task execute failed.\n"));
    EXPECT_LOG_INTERLEAVES(
        task, Lines().Add(HeartbeatLines("ROAD01", array().Heartbeats("ROAD01").size())));

    // The version was remembered when the collection was armed: the failed
    // collection is not repeated for it.
    Pass();
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);
}

TEST_F(CollectTest, HeartbeatEndedEarlyCollectionMakesArrayIdle) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "*"}, {"kind", "c9"}, {"status", 2}});
    ScriptConf("ROAD01", "SLEEP=10\n");
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
    EXPECT_TRUE(array().Heartbeats("ROAD01").empty());
    EXPECT_EQ(Devs(array().Commands({{"kind", "c9"}})), (std::vector<std::string>{"sdb", "sdc"}));
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    const Lines task = Lines()
                           .Add(ArmedLines("ROAD01", "/dev/sdb"))
                           .Add(UploadLines("ROAD01", "/dev/sdb", uploads[0].size))
                           .Add(SuccessLine("ROAD01"));
    Lines hb = Lines().Add(Info("HIC_SendC9ToArray", "start HeartBeat thread.\n"));
    for (const char* dev : {"/dev/sdb", "/dev/sdc"}) {
        hb.Add(Err("HIC_SendHeartBeat", "send heartbeat failed.\n"))
            .Add(Err("HIC_SendHeartBeatByLun",
                     std::string("send HeartBeatC9 failed on dev ") + dev + ".\n"));
    }
    EXPECT_LOG_INTERLEAVES(task, hb);
}

TEST_F(CollectTest, AtMostFourLunsAsked) {
    CollectRig::UseArrays({"FIVE01"});
    for (const char* dev : {"sdd", "sde", "sdf", "sdg"}) {
        array().InjectFault({{"lun", dev}, {"kind", "open"}, {"errno", "EIO"}});
    }
    array().RaiseSwitch("FIVE01", "00000001");
    Pass();

    EXPECT_TRUE(array().Opens("sdh").empty());
    EXPECT_TRUE(array().Commands({{"kind", "c7"}}).empty());
    EXPECT_EQ(ScriptRuns("FIVE01"), 0);
    EXPECT_EQ(Record("FIVE01").taskState.load(), HIC_TASK_IDLE);
    std::vector<std::string> log;
    for (const char* dev : {"/dev/sdd", "/dev/sde", "/dev/sdf", "/dev/sdg"}) {
        log.push_back(Err("HIC_OpenDevByPath", std::string("open ") + dev + " failed.\n"));
        log.push_back(
            Err("HIC_GetSwitchInfo", std::string("open ") + dev + " failed, fd:-1, errno:5.\n"));
    }
    EXPECT_EQ(LoggedMessages(), Joined(log));

    // The next pass starts again with the first LUN.
    Pass();
    EXPECT_EQ(array().Opens("sdd").size(), 2U);
    EXPECT_TRUE(array().Opens("sdh").empty());
}

TEST_F(CollectTest, AllLunsFailQueryWithoutMessageOfItsOwn) {
    CollectRig::UseArrays({"ROAD01"});
    array().InjectFault({{"lun", "*"}, {"kind", "c7"}, {"status", 2}});
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    EXPECT_EQ(Devs(array().Commands({{"kind", "c7"}})), (std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(ScriptRuns("ROAD01"), 0);
    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(Versions(Record("ROAD01")), Hex("00000000"));
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(CollectTest, TwoArraysUploadOneAtATime) {
    CollectRig::UseArrays({"ROAD01", "TWIN01"});
    for (const char* sn : {"ROAD01", "TWIN01"}) {
        ScriptConf(sn, "BIG=30000\nMEET=2\n");
        array().RaiseSwitch(sn, "00000001");
    }
    // A slow array: each upload lasts far longer than the scripts' ends
    // are apart.
    array().InjectFault({{"lun", "*"}, {"kind", "ca"}, {"delay_ms", 25}});
    Pass();

    std::vector<uint64_t> road;
    std::vector<uint64_t> twin;
    for (const auto& c : array().Commands({{"kind", "ca"}})) {
        (c.array == "ROAD01" ? road : twin).push_back(c.seq);
    }
    ASSERT_GE(road.size(), 7U);
    ASSERT_GE(twin.size(), 7U);
    // Both scripts ended together, yet one upload ended before the other began.
    EXPECT_TRUE(road.back() < twin.front() || twin.back() < road.front());
    for (const char* sn : {"ROAD01", "TWIN01"}) {
        const auto uploads = array().Uploads(sn);
        ASSERT_EQ(uploads.size(), 1U) << sn;
        EXPECT_TRUE(uploads[0].complete) << sn;
        EXPECT_EQ(Members(array().UploadData(sn)), ExpectedMembers(sn, true)) << sn;
        EXPECT_EQ(Record(sn).taskState.load(), HIC_TASK_IDLE);
    }
}

TEST_F(CollectTest, HeartbeatGoesOnWhileScriptHangs) {
    WriteSettings("IPv6", "fe80::1");
    CollectRig::UseArrays({"ROAD01"});
    ScriptConf("ROAD01", "SLEEP=50\n");
    array().RaiseSwitch("ROAD01", "01020304");
    Pass();

    const Bytes hostIp = Hex("FE800000000000000000000000000001");
    const auto heartbeats = array().Heartbeats("ROAD01");
    const auto writes = Commands("sdb", "ca");
    ASSERT_FALSE(writes.empty());
    size_t during = 0;
    for (size_t i = 0; i < heartbeats.size(); ++i) {
        EXPECT_EQ(heartbeats[i].payload, HeartbeatPayload(Hex("01020304"), hostIp, 1));
        during += heartbeats[i].seq < writes.front().seq ? 1 : 0;
        if (i > 0) {
            // Ten seconds apart, on the sped-up clock.
            EXPECT_GE(heartbeats[i].time.mono - heartbeats[i - 1].time.mono,
                      0.9 * HIC_HEARTBEAT_PERIOD / FaketimeRate());
        }
    }
    EXPECT_GE(during, 4U);
    ExpectChunks(writes, array().UploadData("ROAD01"), Hex("01020304"), hostIp, 1);
}

// The main loop starts a task only for a record no thread holds: idle is
// not enough while the previous task's collection or heartbeat thread has
// not finished with it.
TEST_F(CollectTest, HeldRecordGetsNoNewTask) {
    CollectRig::UseArrays({"ROAD01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");
    for (const char* held : {"collect", "heartbeat", "finished"}) {
        SCOPED_TRACE(held);
        (held == std::string("collect") ? rec.collectRunning : rec.heartBeatRunning)
            .store(held == std::string("finished") ? 0 : 1);
        rec.taskState.store(held == std::string("finished") ? HIC_TASK_FINISHED : HIC_TASK_IDLE);
        ASSERT_EQ(HIC_GetHostCollectSwitchInfo(), 0);
        RealSleep(std::chrono::milliseconds(100));
        EXPECT_TRUE(array().Opens().empty());
        rec.collectRunning.store(0);
        rec.heartBeatRunning.store(0);
        rec.taskState.store(HIC_TASK_IDLE);
    }
    EXPECT_EQ(ScriptRuns("ROAD01"), 0);
}

// Passes that come while a collection runs start nothing: one query only.
TEST_F(CollectTest, PassesDuringCollectionStartNothing) {
    CollectRig::UseArrays({"ROAD01"});
    ScriptConf("ROAD01", "SLEEP=20\n");
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(HIC_GetHostCollectSwitchInfo(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");
    int passes = 0;
    while (!HIC_IsArrayReleased(&rec) && passes < 100000) {
        ASSERT_EQ(HIC_GetHostCollectSwitchInfo(), 0);
        ++passes;
        RealSleep(std::chrono::milliseconds(10));
    }
    EXPECT_GT(passes, 10);
    EXPECT_EQ(array().Commands({{"kind", "c7"}}).size(), 1U);
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
}

TEST_F(CollectTest, InvalidSerialNumberNeverReachesPathOrShell) {
    CollectRig::UseArrays({"../../tmp/EVIL", "A B"});
    array().RaiseSwitch("evil", "00000001");
    array().RaiseSwitch("space", "00000001");
    for (int pass = 0; pass < 2; ++pass) {
        (void)std::remove(HIC_LOG_PATH);
        Pass();
        // Each pass starts a thread per array, which gives up at once.
        EXPECT_LOG_INTERLEAVES(
            Lines().Add(Err("HIC_GetWorkspacePath", "Invalid array sn: ../../tmp/EVIL.\n")),
            Lines().Add(Err("HIC_GetWorkspacePath", "Invalid array sn: A B.\n")));
    }
    EXPECT_TRUE(array().Commands().empty());
    EXPECT_TRUE(array().Opens().empty());
    EXPECT_FALSE(Exists("/tmp/EVIL"));
    EXPECT_FALSE(Exists("/opt/Vornal/A B"));
    EXPECT_NE(std::system("ls /run/hic-collect-test | grep -q runs"), 0);
    EXPECT_EQ(Record("A B").taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(Record("../../tmp/EVIL").taskState.load(), HIC_TASK_IDLE);
}

TEST_F(CollectTest, WorkspaceLinkLeavesOutsideUntouched) {
    MakeDirs("/srv/outside/sub");
    WriteFile("/srv/outside/keep.txt", "keep\n");
    WriteFile("/srv/outside/sub/keep.data", "keep too\n");
    CollectRig::UseArrays({"ROAD01"});
    ScriptConf("ROAD01", "LINK=/srv/outside\n");
    array().RaiseSwitch("ROAD01", "00000001");
    Pass();

    EXPECT_EQ(ReadFile("/srv/outside/keep.txt"), "keep\n");
    EXPECT_EQ(ReadFile("/srv/outside/sub/keep.data"), "keep too\n");
    // Everything else of the workspace is gone; the link, and so the
    // directory that holds it, stay.
    EXPECT_EQ(std::system("test \"$(ls -A /opt/Vornal/ROAD01)\" = outside && "
                          "test \"$(readlink /opt/Vornal/ROAD01/outside)\" = /srv/outside"),
              0);
    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
    ASSERT_EQ(array().Uploads("ROAD01").size(), 1U);
    EXPECT_TRUE(array().Uploads("ROAD01")[0].complete);

    // The next collection finds the directory still there: making it fails,
    // the scripts are copied all the same and the collection goes on.
    (void)std::remove(HIC_LOG_PATH);
    array().Reset();
    array().RaiseSwitch("ROAD01", "00000002");
    Pass();
    EXPECT_EQ(ScriptRuns("ROAD01"), 2);
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    std::vector<std::string> armed = ArmedLines("ROAD01", "/dev/sdb");
    armed[2] = Err("HIC_CreateDirectory", "The directory{/opt/Vornal/ROAD01} recreate fail.\n");
    EXPECT_LOG_INTERLEAVES(
        Lines()
            .Add(armed)
            .Add(UploadLines("ROAD01", "/dev/sdb", uploads[0].size))
            .Add(SuccessLine("ROAD01")),
        Lines().Add(HeartbeatLines("ROAD01", array().Heartbeats("ROAD01").size())));
    EXPECT_EQ(ReadFile("/srv/outside/keep.txt"), "keep\n");
}

TEST_F(CollectTest, MissingSettingsStartNoTask) {
    CollectRig::UseArrays({"ROAD01", "TWIN01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(std::remove(kSettingsPath), 0);
    Pass();
    EXPECT_TRUE(array().Commands().empty());
    const std::vector<std::string> once = {
        Err("HIC_ReadFileByLine", "fopen /etc/vn.hostinfo file error.\n"),
        Err("HIC_GetIpAndType", "Read IpType failed.\n"),
        Err("HIC_GetSendIPAndType", "Get Host IP and IPType failed \n"),
        Err("HIC_StartCollectTaskForArray", "Get host ip or iptype failed.\n")};
    // Once for every idle array.
    EXPECT_EQ(LoggedMessages(), Joined(once) + Joined(once));
    EXPECT_EQ(Record("ROAD01").taskState.load(), HIC_TASK_IDLE);
}

TEST_F(CollectTest, ThreadCreationFailureLeavesArrayIdle) {
    CollectRig::UseArrays({"ROAD01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");

    // A default stack no address space can hold makes thread creation fail.
    pthread_attr_t saved;
    ASSERT_EQ(pthread_getattr_default_np(&saved), 0);
    pthread_attr_t huge;
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 46), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const int ret = HIC_StartCollectTaskForArray(&rec);
    ASSERT_EQ(pthread_setattr_default_np(&saved), 0);
    (void)pthread_attr_destroy(&huge);
    (void)pthread_attr_destroy(&saved);

    EXPECT_EQ(ret, -1);
    EXPECT_TRUE(HIC_IsArrayReleased(&rec));
    EXPECT_EQ(rec.hostIp[0], 0x0A);  // the address was read before
    EXPECT_EQ(LoggedMessages(), Info("HIC_StartCollectTaskForArray",
                                     "fail to create pthread HIC_CollectTaskThread, ret:11.\n"));
    EXPECT_TRUE(array().Commands().empty());
    EXPECT_EQ(HIC_StartCollectTaskForArray(nullptr), -1);
}

}  // namespace
}  // namespace hic_test
