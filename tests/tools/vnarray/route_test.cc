// The FUSE route end to end, inside the host sandbox: a vnarray process
// installs /dev/sdX and this test process talks SG_IO to it as the daemon
// does, through open(2) and ioctl(2). What the array records must be what
// the caller sent, and what the caller gets what the array answered.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "base/handles.h"
#include "client.h"
#include "support/support.h"
#include "support/wire.h"

namespace vnarray {
namespace {

using hic_test::Exists;
using hic_test::Hex;

constexpr const char* kConfig = R"({
  "arrays": [{"sn": "ARRAY0001", "name": "array-one"}],
  "luns": [{"dev": "sdb", "array": "ARRAY0001"}, {"dev": "sdc", "array": "ARRAY0001"}]})";

struct SgResult {
    int rc = 0;
    int err = 0;
    sg_io_hdr_t hdr{};
    Bytes data;
};

// One SG_IO the way the daemon submits it; data is sent for data-out and
// filled (over a 0xEE pattern) for data-in.
SgResult SendSg(int fd, Bytes cdb, int direction, Bytes data) {
    SgResult r;
    r.data = std::move(data);
    Bytes sense(96, 0);
    r.hdr.interface_id = 'S';
    r.hdr.dxfer_direction = direction;
    r.hdr.cmd_len = static_cast<unsigned char>(cdb.size());
    r.hdr.mx_sb_len = 96;
    r.hdr.dxfer_len = static_cast<unsigned>(r.data.size());
    r.hdr.dxferp = r.data.data();
    r.hdr.cmdp = cdb.data();
    r.hdr.sbp = sense.data();
    r.hdr.timeout = 30;
    r.rc = ::ioctl(fd, SG_IO, &r.hdr);
    r.err = r.rc < 0 ? errno : 0;
    return r;
}

SgResult StdInquiry(int fd) {
    return SendSg(fd, Hex("12 00 00 00 24 00"), SG_DXFER_FROM_DEV, Bytes(36, 0xEE));
}

hic::UniqueFd Open(const char* path, int flags) {
    hic::UniqueFd fd(::open(path, flags));
    EXPECT_TRUE(fd.Valid()) << path << ": " << std::strerror(errno);
    return fd;
}

class RouteTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        rig_ = std::make_unique<Rig>(kConfig);
        rig_->Start();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(rig_->Stop(), 0);
        EXPECT_FALSE(Exists("/dev/sdb"));
        EXPECT_FALSE(Exists("/sys/block/sdb"));
        rig_.reset();
    }
    void SetUp() override {
        client().ClearFaults();
        client().Reset();
    }
    static Client& client() { return rig_->client(); }

    static inline std::unique_ptr<Rig> rig_;
};

TEST_F(RouteTest, OpensCommandsAndWritesAreRecordedAsMade) {
    EXPECT_TRUE(Exists("/sys/block/sdb"));
    {
        hic::UniqueFd ro = Open("/dev/sdb", O_RDONLY);
        hic::UniqueFd rw = Open("/dev/sdb", O_RDWR);
        const SgResult r = StdInquiry(ro.Get());
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(Bytes(r.data.begin() + 8, r.data.begin() + 14), Hex("54 52 45 4c 4f 58"));
        EXPECT_EQ(StdInquiry(rw.Get()).rc, 0);
        // A plain write lands as on a disk and is recorded before it returns.
        EXPECT_EQ(::pwrite(rw.Get(), "cp: x\n", 6, 512), 6);
    }
    const auto writes = client().Writes("sdb");
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(std::tie(writes[0].offset, writes[0].length, writes[0].pid),
              std::make_tuple(std::uint64_t{512}, std::size_t{6}, ::getpid()));
    EXPECT_EQ(writes[0].head, Bytes({'c', 'p', ':', ' ', 'x', '\n'}));
    EXPECT_TRUE(client().Writes("sdc").empty());
    const auto opens = hic_test::SettledOpens(client(), "sdb");
    ASSERT_EQ(opens.size(), 4U);
    EXPECT_EQ(std::tie(opens[0].close, opens[0].flags, opens[0].pid),
              std::make_tuple(false, O_RDONLY, ::getpid()));
    EXPECT_EQ(std::tie(opens[1].close, opens[1].flags), std::make_tuple(false, O_RDWR));
    const auto commands = client().Commands();
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(std::tie(commands[0].open_flags, commands[1].open_flags),
              std::make_tuple(O_RDONLY, O_RDWR));
    EXPECT_EQ(commands[0].cdb, Hex("12 00 00 00 24 00"));
    EXPECT_EQ(
        std::make_tuple(commands[0].interface_id, commands[0].dxfer_direction, commands[0].cmd_len,
                        commands[0].mx_sb_len, commands[0].dxfer_len, commands[0].timeout),
        std::make_tuple('S', SG_DXFER_FROM_DEV, 6, 96, 36U, 30U));
}

}  // namespace
}  // namespace vnarray
