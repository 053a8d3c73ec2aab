// The refresh of the LUN list from the management tool's listing, through
// the stand-in vnadmin and the virtual array in the host sandbox.
#include "inventory/vnadm_refresh.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "inventory/array_list.h"
#include "inventory/discovery.h"
#include "inventory/inventory_test_util.h"
#include "inventory/lists.h"
#include "log/log.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;
using Names = std::vector<std::string>;

// sdd's serial number holds a forbidden character, so its record says
// "--"; sde is reported by no seed listing.
constexpr const char* kConfig = R"({
  "arrays": [{"sn": "ARRAYA", "id": "a", "name": "array-a"}, {"sn": "ARRAYB", "id": "b", "name": "array-b"}],
  "luns": [
    {"dev": "sda", "array": "a", "name": "lun-a"},
    {"dev": "sdab", "array": "a", "name": "lun-ab"},
    {"dev": "sdb", "array": "b", "vendor": "PELKO", "name": "lun-b"},
    {"dev": "sdc", "array": "b", "name": "lun-c"},
    {"dev": "sdd", "array": "a", "serial": "AB;CD", "name": "lun-d"},
    {"dev": "sde", "array": "b", "name": "lun-e"}]
})";

const Names& Seeded() {
    static const Names devs = {"sda", "sdab", "sdb", "sdc", "sdd"};
    return devs;
}
bool IsRigLun(const std::string& dev) {
    return dev == "sde" || std::count(Seeded().begin(), Seeded().end(), dev) != 0;
}

std::string Clear(const std::string& dev) {
    return "DEBUG HIC_CheckAndClearLunListByVnadm: clear device /dev/" + dev +
           " by vnadm output.\n";
}
std::string Add(const std::string& dev) {
    return "DEBUG HIC_RefreshLunListByVnadm: Refresh add device /dev/" + dev + " from vnadm.\n";
}
// The identity read of a path with no node behind it.
std::string NoNode(const std::string& dev) {
    return "ERR HIC_OpenDevByPath: open /dev/" + dev + " failed.\nERR HIC_GetDevInfo: open /dev/" +
           dev + " failed.\n";
}
std::string SddIdentity() {
    return "ERR HIC_GetArraySn: array sn contains invalid characters.\n"
           "ERR HIC_GetDevInfo: get array SN for /dev/sdd failed.\n";
}

// The temporary list as the listing reader leaves it.
Entries TempEntries(HIC_ListHead* head) {
    Entries out;
    for (HIC_ListHead* p = head->next; p != head; p = p->next) {
        const auto* e = reinterpret_cast<HIC_VnLunInfo*>(p);
        out.emplace_back(e->devName, e->lunWwn);
    }
    return out;
}

class RefreshTest : public inv_test::RigSuite {
  protected:
    static void SetUpTestSuite() { StartRig(kConfig); }
    static void TearDownTestSuite() { StopRig(); }

    // Replaces every "{dev}" by the WWN of that LUN as the daemon renders it.
    std::string Expand(std::string text) {
        for (size_t open = text.find('{'); open != std::string::npos; open = text.find('{', open)) {
            const size_t close = text.find('}', open);
            std::string dev = text.substr(open + 1, close - open - 1);
            const bool upper = dev[0] == '^';  // "{^dev}": the WWN in upper case
            std::string wwn = inv_test::WwnOf(client(), upper ? dev.substr(1) : dev);
            for (char& ch : wwn) {
                ch = upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(ch))) : ch;
            }
            text.replace(open, close - open + 1, wwn);
            open += wwn.size();
        }
        return text;
    }
    std::string Line(const std::string& dev) {
        return Expand("1 " + dev + " lun {" + dev + "} Normal\n");
    }

    // Builds the LUN list sda, sdab, sdb, sdc, sdd through the refresh itself
    // (sdb is a PELKO disk: the tool's word makes it TRELOX), then forgets
    // the log and the array's records.
    void Seed() {
        HIC_SetLogLevel(HIC_LOG_DEBUG);
        std::string listing;
        Names wantCommands;
        for (const std::string& dev : Seeded()) {
            listing += Line(dev);
            const auto cmds = inv_test::IdentityCommands(dev);
            wantCommands.insert(wantCommands.end(), cmds.begin(), cmds.end());
        }
        inv_test::SetListing(listing);
        HIC_RefreshLunAndArrayList();
        auto served = [&](const char* dev, const char* name, const char* array, const char* sn) {
            return inv_test::LunView{std::string("/dev/") + dev,     "TRELOX", name,
                                     inv_test::WwnOf(client(), dev), array,    sn};
        };
        ASSERT_EQ(inv_test::LunViews(),
                  (std::vector<inv_test::LunView>{served("sda", "lun-a", "array-a", "ARRAYA"),
                                                  served("sdab", "lun-ab", "array-a", "ARRAYA"),
                                                  served("sdb", "lun-b", "array-b", "ARRAYB"),
                                                  served("sdc", "lun-c", "array-b", "ARRAYB"),
                                                  served("sdd", "lun-d", "array-a", "--")}));
        ASSERT_EQ(hic_test::LoggedMessages(),
                  Add("sda") + Add("sdab") + Add("sdb") + Add("sdc") + SddIdentity() + Add("sdd"));
        ASSERT_EQ(inv_test::CommandSummaries(client()), wantCommands);
        ASSERT_EQ(hic_test::ReadFile(inv_test::kCallsPath), "show vlun type=all\n");
        seeded_.clear();
        for (HIC_LunInfo* lun : inv_test::LunRecords()) {
            seeded_[lun->devPath + 5] = lun;
        }
        (void)std::remove(HIC_LOG_PATH);
        client().Reset();
    }

    std::map<std::string, HIC_LunInfo*> seeded_;
};

