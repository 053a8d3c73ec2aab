// INQUIRY and the identity readers against the virtual array: the 6-byte
// CDB each reader sends, and the bytes it takes out of the page it gets.
#include "scsi/inquiry.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
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

hic::UniqueFd OpenCaseLun() {
    hic::UniqueFd fd(HIC_OpenDevByPath(kCasePath, HIC_OPEN_READ_ONLY));
    EXPECT_TRUE(fd.Valid());
    return fd;
}

// ---------------------------------------------------------------------------
// What each reader sends

TEST_F(InquiryTest, EachReaderSendsItsOneInquiry) {
    struct Case {
        const char* name;
        std::function<int(int)> read;
        const char* cdb;
        uint32_t dxferLen;
    };
    std::vector<char> buf(300);
    const Case cases[] = {
        {"Vendor", [&](int fd) { return HIC_GetVendorId(fd, buf.data(), 16); }, "12 00 00 00 24 00",
         36},
        {"LunName", [&](int fd) { return HIC_GetLunName(fd, buf.data(), 257); },
         "12 01 c8 02 00 00", 512},
        {"LunWwn", [&](int fd) { return HIC_GetLunWwn(fd, buf.data(), 257); }, "12 01 83 00 18 00",
         24},
        {"ArrayName", [&](int fd) { return HIC_GetArrayName(fd, buf.data(), 81); },
         "12 01 c8 02 00 00", 512},
        {"ArrayVersion", [&](int fd) { return HIC_CheckArrayVersion(fd); }, "12 01 c0 02 cc 00",
         716},
        {"ArraySn", [&](int fd) { return HIC_GetArraySn(fd, buf.data(), 21); }, "12 01 80 00 1c 00",
         28},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().Reset();
        EXPECT_EQ(c.read(fd.Get()), 0);
        const auto commands = Commands();
        ASSERT_EQ(commands.size(), 1U);
        EXPECT_EQ(SpacedHex(commands[0].cdb), c.cdb);
        ExpectRequestFields(commands[0], -3, 6, c.dxferLen);
        EXPECT_EQ(commands[0].open_flags, O_RDONLY);
    }
    EXPECT_EQ(LoggedMessages(), "");
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
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().Reset();
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
// HIC_GetVendorId

struct VendorCase {
    const char* name;
    const char* field;  // the 8 bytes at 8-15 of the standard data
    uint32_t capacity;
    int rc;
    const char* written;  // the caller's buffer afterwards, before its guard
    const char* log;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const VendorCase& c, std::ostream* os) {
    *os << c.name;
}

const VendorCase kVendorCases[] = {
    {"Trelox", "54 52 45 4c 4f 58 20 20", 16, 0, "54 52 45 4c 4f 58 00 00", ""},
    {"Pelko", "50 45 4c 4b 4f 20 20 20", 16, 0, "50 45 4c 4b 4f 00 00 00", ""},
    {"EmbeddedBlankEndsIt", "41 42 20 43 44 20 20 20", 16, 0, "41 42 00 43 44 00 00 00", ""},
    {"LeadingBlank", "20 54 52 45 4c 4f 58 20", 16, 0, "00 54 52 45 4c 4f 58 00", ""},
    {"EightCharacters", "41 42 43 44 45 46 47 48", 16, 0, "41 42 43 44 45 46 47 48", ""},
    {"CapacityEight", "54 52 45 4c 4f 58 20 20", 8, 0, "54 52 45 4c 4f 58 00 00", ""},
    // The failed bounded copy clears the caller's buffer.
    {"CapacitySevenFails", "54 52 45 4c 4f 58 20 20", 7, -1, "00 00 00 00 00 00 00",
     "ERR HIC_GetVendorId: memcpy_s failed.\n"},
};

class VendorIdTest : public ScsiRigTest, public ::testing::WithParamInterface<VendorCase> {};

TEST_P(VendorIdTest, TakesBytesEightToFifteen) {
    const VendorCase& c = GetParam();
    ScopedLun lun(Json{{"patches", {{{"page", "std"}, {"offset", 8}, {"hex", c.field}}}}});
    hic::UniqueFd fd = OpenCaseLun();
    Guarded buf(c.capacity);
    EXPECT_EQ(HIC_GetVendorId(fd.Get(), buf.data(), c.capacity), c.rc);
    EXPECT_EQ(buf.Hex(), Expect(Hex(c.written), buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Table, VendorIdTest, ::testing::ValuesIn(kVendorCases), CaseName());

TEST_F(InquiryTest, FailingStandardInquiryLeavesTheVendorBufferAlone) {
    struct Case {
        const char* name;
        Json fault;
        const char* log;
    };
    const Case cases[] = {
        {"Status",
         {{"status", 2}},
         "ERR HIC_DoInquiry: inqury page 0x0 failed.status:2, host_status:0, driver_status:8.\n"
         "ERR HIC_GetVendorId: get vendor failed.\n"},
        {"HostStatus",
         {{"host_status", 7}},
         "ERR HIC_DoInquiry: inqury page 0x0 failed.status:0, host_status:7, driver_status:0.\n"
         "ERR HIC_GetVendorId: get vendor failed.\n"},
        {"Errno",
         {{"errno", "EIO"}},
         "ERR HIC_DoInquiry: ioctl(SG_IO) failed: Input/output error (errno=5).\n"
         "ERR HIC_GetVendorId: get vendor failed.\n"},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().ClearFaults();
        (void)std::remove(HIC_LOG_PATH);
        Json fault = c.fault;
        fault["lun"] = "sdb";
        fault["kind"] = "std";
        Array().InjectFault(fault);
        Guarded buf(16);
        EXPECT_EQ(HIC_GetVendorId(fd.Get(), buf.data(), 16), -1);
        EXPECT_EQ(buf.Hex(), Expect({}, buf.bytes.size()));
        EXPECT_EQ(LoggedMessages(), c.log);
    }
}

TEST_F(InquiryTest, ReadersOnAClosedDescriptorLogTheIoctlError) {
    const int fd = ::dup(0);
    ::close(fd);
    std::vector<char> buf(300);
    const std::string ioctl =
        "ERR HIC_DoInquiry: ioctl(SG_IO) failed: Bad file descriptor (errno=9).\n";
    struct Case {
        const char* name;
        std::function<int()> read;
        std::string log;
    };
    const Case cases[] = {
        {"Vendor", [&] { return HIC_GetVendorId(fd, buf.data(), 16); },
         ioctl + "ERR HIC_GetVendorId: get vendor failed.\n"},
        {"LunName", [&] { return HIC_GetLunName(fd, buf.data(), 257); }, ioctl},
        {"LunWwn", [&] { return HIC_GetLunWwn(fd, buf.data(), 257); }, ioctl},
        {"ArrayName", [&] { return HIC_GetArrayName(fd, buf.data(), 81); }, ioctl},
        {"ArrayVersion", [&] { return HIC_CheckArrayVersion(fd); }, ioctl},
        {"ArraySn", [&] { return HIC_GetArraySn(fd, buf.data(), 21); },
         ioctl + "ERR HIC_GetArraySn: get array sn failed.\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        (void)std::remove(HIC_LOG_PATH);
        EXPECT_EQ(c.read(), -1);
        EXPECT_EQ(LoggedMessages(), c.log);
    }
}

// ---------------------------------------------------------------------------
// HIC_GetLunName

constexpr const char* kShort40 = "short-name-of-exactly-forty-characters!!";

struct LunNameCase {
    const char* name;
    Json lun;
    uint32_t capacity;
    int rc;
    Bytes written;  // the caller's buffer afterwards, before its guard
    const char* log;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const LunNameCase& c, std::ostream* os) {
    *os << c.name;
}

// Bytes 0..n-1 of text, NUL-padded to n.
Bytes Field(const std::string& text, size_t n) {
    Bytes b(text.begin(), text.end());
    b.resize(n, 0);
    return b;
}

// A field of n bytes, then the guard up to last, then a NUL at last.
Bytes Terminated(Bytes field, size_t last) {
    field.resize(last, kGuard);
    field.push_back(0);
    return field;
}

const std::vector<LunNameCase>& LunNameCases() {
    const std::string long256(256, 'L');
    static const std::vector<LunNameCase> cases = {
        {"ShortNameWhenSelectorZero",
         {{"name", "lun-short"}, {"long_name", "lun-long"}, {"name_selector", 0}},
         257,
         0,
         Terminated(Field("lun-short", 40), 256),
         ""},
        {"LongNameWhenSelectorOne",
         {{"name", "lun-short"}, {"long_name", "lun-long"}, {"name_selector", 1}},
         257,
         0,
         Terminated(Field("lun-long", 256), 256),
         ""},
        {"HighSelectorByteCounts",
         {{"name", "lun-short"}, {"long_name", "lun-long"}, {"name_selector", 0x100}},
         257,
         0,
         Terminated(Field("lun-long", 256), 256),
         ""},
        {"FullLongNameEndsAt256",
         {{"name", "s"}, {"long_name", long256}},
         257,
         0,
         Terminated(Field(long256, 256), 256),
         ""},
        {"FullShortName", {{"name", kShort40}}, 257, 0, Terminated(Field(kShort40, 40), 256), ""},
        {"LongNameDoesNotFitIn100",
         {{"name", "lun-short"}, {"long_name", "lun-long"}},
         100,
         -1,
         Bytes(100, 0),
         "ERR HIC_GetLunName: memcpy_s failed.\n"},
        {"ShortNameFitsIn100",
         {{"name", "lun-short"}, {"long_name", "lun-long"}, {"name_selector", 0}},
         100,
         0,
         Terminated(Field("lun-short", 40), 99),
         ""},
        // The last byte is set to NUL even when it cuts the name.
        {"CapacityFortyCutsTheLastCharacter",
         {{"name", kShort40}},
         40,
         0,
         Terminated(Field(std::string(kShort40, 39), 39), 39),
         ""},
        {"CapacityThirtyNineFails",
         {{"name", kShort40}},
         39,
         -1,
         Bytes(39, 0),
         "ERR HIC_GetLunName: memcpy_s failed.\n"},
    };
    return cases;
}

class LunNameTest : public ScsiRigTest, public ::testing::WithParamInterface<LunNameCase> {};

TEST_P(LunNameTest, PicksTheNameBySelector) {
    const LunNameCase& c = GetParam();
    ScopedLun lun(c.lun);
    hic::UniqueFd fd = OpenCaseLun();
    Guarded buf(c.capacity);
    EXPECT_EQ(HIC_GetLunName(fd.Get(), buf.data(), c.capacity), c.rc);
    EXPECT_EQ(buf.Hex(), Expect(c.written, buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Table, LunNameTest, ::testing::ValuesIn(LunNameCases()), CaseName());

// ---------------------------------------------------------------------------
// HIC_GetLunWwn and HIC_TransBinaryToAscii

struct WwnCase {
    const char* name;
    uint32_t capacity;
    int rc;
    std::string written;  // text written, its NUL included when there is one
    const char* log;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const WwnCase& c, std::ostream* os) {
    *os << c.name;
}

const std::vector<WwnCase>& WwnCases() {
    static const std::string full = "6e00abcdef0123456789fedcba98760f";
    static const std::vector<WwnCase> cases = {
        {"Capacity257", 257, 0, full + std::string(1, '\0'), ""},
        {"Capacity33", 33, 0, full + std::string(1, '\0'), ""},
        {"Capacity32", 32, 0, full.substr(0, 30) + std::string(1, '\0'), ""},
        {"Capacity3", 3, 0, std::string("6e") + '\0', ""},
        {"Capacity2", 2, 0, "", ""},
        {"Capacity1", 1, -1, std::string(1, '\0'),
         "ERR HIC_TransBinaryToAscii: sprintf_s failed.\n"},
        {"Capacity0", 0, -1, "", "ERR HIC_TransBinaryToAscii: sprintf_s failed.\n"},
    };
    return cases;
}

class LunWwnTest : public ScsiRigTest, public ::testing::WithParamInterface<WwnCase> {};

TEST_P(LunWwnTest, RendersTheDesignatorInLowercaseHex) {
    const WwnCase& c = GetParam();
    // The descriptor header says nothing useful; only bytes 8-23 count.
    ScopedLun lun(Json{{"pages",
                        {{"83",
                          "00 83 00 00 ff ff ff ff 6e 00 ab cd ef 01 23 45 67 89 fe dc "
                          "ba 98 76 0f ff ff"}}}});
    hic::UniqueFd fd = OpenCaseLun();
    Guarded buf(c.capacity);
    EXPECT_EQ(HIC_GetLunWwn(fd.Get(), buf.data(), c.capacity), c.rc);
    EXPECT_EQ(buf.Hex(), Expect(Text(c.written), buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Table, LunWwnTest, ::testing::ValuesIn(WwnCases()), CaseName());

TEST_F(InquiryTest, TransBinaryToAsciiTable) {
    const unsigned char src[] = {0x00, 0x01, 0x7F, 0x80, 0xAB, 0xFF};
    struct Case {
        const char* name;
        uint32_t start;
        uint32_t count;
        uint32_t capacity;
        int rc;
        std::string written;
        const char* log;
    };
    const std::string nul(1, '\0');
    const Case cases[] = {
        {"AllSix", 0, 6, 16, 0, "00017f80abff" + nul, ""},
        {"CountZeroWritesNothing", 0, 0, 16, 0, "", ""},
        {"FromStartIndex", 2, 3, 16, 0, "7f80ab" + nul, ""},
        {"Capacity7HoldsThreePairs", 0, 6, 7, 0, "00017f" + nul, ""},
        {"Capacity8StillThreePairs", 0, 6, 8, 0, "00017f" + nul, ""},
        {"Capacity9HoldsFour", 0, 6, 9, 0, "00017f80" + nul, ""},
        {"Capacity2WritesNothing", 0, 6, 2, 0, "", ""},
        {"Capacity1Fails", 0, 6, 1, -1, nul, "ERR HIC_TransBinaryToAscii: sprintf_s failed.\n"},
        {"Capacity0Fails", 0, 6, 0, -1, "", "ERR HIC_TransBinaryToAscii: sprintf_s failed.\n"},
        {"CountZeroCapacity0", 0, 0, 0, 0, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        (void)std::remove(HIC_LOG_PATH);
        Guarded out(16);
        EXPECT_EQ(HIC_TransBinaryToAscii(src, c.start, c.count, out.data(), c.capacity), c.rc);
        EXPECT_EQ(out.Hex(), Expect(Text(c.written), out.bytes.size()));
        EXPECT_EQ(LoggedMessages(), c.log);
    }
    Guarded out(16);
    EXPECT_EQ(HIC_TransBinaryToAscii(nullptr, 0, 6, out.data(), 16), -1);
    EXPECT_EQ(HIC_TransBinaryToAscii(src, 0, 6, nullptr, 16), -1);
    EXPECT_EQ(out.Hex(), Expect({}, out.bytes.size()));
    EXPECT_EQ(LoggedMessages(), "");
}

// ---------------------------------------------------------------------------
// HIC_GetArrayName

struct ArrayNameCase {
    const char* name;
    Json lun;
    uint32_t capacity;
    int rc;
    Bytes written;  // before the guard: no terminator is ever written
    const char* log;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const ArrayNameCase& c, std::ostream* os) {
    *os << c.name;
}

Json NameHex(const Bytes& bytes) {
    return {{"array_name", {{"hex", vnarray::ToHex(bytes)}}}};
}

Bytes Letters(size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<unsigned char>('A' + i % 26);
    }
    return b;
}

const std::vector<ArrayNameCase>& ArrayNameCases() {
    static const std::vector<ArrayNameCase> cases = {
        {"Plain", NameHex(Text("array-one")), 81, 0, Text("array-one"), ""},
        {"EmbeddedNulsArePacked", NameHex(Hex("41 42 00 43 44")), 81, 0, Text("ABCD"), ""},
        {"NulsEverywhere", NameHex(Hex("00 41 00 00 42 00")), 81, 0, Text("AB"), ""},
        {"OnlyNuls", NameHex(Bytes(10, 0)), 81, 0, {}, ""},
        {"LengthZero", NameHex({}), 81, 0, {}, ""},
        {"Length80", NameHex(Letters(80)), 81, 0, Letters(80), ""},
        {"Length81Fails",
         NameHex(Letters(81)),
         81,
         -1,
         {},
         "ERR HIC_GetArrayName: memcpy_s failed.\n"},
        {"Length99Fails",
         NameHex(Letters(99)),
         81,
         -1,
         {},
         "ERR HIC_GetArrayName: memcpy_s failed.\n"},
        {"CutToCapacity20", NameHex(Letters(30)), 20, 0, Letters(20), ""},
        {"OneAboveCapacity20", NameHex(Letters(21)), 20, 0, Letters(20), ""},
        {"EqualToCapacity20", NameHex(Letters(20)), 20, 0, Letters(20), ""},
        // A length byte of 200 runs past the name field; the capacity still cuts it.
        {"LengthByteBeyondTheField",
         {{"array_name", "abcdefghijklmnopqrstuvwxyz"},
          {"patches", {{{"page", "c8"}, {"offset", 106}, {"hex", "c8"}}}}},
         20,
         0,
         Text("abcdefghijklmnopqrst"),
         ""},
        {"LengthByteBeyondTheFieldCapacity81",
         {{"array_name", "abc"}, {"patches", {{{"page", "c8"}, {"offset", 106}, {"hex", "c8"}}}}},
         81,
         -1,
         {},
         "ERR HIC_GetArrayName: memcpy_s failed.\n"},
    };
    return cases;
}

class ArrayNameTest : public ScsiRigTest, public ::testing::WithParamInterface<ArrayNameCase> {};

TEST_P(ArrayNameTest, CopiesTheNonNulBytes) {
    const ArrayNameCase& c = GetParam();
    ScopedLun lun(c.lun);
    hic::UniqueFd fd = OpenCaseLun();
    Guarded buf(c.capacity);
    EXPECT_EQ(HIC_GetArrayName(fd.Get(), buf.data(), c.capacity), c.rc);
    EXPECT_EQ(buf.Hex(), Expect(c.written, buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Table, ArrayNameTest, ::testing::ValuesIn(ArrayNameCases()), CaseName());

// ---------------------------------------------------------------------------
// HIC_CheckArrayVersion

struct VersionCase {
    const char* name;
    const char* bytes;  // page 0xC0 bytes 183-187: major at 184, minor at 186
    int rc;
    const char* line;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const VersionCase& c, std::ostream* os) {
    *os << c.name;
}

const VersionCase kVersionCases[] = {
    {"V0_0", "aa 00 aa 00 aa", -1, "DEBUG HIC_CheckArrayVersion: get array version {0.0}.\n"},
    {"V1_9", "aa 01 aa 09 aa", -1, "DEBUG HIC_CheckArrayVersion: get array version {1.9}.\n"},
    {"V1_255", "aa 01 aa ff aa", -1, "DEBUG HIC_CheckArrayVersion: get array version {1.255}.\n"},
    {"V2_6", "aa 02 ff 06 aa", -1, "DEBUG HIC_CheckArrayVersion: get array version {2.6}.\n"},
    {"V2_7", "aa 02 00 07 aa", 0, "DEBUG HIC_CheckArrayVersion: get array version {2.7}.\n"},
    {"V2_10", "aa 02 00 0a aa", 0, "DEBUG HIC_CheckArrayVersion: get array version {2.10}.\n"},
    {"V3_0", "aa 03 aa 00 aa", 0, "DEBUG HIC_CheckArrayVersion: get array version {3.0}.\n"},
    {"V255_255", "aa ff aa ff aa", 0,
     "DEBUG HIC_CheckArrayVersion: get array version {255.255}.\n"},
};

class ArrayVersionTest : public ScsiRigTest, public ::testing::WithParamInterface<VersionCase> {};

TEST_P(ArrayVersionTest, AcceptsFromTwoSeven) {
    const VersionCase& c = GetParam();
    ScopedLun lun(Json{{"patches", {{{"page", "c0"}, {"offset", 183}, {"hex", c.bytes}}}}});
    hic::UniqueFd fd = OpenCaseLun();
    for (const int level : {HIC_LOG_DEBUG, HIC_LOG_INFO}) {
        SCOPED_TRACE(level);
        (void)std::remove(HIC_LOG_PATH);
        HIC_SetLogLevel(level);
        EXPECT_EQ(HIC_CheckArrayVersion(fd.Get()), c.rc);
        EXPECT_EQ(LoggedMessages(), level == HIC_LOG_DEBUG ? c.line : "");
    }
}

INSTANTIATE_TEST_SUITE_P(Table, ArrayVersionTest, ::testing::ValuesIn(kVersionCases), CaseName());

TEST_F(InquiryTest, VersionPageThatIsNotSupportedRejects) {
    ScopedLun lun(Json{{"pages", {{"c0", nullptr}}}});
    hic::UniqueFd fd = OpenCaseLun();
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    EXPECT_EQ(HIC_CheckArrayVersion(fd.Get()), -1);
    EXPECT_EQ(LoggedMessages(),
              "ERR HIC_DoInquiry: inqury page 0xc0 failed.status:2, host_status:0, "
              "driver_status:8.\n");
}

TEST_F(InquiryTest, FailingPageInquiriesLogOnlyTheirOwnLine) {
    struct Case {
        const char* name;
        const char* kind;
        std::function<int(int, char*)> read;
        std::string log;
    };
    const Case cases[] = {
        {"LunName", "pagec8", [](int fd, char* b) { return HIC_GetLunName(fd, b, 257); },
         "ERR HIC_DoInquiry: inqury page 0xc8 failed.status:0, host_status:7, driver_status:0.\n"},
        {"ArrayName", "pagec8", [](int fd, char* b) { return HIC_GetArrayName(fd, b, 81); },
         "ERR HIC_DoInquiry: inqury page 0xc8 failed.status:0, host_status:7, driver_status:0.\n"},
        {"LunWwn", "page83", [](int fd, char* b) { return HIC_GetLunWwn(fd, b, 257); },
         "ERR HIC_DoInquiry: inqury page 0x83 failed.status:0, host_status:7, driver_status:0.\n"},
        {"ArraySn", "page80", [](int fd, char* b) { return HIC_GetArraySn(fd, b, 21); },
         "ERR HIC_DoInquiry: inqury page 0x80 failed.status:0, host_status:7, driver_status:0.\n"
         "ERR HIC_GetArraySn: get array sn failed.\n"},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(kLunB, HIC_OPEN_READ_ONLY));
    ASSERT_TRUE(fd.Valid());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Array().ClearFaults();
        (void)std::remove(HIC_LOG_PATH);
        Array().InjectFault({{"lun", "sdb"}, {"kind", c.kind}, {"host_status", 7}});
        Guarded buf(257);
        EXPECT_EQ(c.read(fd.Get(), buf.data()), -1);
        EXPECT_EQ(buf.Hex(), Expect({}, buf.bytes.size()));  // the buffer is left alone
        EXPECT_EQ(LoggedMessages(), c.log);
    }
}

// ---------------------------------------------------------------------------
// HIC_GetArraySn and HIC_CheckInvalidChars

struct SnCase {
    std::string name;
    Bytes serial;  // the 20 bytes at 4-23 of page 0x80
    uint32_t capacity;
    int rc;
    const char* log;
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const SnCase& c, std::ostream* os) {
    *os << c.name;
}

const char* const kInvalidSn = "ERR HIC_GetArraySn: array sn contains invalid characters.\n";

std::vector<SnCase> SnCases() {
    std::vector<SnCase> cases = {
        {"TwentyAlphanumerics", Text("ABCDEFGHIJ0123456789"), 21, 0, ""},
        {"ShortPaddedWithNuls", Field("SN01", 20), 21, 0, ""},
        {"FirstByteNulIsEmpty", Field(std::string("\0;;", 3), 20), 21, 0, ""},
        {"ForbiddenAfterNulIsIgnored", Field(std::string("AB\0;", 4), 20), 21, 0, ""},
        {"BlankIsAllowed", Text("ARRAY 01  ARRAY 02  "), 21, 0, ""},
        {"OtherPunctuationIsAllowed", Text("#%'()+,-./:=@[]^_{}~"), 21, 0, ""},
        {"ForbiddenLastByte", Text("ABCDEFGHIJ012345678;"), 21, -1, kInvalidSn},
        {"CapacityTwenty", Text("ABCDEFGHIJ0123456789"), 20, 0, ""},
        {"CapacityNineteenFails", Text("ABCDEFGHIJ0123456789"), 19, -1,
         "ERR HIC_GetArraySn: memcpy_s failed.\n"},
        {"HighBitBytesAreAllowed",
         Hex("bc be a2 dc fc bf aa bb a6 a4 e0 8a a1 80 ff 41 42 43 44 45"), 21, 0, ""},
    };
    // Each forbidden character, in the middle of an otherwise good number.
    const struct {
        const char* name;
        char c;
    } forbidden[] = {{"LessThan", '<'},   {"GreaterThan", '>'}, {"DoubleQuote", '"'},
                     {"Backslash", '\\'}, {"VerticalBar", '|'}, {"Question", '?'},
                     {"Asterisk", '*'},   {"Semicolon", ';'},   {"Ampersand", '&'},
                     {"Dollar", '$'},     {"Backquote", '`'},   {"Newline", '\n'},
                     {"Exclamation", '!'}};
    for (const auto& f : forbidden) {
        std::string sn = "ARRAY0001XYZ0000000";
        sn.insert(sn.begin() + 9, f.c);
        cases.push_back({std::string("Forbidden") + f.name, Text(sn), 21, -1, kInvalidSn});
    }
    return cases;
}

class ArraySnTest : public ScsiRigTest, public ::testing::WithParamInterface<SnCase> {};

TEST_P(ArraySnTest, CopiesTwentyBytesAndChecksThem) {
    const SnCase& c = GetParam();
    ASSERT_EQ(c.serial.size(), 20U);
    ScopedLun lun(Json{{"serial", {{"hex", vnarray::ToHex(c.serial)}}}});
    hic::UniqueFd fd = OpenCaseLun();
    Guarded buf(c.capacity);
    EXPECT_EQ(HIC_GetArraySn(fd.Get(), buf.data(), c.capacity), c.rc);
    // Rejected bytes stay for the caller to replace; a failed copy clears.
    const Bytes written = c.capacity < 20 ? Bytes(c.capacity, 0) : c.serial;
    EXPECT_EQ(buf.Hex(), Expect(written, buf.bytes.size()));
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Table, ArraySnTest, ::testing::ValuesIn(SnCases()), CaseName());

TEST_F(InquiryTest, CheckInvalidCharsStopsAtTheBoundOrTheFirstNul) {
    struct Case {
        const char* name;
        const char* text;
        uint32_t bound;
        int rc;
    };
    const Case cases[] = {
        {"Clean", "ARRAY0001", 9, 0},
        {"Empty", "", 20, 0},
        {"BoundZero", ";", 0, 0},
        {"ForbiddenAtTheBound", "AB;", 2, 0},
        {"ForbiddenBeforeTheBound", "AB;", 3, -1},
        {"ForbiddenFirst", "!AB", 3, -1},
        {"ForbiddenAfterNul", "AB\0;", 4, 0},
        {"AllThirteen", "<>\"\\|?*;&$`\n!", 13, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(HIC_CheckInvalidChars(c.text, c.bound), c.rc);
    }
    for (const char ch : std::string("<>\"\\|?*;&$`\n!")) {
        const char text[] = {'A', ch, 'B', '\0'};
        EXPECT_EQ(HIC_CheckInvalidChars(text, 3), -1) << static_cast<int>(ch);
    }
    for (int ch = 1; ch < 256; ++ch) {
        const char text[] = {static_cast<char>(ch), '\0'};
        const bool forbidden =
            std::string("<>\"\\|?*;&$`\n!").find(static_cast<char>(ch)) != std::string::npos;
        EXPECT_EQ(HIC_CheckInvalidChars(text, 1), forbidden ? -1 : 0) << ch;
    }
    EXPECT_EQ(HIC_CheckInvalidChars(nullptr, 20), -1);
    EXPECT_EQ(LoggedMessages(), "");
}

}  // namespace
}  // namespace hic_test
