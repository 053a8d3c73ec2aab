// The settings file and the host address the daemon reads from it, on the
// real file inside the host sandbox: the file's grammar, the address
// parsers, and the two together.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "settings/host_address.h"
#include "settings/settings_file.h"
#include "support/support.h"

namespace {

using hic_test::LoggedMessages;

constexpr uint32_t kLen = HIC_HOST_INFO_LINE_LEN;

void WriteSettings(const std::string& content) {
    hic_test::WriteFile(HIC_HOST_INFO_PATH, content);
}

// Every test starts without a settings file and leaves none behind.
class SettingsTest : public hic_test::SandboxTest {
  protected:
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        (void)std::remove(HIC_HOST_INFO_PATH);
    }
    void TearDown() override {
        hic_test::SandboxTest::TearDown();
        (void)std::remove(HIC_HOST_INFO_PATH);
    }
};

struct FileCase {
    const char* name;
    std::string content;
    int32_t rc;
    std::string ip;    // text of the address buffer, up to its NUL
    std::string type;  // exact bytes of the type buffer before the zero fill
    std::string log;
};

const std::string kX250(250, 'x');

const FileCase kFileCases[] = {
    {"AddressLineFirst", "IpAddress=fe80::1;\nIpType=IPv6;\n", 0, "fe80::1", "IPv6", ""},
    {"AllWhiteSpaceKindsTrimmed", "IpType=IPv4;\nIpAddress=\t\v\f\r 10.0.0.1\t\r ;\n", 0,
     "10.0.0.1", "IPv4", ""},
    {"TypeKeptUntrimmed", "IpType= IPv4 ;\nIpAddress=1.2.3.4;\n", 0, "1.2.3.4", " IPv4 ", ""},
    {"TextAfterSemicolonIgnored", "IpType=IPv6; x=y;\nIpAddress=::1;trailing\n", 0, "::1", "IPv6",
     ""},
    {"CommentedLineWins", "#IpType=IPv6;\nIpType=IPv4;\nIpAddress=1.2.3.4;\n", 0, "1.2.3.4", "IPv6",
     ""},
    {"KeyIsCaseSensitive", "iptype=IPv6;\nIpType=IPv4;\nIpAddress=1.2.3.4;\n", 0, "1.2.3.4", "IPv4",
     ""},
    {"ValueFromFirstEquals", "X=1 IpType=IPv4;\nIpAddress=1.2.3.4;\n", 0, "1.2.3.4",
     "1 IpType=IPv4", ""},
    {"SemicolonBeforeEqualsNotUsed", ";IpType=IPv4;\nIpAddress=1.2.3.4;\n", 0, "1.2.3.4", "IPv4",
     ""},
    {"WhiteSpaceOnlyAddressIsEmpty", "IpType=IPv4;\nIpAddress= \t ;\n", 0, "", "IPv4", ""},
    {"EmptyAddressFails", "IpType=IPv4;\nIpAddress=;\n", -1, "", "IPv4", ""},
    {"BlankBeforeEqualsIsNoKey", "IpType=IPv4;\nIpAddress = 10.0.0.1;\n", -1, "", "IPv4",
     "ERR HIC_GetIpAndType: Read IpAddress failed.\n"},
    {"NoTypeLine", "IpAddress=1.2.3.4;\n", -1, "", "",
     "ERR HIC_GetIpAndType: Read IpType failed.\n"},
    {"LastLineWithoutSemicolonOrNewline", "IpType=IPv4;\nIpAddress=1.2.3.4", -1, "", "IPv4",
     "ERR HIC_GetValueFromLine: No \";\" found in line {IpAddress=1.2.3.4}.\n"},
    // 250 + 5 characters fill the first piece: the key is cut after "IpTyp"
    // and neither piece holds it, so the next line is the type line.
    {"KeySplitAcrossPieces", kX250 + "IpType=IPv4;\nIpType=IPv6;\nIpAddress=::1;\n", 0, "::1",
     "IPv6", ""},
    // The key ends on character 255: found, but the ";" lies in the next piece.
    {"KeyEndsThePiece", std::string(248, 'x') + "IpType=IPv4;\nIpAddress=::1;\n", -1, "", "",
     "ERR HIC_GetValueFromLine: No \";\" found in line {" + std::string(248, 'x') + "IpType=}.\n"},
    // The rest of a long line is a piece, and a line, of its own.
    {"SecondPieceIsALine", std::string(255, 'x') + "IpType=IPv6;\nIpAddress=::1;\n", 0, "::1",
     "IPv6", ""},
};

class GetIpAndTypeTest : public SettingsTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(GetIpAndTypeTest, ReadsBothValues) {
    const FileCase& c = GetParam();
    WriteSettings(c.content);
    std::vector<char> ip(kLen, '\0');
    std::vector<char> type(kLen, '\0');
    EXPECT_EQ(HIC_GetIpAndType(ip.data(), type.data(), kLen), c.rc);
    EXPECT_EQ(std::string(ip.data()), c.ip);
    // The type is copied without a terminator: the zero fill behind it stays.
    std::string expectedType = c.type;
    expectedType.resize(kLen, '\0');
    EXPECT_EQ(std::string(type.data(), type.size()), expectedType);
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Grammar, GetIpAndTypeTest, ::testing::ValuesIn(kFileCases),
                         hic_test::CaseName());

