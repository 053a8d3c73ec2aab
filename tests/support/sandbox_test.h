// Shared by the tests that run inside the host sandbox: they use the
// daemon's real fixed paths and read the real log.
#ifndef HIC_TESTS_SUPPORT_SANDBOX_TEST_H
#define HIC_TESTS_SUPPORT_SANDBOX_TEST_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "log/log.h"

namespace hic_test {

// The sandbox's root is an overlay mounted under the launcher's name.
inline bool InHostSandbox() {
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    while (std::getline(mounts, line)) {
        if (line.rfind("hic-sandbox / overlay ", 0) == 0) {
            return true;
        }
    }
    return false;
}

inline std::string ReadFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Parses one line prefix "[YYYY-MM-DD hh:mm:ss] [LEVEL] [vn_hostinfo_linux]
// [func: N] " at pos; on success gives "LEVEL func: " and its length.
inline bool ParsePrefix(const std::string& log, size_t pos, std::string* brief, size_t* len) {
    size_t p = pos;
    auto lit = [&](const char* text) {
        const size_t n = std::strlen(text);
        if (log.compare(p, n, text) != 0) {
            return false;
        }
        p += n;
        return true;
    };
    auto word = [&](auto accept) {
        const size_t begin = p;
        while (p < log.size() && accept(log[p])) {
            ++p;
        }
        return log.substr(begin, p - begin);
    };
    if (!lit("[")) {
        return false;
    }
    const char* form = "dddd-dd-dd dd:dd:dd";
    for (const char* f = form; *f != '\0'; ++f, ++p) {
        const bool ok =
            p < log.size() &&
            (*f == 'd' ? std::isdigit(static_cast<unsigned char>(log[p])) != 0 : log[p] == *f);
        if (!ok) {
            return false;
        }
    }
    if (!lit("] [")) {
        return false;
    }
    const std::string level = word([](char c) { return c >= 'A' && c <= 'Z'; });
    if (level.empty() || !lit("] [vn_hostinfo_linux] [")) {
        return false;
    }
    const std::string func =
        word([](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; });
    if (func.empty() || !lit(": ")) {
        return false;
    }
    if (word([](char c) { return c >= '0' && c <= '9'; }).empty() || !lit("] ")) {
        return false;
    }
    *brief = level + " " + func + ": ";
    *len = p - pos;
    return true;
}

// The log with each line's prefix reduced to "LEVEL func: ", so tests
// compare the level, the writing operation and the exact message. The date
// and the source line are checked for their form only.
inline std::string LoggedMessages() {
    const std::string log = ReadFile(HIC_LOG_PATH);
    std::string out;
    for (size_t pos = 0; pos < log.size();) {
        std::string brief;
        size_t len = 0;
        if ((pos == 0 || log[pos - 1] == '\n') && ParsePrefix(log, pos, &brief, &len)) {
            out += brief;
            pos += len;
        } else {
            out += log[pos++];
        }
    }
    return out;
}

// Names each instance of a parameterised test after its case.
struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& param) const {
        return param.param.name;
    }
};

// Writes a whole file, creating or truncating it.
inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

// Creates a directory and its parents, like mkdir -p.
inline void MakeDirs(const std::string& path, mode_t mode = 0755) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') {
            const std::string part = path.substr(0, pos);
            ASSERT_TRUE(::mkdir(part.c_str(), mode) == 0 || errno == EEXIST) << part;
        }
    }
}

// Base fixture: refuses to run outside the sandbox, gives every test an
// empty log at /opt/Vornal/log and the INFO level.
class SandboxTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Never write the host's real /etc or /opt outside the sandbox.
        if (!InHostSandbox()) {
            std::fputs("this test must run inside the host sandbox\n", stderr);
            std::abort();
        }
        MakeDirs("/opt/Vornal/log");
        (void)std::remove(HIC_LOG_PATH);
        HIC_SetLogLevel(HIC_LOG_INFO);
    }
    void TearDown() override { HIC_SetLogLevel(HIC_LOG_INFO); }
};

}  // namespace hic_test

#endif  // HIC_TESTS_SUPPORT_SANDBOX_TEST_H
