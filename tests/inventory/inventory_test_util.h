// Shared by the inventory tests against the virtual array: views of the two
// lists, the stand-in management tool's listing, and the array's records.
#ifndef HIC_TESTS_INVENTORY_INVENTORY_TEST_UTIL_H
#define HIC_TESTS_INVENTORY_INVENTORY_TEST_UTIL_H

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "client.h"
#include "inventory/lists.h"
#include "support/sandbox_test.h"

namespace inv_test {

constexpr const char* kListingPath = "/run/vnadmin/show_vlun";
constexpr const char* kCallsPath = "/run/vnadmin/calls";

// Everything a LUN record holds, for exact comparison.
struct LunView {
    std::string devPath;
    std::string vendorId;
    std::string lunName;
    std::string lunWwn;
    std::string arrayName;
    std::string arraySn;
    bool operator==(const LunView&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const LunView& v) {
    return os << "{" << v.devPath << ", " << v.vendorId << ", " << v.lunName << ", " << v.lunWwn
              << ", " << v.arrayName << ", " << v.arraySn << "}";
}

// The records of a list, in list order.
template <typename Record>
std::vector<Record*> Records(HIC_ListHead& head) {
    std::vector<Record*> out;
    for (HIC_ListHead* p = head.next; p != &head; p = p->next) {
        out.push_back(reinterpret_cast<Record*>(p));
    }
    return out;
}
inline std::vector<HIC_LunInfo*> LunRecords() {
    return Records<HIC_LunInfo>(HIC_LunListHead);
}
inline std::vector<HIC_ArrayInfo*> ArrayRecords() {
    return Records<HIC_ArrayInfo>(HIC_ArrayListHead);
}

inline LunView ViewOf(const HIC_LunInfo& l) {
    return {l.devPath, l.vendorId, l.lunName, l.lunWwn, l.arrayName, l.arraySn};
}
inline std::vector<LunView> LunViews() {
    std::vector<LunView> out;
    for (const HIC_LunInfo* l : LunRecords()) {
        out.push_back(ViewOf(*l));
    }
    return out;
}

inline std::vector<std::string> DevPaths() {
    std::vector<std::string> out;
    for (const HIC_LunInfo* l : LunRecords()) {
        out.emplace_back(l->devPath);
    }
    return out;
}
inline std::vector<std::string> ArraySerials() {
    std::vector<std::string> out;
    for (const HIC_ArrayInfo* a : ArrayRecords()) {
        out.emplace_back(a->arraySn);
    }
    return out;
}

// Empties both lists, releasing records a test left busy, so that the leak
// checker sees every record freed.
inline void ResetLists() {
    for (HIC_ArrayInfo* a : ArrayRecords()) {
        a->taskState = HIC_TASK_IDLE;
        a->heartBeatRunning = 0;
        a->collectRunning = 0;
    }
    HIC_FreeArrayList();
    HIC_FreeLunList();
    HIC_InitListHead(&HIC_LunListHead);
    HIC_InitListHead(&HIC_ArrayListHead);
}

// What "vnadmin show vlun type=all" prints; nullopt: nothing.
inline void SetListing(const std::optional<std::string>& text) {
    hic_test::MakeDirs("/run/vnadmin");
    if (text) {
        hic_test::WriteFile(kListingPath, *text);
    } else {
        (void)std::remove(kListingPath);
    }
}

// The LUN's WWN as the daemon renders it: page 0x83 bytes 8-23, lowercase hex.
inline std::string WwnOf(vnarray::Client& client, const std::string& dev) {
    const vnarray::Bytes page = client.Page(dev, "83");
    std::string out;
    char pair[3];
    for (size_t i = 8; i < 24 && i < page.size(); ++i) {
        std::snprintf(pair, sizeof(pair), "%02x", page[i]);
        out += pair;
    }
    return out;
}

// Entry names of /sys/block in the order readdir yields them.
inline std::vector<std::string> SysBlockOrder() {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
        out.push_back(entry.path().filename());
    }
    return out;
}

// The opens the array saw, per LUN: "ro", "rw" or "fail".
inline std::map<std::string, std::vector<std::string>> OpensByLun(vnarray::Client& client) {
    std::map<std::string, std::vector<std::string>> out;
    for (const vnarray::OpenRecord& r : client.Opens()) {
        if (r.close) {
            continue;
        }
        std::string mode = r.flags == O_RDONLY ? "ro" : r.flags == O_RDWR ? "rw" : "other";
        out[r.lun].push_back(r.err != 0 ? "fail" : mode);
    }
    return out;
}

// One summary per command: "lun op page alloc flags", e.g. "sdb 12 c8 512 ro".
inline std::vector<std::string> CommandSummaries(vnarray::Client& client) {
    std::vector<std::string> out;
    for (const vnarray::CommandRecord& r : client.Commands()) {
        char buf[96];
        const unsigned page = r.cdb.size() > 2 ? r.cdb[2] : 0;
        const unsigned alloc =
            r.cdb.size() > 4 ? (static_cast<unsigned>(r.cdb[3]) << 8) | r.cdb[4] : 0;
        std::snprintf(buf, sizeof(buf), "%s %02x %02x %u %s", r.lun.c_str(),
                      r.cdb.empty() ? 0U : r.cdb[0], page, alloc,
                      r.open_flags == O_RDONLY ? "ro" : "rw");
        out.emplace_back(buf);
    }
    return out;
}

// The identity INQUIRY commands of HIC_GetDevInfo: name, WWN, array name
// and serial number.
inline std::vector<std::string> IdentityCommands(const std::string& dev) {
    return {dev + " 12 c8 512 ro", dev + " 12 83 24 ro", dev + " 12 c8 512 ro",
            dev + " 12 80 28 ro"};
}

// One virtual array per suite: starting one per test would cost more than
// the tests themselves.
class RigSuite : public hic_test::SandboxTest {
  protected:
    static void StartRig(const char* config) {
        rig_ = std::make_unique<vnarray::Rig>(config);
        rig_->Start();
    }
    static void StopRig() {
        if (rig_) {
            EXPECT_EQ(rig_->Stop(), 0);
            rig_.reset();
        }
    }
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        ASSERT_TRUE(rig_) << "the virtual array did not start";
        ResetLists();
        client().ClearFaults();
        client().Reset();
        SetListing(std::nullopt);
        (void)std::remove(kCallsPath);
    }
    void TearDown() override {
        ResetLists();
        hic_test::SandboxTest::TearDown();
    }
    static vnarray::Client& client() { return rig_->client(); }

    // NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
    static inline std::unique_ptr<vnarray::Rig> rig_;
};

}  // namespace inv_test

#endif  // HIC_TESTS_INVENTORY_INVENTORY_TEST_UTIL_H
