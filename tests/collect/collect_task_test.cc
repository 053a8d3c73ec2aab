// The road of a collection through the real daemon code against the virtual
// array: switch polling and the version gate, the workspace and the scripts,
// the heartbeat beside the collection, the upload and the hand-back of the
// array; and the faults a collection must survive.
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
using Devices = std::vector<std::string>;

// "name=content" of every member of an archive the array received, in
// archive order.
LogList Members(const Bytes& archive) {
    const std::string dir = std::string(kRunDir) + "/unpacked";
    const std::string file = std::string(kRunDir) + "/received.tar.gz";
    WriteFile(file, std::string(archive.begin(), archive.end()));
    EXPECT_EQ(std::system(("rm -rf " + dir + " && mkdir " + dir + " && tar xzf " + file + " -C " +
                           dir + " && tar tzf " + file + " > " + dir + ".list")
                              .c_str()),
              0);
    LogList out;
    const std::string names = ReadFile((dir + ".list").c_str());
    for (size_t pos = 0, end; (end = names.find('\n', pos)) != std::string::npos; pos = end + 1) {
        const std::string name = names.substr(pos, end - pos);
        out.push_back(name + "=" + ReadFile((dir + "/" + name).c_str()));
    }
    return out;
}

// What the stand-in script leaves for an array when it gets its two words.
LogList ExpectedMembers(const std::string& sn, bool big) {
    LogList out = {"args.data=2\n-scene\nupgrade\n"};
    if (big) {
        out.push_back("big.data=" + ReadFile((std::string(kRunDir) + "/" + sn + ".big").c_str()));
    }
    return Cat(out, "copy.data=same\n", "listing.data=hic_collect.sh\nhic_data.sh\n",
               "mode.data=600\n", "CollectLog_1.txt=collection for " + sn + "\n");
}

TEST_F(CollectTest, RoadOfOneCollection) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    RequestAndPass("", "BIG=9000\n", "0A0B0C0D");

    EXPECT_EQ(Versions(Record("ROAD01")), Hex("0A0B0C0D"));
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);

    // The query: once, through the first LUN, read-only.
    const auto queries = array().Commands({{"kind", "c7"}});
    ASSERT_EQ(LunsOf("c7"), "sdb");
    EXPECT_EQ(queries[0].cdb, Hex("C700"
                                  "0000000000000000"
                                  "00001000"
                                  "8100"));
    ExpectDaemonRequest(queries[0], -3, 4096, O_RDONLY);

    // The heartbeat carries what the query and the settings gave.
    const auto heartbeats = array().Heartbeats("ROAD01");
    ASSERT_GE(heartbeats.size(), 1U);
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, "sdb");
        EXPECT_EQ(hb.payload, HeartbeatPayload(Hex("0A0B0C0D"), DefaultHostIp(), 0));
    }

    // One upload through the first LUN in three chunks, the last one short.
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    const UploadAttempt& up = uploads[0];
    EXPECT_TRUE(up.complete);
    EXPECT_TRUE(up.issues.empty()) << up.issues.front();
    EXPECT_EQ(up.luns, Devices{"sdb"});
    const Bytes archive = array().UploadData("ROAD01");
    ASSERT_EQ(archive.size(), up.size);
    ASSERT_GT(up.size, 2 * HIC_RESULT_CHUNK_LEN);
    ExpectChunks(Commands("sdb", "ca"), archive, Hex("0A0B0C0D"), DefaultHostIp(), 0);
    EXPECT_EQ(Members(archive), ExpectedMembers("ROAD01", true));
    EXPECT_TRUE(array().Commands({{"lun", "sdc"}}).empty());
    EXPECT_TRUE(array().Opens("sdc").empty());

    EXPECT_LOG_INTERLEAVES(
        Cat(QueryLines("/dev/sdb"), ArmedLines("ROAD01", "/dev/sdb"), ScriptLines("ROAD01"),
            UploadLines("ROAD01", "/dev/sdb", up.size), SuccessLine("ROAD01")),
        HeartbeatLines("ROAD01", heartbeats.size()));

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
    bool queried;   // the 0xC7 query reached the array
    bool collects;  // the script ran
    LogList log;    // at DEBUG, after the version check
};

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
    EXPECT_EQ(LunsOf("c7"), c.queried ? "sdb" : "");
    EXPECT_TRUE(array().Opens("sdc").empty());
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    if (c.collects) {
        EXPECT_EQ(array().Uploads("ROAD01").size(), 1U);
        return;
    }
    EXPECT_EQ(Versions(Record("ROAD01")), Hex("00000000"));
    const std::string version = std::to_string(c.major) + "." + std::to_string(c.minor);
    EXPECT_EQ(LoggedMessages(), Joined(Cat(QueryLines("/dev/sdb", version), c.log)));
}

