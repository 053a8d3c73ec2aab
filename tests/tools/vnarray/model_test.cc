// The virtual array's model without FUSE: page layouts, INQUIRY allocation
// handling, the vendor commands, upload reassembly, faults and records.
#include "model.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "codec.h"

namespace vnarray {
namespace {

Bytes Hex(const std::string& text) {
    return FromHex(text).value();
}

Bytes Text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes Slice(const Bytes& b, std::size_t at, std::size_t n) {
    return Bytes(b.begin() + static_cast<std::ptrdiff_t>(at),
                 b.begin() + static_cast<std::ptrdiff_t>(at + n));
}

Bytes Padded(const std::string& s, std::size_t width, std::uint8_t pad) {
    Bytes b = Text(s);
    b.resize(width, pad);
    return b;
}

Bytes VendorCdb(std::uint8_t op, std::uint64_t address, std::uint32_t length) {
    Bytes c(16, 0);
    c[0] = op;
    for (int i = 0; i < 8; ++i) {
        c[2 + i] = static_cast<std::uint8_t>(address >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; ++i) {
        c[10 + i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
    }
    c[14] = 0x81;
    return c;
}

// The 32-byte upload header followed by data.
Bytes Chunk(std::uint32_t size, const Bytes& data, const Version& versions = {1, 2, 3, 4},
            std::uint8_t ip_type = 0) {
    std::array<std::uint8_t, 32> h{};
    h[1] = 0x81;
    h[2] = static_cast<std::uint8_t>(size >> 24);
    h[3] = static_cast<std::uint8_t>(size >> 16);
    h[4] = static_cast<std::uint8_t>(size >> 8);
    h[5] = static_cast<std::uint8_t>(size);
    h[6] = 0x10;
    std::copy(versions.begin(), versions.end(), h.begin() + 8);
    h[12] = 192;
    h[13] = 168;
    h[14] = 1;
    h[15] = 9;
    h[28] = ip_type;
    Bytes b(h.begin(), h.end());
    b.resize(h.size() + data.size());
    std::copy(data.begin(), data.end(), b.begin() + 32);
    return b;
}

Bytes Archive(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        b[i] = static_cast<std::uint8_t>((i * 7 + i / 251) & 0xFF);
    }
    return b;
}

class ModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ArraySpec a;
        a.sn = "ARRAY0001";
        a.name = "array-one";
        a.major = 2;
        a.minor = 7;
        ASSERT_TRUE(model_.AddArray(a, &error)) << error;
        LunSpec b;
        b.dev = "sdb";
        b.array = "ARRAY0001";
        b.name = "lun-b";
        b.wwn = Wwn{0x6E, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0x0F};
        ASSERT_TRUE(model_.AddLun(b, &error)) << error;
        LunSpec c;
        c.dev = "sdc";
        c.array = "ARRAY0001";
        ASSERT_TRUE(model_.AddLun(c, &error)) << error;
        LunSpec d;
        d.dev = "sdd";
        d.vendor = "ATA";
        d.pages[0xC0] = std::nullopt;
        ASSERT_TRUE(model_.AddLun(d, &error)) << error;
    }

    std::uint64_t Id(const std::string& dev) { return model_.FindLun(dev)->id; }

    SgResponse Inquiry(const std::string& dev, bool evpd, std::uint8_t page, std::uint16_t alloc,
                       std::uint32_t dxfer_len, std::uint8_t mx_sb_len = 96) {
        SgRequest r;
        r.lun_id = Id(dev);
        r.dxfer_direction = kDxferFromDev;
        r.cmd_len = 6;
        r.mx_sb_len = mx_sb_len;
        r.dxfer_len = dxfer_len;
        r.timeout = 30;
        r.cdb = {kOpInquiry,
                 static_cast<std::uint8_t>(evpd ? 1 : 0),
                 page,
                 static_cast<std::uint8_t>(alloc >> 8),
                 static_cast<std::uint8_t>(alloc & 0xFF),
                 0};
        return model_.Execute(r);
    }

    SgResponse Vendor(const std::string& dev, const Bytes& cdb, int direction,
                      std::uint32_t dxfer_len, const Bytes& out = {}) {
        SgRequest r;
        r.lun_id = Id(dev);
        r.open_flags = O_RDWR;
        r.dxfer_direction = direction;
        r.cmd_len = static_cast<std::uint8_t>(cdb.size());
        r.mx_sb_len = 96;
        r.dxfer_len = dxfer_len;
        r.timeout = 30;
        r.cdb = cdb;
        r.data_out = out;
        return model_.Execute(r);
    }

