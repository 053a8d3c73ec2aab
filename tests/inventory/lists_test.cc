#include "inventory/lists.h"

#include "support/sandbox_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> WalkSerials(HIC_ListHead* head) {
    std::vector<std::string> out;
    for (HIC_ListHead* p = head->next; p != head; p = p->next) {
        out.emplace_back(reinterpret_cast<HIC_ArrayInfo*>(p)->arraySn);
    }
    return out;
}

HIC_ArrayInfo* AddArray(HIC_ListHead* head, const char* sn) {
    HIC_ArrayInfo* a = HIC_AllocArrayInfo();
    EXPECT_NE(a, nullptr);
    std::strncpy(a->arraySn, sn, sizeof(a->arraySn) - 1);
    HIC_ListAddTail(&a->list, head);
    return a;
}

class ListsTest : public hic_test::SandboxTest {
  protected:
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        HIC_InitListHead(&HIC_LunListHead);
        HIC_InitListHead(&HIC_ArrayListHead);
    }
    void TearDown() override {
        // Release whatever a test left held, so the leak checker sees all freed.
        for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
            auto* a = reinterpret_cast<HIC_ArrayInfo*>(p);
            a->taskState = HIC_TASK_IDLE;
            a->heartBeatRunning = 0;
        }
        HIC_FreeArrayList();
        HIC_FreeLunList();
        hic_test::SandboxTest::TearDown();
    }
};

