// The pieces of the inventory with edges of their own: the identity of each
// disk as discovery reads it through every INQUIRY reader, and the reader of
// the management tool's listing.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "collect/collect_task.h"
#include "inventory/array_list.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "inventory/vnadm_refresh.h"
#include "log/log.h"
#include "support/support.h"
#include "support/wire.h"

namespace hic_test {
namespace {

// Vendors are taken by their first six (TRELOX) or five (PELKO) letters,
// after spaces became NULs; names by their 16-bit selector (sdj's is 0x0100:
// its long name, empty); the array name packed without its NULs; a serial
// number with a shell character refused; sdj's WWN read fails on the driver
// status alone.
constexpr const char* kDisks = R"({
  "arrays": [{"sn": "ARRAYSN0001", "name": "array-one"}, {"sn": "ARRAYSN0002", "name": "array-two"}],
  "luns": [
    {"dev": "sdb", "array": "ARRAYSN0001", "name": "lun-b", "wwn": "6e000102030405060708090a0b0c0d0f"},
    {"dev": "sdc", "array": "ARRAYSN0002", "vendor": "PELKO", "name": "short c",
     "long_name": "the long name of lun c", "wwn": "60000000000000000000000000000002"},
    {"dev": "sdd", "array": "ARRAYSN0002", "vendor": "PELKOX", "name": "lun-d",
     "wwn": "60000000000000000000000000000003",
     "patches": [{"page": "c8", "offset": 106, "hex": "05414200434400"}]},
    {"dev": "sde", "vendor": "ATA"}, {"dev": "sdf", "array": "ARRAYSN0001", "vendor": "trelox"},
    {"dev": "sdg", "array": "ARRAYSN0001", "vendor": "TRELO"},
    {"dev": "sdh", "array": "ARRAYSN0001", "vendor": "PELK"},
    {"dev": "sdi", "array": "ARRAYSN0001", "vendor": "TRELOX 1", "name": "lun-i",
     "serial": "AB;CD", "wwn": "60000000000000000000000000000009"},
    {"dev": "sdj", "array": "ARRAYSN0001", "name": "short j", "name_selector": 256},
    {"dev": "sr0", "array": "ARRAYSN0001"}, {"dev": "loop0", "array": "ARRAYSN0001"}]
})";

struct Identity {
    std::string devPath, vendorId, lunName, lunWwn, arrayName, arraySn;
    bool operator==(const Identity&) const = default;
};

void PrintTo(const Identity& v, std::ostream* os) {
    *os << "{" << v.devPath << ", " << v.vendorId << ", " << v.lunName << ", " << v.lunWwn << ", "
        << v.arrayName << ", " << v.arraySn << "}";
}

class InventoryTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        HIC_InitListHead(&HIC_LunListHead);
        HIC_InitListHead(&HIC_ArrayListHead);
    }
    void TearDown() override {
        HIC_FreeLunList();
        HIC_FreeArrayList();
        SandboxTest::TearDown();
    }
};