    SgResponse Write(const std::string& dev, std::uint64_t offset, const Bytes& transfer) {
        return Vendor(
            dev, VendorCdb(kOpWriteBuffer, offset, static_cast<std::uint32_t>(transfer.size())),
            kDxferToDev, static_cast<std::uint32_t>(transfer.size()), transfer);
    }

    // Sends archive bytes [offset, offset + n) of a whole archive.
    void WriteChunk(const std::string& dev, const Bytes& archive, std::size_t offset,
                    std::size_t n) {
        const SgResponse r =
            Write(dev, offset,
                  Chunk(static_cast<std::uint32_t>(archive.size()), Slice(archive, offset, n)));
        ASSERT_EQ(r.err, 0);
        ASSERT_EQ(r.status, 0);
    }

    Model model_;
};

TEST_F(ModelTest, PagesCarryTheIdentityAtTheOffsetsTheHostReads) {
    struct Case {
        int page;
        std::size_t size;
        std::size_t at;
        Bytes want;
    };
    const Case cases[] = {
        {kStandardPage, 96, 0, Hex("00 00 06 02 5b")},
        {kStandardPage, 96, 8, Text("TRELOX  VDISK           0001")},
        {0x80, 24, 0, Hex("00 80 00 14")},
        {0x80, 24, 4, Padded("ARRAY0001", 20, 0)},
        {0x83, 24, 0, Hex("00 83 00 14 01 03 00 10")},
        {0x83, 24, 8, Hex("6e 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0f")},
        {0xC0, 716, 0, Hex("00 c0 02 c8")},
        {0xC0, 716, 183, Hex("00 02 00 07 00")},
        {0xC8, 512, 0, Hex("00 c8 01 fc")},
        {0xC8, 512, 28, Hex("00 6c 75 6e 2d 62 00")},                  // "lun-b" from byte 29
        {0xC8, 512, 105, Hex("00 09 61 72 72 61 79 2d 6f 6e 65 00")},  // length 9, "array-one"
        {0xC8, 512, 206, Hex("00 00 00")},                             // selector 0: no long name
        {0x00, 9, 0, Hex("00 00 00 05 00 80 83 c0 c8")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("page " + std::to_string(c.page) + " at " + std::to_string(c.at));
        auto page = model_.Page("sdb", c.page);
        ASSERT_TRUE(page);
        EXPECT_EQ(page->size(), c.size);
        EXPECT_EQ(Slice(*page, c.at, c.want.size()), c.want);
    }
}

TEST_F(ModelTest, OverridesAndPatchesReplaceTheBuiltBytes) {
    std::string error;
    LunSpec l;
    l.dev = "sde";
    l.array = "ARRAY0001";
    l.long_name = "a-long-name";
    l.serial = Text("AB;CD\n");
    l.array_name = Hex("41 42 00 43 44");
    l.pages[0x83] = Hex("00 83 00 00");
    l.pages[0xB0] = Hex("00 b0 00 01 ff");
    l.pages[0x80 + 1] = std::nullopt;
    l.patches.push_back(PagePatch{0xC0, 184, Hex("01 00 09")});
    l.patches.push_back(PagePatch{0x83, 6, Hex("aa bb")});
    ASSERT_TRUE(model_.AddLun(l, &error)) << error;

    EXPECT_EQ(Slice(*model_.Page("sde", 0x80), 4, 20), Padded("AB;CD\n", 20, 0));
    const Bytes c8 = *model_.Page("sde", 0xC8);
    EXPECT_EQ(Slice(c8, 106, 6), Hex("05 41 42 00 43 44"));
    EXPECT_EQ(Slice(c8, 206, 2), Hex("00 01"));  // a long name selects itself
    EXPECT_EQ(Slice(c8, 208, 12), Padded("a-long-name", 12, 0));
    EXPECT_EQ(*model_.Page("sde", 0x83),
              Hex("00 83 00 00 00 00 aa bb"));  // the patch grew the page
    EXPECT_EQ(*model_.Page("sde", 0xB0), Hex("00 b0 00 01 ff"));
    EXPECT_EQ(Slice(*model_.Page("sde", 0xC0), 184, 3), Hex("01 00 09"));
    EXPECT_FALSE(model_.Page("sde", 0x81));
    // A LUN of no array answers its pages without array values; c0 it lacks.
    EXPECT_EQ(Slice(*model_.Page("sdd", 0x80), 4, 20), Bytes(20, 0));
    EXPECT_EQ(Slice(*model_.Page("sdd", kStandardPage), 8, 8), Text("ATA     "));
    EXPECT_FALSE(model_.Page("sdd", 0xC0));
    EXPECT_EQ(*model_.Page("sdd", 0x00), Hex("00 00 00 04 00 80 83 c8"));
}

TEST_F(ModelTest, InquiryMovesTheSmallestOfAllocationPageAndBuffer) {
    struct Case {
        bool evpd;
        std::uint8_t page;
        std::uint16_t alloc;
        std::uint32_t dxfer_len;
        std::uint32_t moved;
    };
    const Case cases[] = {
        {false, 0, 36, 36, 36},      {false, 0, 255, 255, 96},
        {false, 0, 36, 20, 20},      {false, 0, 0, 36, 0},
        {true, 0x80, 28, 28, 24},    {true, 0x83, 24, 24, 24},
        {true, 0xC0, 716, 716, 716}, {true, 0xC8, 512, 512, 512},
        {true, 0xC8, 100, 512, 100}, {true, 0xC8, 0x1234, 8192, 512},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.page) + " alloc " + std::to_string(c.alloc) + " dxfer " +
                     std::to_string(c.dxfer_len));
        const SgResponse r = Inquiry("sdb", c.evpd, c.page, c.alloc, c.dxfer_len);
        EXPECT_EQ(r.err, 0);
        EXPECT_EQ(r.status, 0);
        const Bytes page = *model_.Page("sdb", c.evpd ? c.page : kStandardPage);
        EXPECT_EQ(r.data_in, Slice(page, 0, c.moved));
        EXPECT_EQ(r.resid, c.dxfer_len - c.moved);
    }
}

