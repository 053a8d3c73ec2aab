// Discovery of the served LUNs under /sys/block against the virtual array:
// which entries are taken, in which order, what each record holds, what the
// log says and what reaches the devices.
#include "inventory/discovery.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "inventory/inventory_test_util.h"
#include "inventory/lists.h"
#include "log/log.h"

namespace {

using inv_test::LunView;

// sr0 .. nvme0n1 are real nodes of a served vendor: only their names keep
// them out. sdn and sdo are served disks whose /sys/block entries are a
// regular file and a dangling link; sdl's entry is a link to a directory.
constexpr const char* kConfig = R"({
  "arrays": [{"sn": "ARRAYSN0001", "id": "one", "name": "array-one"},
             {"sn": "ARRAYSN0002", "id": "two", "name": "array-two"}],
  "luns": [
    {"dev": "sdb", "array": "one", "name": "lun-b"},
    {"dev": "sdc", "array": "two", "vendor": "PELKO", "name": "lun-c", "long_name": "the long name of lun c"},
    {"dev": "sdd", "array": "two", "vendor": "PELKOX", "name": "lun-d"},
    {"dev": "sde", "vendor": "ATA"}, {"dev": "sdf", "array": "one", "vendor": "trelox"},
    {"dev": "sdg", "array": "one", "vendor": "TRELO"}, {"dev": "sdj", "array": "one", "vendor": "PELK"},
    {"dev": "sdh", "array": "one", "name": "lun-h"}, {"dev": "sdi", "array": "one", "name": "lun-i"},
    {"dev": "sdk", "array": "one"},
    {"dev": "sdl", "array": "two", "vendor": "TRELOX 1", "name": "lun-l"},
    {"dev": "sdn", "array": "one"}, {"dev": "sdo", "array": "one"},
    {"dev": "sr0", "array": "one"}, {"dev": "loop0", "array": "one"},
    {"dev": "dm-0", "array": "one"}, {"dev": "nvme0n1", "array": "one"}]
})";

// "/sys/block/" + name fills 255 of the 256 bytes; one more does not fit.
std::string LongestName() {
    return "sd" + std::string(242, 'x');
}
std::string TooLongName() {
    return "sd" + std::string(243, 'x');
}

class DiscoveryTest : public inv_test::RigSuite {
  protected:
    static void SetUpTestSuite() {
        // Entries the array would not make: a link to a directory (as real
        // sysfs has), a regular file, a dangling link, a directory without
        // a node. The rig leaves entries that exist already alone.
        hic_test::MakeDirs("/run/hic-sysdev/sdl");
        (void)::unlink("/sys/block/sdl");
        (void)::unlink("/sys/block/sdo");
        ASSERT_EQ(::symlink("/run/hic-sysdev/sdl", "/sys/block/sdl"), 0);
        ASSERT_EQ(::symlink("/run/hic-sysdev/absent", "/sys/block/sdo"), 0);
        hic_test::WriteFile("/sys/block/sdn", "");
        for (const std::string& dir : {std::string("sdm"), LongestName(), TooLongName()}) {
            hic_test::MakeDirs("/sys/block/" + dir);
        }
        StartRig(kConfig);
    }
    static void TearDownTestSuite() { StopRig(); }

    LunView Served(const std::string& dev, const char* vendor, const char* name,
                   const char* arrayName, const char* sn) {
        return {"/dev/" + dev, vendor, name, inv_test::WwnOf(client(), dev), arrayName, sn};
    }
};

// What discovery must log for one /sys/block entry, at the given level.
std::string ExpectedLog(const std::string& name, int level) {
    const std::string dev = "/dev/" + name;
    std::string log;
    if (name == "sdh") {
        log =
            "ERR HIC_DoInquiry: inqury page 0xc8 failed.status:2, host_status:0, driver_status:8.\n"
            "ERR HIC_GetDevInfo: get lun name for /dev/sdh failed.\n"
            "ERR HIC_DoInquiry: ioctl(SG_IO) failed: Input/output error (errno=5).\n"
            "ERR HIC_GetDevInfo: get wwn for /dev/sdh failed.\n"
            "ERR HIC_DoInquiry: inqury page 0xc8 failed.status:2, host_status:0, driver_status:8.\n"
            "ERR HIC_GetDevInfo: get array name for /dev/sdh failed.\n"
            "ERR HIC_DoInquiry: inqury page 0x80 failed.status:0, host_status:7, driver_status:0.\n"
            "ERR HIC_GetArraySn: get array sn failed.\n"
            "ERR HIC_GetDevInfo: get array SN for /dev/sdh failed.\n";
    } else if (name == "sdi") {
        log =
            "ERR HIC_OpenDevByPath: open /dev/sdi failed.\n"
            "ERR HIC_GetDevInfo: open /dev/sdi failed.\n";
    } else if (name == "sdk") {
        return "ERR HIC_DoInquiry: inqury page 0x0 failed.status:2, host_status:0, "
               "driver_status:8.\n"
               "ERR HIC_GetVendorId: get vendor failed.\n";
    } else if (name == "sdm" || name == LongestName()) {
        return "ERR HIC_CheckIsValidDev: open " + dev + " failed.\n";
    }
    static const std::set<std::string> accepted = {"sdb", "sdc", "sdd", "sdh", "sdi", "sdl"};
    if (accepted.count(name) != 0 && level == HIC_LOG_DEBUG) {
        log += "DEBUG HIC_GetLunList: add device " + name + " from block dir.\n";
    }
    return log;
}

