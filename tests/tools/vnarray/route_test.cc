// The FUSE route end to end, inside the host sandbox: a vnarray process
// installs /dev/sdX and this test process talks SG_IO to it as the daemon
// will, through open(2) and ioctl(2).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "base/handles.h"
#include "client.h"
#include "tools/vnarray/bytes.h"

namespace vnarray {
namespace {

constexpr const char* kConfig = R"({
  "arrays": [{"sn": "ARRAY0001", "name": "array-one", "major": 2, "minor": 7}],
  "luns": [{"dev": "sdb", "array": "ARRAY0001", "name": "lun-b"},
           {"dev": "sdc", "array": "ARRAY0001", "name": "lun-c", "long_name": "the long name of lun c"},
           {"dev": "sdd", "vendor": "ATA", "pages": {"c0": null, "c8": null}}]
})";

using test::Archive;
using test::HeartbeatPayload;
using test::Hex;
using test::InquiryCdb;
using test::Slice;
using test::VendorCdb;

struct SgResult {
    int rc = 0;
    int err = 0;
    sg_io_hdr_t hdr{};
    Bytes data;
    Bytes sense;
};

// One SG_IO the way the daemon submits it. data is the buffer: sent for
// data-out, and filled (over a 0xEE pattern) for data-in; with iov it is
// only the length of the scatter-gather list's buffers.
SgResult SendSg(int fd, Bytes cdb, int direction, Bytes data, std::vector<sg_iovec_t> iov = {}) {
    SgResult r;
    r.data = std::move(data);
    r.sense.assign(96, 0);
    r.hdr.interface_id = 'S';
    r.hdr.dxfer_direction = direction;
    r.hdr.cmd_len = static_cast<unsigned char>(cdb.size());
    r.hdr.mx_sb_len = 96;
    r.hdr.dxfer_len = static_cast<unsigned>(r.data.size());
    r.hdr.iovec_count = static_cast<unsigned short>(iov.size());
    r.hdr.dxferp = iov.empty() ? static_cast<void*>(r.data.data()) : iov.data();
    r.hdr.cmdp = cdb.data();
    r.hdr.sbp = r.sense.data();
    r.hdr.timeout = 30;
    r.rc = ::ioctl(fd, SG_IO, &r.hdr);
    r.err = r.rc < 0 ? errno : 0;
    return r;
}

SgResult Inquiry(int fd, bool evpd, std::uint8_t page, std::uint16_t alloc) {
    return SendSg(fd, InquiryCdb(evpd, page, alloc), SG_DXFER_FROM_DEV, Bytes(alloc, 0xEE));
}

hic::UniqueFd Open(const char* path, int flags) {
    hic::UniqueFd fd(::open(path, flags));
    EXPECT_TRUE(fd.Valid()) << path << ": " << std::strerror(errno);
    return fd;
}

bool Exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool IsDir(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class RouteTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        rig_ = std::make_unique<Rig>(kConfig);
        rig_->Start();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(rig_->Stop(), 0);
        rig_.reset();
    }
    void SetUp() override {
        client().ClearFaults();
        client().Reset();
    }
    static Client& client() { return rig_->client(); }

    static std::unique_ptr<Rig> rig_;
};

std::unique_ptr<Rig> RouteTest::rig_;

