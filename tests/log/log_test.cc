// The daemon's log, checked on the real fixed paths inside the host sandbox.
#include "log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace {

const std::string kMarker = "/* The log is transferred to the bak */\n";

bool Exists(const char* path) {
    struct stat st {};
    return ::lstat(path, &st) == 0;
}

std::string ReadFile(const char* path) {
    std::string text;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    struct stat st {};
    if (::fstat(fd, &st) == 0) {
        text.resize(static_cast<size_t>(st.st_size));
        size_t done = 0;
        ssize_t n = 0;
        while (done < text.size() && (n = ::read(fd, text.data() + done, text.size() - done)) > 0) {
            done += static_cast<size_t>(n);
        }
        text.resize(done);
    }
    (void)::close(fd);
    return text;
}

void WriteFile(const char* path, const std::string& data) {
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    size_t done = 0;
    ssize_t n = 0;
    while (done < data.size() && (n = ::write(fd, data.data() + done, data.size() - done)) > 0) {
        done += static_cast<size_t>(n);
    }
    (void)::close(fd);
    ASSERT_EQ(done, data.size()) << path;
}

// Runs a shell command and returns its standard output.
std::string Capture(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char buf[65536];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof(buf), pipe)) > 0) {
        out.append(buf, n);
    }
    (void)::pclose(pipe);
    return out;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end + 1 - start));
        start = end + 1;
    }
    return lines;
}

// A deterministic old log of exactly `size` bytes (up to 32 MiB), in
// varied lines; formed once, since sanitizer builds make that slow.
std::string OldLog(size_t size) {
    static const std::string kText = [] {
        constexpr size_t kMax = 32U << 20U;
        std::string text;
        text.reserve(kMax + 256);
        char line[256];
        for (int i = 0; text.size() < kMax; ++i) {
            const int n = std::snprintf(
                line, sizeof(line),
                "[2026-01-01 00:00:00] [INFO] [vn_hostinfo_linux] [old: %d] %.*s\n", i, i % 61,
                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-");
            text.append(line, static_cast<size_t>(n));
        }
        return text;
    }();
    return kText.substr(0, size);
}

// The strict 19-character form "YYYY-MM-DD hh:mm:ss" with fields in range.
bool IsDateText(const std::string& text) {
    static const char kShape[] = "dddd-dd-dd dd:dd:dd";
    if (text.size() != sizeof(kShape) - 1) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) {
            return false;
        }
    }
    const int month = std::stoi(text.substr(5, 2));
    const int day = std::stoi(text.substr(8, 2));
    return month >= 1 && month <= 12 && day >= 1 && day <= 31 &&
           std::stoi(text.substr(11, 2)) <= 23 && std::stoi(text.substr(14, 2)) <= 59 &&
           std::stoi(text.substr(17, 2)) <= 59;
}

// The date of a line: strict form, and a real local time between `before`
// and `after`.
void ExpectDate(const std::string& date, time_t before, time_t after) {
    ASSERT_TRUE(IsDateText(date)) << "date '" << date << "'";
    struct tm parsed {};
    ASSERT_NE(::strptime(date.c_str(), "%Y-%m-%d %H:%M:%S", &parsed), nullptr);
    parsed.tm_isdst = -1;
    const time_t when = std::mktime(&parsed);
    EXPECT_GE(when, before - 1) << date;
    EXPECT_LE(when, after + 1) << date;
}

// Splits "[date] rest" into its date and the text after "] ".
std::pair<std::string, std::string> SplitDate(const std::string& line) {
    if (line.size() < 22 || line[0] != '[' || line.compare(20, 2, "] ") != 0) {
        return {"", line};
    }
    return {line.substr(1, 19), line.substr(20)};
}

// Each helper logs one line and returns the source line of its HIC_LOG.
int LogAtLevel(int level, const char* text) {
    const int line = __LINE__ + 1;
    HIC_LOG(level, "%s", text);
    return line;
}

