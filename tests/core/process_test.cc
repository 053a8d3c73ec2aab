// Start-up services: the product check against the stand-in vnadmin, the
// pid-file lock, and the move into the background.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "core/process.h"
#include "support/sandbox_test.h"

namespace {

using hic_test::LoggedMessages;
using hic_test::ReadFile;
using hic_test::WriteFile;

constexpr const char* kVersionFile = "/run/vnadmin/show_version";

struct VersionCase {
    const char* name;
    const char* output;  // what "vnadmin show version" prints
    int result;
    const char* log;
};

class CheckVornalTest : public hic_test::SandboxTest,
                        public ::testing::WithParamInterface<VersionCase> {
  protected:
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        hic_test::MakeDirs("/run/vnadmin");
    }
};

TEST_P(CheckVornalTest, DecidesOnTheDriverVersion) {
    const VersionCase& c = GetParam();
    WriteFile(kVersionFile, c.output);
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
        VersionCase{"v31_1_0", "Driver Version : 31.1.0\n", 0, ACCEPTED("31.1.0")},
        VersionCase{"v31_1_1", "Driver 31.1.1\n", 0, ACCEPTED("31.1.1")},
        VersionCase{"v32_0_0", "Driver Version : 32.0.0\n", 0, ACCEPTED("32.0.0")},
        VersionCase{"letters_after", "Driver 31.0.26abc\n", -1, TOO_LOW("31.0.26abc")},
        VersionCase{"letter_before", "Driver V31.0.27\n", -1, TOO_LOW("V31.0.27")},
        // Empty pieces are skipped by the tokenizer.
        VersionCase{"double_dot", "Driver 31..0.27\n", 0, ACCEPTED("31..0.27")},
        // A missing piece is never read; it counts as 0.
        VersionCase{"major_only", "Driver 31\n", -1, TOO_LOW("31")},
        VersionCase{"two_pieces", "Driver 32.0\n", 0, ACCEPTED("32.0")},
        VersionCase{"pieces_after_third", "Driver 31.0.27.1\n", 0, ACCEPTED("31.0.27.1")},
        // Only lines with "Driver" count, their last fields run together.
        VersionCase{"other_lines", "Product 1.0\nDriver Version : 31.2.3\n", 0, ACCEPTED("31.2.3")},
        VersionCase{"no_output", "", 0, ""},
        VersionCase{"no_driver_line", "Version 31.0.27\n", 0, ""}),
    hic_test::CaseName());

TEST_F(CheckVornalTest, MissingToolIsRefused) {
    const char* path = std::getenv("PATH");
    const std::string saved = path != nullptr ? path : "";
    ASSERT_EQ(::setenv("PATH", "/usr/bin:/bin", 1), 0);
    EXPECT_EQ(HIC_CheckVornal(), -1);
    ASSERT_EQ(::setenv("PATH", saved.c_str(), 1), 0);
    EXPECT_EQ(LoggedMessages(), "ERR HIC_CheckVornal: Vornal is not installed in the OS.\n");
}

class PidFileTest : public hic_test::SandboxTest {
  protected:
    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        hic_test::MakeDirs("/Vornal/install/otherTools");
        (void)std::remove(HIC_PID_FILE);
        (void)::umask(0);
    }
    void TearDown() override {
        if (HIC_GetPidFileFd() >= 0) {
            (void)::close(HIC_GetPidFileFd());
        }
        hic_test::SandboxTest::TearDown();
    }
};