TEST_F(RouteTest, LunsAreInstalledAndOpenReadOnlyAndReadWrite) {
    for (const char* dev : {"sdb", "sdc", "sdd"}) {
        EXPECT_TRUE(Exists(std::string("/dev/") + dev)) << dev;
        EXPECT_TRUE(IsDir(std::string("/sys/block/") + dev)) << dev;
    }
    EXPECT_FALSE(Exists("/dev/sde"));
    {
        hic::UniqueFd ro = Open("/dev/sdb", O_RDONLY);
        hic::UniqueFd rw = Open("/dev/sdb", O_RDWR);
        EXPECT_EQ(Inquiry(ro.Get(), false, 0, 36).rc, 0);
        EXPECT_EQ(Inquiry(rw.Get(), false, 0, 36).rc, 0);
        // A plain write lands as on a disk and is recorded before it returns.
        EXPECT_EQ(::pwrite(rw.Get(), "cp: x\n", 6, 512), 6);
    }
    const auto writes = client().Writes("sdb");
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(std::tie(writes[0].offset, writes[0].length, writes[0].pid),
              std::make_tuple(std::uint64_t{512}, std::size_t{6}, ::getpid()));
    EXPECT_EQ(writes[0].head, Bytes({'c', 'p', ':', ' ', 'x', '\n'}));
    EXPECT_TRUE(client().Writes("sdc").empty());
    // FUSE sends the release after close(2) has returned.
    std::vector<OpenRecord> opens;
    for (int i = 0; i < 400 && (opens = client().Opens("sdb")).size() < 4; ++i) {
        ::usleep(5000);
    }
    ASSERT_EQ(opens.size(), 4U);
    EXPECT_EQ(std::tie(opens[0].close, opens[0].flags, opens[0].pid),
              std::make_tuple(false, O_RDONLY, ::getpid()));
    EXPECT_EQ(std::tie(opens[1].close, opens[1].flags), std::make_tuple(false, O_RDWR));
    EXPECT_EQ(std::tie(opens[2].close, opens[3].close), std::make_tuple(true, true));
    const auto commands = client().Commands();
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(std::tie(commands[0].open_flags, commands[1].open_flags),
              std::make_tuple(O_RDONLY, O_RDWR));
}

TEST_F(RouteTest, InquiryDeliversEachPageAsTheModelLaysItOut) {
    // LUN, page ("std" or the VPD page in hex), its length, allocation length
    const std::tuple<const char*, std::string, std::size_t, std::uint16_t> cases[] = {
        {"sdb", "std", 96, 36}, {"sdb", "std", 96, 255}, {"sdb", "80", 24, 28},
        {"sdb", "83", 24, 24},  {"sdb", "c0", 716, 716}, {"sdc", "c8", 512, 512},
        {"sdd", "std", 96, 36},
    };
    hic::UniqueFd fds[] = {Open("/dev/sdb", O_RDONLY), Open("/dev/sdc", O_RDONLY),
                           Open("/dev/sdd", O_RDONLY)};
    for (const auto& [dev, key, page_len, alloc] : cases) {
        SCOPED_TRACE(std::string(dev) + " page " + key + " alloc " + std::to_string(alloc));
        const bool evpd = key != "std";
        const auto page = static_cast<std::uint8_t>(evpd ? std::stoi(key, nullptr, 16) : 0);
        const SgResult r = Inquiry(fds[dev[2] - 'b'].Get(), evpd, page, alloc);
        ASSERT_EQ(r.rc, 0) << std::strerror(r.err);
        const std::size_t moved = std::min<std::size_t>(alloc, page_len);
        EXPECT_EQ(std::make_tuple(r.hdr.status, r.hdr.host_status, r.hdr.driver_status,
                                  r.hdr.sb_len_wr, r.hdr.info & SG_INFO_OK_MASK, r.hdr.resid),
                  std::make_tuple(0, 0, 0, 0, SG_INFO_OK, static_cast<int>(alloc - moved)));
        Bytes want = client().Page(dev, key);
        ASSERT_EQ(want.size(), page_len);
        want.resize(moved);
        want.resize(alloc, 0xEE);  // nothing is written past what was moved
        EXPECT_EQ(r.data, want);
    }
    // What the array saw of the request.
    const auto commands = client().Commands({{"lun", "sdb"}, {"kind", "page80"}});
    ASSERT_EQ(commands.size(), 1U);
    const CommandRecord& rec = commands[0];
    EXPECT_EQ(rec.cdb, Hex("12 01 80 00 1c 00"));
    EXPECT_EQ(std::make_tuple(rec.interface_id, rec.dxfer_direction, rec.cmd_len, rec.mx_sb_len,
                              rec.dxfer_len, rec.timeout, rec.iovec_count, rec.flags,
                              rec.transferred, rec.resid),
              std::make_tuple('S', SG_DXFER_FROM_DEV, 6, 96, 28U, 30U, 0, 0U, 24U, 4U));
}

TEST_F(RouteTest, UnsupportedPageComesBackAsCheckConditionWithSense) {
    hic::UniqueFd fd = Open("/dev/sdd", O_RDONLY);
    const SgResult r = Inquiry(fd.Get(), true, 0xC0, 716);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(std::make_tuple(r.hdr.status, r.hdr.masked_status, r.hdr.driver_status,
                              r.hdr.sb_len_wr, r.hdr.resid, r.hdr.info & SG_INFO_OK_MASK),
              std::make_tuple(0x02, 0x01, 0x08, 18, 716, SG_INFO_CHECK));
    EXPECT_EQ(Slice(r.sense, 0, 19),
              Hex("70 00 05 00 00 00 00 0a 00 00 00 00 24 00 00 00 00 00 00"));
}