int LogFormatted() {
    const int line = __LINE__ + 1;
    HIC_LOG(HIC_LOG_ERROR, "id %d name %s hex %#x pct %%\n", 42, "lun-7", 255U);
    return line;
}

int AssertHere(const void* pointer, bool* continued) {
    const int line = __LINE__ + 1;
    HIC_ASSERT(pointer != nullptr);
    *continued = true;
    return line;
}

// Runs fn with standard output captured through a pipe.
template <typename Fn>
std::string CaptureStdout(Fn fn) {
    (void)std::fflush(stdout);
    int fds[2];
    if (::pipe(fds) != 0) {
        return "<pipe failed>";
    }
    const int saved = ::dup(STDOUT_FILENO);
    (void)::dup2(fds[1], STDOUT_FILENO);
    (void)::close(fds[1]);
    fn();
    (void)std::fflush(stdout);
    (void)::dup2(saved, STDOUT_FILENO);
    (void)::close(saved);
    std::string out;
    char buf[256];
    ssize_t n = 0;
    while ((n = ::read(fds[0], buf, sizeof(buf))) > 0) {
        out.append(buf, static_cast<size_t>(n));
    }
    (void)::close(fds[0]);
    return out;
}

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(std::system("rm -rf /opt/Vornal && mkdir -p /opt/Vornal/log"), 0);
        HIC_SetLogLevel(HIC_LOG_INFO);
    }
    void TearDown() override { HIC_SetLogLevel(HIC_LOG_INFO); }
};

TEST(LogLevelTest, InitialLevelIsInfo) {
    EXPECT_EQ(HIC_GetLogLevel(), HIC_LOG_INFO);
}

TEST(LogLevelTest, LevelNames) {
    const std::pair<int, const char*> cases[] = {
        {0, "DEBUG"}, {1, "INFO"},  {2, "WARN"},   {3, "ERR"},
        {4, "ERROR"}, {7, "ERROR"}, {-1, "ERROR"}, {INT_MIN, "ERROR"},
    };
    for (const auto& [level, name] : cases) {
        EXPECT_STREQ(HIC_GetLogLevelName(level), name) << "level " << level;
    }
}

TEST(LogLevelTest, SetLevelIsStoredWithoutRangeCheck) {
    for (int level : {0, 3, 9, -4}) {
        HIC_SetLogLevel(level);
        EXPECT_EQ(HIC_GetLogLevel(), level);
    }
    HIC_SetLogLevel(HIC_LOG_INFO);
}