using Field = std::array<unsigned char, 16>;

constexpr unsigned char kFill = 0xEE;  // marks bytes nobody may write

Field Filled() {
    Field f{};
    f.fill(kFill);
    return f;
}

// IPv4 writes bytes 0 to 3 only; the rest keeps whatever the caller put there.
Field V4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    Field f = Filled();
    f[0] = a;
    f[1] = b;
    f[2] = c;
    f[3] = d;
    return f;
}

Field V6(std::array<uint16_t, 8> groups) {
    Field f{};
    for (size_t k = 0; k < groups.size(); ++k) {
        f[2 * k] = static_cast<unsigned char>(groups[k] >> 8);
        f[2 * k + 1] = static_cast<unsigned char>(groups[k] & 0xFF);
    }
    return f;
}

struct AddrCase {
    const char* name;
    unsigned char type;
    const char* text;
    int32_t rc;
    Field field;  // the whole field afterwards (prefilled with kFill)
    const char* log = "";
};

const AddrCase kAddrCases[] = {
    {"V4Max", HIC_IP_TYPE_V4, "255.255.255.255", 0, V4(255, 255, 255, 255)},
    {"V4LeadingZerosDecimal", HIC_IP_TYPE_V4, "010.1.1.1", 0, V4(10, 1, 1, 1)},
    {"V4BlankInsidePartIgnored", HIC_IP_TYPE_V4, "1 0.0 .0. 1", 0, V4(10, 0, 0, 1)},
    {"V4PartAbove255", HIC_IP_TYPE_V4, "256.1.1.1", -1, Filled()},
    {"V4TwoDots", HIC_IP_TYPE_V4, "1.2.3", -1, Filled()},
    {"V4FourDots", HIC_IP_TYPE_V4, "1.2.3.4.", -1, Filled()},
    {"V4FirstCharDot", HIC_IP_TYPE_V4, "...", -1, Filled()},
    {"V4TabInsideRefused", HIC_IP_TYPE_V4, "1.2.\t3.4", -1, Filled()},
    {"V6Full", HIC_IP_TYPE_V6, "fd00:db8:0:0:0:0:0:1", 0, V6({0xFD00, 0x0DB8, 0, 0, 0, 0, 0, 1})},
    {"V6Loopback", HIC_IP_TYPE_V6, "::1", 0, V6({0, 0, 0, 0, 0, 0, 0, 1})},
    {"V6TrailingGap", HIC_IP_TYPE_V6, "1::", 0, V6({1, 0, 0, 0, 0, 0, 0, 0})},
    {"V6GapForOneGroupSevenColons", HIC_IP_TYPE_V6, "1::3:4:5:6:7:8", 0,
     V6({1, 0, 3, 4, 5, 6, 7, 8})},
    {"V6UpperCase", HIC_IP_TYPE_V6, "FE80::ABCD", 0, V6({0xFE80, 0, 0, 0, 0, 0, 0, 0xABCD})},
    {"V6LongGroupKeepsLastFourDigits", HIC_IP_TYPE_V6, "12345::1", 0,
     V6({0x2345, 0, 0, 0, 0, 0, 0, 1})},
    {"V6LeadingSingleColon", HIC_IP_TYPE_V6, ":1:2", 0, V6({0, 1, 2, 0, 0, 0, 0, 0})},
    {"V6LeadingGapEightColons", HIC_IP_TYPE_V6, "::2:3:4:5:6:7:8", -1, Filled()},
    {"V6TwoGaps", HIC_IP_TYPE_V6, "1::2::3", -1, Filled()},
    {"V6NineGroups", HIC_IP_TYPE_V6, "1:2:3:4:5:6:7:8:9", -1, Filled()},
    {"V6EmbeddedV4", HIC_IP_TYPE_V6, "::ffff:1.2.3.4", -1, Filled()},
    {"V6BlankInside", HIC_IP_TYPE_V6, "fe80 ::1", -1, Filled()},
    {"V6NotHex", HIC_IP_TYPE_V6, "g::1", -1, Filled()},
    {"UnknownType", 2, "1.2.3.4", -1, Filled()},
    {"EmptyFailsQuietly", HIC_IP_TYPE_V4, "", -1, Filled()},
    {"WhiteSpaceOnly", HIC_IP_TYPE_V6, " \t ", -1, Filled(),
     "ERR HIC_IPStringToNumber: The ip string is null.\n"},
};

class IPStringToNumberTest : public SettingsTest, public ::testing::WithParamInterface<AddrCase> {};