TEST_F(RouteTest, VendorCommandsMoveTheirDataBothWays) {
    client().RaiseSwitch("ARRAY0001", "0a0b0c0d");
    hic::UniqueFd ro = Open("/dev/sdc", O_RDONLY);
    SgResult sw = SendSg(ro.Get(), VendorCdb(0xC7, 0, 4096), SG_DXFER_FROM_DEV, Bytes(4096, 0xEE));
    ASSERT_EQ(sw.rc, 0);
    Bytes want = Hex("00 00 00 00 01 0a 0b 0c 0d");
    want.resize(4096, 0);
    EXPECT_EQ(sw.data, want);
    EXPECT_EQ(sw.hdr.resid, 0);

    hic::UniqueFd rw = Open("/dev/sdb", O_RDWR);
    const Bytes payload = HeartbeatPayload("0a 0b 0c 0d");
    ASSERT_EQ(SendSg(rw.Get(), VendorCdb(0xC9, 0, 28), SG_DXFER_TO_DEV, payload).rc, 0);
    const auto hbs = client().Heartbeats("ARRAY0001");
    ASSERT_EQ(hbs.size(), 1U);
    EXPECT_EQ(std::tie(hbs[0].lun, hbs[0].cdb, hbs[0].payload, hbs[0].issues),
              std::make_tuple("sdb", Hex("c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00"),
                              payload, std::vector<std::string>()));

    // A 10000-byte archive in three chunks, the last through another LUN.
    const Bytes archive = Archive(10000);
    hic::UniqueFd rw2 = Open("/dev/sdc", O_RDWR);
    for (std::size_t offset = 0; offset < archive.size(); offset += 4064) {
        const std::size_t n = std::min<std::size_t>(4064, archive.size() - offset);
        Bytes buf = Hex("00 81 00 00 27 10 10 00 0a 0b 0c 0d c0 a8 01 09");
        buf.resize(32, 0);
        const Bytes data = Slice(archive, offset, n);
        buf.insert(buf.end(), data.begin(), data.end());
        const int fd = offset < 8128 ? rw.Get() : rw2.Get();
        const SgResult r =
            SendSg(fd, VendorCdb(0xCA, offset, static_cast<std::uint32_t>(buf.size())),
                   SG_DXFER_TO_DEV, buf);
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(r.hdr.resid, 0);
    }
    const auto uploads = client().Uploads("ARRAY0001");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(std::make_tuple(uploads[0].complete, uploads[0].issues, uploads[0].chunks.size(),
                              uploads[0].luns),
              std::make_tuple(true, std::vector<std::string>(), 3U,
                              std::vector<std::string>{"sdb", "sdc"}));
    EXPECT_EQ(client().UploadData("ARRAY0001"), archive);
    client().SaveUpload("ARRAY0001", 0, "/tmp/vnarray-upload.bin");
    std::ifstream saved("/tmp/vnarray-upload.bin", std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(saved), {}), archive);
    ::unlink("/tmp/vnarray-upload.bin");
    const auto writes = client().Commands({{"kind", "ca"}});
    ASSERT_EQ(writes.size(), 3U);
    EXPECT_EQ(writes[1].cdb, Hex("ca 00 00 00 00 00 00 00 0f e0 00 00 10 00 81 00"));
    EXPECT_EQ(writes[2].data_out.size(), 32U + 1872U);
}

TEST_F(RouteTest, ScatterGatherListsAreFollowed) {
    hic::UniqueFd fd = Open("/dev/sdb", O_RDONLY);
    Bytes a(10, 0xEE);
    Bytes b(26, 0xEE);
    const SgResult r = SendSg(fd.Get(), InquiryCdb(false, 0, 36), SG_DXFER_FROM_DEV, Bytes(36),
                              {{a.data(), a.size()}, {b.data(), b.size()}});
    ASSERT_EQ(r.rc, 0) << std::strerror(r.err);
    a.insert(a.end(), b.begin(), b.end());
    EXPECT_EQ(a, Slice(client().Page("sdb", "std"), 0, 36));
}