TEST_F(LogTest, LineIsWrittenOnlyWhenLevelAllowsIt) {
    struct Case {
        int current;
        int message;
        bool written;
        const char* levelText;
    };
    const Case cases[] = {
        {1, 0, false, "DEBUG"}, {1, 1, true, "INFO"},    {1, 2, true, "WARN"},
        {1, 3, true, "ERR"},    {0, 0, true, "DEBUG"},   {0, 3, true, "ERR"},
        {3, 2, false, "WARN"},  {3, 3, true, "ERR"},     {4, 3, false, "ERR"},
        {0, 7, true, "ERROR"},  {0, -1, false, "ERROR"}, {-1, -1, true, "ERROR"},
        {2, 1, false, "INFO"},  {2, 2, true, "WARN"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("current " + std::to_string(c.current) + " message " +
                     std::to_string(c.message));
        (void)std::remove(HIC_LOG_PATH);
        HIC_SetLogLevel(c.current);
        const time_t before = std::time(nullptr);
        const int line = LogAtLevel(c.message, "hello there\n");
        const time_t after = std::time(nullptr);
        const std::string log = ReadFile(HIC_LOG_PATH);
        if (!c.written) {
            EXPECT_EQ(log, "");
            continue;
        }
        const auto [date, rest] = SplitDate(log);
        ExpectDate(date, before, after);
        EXPECT_EQ(rest, std::string("] [") + c.levelText + "] [vn_hostinfo_linux] [LogAtLevel: " +
                            std::to_string(line) + "] hello there\n");
    }
}

TEST_F(LogTest, MessageArgumentsAreFormattedAndLinesAppend) {
    const int first = LogAtLevel(HIC_LOG_INFO, "first\n");
    const int second = LogFormatted();
    const std::vector<std::string> lines = SplitLines(ReadFile(HIC_LOG_PATH));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(SplitDate(lines[0]).second,
              "] [INFO] [vn_hostinfo_linux] [LogAtLevel: " + std::to_string(first) + "] first\n");
    EXPECT_EQ(SplitDate(lines[1]).second,
              "] [ERR] [vn_hostinfo_linux] [LogFormatted: " + std::to_string(second) +
                  "] id 42 name lun-7 hex 0xff pct %\n");
}

TEST_F(LogTest, NewLogFileIsCreatedAndNoHandleStaysOpen) {
    (void)LogAtLevel(HIC_LOG_INFO, "x\n");
    ASSERT_TRUE(Exists(HIC_LOG_PATH));
    const std::string fdDir = "/proc/self/fd";
    for (int fd = 0; fd < 1024; ++fd) {
        char target[PATH_MAX] = {};
        const std::string link = fdDir + "/" + std::to_string(fd);
        if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0) {
            EXPECT_STRNE(target, HIC_LOG_PATH) << "descriptor " << fd << " still open";
        }
    }
}

TEST_F(LogTest, LongLineIsWrittenWhole) {
    const std::string text(200000, 'L');
    (void)LogAtLevel(HIC_LOG_INFO, (text + "\n").c_str());
    const std::string log = ReadFile(HIC_LOG_PATH);
    const std::string rest = SplitDate(log).second;
    ASSERT_GT(rest.size(), text.size());
    EXPECT_EQ(rest.substr(rest.size() - text.size() - 1), text + "\n");
    EXPECT_EQ(SplitLines(log).size(), 1U);
}

TEST_F(LogTest, MissingDirectoryLosesTheLineSilently) {
    ASSERT_EQ(std::system("rm -rf /opt/Vornal"), 0);
    HIC_SetLogLevel(HIC_LOG_DEBUG);
    const std::string out = CaptureStdout([] {
        for (int level = HIC_LOG_DEBUG; level <= HIC_LOG_ERROR; ++level) {
            (void)LogAtLevel(level, "lost\n");
        }
    });
    EXPECT_EQ(out, "");
    EXPECT_FALSE(Exists("/opt/Vornal"));
}

TEST_F(LogTest, RotationHappensOnlyAboveThreshold) {
    struct Case {
        size_t size;
        bool rotated;
    };
    const Case cases[] = {{31457280, false}, {31457281, true}};
    const std::string staleArchive = "not an archive: the previous generation\n";
    for (const Case& c : cases) {
        SCOPED_TRACE("size " + std::to_string(c.size));
        const std::string old = OldLog(c.size);
        WriteFile(HIC_LOG_PATH, old);
        WriteFile(HIC_LOG_ARCHIVE_PATH, staleArchive);

        const int line = LogAtLevel(HIC_LOG_INFO, "trigger\n");
        const std::string expectedTail =
            "] [INFO] [vn_hostinfo_linux] [LogAtLevel: " + std::to_string(line) + "] trigger\n";
        const std::string log = ReadFile(HIC_LOG_PATH);
        EXPECT_FALSE(Exists(HIC_LOG_BAK_PATH));
        if (!c.rotated) {
            ASSERT_GT(log.size(), old.size());
            EXPECT_TRUE(log.compare(0, old.size(), old) == 0);
            EXPECT_EQ(SplitDate(log.substr(old.size())).second, expectedTail);
            EXPECT_EQ(ReadFile(HIC_LOG_ARCHIVE_PATH), staleArchive);
            continue;
        }
        const std::vector<std::string> lines = SplitLines(log);
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0], kMarker);
        EXPECT_EQ(SplitDate(lines[1]).second, expectedTail);
        EXPECT_EQ(Capture("tar tzf /opt/Vornal/log/hostinfolog.tar.gz 2>&1"),
                  "hostinfotool_bak.log\n");
        const std::string member =
            Capture("tar xzOf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log");
        EXPECT_EQ(member.size(), old.size());
        EXPECT_TRUE(member == old) << "archived log differs from the old log";
    }
}