INSTANTIATE_TEST_SUITE_P(
    Collect, GateTest,
    ::testing::Values(GateCase{"SwitchOff", 0, "00000001", 3, 0, true, false, LogList()},
                      GateCase{"SwitchTwo", 2, "00000001", 3, 0, true, false, LogList()},
                      GateCase{"SwitchAllOnes", 255, "00000001", 3, 0, true, false, LogList()},
                      GateCase{"FreshRecordVersionZero", 1, "00000000", 3, 0, true, false,
                               Cat(Info("HIC_IsValidToExecuteCollectTask",
                                        "Get the array{sn:ROAD01} switchStatus 1.\n"),
                                   Debug("HIC_IsValidToExecuteCollectTask",
                                         "the versions are not change, not execute collect.\n"))},
                      GateCase{"Software26NotAsked", 1, "00000001", 2, 6, false, false, LogList()},
                      GateCase{"Software27", 1, "00000001", 2, 7, true, true, LogList()},
                      GateCase{"Software210", 1, "00000001", 2, 10, true, true, LogList()}),
    CaseName());

// A fault on one LUN: the collection carries on through the next one.
struct FailoverCase {
    const char* name;
    const char* fault;  // injected as JSON
    const char* conf;   // for the stand-in script
    bool debug;
    const char* queried;      // LUNs that got the 0xC7 query
    const char* hbLun;        // LUN of every heartbeat that arrived ("" for none)
    const char* failedHb;     // LUNs where a heartbeat failed
    const char* failedOpens;  // of sdb, sorted: r read-only, w read-write
    LogList beforeArmed;      // collection thread, before ArmedLines
    const char* armedDev;
    LogList beforeUpload;  // collection thread, between arming and the upload
    const char* uploadDev;
    LogList hbFailures;  // heartbeat thread, right after its start
};

class FailoverTest : public CollectTest, public ::testing::WithParamInterface<FailoverCase> {};

TEST_P(FailoverTest, CollectionGoesOnThroughNextLun) {
    const FailoverCase& c = GetParam();
    HIC_SetLogLevel(c.debug ? HIC_LOG_DEBUG : HIC_LOG_INFO);
    RequestAndPass(c.fault, c.conf);

    EXPECT_EQ(LunsOf("c7"), c.queried);
    EXPECT_EQ(LunsOf("c9", true), c.failedHb);
    const auto heartbeats = array().Heartbeats("ROAD01");
    EXPECT_EQ(heartbeats.empty(), *c.hbLun == '\0');
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, c.hbLun);
    }
    std::string failedOpens;
    for (const auto& o : array().Opens("sdb")) {
        if (o.err != 0) {
            EXPECT_EQ(o.err, EIO);
            failedOpens += o.flags == O_RDONLY ? 'r' : o.flags == O_RDWR ? 'w' : '?';
        }
    }
    std::sort(failedOpens.begin(), failedOpens.end());
    EXPECT_EQ(failedOpens, c.failedOpens);
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_TRUE(uploads[0].complete);
    EXPECT_EQ(uploads[0].luns, Devices{std::string(c.uploadDev).substr(5)});

    EXPECT_LOG_INTERLEAVES(
        Cat(c.beforeArmed, ArmedLines("ROAD01", c.armedDev),
            c.debug ? ScriptLines("ROAD01") : LogList{}, c.beforeUpload,
            UploadLines("ROAD01", c.uploadDev, uploads[0].size), SuccessLine("ROAD01")),
        HeartbeatLines("ROAD01", heartbeats.size(), c.hbFailures, !heartbeats.empty()));
}

const std::string kOpenSdbFailed = Err("HIC_OpenDevByPath", "open /dev/sdb failed.\n");

LogList HbFailedOn(const std::string& dev) {
    return {Err("HIC_SendHeartBeat", "send heartbeat failed.\n"),
            Err("HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev " + dev + ".\n")};
}