// One refresh pass over the seeded list. In `after`, split at blanks, a
// plain name is a seeded record that must have stayed (the same record);
// "+name" is a record added from the listing for /dev/name, read afresh.
struct PassCase {
    const char* name;
    std::string listing;  // "{dev}" stands for that LUN's WWN; "" means no output
    std::string after;
    std::string log;
};

Names Split(const std::string& text) {
    Names out;
    for (size_t pos = 0, end = 0; pos < text.size(); pos = end + 1) {
        end = std::min(text.find(' ', pos), text.size());
        out.push_back(text.substr(pos, end - pos));
    }
    return out;
}

constexpr const char* kOtherWwn = "600000000000000000000000000000ff";

// A line of exactly `length` characters before its line end: the sdb line,
// then one filler token.
std::string PaddedSdbLine(size_t length) {
    std::string line = "1 sdb lun {sdb} Normal ";
    const size_t expanded = line.size() - 5 + 32;
    return line + std::string(length - expanded, 'p') + "\n";
}

// 600 characters whose first 511 hold the sdb line and a filler, and whose
// rest, read as a line of its own, confirms sdc.
std::string SplitLine() {
    std::string first = "1 sdb lun {sdb} Normal ";
    first += std::string(511 - (first.size() - 5 + 32), 'p');
    std::string second = " 2 sdc lun {sdc} ";
    second += std::string(600 - 511 - (second.size() - 5 + 32), 'q');
    return first + second + "\n";
}