TEST_F(LogTest, RotationWithoutPreviousArchive) {
    const std::string old = OldLog(31457281 + 4096);
    WriteFile(HIC_LOG_PATH, old);
    (void)LogAtLevel(HIC_LOG_ERROR, "trigger\n");
    EXPECT_EQ(SplitLines(ReadFile(HIC_LOG_PATH)).size(), 2U);
    EXPECT_TRUE(Capture("tar xzOf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log") == old);
    EXPECT_FALSE(Exists(HIC_LOG_BAK_PATH));
}

TEST_F(LogTest, LineBelowLevelDoesNotRotate) {
    const std::string old = OldLog(31457281);
    WriteFile(HIC_LOG_PATH, old);
    (void)LogAtLevel(HIC_LOG_DEBUG, "filtered\n");
    EXPECT_FALSE(Exists(HIC_LOG_ARCHIVE_PATH));
    EXPECT_EQ(ReadFile(HIC_LOG_PATH).size(), old.size());
}

// Payload length of line i of a burst: mostly short, some far longer than a
// stdio buffer or a pipe page.
size_t BurstPayload(int i) {
    return i % 100 == 0 ? 9000 : static_cast<size_t>(i % 97);
}

int LogBurst(int thread, int lines) {
    const int line = __LINE__ + 3;
    for (int i = 0; i < lines; ++i) {
        const std::string payload(BurstPayload(i), static_cast<char>('a' + thread));
        HIC_LOG(HIC_LOG_INFO, "thread %d line %d %s|\n", thread, i, payload.c_str());
    }
    return line;
}

TEST_F(LogTest, ConcurrentThreadsWriteWholeLinesOnly) {
    constexpr int kThreads = 8;
    constexpr int kLines = 2000;
    std::atomic<int> ready{0};
    std::atomic<int> sourceLine{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &ready, &sourceLine] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
                std::this_thread::yield();
            }
            sourceLine.store(LogBurst(t, kLines));
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }

    const std::string log = ReadFile(HIC_LOG_PATH);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), '\n');
    const std::string head =
        "] [INFO] [vn_hostinfo_linux] [LogBurst: " + std::to_string(sourceLine.load()) +
        "] thread ";
    std::map<std::pair<int, int>, int> seen;
    size_t bad = 0;
    for (const std::string& line : SplitLines(log)) {
        const auto [date, rest] = SplitDate(line);
        int thread = -1;
        int i = -1;
        int payloadStart = 0;
        const bool parsed = !date.empty() && rest.compare(0, head.size(), head) == 0 &&
                            std::sscanf(rest.c_str() + head.size(), "%d line %d %n", &thread, &i,
                                        &payloadStart) == 2 &&
                            rest.size() >= 2 && rest.compare(rest.size() - 2, 2, "|\n") == 0;
        const size_t from = head.size() + static_cast<size_t>(payloadStart);
        if (!parsed || thread < 0 || thread >= kThreads || i < 0 || from > rest.size() - 2 ||
            rest.substr(from, rest.size() - 2 - from) !=
                std::string(BurstPayload(i), static_cast<char>('a' + thread))) {
            if (++bad <= 3) {
                ADD_FAILURE() << "broken line: " << line.substr(0, 200);
            }
            continue;
        }
        ++seen[{thread, i}];
    }
    EXPECT_EQ(bad, 0U);
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& [key, count] : seen) {
        if (count != 1) {
            ADD_FAILURE() << "thread " << key.first << " line " << key.second << " seen " << count
                          << " times";
            break;
        }
    }
}

