// What every test shares: files, bytes, the daemon's log read back as
// "LEVEL func: message" lines, waiting, and the fixture of the tests that run
// inside the host sandbox on the daemon's real fixed paths.
#ifndef HIC_TESTS_SUPPORT_SUPPORT_H
#define HIC_TESTS_SUPPORT_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hic_test {

using Bytes = std::vector<std::uint8_t>;
using LogList = std::vector<std::string>;

std::string ReadFile(const std::string& path);
// Creates or truncates.
void WriteFile(const std::string& path, const std::string& content);
bool Exists(const std::string& path);
// Like mkdir -p.
void MakeDirs(const std::string& path, mode_t mode = 0755);
// The standard output of a shell command.
std::string Capture(const std::string& command);
// The entries of a directory but dot files, in the order readdir gives them.
std::vector<std::string> DirNames(const std::string& path);

// "0a 0B:0c" -> {0x0a, 0x0b, 0x0c}; spaces and colons are skipped.
Bytes Hex(const std::string& text);
// value as n big-endian bytes.
Bytes Be(std::uint64_t value, int n);
Bytes Join(std::initializer_list<Bytes> parts);

// The log with each line's prefix "[date] [LEVEL] [vn_hostinfo_linux]
// [func: N] " reduced to "LEVEL func: "; the date and the source line are
// checked for their form only.
std::string LoggedMessages();
// The same, one entry per line (each with its line end).
LogList LogLines();
// Any text cut into lines, each with its line end (the last may lack one).
LogList SplitLines(const std::string& text);
inline std::string Info(const std::string& func, const std::string& msg) {
    return "INFO " + func + ": " + msg;
}
inline std::string Err(const std::string& func, const std::string& msg) {
    return "ERR " + func + ": " + msg;
}
inline std::string Debug(const std::string& func, const std::string& msg) {
    return "DEBUG " + func + ": " + msg;
}
// Whether want occurs in lines in its order, other lines between.
bool InOrder(const LogList& lines, const LogList& want);
// The lines that begin with prefix.
LogList LinesStartingWith(const LogList& lines, const std::string& prefix);

// Polls done, in real time, until it holds or the seconds have passed.
bool WaitFor(const std::function<bool()>& done, double seconds = 20);

// Names each instance of a parameterised test after its case.
struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& param) const {
        return param.param.name;
    }
};

// Refuses to run outside the host sandbox; gives every test an empty log at
// /opt/Vornal/log and the INFO level.
class SandboxTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace hic_test

#endif  // HIC_TESTS_SUPPORT_SUPPORT_H