INSTANTIATE_TEST_SUITE_P(
    Collect, FailoverTest,
    ::testing::Values(
        // The query opens read-only, heartbeat and upload read-write.
        FailoverCase{"FirstLunCannotBeOpened", R"({"lun": "sdb", "kind": "open", "errno": "EIO"})",
                     "", false, "sdc", "sdc", "", "rww",
                     Cat(kOpenSdbFailed,
                         Err("HIC_GetSwitchInfo", "open /dev/sdb failed, fd:-1, errno:5.\n")),
                     "/dev/sdc",
                     Cat(BeginLines("ROAD01", "/dev/sdb", 0)[0], kOpenSdbFailed,
                         Err("HIC_WriteResultToArray", "open /dev/sdb failed.\n"),
                         FailedOnLine("ROAD01", "/dev/sdb")),
                     "/dev/sdc",
                     Cat(kOpenSdbFailed, Err("HIC_SendHeartBeatByLun", "open /dev/sdb failed.\n"))},
        // The LUN that answered arms the collection; heartbeat and upload
        // still take the LUNs in list order.
        FailoverCase{"QueryFailsOnFirstLun", R"({"lun": "sdb", "kind": "c7", "status": 2})", "",
                     true, "sdb sdc", "sdb", "", "",
                     Cat(QueryLines("/dev/sdb"),
                         Debug("HIC_IoctlSendCmd",
                               "send ioctl failed. status:2, host_status:0, driver_status:8.\n"),
                         Debug("HIC_DoQuerySwitchStatus", "query collect switch failed.\n"),
                         Debug("HIC_GetSwitchInfo", "get collect switch info failed.\n"),
                         Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdc.\n"),
                         Debug("HIC_CheckArrayVersion", "get array version {3.0}.\n")),
                     "/dev/sdc", LogList(), "/dev/sdb", LogList()},
        // A failed heartbeat is not repeated on its LUN; the next one carries on.
        FailoverCase{"HeartbeatFailsOverToNextLun",
                     R"({"lun": "sdb", "kind": "c9", "status": 2, "count": 1})", "SLEEP=15\n",
                     false, "sdb", "sdc", "sdb", "", LogList(), "/dev/sdb", LogList(), "/dev/sdb",
                     HbFailedOn("/dev/sdb")},
        // With no heartbeat left the collection still ends and hands back.
        FailoverCase{"HeartbeatEndsEarly", R"({"lun": "*", "kind": "c9", "status": 2})",
                     "SLEEP=10\n", false, "sdb", "", "sdb sdc", "", LogList(), "/dev/sdb",
                     LogList(), "/dev/sdb", Cat(HbFailedOn("/dev/sdb"), HbFailedOn("/dev/sdc"))}),
    CaseName());

TEST_F(CollectTest, SecondChunkFailsAndNextLunGetsWholeArchive) {
    RequestAndPass(R"({"lun": "sdb", "kind": "ca", "status": 2, "after": 1, "count": 1})",
                   "BIG=9000\n");

    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 2U);
    EXPECT_EQ(uploads[0].luns, Devices{"sdb"});
    EXPECT_FALSE(uploads[0].complete);
    ASSERT_EQ(uploads[0].chunks.size(), 1U);
    EXPECT_EQ(uploads[0].chunks[0].offset, 0U);
    EXPECT_EQ(uploads[1].luns, Devices{"sdc"});
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

    EXPECT_LOG_INTERLEAVES(
        Cat(ArmedLines("ROAD01", "/dev/sdb"), BeginLines("ROAD01", "/dev/sdb", uploads[1].size),
            Info("HIC_GetFileBufAndWriteToArray", "Write to array Offset 0 success.\n"),
            Err("HIC_DoWriteBufToArray", "write to array failed.\n"),
            Err("HIC_GetFileBufAndWriteToArray", "Write buf to array failed, offset 4064.\n"),
            FailedOnLine("ROAD01", "/dev/sdb"), UploadLines("ROAD01", "/dev/sdc", uploads[1].size),
            SuccessLine("ROAD01")),
        HeartbeatLines("ROAD01", array().Heartbeats().size()));
}