TEST_F(LogTest, ThreadsCrossingThresholdTogetherRotateOnce) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string old = OldLog(31457281 + static_cast<size_t>(round) * 1000);
        WriteFile(HIC_LOG_PATH, old);
        (void)std::remove(HIC_LOG_ARCHIVE_PATH);

        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([t, &ready] {
                ready.fetch_add(1);
                while (ready.load() < 2) {
                    std::this_thread::yield();
                }
                HIC_LOG(HIC_LOG_INFO, "crossing %d\n", t);
            });
        }
        for (std::thread& th : threads) {
            th.join();
        }

        const std::vector<std::string> lines = SplitLines(ReadFile(HIC_LOG_PATH));
        ASSERT_EQ(lines.size(), 3U);
        EXPECT_EQ(lines[0], kMarker);
        int crossing[2] = {0, 0};
        for (size_t i = 1; i < lines.size(); ++i) {
            const std::string rest = SplitDate(lines[i]).second;
            for (int t = 0; t < 2; ++t) {
                if (rest.size() > 12 && rest.compare(rest.size() - 11, 11,
                                                     "crossing " + std::to_string(t) + "\n") == 0) {
                    ++crossing[t];
                }
            }
        }
        EXPECT_EQ(crossing[0], 1);
        EXPECT_EQ(crossing[1], 1);
        EXPECT_EQ(Capture("tar tzf /opt/Vornal/log/hostinfolog.tar.gz 2>&1"),
                  "hostinfotool_bak.log\n");
        EXPECT_TRUE(Capture("tar xzOf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log") ==
                    old)
            << "the archive does not hold the pre-rotation log";
        EXPECT_FALSE(Exists(HIC_LOG_BAK_PATH));
    }
}

