// The virtual array's model without FUSE: page layouts, INQUIRY allocation
// handling, the vendor commands, upload reassembly, faults and records.
#include "model.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "codec.h"
#include "tools/vnarray/bytes.h"

namespace vnarray {
namespace {

using test::Archive;
using test::Chunk;
using test::HeartbeatPayload;
using test::Hex;
using test::InquiryCdb;
using test::Slice;
using test::VendorCdb;

// Text bytes, NUL-padded to width.
Bytes Text(const std::string& s, std::size_t width = 0) {
    Bytes b(s.begin(), s.end());
    b.resize(std::max(width, s.size()), 0);
    return b;
}

LunConf Lun(const std::string& dev, const std::string& array) {
    LunConf l;
    l.dev = dev;
    l.array = array;
    return l;
}

// One command as the front end hands it over, on a LUN of m.
SgResponse Exec(Model& m, const std::string& dev, const Bytes& cdb, int direction,
                std::uint32_t dxfer_len, const Bytes& out = {}, std::uint8_t mx_sb_len = 96) {
    SgRequest r;
    r.lun_id = m.FindLun(dev)->id;
    r.open_flags = cdb[0] == kOpInquiry ? O_RDONLY : O_RDWR;
    r.dxfer_direction = direction;
    r.cmd_len = static_cast<std::uint8_t>(cdb.size());
    r.mx_sb_len = mx_sb_len;
    r.dxfer_len = dxfer_len;
    r.timeout = 30;
    r.cdb = cdb;
    r.data_out = out;
    return m.Execute(r);
}

// Array ARRAY0001 with LUNs sdb (named, with a WWN) and sdc; sdd, of no
// array, lacks page c0.
class ModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(LoadConfig(Json::parse(R"({
          "arrays": [{"sn": "ARRAY0001", "name": "array-one", "major": 2, "minor": 7}],
          "luns": [{"dev": "sdb", "array": "ARRAY0001", "name": "lun-b",
                    "wwn": "6e000102030405060708090a0b0c0d0f"},
                   {"dev": "sdc", "array": "ARRAY0001"},
                   {"dev": "sdd", "vendor": "ATA", "pages": {"c0": null}}]})"),
                               &model_, &error_))
            << error_;
    }

    std::uint64_t Id(const std::string& dev) { return model_.FindLun(dev)->id; }

    SgResponse Inquiry(const std::string& dev, bool evpd, std::uint8_t page, std::uint16_t alloc,
                       std::uint32_t dxfer_len, std::uint8_t mx_sb_len = 96) {
        return Exec(model_, dev, InquiryCdb(evpd, page, alloc), kDxferFromDev, dxfer_len, {},
                    mx_sb_len);
    }

    SgResponse Vendor(const std::string& dev, const Bytes& cdb, int direction,
                      std::uint32_t dxfer_len, const Bytes& out = {}) {
        return Exec(model_, dev, cdb, direction, dxfer_len, out);
    }

    SgResponse Write(const std::string& dev, std::uint64_t offset, const Bytes& transfer) {
        const auto n = static_cast<std::uint32_t>(transfer.size());
        return Vendor(dev, VendorCdb(kOpWriteBuffer, offset, n), kDxferToDev, n, transfer);
    }

    // Sends archive bytes [offset, offset + n) of a whole archive.
    void WriteChunk(const std::string& dev, const Bytes& archive, std::size_t offset,
                    std::size_t n) {
        const auto size = static_cast<std::uint32_t>(archive.size());
        const SgResponse r = Write(dev, offset, Chunk(size, Slice(archive, offset, n)));
        ASSERT_EQ(r.err, 0);
        ASSERT_EQ(r.status, 0);
    }

    // A fault from its JSON request form.
    FaultConf Conf(const std::string& json) {
        FaultConf conf;
        EXPECT_TRUE(ParseFaultConf(Json::parse(json), &conf, &error_)) << error_;
        return conf;
    }

    Model model_;
    std::string error_;
};

