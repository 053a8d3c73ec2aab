#include "inventory/lists.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/sandbox_test.h"

namespace {

using Serials = std::vector<std::string>;

// The serials of a list, forwards, or backwards along the prev links.
Serials WalkSerials(HIC_ListHead* head, bool backwards = false) {
    Serials out;
    for (HIC_ListHead* p = backwards ? head->prev : head->next; p != head;
         p = backwards ? p->prev : p->next) {
        out.emplace_back(reinterpret_cast<HIC_ArrayInfo*>(p)->arraySn);
    }
    return out;
}

HIC_ArrayInfo* AddArray(const char* sn) {
    HIC_ArrayInfo* a = HIC_AllocArrayInfo();
    EXPECT_NE(a, nullptr);
    std::strncpy(a->arraySn, sn, sizeof(a->arraySn) - 1);
    HIC_ListAddTail(&a->list, &HIC_ArrayListHead);
    return a;
}

void ExpectEmpty(const HIC_ListHead& head) {
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
}

class ListsTest : public hic_test::SandboxTest {
  protected:
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        HIC_InitListHead(&HIC_LunListHead);
        HIC_InitListHead(&HIC_ArrayListHead);
    }
    // Releases whatever a case left held, so the leak checker sees all freed.
    static void FreeAll() {
        for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
            auto* a = reinterpret_cast<HIC_ArrayInfo*>(p);
            a->taskState = HIC_TASK_IDLE;
            a->heartBeatRunning = 0;
        }
        HIC_FreeArrayList();
        HIC_FreeLunList();
    }
    void TearDown() override {
        FreeAll();
        hic_test::SandboxTest::TearDown();
    }
};

TEST_F(ListsTest, UnlinkJoinsNeighboursAndClearsLinks) {
    const struct {
        size_t victim;
        Serials left;
    } cases[] = {{0, {"B", "C"}}, {1, {"A", "C"}}, {2, {"A", "B"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.victim);
        const std::vector<HIC_ArrayInfo*> recs = {AddArray("A"), AddArray("B"), AddArray("C")};
        EXPECT_EQ(WalkSerials(&HIC_ArrayListHead), (Serials{"A", "B", "C"}));
        EXPECT_EQ(WalkSerials(&HIC_ArrayListHead, true), (Serials{"C", "B", "A"}));
        HIC_ArrayInfo* victim = recs[c.victim];
        HIC_ListHead* before = victim->list.prev;
        HIC_ListHead* after = victim->list.next;
        HIC_ListDel(&victim->list);
        EXPECT_EQ(victim->list.next, nullptr);
        EXPECT_EQ(victim->list.prev, nullptr);
        EXPECT_EQ(before->next, after);
        EXPECT_EQ(after->prev, before);
        EXPECT_EQ(WalkSerials(&HIC_ArrayListHead), c.left);
        std::free(victim);
        FreeAll();
    }
}

TEST_F(ListsTest, NewRecordsAreZeroFilledAndIdle) {
    HIC_LunInfo* lun = HIC_AllocLunInfo();
    ASSERT_NE(lun, nullptr);
    const auto* lunBytes = reinterpret_cast<const unsigned char*>(lun);
    for (size_t i = 0; i < sizeof(*lun); ++i) {
        ASSERT_EQ(lunBytes[i], 0) << "LUN byte " << i;
    }
    // A serial number of twenty characters and its NUL fit both records.
    EXPECT_GE(sizeof(lun->arraySn), 21U);
    std::free(lun);

    HIC_ArrayInfo* array = HIC_AllocArrayInfo();
    ASSERT_NE(array, nullptr);
    EXPECT_GE(sizeof(array->arraySn), 21U);
    EXPECT_EQ(array->taskState.load(), HIC_TASK_IDLE);
    EXPECT_EQ(array->heartBeatRunning.load(), 0);
    EXPECT_EQ(array->ipType, 0);
    for (unsigned char v : array->versions) {
        EXPECT_EQ(v, 0);
    }
    EXPECT_TRUE(HIC_IsArrayReleased(array));
    std::free(array);
}

TEST_F(ListsTest, FreeingEmptiesAListAndKeepsItsHead) {
    HIC_ListHead temp{nullptr, nullptr};
    HIC_InitListHead(&temp);
    ExpectEmpty(temp);
    HIC_CleanUpLunInfoList(&temp);  // an empty list is harmless
    ExpectEmpty(temp);
    for (HIC_ListHead* head : {&temp, &HIC_LunListHead}) {
        for (int i = 0; i < 3; ++i) {
            HIC_LunInfo* lun = HIC_AllocLunInfo();
            ASSERT_NE(lun, nullptr);
            HIC_ListAddTail(&lun->list, head);
        }
    }
    HIC_CleanUpLunInfoList(&temp);
    ExpectEmpty(temp);
    HIC_FreeLunList();
    ExpectEmpty(HIC_LunListHead);
    HIC_FreeLunList();
    ExpectEmpty(HIC_LunListHead);
    EXPECT_EQ(hic_test::LoggedMessages(), "");
    HIC_CleanUpLunInfoList(nullptr);
    EXPECT_EQ(hic_test::LoggedMessages(), "ERR HIC_CleanUpLunInfoList: invalid argument \n");
}

// A record that a collection or heartbeat thread still holds must survive
// the freeing of a failed build; released ones go.
TEST_F(ListsTest, FreeArrayListKeepsOnlyRecordsAThreadHolds) {
    const struct {
        const char* name;
        int32_t state;
        int32_t heartbeat;
        bool kept;
    } cases[] = {
        {"idle", HIC_TASK_IDLE, 0, false},
        {"querying", HIC_TASK_QUERYING, 0, true},
        {"collecting", HIC_TASK_COLLECTING, 1, true},
        {"finished", HIC_TASK_FINISHED, 1, true},
        {"idle_heartbeat_stopping", HIC_TASK_IDLE, 1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        AddArray("IDLE1");
        HIC_ArrayInfo* held = AddArray("PROBE");
        AddArray("IDLE2");
        held->taskState = c.state;
        held->heartBeatRunning = c.heartbeat;
        HIC_FreeArrayList();
        EXPECT_EQ(WalkSerials(&HIC_ArrayListHead), c.kept ? Serials{"PROBE"} : Serials{});
        FreeAll();
    }
}

}  // namespace
