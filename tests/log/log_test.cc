// The daemon's log, checked on the real fixed paths inside the host sandbox.
#include "log/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/support.h"

namespace {

using hic_test::Capture;
using hic_test::Exists;
using hic_test::ReadFile;
using hic_test::SplitLines;
using hic_test::WriteFile;

const std::string kMarker = "/* The log is transferred to the bak */\n";
const std::string kArchiveList = "tar tzf /opt/Vornal/log/hostinfolog.tar.gz 2>&1";
const std::string kArchived = "tar xzOf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log";

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

// A line without its "[date" head, which the tests cannot know.
std::string AfterDate(const std::string& line) {
    const bool dated = line.size() >= 22 && line[0] == '[' && line.compare(20, 2, "] ") == 0;
    return dated ? line.substr(20) : line;
}

// What follows the date on a line logged from func at line.
std::string Tail(const char* level, const char* func, int line, const std::string& text) {
    return std::string("] [") + level + "] [vn_hostinfo_linux] [" + func + ": " +
           std::to_string(line) + "] " + text;
}

// Each helper logs one line and returns the source line of its HIC_LOG.
int LogAtLevel(int level, const char* text) {
    const int line = __LINE__ + 1;
    HIC_LOG(level, "%s", text);
    return line;
}

int AssertHere(const void* pointer, bool* continued) {
    const int line = __LINE__ + 1;
    HIC_ASSERT(pointer != nullptr);
    *continued = true;
    return line;
}

// Runs fn with standard output captured.
template <typename Fn>
std::string CaptureStdout(Fn fn) {
    ::testing::internal::CaptureStdout();
    fn();
    return ::testing::internal::GetCapturedStdout();
}

// Each test starts with the log directory and no log, at level INFO.
using LogTest = hic_test::SandboxTest;

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

// A line that gets through rotates a log strictly larger than 30 MiB first:
// the archive then holds exactly the old log, whether or not one existed.
TEST_F(LogTest, RotationHappensOnlyAboveThreshold) {
    struct Case {
        size_t size;
        int level;
        const char* levelText;
        bool staleArchive;
        bool rotated;
    };
    const Case cases[] = {
        {31457280, HIC_LOG_INFO, "INFO", true, false},
        {31457281, HIC_LOG_INFO, "INFO", true, true},
        {31457281 + 4096, HIC_LOG_ERROR, "ERR", false, true},
        {31457281, HIC_LOG_DEBUG, nullptr, false, false},  // filtered out
    };
    const std::string stale = "not an archive: the previous generation\n";
    for (const Case& c : cases) {
        SCOPED_TRACE("size " + std::to_string(c.size) + " level " + std::to_string(c.level));
        (void)std::remove(HIC_LOG_ARCHIVE_PATH);
        const std::string old = OldLog(c.size);
        WriteFile(HIC_LOG_PATH, old);
        if (c.staleArchive) {
            WriteFile(HIC_LOG_ARCHIVE_PATH, stale);
        }
        const int line = LogAtLevel(c.level, "trigger\n");
        const std::string tail =
            c.levelText != nullptr ? Tail(c.levelText, "LogAtLevel", line, "trigger\n") : "";
        const std::string log = ReadFile(HIC_LOG_PATH);
        EXPECT_FALSE(Exists(HIC_LOG_BAK_PATH));
        if (!c.rotated) {
            ASSERT_GE(log.size(), old.size());
            EXPECT_TRUE(log.compare(0, old.size(), old) == 0);
            EXPECT_EQ(AfterDate(log.substr(old.size())), tail);
            EXPECT_EQ(Exists(HIC_LOG_ARCHIVE_PATH), c.staleArchive);
            EXPECT_EQ(ReadFile(HIC_LOG_ARCHIVE_PATH), c.staleArchive ? stale : "");
            continue;
        }
        const std::vector<std::string> lines = SplitLines(log);
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0], kMarker);
        EXPECT_EQ(AfterDate(lines[1]), tail);
        EXPECT_EQ(Capture(kArchiveList), "hostinfotool_bak.log\n");
        const std::string member = Capture(kArchived);
        EXPECT_EQ(member.size(), old.size());
        EXPECT_TRUE(member == old) << "archived log differs from the old log";
    }
}

// The probe runs with its clock set by libfaketime to a fixed moment; the
// sanitizer runtime would refuse the preloaded library ahead of it.
TEST_F(LogTest, DateOfAFixedMomentUnderFaketime) {
    ASSERT_STRNE(HIC_LIBFAKETIME, "")
        << "libfaketime not found at configure time (Debian package faketime)";
    const std::string out =
        Capture(std::string("env LD_PRELOAD=") + HIC_LIBFAKETIME +
                " FAKETIME='2027-02-01 09:05:03' FAKETIME_DONT_FAKE_MONOTONIC=1"
                " ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0\" " +
                HIC_DATE_PROBE + "; echo \"exit $?\"");
    EXPECT_EQ(out, "2027-02-01 09:05:03\nexit 0\n");
    const std::string log = ReadFile(HIC_LOG_PATH);
    const std::string expected = "[2027-02-01 09:05:03] [INFO] [vn_hostinfo_linux] [main: ";
    EXPECT_EQ(log.substr(0, expected.size()), expected) << log;
}

// The report goes to standard output, never to the log, and execution
// continues either way.
TEST_F(LogTest, AssertReportsOnStdoutOnly) {
    const int value = 0;
    for (const void* pointer :
         {static_cast<const void*>(nullptr), static_cast<const void*>(&value)}) {
        bool continued = false;
        int line = 0;
        const std::string out = CaptureStdout([&] { line = AssertHere(pointer, &continued); });
        EXPECT_TRUE(continued);
        EXPECT_EQ(out, pointer == nullptr ? "*** Assertion on function \"AssertHere\" line " +
                                                std::to_string(line) + "\n"
                                          : std::string());
    }
    EXPECT_FALSE(Exists(HIC_LOG_PATH));
}

}  // namespace
