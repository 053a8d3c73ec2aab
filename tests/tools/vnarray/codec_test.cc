// JSON forms of the virtual array: the configuration file, fault requests and
// the records the client library reads back.
#include "codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace vnarray {
namespace {

Bytes Hex(const std::string& text) {
    return FromHex(text).value();
}

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
    EXPECT_EQ(arrays[0].spec.id, "ARRAY0001");
    EXPECT_EQ(arrays[0].spec.major, 2);
    EXPECT_EQ(arrays[0].spec.minor, 10);
    EXPECT_EQ(arrays[0].spec.switch_state, 1);
    EXPECT_EQ(arrays[0].spec.collect_version, (Version{0x0A, 0x0B, 0x0C, 0x0D}));
    EXPECT_EQ(arrays[1].spec.id, "two");
    EXPECT_EQ(arrays[1].spec.major, 3);  // defaults: version 3.0, switch off
    EXPECT_EQ(arrays[1].spec.switch_state, 0);

    EXPECT_EQ(*m.Page("sdb", kStandardPage), Hex("00 00 06"));
    EXPECT_FALSE(m.Page("sdb", 0xC0));
    EXPECT_EQ(*m.Page("sdb", 0x83), Hex("00 83"));
    const Bytes c8 = *m.Page("sdb", 0xC8);
    EXPECT_EQ(c8[206], 0);
    EXPECT_EQ(c8[207], 0);  // explicit selector wins over the long name
    EXPECT_EQ(c8[510], 0xFF);
    EXPECT_EQ(Bytes(c8.begin() + 106, c8.begin() + 109), Hex("02 41 42"));
    const Bytes p80 = *m.Page("sdb", 0x80);
    EXPECT_EQ(Bytes(p80.begin() + 4, p80.begin() + 8), Hex("41 3b 42 00"));
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
    EXPECT_EQ(f.lun, "sdb");
    EXPECT_EQ(f.kind, *FaultKind::Parse("page80"));
    EXPECT_EQ(f.status, 2);
    EXPECT_EQ(f.sense, Hex("70 00 03"));
    EXPECT_EQ(f.after, 1U);
    EXPECT_EQ(f.count, 2U);
    EXPECT_EQ(f.delay_ms, 5U);
    EXPECT_TRUE(f.honour_timeout);

    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"errno": "ENODEV"})"), &f, &error));
    EXPECT_EQ(f.err, ENODEV);
    EXPECT_EQ(f.lun, "*");
    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"errno": 5})"), &f, &error));
    EXPECT_EQ(f.err, EIO);
    // An open fault fails with EIO unless told otherwise.
    ASSERT_TRUE(ParseFaultSpec(Json::parse(R"({"kind": "open", "open_mode": "rw"})"), &f, &error));
    EXPECT_EQ(f.err, EIO);
    EXPECT_EQ(f.open_mode, O_RDWR);

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
    const CommandRecord back = CommandFromJson(ToJson(c));
    EXPECT_EQ(back.seq, c.seq);
    EXPECT_DOUBLE_EQ(back.time.wall, c.time.wall);
    EXPECT_EQ(back.lun, c.lun);
    EXPECT_EQ(back.pid, c.pid);
    EXPECT_EQ(back.open_flags, O_RDONLY);
    EXPECT_EQ(back.dxfer_direction, -2);
    EXPECT_EQ(back.cdb, c.cdb);
    EXPECT_EQ(back.data_out, c.data_out);
    EXPECT_EQ(back.data_out_digest, c.data_out_digest);
    EXPECT_EQ(back.timeout, 30U);
    EXPECT_EQ(back.mx_sb_len, 96);
    EXPECT_EQ(back.status, 2);
    EXPECT_EQ(back.host_status, 7);
    EXPECT_EQ(back.driver_status, 8);
    EXPECT_EQ(back.resid, 3U);
    EXPECT_EQ(back.transferred, 25U);
    EXPECT_EQ(back.fault_id, 4U);
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
    const UploadAttempt ub = UploadFromJson(ToJson(u));
    EXPECT_EQ(ub.index, 3U);
    EXPECT_EQ(ub.size, 10000U);
    EXPECT_EQ(ub.versions, u.versions);
    EXPECT_EQ(ub.host_ip, u.host_ip);
    EXPECT_EQ(ub.ip_type, 1);
    ASSERT_EQ(ub.chunks.size(), 2U);
    EXPECT_EQ(ub.chunks[1].lun, "sdc");
    EXPECT_EQ(ub.chunks[1].offset, 4064U);
    EXPECT_EQ(ub.luns, u.luns);
    EXPECT_EQ(ub.issues, u.issues);
    EXPECT_EQ(ub.received, 8128U);
    EXPECT_FALSE(ub.complete);

    HeartbeatRecord h;
    h.lun = "sdc";
    h.payload = Hex("00 81");
    h.issues = {"y"};
    const HeartbeatRecord hb = HeartbeatFromJson(ToJson(h));
    EXPECT_EQ(hb.payload, h.payload);
    EXPECT_EQ(hb.issues, h.issues);

    OpenRecord o;
    o.lun = "sdb";
    o.close = true;
    o.flags = O_RDWR;
    o.err = ENXIO;
    const OpenRecord ob = OpenFromJson(ToJson(o));
    EXPECT_TRUE(ob.close);
    EXPECT_EQ(ob.flags, O_RDWR);
    EXPECT_EQ(ob.err, ENXIO);
}

}  // namespace
}  // namespace vnarray