const std::vector<PassCase>& PassCases() {
    const std::string confirmed =
        "1 sda lun {sda} Normal\n1 sdab lun {sdab} Normal\n1 sdb lun {sdb} Normal\n"
        "1 sdc lun {sdc} Normal\n";
    const std::string sdaSdabSdc =
        "1 sda lun {sda} Normal\n1 sdab lun {sdab} Normal\n1 sdc lun {sdc} Normal\n";
    const std::string sdbSdc = "1 sdb lun {sdb} Normal\n1 sdc lun {sdc} Normal\n";
    const std::string kept = "sda sdab sdb sdc";  // the seeded records that are confirmed
    static const std::vector<PassCase> cases = {
        {"no_output", "", "", Clear("sda") + Clear("sdab") + Clear("sdb") + Clear("sdc")},
        {"no_line_with_Normal",
         "Id Device Name WWN Status\n1 sda lun {sda} Fault\n2 sdb lun {sdb} normal\n3 sdc lun "
         "{sdc} NORMAL\n",
         "", Clear("sda") + Clear("sdab") + Clear("sdb") + Clear("sdc")},
        {"all_confirmed", confirmed, kept, ""},
        {"confirmed_in_other_order",
         "1 sdc lun {sdc} Normal\n1 sdb lun {sdb} Normal\n1 sdab lun {sdab} Normal\n1 sda lun "
         "{sda} Normal\n",
         kept, ""},
        {"Normal_anywhere_in_line", "1 sda lun {sda} xNormalx\nNormal sdab lun {sdab} 0\n" + sdbSdc,
         kept, ""},
        {"unknown_serial_dropped_and_read_again", confirmed + "1 sdd lun {sdd} Normal\n",
         kept + " +sdd", SddIdentity() + Add("sdd")},
        {"changed_wwn", sdaSdabSdc + "1 sdb lun " + std::string(kOtherWwn) + " Normal\n",
         "sda sdab sdc +sdb", Clear("sdb") + Add("sdb")},
        {"wwn_in_upper_case", sdaSdabSdc + "1 sdb lun {^sdb} Normal\n", "sda sdab sdc +sdb",
         Clear("sdb") + Add("sdb")},
        {"wwn_as_last_token_keeps_line_end", sdaSdabSdc + "Normal sdb lun {sdb}\n",
         "sda sdab sdc +sdb", Clear("sdb") + Add("sdb")},
        {"short_name_with_long_names_wwn", "1 sda lun {sdab} Normal\n" + sdbSdc, "sdab sdb sdc",
         Clear("sda")},
        {"long_name_with_short_names_wwn", "1 sdab lun {sda} Normal\n" + sdbSdc, "sdb sdc +sdab",
         Clear("sda") + Clear("sdab") + Add("sdab")},
        {"both_prefix_names_long_first",
         "1 sdab lun {sdab} Normal\n1 sda lun {sda} Normal\n" + sdbSdc, kept, ""},
        {"name_part_confirms", "1 sd lun {sdb} Normal\n" + sdaSdabSdc, kept, ""},
        {"consecutive_duplicate_is_one_entry",
         "1 sda lun {sda} Normal\n1 sdab lun {sdab} Normal\n1 sdb lun {sdb} Normal\n" + sdbSdc,
         kept, ""},
        {"same_wwn_apart_gives_second_record", confirmed + "1 sdb lun {sdb} Normal\n",
         kept + " +sdb", Add("sdb")},
        {"first_short_line_lost", "Normal sde lun\n" + confirmed, kept, ""},
        {"later_short_line_kept", confirmed + "Normal sde lun\n", kept + " +sde", Add("sde")},
        {"tab_is_no_separator", sdaSdabSdc + "1 sdb\tlun {sdb} Normal\n", "sda sdab sdc +sdb\tlun",
         Clear("sdb") + NoNode("sdb\tlun") + Add("sdb\tlun")},
        {"leading_and_repeated_blanks", sdaSdabSdc + "   1    sdb \t  {sdb}   Normal  \n", kept,
         ""},
        {"more_than_fifteen_tokens",
         sdaSdabSdc + "1 sdb lun {sdb} Normal a b c d e f g h i j k l m n o p\n", kept, ""},
        {"device_token_of_256_characters",
         confirmed + "1 " + std::string(256, 'x') + " lun {sde} Normal\n", kept + " +--",
         NoNode("--") + Add("--")},
        {"device_token_of_250_characters",
         confirmed + "1 " + std::string(250, 'x') + " lun {sde} Normal\n",
         kept + " +" + std::string(250, 'x'),
         NoNode(std::string(250, 'x')) + Add(std::string(250, 'x'))},
        {"device_path_too_long_stops_additions",
         confirmed + "1 sde lun {sde} Normal\n1 " + std::string(251, 'x') + " lun {sda} Normal\n" +
             "1 sdd lun {sdd} Normal\n",
         kept + " +sde",
         Add("sde") + "ERR HIC_RefreshLunListByVnadm: sprintf_s failed.\n" +
             "ERR HIC_RefreshLunAndArrayList: refresh lun list failed.\n"},
        {"wwn_token_of_256_characters",
         sdaSdabSdc + "1 sdb lun " + std::string(256, 'w') + " Normal\n", "sda sdab sdc +sdb",
         Clear("sdb") + Add("sdb")},
        {"line_of_510_characters", sdaSdabSdc + PaddedSdbLine(510), kept, ""},
        {"line_of_511_characters_leaves_its_line_end", sdaSdabSdc + PaddedSdbLine(511),
         kept + " +--", NoNode("--") + Add("--")},
        {"line_of_600_characters", sdaSdabSdc + PaddedSdbLine(600), kept + " +--",
         NoNode("--") + Add("--")},
        {"line_of_600_characters_read_as_two",
         "1 sda lun {sda} Normal\n1 sdab lun {sdab} Normal\n" + SplitLine(), kept, ""},
    };
    return cases;
}

