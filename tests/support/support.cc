#include "support/support.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "log/log.h"

namespace hic_test {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

void MakeDirs(const std::string& path, mode_t mode) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') {
            const std::string part = path.substr(0, pos);
            ASSERT_TRUE(::mkdir(part.c_str(), mode) == 0 || errno == EEXIST) << part;
        }
    }
}

std::string Capture(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char buf[65536];
    for (size_t n = 0; (n = std::fread(buf, 1, sizeof(buf), pipe)) > 0;) {
        out.append(buf, n);
    }
    (void)::pclose(pipe);
    return out;
}

std::vector<std::string> DirNames(const std::string& path) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(path.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            if (e->d_name[0] != '.') {
                out.emplace_back(e->d_name);
            }
        }
        ::closedir(d);
    }
    return out;
}

Bytes Hex(const std::string& text) {
    Bytes out;
    int high = -1;
    for (const char c : text) {
        if (c == ' ' || c == ':') {
            continue;
        }
        const int v = std::isdigit(static_cast<unsigned char>(c)) != 0
                          ? c - '0'
                          : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<std::uint8_t>(high * 16 + v));
            high = -1;
        }
    }
    return out;
}

Bytes Be(std::uint64_t value, int n) {
    Bytes b;
    for (int i = n - 1; i >= 0; --i) {
        b.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return b;
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

namespace {

// Whether c belongs to the run a shape letter stands for: 'L' the level
// (capitals), 'F' the operation (a name), 'N' the source line (digits).
bool InRun(char shape, char c) {
    const auto u = static_cast<unsigned char>(c);
    return shape == 'L'   ? std::isupper(u) != 0
           : shape == 'F' ? std::isalnum(u) != 0 || c == '_'
                          : std::isdigit(u) != 0;
}

// Matches one line prefix at pos against its shape ('d' a digit, L, F and N
// runs as above, anything else itself). On success gives "LEVEL func: "
// and the prefix's length.
bool ParsePrefix(const std::string& log, size_t pos, std::string* brief, size_t* len) {
    std::string runs[2];  // the level and the operation
    size_t p = pos;
    for (const char* f = "[dddd-dd-dd dd:dd:dd] [L] [vn_hostinfo_linux] [F: N] "; *f != '\0'; ++f) {
        if (*f == 'L' || *f == 'F' || *f == 'N') {
            const size_t begin = p;
            while (p < log.size() && InRun(*f, log[p])) {
                ++p;
            }
            if (p == begin) {
                return false;
            }
            if (*f != 'N') {
                runs[*f == 'F' ? 1 : 0] = log.substr(begin, p - begin);
            }
        } else if (p < log.size() &&
                   (*f == 'd' ? std::isdigit(static_cast<unsigned char>(log[p])) != 0
                              : log[p] == *f)) {
            ++p;
        } else {
            return false;
        }
    }
    *brief = runs[0] + " " + runs[1] + ": ";
    *len = p - pos;
    return true;
}

}  // namespace

std::string LoggedMessages() {
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

LogList SplitLines(const std::string& text) {
    LogList lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const size_t stop = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, stop - start));
        start = stop;
    }
    return lines;
}

LogList LogLines() {
    return SplitLines(LoggedMessages());
}

bool InOrder(const LogList& lines, const LogList& want) {
    size_t i = 0;
    for (const std::string& l : lines) {
        if (i < want.size() && l == want[i]) {
            ++i;
        }
    }
    return i == want.size();
}

LogList LinesStartingWith(const LogList& lines, const std::string& prefix) {
    LogList out;
    for (const std::string& l : lines) {
        if (l.rfind(prefix, 0) == 0) {
            out.push_back(l);
        }
    }
    return out;
}

bool WaitFor(const std::function<bool()>& done, double seconds) {
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    while (std::chrono::steady_clock::now() < end) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

void SandboxTest::SetUp() {
    // Never write the host's real /etc or /opt outside the sandbox: its root
    // is an overlay mounted under the launcher's name.
    if (Capture("grep -c '^hic-sandbox / overlay ' /proc/self/mounts") != "1\n") {
        std::fputs("this test must run inside the host sandbox\n", stderr);
        std::abort();
    }
    MakeDirs("/opt/Vornal/log");
    (void)std::remove(HIC_LOG_PATH);
    HIC_SetLogLevel(HIC_LOG_INFO);
}

void SandboxTest::TearDown() {
    HIC_SetLogLevel(HIC_LOG_INFO);
}

}  // namespace hic_test
