// The 300-second budget of an upload across the array's LUNs. The clock
// runs a hundred times faster than real time, so the budget is 3 real
// seconds; the virtual array stays on the real clock, and a fault that
// delays a LUN's write by D real milliseconds makes that attempt last
// D / 10 seconds for the daemon.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "collect/collect_fixture.h"
#include "collect/result_upload.h"
#include "inventory/array_list.h"
#include "support/faketime.h"

namespace hic_test {
namespace {

constexpr const char* kConfig = R"({
  "arrays": [{"sn": "BUDGET01", "name": "budget"}],
  "luns": [{"dev": "sdb", "array": "BUDGET01"}, {"dev": "sdc", "array": "BUDGET01"},
           {"dev": "sdd", "array": "BUDGET01"}]
})";

class BudgetEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (!InHostSandbox()) {
            std::fputs("this test must run inside the host sandbox\n", stderr);
            std::abort();
        }
        // As start-up does before the main loop.
        ASSERT_EQ(pthread_mutex_init(&HIC_ResultWriteMutex, nullptr), 0);
        CollectRig::Start(kConfig);
    }
    void TearDown() override { CollectRig::Stop(); }
};

struct BudgetCase {
    const char* name;
    std::vector<int> failAfterMs;    // per LUN in list order: the write fails after this delay
    std::vector<std::string> tried;  // the LUNs that received a write
    bool finished;
};

void PrintTo(const BudgetCase& c, std::ostream* os) {
    *os << c.name;
}

class BudgetTest : public CollectTest, public ::testing::WithParamInterface<BudgetCase> {
  protected:
    HIC_ArrayInfo& Armed() {
        CollectRig::UseArrays({"BUDGET01"});
        EXPECT_EQ(HIC_GetArrayList(), 0);
        HIC_ArrayInfo& rec = Record("BUDGET01");
        rec.taskState.store(HIC_TASK_COLLECTING);
        MakeDirs("/opt/Vornal/BUDGET01", 0700);
        WriteFile("/opt/Vornal/BUDGET01/result.tar.gz", "archive");
        return rec;
    }
    void TearDown() override {
        if (HIC_ArrayInfo* rec = CollectRig::FindArray("BUDGET01")) {
            rec->taskState.store(HIC_TASK_IDLE);
        }
        CollectTest::TearDown();
    }
    void FailAfter(const std::string& dev, int ms) {
        vnarray::Json fault = {{"lun", dev}, {"kind", "ca"}, {"status", 2}};
        if (ms > 0) {
            fault["delay_ms"] = ms;
        }
        array().InjectFault(fault);
    }
};

TEST_P(BudgetTest, NextLunOnlyWhileWithinBudget) {
    const BudgetCase& c = GetParam();
    HIC_ArrayInfo& rec = Armed();
    const char* devs[] = {"sdb", "sdc", "sdd"};
    for (size_t i = 0; i < c.failAfterMs.size(); ++i) {
        FailAfter(devs[i], c.failAfterMs[i]);
    }

    HIC_WriteCollectResultToArray(&rec);

    EXPECT_EQ(Devs(array().Commands({{"kind", "ca"}})), c.tried);
    EXPECT_EQ(rec.taskState.load(), c.finished ? HIC_TASK_FINISHED : HIC_TASK_COLLECTING);
    // The last line is the failure of the last LUN tried, or the success.
    const std::vector<std::string> lines = LogLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), c.finished ? Info("HIC_GetFileBufAndWriteToArray",
                                              "Write to array Offset 0 success.\n")
                                       : FailedOnLine("BUDGET01", "/dev/" + c.tried.back()));
}

// Delays in real milliseconds; each is a tenth of as many daemon seconds.
INSTANTIATE_TEST_SUITE_P(
    Collect, BudgetTest,
    ::testing::Values(
        // Failures at 80 s and 160 s: the third LUN is still tried.
        BudgetCase{"FailuresWithinBudget", {800, 800}, {"sdb", "sdc", "sdd"}, true},
        // The second attempt starts at 180 s and fails at 350 s: it runs to
        // its end, and no third one follows.
        BudgetCase{"AttemptRunsPastBudget", {1800, 1700}, {"sdb", "sdc"}, false},
        // The first attempt alone outlasts the budget.
        BudgetCase{"FirstAttemptPastBudget", {3300}, {"sdb"}, false}),
    CaseName());

// Waiting for the mutex does not count: the budget starts when the upload
// has it.
TEST_F(BudgetTest, WaitForMutexNotCounted) {
    HIC_ArrayInfo& rec = Armed();
    FailAfter("sdb", 0);
    ASSERT_EQ(pthread_mutex_lock(&HIC_ResultWriteMutex), 0);
    std::thread upload([&rec] { HIC_WriteCollectResultToArray(&rec); });
    // 350 seconds pass for the daemon (3.5 real ones) with the mutex held
    // by someone else.
    std::this_thread::sleep_for(std::chrono::seconds(350));
    EXPECT_TRUE(array().Commands({{"kind", "ca"}}).empty());
    ASSERT_EQ(pthread_mutex_unlock(&HIC_ResultWriteMutex), 0);
    upload.join();
    EXPECT_EQ(Devs(array().Commands({{"kind", "ca"}})), (std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_FINISHED);
}

}  // namespace
}  // namespace hic_test

HIC_TEST_FAKETIME_MAIN("+0 x100", 100, hic_test::BudgetEnvironment)
