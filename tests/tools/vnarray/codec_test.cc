// JSON forms of the virtual array: the configuration file, fault requests and
// the records the client library reads back.
#include "codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>

#include "tools/vnarray/bytes.h"

namespace vnarray {
namespace {

using test::Hex;
using test::Slice;

TEST(CodecTest, ConfigurationBuildsArraysAndLuns) {
    const Json config = Json::parse(R"({
      "arrays": [{"sn": "ARRAY0001", "name": "one", "major": 2, "minor": 10, "switch": 1,
                  "collect_version": "0a0b0c0d"},
                 {"sn": "ARRAY0002", "id": "two"}],
      "luns": [{"dev": "sdb", "array": "ARRAY0001", "vendor": "PELKO", "name": "n",
                "long_name": "long", "name_selector": 0, "wwn": "00112233445566778899aabbccddeeff",
                "serial": {"hex": "41 3b 42"}, "array_name": "AB",
                "pages": {"std": "00 00 06", "C0": null, "0x83": "0083"},
                "patches": [{"page": "c8", "offset": 510, "hex": "ffff"}]},
               {"dev": "sdc", "array": "two"},
               {"dev": "sdd"}]
    })");
    Model m;
    std::string error;
    ASSERT_TRUE(LoadConfig(config, &m, &error)) << error;
    const auto arrays = m.Arrays();
    ASSERT_EQ(arrays.size(), 2U);
    const ArraySpec& a = arrays[0].spec;
    EXPECT_EQ(std::tie(a.id, a.major, a.minor, a.switch_state, a.collect_version),
              std::make_tuple("ARRAY0001", 2, 10, 1, Version{0x0A, 0x0B, 0x0C, 0x0D}));
    // Defaults: version 3.0, switch off.
    const ArraySpec& b = arrays[1].spec;
    EXPECT_EQ(std::tie(b.id, b.major, b.minor, b.switch_state), std::make_tuple("two", 3, 0, 0));

    EXPECT_EQ(*m.Page("sdb", kStandardPage), Hex("00 00 06"));
    EXPECT_FALSE(m.Page("sdb", 0xC0));
    EXPECT_EQ(*m.Page("sdb", 0x83), Hex("00 83"));
    const Bytes c8 = *m.Page("sdb", 0xC8);
    EXPECT_EQ(Slice(c8, 206, 2), Hex("00 00"));  // explicit selector wins over the long name
    EXPECT_EQ(Slice(c8, 510, 2), Hex("ff ff"));
    EXPECT_EQ(Slice(c8, 106, 3), Hex("02 41 42"));
    EXPECT_EQ(Slice(*m.Page("sdb", 0x80), 4, 4), Hex("41 3b 42 00"));
    ASSERT_TRUE(m.FindLun("sdd"));
    EXPECT_EQ(m.FindLun("sdd")->spec.array, "");
    EXPECT_EQ(m.FindLun("sdb")->spec.vendor, "PELKO");
}

TEST(CodecTest, BadConfigurationsNameTheirFault) {
    struct Case {
        const char* json;
        const char* error;
    };
    const Case cases[] = {
        {R"([])", "the configuration must be an object"},
        {R"({"arrays": {}})", "'arrays' must be a list"},
        {R"({"arrays": [{"sn": 5}]})", "'sn' must be a string"},
        {R"({"arrays": [{"sn": "A", "major": 256}]})", "'major' out of range: 256"},
        {R"({"arrays": [{"sn": "A", "collect_version": "010203"}]})",
         "'collect_version' must be 4 bytes in hex, e.g. \"00000001\""},
        {R"({"luns": [{"array": "A"}]})", "a LUN needs a 'dev'"},
        {R"({"luns": [{"dev": "sdb", "wwn": "0011"}]})", "LUN sdb: 'wwn' must be 16 bytes in hex"},
        {R"({"luns": [{"dev": "sdb", "pages": {"zz": "00"}}]})", "LUN sdb: bad page 'zz'"},
        {R"({"luns": [{"dev": "sdb", "pages": {"80": "0g"}}]})",
         "LUN sdb: page '80' must be hex or null"},
        {R"({"luns": [{"dev": "sdb", "patches": [{"page": "c8", "hex": "00"}]}]})",
         "LUN sdb: a patch needs page, offset and hex"},
        {R"({"luns": [{"dev": "sdb", "serial": 7}]})",
         "'serial' must be a string or {\"hex\": ...}"},
        {R"({"luns": [{"dev": "sdb", "array": "nope"}]})", "LUN sdb: unknown array 'nope'"},
    };
    for (const Case& c : cases) {
        Model m;
        std::string error;
        EXPECT_FALSE(LoadConfig(Json::parse(c.json), &m, &error)) << c.json;
        EXPECT_EQ(error, c.error) << c.json;
    }
}

TEST(CodecTest, FaultRequestsAcceptNumbersAsStrings) {
    FaultSpec f;
    std::string error;
    ASSERT_TRUE(ParseFaultSpec(
        Json::parse(R"({"cmd": "inject", "lun": "sdb", "kind": "page80", "status": "0x02",
                                               "sense": "70 00 03", "after": "1", "count": 2, "delay_ms": "5",
                                               "honour_timeout": "true"})"),
        &f, &error))
        << error;
    EXPECT_EQ(std::tie(f.lun, f.kind, f.after, f.count, f.delay_ms, f.honour_timeout),
              std::make_tuple("sdb", *FaultKind::Parse("page80"), 1U, 2U, 5U, true));
    EXPECT_EQ(f.status, 2);
    EXPECT_EQ(f.sense, Hex("70 00 03"));

    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"errno": "ENODEV"})"), &f, &error));
    EXPECT_EQ(std::tie(f.err, f.lun), std::make_tuple(ENODEV, "*"));
    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"errno": 5})"), &f, &error));
    EXPECT_EQ(f.err, EIO);
    // An open fault fails with EIO unless told otherwise.
    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"kind": "open", "open_mode": "rw"})"), &f, &error));
    EXPECT_EQ(std::tie(f.err, f.open_mode), std::make_tuple(EIO, O_RDWR));

    const std::pair<const char*, const char*> bad[] = {
        {R"({"kind": "sideways", "errno": 5})", "unknown fault kind 'sideways'"},
        {R"({"errno": "EWHAT"})", "bad errno"},
        {R"({"kind": "c7"})",
         "a fault needs errno, status, host_status, driver_status, short or delay_ms"},
        {R"({"status": "two"})", "'status' is not a number: two"},
        {R"({"status": 2, "open_mode": "rx"})", "'open_mode' must be ro, rw, wo or any"},
    };
    for (const auto& [json, want] : bad) {
        EXPECT_FALSE(ParseFaultSpec(Json::parse(json), &f, &error)) << json;
        EXPECT_EQ(error, want) << json;
    }
}