TEST_F(RefreshTest, LunListFollowsListing) {
    for (const PassCase& c : PassCases()) {
        SCOPED_TRACE(c.name);
        SetUp();  // a fresh start for each case
        Seed();
        inv_test::SetListing(c.listing.empty() ? std::nullopt : std::optional(Expand(c.listing)));

        HIC_RefreshLunAndArrayList();

        EXPECT_EQ(hic_test::LoggedMessages(), c.log);
        const std::vector<HIC_LunInfo*> records = inv_test::LunRecords();
        const Names after = Split(c.after);
        EXPECT_EQ(records.size(), after.size()) << ::testing::PrintToString(inv_test::DevPaths());
        if (records.size() != after.size()) {
            continue;
        }
        Names wantCommands;
        for (size_t i = 0; i < records.size(); ++i) {
            const std::string& want = after[i];
            const HIC_LunInfo* lun = records[i];
            SCOPED_TRACE(want);
            if (want[0] != '+') {
                EXPECT_EQ(lun, seeded_[want]) << "the confirmed record must stay as it is";
                continue;
            }
            const std::string dev = want.substr(1);
            EXPECT_EQ(std::string(lun->devPath), "/dev/" + dev);
            EXPECT_STREQ(lun->vendorId, "TRELOX");
            if (IsRigLun(dev)) {
                EXPECT_EQ(lun->lunWwn, inv_test::WwnOf(client(), dev));
                const auto cmds = inv_test::IdentityCommands(dev);
                wantCommands.insert(wantCommands.end(), cmds.begin(), cmds.end());
            } else {
                EXPECT_EQ(inv_test::ViewOf(*lun),
                          inv_test::LunView({"/dev/" + dev, "TRELOX", "--", "--", "--", "--"}));
            }
        }
        // Confirmed LUNs are not touched: the only commands are the reads of
        // the added ones.
        EXPECT_EQ(inv_test::CommandSummaries(client()), wantCommands);
    }
}

// While any array has work in flight the LUN list must not change, whatever
// the listing says, and nothing is logged.
TEST_F(RefreshTest, BusyArrayFreezesLunList) {
    const struct {
        size_t busy;
        int32_t state;
    } cases[] = {{0, HIC_TASK_QUERYING}, {1, HIC_TASK_COLLECTING}, {1, HIC_TASK_FINISHED}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        SetUp();  // a fresh start for each case
        Seed();
        ASSERT_EQ(HIC_GetArrayList(), 0);
        ASSERT_EQ(inv_test::ArraySerials(), (Names{"ARRAYA", "ARRAYB"}));
        inv_test::ArrayRecords()[c.busy]->taskState = c.state;
        (void)std::remove(HIC_LOG_PATH);
        const std::vector<HIC_LunInfo*> before = inv_test::LunRecords();
        const std::vector<inv_test::LunView> viewsBefore = inv_test::LunViews();
        inv_test::SetListing(Line("sde"));

        HIC_RefreshLunAndArrayList();

        EXPECT_EQ(inv_test::LunRecords(), before);
        EXPECT_EQ(inv_test::LunViews(), viewsBefore);
        EXPECT_EQ(hic_test::LoggedMessages(), "");
        EXPECT_TRUE(client().Commands().empty());
        EXPECT_TRUE(inv_test::OpensByLun(client()).empty());
        EXPECT_EQ(hic_test::ReadFile(inv_test::kCallsPath),
                  "show vlun type=all\nshow vlun type=all\n");

        // Asked directly, the check refuses and leaves the entries alone.
        HIC_ListHead head;
        HIC_InitListHead(&head);
        ASSERT_EQ(HIC_GetVnLunInfoListByVnadm(&head), 0);
        EXPECT_EQ(HIC_CheckAndClearLunListByVnadm(&head), -1);
        EXPECT_EQ(TempEntries(&head), (Entries{{"sde", inv_test::WwnOf(client(), "sde")}}));
        EXPECT_EQ(inv_test::LunRecords(), before);
        HIC_CleanUpLunInfoList(&head);
    }
}

