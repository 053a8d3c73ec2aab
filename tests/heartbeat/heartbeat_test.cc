// The heartbeat thread through the real code against the virtual array, on
// a clock ten times faster than real time (one heartbeat period is a real
// second).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <string>
#include <vector>

#include "heartbeat/heartbeat.h"
#include "inventory/array_list.h"
#include "support/collect_rig.h"
#include "support/faketime.h"

namespace hic_test {
namespace {

constexpr const char* kConfig = R"({
  "arrays": [{"sn": "HB01", "name": "two luns"}, {"sn": "HB02", "name": "one lun"}],
  "luns": [{"dev": "sdb", "array": "HB01"}, {"dev": "sdc", "array": "HB01"},
           {"dev": "sdd", "array": "HB02"}]
})";

class HeartbeatEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (!InHostSandbox()) {
            std::fputs("this test must run inside the host sandbox\n", stderr);
            std::abort();
        }
        CollectRig::Start(kConfig);
    }
    void TearDown() override { CollectRig::Stop(); }
};

Bytes Versions() {
    return Hex("01020304");
}
Bytes HostIp() {
    return Hex("FE800000000000000000000000000001");  // fe80::1
}

std::string Line(const char* level, const char* func, const std::string& msg) {
    return std::string(level) + " " + func + ": " + msg;
}

class HeartbeatTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        CollectRig::Reset();
    }
    void TearDown() override {
        EXPECT_TRUE(CollectRig::WaitReleased()) << "a heartbeat thread still runs";
        SandboxTest::TearDown();
    }

    static vnarray::Client& array() { return CollectRig::client(); }

    // The record of an array whose collection was just armed.
    static HIC_ArrayInfo& Collecting(const std::string& sn) {
        CollectRig::UseArrays({sn});
        EXPECT_EQ(HIC_GetArrayList(), 0);
        HIC_ArrayInfo* rec = CollectRig::FindArray(sn);
        const Bytes versions = Versions();
        const Bytes hostIp = HostIp();
        std::copy(versions.begin(), versions.end(), rec->versions);
        std::copy(hostIp.begin(), hostIp.end(), rec->hostIp);
        rec->ipType = 1;
        rec->taskState.store(HIC_TASK_COLLECTING);
        return *rec;
    }

    // Waits (in real time) until the array has received n heartbeats.
    static bool WaitHeartbeats(size_t n) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (array().Heartbeats().size() < n) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            RealSleep(std::chrono::milliseconds(2));
        }
        return true;
    }

    static std::vector<std::string> Sent(const std::string& sn, size_t n) {
        return std::vector<std::string>(n, Line("INFO", "HIC_SendHeartBeatByLun",
                                                "send HeartBeat C9 to array{sn:" + sn + "}.\n"));
    }
};

TEST_F(HeartbeatTest, PeriodicPayloadUntilFinished) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    // Raised before the thread runs, so the hand-over holds in any order.
    EXPECT_EQ(rec.heartBeatRunning.load(), 1);
    ASSERT_TRUE(WaitHeartbeats(3));
    rec.taskState.store(HIC_TASK_FINISHED);
    const auto finished = std::chrono::steady_clock::now();
    ASSERT_TRUE(CollectRig::WaitReleased());
    // At most one more period (a real second here) passes.
    EXPECT_LT(std::chrono::steady_clock::now() - finished, std::chrono::milliseconds(1500));
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_IDLE);

    const auto heartbeats = array().Heartbeats();
    ASSERT_GE(heartbeats.size(), 3U);
    const Bytes payload =
        Hex("0081001C"
            "01020304"
            "FE800000000000000000000000000001"
            "0001"
            "0000");
    for (size_t i = 0; i < heartbeats.size(); ++i) {
        EXPECT_EQ(heartbeats[i].lun, "sdb");
        EXPECT_EQ(heartbeats[i].payload, payload);
        EXPECT_EQ(heartbeats[i].cdb, Hex("C900"
                                         "0000000000000000"
                                         "0000001C"
                                         "8100"));
        EXPECT_TRUE(heartbeats[i].issues.empty());
        if (i > 0) {
            EXPECT_GE(heartbeats[i].time.mono - heartbeats[i - 1].time.mono,
                      0.9 * HIC_HEARTBEAT_PERIOD / FaketimeRate());
        }
    }
    for (const auto& c : array().Commands({{"kind", "c9"}})) {
        ExpectDaemonRequest(c, -2, 28, O_RDWR);
    }
    // One descriptor for the thread's whole life, closed at its end.
    const auto opens = array().Opens("sdb");
    ASSERT_EQ(opens.size(), 2U);
    EXPECT_EQ(opens[0].flags, O_RDWR);
    EXPECT_TRUE(opens[1].close);
    EXPECT_TRUE(array().Opens("sdc").empty());

    std::vector<std::string> log = {
        Line("INFO", "HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: HB01.\n"),
        Line("INFO", "HIC_SendC9ToArray", "start HeartBeat thread.\n")};
    const auto sent = Sent("HB01", heartbeats.size());
    log.insert(log.end(), sent.begin(), sent.end());
    log.push_back(Line("INFO", "HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n"));
    EXPECT_EQ(LoggedMessages(), Joined(log));
}