TEST_F(CollectTest, EveryLunRejectsUpload) {
    RequestAndPass(R"({"lun": "*", "kind": "ca", "status": 2})");

    EXPECT_EQ(LunsOf("ca"), "sdb sdc");
    EXPECT_FALSE(Exists("/opt/Vornal/ROAD01"));
    EXPECT_TRUE(array().Uploads("ROAD01").empty());
    // The size the daemon found, the same in both attempts.
    const std::string log = LoggedMessages();
    const std::string sizeText = "result fileSize is ";
    const size_t at = log.find(sizeText);
    ASSERT_NE(at, std::string::npos) << log;
    const auto size = static_cast<uint32_t>(std::stoul(log.substr(at + sizeText.size())));
    EXPECT_GT(size, 0U);
    LogList task = ArmedLines("ROAD01", "/dev/sdb");
    for (const char* dev : {"/dev/sdb", "/dev/sdc"}) {
        task = Cat(task, BeginLines("ROAD01", dev, size),
                   Err("HIC_DoWriteBufToArray", "write to array failed.\n"),
                   Err("HIC_GetFileBufAndWriteToArray", "Write buf to array failed, offset 0.\n"),
                   FailedOnLine("ROAD01", dev));
    }
    task.push_back(Err("HIC_CollectTaskThread", "array{sn:ROAD01} collect task execute failed.\n"));
    EXPECT_LOG_INTERLEAVES(task, HeartbeatLines("ROAD01", array().Heartbeats("ROAD01").size()));

    // The version was remembered when the collection was armed: the failed
    // collection is not repeated for it.
    Pass();
    EXPECT_EQ(ScriptRuns("ROAD01"), 1);
}

TEST_F(CollectTest, AtMostFourLunsAsked) {
    CollectRig::UseArrays({"FIVE01"});
    LogList log;
    for (const std::string dev : {"sdd", "sde", "sdf", "sdg"}) {
        array().InjectFault({{"lun", dev}, {"kind", "open"}, {"errno", "EIO"}});
        log = Cat(log, Err("HIC_OpenDevByPath", "open /dev/" + dev + " failed.\n"),
                  Err("HIC_GetSwitchInfo", "open /dev/" + dev + " failed, fd:-1, errno:5.\n"));
    }
    array().RaiseSwitch("FIVE01", "00000001");
    Pass();

    EXPECT_TRUE(array().Opens("sdh").empty());
    EXPECT_TRUE(array().Commands({{"kind", "c7"}}).empty());
    EXPECT_EQ(ScriptRuns("FIVE01"), 0);
    EXPECT_EQ(LoggedMessages(), Joined(log));

    // The next pass starts again with the first LUN.
    Pass();
    EXPECT_EQ(SettledOpens(array(), "sdd").size(), 2U);
    EXPECT_TRUE(array().Opens("sdh").empty());
}

TEST_F(CollectTest, AllLunsFailQueryWithoutMessageOfItsOwn) {
    RequestAndPass(R"({"lun": "*", "kind": "c7", "status": 2})");

    EXPECT_EQ(LunsOf("c7"), "sdb sdc");
    EXPECT_EQ(ScriptRuns("ROAD01"), 0);
    EXPECT_EQ(Versions(Record("ROAD01")), Hex("00000000"));
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(CollectTest, TwoArraysUploadOneAtATime) {
    CollectRig::UseArrays({"ROAD01", "TWIN01"});
    for (const char* sn : {"ROAD01", "TWIN01"}) {
        ScriptConf(sn, "BIG=30000\nMEET=2\n");
        array().RaiseSwitch(sn, "00000001");
    }
    // A slow array: each upload lasts far longer than the scripts' ends are apart.
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
    }
}

TEST_F(CollectTest, HeartbeatGoesOnWhileScriptHangs) {
    WriteSettings("IPv6", "fe80::1");
    RequestAndPass("", "SLEEP=50\n", "01020304");

    const Bytes hostIp = Hex("FE800000000000000000000000000001");
    const auto heartbeats = array().Heartbeats("ROAD01");
    const auto writes = Commands("sdb", "ca");
    ASSERT_FALSE(writes.empty());
    size_t during = 0;
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.payload, HeartbeatPayload(Hex("01020304"), hostIp, 1));
        during += hb.seq < writes.front().seq ? 1 : 0;
    }
    EXPECT_GE(during, 4U);
    ExpectChunks(writes, array().UploadData("ROAD01"), Hex("01020304"), hostIp, 1);
}