TEST_F(RefreshTest, ChangedWwnReaddsDiscoveredLunWithFreshIdentityAsTrelox) {
    // From discovery sdb's record says PELKO, as the disk does.
    ASSERT_EQ(HIC_GetLunList(), 0);
    std::string listing;
    for (HIC_LunInfo* lun : inv_test::LunRecords()) {
        const std::string dev = lun->devPath + 5;
        if (dev == "sdb") {
            ASSERT_STREQ(lun->vendorId, "PELKO");
            listing += "1 sdb lun " + std::string(kOtherWwn) + " Normal\n";
        } else if (dev != "sdd") {
            listing += Line(dev);
        }
    }
    const size_t discovered = inv_test::LunRecords().size();
    ASSERT_EQ(discovered, 6U);
    inv_test::SetListing(listing);
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    (void)std::remove(HIC_LOG_PATH);
    client().Reset();

    HIC_RefreshLunAndArrayList();

    EXPECT_EQ(hic_test::LoggedMessages(), Clear("sdb") + Add("sdb"));
    const std::vector<inv_test::LunView> views = inv_test::LunViews();
    ASSERT_EQ(views.size(), discovered - 1);  // sdd ("--") is gone for good
    EXPECT_EQ(views.back(),
              inv_test::LunView({"/dev/sdb", "TRELOX", "lun-b", inv_test::WwnOf(client(), "sdb"),
                                 "array-b", "ARRAYB"}));
    EXPECT_EQ(inv_test::CommandSummaries(client()), inv_test::IdentityCommands("sdb"));
    EXPECT_EQ(inv_test::OpensByLun(client()),
              (std::map<std::string, std::vector<std::string>>{{"sdb", {"ro"}}}));
}

TEST_F(RefreshTest, UnreadableNewLunIsAddedWithNoValuesAndReadAgainNextPass) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    client().InjectFault({{"lun", "sde"}, {"kind", "page80"}, {"status", 2}, {"count", 1}});
    inv_test::SetListing(Line("sde"));
    HIC_RefreshLunAndArrayList();
    ASSERT_EQ(inv_test::LunViews().size(), 1U);
    EXPECT_STREQ(inv_test::LunRecords()[0]->arraySn, "--");
    EXPECT_EQ(
        hic_test::LoggedMessages(),
        "ERR HIC_DoInquiry: inqury page 0x80 failed.status:2, host_status:0, driver_status:8.\n"
        "ERR HIC_GetArraySn: get array sn failed.\n"
        "ERR HIC_GetDevInfo: get array SN for /dev/sde failed.\n" +
            Add("sde"));

    // The next pass drops it without a word and reads it afresh.
    (void)std::remove(HIC_LOG_PATH);
    HIC_RefreshLunAndArrayList();
    EXPECT_EQ(hic_test::LoggedMessages(), Add("sde"));
    EXPECT_EQ(
        inv_test::LunViews(),
        (std::vector<inv_test::LunView>{{"/dev/sde", "TRELOX", "lun-e",
                                         inv_test::WwnOf(client(), "sde"), "array-b", "ARRAYB"}}));
}

// The listing reader alone, on lines whose effect the passes above do not show.
TEST_F(RefreshTest, TemporaryListHoldsAcceptedLines) {
    const std::string w1 = "60000000000000000000000000000001";
    const std::string w2 = "60000000000000000000000000000002";
    const struct {
        const char* name;
        std::string listing;  // "" means the tool prints nothing
        Entries entries;
    } cases[] = {
        {"no_output", "", {}},
        {"later_short_lines",
         "2 sdc b " + w2 + " Normal\nNormal sdb lun\nNormal sdd lun\n",
         {{"sdc", w2}, {"sdb", "--"}}},
        {"single_token_line", "Normal\n1 sdb lun " + w1 + " Normal\n", {{"sdb", w1}}},
        {"tabs_kept_in_tokens", "1\tsdb lun " + w1 + " x Normal\n", {{"lun", "x"}}},
        {"token_of_255_characters",
         "1 " + std::string(255, 'd') + " lun " + w1 + " Normal\n",
         {{std::string(255, 'd'), w1}}},
    };
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        inv_test::SetListing(c.listing.empty() ? std::nullopt : std::optional(c.listing));
        HIC_ListHead head;
        HIC_InitListHead(&head);
        EXPECT_EQ(HIC_GetVnLunInfoListByVnadm(&head), 0);
        EXPECT_EQ(TempEntries(&head), c.entries);
        HIC_CleanUpLunInfoList(&head);
        EXPECT_EQ(head.next, &head);
        EXPECT_EQ(head.prev, &head);
    }
    EXPECT_EQ(hic_test::LoggedMessages(), "");
}