TEST_F(RouteTest, EveryFaultKindReachesTheCaller) {
    // fault; the ioctl's errno; status, host, driver, sense length and
    // resid; the bytes written
    const std::tuple<Json, int, std::tuple<int, int, int, int, int>, std::size_t> cases[] = {
        {{{"errno", "EIO"}}, EIO, {}, 0},
        {{{"errno", 6}}, ENXIO, {}, 0},
        {{{"status", 2}}, 0, {2, 0, 8, 18, 36}, 0},
        {{{"host_status", 7}}, 0, {0, 7, 0, 0, 36}, 0},
        {{{"driver_status", 8}}, 0, {0, 0, 8, 0, 36}, 0},
        {{{"short", 10}}, 0, {0, 0, 0, 0, 26}, 10},
        {{{"delay_ms", 20}}, 0, {0, 0, 0, 0, 0}, 36},
    };
    hic::UniqueFd fd = Open("/dev/sdb", O_RDONLY);
    const Bytes page = client().Page("sdb", "std");
    for (const auto& [given, err, hdr, written] : cases) {
        SCOPED_TRACE(given.dump());
        client().ClearFaults();
        Json fault = given;
        fault["lun"] = "sdb";
        fault["kind"] = "std";
        client().InjectFault(fault);
        const SgResult r = Inquiry(fd.Get(), false, 0, 36);
        EXPECT_EQ(std::tie(r.rc, r.err), std::make_tuple(err == 0 ? 0 : -1, err));
        // The array applied the fault to this command.
        EXPECT_TRUE(client().Commands({{"lun", "sdb"}}).back().fault_id.has_value());
        if (err != 0) {
            continue;
        }
        EXPECT_EQ(std::make_tuple(r.hdr.status, r.hdr.host_status, r.hdr.driver_status,
                                  r.hdr.sb_len_wr, r.hdr.resid),
                  hdr);
        Bytes want = Slice(page, 0, written);
        want.resize(36, 0xEE);
        EXPECT_EQ(r.data, want);
    }
    // Other kinds and other LUNs are untouched by the last fault's kind.
    client().ClearFaults();
    client().InjectFault({{"lun", "sdb"}, {"kind", "c7"}, {"errno", "EBUSY"}, {"count", 1}});
    hic::UniqueFd sdc = Open("/dev/sdc", O_RDONLY);
    EXPECT_EQ(SendSg(sdc.Get(), VendorCdb(0xC7, 0, 4096), SG_DXFER_FROM_DEV, Bytes(4096, 0)).rc, 0);
    EXPECT_EQ(SendSg(fd.Get(), VendorCdb(0xC7, 0, 4096), SG_DXFER_FROM_DEV, Bytes(4096, 0)).err,
              EBUSY);
    EXPECT_EQ(SendSg(fd.Get(), VendorCdb(0xC7, 0, 4096), SG_DXFER_FROM_DEV, Bytes(4096, 0)).rc, 0);
}

TEST_F(RouteTest, AnOpenFaultFailsTheOpenUntilCleared) {
    const std::uint64_t id = client().InjectFault(
        {{"lun", "sdc"}, {"kind", "open"}, {"errno", "ENXIO"}, {"open_mode", "rw"}});
    EXPECT_EQ(::open("/dev/sdc", O_RDWR), -1);
    EXPECT_EQ(errno, ENXIO);
    hic::UniqueFd ro = Open("/dev/sdc", O_RDONLY);
    client().ClearFault(id);
    hic::UniqueFd rw = Open("/dev/sdc", O_RDWR);
}

TEST_F(RouteTest, LunsComeAndGoAtRunTime) {
    client().AddLun({{"dev", "sde"}, {"array", "ARRAY0001"}, {"name", "late"}});
    EXPECT_TRUE(Exists("/dev/sde"));
    EXPECT_TRUE(IsDir("/sys/block/sde"));
    hic::UniqueFd fd = Open("/dev/sde", O_RDONLY);
    SgResult r = Inquiry(fd.Get(), true, 0xC8, 512);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(Slice(r.data, 29, 5), Hex("6c 61 74 65 00"));  // "late"

    client().RemoveLun("sde");
    EXPECT_FALSE(Exists("/dev/sde"));
    EXPECT_FALSE(Exists("/sys/block/sde"));
    // A descriptor that outlived its LUN sees the disk gone.
    r = Inquiry(fd.Get(), false, 0, 36);
    EXPECT_EQ(std::tie(r.rc, r.err), std::make_tuple(-1, ENODEV));
    EXPECT_THROW(client().RemoveLun("sde"), std::runtime_error);
}