TEST_F(PidFileTest, WritesThePidAndANulUnderALock) {
    WriteFile(HIC_PID_FILE, "99999999999 stale content");
    ASSERT_EQ(HIC_CheckIsAlreadyRunning(), 0);

    // Another process is refused the lock at once. (Checked before this
    // process reads the file: closing any descriptor of it drops our lock.)
    const pid_t child = ::fork();
    if (child == 0) {
        const int fd = ::open(HIC_PID_FILE, O_RDWR);
        ::_exit(HIC_LockPidFile(fd) == -1 && (errno == EAGAIN || errno == EACCES) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(ReadFile(HIC_PID_FILE), std::to_string(::getpid()) + std::string(1, '\0'));
    EXPECT_EQ(LoggedMessages(), "");
}

TEST_F(PidFileTest, NewFileGetsMode0600) {
    ASSERT_EQ(HIC_CheckIsAlreadyRunning(), 0);
    struct stat st {};
    ASSERT_EQ(::stat(HIC_PID_FILE, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
}

TEST_F(PidFileTest, HeldLockRefusesAndLeavesTheFile) {
    // A child holds the lock as a running daemon would.
    int ready[2];
    int release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    WriteFile(HIC_PID_FILE, std::string("4242") + '\0');
    const pid_t holder = ::fork();
    if (holder == 0) {
        const int fd = ::open(HIC_PID_FILE, O_RDWR);
        const char ok = HIC_LockPidFile(fd) == 0 ? 'y' : 'n';
        (void)!::write(ready[1], &ok, 1);
        char c = 0;
        (void)!::read(release[0], &c, 1);
        ::_exit(0);
    }
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');

    EXPECT_EQ(HIC_CheckIsAlreadyRunning(), -1);
    EXPECT_EQ(
        LoggedMessages(),
        "ERR HIC_CheckIsAlreadyRunning: can't lock /Vornal/install/otherTools/hostInfoCollect.pid: "
        "Resource temporarily unavailable.\n");
    // Refused for a held lock: the descriptor was closed again.
    EXPECT_EQ(::fcntl(HIC_GetPidFileFd(), F_GETFD), -1);
    EXPECT_EQ(ReadFile(HIC_PID_FILE), std::string("4242") + '\0');

    (void)!::write(release[1], "x", 1);
    int status = 0;
    (void)::waitpid(holder, &status, 0);
    for (int fd : {ready[0], ready[1], release[0], release[1]}) {
        (void)::close(fd);
    }
}

TEST_F(PidFileTest, NoDescriptorNoLock) {
    ASSERT_EQ(std::system("rm -rf /Vornal"), 0);
    EXPECT_EQ(HIC_CheckIsAlreadyRunning(), -1);
    EXPECT_EQ(
        LoggedMessages(),
        "ERR HIC_CheckIsAlreadyRunning: can't open /Vornal/install/otherTools/hostInfoCollect.pid: "
        "No such file or directory.\n");
    EXPECT_EQ(HIC_GetPidFileFd(), -1);
    errno = 0;
    EXPECT_EQ(HIC_LockPidFile(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

// The backgrounded process reports what it finds into this file.
constexpr const char* kReport = "/tmp/background-report";

using BackgroundTest = hic_test::SandboxTest;

TEST_F(BackgroundTest, DetachesAndClosesEveryDescriptor) {
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    (void)std::remove(kReport);
    const pid_t invoked = ::fork();
    if (invoked == 0) {
        // A low hard limit, with descriptors open just below it and above it.
        struct rlimit lim = {64, 64};
        (void)::setrlimit(RLIMIT_NOFILE, &lim);
        (void)::dup2(0, 63);
        (void)::dup2(0, 40);
        if (::chdir("/tmp") != 0) {
            ::_exit(1);
        }
        (void)::umask(077);
        const pid_t parent = ::getpid();
        HIC_TakeTheProgramRunToBackground();
        // Only the daemon gets here; standard descriptors are gone, so the
        // report file opens as descriptor 0.
        const int fd = ::open(kReport, O_WRONLY | O_CREAT | O_TRUNC, 0666);
        char cwd[64] = {};
        (void)!::getcwd(cwd, sizeof(cwd));
        const mode_t mask = ::umask(0);
        int open = 0;
        for (int i = 1; i < 64; ++i) {
            open += ::fcntl(i, F_GETFD) != -1 ? 1 : 0;
        }
        struct sigaction sa {};
        (void)::sigaction(SIGHUP, nullptr, &sa);
        const std::string text = "fd=" + std::to_string(fd) + " open=" + std::to_string(open) +
                                 " cwd=" + cwd + " umask=" + std::to_string(mask) +
                                 " leader=" + std::to_string(::getsid(0) == ::getpid() ? 1 : 0) +
                                 " newsession=" + std::to_string(::getsid(0) != parent ? 1 : 0) +
                                 " sighup=" + std::to_string(sa.sa_handler == SIG_IGN ? 1 : 0) +
                                 "\n";
        (void)!::write(fd, text.data(), text.size());
        ::_exit(7);
    }
    // The invoked process, the session leader and the daemon end here:
    // 0, 0 and the daemon's own 7.
    std::multiset<int> statuses;
    for (int i = 0; i < 3; ++i) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        ASSERT_GT(pid, 0);
        statuses.insert(WEXITSTATUS(status));
    }
    EXPECT_EQ(statuses, (std::multiset<int>{0, 0, 7}));
    EXPECT_EQ(ReadFile(kReport), "fd=0 open=0 cwd=/ umask=0 leader=0 newsession=1 sighup=1\n");
}

}  // namespace
