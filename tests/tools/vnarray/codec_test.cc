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
    const ArrayConf& a = arrays[0].conf;
    EXPECT_EQ(std::tie(a.id, a.major, a.minor, a.switch_state, a.collect_version),
              std::make_tuple("ARRAY0001", 2, 10, 1, Version{0x0A, 0x0B, 0x0C, 0x0D}));
    // Defaults: version 3.0, switch off.
    const ArrayConf& b = arrays[1].conf;
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
    EXPECT_EQ(m.FindLun("sdd")->conf.array, "");
    EXPECT_EQ(m.FindLun("sdb")->conf.vendor, "PELKO");
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
    FaultConf f;
    std::string error;
    ASSERT_TRUE(ParseFaultConf(
        Json::parse(R"({"cmd": "inject", "lun": "sdb", "kind": "page80", "status": "0x02",
                                               "sense": "70 00 03", "after": "1", "count": 2, "delay_ms": "5",
                                               "honour_timeout": "true"})"),
        &f, &error))
        << error;
    EXPECT_EQ(std::tie(f.lun, f.kind, f.after, f.count, f.delay_ms, f.honour_timeout),
              std::make_tuple("sdb", *FaultKind::Parse("page80"), 1U, 2U, 5U, true));
    EXPECT_EQ(f.status, 2);
    EXPECT_EQ(f.sense, Hex("70 00 03"));

    ASSERT_TRUE(ParseFaultConf(Json::parse(R"({"errno": "ENODEV"})"), &f, &error));
    EXPECT_EQ(std::tie(f.err, f.lun), std::make_tuple(ENODEV, "*"));
    ASSERT_TRUE(ParseFaultConf(Json::parse(R"({"errno": 5})"), &f, &error));
    EXPECT_EQ(f.err, EIO);
    // An open fault fails with EIO unless told otherwise.
    ASSERT_TRUE(ParseFaultConf(Json::parse(R"({"kind": "open", "open_mode": "rw"})"), &f, &error));
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
        EXPECT_FALSE(ParseFaultConf(Json::parse(json), &f, &error)) << json;
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

// The JSON forms the client library reads back, key for key: each record
// read from one writes it out again unchanged.
TEST(CodecTest, RecordsSurviveTheirJsonForm) {
    const Json command = Json::parse(R"({
      "array": "A", "cdb": "c90000000000000000000000001c8100", "cmd_len": 16,
      "data_out": "0081001c", "data_out_digest": "fedcba9876543210", "data_out_len": 4,
      "driver_status": 8, "dxfer_direction": -2, "dxfer_len": 28, "errno": 0, "fault": 4,
      "flags": 0, "host_status": 7, "interface_id": 83, "iovec_count": 0, "kind": "c9",
      "lun": "sdb", "mode": "rw", "mono": 1.5, "mx_sb_len": 96, "pack_id": 0, "pid": 77,
      "resid": 3, "seq": 12, "status": 2, "t": 1700000000.25, "timeout": 30, "transferred": 25,
      "usr_ptr": false})");
    EXPECT_EQ(ToJson(CommandFromJson(command)), command);
    EXPECT_FALSE(ToJson(CommandFromJson(command), false).contains("data_out"));
    const Json upload = Json::parse(R"({
      "array": "A", "chunks": [{"length": 4064, "lun": "sdb", "offset": 0, "seq": 5},
                               {"length": 4064, "lun": "sdc", "offset": 4064, "seq": 6}],
      "complete": false, "digest": "cbf29ce484222325",
      "host_ip": "00000000000000000000000000000009", "index": 3, "ip_type": 1, "issues": ["x"],
      "luns": ["sdb", "sdc"], "mono": 0.0, "received": 8128, "size": 10000, "t": 0.0,
      "versions": "01020304"})");
    EXPECT_EQ(ToJson(UploadFromJson(upload)), upload);

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
