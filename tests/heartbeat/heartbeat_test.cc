// The heartbeat thread through the real code against the virtual array, on a
// clock ten times faster than real time (one period is a real second).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
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

std::string Started(const std::string& sn) {
    return Info("HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: " + sn + ".\n");
}
const std::string kThread = Info("HIC_SendC9ToArray", "start HeartBeat thread.\n");
const std::string kSent = Info("HIC_SendHeartBeatByLun", "send HeartBeat C9 to array{sn:HB01}.\n");
const std::string kExit = Info("HIC_SendHeartBeatByLun", "Pthread HeartBeatC9 exit.\n");

LogList FailedOn(const std::string& dev) {
    return {Err("HIC_SendHeartBeat", "send heartbeat failed.\n"),
            Err("HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev " + dev + ".\n")};
}

struct RunCase {
    const char* name;
    const char* sn;
    const char* fault;  // JSON, or ""
    bool noLuns;        // the array's LUNs left the list
    int finishAfter;    // heartbeats before the work finishes; -1: it never does
    const char* sent;   // LUN of every 0xC9 command in order, "!" when it failed
    const char* opens;  // per LUN, every open ("+", "!" when it failed) and close ("-")
    LogList log;        // after the thread's start line
};

class HeartbeatTest : public RigTest, public ::testing::WithParamInterface<RunCase> {};

TEST_P(HeartbeatTest, BeatsUntilWorkFinished) {
    const RunCase& c = GetParam();
    HIC_ArrayInfo& rec = Armed(c.sn);
    if (*c.fault != '\0') {
        array().InjectFault(vnarray::Json::parse(c.fault));
    }
    if (c.noLuns) {
        CollectRig::UseArrays({});
    }
    if (c.finishAfter == 0) {
        rec.taskState.store(HIC_TASK_FINISHED);
    }
    ASSERT_EQ(HIC_HeartBeatThreadCreate(&rec), 0);
    if (c.finishAfter > 0) {
        // Raised before the thread runs, so the hand-over holds in any order.
        EXPECT_EQ(rec.heartBeatRunning.load(), 1);
        ASSERT_TRUE(WaitUntil(
            [&c] { return array().Heartbeats().size() >= static_cast<size_t>(c.finishAfter); }));
        rec.taskState.store(HIC_TASK_FINISHED);
    }
    ASSERT_TRUE(WaitUntil([&rec] { return rec.heartBeatRunning.load() == 0; }));
    // Only finished work is handed back; otherwise the state is the
    // collection thread's.
    EXPECT_EQ(rec.taskState.load(), c.finishAfter >= 0 ? HIC_TASK_IDLE : HIC_TASK_COLLECTING);

    // The work was seen finished before the next period: no more heartbeats.
    const auto heartbeats = array().Heartbeats();
    EXPECT_EQ(heartbeats.size(), static_cast<size_t>(std::max(c.finishAfter, 0)));
    for (size_t i = 0; i < heartbeats.size(); ++i) {
        EXPECT_EQ(heartbeats[i].cdb, Hex("C900"
                                         "0000000000000000"
                                         "0000001C"
                                         "8100"));
        EXPECT_EQ(heartbeats[i].payload, Hex("0081001C"
                                             "01020304"
                                             "20010DB8000000000000000000000001"
                                             "0001"
                                             "0000"));
        EXPECT_TRUE(heartbeats[i].issues.empty());
        if (i > 0) {
            EXPECT_GE(heartbeats[i].time.mono - heartbeats[i - 1].time.mono,
                      0.9 * HIC_HEARTBEAT_PERIOD / FaketimeRate());
        }
    }
    std::string sent;
    for (const auto& cmd : array().Commands({{"kind", "c9"}})) {
        ExpectDaemonRequest(cmd, -2, 28, O_RDWR);
        sent += (sent.empty() ? "" : " ") + cmd.lun + (cmd.status != 0 ? "!" : "");
    }
    EXPECT_EQ(sent, c.sent);
    // One descriptor per LUN, kept until the thread leaves that LUN. (The
    // array may see a close after the next open: grouped by LUN.)
    auto records = SettledOpens(array());
    std::stable_sort(records.begin(), records.end(),
                     [](const auto& x, const auto& y) { return x.lun < y.lun; });
    std::string opens;
    for (const auto& o : records) {
        opens += (opens.empty() ? "" : " ") + o.lun + (o.close ? "-" : o.err != 0 ? "!" : "+");
        if (!o.close) {
            EXPECT_EQ(o.flags, O_RDWR);
        }
    }
    EXPECT_EQ(opens, c.opens);
    EXPECT_EQ(LoggedMessages(), Joined(Cat(Started(c.sn), kThread, c.log)));
}

