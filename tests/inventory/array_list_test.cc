// Grouping of the LUN list into array records, with the LUN list built by
// the real refresh against the virtual array (the listing fixes its order).
#include "inventory/array_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "inventory/inventory_test_util.h"
#include "inventory/lists.h"
#include "inventory/vnadm_refresh.h"
#include "log/log.h"

namespace {

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

    // A listing line that confirms the LUN.
    std::string Line(const std::string& dev) {
        return "1 " + dev + " lun " + inv_test::WwnOf(client(), dev) + " Normal\n";
    }
    // Builds the LUN list from a listing of these devices, in this order.
    void LoadLuns(const std::vector<std::string>& devs) {
        std::string listing;
        for (const std::string& dev : devs) {
            listing += Line(dev);
        }
        inv_test::SetListing(listing);
        HIC_RefreshLunAndArrayList();
        ASSERT_EQ(inv_test::LunRecords().size(), devs.size());
        (void)std::remove(HIC_LOG_PATH);
    }
};

struct OrderCase {
    const char* name;
    std::vector<std::string> devs;
    std::vector<std::string> arrays;
};

class ArrayOrderTest : public ArrayListTest, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(ArrayOrderTest, OneRecordPerSerialInFirstSeenOrder) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    LoadLuns(GetParam().devs);
    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArraySerials(), GetParam().arrays);
    EXPECT_EQ(hic_test::LoggedMessages(), "DEBUG HIC_GetArrayList: get array info list success.\n");
    for (const HIC_ArrayInfo* a : inv_test::ArrayRecords()) {
        EXPECT_EQ(a->taskState.load(), HIC_TASK_IDLE);
        EXPECT_EQ(a->heartBeatRunning.load(), 0);
        EXPECT_EQ(a->ipType, 0);
        for (unsigned char v : a->versions) {
            EXPECT_EQ(v, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Listings, ArrayOrderTest,
    ::testing::Values(
        OrderCase{"x_y_x", {"sdb", "sdc", "sdf"}, {"SERIALX", "SERIALY"}},
        OrderCase{"y_x_x", {"sdc", "sdb", "sdf"}, {"SERIALY", "SERIALX"}},
        OrderCase{"unknown_and_empty_serials_ignored", {"sdd", "sde", "sdc", "sdd"}, {"SERIALY"}},
        OrderCase{"only_unknown", {"sde", "sdd"}, {}}, OrderCase{"no_luns", {}, {}},
        OrderCase{"twenty_characters", {"sdg", "sdb"}, {"ABCDEFGHIJ0123456789", "SERIALX"}}),
    hic_test::CaseName());

TEST_F(ArrayListTest, TwentyCharacterSerialIsCopiedWholeAndTerminated) {
    LoadLuns({"sdg"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    const auto arrays = inv_test::ArrayRecords();
    ASSERT_EQ(arrays.size(), 1U);
    EXPECT_EQ(std::memcmp(arrays[0]->arraySn, "ABCDEFGHIJ0123456789", 21), 0);
}

TEST_F(ArrayListTest, SecondCallAddsNothingAndKeepsState) {
    LoadLuns({"sdb", "sdc"});
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
}

TEST_F(ArrayListTest, ArrayOfNewLunIsAppendedAtTheEnd) {
    LoadLuns({"sdc", "sdb"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    const auto before = inv_test::ArrayRecords();

    // A LUN of another array appears and the tool reports it first.
    client().AddLun({{"dev", "sdh"}, {"array", "z"}});
    inv_test::SetListing(Line("sdh") + Line("sdc") + Line("sdb"));
    HIC_RefreshLunAndArrayList();
    ASSERT_EQ(inv_test::DevPaths(), (std::vector<std::string>{"/dev/sdc", "/dev/sdb", "/dev/sdh"}));

    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArraySerials(),
              (std::vector<std::string>{"SERIALY", "SERIALX", "SERIALZ"}));
    const auto after = inv_test::ArrayRecords();
    EXPECT_EQ(std::vector<HIC_ArrayInfo*>(after.begin(), after.begin() + 2), before);
    client().RemoveLun("sdh");
}

TEST_F(ArrayListTest, ArrayWhoseLunsLeftKeepsItsRecord) {
    LoadLuns({"sdb", "sdc"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    inv_test::SetListing(Line("sdc"));
    HIC_RefreshLunAndArrayList();
    ASSERT_EQ(inv_test::DevPaths(), (std::vector<std::string>{"/dev/sdc"}));
    EXPECT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArraySerials(), (std::vector<std::string>{"SERIALX", "SERIALY"}));
}

// After a failed build the list is freed, but a record that a worker thread
// still holds stays; the rebuild must find it and not add its serial twice.
struct HeldCase {
    const char* name;
    int held;  // index of the record kept busy
    std::vector<std::string> rebuilt;
};

class RebuildAfterFreeTest : public ArrayListTest,
                             public ::testing::WithParamInterface<HeldCase> {};

TEST_P(RebuildAfterFreeTest, HeldRecordSurvivesAndIsNotDuplicated) {
    LoadLuns({"sdb", "sdc", "sdg"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo* held = inv_test::ArrayRecords()[static_cast<size_t>(GetParam().held)];
    held->taskState = HIC_TASK_QUERYING;
    held->versions[0] = 9;

    HIC_FreeArrayList();
    ASSERT_EQ(inv_test::ArrayRecords(), std::vector<HIC_ArrayInfo*>{held});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(inv_test::ArraySerials(), GetParam().rebuilt);
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

INSTANTIATE_TEST_SUITE_P(
    Held, RebuildAfterFreeTest,
    ::testing::Values(HeldCase{"first", 0, {"SERIALX", "SERIALY", "ABCDEFGHIJ0123456789"}},
                      HeldCase{"middle", 1, {"SERIALY", "SERIALX", "ABCDEFGHIJ0123456789"}},
                      HeldCase{"last", 2, {"ABCDEFGHIJ0123456789", "SERIALX", "SERIALY"}}),
    hic_test::CaseName());

}  // namespace
