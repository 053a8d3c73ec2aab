// The 300-second budget of an upload across the array's LUNs. The clock runs
// a hundred times faster, so the budget is 3 real seconds; vnarray stays on
// the real clock, so a write delayed by D real milliseconds lasts D / 10
// seconds for the daemon.
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

struct BudgetCase {
    const char* name;
    std::vector<int> failAfterMs;    // per LUN in list order: the write fails after this delay
    std::vector<std::string> tried;  // the LUNs that received a write
    bool finished;
};

class BudgetTest : public CollectTest, public ::testing::WithParamInterface<BudgetCase> {
  protected:
    HIC_ArrayInfo& ArmedWithArchive() {
        HIC_ArrayInfo& rec = Armed("BUDGET01");
        MakeDirs("/opt/Vornal/BUDGET01", 0700);
        WriteFile("/opt/Vornal/BUDGET01/result.tar.gz", "archive");
        return rec;
    }
    void FailAfter(const std::string& dev, int ms) {
        vnarray::Json fault = {{"lun", dev}, {"kind", "ca"}, {"status", 2}};
        if (ms > 0) {
            fault["delay_ms"] = ms;
        }
        array().InjectFault(fault);
    }
    static std::vector<std::string> Tried() { return Devs(array().Commands({{"kind", "ca"}})); }
};

TEST_P(BudgetTest, NextLunOnlyWhileWithinBudget) {
    const BudgetCase& c = GetParam();
    HIC_ArrayInfo& rec = ArmedWithArchive();
    const char* devs[] = {"sdb", "sdc", "sdd"};
    for (size_t i = 0; i < c.failAfterMs.size(); ++i) {
        FailAfter(devs[i], c.failAfterMs[i]);
    }

    HIC_WriteCollectResultToArray(&rec);

    EXPECT_EQ(Tried(), c.tried);
    EXPECT_EQ(rec.taskState.load(), c.finished ? HIC_TASK_FINISHED : HIC_TASK_COLLECTING);
    const LogList lines = LogLines();
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
        // The second attempt starts at 180 s and ends at 350 s: no third one.
        BudgetCase{"AttemptRunsPastBudget", {1800, 1700}, {"sdb", "sdc"}, false},
        BudgetCase{"FirstAttemptPastBudget", {3300}, {"sdb"}, false}),
    CaseName());

// The budget starts when the upload has the mutex, not while it waits.
TEST_F(BudgetTest, WaitForMutexNotCounted) {
    HIC_ArrayInfo& rec = ArmedWithArchive();
    FailAfter("sdb", 0);
    ASSERT_EQ(pthread_mutex_lock(&HIC_ResultWriteMutex), 0);
    std::thread upload([&rec] { HIC_WriteCollectResultToArray(&rec); });
    // 350 daemon seconds (3.5 real ones) with the mutex held elsewhere.
    std::this_thread::sleep_for(std::chrono::seconds(350));
    EXPECT_TRUE(Tried().empty());
    ASSERT_EQ(pthread_mutex_unlock(&HIC_ResultWriteMutex), 0);
    upload.join();
    EXPECT_EQ(Tried(), (std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_FINISHED);
}

}  // namespace
}  // namespace hic_test

HIC_TEST_FAKETIME_MAIN("+0 x100", 100, hic_test::CollectEnvironment(hic_test::kConfig))