// Lines written by other threads while one thread rotates land either in
// the archive or in the fresh log, never in the gap between the copy and
// the truncation.
TEST_F(LogTest, NoLineIsLostAcrossARotation) {
    constexpr int kThreads = 4;
    constexpr int kLines = 400;
    // Close enough below the threshold that the burst crosses it early.
    WriteFile(HIC_LOG_PATH, OldLog(31457280 - 2000));
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &ready] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kLines; ++i) {
                HIC_LOG(HIC_LOG_INFO, "kept %d %d\n", t, i);
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    const std::string both =
        Capture("tar xzOf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log") +
        ReadFile(HIC_LOG_PATH);
    std::map<std::pair<int, int>, int> seen;
    for (const std::string& line : SplitLines(both)) {
        const size_t at = line.find("] kept ");
        int t = -1;
        int i = -1;
        if (at != std::string::npos &&
            std::sscanf(line.c_str() + at, "] kept %d %d", &t, &i) == 2) {
            ++seen[{t, i}];
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& [key, count] : seen) {
        EXPECT_EQ(count, 1) << "thread " << key.first << " line " << key.second;
    }
    EXPECT_EQ(SplitLines(ReadFile(HIC_LOG_PATH))[0], kMarker);
}

TEST(LogDateTest, DateHasTheLocalTimeForm) {
    char date[HIC_DATE_LEN];
    std::memset(date, 'x', sizeof(date));
    const time_t before = std::time(nullptr);
    HIC_GetDate(date, HIC_DATE_LEN);
    const time_t after = std::time(nullptr);
    ASSERT_EQ(std::strlen(date), 19U);
    ExpectDate(date, before, after);
}

TEST(LogDateTest, SmallOrInvalidDestinations) {
    // size 10: at most 9 characters, then the NUL; size 0: the copy fails
    // and says so on standard output, leaving the buffer as it was.
    char date[HIC_DATE_LEN];
    std::memset(date, 'x', sizeof(date));
    std::string out = CaptureStdout([&date] { HIC_GetDate(date, 10); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(std::strlen(date), 9U);
    EXPECT_TRUE(IsDateText(std::string(date) + "1 00:00:00")) << date;

    std::memset(date, 'x', sizeof(date));
    out = CaptureStdout([&date] { HIC_GetDate(date, 0); });
    EXPECT_EQ(out, "strncpy_s failed in func HIC_GetDate.\n");
    EXPECT_EQ(date[0], 'x');

    out = CaptureStdout([] { HIC_GetDate(nullptr, HIC_DATE_LEN); });
    EXPECT_EQ(out, "");
}

// The probe runs with its clock set by libfaketime to a fixed moment.
TEST_F(LogTest, DateOfAFixedMomentUnderFaketime) {
    ASSERT_STRNE(HIC_LIBFAKETIME, "")
        << "libfaketime not found at configure time (Debian package faketime)";
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string var = *e;
        if (var.rfind("LD_PRELOAD=", 0) != 0 && var.rfind("FAKETIME", 0) != 0 &&
            var.rfind("ASAN_OPTIONS=", 0) != 0) {
            env.push_back(var);
        }
    }
    env.emplace_back(std::string("LD_PRELOAD=") + HIC_LIBFAKETIME);
    env.emplace_back("FAKETIME=2027-02-01 09:05:03");
    env.emplace_back("FAKETIME_DONT_FAKE_MONOTONIC=1");
    // The sanitizer runtime would refuse a preloaded library ahead of it.
    const char* asan = std::getenv("ASAN_OPTIONS");
    env.emplace_back(std::string("ASAN_OPTIONS=") +
                     (asan != nullptr ? std::string(asan) + ":" : "") + "verify_asan_link_order=0");
    std::vector<char*> envp;
    for (std::string& var : env) {
        envp.push_back(var.data());
    }
    envp.push_back(nullptr);

    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        (void)::dup2(fds[1], STDOUT_FILENO);
        (void)::close(fds[0]);
        (void)::close(fds[1]);
        char* argv[] = {const_cast<char*>(HIC_DATE_PROBE), nullptr};
        ::execve(HIC_DATE_PROBE, argv, envp.data());
        ::_exit(127);
    }
    (void)::close(fds[1]);
    std::string out;
    char buf[256];
    ssize_t n = 0;
    while ((n = ::read(fds[0], buf, sizeof(buf))) > 0) {
        out.append(buf, static_cast<size_t>(n));
    }
    (void)::close(fds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "probe status " << status;

    EXPECT_EQ(out, "2027-02-01 09:05:03\n");
    const std::string log = ReadFile(HIC_LOG_PATH);
    const std::string expected = "[2027-02-01 09:05:03] [INFO] [vn_hostinfo_linux] [main: ";
    EXPECT_EQ(log.substr(0, expected.size()), expected) << log;
}

TEST(LogAssertTest, ReportGoesToStdoutAndExecutionContinues) {
    struct Case {
        const void* pointer;
        bool reported;
    };
    const int value = 0;
    const Case cases[] = {{nullptr, true}, {&value, false}};
    for (const Case& c : cases) {
        bool continued = false;
        int line = 0;
        const std::string out = CaptureStdout([&] { line = AssertHere(c.pointer, &continued); });
        EXPECT_TRUE(continued);
        EXPECT_EQ(out, c.reported ? "*** Assertion on function \"AssertHere\" line " +
                                        std::to_string(line) + "\n"
                                  : std::string());
    }
}

TEST_F(LogTest, AssertReportIsNotLogged) {
    bool continued = false;
    (void)CaptureStdout([&continued] { (void)AssertHere(nullptr, &continued); });
    EXPECT_FALSE(Exists(HIC_LOG_PATH));
}

}  // namespace