TEST_F(ListsTest, EmptyListIsHeadPointingAtItself) {
    HIC_ListHead head{nullptr, nullptr};
    HIC_InitListHead(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    EXPECT_TRUE(WalkSerials(&head).empty());
    HIC_CleanUpLunInfoList(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
}

TEST_F(ListsTest, WalkVisitsRecordsInOrderAdded) {
    AddArray(&HIC_ArrayListHead, "FIRST");
    AddArray(&HIC_ArrayListHead, "SECOND");
    AddArray(&HIC_ArrayListHead, "THIRD");
    EXPECT_EQ(WalkSerials(&HIC_ArrayListHead),
              (std::vector<std::string>{"FIRST", "SECOND", "THIRD"}));
    // The backward links mirror the forward ones.
    std::vector<std::string> back;
    for (HIC_ListHead* p = HIC_ArrayListHead.prev; p != &HIC_ArrayListHead; p = p->prev) {
        back.emplace_back(reinterpret_cast<HIC_ArrayInfo*>(p)->arraySn);
    }
    EXPECT_EQ(back, (std::vector<std::string>{"THIRD", "SECOND", "FIRST"}));
}

struct DelCase {
    const char* name;
    int victim;  // index of the record to unlink
    std::vector<std::string> left;
};

class ListDelTest : public ListsTest, public ::testing::WithParamInterface<DelCase> {};

TEST_P(ListDelTest, UnlinkJoinsNeighboursAndClearsLinks) {
    const DelCase& c = GetParam();
    std::vector<HIC_ArrayInfo*> recs = {AddArray(&HIC_ArrayListHead, "A"),
                                        AddArray(&HIC_ArrayListHead, "B"),
                                        AddArray(&HIC_ArrayListHead, "C")};
    HIC_ArrayInfo* victim = recs[static_cast<size_t>(c.victim)];
    HIC_ListHead* before = victim->list.prev;
    HIC_ListHead* after = victim->list.next;
    HIC_ListDel(&victim->list);
    EXPECT_EQ(victim->list.next, nullptr);
    EXPECT_EQ(victim->list.prev, nullptr);
    EXPECT_EQ(before->next, after);
    EXPECT_EQ(after->prev, before);
    EXPECT_EQ(WalkSerials(&HIC_ArrayListHead), c.left);
    std::free(victim);
}

INSTANTIATE_TEST_SUITE_P(Positions, ListDelTest,
                         ::testing::Values(DelCase{"first", 0, {"B", "C"}},
                                           DelCase{"middle", 1, {"A", "C"}},
                                           DelCase{"last", 2, {"A", "B"}}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(ListsTest, NewRecordsAreZeroFilledAndIdle) {
    HIC_LunInfo* lun = HIC_AllocLunInfo();
    ASSERT_NE(lun, nullptr);
    const auto* lunBytes = reinterpret_cast<const unsigned char*>(lun);
    for (size_t i = 0; i < sizeof(*lun); ++i) {
        ASSERT_EQ(lunBytes[i], 0) << "LUN byte " << i;
    }
    std::free(lun);

    HIC_ArrayInfo* array = HIC_AllocArrayInfo();
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(array->heartBeatRunning.load(), 0);
    EXPECT_EQ(array->ipType, 0);
    for (unsigned char v : array->versions) {
        EXPECT_EQ(v, 0);
    }
    EXPECT_TRUE(HIC_IsArrayReleased(array));
    std::free(array);
}

TEST_F(ListsTest, TwentyCharacterSerialFitsBothRecords) {
    const char* sn = "ABCDEFGHIJ0123456789";
    ASSERT_EQ(std::strlen(sn), 20U);
    HIC_LunInfo lun{};
    HIC_ArrayInfo array{};
    EXPECT_GE(sizeof(lun.arraySn), std::strlen(sn) + 1);
    EXPECT_GE(sizeof(array.arraySn), std::strlen(sn) + 1);
}

TEST_F(ListsTest, FreeLunListEmptiesTheList) {
    for (int i = 0; i < 3; ++i) {
        HIC_LunInfo* lun = HIC_AllocLunInfo();
        ASSERT_NE(lun, nullptr);
        HIC_ListAddTail(&lun->list, &HIC_LunListHead);
    }
    HIC_FreeLunList();
    EXPECT_EQ(HIC_LunListHead.next, &HIC_LunListHead);
    EXPECT_EQ(HIC_LunListHead.prev, &HIC_LunListHead);
    HIC_FreeLunList();  // freeing an empty list is harmless
    EXPECT_EQ(HIC_LunListHead.next, &HIC_LunListHead);
}

TEST_F(ListsTest, CleanUpFreesATemporaryListButKeepsItsHead) {
    HIC_ListHead temp;
    HIC_InitListHead(&temp);
    for (int i = 0; i < 4; ++i) {
        HIC_LunInfo* lun = HIC_AllocLunInfo();
        ASSERT_NE(lun, nullptr);
        HIC_ListAddTail(&lun->list, &temp);
    }
    HIC_CleanUpLunInfoList(&temp);
    EXPECT_EQ(temp.next, &temp);
    EXPECT_EQ(temp.prev, &temp);
}

// A record that a collection or heartbeat thread still holds must survive
// the freeing of a failed build; released ones go.
struct HoldCase {
    const char* name;
    int32_t state;
    int32_t heartbeat;
    bool kept;
};

class FreeArrayListTest : public ListsTest, public ::testing::WithParamInterface<HoldCase> {};

TEST_P(FreeArrayListTest, KeepsOnlyRecordsAThreadHolds) {
    const HoldCase& c = GetParam();
    AddArray(&HIC_ArrayListHead, "IDLE1");
    HIC_ArrayInfo* held = AddArray(&HIC_ArrayListHead, "PROBE");
    AddArray(&HIC_ArrayListHead, "IDLE2");
    held->taskState = c.state;
    held->heartBeatRunning = c.heartbeat;
    HIC_FreeArrayList();
    std::vector<std::string> expect;
    if (c.kept) {
        expect.emplace_back("PROBE");
    }
    EXPECT_EQ(WalkSerials(&HIC_ArrayListHead), expect);
}

INSTANTIATE_TEST_SUITE_P(States, FreeArrayListTest,
                         ::testing::Values(HoldCase{"idle", HIC_TASK_IDLE, 0, false},
                                           HoldCase{"querying", HIC_TASK_QUERYING, 0, true},
                                           HoldCase{"collecting", HIC_TASK_COLLECTING, 1, true},
                                           HoldCase{"finished", HIC_TASK_FINISHED, 1, true},
                                           HoldCase{"idle_heartbeat_stopping", HIC_TASK_IDLE, 1,
                                                    true}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(ListsTest, CleanUpOfNullHeadLogsAndReturns) {
    HIC_CleanUpLunInfoList(nullptr);
    EXPECT_EQ(hic_test::LoggedMessages(), "ERR HIC_CleanUpLunInfoList: invalid argument \n");
}

}  // namespace
