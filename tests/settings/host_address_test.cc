#include "settings/host_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "settings/settings_file.h"
#include "settings_test_util.h"

namespace {

using hic_test::LoggedMessages;
using SandboxTest = hic_test::SettingsTest;
using hic_test::WriteSettings;

using Field = std::array<unsigned char, 16>;

constexpr uint32_t kLen = HIC_HOST_INFO_LINE_LEN;
constexpr unsigned char kFill = 0xEE;  // marks bytes nobody may write

Field Filled() {
    Field f{};
    f.fill(kFill);
    return f;
}

// IPv4 writes bytes 0 to 3 only; the rest keeps whatever the caller put there.
Field V4(unsigned char a, unsigned char b, unsigned char c, unsigned char d,
         unsigned char rest = kFill) {
    Field f{};
    f.fill(rest);
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
    Field field;       // the whole field afterwards (prefilled with kFill)
    bool ptonAccepts;  // what inet_pton says: where it differs from rc, on purpose
    const char* log = "";
};

const AddrCase kAddrCases[] = {
    {"V4Plain", HIC_IP_TYPE_V4, "192.168.1.10", 0, V4(0xC0, 0xA8, 0x01, 0x0A), true},
    {"V4Max", HIC_IP_TYPE_V4, "255.255.255.255", 0, V4(255, 255, 255, 255), true},
    {"V4EmptyPartIsZero", HIC_IP_TYPE_V4, "10..0.1", 0, V4(10, 0, 0, 1), false},
    {"V4LeadingZerosDecimal", HIC_IP_TYPE_V4, "010.1.1.1", 0, V4(10, 1, 1, 1), false},
    {"V4BlankInsidePartIgnored", HIC_IP_TYPE_V4, "1 0.0 .0. 1", 0, V4(10, 0, 0, 1), false},
    {"V4OuterWhiteSpaceTrimmed", HIC_IP_TYPE_V4, " \t1.2.3.4\r\n", 0, V4(1, 2, 3, 4), false},
    {"V4PartAbove255", HIC_IP_TYPE_V4, "256.1.1.1", -1, Filled(), false},
    {"V4TwoDots", HIC_IP_TYPE_V4, "1.2.3", -1, Filled(), false},
    {"V4FourDots", HIC_IP_TYPE_V4, "1.2.3.4.", -1, Filled(), false},
    {"V4Letters", HIC_IP_TYPE_V4, "a.b.c.d", -1, Filled(), false},
    {"V4FirstCharDot", HIC_IP_TYPE_V4, "...", -1, Filled(), false},
    {"V4TabInsideRefused", HIC_IP_TYPE_V4, "1.2.\t3.4", -1, Filled(), false},
    {"V4HexPart", HIC_IP_TYPE_V4, "1.2.3.0x4", -1, Filled(), false},
    {"V4GivenV6Text", HIC_IP_TYPE_V4, "::1", -1, Filled(), false},
    {"V6LinkLocal", HIC_IP_TYPE_V6, "fe80::1", 0, V6({0xFE80, 0, 0, 0, 0, 0, 0, 1}), true},
    {"V6Full", HIC_IP_TYPE_V6, "fd00:db8:0:0:0:0:0:1", 0, V6({0xFD00, 0x0DB8, 0, 0, 0, 0, 0, 1}),
     true},
    {"V6Loopback", HIC_IP_TYPE_V6, "::1", 0, V6({0, 0, 0, 0, 0, 0, 0, 1}), true},
    {"V6TrailingGap", HIC_IP_TYPE_V6, "1::", 0, V6({1, 0, 0, 0, 0, 0, 0, 0}), true},
    {"V6GapForOneGroupSevenColons", HIC_IP_TYPE_V6, "1::3:4:5:6:7:8", 0,
     V6({1, 0, 3, 4, 5, 6, 7, 8}), true},
    {"V6GapInMiddle", HIC_IP_TYPE_V6, "1:2:3:4::5:6:7", 0, V6({1, 2, 3, 4, 0, 5, 6, 7}), true},
    {"V6UpperCase", HIC_IP_TYPE_V6, "FE80::ABCD", 0, V6({0xFE80, 0, 0, 0, 0, 0, 0, 0xABCD}), true},
    {"V6LongGroupKeepsLastFourDigits", HIC_IP_TYPE_V6, "12345::1", 0,
     V6({0x2345, 0, 0, 0, 0, 0, 0, 1}), false},
    {"V6FewGroupsNoGap", HIC_IP_TYPE_V6, "1:2:3", 0, V6({1, 2, 3, 0, 0, 0, 0, 0}), false},
    {"V6LeadingSingleColon", HIC_IP_TYPE_V6, ":1:2", 0, V6({0, 1, 2, 0, 0, 0, 0, 0}), false},
    {"V6OuterWhiteSpaceTrimmed", HIC_IP_TYPE_V6, "  fe80::1\t", 0,
     V6({0xFE80, 0, 0, 0, 0, 0, 0, 1}), false},
    {"V6LeadingGapEightColons", HIC_IP_TYPE_V6, "::2:3:4:5:6:7:8", -1, Filled(), true},
    {"V6TwoGaps", HIC_IP_TYPE_V6, "1::2::3", -1, Filled(), false},
    {"V6ThreeColons", HIC_IP_TYPE_V6, "1:::2", -1, Filled(), false},
    {"V6NineGroups", HIC_IP_TYPE_V6, "1:2:3:4:5:6:7:8:9", -1, Filled(), false},
    {"V6EmbeddedV4", HIC_IP_TYPE_V6, "::ffff:1.2.3.4", -1, Filled(), true},
    {"V6BlankInside", HIC_IP_TYPE_V6, "fe80 ::1", -1, Filled(), false},
    {"V6NotHex", HIC_IP_TYPE_V6, "g::1", -1, Filled(), false},
    {"V6GivenV4Text", HIC_IP_TYPE_V6, "1.2.3.4", -1, Filled(), false},
    {"UnknownType", 2, "1.2.3.4", -1, Filled(), true},
    {"EmptyFailsQuietly", HIC_IP_TYPE_V4, "", -1, Filled(), false},
    {"WhiteSpaceOnly", HIC_IP_TYPE_V6, " \t ", -1, Filled(), false,
     "ERR HIC_IPStringToNumber: The ip string is null.\n"},
};

class IPStringToNumberTest : public SandboxTest, public ::testing::WithParamInterface<AddrCase> {};

TEST_P(IPStringToNumberTest, EncodesOrRefuses) {
    const AddrCase& c = GetParam();
    std::vector<char> text(kLen, '\0');
    std::strncpy(text.data(), c.text, text.size() - 1);
    Field field = Filled();
    EXPECT_EQ(HIC_IPStringToNumber(c.type, text.data(), kLen, field.data(), 16), c.rc);
    EXPECT_EQ(field, c.field);

    const int family = c.type == HIC_IP_TYPE_V6 ? AF_INET6 : AF_INET;
    Field pton{};
    const bool ptonAccepts = ::inet_pton(family, c.text, pton.data()) == 1;
    EXPECT_EQ(ptonAccepts, c.ptonAccepts) << "inet_pton column is wrong";
    if (ptonAccepts && c.rc == 0) {
        // Where both accept, both give the same bytes.
        const size_t n = family == AF_INET6 ? 16 : 4;
        EXPECT_EQ(0, std::memcmp(pton.data(), field.data(), n));
    }
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Addresses, IPStringToNumberTest, ::testing::ValuesIn(kAddrCases),
                         hic_test::CaseName());

// Texts filling their buffer without a terminator: the parsers stop at its
// end. The vectors have no spare byte, so ASan sees overreads.
TEST_F(SandboxTest, ParsersStopAtBufferEnd) {
    const std::string v4 = "1.2.3.4";
    std::vector<char> buf(v4.begin(), v4.end());
    Field field = Filled();
    EXPECT_EQ(
        HIC_IPv4StringToNumber(buf.data(), static_cast<uint32_t>(buf.size()), field.data(), 16), 0);
    EXPECT_EQ(field, V4(1, 2, 3, 4));
    EXPECT_EQ(HIC_CheckIPv4FirstChar("    ", 4), -1);
    EXPECT_EQ(HIC_CheckIPv4FirstChar("   7", 4), 0);
    // A ninth group opened by the buffer's last colon, beside a gap: no slot
    // exists for it.
    const std::string v6 = "1::2:3:4:5:6:7:8:";
    buf.assign(v6.begin(), v6.end());
    field = Filled();
    EXPECT_EQ(
        HIC_IPv6StringToNumber(buf.data(), static_cast<uint32_t>(buf.size()), field.data(), 16),
        -1);
    EXPECT_EQ(field, Filled());
    const std::string v6ok = "fe80::1";
    buf.assign(v6ok.begin(), v6ok.end());
    EXPECT_EQ(
        HIC_IPv6StringToNumber(buf.data(), static_cast<uint32_t>(buf.size()), field.data(), 16), 0);
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
    bool zeroed = false;  // as the daemon hands it over
};

const SendCase kSendCases[] = {
    {"V4", "IpType=IPv4;\nIpAddress=192.168.1.10;\n", true, HIC_LOG_INFO, 0, HIC_IP_TYPE_V4,
     V4(0xC0, 0xA8, 0x01, 0x0A), ""},
    {"V4DebugLine", "IpAddress= 10..0.1 ;\nIpType=ipv4;\n", true, HIC_LOG_DEBUG, 0, HIC_IP_TYPE_V4,
     V4(10, 0, 0, 1), "DEBUG HIC_GetSendIPAndType: trans IP string to number 0, ip is 10..0.1.\n"},
    {"TypeWithLeadingBlank", "IpType= IPV4;\nIpAddress=1.2.3.4;\n", true, HIC_LOG_INFO, 0,
     HIC_IP_TYPE_V4, V4(1, 2, 3, 4), ""},
    {"TypeWithTrailingText", "IpType=IPv4x;\nIpAddress=1.2.3.4;\n", true, HIC_LOG_INFO, 0,
     HIC_IP_TYPE_V4, V4(1, 2, 3, 4), ""},
    {"V6", "IpType=IPv6;\nIpAddress=fe80::1;\n", true, HIC_LOG_DEBUG, 0, HIC_IP_TYPE_V6,
     V6({0xFE80, 0, 0, 0, 0, 0, 0, 1}),
     "DEBUG HIC_GetSendIPAndType: trans IP string to number 1, ip is fe80::1.\n"},
    // An IPv4 address leaves the twelve zero bytes behind its four.
    {"V4ZeroFilled", "IpType=IPv4;\nIpAddress=192.168.1.10;\n", true, HIC_LOG_INFO, 0,
     HIC_IP_TYPE_V4, V4(0xC0, 0xA8, 0x01, 0x0A, 0), "", true},
    {"BadType", "IpType=IPv5;\nIpAddress=1.2.3.4;\n", true, HIC_LOG_DEBUG, -1, HIC_IP_TYPE_INVALID,
     Filled(), "ERR HIC_GetSendIPAndType: trans IP type failed.\n"},
    {"BadV4", "IpType=IPv4;\nIpAddress=256.1.1.1;\n", true, HIC_LOG_INFO, -1, HIC_IP_TYPE_V4,
     Filled(), "ERR HIC_GetSendIPAndType: trans IP string to number failed.\n"},
    {"V6TextUnderV4Type", "IpType=IPv4;\nIpAddress=fe80::1;\n", true, HIC_LOG_INFO, -1,
     HIC_IP_TYPE_V4, Filled(), "ERR HIC_GetSendIPAndType: trans IP string to number failed.\n"},
    {"BlankAddress", "IpType=IPv6;\nIpAddress= \t ;\n", true, HIC_LOG_INFO, -1, HIC_IP_TYPE_V6,
     Filled(), "ERR HIC_GetSendIPAndType: trans IP string to number failed.\n"},
    {"EmptyAddress", "IpType=IPv6;\nIpAddress=;\n", true, HIC_LOG_INFO, -1, 0x55, Filled(),
     "ERR HIC_GetSendIPAndType: Get Host IP and IPType failed \n"},
    {"MissingFile", "", false, HIC_LOG_INFO, -1, 0x55, Filled(),
     "ERR HIC_ReadFileByLine: fopen /etc/vn.hostinfo file error.\n"
     "ERR HIC_GetIpAndType: Read IpType failed.\n"
     "ERR HIC_GetSendIPAndType: Get Host IP and IPType failed \n"},
    {"NoSemicolon", "IpType=IPv4;\nIpAddress=1.2.3.4\n", true, HIC_LOG_INFO, -1, 0x55, Filled(),
     "ERR HIC_GetValueFromLine: No \";\" found in line {IpAddress=1.2.3.4?}.\n"
     "ERR HIC_GetSendIPAndType: Get Host IP and IPType failed \n"},
};

class GetSendIPAndTypeTest : public SandboxTest, public ::testing::WithParamInterface<SendCase> {};

TEST_P(GetSendIPAndTypeTest, FromSettingsFile) {
    const SendCase& c = GetParam();
    if (c.present) {
        WriteSettings(c.content);
    }
    HIC_SetLogLevel(c.logLevel);
    Field field = c.zeroed ? Field{} : Filled();
    unsigned char code = 0x55;
    EXPECT_EQ(HIC_GetSendIPAndType(field.data(), 16, &code), c.rc);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(field, c.field);
    EXPECT_EQ(LoggedMessages(), c.log);
}

INSTANTIATE_TEST_SUITE_P(Files, GetSendIPAndTypeTest, ::testing::ValuesIn(kSendCases),
                         hic_test::CaseName());

}  // namespace