// A task starts only for a record no thread holds: idle is not enough while
// the previous task's collection or heartbeat thread still has it.
TEST_F(CollectTest, HeldRecordGetsNoNewTask) {
    CollectRig::UseArrays({"ROAD01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");
    for (const std::string held : {"collect", "heartbeat", "finished"}) {
        SCOPED_TRACE(held);
        (held == "collect" ? rec.collectRunning : rec.heartBeatRunning)
            .store(held == "finished" ? 0 : 1);
        rec.taskState.store(held == "finished" ? HIC_TASK_FINISHED : HIC_TASK_IDLE);
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
            LogList{Err("HIC_GetWorkspacePath", "Invalid array sn: ../../tmp/EVIL.\n")},
            LogList{Err("HIC_GetWorkspacePath", "Invalid array sn: A B.\n")});
    }
    EXPECT_TRUE(array().Commands().empty());
    EXPECT_TRUE(array().Opens().empty());
    EXPECT_FALSE(Exists("/tmp/EVIL"));
    EXPECT_FALSE(Exists("/opt/Vornal/A B"));
    EXPECT_NE(std::system("ls /run/hic-collect-test | grep -q runs"), 0);
}

TEST_F(CollectTest, WorkspaceLinkLeavesOutsideUntouched) {
    MakeDirs("/srv/outside/sub");
    WriteFile("/srv/outside/keep.txt", "keep\n");
    WriteFile("/srv/outside/sub/keep.data", "keep too\n");
    CollectRig::UseArrays({"ROAD01"});
    ScriptConf("ROAD01", "LINK=/srv/outside\n");
    for (const char* version : {"00000001", "00000002"}) {
        SCOPED_TRACE(version);
        (void)std::remove(HIC_LOG_PATH);
        array().Reset();
        array().RaiseSwitch("ROAD01", version);
        Pass();

        EXPECT_EQ(ReadFile("/srv/outside/keep.txt"), "keep\n");
        EXPECT_EQ(ReadFile("/srv/outside/sub/keep.data"), "keep too\n");
        // The rest of the workspace is gone; the link, and so its directory, stay.
        EXPECT_EQ(std::system("test \"$(ls -A /opt/Vornal/ROAD01)\" = outside && "
                              "test \"$(readlink /opt/Vornal/ROAD01/outside)\" = /srv/outside"),
                  0);
        const auto uploads = array().Uploads("ROAD01");
        ASSERT_EQ(uploads.size(), 1U);
        EXPECT_TRUE(uploads[0].complete);
        // The second collection finds the directory still there: making it
        // fails, and the collection goes on all the same.
        LogList armed = ArmedLines("ROAD01", "/dev/sdb");
        if (version[7] == '2') {
            armed[2] =
                Err("HIC_CreateDirectory", "The directory{/opt/Vornal/ROAD01} recreate fail.\n");
        }
        EXPECT_LOG_INTERLEAVES(
            Cat(armed, UploadLines("ROAD01", "/dev/sdb", uploads[0].size), SuccessLine("ROAD01")),
            HeartbeatLines("ROAD01", array().Heartbeats("ROAD01").size()));
    }
    EXPECT_EQ(ScriptRuns("ROAD01"), 2);
}

TEST_F(CollectTest, MissingSettingsStartNoTask) {
    CollectRig::UseArrays({"ROAD01", "TWIN01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(std::remove(kSettingsPath), 0);
    Pass();
    EXPECT_TRUE(array().Commands().empty());
    const LogList once = {Err("HIC_ReadFileByLine", "fopen /etc/vn.hostinfo file error.\n"),
                          Err("HIC_GetIpAndType", "Read IpType failed.\n"),
                          Err("HIC_GetSendIPAndType", "Get Host IP and IPType failed \n"),
                          Err("HIC_StartCollectTaskForArray", "Get host ip or iptype failed.\n")};
    // Once for every idle array.
    EXPECT_EQ(LoggedMessages(), Joined(Cat(once, once)));
}

TEST_F(CollectTest, ThreadCreationFailureLeavesArrayIdle) {
    CollectRig::UseArrays({"ROAD01"});
    array().RaiseSwitch("ROAD01", "00000001");
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");
    EXPECT_EQ(WithThreadCreationFailing([&rec] { return HIC_StartCollectTaskForArray(&rec); }), -1);
    EXPECT_TRUE(HIC_IsArrayReleased(&rec));
    EXPECT_EQ(rec.hostIp[0], 0x0A);  // the address was read before
    EXPECT_EQ(LoggedMessages(), Info("HIC_StartCollectTaskForArray",
                                     "fail to create pthread HIC_CollectTaskThread, ret:11.\n"));
    EXPECT_TRUE(array().Commands().empty());
    EXPECT_EQ(HIC_StartCollectTaskForArray(nullptr), -1);
}

}  // namespace
}  // namespace hic_test