TEST_F(ModelTest, RefusedCommandsEndInCheckConditionWithSense) {
    struct Case {
        const char* what;
        SgResponse r;
        std::uint8_t asc;
        std::uint32_t resid;
    };
    const Case cases[] = {
        {"page code without EVPD", Inquiry("sdb", false, 0x80, 36, 36), 0x24, 36},
        {"unsupported page", Inquiry("sdb", true, 0xB0, 36, 36), 0x24, 36},
        {"page the LUN lacks", Inquiry("sdd", true, 0xC0, 716, 716), 0x24, 716},
        {"unknown opcode", Vendor("sdb", VendorCdb(0x28, 0, 512), kDxferFromDev, 512), 0x20, 512},
        {"vendor command on a LUN of no array",
         Vendor("sdd", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096), 0x20, 4096},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.r.err, 0);
        EXPECT_EQ(c.r.status, kStatusCheckCondition);
        EXPECT_EQ(c.r.driver_status, kDriverSense);
        EXPECT_EQ(c.r.sense, FixedSense(0x05, c.asc, 0));
        EXPECT_TRUE(c.r.data_in.empty());
        EXPECT_EQ(c.r.resid, c.resid);
    }
    // Sense never exceeds the caller's room.
    EXPECT_EQ(Inquiry("sdb", true, 0xB0, 36, 36, 8).sense, Slice(FixedSense(0x05, 0x24, 0), 0, 8));
}

TEST_F(ModelTest, TransportRefusalsFailTheIoctl) {
    SgRequest r;
    r.lun_id = Id("sdb");
    r.dxfer_direction = kDxferFromDev;
    r.cmd_len = 6;
    r.cdb = {kOpInquiry, 0, 0, 0, 36, 0};
    r.dxfer_len = 36;
    r.interface_id = 'Q';
    EXPECT_EQ(model_.Execute(r).err, EINVAL);
    r.interface_id = 'S';
    r.cmd_len = 5;
    r.cdb.resize(5);
    EXPECT_EQ(model_.Execute(r).err, EMSGSIZE);
    r.lun_id = 999;
    EXPECT_EQ(model_.Execute(r).err, ENODEV);
    EXPECT_EQ(model_.Commands().size(), 3U);
}

