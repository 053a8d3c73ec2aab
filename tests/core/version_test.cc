// The product's driver version as "vnadmin show version" reports it: the
// last field of the lines that mention the driver, compared piece by piece
// with 31.0.26 (that one and older are refused).
#include <gtest/gtest.h>

#include "core/process.h"
#include "support/support.h"

namespace hic_test {
namespace {

struct VersionCase {
    const char* name;
    const char* output;
    int result;
    const char* log;
};

class CheckVornalTest : public SandboxTest, public ::testing::WithParamInterface<VersionCase> {};

TEST_P(CheckVornalTest, DecidesOnTheDriverVersion) {
    const VersionCase& c = GetParam();
    MakeDirs("/run/vnadmin");
    WriteFile("/run/vnadmin/show_version", c.output);
    EXPECT_EQ(HIC_CheckVornal(), c.result);
    EXPECT_EQ(LoggedMessages(), c.log);
}

#define TOO_LOW(v)                                   \
    "INFO HIC_CheckVornal: The Vornal version is " v \
    ".\nERR HIC_CheckVornal: The Vornal version is too low.\n"
#define ACCEPTED(v) "INFO HIC_CheckVornal: The Vornal version is " v ".\n"

INSTANTIATE_TEST_SUITE_P(
    Versions, CheckVornalTest,
    ::testing::Values(
        VersionCase{"v30_9_99", "Driver Version : 30.9.99\n", -1, TOO_LOW("30.9.99")},
        VersionCase{"v31_0_26", "Driver Version : 31.0.26\n", -1, TOO_LOW("31.0.26")},
        VersionCase{"v31_0_27", "Driver Version : 31.0.27\n", 0, ACCEPTED("31.0.27")},
        VersionCase{"v32_0_0", "Driver Version : 32.0.0\n", 0, ACCEPTED("32.0.0")},
        VersionCase{"letters_after", "Driver 31.0.26abc\n", -1, TOO_LOW("31.0.26abc")},
        // Empty pieces are skipped by the tokenizer.
        VersionCase{"double_dot", "Driver 31..0.27\n", 0, ACCEPTED("31..0.27")},
        // A missing piece is never read; it counts as 0.
        VersionCase{"major_only", "Driver 31\n", -1, TOO_LOW("31")},
        VersionCase{"pieces_after_third", "Driver 31.0.27.1\n", 0, ACCEPTED("31.0.27.1")},
        // Only lines with "Driver" count.
        VersionCase{"other_lines", "Product 1.0\nDriver Version : 31.2.3\n", 0, ACCEPTED("31.2.3")},
        VersionCase{"no_driver_line", "Version 31.0.27\n", 0, ""}),
    CaseName());

}  // namespace
}  // namespace hic_test
