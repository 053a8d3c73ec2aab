// INQUIRY and the identity readers against the virtual array: the 6-byte
// CDB each reader sends, and the bytes it takes out of the page it gets.
#include "scsi/inquiry.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/handles.h"
#include "scsi/sg_transport.h"
#include "scsi_rig.h"

namespace hic_test {
namespace {

using InquiryTest = ScsiRigTest;

constexpr unsigned char kGuard = 0xEE;

// A caller's buffer of the given capacity followed by guard bytes, all set
// to the guard value, so that every byte a reader writes shows.
struct Guarded {
    explicit Guarded(size_t capacity, size_t guard = 8) : bytes(capacity + guard, kGuard) {}
    char* data() { return reinterpret_cast<char*>(bytes.data()); }
    std::string Hex() const { return SpacedHex(bytes); }
    std::vector<unsigned char> bytes;
};

// The expected buffer: the given bytes, then the guard up to size.
std::string Expect(const Bytes& written, size_t size) {
    Bytes all = written;
    all.resize(size, kGuard);
    return SpacedHex(all);
}

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// Bytes 0..n-1 of text, NUL-padded to n.
Bytes Field(const std::string& text, size_t n) {
    Bytes b(text.begin(), text.end());
    b.resize(n, 0);
    return b;
}

// Reads a LUN made of these fields into a guarded buffer of the capacity.
void ExpectRead(const Json& lunFields, int (*read)(int, char*, uint32_t), uint32_t capacity, int rc,
                const Bytes& written, const std::string& log) {
    (void)std::remove(HIC_LOG_PATH);
    ScopedLun lun(lunFields);
    hic::UniqueFd fd = OpenLun(kCasePath, HIC_OPEN_READ_ONLY);
    Guarded buf(capacity);
    EXPECT_EQ(read(fd.Get(), buf.data(), capacity), rc);
    EXPECT_EQ(buf.Hex(), Expect(written, buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), log);
}

// ---------------------------------------------------------------------------
// What each reader sends, and what it logs when its inquiry fails

TEST_F(InquiryTest, EachReaderSendsOneInquiryAndLogsItsFailures) {
    struct Reader {
        const char* name;
        int (*read)(int, char*);
        const char* cdb;
        uint32_t dxferLen;
        const char* kind;  // the fault kind that hits its page
        const char* page;
        const char* tail;  // the reader's own line after a failed inquiry
    };
    const Reader readers[] = {
        {"Vendor", [](int fd, char* b) { return HIC_GetVendorId(fd, b, 16); }, "12 00 00 00 24 00",
         36, "std", "0x0", "ERR HIC_GetVendorId: get vendor failed.\n"},
        {"LunName", [](int fd, char* b) { return HIC_GetLunName(fd, b, 257); }, "12 01 c8 02 00 00",
         512, "pagec8", "0xc8", ""},
        {"LunWwn", [](int fd, char* b) { return HIC_GetLunWwn(fd, b, 257); }, "12 01 83 00 18 00",
         24, "page83", "0x83", ""},
        {"ArrayName", [](int fd, char* b) { return HIC_GetArrayName(fd, b, 81); },
         "12 01 c8 02 00 00", 512, "pagec8", "0xc8", ""},
        {"ArrayVersion", [](int fd, char*) { return HIC_CheckArrayVersion(fd); },
         "12 01 c0 02 cc 00", 716, "pagec0", "0xc0", ""},
        {"ArraySn", [](int fd, char* b) { return HIC_GetArraySn(fd, b, 21); }, "12 01 80 00 1c 00",
         28, "page80", "0x80", "ERR HIC_GetArraySn: get array sn failed.\n"},
    };
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_ONLY);
    const int closed = ClosedFd();
    for (const Reader& r : readers) {
        SCOPED_TRACE(r.name);
        NextCase();
        std::vector<char> out(300);
        EXPECT_EQ(r.read(fd.Get(), out.data()), 0);
        ExpectOneRequest(r.cdb, -3, r.dxferLen, O_RDONLY);
        EXPECT_EQ(LoggedMessages(), "");

        const std::string refused = std::string("ERR HIC_DoInquiry: inqury page ") + r.page;
        const struct {
            const char* fault;  // "" for the closed descriptor
            std::string log;
        } failures[] = {
            {R"({"status": 2})", refused + " failed.status:2, host_status:0, driver_status:8.\n"},
            {R"({"host_status": 7})",
             refused + " failed.status:0, host_status:7, driver_status:0.\n"},
            {R"({"errno": "EIO"})",
             "ERR HIC_DoInquiry: ioctl(SG_IO) failed: Input/output error (errno=5).\n"},
            {"", "ERR HIC_DoInquiry: ioctl(SG_IO) failed: Bad file descriptor (errno=9).\n"},
        };
        for (const auto& f : failures) {
            SCOPED_TRACE(f.fault);
            NextCase();
            if (*f.fault != '\0') {
                InjectOnB(r.kind, f.fault);
            }
            Guarded buf(300);
            EXPECT_EQ(r.read(*f.fault != '\0' ? fd.Get() : closed, buf.data()), -1);
            EXPECT_EQ(buf.Hex(), Expect({}, buf.bytes.size()));  // the buffer is left alone
            EXPECT_EQ(LoggedMessages(), f.log + r.tail);
        }
    }
}

TEST_F(InquiryTest, DoInquiryZeroFillsAndTruncatesTheAllocationLength) {
    struct Case {
        const char* name;
        unsigned char evpd;
        unsigned char page;
        unsigned int len;
        const char* cdb;
        size_t arrived;  // bytes the array sends before the zero fill shows
    };
    const Case cases[] = {
        // Page 0x80 is 24 bytes long: the rest of 64 stays zero.
        {"LongerThanThePage", 1, 0x80, 64, "12 01 80 00 40 00", 24},
        // 0x10024 goes out as 0x0024 in the CDB, the transfer keeps it whole.
        {"AllocationCutTo16Bits", 0, 0, 0x10024, "12 00 00 00 24 00", 36},
        {"AllocationHighByteKept", 0, 0, 0x18010, "12 00 00 80 10 00", 96},
        {"EvpdPassedUnchanged", 3, 0x83, 24, "12 03 83 00 18 00", 0},
    };
    hic::UniqueFd fd = OpenLun(kLunB, HIC_OPEN_READ_ONLY);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        NextCase();
        std::vector<unsigned char> buf(c.len, kGuard);
        const int rc = HIC_DoInquiry(fd.Get(), c.evpd, c.page, buf.data(), c.len);
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 1U);
        EXPECT_EQ(SpacedHex(commands[0].cdb), c.cdb);
        EXPECT_EQ(commands[0].dxfer_len, c.len);
        if (c.arrived == 0) {
            continue;  // only what was sent matters here
        }
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(commands[0].transferred, c.arrived);
        for (size_t i = c.arrived; i < buf.size(); ++i) {
            ASSERT_EQ(buf[i], 0) << "byte " << i;
        }
    }
}