TEST_F(RouteTest, CommandLineClientTellsSuccessByItsExitStatus) {
    const std::string ctl =
        std::string(VNARRAYCTL_BINARY) + " --socket " + rig_->socket_path() + " ";
    auto run = [](const std::string& command) {
        const int status = std::system((command + " >/dev/null 2>&1").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(run(ctl + "raise-switch array=ARRAY0001 version=00000002"), 0);
    EXPECT_EQ(run(ctl + "inject lun=sdb kind=c9 status=2 count:=1"), 0);
    EXPECT_EQ(run(ctl + "--json '{\"cmd\": \"ping\"}'"), 0);
    EXPECT_EQ(run(ctl + "wait-ready timeout=2"), 0);
    EXPECT_EQ(run(ctl + "no-such-command"), 1);
    EXPECT_EQ(run(ctl + "raise-switch array=NOSUCH version=00000002"), 1);
    EXPECT_EQ(run(std::string(VNARRAYCTL_BINARY) + " --socket /tmp/no-such.sock ping"), 2);
    EXPECT_EQ(run(std::string(VNARRAYCTL_BINARY) + " ping"), 2);

    const Json state = client().Call({{"cmd", "state"}});
    EXPECT_EQ(state["arrays"][0]["switch"], 1);
    EXPECT_EQ(state["arrays"][0]["collect_version"], "00000002");
    ASSERT_EQ(state["faults"].size(), 1U);
    const Json& fault = state["faults"][0];
    EXPECT_EQ(std::tie(fault["kind"], fault["status"], fault["count"]),
              std::make_tuple(Json("c9"), Json(2), Json(1)));
}

// Its own vnarray, installing into / and into another root: Stop takes the
// LUNs away, leaves the root as it found it and ends cleanly.
TEST(RigTest, StopTakesTheLunsAwayAndEndsCleanly) {
    char tmpl[] = "/tmp/vnarray-root.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    for (const std::string& root : {std::string(), std::string(tmpl)}) {
        SCOPED_TRACE("root '" + root + "'");
        RigOptions options;
        options.install_root = root.empty() ? "/" : root;
        Rig rig(R"({"arrays": [{"sn": "A1"}], "luns": [{"dev": "sdf", "array": "A1"}]})", options);
        rig.Start();
        EXPECT_TRUE(IsDir(root + "/sys/block/sdf"));
        EXPECT_EQ(Exists("/dev/sdf"), root.empty());
        hic::UniqueFd fd = Open((root + "/dev/sdf").c_str(), O_RDWR);
        EXPECT_EQ(Inquiry(fd.Get(), false, 0, 36).rc, 0);
        fd.Reset();
        EXPECT_EQ(rig.Stop(), 0);
        EXPECT_FALSE(Exists(root + "/dev/sdf"));
        EXPECT_FALSE(Exists(root + "/sys/block/sdf"));
        EXPECT_FALSE(Exists(rig.mount_dir()));
    }
    for (const char* dir : {"/sys/block", "/sys", "/dev"}) {
        ::rmdir((tmpl + std::string(dir)).c_str());
    }
    EXPECT_EQ(::rmdir(tmpl), 0);
}

TEST(RigTest, SigtermEndsItCleanlyToo) {
    Rig rig(R"({"luns": [{"dev": "sdg"}]})");
    rig.Start();
    ASSERT_EQ(::kill(rig.pid(), SIGTERM), 0);
    // The LUNs go before the process ends; Stop then collects its status.
    for (int i = 0; i < 1000 && Exists("/dev/sdg"); ++i) {
        ::usleep(5000);
    }
    EXPECT_FALSE(Exists("/dev/sdg"));
    EXPECT_FALSE(Exists("/sys/block/sdg"));
    EXPECT_EQ(rig.Stop(), 0);
}

TEST(RigTest, ABadConfigurationFailsTheStart) {
    Rig rig(R"({"luns": [{"dev": "sdb", "array": "missing"}]})");
    EXPECT_THROW(rig.Start(), std::runtime_error);
    EXPECT_EQ(rig.pid(), -1);
}

}  // namespace
}  // namespace vnarray