TEST_F(RefreshTest, CheckAndClearKeepsOnlyUnconfirmedEntries) {
    Seed();
    inv_test::SetListing(
        Expand("1 sdx lun {sda} Normal\n1 sdb lun {sdb} Normal\n1 sda lun {sda} Normal\n"
               "1 sdc lun {sdc} Normal\n1 sdb lun {sdb} Normal\n1 sdd lun {sdd} Normal\n"));
    HIC_ListHead head;
    HIC_InitListHead(&head);
    ASSERT_EQ(HIC_GetVnLunInfoListByVnadm(&head), 0);
    ASSERT_EQ(TempEntries(&head).size(), 6U);

    EXPECT_EQ(HIC_CheckAndClearLunListByVnadm(&head), 0);

    // The first matching entry is used up; the second sdb stays.
    EXPECT_EQ(TempEntries(&head), (Entries{{"sdx", inv_test::WwnOf(client(), "sda")},
                                           {"sdb", inv_test::WwnOf(client(), "sdb")},
                                           {"sdd", inv_test::WwnOf(client(), "sdd")}}));
    EXPECT_EQ(inv_test::LunRecords(),
              (std::vector<HIC_LunInfo*>{seeded_["sda"], seeded_["sdb"], seeded_["sdc"]}));
    EXPECT_EQ(hic_test::LoggedMessages(), Clear("sdab"));

    // The additions take the entries in order and leave the list to its owner.
    EXPECT_EQ(HIC_RefreshLunListByVnadm(&head), 0);
    EXPECT_EQ(TempEntries(&head).size(), 3U);
    EXPECT_EQ(inv_test::DevPaths(), (std::vector<std::string>{"/dev/sda", "/dev/sdb", "/dev/sdc",
                                                              "/dev/sdx", "/dev/sdb", "/dev/sdd"}));
    HIC_CleanUpLunInfoList(&head);
}

TEST_F(RefreshTest, NullHeads) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    EXPECT_EQ(HIC_CheckAndClearLunListByVnadm(nullptr), -1);
    EXPECT_EQ(hic_test::LoggedMessages(), "");
    EXPECT_EQ(HIC_RefreshLunListByVnadm(nullptr), -1);
    EXPECT_EQ(hic_test::LoggedMessages(), "ERR HIC_RefreshLunListByVnadm: invalid argument \n");

    ::testing::internal::CaptureStdout();
    EXPECT_EQ(HIC_GetVnLunInfoListByVnadm(nullptr), -1);
    const std::string report = ::testing::internal::GetCapturedStdout();
    EXPECT_THAT(report, ::testing::StartsWith(
                            "*** Assertion on function \"HIC_GetVnLunInfoListByVnadm\" line "));
    EXPECT_FALSE(hic_test::ReadFile(inv_test::kCallsPath).size() > 0) << "the tool must not run";
}

TEST(CopyAttrTest, CopiesOrWritesNoValue) {
    const struct {
        const char* name;
        uint32_t size;
        std::string src;
        uint32_t len;
        std::string want;  // the destination's bytes up to its first NUL
    } cases[] = {
        {"token", 256, "sdb", 3, "sdb"},
        {"length_cuts_source", 256, "sdbxyz", 3, "sdb"},
        {"empty", 256, "", 0, "--"},
        {"zero_length", 256, "sdb", 0, "--"},
        {"one_short_of_size", 8, "abcdefg", 7, "abcdefg"},
        {"as_long_as_size", 8, "abcdefgh", 8, "--"},
        {"longer_than_size", 8, "abcdefghij", 10, "--"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<char> dest(c.size + 1, '\0');  // one guard byte past the size
        HIC_CopyAttrFromVnadm(dest.data(), c.size, c.src.c_str(), c.len);
        EXPECT_EQ(std::string(dest.data()), c.want);
        EXPECT_EQ(dest[c.size], '\0') << "written past the size";
    }
    char dest[8] = "keep";
    ::testing::internal::CaptureStdout();
    HIC_CopyAttrFromVnadm(dest, sizeof(dest), nullptr, 3);
    HIC_CopyAttrFromVnadm(nullptr, sizeof(dest), "abc", 3);
    const std::string report = ::testing::internal::GetCapturedStdout();
    EXPECT_STREQ(dest, "keep");
    EXPECT_THAT(report,
                ::testing::HasSubstr("*** Assertion on function \"HIC_CopyAttrFromVnadm\" line "));
}

}  // namespace