INSTANTIATE_TEST_SUITE_P(
    Heartbeat, HeartbeatTest,
    ::testing::Values(
        RunCase{"Periodic", "HB01", "", false, 3, "sdb sdb sdb", "sdb+ sdb-",
                Cat(kSent, kSent, kSent, kExit)},
        RunCase{"ShortCollectionGetsOne", "HB01", "", false, 1, "sdb", "sdb+ sdb-",
                Cat(kSent, kExit)},
        RunCase{"FinishedBeforeFirstSendsNone", "HB01", "", false, 0, "", "sdb+ sdb-", Cat(kExit)},
        RunCase{"FirstLunCannotBeOpened", "HB01",
                R"({"lun": "sdb", "kind": "open", "errno": "ENXIO"})", false, 1, "sdc",
                "sdb! sdc+ sdc-",
                Cat(Err("HIC_OpenDevByPath", "open /dev/sdb failed.\n"),
                    Err("HIC_SendHeartBeatByLun", "open /dev/sdb failed.\n"), kSent, kExit)},
        // The LUN that failed is not tried again.
        RunCase{"FailedLunLeftForNext", "HB01",
                R"({"lun": "sdb", "kind": "c9", "status": 2, "after": 1, "count": 1})", false, 3,
                "sdb sdb! sdc sdc", "sdb+ sdb- sdc+ sdc-",
                Cat(kSent, FailedOn("/dev/sdb"), kSent, kSent, kExit)},
        RunCase{"FailureOnOnlyLunEndsThread", "HB02",
                R"({"lun": "sdd", "kind": "c9", "status": 2})", false, -1, "sdd!", "sdd+ sdd-",
                FailedOn("/dev/sdd")},
        RunCase{"NoLunOfArrayEndsThread", "HB01", "", true, -1, "", "", LogList()}),
    CaseName());

using HeartbeatCallTest = RigTest;

TEST_F(HeartbeatCallTest, CreationFailureClearsFlag) {
    HIC_ArrayInfo& rec = Armed("HB01");
    EXPECT_EQ(WithThreadCreationFailing([&rec] { return HIC_HeartBeatThreadCreate(&rec); }), -1);
    EXPECT_EQ(rec.heartBeatRunning.load(), 0);
    EXPECT_EQ(LoggedMessages(),
              Started("HB01") + Err("HIC_HeartBeatThreadCreate",
                                    "fail to create pthread heartBeatC9, ret:11.\n"));
}

TEST_F(HeartbeatCallTest, NullArguments) {
    EXPECT_EQ(HIC_HeartBeatThreadCreate(nullptr), -1);
    EXPECT_EQ(HIC_SendC9ToArray(nullptr), nullptr);
    HIC_ArrayInfo& rec = Armed("HB01");
    const auto* lun = reinterpret_cast<const HIC_LunInfo*>(HIC_LunListHead.next);
    unsigned char payload[HIC_HEARTBEAT_LEN] = {};
    EXPECT_EQ(HIC_SendHeartBeatByLun(nullptr, payload, &rec), -1);
    EXPECT_EQ(HIC_SendHeartBeatByLun(lun, nullptr, &rec), -1);
    EXPECT_EQ(HIC_SendHeartBeatByLun(lun, payload, nullptr), -1);
    EXPECT_EQ(LoggedMessages(), "");
    EXPECT_TRUE(array().Opens().empty());
}

}  // namespace
}  // namespace hic_test

HIC_TEST_FAKETIME_MAIN("+0 x10", 10, hic_test::RigEnvironment(hic_test::kConfig))
