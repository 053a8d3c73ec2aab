// The installed daemon, started as an administrator starts it (through the
// shell, from /usr/sbin), inside the host sandbox with the virtual array and
// the stand-in vnadmin. The daemon runs under libfaketime at ten times the
// speed, so its 30-second passes and 10-second heartbeats take 3 s and 1 s.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "support/sandbox_test.h"

namespace {

using hic_test::LoggedMessages;
using hic_test::MakeDirs;
using hic_test::ReadFile;
using hic_test::WriteFile;

constexpr const char* kDaemon = "/usr/sbin/vn_hostinfo";
constexpr const char* kPidFile = "/Vornal/install/otherTools/hostInfoCollect.pid";
constexpr const char* kScriptDir = "/Vornal/install/otherTools";
constexpr const char* kFakeTime = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
// Sanitizer reports of the daemon land here (its standard error is closed).
constexpr const char* kSanitizerLog = "/tmp/hic-daemon-san";
constexpr const char* kWwnB = "6e0a0b0c0d0e0f101112131415161701";
constexpr const char* kWwnC = "6e0a0b0c0d0e0f101112131415161702";

// The environment prefix of every start: faster time, sanitizer reports to a file.
std::string DaemonEnv() {
    return std::string("env LD_PRELOAD=") + kFakeTime + " FAKETIME='+0 x10'" +
           " ASAN_OPTIONS=verify_asan_link_order=0:log_path=" + kSanitizerLog +
           " UBSAN_OPTIONS=log_path=" + kSanitizerLog + " TSAN_OPTIONS=log_path=" + kSanitizerLog +
           " ";
}

bool WaitFor(const std::function<bool()>& done, int timeoutMs = 20000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

std::string ReadLink(const std::string& path) {
    char buf[512];
    const ssize_t n = ::readlink(path.c_str(), buf, sizeof(buf));
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string ListingLine(const char* dev, const char* wwn) {
    return std::string("  1  ") + dev + "  0x1  " + wwn + "  Normal\n";
}

// The vnarray configuration: one array at software 3.0 with LUN sdb.
vnarray::Json RigConfig() {
    return vnarray::Json::parse(std::string(R"({
        "arrays": [{"sn": "ARRAY01", "name": "array-one"}],
        "luns": [{"dev": "sdb", "array": "ARRAY01", "name": "lun-b", "wwn": ")") +
                                kWwnB + R"("}]})");
}

class DaemonE2eTest : public hic_test::SandboxTest {
  protected:
    static void SetUpTestSuite() {
        // Orphans of the double fork come to this process, so their exit
        // statuses can be read.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }

    void SetUp() override {
        hic_test::SandboxTest::SetUp();
        ASSERT_EQ(::access(kDaemon, X_OK), 0) << "the daemon is not installed in the sandbox";
        MakeDirs(kScriptDir);
        MakeDirs("/run/vnadmin");
        (void)std::remove(kPidFile);
        WriteFile("/run/vnadmin/show_version", "Vornal Driver Version : 31.1.0\n");
        WriteFile("/run/vnadmin/show_vlun", ListingLine("sdb", kWwnB));
        WriteFile("/etc/vn.hostinfo", "IpType=IPv4;\nIpAddress=10.10.1.20;\n");
        WriteFile(std::string(kScriptDir) + "/hic_data.sh", "#!/bin/sh\nexit 0\n");
        // The collection script writes into its own directory and records its arguments.
        WriteFile(std::string(kScriptDir) + "/hic_collect.sh",
                  "#!/bin/sh\n"
                  "dir=$(dirname \"$0\")\n"
                  "printf 'args:%s|%s|%s\\n' \"$#\" \"$1\" \"$2\" > \"$dir/CollectLog_host.txt\"\n"
                  "printf 'disks\\n' > \"$dir/disk.data\"\n"
                  "printf 'paths\\n' > \"$dir/path.data\"\n"
                  "printf 'not packed\\n' > \"$dir/other.txt\"\n");
        rig_ = std::make_unique<vnarray::Rig>(RigConfig());
        rig_->Start();
    }

    void TearDown() override {
        StopDaemon();
        if (rig_) {
            (void)rig_->Stop();
        }
        ReapOrphans();
        // No sanitizer report from the daemon.
        std::string reports;
        if (DIR* d = ::opendir("/tmp")) {
            while (const dirent* e = ::readdir(d)) {
                if (std::string(e->d_name).rfind("hic-daemon-san", 0) == 0) {
                    reports += ReadFile((std::string("/tmp/") + e->d_name).c_str());
                }
            }
            ::closedir(d);
        }
        EXPECT_EQ(reports, "");
        hic_test::SandboxTest::TearDown();
    }

    // Starts the daemon through the shell; returns the shell's exit status.
    int Start(const std::string& args = "", const std::string& env = "") {
        const std::string cmd =
            DaemonEnv() + env + " " + kDaemon + (args.empty() ? "" : " " + args);
        const int status = std::system(cmd.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // The pid the running daemon wrote, or -1.
    static pid_t PidFromFile() {
        const std::string text = ReadFile(kPidFile);
        if (text.size() < 2 || text.back() != '\0') {
            return -1;
        }
        return static_cast<pid_t>(std::atol(text.c_str()));
    }

    pid_t WaitForDaemon() {
        pid_t pid = -1;
        EXPECT_TRUE(WaitFor([&] {
            pid = PidFromFile();
            return pid > 0 && ::kill(pid, 0) == 0;
        })) << "no daemon came up; log:\n"
            << ReadFile(HIC_LOG_PATH);
        daemons_.insert(pid);
        return pid;
    }

    void StopDaemon() {
        for (pid_t pid : daemons_) {
            if (pid > 0 && ::kill(pid, SIGKILL) == 0) {
                int status = 0;
                (void)::waitpid(pid, &status, 0);
            }
        }
        daemons_.clear();
    }

    // Reaps every finished orphan but the virtual array; exit status by pid.
    std::map<pid_t, int> ReapOrphans() {
        std::map<pid_t, int> out;
        for (;;) {
            siginfo_t info{};
            if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) {
                return out;
            }
            if (rig_ && info.si_pid == rig_->pid()) {
                return out;
            }
            int status = 0;
            (void)::waitpid(info.si_pid, &status, 0);
            out[info.si_pid] = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }

    // Waits until a background process has ended with the given status.
    bool WaitForExit(int code) {
        bool seen = false;
        (void)WaitFor([&] {
            for (const auto& [pid, status] : ReapOrphans()) {
                seen = seen || status == code;
            }
            return seen;
        });
        return seen;
    }

    bool WaitForLog(const std::string& part, int timeoutMs = 20000) {
        return WaitFor([&] { return Contains(LoggedMessages(), part); }, timeoutMs);
    }

    std::unique_ptr<vnarray::Rig> rig_;
    std::set<pid_t> daemons_;
};

TEST_F(DaemonE2eTest, StartsInTheBackgroundHoldingItsPidFile) {
    EXPECT_EQ(Start(), 0);
    const pid_t pid = WaitForDaemon();
    ASSERT_GT(pid, 0);

    // Decimal pid and one NUL, mode 0600, open on descriptor 0 and nothing else.
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + std::string(1, '\0'));
    struct stat st {};
    ASSERT_EQ(::stat(kPidFile, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(ReadLink(proc + "/fd/0"), kPidFile);
    // After the first pass the array's task has come and gone.
    ASSERT_TRUE(WaitFor([&] { return rig_->client().Commands({{"kind", "c7"}}).size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::set<std::string> fds;
    if (DIR* d = ::opendir((proc + "/fd").c_str())) {
        while (const dirent* e = ::readdir(d)) {
            if (e->d_name[0] != '.') {
                fds.insert(e->d_name);
            }
        }
        ::closedir(d);
    }
    EXPECT_EQ(fds, std::set<std::string>{"0"});
    EXPECT_EQ(ReadLink(proc + "/cwd"), "/");
    // A session of its own, not the invoking shell's, and not its leader.
    EXPECT_NE(::getsid(pid), ::getsid(0));
    EXPECT_NE(::getsid(pid), pid);
    // The daemon is the grandchild: both earlier processes ended with 0.
    EXPECT_TRUE(WaitForExit(0));
    EXPECT_TRUE(
        Contains(LoggedMessages(), "INFO HIC_CheckVornal: The Vornal version is 31.1.0.\n"));
}

TEST_F(DaemonE2eTest, SecondInstanceEndsWith255AndLeavesThePidFile) {
    ASSERT_EQ(Start(), 0);
    const pid_t first = WaitForDaemon();
    ASSERT_GT(first, 0);
    (void)ReapOrphans();
    const std::string pidText = ReadFile(kPidFile);

    EXPECT_EQ(Start(), 0);  // the invoking shell sees success either way
    EXPECT_TRUE(WaitForExit(255));
    EXPECT_TRUE(Contains(
        LoggedMessages(),
        "ERR HIC_CheckIsAlreadyRunning: can't lock /Vornal/install/otherTools/hostInfoCollect.pid: "
        "Resource temporarily unavailable.\n"
        "ERR main: hostinfo tool already running...\n"))
        << LoggedMessages();
    EXPECT_EQ(ReadFile(kPidFile), pidText);
    EXPECT_EQ(::kill(first, 0), 0);
}

struct RefusalCase {
    const char* name;
    const char* env;
    const char* version;  // content of "vnadmin show version"
    const char* log;      // the whole log
};

class DaemonRefusalTest : public DaemonE2eTest,
                          public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(DaemonRefusalTest, EndsWith255WithoutAPidFile) {
    const RefusalCase& c = GetParam();
    WriteFile("/run/vnadmin/show_version", c.version);
    EXPECT_EQ(Start("", c.env), 0);
    EXPECT_TRUE(WaitForExit(255));
    EXPECT_EQ(LoggedMessages(), c.log);
    struct stat st {};
    EXPECT_NE(::stat(kPidFile, &st), 0) << "the pid file was created";
}

INSTANTIATE_TEST_SUITE_P(Product, DaemonRefusalTest,
                         ::testing::Values(
                             // Without the tool on the search path.
                             RefusalCase{"tool_missing", "PATH=/usr/bin:/bin", "Driver 31.1.0\n",
                                         "ERR HIC_CheckVornal: Vornal is not installed in the OS.\n"
                                         "ERR main: Vornal is not installed in the OS.\n"},
                             RefusalCase{"version_too_old", "", "Vornal Driver Version : 31.0.26\n",
                                         "INFO HIC_CheckVornal: The Vornal version is 31.0.26.\n"
                                         "ERR HIC_CheckVornal: The Vornal version is too low.\n"
                                         "ERR main: Vornal is not installed in the OS.\n"},
                             RefusalCase{"version_prefixed", "", "Driver V31.0.27\n",
                                         "INFO HIC_CheckVornal: The Vornal version is V31.0.27.\n"
                                         "ERR HIC_CheckVornal: The Vornal version is too low.\n"
                                         "ERR main: Vornal is not installed in the OS.\n"}),
                         hic_test::CaseName());

struct ArgCase {
    const char* name;
    const char* args;
    bool debug;
};

class DaemonArgumentTest : public DaemonE2eTest, public ::testing::WithParamInterface<ArgCase> {};

TEST_P(DaemonArgumentTest, OnlyTheExactArgumentTurnsOnDebug) {
    const ArgCase& c = GetParam();
    ASSERT_EQ(Start(c.args), 0);
    ASSERT_GT(WaitForDaemon(), 0);
    // The first pass is over when the array's task has asked and ended.
    ASSERT_TRUE(WaitForLog("INFO HIC_CheckVornal: The Vornal version is 31.1.0.\n"));
    ASSERT_TRUE(WaitFor([] { return ::access("/opt/Vornal/ARRAY01", F_OK) != 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::string log = LoggedMessages();
    const bool announced = log.rfind("INFO main: Set log level to Debug.\n", 0) == 0;
    EXPECT_EQ(announced, c.debug) << log;
    EXPECT_EQ(Contains(log, "\nDEBUG "), c.debug) << log;
}

INSTANTIATE_TEST_SUITE_P(Arguments, DaemonArgumentTest,
                         ::testing::Values(ArgCase{"exact", "VN_LOG_DEBUG", true},
                                           ArgCase{"none", "", false},
                                           ArgCase{"lower_case", "vn_log_debug", false},
                                           ArgCase{"with_second", "VN_LOG_DEBUG extra", false},
                                           ArgCase{"longer", "VN_LOG_DEBUGX", false},
                                           ArgCase{"shorter", "VN_LOG_DEBU", false}),
                         hic_test::CaseName());

TEST_F(DaemonE2eTest, CollectsAndUploadsAByteIdenticalArchive) {
    rig_->client().RaiseSwitch("ARRAY01", "00000001");
    ASSERT_EQ(Start("VN_LOG_DEBUG"), 0);
    ASSERT_GT(WaitForDaemon(), 0);

    std::vector<vnarray::UploadAttempt> uploads;
    ASSERT_TRUE(WaitFor([&] {
        uploads = rig_->client().Uploads("ARRAY01");
        return !uploads.empty() && uploads.back().complete;
    })) << LoggedMessages();
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_TRUE(uploads[0].issues.empty());
    EXPECT_EQ(uploads[0].luns, std::vector<std::string>{"sdb"});
    const vnarray::Version version{0, 0, 0, 1};
    EXPECT_EQ(uploads[0].versions, version);
    EXPECT_EQ(uploads[0].host_ip[0], 10);
    EXPECT_EQ(uploads[0].host_ip[3], 20);
    EXPECT_EQ(uploads[0].ip_type, 0);

    // The received archive unpacks to exactly the script's two patterns.
    MakeDirs("/tmp/received");
    rig_->client().SaveUpload("ARRAY01", uploads[0].index, "/tmp/received.tar.gz");
    ASSERT_EQ(std::system("tar -xzf /tmp/received.tar.gz -C /tmp/received"), 0);
    ASSERT_EQ(std::system("test \"$(ls /tmp/received | tr '\\n' ' ')\" = 'CollectLog_host.txt "
                          "disk.data path.data '"),
              0);
    EXPECT_EQ(ReadFile("/tmp/received/CollectLog_host.txt"), "args:2|-scene|upgrade\n");
    EXPECT_EQ(ReadFile("/tmp/received/disk.data"), "disks\n");

    // The heartbeat carried the collect version and the host address.
    const auto heartbeats = rig_->client().Heartbeats("ARRAY01");
    ASSERT_FALSE(heartbeats.empty());
    const vnarray::Bytes payload = {0x00, 0x81, 0x00, 0x1C, 0, 0, 0, 1, 10, 10, 1, 20, 0, 0,
                                    0,    0,    0,    0,    0, 0, 0, 0, 0,  0,  0, 0,  0, 0};
    EXPECT_EQ(heartbeats[0].payload, payload);

    // The task ends: the heartbeat notices, the array is idle, the workspace gone.
    EXPECT_TRUE(WaitForLog("INFO HIC_SendHeartBeatByLun: Pthread HeartBeatC9 exit.\n"));
    EXPECT_TRUE(WaitFor([] { return ::access("/opt/Vornal/ARRAY01", F_OK) != 0; }));
    const std::string log = LoggedMessages();
    EXPECT_TRUE(Contains(
        log, "INFO HIC_CollectTaskThread: array{sn:ARRAY01} collect task execute success.\n"));
    EXPECT_TRUE(
        Contains(log,
                 "INFO HIC_GetSwitchInfo: Select lun /dev/sdb to start the collection task for "
                 "array:ARRAY01.\n"));
    // The same version does not collect again on later passes.
    ASSERT_TRUE(WaitForLog(
        "DEBUG HIC_IsValidToExecuteCollectTask: the versions are not change, not execute "
        "collect.\n"));
    EXPECT_EQ(rig_->client().Uploads("ARRAY01").size(), 1U);
}

TEST_F(DaemonE2eTest, LunListFollowsTheManagementTool) {
    ASSERT_EQ(Start("VN_LOG_DEBUG"), 0);
    ASSERT_GT(WaitForDaemon(), 0);
    ASSERT_TRUE(WaitForLog("DEBUG HIC_GetLunList: add device sdb from block dir.\n"));

    // A LUN that appears in the listing joins at the next refresh.
    rig_->client().AddLun({{"dev", "sdc"}, {"array", "ARRAY01"}, {"wwn", kWwnC}});
    WriteFile("/run/vnadmin/show_vlun", ListingLine("sdb", kWwnB) + ListingLine("sdc", kWwnC));
    EXPECT_TRUE(
        WaitForLog("DEBUG HIC_RefreshLunListByVnadm: Refresh add device /dev/sdc from vnadm.\n"));

    // One that leaves is dropped while every array is idle.
    WriteFile("/run/vnadmin/show_vlun", ListingLine("sdc", kWwnC));
    EXPECT_TRUE(WaitForLog(
        "DEBUG HIC_CheckAndClearLunListByVnadm: clear device /dev/sdb by vnadm output.\n"));
    EXPECT_FALSE(Contains(LoggedMessages(), "clear device /dev/sdc"));
    // The management tool was asked exactly as the product expects.
    EXPECT_TRUE(Contains(ReadFile("/run/vnadmin/calls"), "show vlun type=all\n"));
}

}  // namespace