TEST_F(ModelTest, PagesCarryTheIdentityAtTheOffsetsTheHostReads) {
    const std::tuple<int, std::size_t, std::size_t, Bytes> cases[] = {
        // page, size, at, bytes
        {kStandardPage, 96, 0, Hex("00 00 06 02 5b")},
        {kStandardPage, 96, 8, Text("TRELOX  VDISK           0001")},
        {0x80, 24, 0, Hex("00 80 00 14")},
        {0x80, 24, 4, Text("ARRAY0001", 20)},
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
    for (const auto& [code, size, at, want] : cases) {
        SCOPED_TRACE("page " + std::to_string(code) + " at " + std::to_string(at));
        auto page = model_.Page("sdb", code);
        ASSERT_TRUE(page);
        EXPECT_EQ(page->size(), size);
        EXPECT_EQ(Slice(*page, at, want.size()), want);
    }
}

TEST_F(ModelTest, OverridesAndPatchesReplaceTheBuiltBytes) {
    LunConf l = Lun("sde", "ARRAY0001");
    l.long_name = "a-long-name";
    l.serial = Text("AB;CD\n");
    l.array_name = Hex("41 42 00 43 44");
    l.pages[0x83] = Hex("00 83 00 00");
    l.pages[0xB0] = Hex("00 b0 00 01 ff");
    l.pages[0x80 + 1] = std::nullopt;
    l.patches.push_back(PagePatch{0xC0, 184, Hex("01 00 09")});
    l.patches.push_back(PagePatch{0x83, 6, Hex("aa bb")});
    ASSERT_TRUE(model_.AddLun(l, &error_)) << error_;

    EXPECT_EQ(Slice(*model_.Page("sde", 0x80), 4, 20), Text("AB;CD\n", 20));
    const Bytes c8 = *model_.Page("sde", 0xC8);
    EXPECT_EQ(Slice(c8, 106, 6), Hex("05 41 42 00 43 44"));
    EXPECT_EQ(Slice(c8, 206, 2), Hex("00 01"));  // a long name selects itself
    EXPECT_EQ(Slice(c8, 208, 12), Text("a-long-name", 12));
    // The patch grew the page.
    EXPECT_EQ(*model_.Page("sde", 0x83), Hex("00 83 00 00 00 00 aa bb"));
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
    // evpd, page, allocation length, buffer length, bytes moved
    const std::tuple<bool, std::uint8_t, std::uint16_t, std::uint32_t, std::uint32_t> cases[] = {
        {false, 0, 36, 36, 36},      {false, 0, 255, 255, 96},
        {false, 0, 36, 20, 20},      {false, 0, 0, 36, 0},
        {true, 0x80, 28, 28, 24},    {true, 0x83, 24, 24, 24},
        {true, 0xC0, 716, 716, 716}, {true, 0xC8, 512, 512, 512},
        {true, 0xC8, 100, 512, 100}, {true, 0xC8, 0x1234, 8192, 512},
    };
    for (const auto& [evpd, code, alloc, dxfer_len, moved] : cases) {
        SCOPED_TRACE(std::to_string(code) + " alloc " + std::to_string(alloc) + " dxfer " +
                     std::to_string(dxfer_len));
        const SgResponse r = Inquiry("sdb", evpd, code, alloc, dxfer_len);
        const Bytes page = *model_.Page("sdb", evpd ? code : kStandardPage);
        EXPECT_EQ(std::tie(r.err, r.status, r.data_in, r.resid),
                  std::make_tuple(0, 0, Slice(page, 0, moved), dxfer_len - moved));
    }
}

TEST_F(ModelTest, RefusedCommandsEndInCheckConditionWithSense) {
    const std::tuple<const char*, SgResponse, std::uint8_t, std::uint32_t> cases[] = {
        {"page code without EVPD", Inquiry("sdb", false, 0x80, 36, 36), 0x24, 36},
        {"unsupported page", Inquiry("sdb", true, 0xB0, 36, 36), 0x24, 36},
        {"page the LUN lacks", Inquiry("sdd", true, 0xC0, 716, 716), 0x24, 716},
        {"unknown opcode", Vendor("sdb", VendorCdb(0x28, 0, 512), kDxferFromDev, 512), 0x20, 512},
        {"vendor command on a LUN of no array",
         Vendor("sdd", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096), 0x20, 4096},
    };
    for (const auto& [what, r, asc, resid] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(std::tie(r.err, r.status, r.driver_status, r.sense, r.data_in, r.resid),
                  std::make_tuple(0, kStatusCheckCondition, kDriverSense, FixedSense(0x05, asc, 0),
                                  Bytes(), resid));
    }
    // Sense never exceeds the caller's room.
    EXPECT_EQ(Inquiry("sdb", true, 0xB0, 36, 36, 8).sense, Slice(FixedSense(0x05, 0x24, 0), 0, 8));
}

TEST_F(ModelTest, TransportRefusalsFailTheIoctl) {
    SgRequest r;
    r.lun_id = Id("sdb");
    r.dxfer_direction = kDxferFromDev;
    r.cmd_len = 6;
    r.cdb = InquiryCdb(false, 0, 36);
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
    ASSERT_TRUE(model_.SetSwitch("ARRAY0001", 1, Version{1, 2, 3, 4}, &error_));
    Bytes want = Hex("00 00 00 00 01 01 02 03 04");
    want.resize(4096, 0);
    SgResponse r = Vendor("sdc", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096);
    EXPECT_EQ(r.data_in, want);
    EXPECT_EQ(r.resid, 0U);
    // The smaller of the length field and the buffer is moved.
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 100);
    EXPECT_EQ(r.data_in, Slice(want, 0, 100));
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 9), kDxferFromDev, 4096);
    EXPECT_EQ(r.data_in, Slice(want, 0, 9));
    EXPECT_EQ(r.resid, 4096U - 9U);
    // Lowering keeps the version.
    ASSERT_TRUE(model_.SetSwitch("ARRAY0001", 0, std::nullopt, &error_));
    r = Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096);
    EXPECT_EQ(Slice(r.data_in, 4, 5), Hex("00 01 02 03 04"));
    EXPECT_FALSE(model_.SetSwitch("NOSUCH", 1, std::nullopt, &error_));
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
    const Bytes payload = HeartbeatPayload("01 02 03 04");
    ASSERT_EQ(Vendor("sdc", VendorCdb(kOpHeartbeat, 0, 28), kDxferToDev, 28, payload).status, 0);
    Bytes bad = payload;
    bad[1] = 0x80;
    bad[26] = 0x01;
    Bytes bad_cdb = VendorCdb(kOpHeartbeat, 5, 20);
    bad_cdb[14] = 0x00;
    ASSERT_EQ(Vendor("sdb", bad_cdb, kDxferToDev, 28, bad).status, 0);

    const auto hbs = model_.Heartbeats();
    ASSERT_EQ(hbs.size(), 2U);
    EXPECT_EQ(
        std::tie(hbs[0].lun, hbs[0].array, hbs[0].cdb, hbs[0].payload, hbs[0].issues),
        std::make_tuple("sdc", "ARRAY0001", Hex("c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00"),
                        payload, std::vector<std::string>()));
    EXPECT_EQ(hbs[1].issues, (std::vector<std::string>{
                                 "cdb byte 14 is 0x00, expected 0x81",
                                 "address field is 5, expected 0",
                                 "length field 20 differs from transfer length 28",
                                 "payload byte 1 is 0x80, expected 0x81",
                                 "payload byte 26 is 0x01, expected 0x00",
                             }));
    EXPECT_LT(hbs[0].seq, hbs[1].seq);
}