TEST_F(ModelTest, SwitchQueryAnswersSwitchAndVersion) {
    std::string error;
    ASSERT_TRUE(model_.SetSwitch("ARRAY0001", 1, Version{1, 2, 3, 4}, &error));
    SgResponse r = Vendor("sdc", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096);
    ASSERT_EQ(r.data_in.size(), 4096U);
    Bytes want(4096, 0);
    want[4] = 1;
    want[5] = 1;
    want[6] = 2;
    want[7] = 3;
    want[8] = 4;
    EXPECT_EQ(r.data_in, want);
    EXPECT_EQ(r.resid, 0U);
    // The smaller of the length field and the buffer is moved.
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 100);
    EXPECT_EQ(r.data_in, Slice(want, 0, 100));
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 9), kDxferFromDev, 4096);
    EXPECT_EQ(r.data_in, Slice(want, 0, 9));
    EXPECT_EQ(r.resid, 4096U - 9U);
    // Lowering keeps the version.
    ASSERT_TRUE(model_.SetSwitch("ARRAY0001", 0, std::nullopt, &error));
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096);
    EXPECT_EQ(Slice(r.data_in, 4, 5), Hex("00 01 02 03 04"));
    EXPECT_FALSE(model_.SetSwitch("NOSUCH", 1, std::nullopt, &error));
}

TEST_F(ModelTest, AWrongDataDirectionIsAHostError) {
    SgResponse r =
        Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferToDev, 4096, Bytes(4096, 0));
    EXPECT_EQ(r.host_status, kDidError);
    EXPECT_TRUE(r.data_in.empty());
    r = Vendor("sdb", VendorCdb(kOpHeartbeat, 0, 28), kDxferFromDev, 28);
    EXPECT_EQ(r.host_status, kDidError);
    EXPECT_TRUE(model_.Heartbeats().empty());
}