TEST_F(DiscoveryTest, MixedBlockDirGivesServedDisksInDirectoryOrder) {
    const std::vector<std::string> order = inv_test::SysBlockOrder();
    ASSERT_EQ(order.size(), 20U) << ::testing::PrintToString(order);
    for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
        SCOPED_TRACE(level);
        inv_test::RigSuite::SetUp();  // a fresh start for each level
        HIC_SetLogLevel(level);
        // sdh's identity reads fail three ways; sdi opens for the vendor
        // check but not for the identity; sdk cannot tell its vendor.
        client().InjectFault({{"lun", "sdh"}, {"kind", "pagec8"}, {"status", 2}});
        client().InjectFault({{"lun", "sdh"}, {"kind", "page83"}, {"errno", "EIO"}});
        client().InjectFault({{"lun", "sdh"}, {"kind", "page80"}, {"host_status", 7}});
        client().InjectFault({{"lun", "sdi"}, {"kind", "open"}, {"after", 1}, {"count", 1}});
        client().InjectFault({{"lun", "sdk"}, {"kind", "std"}, {"status", 2}});

        ASSERT_EQ(HIC_GetLunList(), 0);

        const std::map<std::string, LunView> want = {
            {"sdb", Served("sdb", "TRELOX", "lun-b", "array-one", "ARRAYSN0001")},
            {"sdc", Served("sdc", "PELKO", "the long name of lun c", "array-two", "ARRAYSN0002")},
            {"sdd", Served("sdd", "PELKOX", "lun-d", "array-two", "ARRAYSN0002")},
            {"sdh", {"/dev/sdh", "TRELOX", "--", "--", "--", "--"}},
            {"sdi", {"/dev/sdi", "TRELOX", "--", "--", "--", "--"}},
            {"sdl", Served("sdl", "TRELOX", "lun-l", "array-two", "ARRAYSN0002")},
        };
        static const std::set<std::string> vendorOnly = {"sde", "sdf", "sdg", "sdi", "sdj", "sdk"};
        std::vector<LunView> wantList;
        std::string wantLog;
        std::vector<std::string> wantCommands;
        for (const std::string& name : order) {
            if (auto it = want.find(name); it != want.end()) {
                wantList.push_back(it->second);
            }
            wantLog += ExpectedLog(name, level);
            if (want.count(name) + vendorOnly.count(name) != 0) {
                wantCommands.push_back(name + " 12 00 36 ro");  // the vendor check
            }
            if (want.count(name) != 0 && name != "sdi") {
                const auto cmds = inv_test::IdentityCommands(name);
                wantCommands.insert(wantCommands.end(), cmds.begin(), cmds.end());
            }
        }
        EXPECT_EQ(inv_test::LunViews(), wantList);
        EXPECT_EQ(hic_test::LoggedMessages(), wantLog);
        EXPECT_EQ(inv_test::CommandSummaries(client()), wantCommands);

        // Two read-only opens per accepted disk, one per disk refused by
        // vendor, none for the entries refused by name or kind.
        const std::vector<std::string> twice = {"ro", "ro"};
        const std::vector<std::string> once = {"ro"};
        const std::map<std::string, std::vector<std::string>> wantOpens = {
            {"sdb", twice}, {"sdc", twice},          {"sdd", twice}, {"sdh", twice},
            {"sdl", twice}, {"sdi", {"ro", "fail"}}, {"sde", once},  {"sdf", once},
            {"sdg", once},  {"sdj", once},           {"sdk", once},
        };
        EXPECT_EQ(inv_test::OpensByLun(client()), wantOpens);
    }
}

// Mounts a fresh tmpfs over a path for one scan.
struct Overmount {
    explicit Overmount(const char* path)
        : target(path), mounted(::mount("hic-test", path, "tmpfs", 0, "mode=755") == 0) {}
    ~Overmount() {
        if (mounted) {
            (void)::umount2(target, MNT_DETACH);
        }
    }
    Overmount(const Overmount&) = delete;
    Overmount& operator=(const Overmount&) = delete;
    const char* target;
    bool mounted;
};

TEST_F(DiscoveryTest, MissingOrUnservedBlockDir) {
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    {
        Overmount noSys("/sys");
        ASSERT_TRUE(noSys.mounted);
        EXPECT_EQ(HIC_GetLunList(), -1);
        EXPECT_EQ(hic_test::LoggedMessages(), "ERR HIC_GetLunList: open dir failed.\n");
        EXPECT_TRUE(inv_test::LunRecords().empty());
    }
    (void)std::remove(HIC_LOG_PATH);
    Overmount fresh("/sys/block");
    ASSERT_TRUE(fresh.mounted);
    EXPECT_EQ(HIC_GetLunList(), 0);
    HIC_GetDevInfo(nullptr);  // an identity read of no record touches nothing
    EXPECT_TRUE(inv_test::OpensByLun(client()).empty());

    for (const char* dir : {"sr0", "loop0", "dm-0", "nvme0n1", "sde", "sdf"}) {
        ASSERT_EQ(::mkdir((std::string("/sys/block/") + dir).c_str(), 0755), 0) << dir;
    }
    hic_test::WriteFile("/sys/block/sdb", "");
    EXPECT_EQ(HIC_GetLunList(), 0);
    EXPECT_TRUE(inv_test::LunRecords().empty());
    EXPECT_EQ(hic_test::LoggedMessages(), "");
    const std::map<std::string, std::vector<std::string>> wantOpens = {{"sde", {"ro"}},
                                                                       {"sdf", {"ro"}}};
    EXPECT_EQ(inv_test::OpensByLun(client()), wantOpens);
}

}  // namespace