TEST_F(HeartbeatTest, FirstLunCannotBeOpened) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    array().InjectFault({{"lun", "sdb"}, {"kind", "open"}, {"errno", "ENXIO"}});
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    ASSERT_TRUE(WaitHeartbeats(1));
    rec.taskState.store(HIC_TASK_FINISHED);
    ASSERT_TRUE(CollectRig::WaitReleased());

    const auto heartbeats = array().Heartbeats();
    for (const auto& hb : heartbeats) {
        EXPECT_EQ(hb.lun, "sdc");
    }
    std::vector<std::string> log = {
        Line("INFO", "HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: HB01.\n"),
        Line("INFO", "HIC_SendC9ToArray", "start HeartBeat thread.\n"),
        Line("ERR", "HIC_OpenDevByPath", "open /dev/sdb failed.\n"),
        Line("ERR", "HIC_SendHeartBeatByLun", "open /dev/sdb failed.\n")};
    const auto sent = Sent("HB01", heartbeats.size());
    log.insert(log.end(), sent.begin(), sent.end());
    log.push_back(Line("INFO", "HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n"));
    EXPECT_EQ(LoggedMessages(), Joined(log));
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_IDLE);
}

TEST_F(HeartbeatTest, FailureOnOnlyLunEndsThread) {
    HIC_ArrayInfo& rec = Collecting("HB02");
    array().InjectFault({{"lun", "sdd"}, {"kind", "c9"}, {"status", 2}});
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    // The thread ends by itself; the state is left to the collection thread.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (rec.heartBeatRunning.load() != 0 && std::chrono::steady_clock::now() < deadline) {
        RealSleep(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(rec.heartBeatRunning.load(), 0);
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_COLLECTING);
    EXPECT_TRUE(array().Heartbeats().empty());
    EXPECT_EQ(array().Commands({{"kind", "c9"}}).size(), 1U);
    // The descriptor was closed.
    const auto opens = array().Opens("sdd");
    ASSERT_EQ(opens.size(), 2U);
    EXPECT_TRUE(opens[1].close);
    EXPECT_EQ(
        LoggedMessages(),
        Line("INFO", "HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: HB02.\n") +
            Line("INFO", "HIC_SendC9ToArray", "start HeartBeat thread.\n") +
            Line("ERR", "HIC_SendHeartBeat", "send heartbeat failed.\n") +
            Line("ERR", "HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev /dev/sdd.\n"));
    rec.taskState.store(HIC_TASK_IDLE);
}