TEST(CodecTest, VersionsReadFromHexOrFromAnAllDigitNumber) {
    std::string error;
    EXPECT_EQ(ReadVersion(Json::parse(R"({"v": "00 00 00 01"})"), "v", &error),
              (Version{0, 0, 0, 1}));
    // "12345678" reaches the server as a number when sent as JSON.
    EXPECT_EQ(ReadVersion(Json::parse(R"({"v": 12345678})"), "v", &error),
              (Version{0x12, 0x34, 0x56, 0x78}));
    EXPECT_FALSE(ReadVersion(Json::parse(R"({"v": "123"})"), "v", &error));
    EXPECT_FALSE(ReadVersion(Json::parse(R"({})"), "v", &error));
}

TEST(CodecTest, RecordsSurviveTheirJsonForm) {
    CommandRecord c;
    c.seq = 12;
    c.time = Clock{1700000000.25, 1.5};
    c.lun = "sdb";
    c.array = "A";
    c.pid = 77;
    c.open_flags = O_RDONLY;
    c.interface_id = 'S';
    c.dxfer_direction = -2;
    c.cmd_len = 16;
    c.mx_sb_len = 96;
    c.dxfer_len = 28;
    c.timeout = 30;
    c.cdb = Hex("c9 00 00 00 00 00 00 00 00 00 00 00 00 1c 81 00");
    c.data_out = Hex("00 81 00 1c");
    c.data_out_len = 4;
    c.data_out_digest = 0xFEDCBA9876543210ULL;
    c.status = 2;
    c.host_status = 7;
    c.driver_status = 8;
    c.resid = 3;
    c.transferred = 25;
    c.fault_id = 4;
    const CommandRecord k = CommandFromJson(ToJson(c));
    EXPECT_EQ(std::tie(k.seq, k.lun, k.pid, k.open_flags, k.dxfer_direction, k.cdb, k.data_out,
                       k.data_out_digest, k.timeout, k.mx_sb_len),
              std::tie(c.seq, c.lun, c.pid, c.open_flags, c.dxfer_direction, c.cdb, c.data_out,
                       c.data_out_digest, c.timeout, c.mx_sb_len));
    EXPECT_EQ(
        std::tie(k.status, k.host_status, k.driver_status, k.resid, k.transferred, k.fault_id),
        std::tie(c.status, c.host_status, c.driver_status, c.resid, c.transferred, c.fault_id));
    EXPECT_DOUBLE_EQ(k.time.wall, c.time.wall);
    EXPECT_EQ(ToJson(c)["kind"], "c9");
    EXPECT_FALSE(ToJson(c, false).contains("data_out"));

    UploadAttempt u;
    u.array = "A";
    u.index = 3;
    u.size = 10000;
    u.versions = {1, 2, 3, 4};
    u.host_ip[15] = 9;
    u.ip_type = 1;
    u.chunks = {{5, "sdb", 0, 4064}, {6, "sdc", 4064, 4064}};
    u.luns = {"sdb", "sdc"};
    u.issues = {"x"};
    u.received = 8128;
    const UploadAttempt v = UploadFromJson(ToJson(u));
    EXPECT_EQ(std::tie(v.array, v.index, v.size, v.versions, v.host_ip, v.ip_type, v.luns, v.issues,
                       v.received, v.complete),
              std::tie(u.array, u.index, u.size, u.versions, u.host_ip, u.ip_type, u.luns, u.issues,
                       u.received, u.complete));
    ASSERT_EQ(v.chunks.size(), 2U);
    EXPECT_EQ(std::tie(v.chunks[1].lun, v.chunks[1].offset), std::make_tuple("sdc", 4064U));

    HeartbeatRecord h;
    h.lun = "sdc";
    h.payload = Hex("00 81");
    h.issues = {"y"};
    const HeartbeatRecord hb = HeartbeatFromJson(ToJson(h));
    EXPECT_EQ(std::tie(hb.payload, hb.issues), std::tie(h.payload, h.issues));

    OpenRecord o;
    o.lun = "sdb";
    o.close = true;
    o.flags = O_RDWR;
    o.err = ENXIO;
    const OpenRecord ob = OpenFromJson(ToJson(o));
    EXPECT_EQ(std::tie(ob.close, ob.flags, ob.err), std::make_tuple(true, O_RDWR, ENXIO));
}

}  // namespace
}  // namespace vnarray