TEST_F(InventoryTest, DiscoveryReadsEachServedDiskIdentity) {
    vnarray::Rig rig(kDisks);
    rig.Start();
    rig.client().InjectFault({{"lun", "sdj"}, {"kind", "page83"}, {"driver_status", 8}});
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    ASSERT_EQ(HIC_GetLunList(), 0);

    const std::map<std::string, Identity> served = {
        {"sdb",
         {"/dev/sdb", "TRELOX", "lun-b", "6e000102030405060708090a0b0c0d0f", "array-one",
          "ARRAYSN0001"}},
        {"sdc",
         {"/dev/sdc", "PELKO", "the long name of lun c", "60000000000000000000000000000002",
          "array-two", "ARRAYSN0002"}},
        {"sdd",
         {"/dev/sdd", "PELKOX", "lun-d", "60000000000000000000000000000003", "ABCD",
          "ARRAYSN0002"}},
        {"sdi",
         {"/dev/sdi", "TRELOX", "lun-i", "60000000000000000000000000000009", "array-one", "--"}},
        {"sdj", {"/dev/sdj", "TRELOX", "", "--", "array-one", "ARRAYSN0001"}}};
    std::vector<Identity> want;
    std::string wantLog;
    std::map<std::string, std::string> wantPages;
    for (const std::string& dev : DirNames("/sys/block")) {  // discovery's order
        if (dev == "sr0" || dev == "loop0") {
            continue;
        }
        wantPages[dev] = "00";
        if (const auto it = served.find(dev); it != served.end()) {
            want.push_back(it->second);
            wantPages[dev] = "00 c8 83 c8 80";
            if (dev == "sdj") {
                wantLog +=
                    "ERR HIC_DoInquiry: inqury page 0x83 failed.status:0, "
                    "host_status:0, driver_status:8.\n"
                    "ERR HIC_GetDevInfo: get wwn for /dev/sdj failed.\n";
            }
            if (dev == "sdi") {
                wantLog +=
                    "ERR HIC_GetArraySn: array sn contains invalid characters.\n"
                    "ERR HIC_GetDevInfo: get array SN for /dev/sdi failed.\n";
            }
            wantLog += "DEBUG HIC_GetLunList: add device " + dev + " from block dir.\n";
        }
    }
    std::vector<Identity> got;
    for (HIC_ListHead* p = HIC_LunListHead.next; p != &HIC_LunListHead; p = p->next) {
        const auto* l = reinterpret_cast<const HIC_LunInfo*>(p);
        got.push_back({l->devPath, l->vendorId, l->lunName, l->lunWwn, l->arrayName, l->arraySn});
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ(LoggedMessages(), wantLog);
    // One array record per serial number; none for the refused one.
    ASSERT_EQ(HIC_GetArrayList(), 0);
    std::set<std::string> arrays;
    for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
        EXPECT_TRUE(arrays.insert(reinterpret_cast<const HIC_ArrayInfo*>(p)->arraySn).second);
    }
    EXPECT_EQ(arrays, (std::set<std::string>{"ARRAYSN0001", "ARRAYSN0002"}));
    const auto commands = rig.client().Commands();
    ExpectEveryCommand(commands, {});
    std::map<std::string, std::string> pages;
    for (const auto& c : commands) {
        char page[3];
        std::snprintf(page, sizeof(page), "%02x", c.cdb[2]);
        pages[c.lun] += (pages[c.lun].empty() ? "" : " ") + std::string(page);
    }
    EXPECT_EQ(pages, wantPages);
    // Every disk opened read-only for its vendor, once more for its identity.
    for (const auto& o : SettledOpens(rig.client())) {
        EXPECT_TRUE(o.close || o.flags == 0) << o.lun;
    }

    // A refresh right behind the start of a collection, before its thread
    // has left the idle state, frees none of the LUN records it walks (a
    // race: tried a few times; the slow switch query keeps the thread busy).
    rig.client().InjectFault({{"kind", "c7"}, {"delay_ms", 100}});
    WriteFile("/etc/vn.hostinfo", "IpType=IPv4;\nIpAddress=10.0.0.1;\n");
    ASSERT_EQ(HIC_GetArrayList(), 0);
    auto* array = reinterpret_cast<HIC_ArrayInfo*>(HIC_ArrayListHead.next);
    HIC_ListHead none;
    HIC_InitListHead(&none);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(HIC_StartCollectTaskForArray(array), 0);
        EXPECT_EQ(HIC_CheckAndClearLunListByVnadm(&none), -1);
        ASSERT_TRUE(WaitFor([&] { return HIC_IsArrayReleased(array); }));
    }
    EXPECT_EQ(rig.Stop(), 0);
}

TEST_F(InventoryTest, ListingReaderTakesTheSecondAndFourthWords) {
    const std::string w1 = "60000000000000000000000000000001";
    const std::string w2 = "60000000000000000000000000000002";
    using Entries = std::vector<std::pair<std::string, std::string>>;
    const struct {
        const char* name;
        std::optional<std::string> listing;  // nullopt: the tool prints nothing
        Entries entries;
    } cases[] = {
        {"no_output", std::nullopt, {}},
        {"two_luns",
         "1 sdb lun " + w1 + " Normal\n2 sdc b " + w2 + " Normal\n",
         {{"sdb", w1}, {"sdc", w2}}},
        {"same_wwn_twice_in_a_row_is_one",
         "1 sdb lun " + w1 + " Normal\n1 sdc lun " + w1 + " x\n",
         {{"sdb", w1}}},
        {"later_short_lines",
         "2 sdc b " + w2 + " Normal\nNormal sdb lun\nNormal sdd lun\n",
         {{"sdc", w2}, {"sdb", "--"}}},
        // Only a kernel device name may form a device path.
        {"only_plain_device_names",
         "1 ../run/x lun " + w1 + " Normal\n1 sd\x1b[2Jb lun " + w1 + " Normal\n2 sdc b " + w2 +
             " Normal\n",
         {{"sdc", w2}}},
        {"first_short_line_lost", "Normal\n1 sdb lun " + w1 + " Normal\n", {{"sdb", w1}}},
        {"tabs_kept_in_tokens", "1\tsdb lun " + w1 + " x Normal\n", {{"lun", "x"}}},
        {"token_of_255_characters",
         "1 " + std::string(255, 'd') + " lun " + w1 + " Normal\n",
         {{std::string(255, 'd'), w1}}},
    };
    MakeDirs("/run/vnadmin");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.listing) {
            WriteFile("/run/vnadmin/show_vlun", *c.listing);
        } else {
            (void)std::remove("/run/vnadmin/show_vlun");
        }
        HIC_ListHead head;
        HIC_InitListHead(&head);
        EXPECT_EQ(HIC_GetVnLunInfoListByVnadm(&head), 0);
        Entries got;
        for (HIC_ListHead* p = head.next; p != &head; p = p->next) {
            const auto* e = reinterpret_cast<const HIC_VnLunInfo*>(p);
            got.emplace_back(e->devName, e->lunWwn);
        }
        EXPECT_EQ(got, c.entries);
        HIC_CleanUpLunInfoList(&head);
        EXPECT_EQ(head.next, &head);
    }
    EXPECT_EQ(LoggedMessages(), "");
}

}  // namespace
}  // namespace hic_test
