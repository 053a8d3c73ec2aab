#include "settings/settings_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "settings_test_util.h"

namespace {

using hic_test::LoggedMessages;
using SandboxTest = hic_test::SettingsTest;
using hic_test::WriteSettings;

constexpr uint32_t kLen = HIC_HOST_INFO_LINE_LEN;

struct FileCase {
    const char* name;
    std::string content;
    bool present;  // false: no settings file at all
    int32_t rc;
    std::string ip;    // text of the address buffer, up to its NUL
    std::string type;  // exact bytes of the type buffer before the zero fill
    std::string log;
};

const std::string kX250(250, 'x');

const FileCase kFileCases[] = {
    {"Plain", "IpType=IPv4;\nIpAddress=10.10.1.20;\n", true, 0, "10.10.1.20", "IPv4", ""},
    {"AddressLineFirst", "IpAddress=fe80::1;\nIpType=IPv6;\n", true, 0, "fe80::1", "IPv6", ""},
    {"AddressBlanksTrimmed", "IpType=IPv4;\nIpAddress= 10.0.0.1 ;\n", true, 0, "10.0.0.1", "IPv4",
     ""},
    {"AllWhiteSpaceKindsTrimmed", "IpType=IPv4;\nIpAddress=\t\v\f\r 10.0.0.1\t\r ;\n", true, 0,
     "10.0.0.1", "IPv4", ""},
    {"TypeKeptUntrimmed", "IpType= IPv4 ;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4", " IPv4 ", ""},
    {"TextAfterSemicolonIgnored", "IpType=IPv6; x=y;\nIpAddress=::1;trailing\n", true, 0, "::1",
     "IPv6", ""},
    {"NoTrailingNewline", "IpType=IPv4;\nIpAddress=1.2.3.4;", true, 0, "1.2.3.4", "IPv4", ""},
    {"CommentedLineWins", "#IpType=IPv6;\nIpType=IPv4;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4",
     "IPv6", ""},
    {"KeyIsSubstring", "MyIpType=IPv6;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4", "IPv6", ""},
    {"KeyIsCaseSensitive", "iptype=IPv6;\nIpType=IPv4;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4",
     "IPv4", ""},
    {"ValueFromFirstEquals", "X=1 IpType=IPv4;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4",
     "1 IpType=IPv4", ""},
    {"SemicolonBeforeEqualsNotUsed", ";IpType=IPv4;\nIpAddress=1.2.3.4;\n", true, 0, "1.2.3.4",
     "IPv4", ""},
    {"WhiteSpaceOnlyAddressIsEmpty", "IpType=IPv4;\nIpAddress= \t ;\n", true, 0, "", "IPv4", ""},
    {"EmptyAddressFails", "IpType=IPv4;\nIpAddress=;\n", true, -1, "", "IPv4", ""},
    {"BlankBeforeEqualsIsNoKey", "IpType=IPv4;\nIpAddress = 10.0.0.1;\n", true, -1, "", "IPv4",
     "ERR HIC_GetIpAndType: Read IpAddress failed.\n"},
    {"NoTypeLine", "IpAddress=1.2.3.4;\n", true, -1, "", "",
     "ERR HIC_GetIpAndType: Read IpType failed.\n"},
    {"EmptyFile", "", true, -1, "", "", "ERR HIC_GetIpAndType: Read IpType failed.\n"},
    {"MissingFile", "", false, -1, "", "",
     "ERR HIC_ReadFileByLine: fopen /etc/vn.hostinfo file error.\n"
     "ERR HIC_GetIpAndType: Read IpType failed.\n"},
    {"TypeWithoutSemicolon", "IpType=IPv4\nIpAddress=1.2.3.4;\n", true, -1, "", "",
     "ERR HIC_GetValueFromLine: No \";\" found in line {IpType=IPv4?}.\n"},
    {"LastLineWithoutSemicolonOrNewline", "IpType=IPv4;\nIpAddress=1.2.3.4", true, -1, "", "IPv4",
     "ERR HIC_GetValueFromLine: No \";\" found in line {IpAddress=1.2.3.4}.\n"},
    // 250 + 5 characters fill the first piece: the key is cut after "IpTyp"
    // and neither piece holds it, so the next line is the type line.
    {"KeySplitAcrossPieces", kX250 + "IpType=IPv4;\nIpType=IPv6;\nIpAddress=::1;\n", true, 0, "::1",
     "IPv6", ""},
    {"KeySplitAndNoOtherLine", kX250 + "IpType=IPv4;\nIpAddress=::1;\n", true, -1, "", "",
     "ERR HIC_GetIpAndType: Read IpType failed.\n"},
    // The key ends on character 255: found, but the ";" lies in the next piece.
    {"KeyEndsThePiece", std::string(248, 'x') + "IpType=IPv4;\nIpAddress=::1;\n", true, -1, "", "",
     "ERR HIC_GetValueFromLine: No \";\" found in line {" + std::string(248, 'x') + "IpType=}.\n"},
    // The rest of a long line is a piece, and a line, of its own.
    {"SecondPieceIsALine", std::string(255, 'x') + "IpType=IPv6;\nIpAddress=::1;\n", true, 0, "::1",
     "IPv6", ""},
    {"LineOf255EndsAtNewline", std::string(254, 'x') + "\nIpType=IPv4;\nIpAddress=1.2.3.4;\n", true,
     0, "1.2.3.4", "IPv4", ""},
};

class GetIpAndTypeTest : public SandboxTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(GetIpAndTypeTest, ReadsBothValues) {
    const FileCase& c = GetParam();
    if (c.present) {
        WriteSettings(c.content);
    }
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

// A text filling its buffer without a terminator is trimmed within it: no
// spare byte, so ASan sees any access beyond.
TEST_F(SandboxTest, StringTrimStaysInsideBuffer) {
    std::vector<char> buf = {' ', ' ', 'a', 'b', ' '};
    EXPECT_EQ(HIC_StringTrim(buf.data(), static_cast<uint32_t>(buf.size())), 0);
    EXPECT_EQ(std::string(buf.data(), 2), "ab");
}

}  // namespace