// ---------------------------------------------------------------------------
// What each reader takes out of its page

TEST_F(InquiryTest, VendorIdTakesBytesEightToFifteen) {
    struct Case {
        const char* name;
        const char* field;  // the 8 bytes at 8-15 of the standard data
        uint32_t capacity;
        int rc;
        const char* written;  // a failed bounded copy clears the buffer
    };
    const Case cases[] = {
        {"Trelox", "54 52 45 4c 4f 58 20 20", 16, 0, "54 52 45 4c 4f 58 00 00"},
        {"Pelko", "50 45 4c 4b 4f 20 20 20", 16, 0, "50 45 4c 4b 4f 00 00 00"},
        {"EmbeddedBlankEndsIt", "41 42 20 43 44 20 20 20", 16, 0, "41 42 00 43 44 00 00 00"},
        {"LeadingBlank", "20 54 52 45 4c 4f 58 20", 16, 0, "00 54 52 45 4c 4f 58 00"},
        {"EightCharacters", "41 42 43 44 45 46 47 48", 16, 0, "41 42 43 44 45 46 47 48"},
        {"CapacityEight", "54 52 45 4c 4f 58 20 20", 8, 0, "54 52 45 4c 4f 58 00 00"},
        {"CapacitySevenFails", "54 52 45 4c 4f 58 20 20", 7, -1, "00 00 00 00 00 00 00"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ExpectRead(Json{{"patches", {{{"page", "std"}, {"offset", 8}, {"hex", c.field}}}}},
                   HIC_GetVendorId, c.capacity, c.rc, Hex(c.written),
                   c.rc == 0 ? "" : "ERR HIC_GetVendorId: memcpy_s failed.\n");
    }
}

TEST_F(InquiryTest, LunNameIsPickedBySelector) {
    const std::string s40 = "short-name-of-exactly-forty-characters!!";
    const std::string l256(256, 'L');
    // A field of n bytes, then the guard up to last, then a NUL at last.
    auto terminated = [](const std::string& text, size_t n, size_t last) {
        Bytes b = Field(text, n);
        b.resize(last, kGuard);
        b.push_back(0);
        return b;
    };
    struct Case {
        const char* name;
        std::string shortName;
        std::string longName;  // "" leaves it out
        int selector;          // -1 leaves it out
        uint32_t capacity;
        int rc;
        Bytes written;
    };
    const Case cases[] = {
        {"ShortWhenSelectorZero", "lun-short", "lun-long", 0, 257, 0,
         terminated("lun-short", 40, 256)},
        {"LongWhenSelectorOne", "lun-short", "lun-long", 1, 257, 0,
         terminated("lun-long", 256, 256)},
        {"HighSelectorByteCounts", "lun-short", "lun-long", 0x100, 257, 0,
         terminated("lun-long", 256, 256)},
        {"FullLongNameEndsAt256", "s", l256, -1, 257, 0, terminated(l256, 256, 256)},
        {"FullShortName", s40, "", -1, 257, 0, terminated(s40, 40, 256)},
        {"LongNameDoesNotFitIn100", "lun-short", "lun-long", -1, 100, -1, Bytes(100, 0)},
        {"ShortNameFitsIn100", "lun-short", "lun-long", 0, 100, 0, terminated("lun-short", 40, 99)},
        // The last byte is set to NUL even when it cuts the name.
        {"CapacityFortyCutsTheLastCharacter", s40, "", -1, 40, 0,
         terminated(s40.substr(0, 39), 39, 39)},
        {"CapacityThirtyNineFails", s40, "", -1, 39, -1, Bytes(39, 0)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Json lun = {{"name", c.shortName}};
        if (!c.longName.empty()) {
            lun["long_name"] = c.longName;
        }
        if (c.selector >= 0) {
            lun["name_selector"] = c.selector;
        }
        ExpectRead(lun, HIC_GetLunName, c.capacity, c.rc, c.written,
                   c.rc == 0 ? "" : "ERR HIC_GetLunName: memcpy_s failed.\n");
    }
}

TEST_F(InquiryTest, LunWwnRendersTheDesignatorInLowercaseHex) {
    const std::string full = "6e00abcdef0123456789fedcba98760f";
    const std::string nul(1, '\0');
    const char* const failed = "ERR HIC_TransBinaryToAscii: sprintf_s failed.\n";
    const struct {
        uint32_t capacity;
        int rc;
        std::string written;  // its NUL included when there is one
    } cases[] = {
        {257, 0, full + nul}, {33, 0, full + nul}, {32, 0, full.substr(0, 30) + nul},
        {3, 0, "6e" + nul},   {2, 0, ""},          {1, -1, nul},
        {0, -1, ""},
    };
    // The descriptor header says nothing useful; only bytes 8-23 count.
    const Json lun = {{"pages",
                       {{"83",
                         "00 83 00 00 ff ff ff ff 6e 00 ab cd ef 01 23 45 67 89 fe dc "
                         "ba 98 76 0f ff ff"}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.capacity);
        ExpectRead(lun, HIC_GetLunWwn, c.capacity, c.rc, Text(c.written), c.rc == 0 ? "" : failed);
    }
}

// The capacity limits are checked through the WWN above.
TEST_F(InquiryTest, TransBinaryToAsciiTakesCountBytesFromStart) {
    const unsigned char src[] = {0x00, 0x01, 0x7F, 0x80, 0xAB, 0xFF};
    const std::string nul(1, '\0');
    const struct {
        uint32_t start;
        uint32_t count;
        uint32_t capacity;
        std::string written;
    } cases[] = {
        {0, 6, 16, "00017f80abff" + nul},
        {0, 0, 16, ""},
        {2, 3, 16, "7f80ab" + nul},
        {0, 0, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + "+" + std::to_string(c.count));
        Guarded out(16);
        EXPECT_EQ(HIC_TransBinaryToAscii(src, c.start, c.count, out.data(), c.capacity), 0);
        EXPECT_EQ(out.Hex(), Expect(Text(c.written), out.bytes.size()));
    }
    Guarded out(16);
    EXPECT_EQ(HIC_TransBinaryToAscii(nullptr, 0, 6, out.data(), 16), -1);
    EXPECT_EQ(HIC_TransBinaryToAscii(src, 0, 6, nullptr, 16), -1);
    EXPECT_EQ(out.Hex(), Expect({}, out.bytes.size()));
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(InquiryTest, ArrayNameCopiesTheNonNulBytes) {
    Bytes letters(99);
    for (size_t i = 0; i < letters.size(); ++i) {
        letters[i] = static_cast<unsigned char>('A' + i % 26);
    }
    auto first = [&](size_t n) { return Bytes(letters.begin(), letters.begin() + n); };
    struct Case {
        const char* name;
        Bytes arrayName;
        bool lengthByte200;  // a length byte that runs past the name field
        uint32_t capacity;
        int rc;
        Bytes written;  // no terminator is ever written
    };
    const Case cases[] = {
        {"Plain", Text("array-one"), false, 81, 0, Text("array-one")},
        {"EmbeddedNulsArePacked", Hex("41 42 00 43 44"), false, 81, 0, Text("ABCD")},
        {"NulsEverywhere", Hex("00 41 00 00 42 00"), false, 81, 0, Text("AB")},
        {"OnlyNuls", Bytes(10, 0), false, 81, 0, {}},
        {"LengthZero", {}, false, 81, 0, {}},
        {"Length80", first(80), false, 81, 0, first(80)},
        {"Length81Fails", first(81), false, 81, -1, {}},
        {"Length99Fails", first(99), false, 81, -1, {}},
        {"CutToCapacity20", first(30), false, 20, 0, first(20)},
        {"OneAboveCapacity20", first(21), false, 20, 0, first(20)},
        {"EqualToCapacity20", first(20), false, 20, 0, first(20)},
        // The capacity still cuts a length that runs past the field.
        {"LengthByteBeyondTheField", Text("abcdefghijklmnopqrstuvwxyz"), true, 20, 0,
         Text("abcdefghijklmnopqrst")},
        {"LengthByteBeyondTheFieldCapacity81", Text("abc"), true, 81, -1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Json lun = {{"array_name", {{"hex", vnarray::ToHex(c.arrayName)}}}};
        if (c.lengthByte200) {
            lun["patches"] = Json::parse(R"([{"page": "c8", "offset": 106, "hex": "c8"}])");
        }
        ExpectRead(lun, HIC_GetArrayName, c.capacity, c.rc, c.written,
                   c.rc == 0 ? "" : "ERR HIC_GetArrayName: memcpy_s failed.\n");
    }
}

TEST_F(InquiryTest, ArrayVersionIsAcceptedFromTwoSeven) {
    const struct {
        const char* bytes;  // page 0xC0 bytes 183-187: major at 184, minor at 186
        int rc;
        const char* version;
    } cases[] = {
        {"aa 00 aa 00 aa", -1, "0.0"},   {"aa 01 aa 09 aa", -1, "1.9"},
        {"aa 01 aa ff aa", -1, "1.255"}, {"aa 02 ff 06 aa", -1, "2.6"},
        {"aa 02 00 07 aa", 0, "2.7"},    {"aa 02 00 0a aa", 0, "2.10"},
        {"aa 03 aa 00 aa", 0, "3.0"},    {"aa ff aa ff aa", 0, "255.255"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        ScopedLun lun(Json{{"patches", {{{"page", "c0"}, {"offset", 183}, {"hex", c.bytes}}}}});
        hic::UniqueFd fd = OpenLun(kCasePath, HIC_OPEN_READ_ONLY);
        for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
            SCOPED_TRACE(level);
            (void)std::remove(HIC_LOG_PATH);
            HIC_SetLogLevel(level);
            EXPECT_EQ(HIC_CheckArrayVersion(fd.Get()), c.rc);
            EXPECT_EQ(LoggedMessages(), level == HIC_LOG_DEBUG
                                            ? "DEBUG HIC_CheckArrayVersion: get array version {" +
                                                  std::string(c.version) + "}.\n"
                                            : "");
        }
    }
}

TEST_F(InquiryTest, ArraySnCopiesTwentyBytesAndChecksThem) {
    const char* const invalid = "ERR HIC_GetArraySn: array sn contains invalid characters.\n";
    struct Case {
        std::string name;
        Bytes serial;  // the 20 bytes at 4-23 of page 0x80
        uint32_t capacity;
        int rc;
        std::string log;
    };
    std::vector<Case> cases = {
        {"TwentyAlphanumerics", Text("ABCDEFGHIJ0123456789"), 21, 0, ""},
        {"ShortPaddedWithNuls", Field("SN01", 20), 21, 0, ""},
        {"FirstByteNulIsEmpty", Field(std::string("\0;;", 3), 20), 21, 0, ""},
        {"ForbiddenAfterNulIsIgnored", Field(std::string("AB\0;", 4), 20), 21, 0, ""},
        {"BlankIsAllowed", Text("ARRAY 01  ARRAY 02  "), 21, 0, ""},
        {"OtherPunctuationIsAllowed", Text("#%'()+,-./:=@[]^_{}~"), 21, 0, ""},
        {"ForbiddenLastByte", Text("ABCDEFGHIJ012345678;"), 21, -1, invalid},
        {"CapacityTwenty", Text("ABCDEFGHIJ0123456789"), 20, 0, ""},
        {"CapacityNineteenFails", Text("ABCDEFGHIJ0123456789"), 19, -1,
         "ERR HIC_GetArraySn: memcpy_s failed.\n"},
        {"HighBitBytesAreAllowed",
         Hex("bc be a2 dc fc bf aa bb a6 a4 e0 8a a1 80 ff 41 42 43 44 45"), 21, 0, ""},
    };
    // Each forbidden character, in the middle of an otherwise good number.
    for (const char ch : std::string("<>\"\\|?*;&$`\n!")) {
        std::string sn = "ARRAY0001XYZ0000000";
        sn.insert(sn.begin() + 9, ch);
        cases.push_back({"Forbidden " + std::to_string(ch), Text(sn), 21, -1, invalid});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(c.serial.size(), 20U);
        // Rejected bytes stay for the caller to replace; a failed copy clears.
        ExpectRead(Json{{"serial", {{"hex", vnarray::ToHex(c.serial)}}}}, HIC_GetArraySn,
                   c.capacity, c.rc, c.capacity < 20 ? Bytes(c.capacity, 0) : c.serial, c.log);
    }
}

TEST_F(InquiryTest, CheckInvalidCharsStopsAtTheBoundOrTheFirstNul) {
    const struct {
        const char* name;
        const char* text;
        uint32_t bound;
        int rc;
    } cases[] = {
        {"Clean", "ARRAY0001", 9, 0},
        {"Empty", "", 20, 0},
        {"BoundZero", ";", 0, 0},
        {"ForbiddenAtTheBound", "AB;", 2, 0},
        {"ForbiddenBeforeTheBound", "AB;", 3, -1},
        {"ForbiddenFirst", "!AB", 3, -1},
        {"ForbiddenAfterNul", "AB\0;", 4, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(HIC_CheckInvalidChars(c.text, c.bound), c.rc);
    }
    // Every byte value, after a good one.
    const std::string forbidden = "<>\"\\|?*;&$`\n!";
    for (int ch = 1; ch < 256; ++ch) {
        const char text[] = {'A', static_cast<char>(ch), '\0'};
        const bool bad = forbidden.find(static_cast<char>(ch)) != std::string::npos;
        EXPECT_EQ(HIC_CheckInvalidChars(text, 2), bad ? -1 : 0) << ch;
    }
    EXPECT_EQ(HIC_CheckInvalidChars(nullptr, 20), -1);
    EXPECT_EQ(LoggedMessages(), "");
}

}  // namespace
}  // namespace hic_test