TEST_F(ModelTest, HeartbeatsAreRecordedWithTheirDeparturesFromTheLayout) {
    Bytes payload =
        Hex("00 81 00 1c 01 02 03 04 c0 a8 01 09 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    const Bytes cdb = VendorCdb(kOpHeartbeat, 0, 28);
    ASSERT_EQ(Vendor("sdc", cdb, kDxferToDev, 28, payload).status, 0);
    Bytes bad = payload;
    bad[1] = 0x80;
    bad[26] = 0x01;
    Bytes bad_cdb = VendorCdb(kOpHeartbeat, 5, 20);
    bad_cdb[14] = 0x00;
    ASSERT_EQ(Vendor("sdb", bad_cdb, kDxferToDev, 28, bad).status, 0);

    const auto hbs = model_.Heartbeats();
    ASSERT_EQ(hbs.size(), 2U);
    EXPECT_EQ(hbs[0].lun, "sdc");
    EXPECT_EQ(hbs[0].array, "ARRAY0001");
    EXPECT_EQ(hbs[0].cdb, Hex("c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00"));
    EXPECT_EQ(hbs[0].payload, payload);
    EXPECT_TRUE(hbs[0].issues.empty());
    EXPECT_EQ(hbs[1].issues, (std::vector<std::string>{
                                 "cdb byte 14 is 0x00, expected 0x81",
                                 "address field is 5, expected 0",
                                 "length field 20 differs from transfer length 28",
                                 "payload byte 1 is 0x80, expected 0x81",
                                 "payload byte 26 is 0x01, expected 0x00",
                             }));
    EXPECT_LT(hbs[0].seq, hbs[1].seq);
}

struct ReassemblyCase {
    const char* name;
    std::size_t size;
    // (lun, offset, data length) in sending order
    std::vector<std::tuple<std::string, std::size_t, std::size_t>> sends;
    std::vector<bool> complete;  // per attempt
    std::vector<std::uint64_t> received;
    std::vector<std::vector<std::string>> luns;
};

TEST_F(ModelTest, UploadsAreReassembledPerAttempt) {
    const std::vector<ReassemblyCase> cases = {
        {"in order",
         10000,
         {{"sdb", 0, 4064}, {"sdb", 4064, 4064}, {"sdb", 8128, 1872}},
         {true},
         {10000},
         {{"sdb"}}},
        {"out of order",
         10000,
         {{"sdb", 8128, 1872}, {"sdb", 0, 4064}, {"sdb", 4064, 4064}},
         {true},
         {10000},
         {{"sdb"}}},
        {"one byte", 1, {{"sdb", 0, 1}}, {true}, {1}, {{"sdb"}}},
        {"exactly one chunk", 4064, {{"sdb", 0, 4064}}, {true}, {4064}, {{"sdb"}}},
        {"restart on the next LUN",
         10000,
         {{"sdb", 0, 4064},
          {"sdb", 4064, 4064},
          {"sdc", 0, 4064},
          {"sdc", 4064, 4064},
          {"sdc", 8128, 1872}},
         {false, true},
         {8128, 10000},
         {{"sdb"}, {"sdc"}}},
        {"two LUNs in one attempt",
         8128,
         {{"sdb", 0, 4064}, {"sdc", 4064, 4064}},
         {true},
         {8128},
         {{"sdb", "sdc"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        model_.ResetRecords();
        const Bytes archive = Archive(c.size);
        for (const auto& [lun, offset, n] : c.sends) {
            WriteChunk(lun, archive, offset, n);
        }
        const auto uploads = model_.Uploads();
        ASSERT_EQ(uploads.size(), c.complete.size());
        for (std::size_t i = 0; i < uploads.size(); ++i) {
            const UploadAttempt& u = uploads[i];
            EXPECT_EQ(u.index, i);
            EXPECT_EQ(u.array, "ARRAY0001");
            EXPECT_EQ(u.size, c.size);
            EXPECT_EQ(u.complete, c.complete[i]);
            EXPECT_EQ(u.received, c.received[i]);
            EXPECT_EQ(u.luns, c.luns[i]);
            EXPECT_TRUE(u.issues.empty()) << u.issues.front();
            EXPECT_EQ(u.versions, (Version{1, 2, 3, 4}));
            EXPECT_EQ(u.host_ip[0], 192);
            if (u.complete) {
                EXPECT_EQ(u.data, archive);
            }
        }
    }
}

TEST_F(ModelTest, ChunkInconsistenciesAreFlaggedNotHidden) {
    const Bytes archive = Archive(10000);
    WriteChunk("sdb", archive, 0, 4064);
    // Another size, other versions, another address type, a bad fixed byte.
    Bytes second = Chunk(9999, Slice(archive, 4064, 4064), Version{9, 9, 9, 9}, 1);
    second[6] = 0x11;
    ASSERT_EQ(Write("sdb", 4064, second).status, 0);
    WriteChunk("sdb", archive, 4064, 4064);  // again
    WriteChunk("sdb", archive, 8128, 1000);  // short last chunk
    ASSERT_EQ(Write("sdb", 9000, Chunk(10000, Bytes(1872, 0))).status,
              0);                                            // past the end, misaligned
    ASSERT_EQ(Write("sdb", 12192, Bytes(20, 0)).status, 0);  // no header

    const auto uploads = model_.Uploads();
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(uploads[0].issues,
              (std::vector<std::string>{
                  "chunk at offset 4064: header byte 6 is 0x11, expected 0x10",
                  "chunk at offset 4064: size 9999 differs from size 10000 of the first chunk",
                  "chunk at offset 4064: versions 09090909 differ from the first chunk's 01020304",
                  "chunk at offset 4064: address type 1 differs from the first chunk's 0",
                  "chunk at offset 4064: received again",
                  "chunk at offset 8128: carries 1000 data bytes, expected 1872",
                  "chunk at offset 9000: offset is not a multiple of 4064",
                  "chunk at offset 9000: ends at 10872 beyond the archive size 10000",
                  "chunk at offset 12192: transfer of 20 bytes is shorter than the 32-byte header",
              }));
    // Every byte arrived (9000..10000 with the bad chunk): complete, with issues.
    EXPECT_TRUE(uploads[0].complete);
    EXPECT_EQ(uploads[0].received, 10000U);
    EXPECT_EQ(uploads[0].chunks.size(), 6U);
}

TEST_F(ModelTest, OldAttemptsAreDroppedBeyondTheLimit) {
    Model small(100, 2);
    std::string error;
    ASSERT_TRUE(small.AddArray(ArraySpec{"A", "A", "", 3, 0, 0, {}}, &error));
    LunSpec l;
    l.dev = "sdb";
    l.array = "A";
    ASSERT_TRUE(small.AddLun(l, &error));
    SgRequest r;
    r.lun_id = small.FindLun("sdb")->id;
    r.dxfer_direction = kDxferToDev;
    r.cmd_len = 16;
    r.data_out = Chunk(1, Bytes{0x5A});
    r.dxfer_len = static_cast<std::uint32_t>(r.data_out.size());
    r.cdb = VendorCdb(kOpWriteBuffer, 0, r.dxfer_len);
    for (int i = 0; i < 3; ++i) {
        small.Execute(r);
    }
    const auto uploads = small.Uploads();
    ASSERT_EQ(uploads.size(), 2U);
    EXPECT_EQ(uploads[0].index, 1U);
    EXPECT_EQ(uploads[1].index, 2U);
    EXPECT_FALSE(small.Upload("A", 0));
    EXPECT_TRUE(small.Upload("A", 2));
    EXPECT_EQ(small.Arrays()[0].dropped_attempts, 1U);
}

TEST(FaultKindTest, KindsCoverTheirCommands) {
    const Bytes std_inq = {kOpInquiry, 0, 0, 0, 36, 0};
    const Bytes page80 = {kOpInquiry, 1, 0x80, 0, 28, 0};
    const Bytes c7 = VendorCdb(kOpQuerySwitch, 0, 4096);
    const Bytes c9 = VendorCdb(kOpHeartbeat, 0, 28);
    const Bytes ca = VendorCdb(kOpWriteBuffer, 0, 33);
    struct Case {
        const char* kind;
        std::vector<bool> covers;  // std, page80, c7, c9, ca
    };
    const Case cases[] = {
        {"any", {true, true, true, true, true}},
        {"inquiry", {true, true, false, false, false}},
        {"std", {true, false, false, false, false}},
        {"page80", {false, true, false, false, false}},
        {"PAGE83", {false, false, false, false, false}},
        {"c7", {false, false, true, false, false}},
        {"c9", {false, false, false, true, false}},
        {"CA", {false, false, false, false, true}},
        {"op12", {true, true, false, false, false}},
        {"open", {false, false, false, false, false}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.kind);
        auto kind = FaultKind::Parse(c.kind);
        ASSERT_TRUE(kind);
        std::vector<bool> got;
        for (const Bytes* cdb : {&std_inq, &page80, &c7, &c9, &ca}) {
            got.push_back(kind->Covers(KindOfCdb(*cdb)));
        }
        EXPECT_EQ(got, c.covers);
        EXPECT_EQ(FaultKind::Parse(kind->Name()), kind);
    }
    for (const char* bad : {"", "page", "page8", "pagexy", "op", "c8", "inq"}) {
        EXPECT_FALSE(FaultKind::Parse(bad)) << bad;
    }
}

TEST_F(ModelTest, FaultsChangeTheOutcomeAsSpecified) {
    struct Case {
        const char* what;
        const char* fault;  // JSON, on sdb for standard INQUIRY unless it says otherwise
        const char* sense;  // hex
        std::size_t moved;
        int err;
        std::uint32_t delay_ms;
        std::uint16_t host;
        std::uint16_t driver;
        std::uint8_t status;
    };
    const std::string illegal_request = ToHex(FixedSense(0x05, 0x24, 0));
    const Case cases[] = {
        // what, fault, sense, moved, err, delay, host, driver, status
        {"errno", R"({"errno": "EIO"})", "", 0, EIO, 0, 0, 0, 0},
        {"check condition", R"({"status": 2})", illegal_request.c_str(), 0, 0, 0, 0, 8, 2},
        {"own sense", R"({"status": 2, "sense": "72 03 11 00"})", "72031100", 0, 0, 0, 0, 8, 2},
        {"busy without sense", R"({"status": 8})", "", 0, 0, 0, 0, 0, 8},
        {"host error", R"({"host_status": 7})", "", 0, 0, 0, 7, 0, 0},
        {"driver status alone", R"({"driver_status": 8})", "", 0, 0, 0, 0, 8, 0},
        {"short", R"({"short": 10})", "", 10, 0, 0, 0, 0, 0},
        {"delay only", R"({"delay_ms": 50})", "", 36, 0, 50, 0, 0, 0},
        {"delay beyond the timeout", R"({"delay_ms": 50, "honour_timeout": 1})", "", 0, 0, 30,
         kDidTimeOut, 0, 0},
        {"delay within the timeout", R"({"delay_ms": 20, "honour_timeout": 1})", "", 36, 0, 20, 0,
         0, 0},
        {"other LUN", R"({"lun": "sdc", "errno": "EIO"})", "", 36, 0, 0, 0, 0, 0},
        {"other kind", R"({"kind": "c7", "errno": "EIO"})", "", 36, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        model_.ClearFaults("");
        Json fault = Json::parse(c.fault);
        if (!fault.contains("lun")) {
            fault["lun"] = "sdb";
        }
        if (!fault.contains("kind")) {
            fault["kind"] = "std";
        }
        FaultSpec spec;
        std::string error;
        ASSERT_TRUE(ParseFaultSpec(fault, &spec, &error)) << error;
        const std::uint64_t id = model_.AddFault(spec);
        const SgResponse r = Inquiry("sdb", false, 0, 36, 36);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.host_status, c.host);
        EXPECT_EQ(r.driver_status, c.driver);
        EXPECT_EQ(ToHex(r.sense), c.sense);
        EXPECT_EQ(r.data_in.size(), c.moved);
        EXPECT_EQ(r.delay_ms, c.delay_ms);
        if (c.err == 0) {
            EXPECT_EQ(r.resid, 36 - c.moved);
        }
        const bool applies = c.moved != 36 || c.delay_ms != 0;
        EXPECT_EQ(r.fault_id, applies ? std::optional<std::uint64_t>(id) : std::nullopt);
    }
}

TEST_F(ModelTest, AfterAndCountPickWhichMatchingCommandsFail) {
    FaultSpec s;
    s.kind = *FaultKind::Parse("c7");
    s.err = EIO;
    s.after = 2;
    s.count = 2;
    const std::uint64_t id = model_.AddFault(s);
    std::vector<int> errs;
    for (int i = 0; i < 6; ++i) {
        // Commands of other kinds do not count.
        Inquiry("sdb", false, 0, 36, 36);
        errs.push_back(Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096).err);
    }
    EXPECT_EQ(errs, (std::vector<int>{0, 0, EIO, EIO, 0, 0}));
    const auto faults = model_.Faults();
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].seen, 6U);
    EXPECT_EQ(faults[0].hits, 2U);
    EXPECT_TRUE(model_.ClearFault(id));
    EXPECT_FALSE(model_.ClearFault(id));
}

TEST_F(ModelTest, ShortDataOutKeepsOnlyTheBytesTaken) {
    FaultSpec s;
    s.kind = *FaultKind::Parse("c9");
    s.short_len = 8;
    model_.AddFault(s);
    const Bytes payload =
        Hex("00 81 00 1c 01 02 03 04 c0 a8 01 09 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    const SgResponse r = Vendor("sdb", VendorCdb(kOpHeartbeat, 0, 28), kDxferToDev, 28, payload);
    EXPECT_EQ(r.resid, 20U);
    const auto hbs = model_.Heartbeats();
    ASSERT_EQ(hbs.size(), 1U);
    EXPECT_EQ(hbs[0].payload, Slice(payload, 0, 8));
    EXPECT_EQ(model_.Commands().back().transferred, 8U);
}

TEST_F(ModelTest, OpenFaultsMatchTheAccessMode) {
    FaultSpec s;
    s.lun = "sdc";
    s.kind = *FaultKind::Parse("open");
    s.err = ENXIO;
    s.open_mode = O_RDWR;
    s.count = 1;
    model_.AddFault(s);
    EXPECT_EQ(model_.Open(Id("sdc"), O_RDONLY, 7), 0);
    EXPECT_EQ(model_.Open(Id("sdb"), O_RDWR, 7), 0);
    // Only the access mode counts; the kernel adds flags such as its O_LARGEFILE
    // (0100000 on x86-64, where the C library defines O_LARGEFILE as 0).
    EXPECT_EQ(model_.Open(Id("sdc"), O_RDWR | 0100000, 7), ENXIO);
    EXPECT_EQ(model_.Open(Id("sdc"), O_RDWR, 7), 0);  // count used up
    EXPECT_EQ(model_.Open(999, O_RDONLY, 7), ENOENT);
    model_.Release(Id("sdc"), O_RDONLY, 7);
    const auto opens = model_.Opens();
    ASSERT_EQ(opens.size(), 6U);
    EXPECT_EQ(opens[2].lun, "sdc");
    EXPECT_EQ(opens[2].flags, O_RDWR);
    EXPECT_EQ(opens[2].err, ENXIO);
    EXPECT_TRUE(opens[5].close);
    EXPECT_EQ(opens[5].flags, O_RDONLY);
    // An open fault never touches commands.
    EXPECT_EQ(Inquiry("sdc", false, 0, 36, 36).err, 0);
}

TEST_F(ModelTest, CommandRecordsKeepTheRequestAndTheOutcome) {
    Model small(3);
    std::string error;
    LunSpec l;
    l.dev = "sdx";
    ASSERT_TRUE(small.AddLun(l, &error));
    SgRequest r;
    r.lun_id = small.FindLun("sdx")->id;
    r.open_flags = O_RDONLY;
    r.pid = 42;
    r.dxfer_direction = kDxferFromDev;
    r.cmd_len = 6;
    r.mx_sb_len = 96;
    r.dxfer_len = 36;
    r.timeout = 30;
    r.cdb = {kOpInquiry, 0, 0, 0, 36, 0};
    small.Execute(r);
    const CommandRecord first = small.Commands().at(0);
    EXPECT_EQ(first.lun, "sdx");
    EXPECT_EQ(first.pid, 42);
    EXPECT_EQ(first.open_flags, O_RDONLY);
    EXPECT_EQ(first.cdb, r.cdb);
    EXPECT_EQ(first.timeout, 30U);
    EXPECT_EQ(first.mx_sb_len, 96);
    EXPECT_EQ(first.transferred, 36U);
    EXPECT_EQ(first.resid, 0U);

    r.dxfer_direction = kDxferToDev;
    r.data_out = Archive(kRecordDataLimit + 1);
    r.dxfer_len = static_cast<std::uint32_t>(r.data_out.size());
    for (int i = 0; i < 4; ++i) {
        small.Execute(r);
    }
    const auto records = small.Commands();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(small.DroppedCommands(), 2U);
    EXPECT_TRUE(records.back().data_out.empty());
    EXPECT_EQ(records.back().data_out_len, kRecordDataLimit + 1);
    EXPECT_EQ(records.back().data_out_digest, Fnv1a64(r.data_out.data(), r.data_out.size()));
    small.ResetRecords();
    EXPECT_TRUE(small.Commands().empty());
    EXPECT_EQ(small.DroppedCommands(), 0U);
}

TEST(ModelConfigTest, BadSpecsAreRefusedWithAReason) {
    Model m;
    std::string error;
    EXPECT_FALSE(m.AddArray(ArraySpec{"", "", "x", 3, 0, 0, {}}, &error));
    EXPECT_FALSE(m.AddArray(ArraySpec{"", "123456789012345678901", "x", 3, 0, 0, {}}, &error));
    EXPECT_EQ(error, "array sn '123456789012345678901' is longer than 20 bytes");
    EXPECT_FALSE(m.AddArray(ArraySpec{"", "A1", std::string(100, 'n'), 3, 0, 0, {}}, &error));
    ASSERT_TRUE(m.AddArray(ArraySpec{"", "A1", std::string(99, 'n'), 3, 0, 0, {}}, &error));
    EXPECT_FALSE(m.AddArray(ArraySpec{"", "A1", "", 3, 0, 0, {}}, &error));
    LunSpec l;
    l.dev = "sdb";
    l.array = "A2";
    EXPECT_FALSE(m.AddLun(l, &error));
    EXPECT_EQ(error, "LUN sdb: unknown array 'A2'");
    l.array = "A1";
    ASSERT_TRUE(m.AddLun(l, &error));
    EXPECT_FALSE(m.AddLun(l, &error));
    for (const char* dev : {"", "a/b", "..", "."}) {
        l.dev = dev;
        EXPECT_FALSE(m.AddLun(l, &error)) << dev;
    }
    l.dev = "sdc";
    l.name = std::string(41, 'x');
    EXPECT_FALSE(m.AddLun(l, &error));
    EXPECT_TRUE(m.RemoveLun("sdb", &error));
    EXPECT_FALSE(m.RemoveLun("sdb", &error));
}

}  // namespace
}  // namespace vnarray