TEST_F(HeartbeatTest, FailedLunNotTriedAgain) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    array().InjectFault(
        {{"lun", "sdb"}, {"kind", "c9"}, {"status", 2}, {"after", 1}, {"count", 1}});
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    ASSERT_TRUE(WaitHeartbeats(3));
    rec.taskState.store(HIC_TASK_FINISHED);
    ASSERT_TRUE(CollectRig::WaitReleased());

    const auto heartbeats = array().Heartbeats();
    ASSERT_GE(heartbeats.size(), 3U);
    EXPECT_EQ(heartbeats[0].lun, "sdb");
    for (size_t i = 1; i < heartbeats.size(); ++i) {
        EXPECT_EQ(heartbeats[i].lun, "sdc");
    }
    EXPECT_EQ(array().Opens("sdb").size(), 2U);  // one open, one close
}

TEST_F(HeartbeatTest, FinishedBeforeFirstHeartbeatSendsNone) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    rec.taskState.store(HIC_TASK_FINISHED);
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    ASSERT_TRUE(CollectRig::WaitReleased());
    EXPECT_TRUE(array().Commands().empty());
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(LoggedMessages(),
              Line("INFO", "HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: HB01.\n") +
                  Line("INFO", "HIC_SendC9ToArray", "start HeartBeat thread.\n") +
                  Line("INFO", "HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n"));
}

TEST_F(HeartbeatTest, ShortCollectionGetsExactlyOne) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    ASSERT_TRUE(WaitHeartbeats(1));
    rec.taskState.store(HIC_TASK_FINISHED);
    ASSERT_TRUE(CollectRig::WaitReleased());
    EXPECT_EQ(array().Heartbeats().size(), 1U);
}

// The heartbeat hands back only a finished array: one still collecting
// stays so after the thread gave up.
TEST_F(HeartbeatTest, NoLunOfArrayLeavesStateAlone) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    CollectRig::UseArrays({});
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (rec.heartBeatRunning.load() != 0 && std::chrono::steady_clock::now() < deadline) {
        RealSleep(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(rec.heartBeatRunning.load(), 0);
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_COLLECTING);
    rec.taskState.store(HIC_TASK_IDLE);
}

TEST_F(HeartbeatTest, CreationFailureClearsFlag) {
    HIC_ArrayInfo& rec = Collecting("HB01");
    pthread_attr_t saved;
    ASSERT_EQ(pthread_getattr_default_np(&saved), 0);
    pthread_attr_t huge;
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 46), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const int ret = HIC_HeartBeatThreadCreate(&rec);
    ASSERT_EQ(pthread_setattr_default_np(&saved), 0);
    (void)pthread_attr_destroy(&huge);
    (void)pthread_attr_destroy(&saved);

    EXPECT_EQ(ret, -1);
    EXPECT_EQ(rec.heartBeatRunning.load(), 0);
    EXPECT_EQ(LoggedMessages(),
              Line("INFO", "HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: HB01.\n") +
                  Line("ERR", "HIC_HeartBeatThreadCreate",
                       "fail to create pthread heartBeatC9, ret:11.\n"));
    rec.taskState.store(HIC_TASK_IDLE);
}

TEST_F(HeartbeatTest, NullArguments) {
    EXPECT_EQ(HIC_HeartBeatThreadCreate(nullptr), -1);
    EXPECT_EQ(HIC_SendC9ToArray(nullptr), nullptr);
    HIC_ArrayInfo& rec = Collecting("HB01");
    const auto* lun = reinterpret_cast<const HIC_LunInfo*>(HIC_LunListHead.next);
    unsigned char payload[HIC_HEARTBEAT_LEN] = {};
    EXPECT_EQ(HIC_SendHeartBeatByLun(nullptr, payload, &rec), -1);
    EXPECT_EQ(HIC_SendHeartBeatByLun(lun, nullptr, &rec), -1);
    EXPECT_EQ(HIC_SendHeartBeatByLun(lun, payload, nullptr), -1);
    EXPECT_EQ(LoggedMessages(), "");
    EXPECT_TRUE(array().Opens().empty());
    rec.taskState.store(HIC_TASK_IDLE);
}

}  // namespace
}  // namespace hic_test

HIC_TEST_FAKETIME_MAIN("+0 x10", 10, hic_test::HeartbeatEnvironment)