// Chunks carry min(4064, size - offset) bytes; an attempt is complete once
// every byte arrived, and a chunk at offset 0 after others starts a new one.
TEST_F(ModelTest, UploadsAreReassembledPerAttempt) {
    struct Case {
        const char* name;
        std::size_t size;
        std::vector<std::pair<std::string, std::size_t>> sends;  // LUN and offset, in order
        std::vector<std::uint64_t> received;                     // per attempt
        std::vector<std::vector<std::string>> luns;
    };
    const Case cases[] = {
        {"in order", 10000, {{"sdb", 0}, {"sdb", 4064}, {"sdb", 8128}}, {10000}, {{"sdb"}}},
        {"out of order", 10000, {{"sdb", 8128}, {"sdb", 0}, {"sdb", 4064}}, {10000}, {{"sdb"}}},
        {"one byte", 1, {{"sdb", 0}}, {1}, {{"sdb"}}},
        {"exactly one chunk", 4064, {{"sdb", 0}}, {4064}, {{"sdb"}}},
        {"restart on the next LUN",
         10000,
         {{"sdb", 0}, {"sdb", 4064}, {"sdc", 0}, {"sdc", 4064}, {"sdc", 8128}},
         {8128, 10000},
         {{"sdb"}, {"sdc"}}},
        {"two LUNs in one attempt", 8128, {{"sdb", 0}, {"sdc", 4064}}, {8128}, {{"sdb", "sdc"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        model_.ResetRecords();
        const Bytes archive = Archive(c.size);
        for (const auto& [lun, offset] : c.sends) {
            WriteChunk(lun, archive, offset, std::min<std::size_t>(4064, c.size - offset));
        }
        const auto uploads = model_.Uploads();
        ASSERT_EQ(uploads.size(), c.received.size());
        for (std::size_t i = 0; i < uploads.size(); ++i) {
            const UploadAttempt& u = uploads[i];
            EXPECT_EQ(std::tie(u.index, u.array, u.size, u.received, u.luns, u.versions),
                      std::make_tuple(i, "ARRAY0001", c.size, c.received[i], c.luns[i],
                                      Version{1, 2, 3, 4}));
            EXPECT_EQ(u.complete, c.received[i] == c.size);
            EXPECT_TRUE(u.issues.empty()) << u.issues.front();
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
    Bytes second = Chunk(9999, Slice(archive, 4064, 4064), "09 09 09 09", 1);
    second[6] = 0x11;
    ASSERT_EQ(Write("sdb", 4064, second).status, 0);
    WriteChunk("sdb", archive, 4064, 4064);  // again
    WriteChunk("sdb", archive, 8128, 1000);  // short last chunk
    // Past the end and misaligned, then one without a header.
    ASSERT_EQ(Write("sdb", 9000, Chunk(10000, Bytes(1872, 0))).status, 0);
    ASSERT_EQ(Write("sdb", 12192, Bytes(20, 0)).status, 0);

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
    EXPECT_EQ(std::make_tuple(uploads[0].complete, uploads[0].received, uploads[0].chunks.size()),
              std::make_tuple(true, 10000U, 6U));
}

TEST_F(ModelTest, OldAttemptsAreDroppedBeyondTheLimit) {
    Model small(100, 2);
    ASSERT_TRUE(small.AddArray(ArrayConf{"A", "A", "", 3, 0, 0, {}}, &error_));
    ASSERT_TRUE(small.AddLun(Lun("sdb", "A"), &error_));
    const Bytes chunk = Chunk(1, Bytes{0x5A});
    const auto n = static_cast<std::uint32_t>(chunk.size());
    for (int i = 0; i < 3; ++i) {
        Exec(small, "sdb", VendorCdb(kOpWriteBuffer, 0, n), kDxferToDev, n, chunk);
    }
    const auto uploads = small.Uploads();
    ASSERT_EQ(uploads.size(), 2U);
    EXPECT_EQ(std::tie(uploads[0].index, uploads[1].index), std::make_tuple(1U, 2U));
    EXPECT_FALSE(small.Upload("A", 0));
    EXPECT_TRUE(small.Upload("A", 2));
    EXPECT_EQ(small.Arrays()[0].dropped_attempts, 1U);
}

TEST(FaultKindTest, KindsCoverTheirCommands) {
    // Which of a standard INQUIRY, page 80, c7, c9 and ca each kind covers.
    const Bytes cdbs[] = {InquiryCdb(false, 0, 36), InquiryCdb(true, 0x80, 28),
                          VendorCdb(kOpQuerySwitch, 0, 4096), VendorCdb(kOpHeartbeat, 0, 28),
                          VendorCdb(kOpWriteBuffer, 0, 33)};
    const std::pair<const char*, std::string> cases[] = {
        {"any", "11111"},    {"inquiry", "11000"}, {"std", "10000"}, {"page80", "01000"},
        {"PAGE83", "00000"}, {"c7", "00100"},      {"c9", "00010"},  {"CA", "00001"},
        {"op12", "11000"},   {"open", "00000"},
    };
    for (const auto& [name, covers] : cases) {
        SCOPED_TRACE(name);
        auto kind = FaultKind::Parse(name);
        ASSERT_TRUE(kind);
        std::string got;
        for (const Bytes& cdb : cdbs) {
            got += kind->Covers(KindOfCdb(cdb)) ? '1' : '0';
        }
        EXPECT_EQ(got, covers);
        EXPECT_EQ(FaultKind::Parse(kind->Name()), kind);
    }
    for (const char* bad : {"", "page", "page8", "pagexy", "op", "c8", "inq"}) {
        EXPECT_FALSE(FaultKind::Parse(bad)) << bad;
    }
}

// Each fault on sdb's standard INQUIRY unless it names another LUN or kind.
TEST_F(ModelTest, FaultsChangeTheOutcomeAsConfigured) {
    struct Case {
        const char* what;
        const char* fault;  // JSON
        int err;
        std::uint8_t status;
        std::uint16_t host;
        std::uint16_t driver;
        const char* sense;  // hex
        std::size_t moved;
        std::uint32_t delay_ms;
    };
    const std::string illegal_request = ToHex(FixedSense(0x05, 0x24, 0));
    const Case cases[] = {
        {"errno", R"({"errno": "EIO"})", EIO, 0, 0, 0, "", 0, 0},
        {"check condition", R"({"status": 2})", 0, 2, 0, 8, illegal_request.c_str(), 0, 0},
        {"own sense", R"({"status": 2, "sense": "72 03 11 00"})", 0, 2, 0, 8, "72031100", 0, 0},
        {"busy without sense", R"({"status": 8})", 0, 8, 0, 0, "", 0, 0},
        {"host error", R"({"host_status": 7})", 0, 0, 7, 0, "", 0, 0},
        {"driver status alone", R"({"driver_status": 8})", 0, 0, 0, 8, "", 0, 0},
        {"short", R"({"short": 10})", 0, 0, 0, 0, "", 10, 0},
        {"delay only", R"({"delay_ms": 50})", 0, 0, 0, 0, "", 36, 50},
        {"delay beyond the timeout", R"({"delay_ms": 50, "honour_timeout": 1})", 0, 0, kDidTimeOut,
         0, "", 0, 30},
        {"delay within the timeout", R"({"delay_ms": 20, "honour_timeout": 1})", 0, 0, 0, 0, "", 36,
         20},
        {"other LUN", R"({"lun": "sdc", "errno": "EIO"})", 0, 0, 0, 0, "", 36, 0},
        {"other kind", R"({"kind": "c7", "errno": "EIO"})", 0, 0, 0, 0, "", 36, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        model_.ClearFaults("");
        Json fault = Json::parse(c.fault);
        fault.emplace("lun", "sdb");
        fault.emplace("kind", "std");
        const std::uint64_t id = model_.AddFault(Conf(fault.dump()));
        const SgResponse r = Inquiry("sdb", false, 0, 36, 36);
        EXPECT_EQ(std::tie(r.err, r.status, r.host_status, r.driver_status, r.delay_ms),
                  std::make_tuple(c.err, c.status, c.host, c.driver, c.delay_ms));
        EXPECT_EQ(ToHex(r.sense), c.sense);
        EXPECT_EQ(r.data_in.size(), c.moved);
        if (c.err == 0) {
            EXPECT_EQ(r.resid, 36 - c.moved);
        }
        const bool applies = c.moved != 36 || c.delay_ms != 0;
        EXPECT_EQ(r.fault_id, applies ? std::optional<std::uint64_t>(id) : std::nullopt);
    }
}

TEST_F(ModelTest, AfterAndCountPickWhichMatchingCommandsFail) {
    const std::uint64_t id =
        model_.AddFault(Conf(R"({"kind": "c7", "errno": "EIO", "after": 2, "count": 2})"));
    std::vector<int> errs;
    for (int i = 0; i < 6; ++i) {
        // Commands of other kinds do not count.
        Inquiry("sdb", false, 0, 36, 36);
        errs.push_back(Vendor("sdb", VendorCdb(kOpQuerySwitch, 0, 4096), kDxferFromDev, 4096).err);
    }
    EXPECT_EQ(errs, (std::vector<int>{0, 0, EIO, EIO, 0, 0}));
    const auto faults = model_.Faults();
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(std::tie(faults[0].seen, faults[0].hits), std::make_tuple(6U, 2U));
    EXPECT_TRUE(model_.ClearFault(id));
    EXPECT_FALSE(model_.ClearFault(id));
}

TEST_F(ModelTest, ShortDataOutKeepsOnlyTheBytesTaken) {
    model_.AddFault(Conf(R"({"kind": "c9", "short": 8})"));
    const Bytes payload = HeartbeatPayload("01 02 03 04");
    const SgResponse r = Vendor("sdb", VendorCdb(kOpHeartbeat, 0, 28), kDxferToDev, 28, payload);
    EXPECT_EQ(r.resid, 20U);
    const auto hbs = model_.Heartbeats();
    ASSERT_EQ(hbs.size(), 1U);
    EXPECT_EQ(hbs[0].payload, Slice(payload, 0, 8));
    EXPECT_EQ(model_.Commands().back().transferred, 8U);
}

TEST_F(ModelTest, OpenFaultsMatchTheAccessMode) {
    model_.AddFault(
        Conf(R"({"lun": "sdc", "kind": "open", "errno": "ENXIO", "open_mode": "rw", "count": 1})"));
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
    EXPECT_EQ(std::tie(opens[2].lun, opens[2].flags, opens[2].err, opens[2].close),
              std::make_tuple("sdc", O_RDWR, ENXIO, false));
    EXPECT_EQ(std::tie(opens[5].flags, opens[5].close), std::make_tuple(O_RDONLY, true));
    // An open fault never touches commands.
    EXPECT_EQ(Inquiry("sdc", false, 0, 36, 36).err, 0);
}

TEST_F(ModelTest, CommandRecordsKeepTheRequestAndTheOutcome) {
    Model small(3);
    ASSERT_TRUE(small.AddLun(Lun("sdx", ""), &error_));
    SgRequest r;
    r.lun_id = small.FindLun("sdx")->id;
    r.open_flags = O_RDONLY;
    r.pid = 42;
    r.dxfer_direction = kDxferFromDev;
    r.cmd_len = 6;
    r.mx_sb_len = 96;
    r.dxfer_len = 36;
    r.timeout = 30;
    r.cdb = InquiryCdb(false, 0, 36);
    small.Execute(r);
    const CommandRecord f = small.Commands().at(0);
    EXPECT_EQ(std::tie(f.lun, f.pid, f.open_flags, f.cdb, f.timeout, f.transferred, f.resid),
              std::make_tuple("sdx", 42, O_RDONLY, r.cdb, 30U, 36U, 0U));
    EXPECT_EQ(f.mx_sb_len, 96);

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

TEST(ModelConfigTest, BadConfigsAreRefusedWithAReason) {
    Model m;
    std::string error;
    EXPECT_FALSE(m.AddArray(ArrayConf{"", "", "x", 3, 0, 0, {}}, &error));
    EXPECT_FALSE(m.AddArray(ArrayConf{"", "123456789012345678901", "x", 3, 0, 0, {}}, &error));
    EXPECT_EQ(error, "array sn '123456789012345678901' is longer than 20 bytes");
    EXPECT_FALSE(m.AddArray(ArrayConf{"", "A1", std::string(100, 'n'), 3, 0, 0, {}}, &error));
    ASSERT_TRUE(m.AddArray(ArrayConf{"", "A1", std::string(99, 'n'), 3, 0, 0, {}}, &error));
    EXPECT_FALSE(m.AddArray(ArrayConf{"", "A1", "", 3, 0, 0, {}}, &error));
    LunConf l = Lun("sdb", "A2");
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
