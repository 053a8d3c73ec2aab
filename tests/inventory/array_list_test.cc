// Grouping of the LUN list into array records, with the LUN list built by
// the real refresh against the virtual array (the listing fixes its order).
#include "inventory/array_list.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "inventory/inventory_test_util.h"
#include "inventory/lists.h"
#include "inventory/vnadm_refresh.h"
#include "log/log.h"

namespace {

using Names = std::vector<std::string>;

// sdd and sde carry no usable serial number: sdd's holds a forbidden
// character ("--"), sde belongs to no array (an empty one).
constexpr const char* kConfig = R"({
  "arrays": [{"sn": "SERIALX", "id": "x"}, {"sn": "SERIALY", "id": "y"},
             {"sn": "ABCDEFGHIJ0123456789", "id": "long"}, {"sn": "SERIALZ", "id": "z"}],
  "luns": [
    {"dev": "sdb", "array": "x"},
    {"dev": "sdc", "array": "y"},
    {"dev": "sdd", "array": "x", "serial": "SER;X"},
    {"dev": "sde"},
    {"dev": "sdf", "array": "x"},
    {"dev": "sdg", "array": "long"}]
})";

class ArrayListTest : public inv_test::RigSuite {
  protected:
    static void SetUpTestSuite() { StartRig(kConfig); }
    static void TearDownTestSuite() { StopRig(); }

    // Refreshes the LUN list from a listing of these devices, in this order.
    void Refresh(const Names& devs) {
        std::string listing;
        for (const std::string& dev : devs) {
            listing += "1 " + dev + " lun " + inv_test::WwnOf(client(), dev) + " Normal\n";
        }
        inv_test::SetListing(listing);
        HIC_RefreshLunAndArrayList();
        ASSERT_EQ(inv_test::LunRecords().size(), devs.size());
        (void)std::remove(HIC_LOG_PATH);
    }
};

TEST_F(ArrayListTest, OneRecordPerSerialInFirstSeenOrder) {
    const struct {
        const char* name;
        Names devs;
        Names arrays;
    } cases[] = {
        {"x_y_x", {"sdb", "sdc", "sdf"}, {"SERIALX", "SERIALY"}},
        {"y_x_x", {"sdc", "sdb", "sdf"}, {"SERIALY", "SERIALX"}},
        {"unknown_and_empty_serials_ignored", {"sdd", "sde", "sdc", "sdd"}, {"SERIALY"}},
        {"only_unknown", {"sde", "sdd"}, {}},
        {"no_luns", {}, {}},
        {"twenty_characters", {"sdg", "sdb"}, {"ABCDEFGHIJ0123456789", "SERIALX"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        inv_test::ResetLists();
        HIC_SetLogLevel(HIC_LOG_DEBUG);
        Refresh(c.devs);
        EXPECT_EQ(HIC_GetArrayList(), 0);
        EXPECT_EQ(inv_test::ArraySerials(), c.arrays);
        EXPECT_EQ(hic_test::LoggedMessages(),
                  "DEBUG HIC_GetArrayList: get array info list success.\n");
        for (const HIC_ArrayInfo* a : inv_test::ArrayRecords()) {
            EXPECT_LT(strnlen(a->arraySn, sizeof(a->arraySn)), sizeof(a->arraySn));  // terminated
            EXPECT_TRUE(HIC_IsArrayReleased(a));
        }
    }
}

// Records stay as they are across builds: a second build adds nothing, an
// array whose LUNs left keeps its record, a new array is appended.
TEST_F(ArrayListTest, RebuildKeepsRecordsAndAppendsNewArrays) {
    Refresh({"sdc", "sdb"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    const auto before = inv_test::ArrayRecords();
    ASSERT_EQ(before.size(), 2U);
    before[0]->taskState = HIC_TASK_COLLECTING;
    before[0]->heartBeatRunning = 1;
    const unsigned char versions[4] = {1, 2, 3, 4};
    std::memcpy(before[1]->versions, versions, sizeof(versions));
    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArrayRecords(), before);
    EXPECT_EQ(before[0]->taskState.load(), HIC_TASK_COLLECTING);
    EXPECT_EQ(before[0]->heartBeatRunning.load(), 1);
    EXPECT_EQ(std::memcmp(before[1]->versions, versions, sizeof(versions)), 0);
    before[0]->taskState = HIC_TASK_IDLE;  // a busy array would freeze the LUN list

    Refresh({"sdc"});
    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArrayRecords(), before);

    // A LUN of another array appears and the tool reports it first.
    client().AddLun({{"dev", "sdh"}, {"array", "z"}});
    Refresh({"sdh", "sdc", "sdb"});
    ASSERT_EQ(inv_test::DevPaths(), (Names{"/dev/sdc", "/dev/sdh", "/dev/sdb"}));
    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArraySerials(), (Names{"SERIALY", "SERIALX", "SERIALZ"}));
    const auto after = inv_test::ArrayRecords();
    EXPECT_EQ(std::vector<HIC_ArrayInfo*>(after.begin(), after.begin() + 2), before);
    client().RemoveLun("sdh");
}

// After a failed build the list is freed, but a record that a worker thread
// still holds stays; the rebuild must find it and not add its serial twice.
TEST_F(ArrayListTest, HeldRecordSurvivesAndIsNotDuplicated) {
    const Names rebuilt[] = {{"SERIALX", "SERIALY", "ABCDEFGHIJ0123456789"},
                             {"SERIALY", "SERIALX", "ABCDEFGHIJ0123456789"},
                             {"ABCDEFGHIJ0123456789", "SERIALX", "SERIALY"}};
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        inv_test::ResetLists();
        Refresh({"sdb", "sdc", "sdg"});
        ASSERT_EQ(HIC_GetArrayList(), 0);
        HIC_ArrayInfo* held = inv_test::ArrayRecords()[i];
        held->taskState = HIC_TASK_QUERYING;
        held->versions[0] = 9;

        HIC_FreeArrayList();
        ASSERT_EQ(inv_test::ArrayRecords(), std::vector<HIC_ArrayInfo*>{held});
        ASSERT_EQ(HIC_GetArrayList(), 0);
        EXPECT_EQ(inv_test::ArraySerials(), rebuilt[i]);
        EXPECT_EQ(inv_test::ArrayRecords()[0], held);
        EXPECT_EQ(held->taskState.load(), HIC_TASK_QUERYING);
        EXPECT_EQ(held->versions[0], 9);
        for (const HIC_ArrayInfo* a : inv_test::ArrayRecords()) {
            if (a != held) {
                EXPECT_EQ(a->taskState.load(), HIC_TASK_IDLE);
                EXPECT_EQ(a->versions[0], 0);
            }
        }
    }
}

}  // namespace