TEST_P(IPStringToNumberTest, EncodesOrRefuses) {
    const AddrCase& c = GetParam();
    std::vector<char> text(kLen, '\0');
    std::strncpy(text.data(), c.text, text.size() - 1);
    Field field = Filled();
    EXPECT_EQ(HIC_IPStringToNumber(c.type, text.data(), kLen, field.data(), 16), c.rc);
    EXPECT_EQ(field, c.field);

    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Addresses, IPStringToNumberTest, ::testing::ValuesIn(kAddrCases),
                         hic_test::CaseName());

// Texts filling their buffer without a terminator: the trim and the parsers
// stop at its end. The vectors have no spare byte, so ASan sees overreads.
TEST_F(SettingsTest, ParsersStopAtBufferEnd) {
    std::vector<char> untrimmed = {' ', ' ', 'a', 'b', ' '};
    EXPECT_EQ(HIC_StringTrim(untrimmed.data(), static_cast<uint32_t>(untrimmed.size())), 0);
    EXPECT_EQ(std::string(untrimmed.data(), 2), "ab");
    const auto parse = [](auto parser, const std::string& text, Field* field) {
        std::vector<char> buf(text.begin(), text.end());
        return parser(buf.data(), static_cast<uint32_t>(buf.size()), field->data(), 16);
    };
    Field field = Filled();
    EXPECT_EQ(parse(HIC_IPv4StringToNumber, "1.2.3.4", &field), 0);
    EXPECT_EQ(field, V4(1, 2, 3, 4));
    EXPECT_EQ(HIC_CheckIPv4FirstChar("    ", 4), -1);
    EXPECT_EQ(HIC_CheckIPv4FirstChar("   7", 4), 0);
    // A ninth group opened by the buffer's last colon, beside a gap: no slot
    // exists for it.
    field = Filled();
    EXPECT_EQ(parse(HIC_IPv6StringToNumber, "1::2:3:4:5:6:7:8:", &field), -1);
    EXPECT_EQ(field, Filled());
    EXPECT_EQ(parse(HIC_IPv6StringToNumber, "fe80::1", &field), 0);
    EXPECT_EQ(field, V6({0xFE80, 0, 0, 0, 0, 0, 0, 1}));
}

struct SendCase {
    const char* name;
    std::string content;
    bool present;
    int logLevel;
    int32_t rc;
    unsigned char code;  // the type output was 0x55 before the call
    Field field;         // the field was prefilled with kFill, or zeros
    std::string log;
};

const SendCase kSendCases[] = {
    // The type's leading blanks are skipped, its case and any text behind
    // "IPv4" do not matter.
    {"V4", "IpType= IPV4x;\nIpAddress=192.168.1.10;\n", true, HIC_LOG_INFO, 0, HIC_IP_TYPE_V4,
     V4(0xC0, 0xA8, 0x01, 0x0A), ""},
    {"V4DebugLine", "IpAddress= 10..0.1 ;\nIpType=ipv4;\n", true, HIC_LOG_DEBUG, 0, HIC_IP_TYPE_V4,
     V4(10, 0, 0, 1), "DEBUG HIC_GetSendIPAndType: trans IP string to number 0, ip is 10..0.1.\n"},
    {"V6", "IpType=IPv6;\nIpAddress=fe80::1;\n", true, HIC_LOG_DEBUG, 0, HIC_IP_TYPE_V6,
     V6({0xFE80, 0, 0, 0, 0, 0, 0, 1}),
     "DEBUG HIC_GetSendIPAndType: trans IP string to number 1, ip is fe80::1.\n"},
    // An IPv4 address leaves the twelve zero bytes behind its four.
    {"BadType", "IpType=IPv5;\nIpAddress=1.2.3.4;\n", true, HIC_LOG_DEBUG, -1, HIC_IP_TYPE_INVALID,
     Filled(), "ERR HIC_GetSendIPAndType: trans IP type failed.\n"},
    {"BadV4", "IpType=IPv4;\nIpAddress=256.1.1.1;\n", true, HIC_LOG_INFO, -1, HIC_IP_TYPE_V4,
     Filled(), "ERR HIC_GetSendIPAndType: trans IP string to number failed.\n"},
    {"MissingFile", "", false, HIC_LOG_INFO, -1, 0x55, Filled(),
     "ERR HIC_ReadFileByLine: fopen /etc/vn.hostinfo file error.\n"
     "ERR HIC_GetIpAndType: Read IpType failed.\n"
     "ERR HIC_GetSendIPAndType: Get Host IP and IPType failed \n"},
};

class GetSendIPAndTypeTest : public SettingsTest, public ::testing::WithParamInterface<SendCase> {};

TEST_P(GetSendIPAndTypeTest, FromSettingsFile) {
    const SendCase& c = GetParam();
    if (c.present) {
        WriteSettings(c.content);
    }
    HIC_SetLogLevel(c.logLevel);
    Field field = Filled();
    unsigned char code = 0x55;
    EXPECT_EQ(HIC_GetSendIPAndType(field.data(), 16, &code), c.rc);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(field, c.field);
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Files, GetSendIPAndTypeTest, ::testing::ValuesIn(kSendCases),
                         hic_test::CaseName());

}  // namespace
