// The installed daemon, started as an administrator starts it (through the
// shell, from /usr/sbin), inside the host sandbox with the virtual array and
// the stand-in vnadmin. The daemon runs under libfaketime at ten times the
// speed, so its 30-second passes and 10-second heartbeats take 3 s and 1 s.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "client.h"
#include "log/log.h"
#include "support/support.h"
#include "support/wire.h"

namespace {

using hic_test::LoggedMessages;
using hic_test::MakeDirs;
using hic_test::ReadFile;
using hic_test::SplitLines;
using hic_test::WaitFor;
using hic_test::WriteFile;

constexpr const char* kDaemon = "/usr/sbin/vn_hostinfo";
constexpr const char* kPidFile = "/Vornal/install/otherTools/hostInfoCollect.pid";
constexpr const char* kScriptDir = "/Vornal/install/otherTools";
constexpr const char* kFakeTime = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
// Sanitizer reports of the daemon land here (its standard error is closed).
constexpr const char* kSanitizerLog = "/tmp/hic-daemon-san";
// The WWNs of the served LUNs but their last digit.
constexpr const char* kWwn = "6e0a0b0c0d0e0f10111213141516170";

// The environment prefix of every start: faster time, sanitizer reports to a file.
std::string DaemonEnv() {
    return std::string("env LD_PRELOAD=") + kFakeTime + " FAKETIME='+0 x10'" +
           " ASAN_OPTIONS=verify_asan_link_order=0:log_path=" + kSanitizerLog +
           " UBSAN_OPTIONS=log_path=" + kSanitizerLog + " TSAN_OPTIONS=log_path=" + kSanitizerLog +
           " ";
}

std::string ReadLink(const std::string& path) {
    char buf[512];
    const ssize_t n = ::readlink(path.c_str(), buf, sizeof(buf));
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The tool's listing of the LUNs given as "dev:n", each WWN ending in n.
std::string Listing(std::initializer_list<std::string> luns) {
    std::string out;
    for (const std::string& lun : luns) {
        const size_t colon = lun.rfind(':');
        out += "  1  " + lun.substr(0, colon) + "  0x1  " + kWwn + lun.substr(colon + 1) +
               "  Normal\n";
    }
    return out;
}

// The vnarray configuration: one array at software 3.0 with LUN sdb.
vnarray::Json RigConfig() {
    return vnarray::Json::parse(std::string(R"({
        "arrays": [{"sn": "ARRAY01", "name": "array-one"}],
        "luns": [{"dev": "sdb", "array": "ARRAY01", "name": "lun-b", "wwn": ")") +
                                kWwn + R"(1"}]})");
}

// "pid (comm) state ppid ..." of the sandbox's processes but its init, this
// one and the virtual array (zombies included), or of parent's children only.
std::vector<std::string> Processes(pid_t rig, pid_t parent = 0) {
    std::vector<std::string> out;
    for (const std::string& name : hic_test::DirNames("/proc")) {
        const pid_t pid = std::atoi(name.c_str());
        if (pid <= 1 || pid == ::getpid() || pid == rig) {
            continue;
        }
        const std::string stat = ReadFile("/proc/" + name + "/stat");
        const size_t end = stat.rfind(") ");
        if (parent == 0 ||
            (end != std::string::npos && std::atol(stat.c_str() + end + 4) == parent)) {
            out.push_back(stat);
        }
    }
    return out;
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
        WriteFile("/run/vnadmin/show_vlun", Listing({"sdb:1"}));
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
        EXPECT_EQ(hic_test::Capture(std::string("cat ") + kSanitizerLog + "* 2>/dev/null"), "");
        hic_test::SandboxTest::TearDown();
    }

    // Starts the daemon through the shell; returns the shell's exit status.
    int Start(const std::string& args = "", const std::string& env = "") {
        const std::string cmd =
            DaemonEnv() + env + " " + kDaemon + (args.empty() ? "" : " " + args);
        const int status = std::system(cmd.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Waits until the pid file, written whole, names a running daemon.
    pid_t WaitForDaemon() {
        pid_t pid = -1;
        EXPECT_TRUE(WaitFor([&] {
            const std::string text = ReadFile(kPidFile);
            pid = text.ends_with('\0') ? std::atoi(text.c_str()) : -1;
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

    bool WaitForLog(const std::string& part, double seconds = 20) {
        return WaitFor([&] { return Contains(LoggedMessages(), part); }, seconds);
    }

    std::unique_ptr<vnarray::Rig> rig_;
    std::set<pid_t> daemons_;
};

// Each refusal also shows that only the exact argument turns on DEBUG.
struct RefusalCase {
    const char* name;
    const char* env;
    const char* args;
    const char* version;  // content of "vnadmin show version"
    const char* log;      // the whole log
};

class DaemonRefusalTest : public DaemonE2eTest,
                          public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(DaemonRefusalTest, EndsWith255WithoutAPidFile) {
    const RefusalCase& c = GetParam();
    WriteFile("/run/vnadmin/show_version", c.version);
    EXPECT_EQ(Start(c.args, c.env), 0);
    EXPECT_TRUE(WaitForExit(255));
    EXPECT_EQ(LoggedMessages(), c.log);
    EXPECT_FALSE(hic_test::Exists(kPidFile)) << "the pid file was created";
}

// Without the tool on the search path.
constexpr const char* kNoTool =
    "ERR HIC_CheckVornal: Vornal is not installed in the OS.\n"
    "ERR main: Vornal is not installed in the OS.\n";
INSTANTIATE_TEST_SUITE_P(
    Product, DaemonRefusalTest,
    ::testing::Values(
        RefusalCase{"tool_missing", "PATH=/usr/bin:/bin", "vn_log_debug", "", kNoTool},
        RefusalCase{"tool_missing_two_args", "PATH=/usr/bin:/bin", "VN_LOG_DEBUG x", "", kNoTool},
        RefusalCase{"tool_missing_shorter_arg", "PATH=/usr/bin:/bin", "VN_LOG_DEBU", "", kNoTool},
        RefusalCase{"version_too_old", "", "VN_LOG_DEBUG", "Vornal Driver Version : 31.0.26\n",
                    "INFO main: Set log level to Debug.\n"
                    "INFO HIC_CheckVornal: The Vornal version is 31.0.26.\n"
                    "ERR HIC_CheckVornal: The Vornal version is too low.\n"
                    "ERR main: Vornal is not installed in the OS.\n"},
        RefusalCase{"version_prefixed", "", "VN_LOG_DEBUGX", "Driver V31.0.27\n",
                    "INFO HIC_CheckVornal: The Vornal version is V31.0.27.\n"
                    "ERR HIC_CheckVornal: The Vornal version is too low.\n"
                    "ERR main: Vornal is not installed in the OS.\n"}),
    hic_test::CaseName());

// Three arrays and a disk of another vendor. ARRAY01 and ARRAY02 (software
// 2.7, the oldest asked) ask for a collection; so does ARRAY03, but its
// software 2.6 is too old to be asked.
constexpr const char* kFleet = R"({
  "arrays": [{"sn": "ARRAY01", "name": "array-one"},
             {"sn": "ARRAY02", "name": "array-two", "major": 2, "minor": 7},
             {"sn": "ARRAY03", "name": "array-three", "major": 2, "minor": 6}],
  "luns": [{"dev": "sdb", "array": "ARRAY01", "wwn": "6e0a0b0c0d0e0f101112131415161701"},
           {"dev": "sdc", "array": "ARRAY01", "vendor": "PELKO",
            "wwn": "6e0a0b0c0d0e0f101112131415161702"},
           {"dev": "sdd", "array": "ARRAY02", "wwn": "6e0a0b0c0d0e0f101112131415161703"},
           {"dev": "sde", "array": "ARRAY02", "wwn": "6e0a0b0c0d0e0f101112131415161704"},
           {"dev": "sdf", "array": "ARRAY03", "wwn": "6e0a0b0c0d0e0f101112131415161705"},
           {"dev": "sdg", "vendor": "OTHERV", "wwn": "6e0a0b0c0d0e0f101112131415161706"}]})";

// The stand-in collection script: it notes its arguments, its directory's
// mode and contents and whether the data script was copied whole, writes
// 9000 random bytes (three chunks once packed) and keeps a copy of them;
// ARRAY01's takes 23 seconds.
constexpr const char* kFleetScript = R"SH(#!/bin/sh
dir=$(dirname "$0")
sn=$(basename "$dir")
listing=$(ls "$dir" | tr '\n' ' ')
echo "$listing" > "$dir/listing.data"
stat -c %a "$dir" > "$dir/mode.data"
cmp -s "$dir/hic_data.sh" /Vornal/install/otherTools/hic_data.sh && echo same > "$dir/copy.data"
printf '%s|%s|%s\n' "$#" "$1" "$2" > "$dir/CollectLog_$sn.txt"
printf 'not packed\n' > "$dir/other.txt"
head -c 9000 /dev/urandom > "$dir/big.data"
cp "$dir/big.data" "/run/big.$sn"
[ "$sn" = ARRAY01 ] && sleep 23
exit 0
)SH";

// Of two LUNs of an array, the one the daemon takes first.
std::pair<std::string, std::string> FirstOf(const std::vector<std::string>& order,
                                            const std::string& a, const std::string& b) {
    for (const std::string& dev : order) {
        if (dev == a || dev == b) {
            return {dev, dev == a ? b : a};
        }
    }
    return {a, b};
}

// "name=content" of every member of an archive, in archive order.
std::vector<std::string> Members(const hic_test::Bytes& archive) {
    WriteFile("/tmp/received.tar.gz", std::string(archive.begin(), archive.end()));
    EXPECT_EQ(std::system("rm -rf /tmp/received && mkdir /tmp/received && "
                          "tar xzf /tmp/received.tar.gz -C /tmp/received"),
              0);
    std::vector<std::string> out;
    const std::string names = hic_test::Capture("tar tzf /tmp/received.tar.gz");
    for (size_t pos = 0, end; (end = names.find('\n', pos)) != std::string::npos; pos = end + 1) {
        const std::string name = names.substr(pos, end - pos);
        out.push_back(name + "=" + ReadFile("/tmp/received/" + name));
    }
    return out;
}

std::vector<std::string> ExpectedMembers(const std::string& sn) {
    return {"big.data=" + ReadFile("/run/big." + sn), "copy.data=same\n",
            "listing.data=hic_collect.sh hic_data.sh \n", "mode.data=600\n",
            "CollectLog_" + sn + ".txt=2|-scene|upgrade\n"};
}

using hic_test::Debug;
using hic_test::Err;
using hic_test::Info;

// The collection thread's lines through dev, up to the script.
hic_test::LogList ArmedLines(const std::string& sn, const std::string& dev,
                             const std::string& version) {
    const std::string dir = "/opt/Vornal/" + sn;
    return {
        Debug("HIC_GetCollectScriptFromArray", "Select lun " + dev + ".\n"),
        Debug("HIC_CheckArrayVersion", "get array version {" + version + "}.\n"),
        Info("HIC_IsValidToExecuteCollectTask", "Get the array{sn:" + sn + "} switchStatus 1.\n"),
        Info("HIC_GetSwitchInfo",
             "Select lun " + dev + " to start the collection task for array:" + sn + ".\n"),
        Info("HIC_CreateDirectory", "The directory{" + dir + "} recreate success.\n"),
        Info("HIC_HeartBeatThreadCreate", "start HeartBeat C9 to array: " + sn + ".\n"),
        Debug("HIC_ExecuteCollectScript",
              "sh " + dir + "/hic_collect.sh -scene upgrade >/dev/null 2>&1.\n"),
        Debug("HIC_ExecuteCollectScript", "cd " + dir + "/; tar zcf " + dir +
                                              "/result.tar.gz -- *.data CollectLog_*.txt "
                                              ">/dev/null 2>&1.\n")};
}

// An upload attempt through dev of an archive of size bytes, up to the
// chunk that failed (or all of them).
hic_test::LogList UploadLines(const std::string& sn, const std::string& dev, uint32_t size,
                              uint32_t failedAt = UINT32_MAX) {
    hic_test::LogList lines = {
        Info("HIC_WriteCollectResultToArray",
             "begin write result array{sn:" + sn + "} by lun{" + dev + "}.\n"),
        Info("HIC_WriteResultFileBufToArray",
             "the array{sn:" + sn + "} result fileSize is " + std::to_string(size) + ".\n")};
    for (uint32_t offset = 0; offset < size && offset < failedAt; offset += 4064) {
        lines.push_back(Info("HIC_GetFileBufAndWriteToArray",
                             "Write to array Offset " + std::to_string(offset) + " success.\n"));
    }
    return lines;
}

std::string Success(const std::string& sn) {
    return Info("HIC_CollectTaskThread", "array{sn:" + sn + "} collect task execute success.\n");
}

// Lists of lines, one after the other.
hic_test::LogList Cat(std::initializer_list<hic_test::LogList> parts) {
    hic_test::LogList out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

TEST_F(DaemonE2eTest, CollectsFromEveryArrayThatAsks) {
    ASSERT_EQ(rig_->Stop(), 0);
    rig_ = std::make_unique<vnarray::Rig>(vnarray::Json::parse(kFleet));
    rig_->Start();
    vnarray::Client& array = rig_->client();
    const std::vector<std::string> order = hic_test::DirNames("/sys/block");  // discovery's order
    const auto [one, oneNext] = FirstOf(order, "sdb", "sdc");
    const auto [two, twoNext] = FirstOf(order, "sdd", "sde");
    WriteFile("/run/vnadmin/show_vlun", Listing({"sdb:1", "sdc:2", "sdd:3", "sde:4", "sdf:5"}));
    WriteFile(std::string(kScriptDir) + "/hic_collect.sh", kFleetScript);
    WriteFile("/etc/vn.hostinfo", "IpType=IPv6;\nIpAddress=2001:db8::1;\n");
    array.RaiseSwitch("ARRAY01", "0A0B0C0D");
    array.RaiseSwitch("ARRAY02", "00000002");
    array.RaiseSwitch("ARRAY03", "00000001");
    // ARRAY02's LUNs each fail one heartbeat, and its first LUN the second
    // chunk: the heartbeat ends early, the collection goes on without it.
    array.InjectFault({{"lun", two}, {"kind", "c9"}, {"status", 2}, {"count", 1}});
    array.InjectFault({{"lun", twoNext}, {"kind", "c9"}, {"status", 2}, {"count", 1}});
    array.InjectFault({{"lun", two}, {"kind", "ca"}, {"status", 2}, {"after", 1}, {"count", 1}});

    ASSERT_EQ(Start("VN_LOG_DEBUG"), 0);
    const pid_t pid = WaitForDaemon();
    ASSERT_GT(pid, 0);
    // Both collections end, and ARRAY01's heartbeat sees it.
    ASSERT_TRUE(WaitFor([&] {
        const std::string log = LoggedMessages();
        return Contains(log, Success("ARRAY01")) && Contains(log, Success("ARRAY02")) &&
               Contains(log, "INFO HIC_SendHeartBeatByLun: Pthread HeartBeatC9 exit.\n") &&
               !hic_test::Exists("/opt/Vornal/ARRAY01") && !hic_test::Exists("/opt/Vornal/ARRAY02");
    })) << LoggedMessages();

    // What the arrays got: the heartbeats and chunks carry each array's
    // collect version and the settings' address (2001:db8::1, IPv6 is 1).
    const hic_test::Bytes ip = hic_test::Hex("20010DB8 000000000000000000000001");
    const std::map<std::string, hic_test::HostFields> hosts = {
        {"ARRAY01", {hic_test::Hex("0A0B0C0D"), ip, 1}},
        {"ARRAY02", {hic_test::Hex("00000002"), ip, 1}}};
    hic_test::ExpectEveryCommand(array.Commands(), hosts);
    // The old array is never asked for its switch.
    EXPECT_TRUE(array.Commands({{"kind", "c7"}, {"lun", "sdf"}}).empty());
    // A 23-second collection at a 10-second period: beats at 0, 10 and 20 s.
    const auto beats = array.Heartbeats("ARRAY01");
    EXPECT_EQ(beats.size(), 3U);
    for (const auto& b : beats) {
        EXPECT_EQ(b.lun, one);
    }
    // ARRAY02's heartbeat left the LUN that failed it for the next one, and
    // ended when that failed too.
    EXPECT_EQ(array.Commands({{"kind", "c9"}, {"lun", two}}).size(), 1U);
    EXPECT_EQ(array.Commands({{"kind", "c9"}, {"lun", twoNext}}).size(), 1U);
    EXPECT_TRUE(array.Heartbeats("ARRAY02").empty());

    const auto up1 = array.Uploads("ARRAY01");
    ASSERT_EQ(up1.size(), 1U);
    EXPECT_TRUE(up1[0].complete && up1[0].issues.empty());
    EXPECT_EQ(up1[0].luns, std::vector<std::string>{one});
    const hic_test::Bytes archive1 = array.UploadData("ARRAY01");
    ASSERT_GT(archive1.size(), 2 * 4064U);
    hic_test::ExpectChunks(array.Commands({{"kind", "ca"}, {"lun", one}}), archive1,
                           hosts.at("ARRAY01"));
    EXPECT_EQ(Members(archive1), ExpectedMembers("ARRAY01"));
    // The second chunk failed on the first LUN: the next LUN got it all again.
    const auto up2 = array.Uploads("ARRAY02");
    ASSERT_EQ(up2.size(), 2U);
    EXPECT_FALSE(up2[0].complete);
    EXPECT_EQ(up2[0].luns, std::vector<std::string>{two});
    EXPECT_TRUE(up2[1].complete && up2[1].issues.empty());
    EXPECT_EQ(up2[1].luns, std::vector<std::string>{twoNext});
    const hic_test::Bytes archive2 = array.UploadData("ARRAY02");
    hic_test::ExpectChunks(array.Commands({{"kind", "ca"}, {"lun", twoNext}}), archive2,
                           hosts.at("ARRAY02"));
    EXPECT_EQ(Members(archive2), ExpectedMembers("ARRAY02"));
    // The daemon detached as it must, once no task of it runs: decimal pid
    // and one NUL in a 0600 pid file held on descriptor 3 beside /dev/null on
    // 0 to 2 and nothing else, working directory /, a session of its own (not
    // the invoking shell's, and not its leader); the two processes before it
    // ended with 0.
    const std::string pidText = ReadFile(kPidFile);
    EXPECT_EQ(pidText, std::to_string(pid) + std::string(1, '\0'));
    struct stat st {};
    EXPECT_EQ(::stat(kPidFile, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(hic_test::DirNames(proc + "/fd"), (std::vector<std::string>{"0", "1", "2", "3"}));
    for (const char* fd : {"/fd/0", "/fd/1", "/fd/2"}) {
        EXPECT_EQ(ReadLink(proc + fd), "/dev/null");
    }
    EXPECT_EQ(ReadLink(proc + "/fd/3"), kPidFile);
    EXPECT_EQ(ReadLink(proc + "/cwd"), "/");
    EXPECT_NE(::getsid(pid), ::getsid(0));
    EXPECT_NE(::getsid(pid), pid);
    EXPECT_TRUE(WaitForExit(0));
    // No script, shell or archiver is left behind, not even as a zombie.
    EXPECT_EQ(Processes(rig_->pid(), pid), std::vector<std::string>());
    // Every descriptor was closed again.
    for (const auto& o : hic_test::SettledOpens(array)) {
        EXPECT_EQ(o.err, 0) << o.lun;
    }

    // The log: each array's road in order, and exactly these errors.
    const hic_test::LogList lines = hic_test::LogLines();
    const auto size1 = static_cast<uint32_t>(archive1.size());
    const auto size2 = static_cast<uint32_t>(archive2.size());
    EXPECT_TRUE(hic_test::InOrder(lines, Cat({ArmedLines("ARRAY01", "/dev/" + one, "3.0"),
                                              UploadLines("ARRAY01", "/dev/" + one, size1),
                                              {Success("ARRAY01")}})));
    EXPECT_TRUE(hic_test::InOrder(lines, Cat({ArmedLines("ARRAY02", "/dev/" + two, "2.7"),
                                              UploadLines("ARRAY02", "/dev/" + two, size2, 4064),
                                              UploadLines("ARRAY02", "/dev/" + twoNext, size2),
                                              {Success("ARRAY02")}})));
    EXPECT_TRUE(
        hic_test::InOrder(lines, {Debug("HIC_GetCollectScriptFromArray", "Select lun /dev/sdf.\n"),
                                  Debug("HIC_CheckArrayVersion", "get array version {2.6}.\n")}));
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(),
                   Info("HIC_SendHeartBeatByLun", "send HeartBeat C9 to array{sn:ARRAY01}.\n")),
        3);
    // The listing confirmed every LUN the discovery found.
    EXPECT_FALSE(Contains(LoggedMessages(), "clear device"));
    hic_test::LogList errors = hic_test::LinesStartingWith(lines, "ERR ");
    std::sort(errors.begin(), errors.end());
    hic_test::LogList expected = {
        Err("HIC_DoWriteBufToArray", "write to array failed.\n"),
        Err("HIC_GetFileBufAndWriteToArray", "Write buf to array failed, offset 4064.\n"),
        Err("HIC_SendHeartBeat", "send heartbeat failed.\n"),
        Err("HIC_SendHeartBeat", "send heartbeat failed.\n"),
        Err("HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev /dev/" + two + ".\n"),
        Err("HIC_SendHeartBeatByLun", "send HeartBeatC9 failed on dev /dev/" + twoNext + ".\n"),
        Err("HIC_WriteCollectResultToArray",
            "Write to array{sn:ARRAY02} failed on dev /dev/" + two + ".\n")};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(errors, expected);

    // The listing changes: sdf leaves it, sdc's WWN changes, and a new LUN,
    // sdh, joins; the next refresh, with every array idle, follows it.
    array.AddLun({{"dev", "sdh"}, {"array", "ARRAY03"}, {"wwn", kWwn + std::string("8")}});
    WriteFile("/run/vnadmin/show_vlun", Listing({"sdb:1", "sdc:9", "sdd:3", "sde:4", "sdh:8"}));
    // A second instance beside the running one ends with 255 and leaves the
    // pid file alone; the invoking shell sees success either way.
    EXPECT_EQ(Start(), 0);
    EXPECT_TRUE(WaitForExit(255));
    EXPECT_TRUE(Contains(LoggedMessages(),
                         "ERR HIC_CheckIsAlreadyRunning: can't lock "
                         "/Vornal/install/otherTools/hostInfoCollect.pid: "
                         "Resource temporarily unavailable.\n"
                         "ERR main: hostinfo tool already running...\n"))
        << LoggedMessages();
    EXPECT_EQ(ReadFile(kPidFile), pidText);
    EXPECT_EQ(::kill(pid, 0), 0);
    // A new version (last byte only) is a new request once the array is
    // idle again; the unchanged one is not.
    array.RaiseSwitch("ARRAY02", "00000003");
    // A switch byte of 2 is not a request, whatever the version says.
    // (ARRAY01 is the only array at software 3.0.)
    const std::string asked = Debug("HIC_CheckArrayVersion", "get array version {3.0}.\n");
    const auto count = [](const std::string& line) {
        const hic_test::LogList now = hic_test::LogLines();
        return std::count(now.begin(), now.end(), line);
    };
    const auto askedBefore = count(asked);
    array.SetSwitch("ARRAY01", 2, "0A0B0C0E");
    ASSERT_TRUE(WaitFor([&] {
        const auto ups = array.Uploads("ARRAY02");
        return ups.size() == 3 && ups[2].complete;
    })) << LoggedMessages();
    EXPECT_EQ(array.Uploads("ARRAY02")[2].luns, std::vector<std::string>{two});
    EXPECT_EQ(array.Uploads("ARRAY02")[2].versions, (vnarray::Version{0, 0, 0, 3}));
    EXPECT_TRUE(
        WaitForLog("DEBUG HIC_IsValidToExecuteCollectTask: the versions are not change, not "
                   "execute collect.\n"));
    // Two more passes ask ARRAY01, and its collection was started once.
    EXPECT_TRUE(WaitFor([&] { return count(asked) >= askedBefore + 2; })) << LoggedMessages();
    const hic_test::LogList selects =
        hic_test::LinesStartingWith(hic_test::LogLines(), "INFO HIC_GetSwitchInfo: Select lun ");
    EXPECT_EQ(std::count_if(selects.begin(), selects.end(),
                            [](const std::string& l) { return Contains(l, "array:ARRAY01.\n"); }),
              1);
    EXPECT_EQ(array.Uploads("ARRAY01").size(), 1U);
    EXPECT_TRUE(WaitForLog(
        "DEBUG HIC_CheckAndClearLunListByVnadm: clear device /dev/sdf by vnadm output.\n"));
    EXPECT_TRUE(WaitForLog(
        "DEBUG HIC_CheckAndClearLunListByVnadm: clear device /dev/sdc by vnadm output.\n"));
    EXPECT_TRUE(
        WaitForLog("DEBUG HIC_RefreshLunListByVnadm: Refresh add device /dev/sdc from vnadm.\n"));
    EXPECT_TRUE(
        WaitForLog("DEBUG HIC_RefreshLunListByVnadm: Refresh add device /dev/sdh from vnadm.\n"));
    // The management tool was asked exactly as the product expects.
    EXPECT_TRUE(Contains(ReadFile("/run/vnadmin/calls"), "\nshow vlun type=all\n"));
}

// A hostile or broken host and array. Arrays whose serial numbers name
// what is not a workspace; one whose serial number carries control
// characters; a script that leaves a FIFO in place of the archive and a
// file named like a tar option; a missing hic_data.sh; a vnadmin that
// warns on standard error and lists a traversal name, then 100,000 LUNs.
constexpr const char* kHostile = R"({
  "arrays": [{"sn": "ARRAY01", "name": "good"}, {"sn": "FIFO01", "name": "fifo"},
             {"sn": "log", "name": "log"}, {"sn": "bin", "name": "product"},
             {"sn": "LINKED", "name": "linked"},
             {"id": "bad", "sn": "BAD\r\u001b[2JSN", "name": "bad"}],
  "luns": [{"dev": "sdb", "array": "ARRAY01", "wwn": "6e0a0b0c0d0e0f101112131415161701"},
           {"dev": "sdc", "array": "FIFO01", "wwn": "6e0a0b0c0d0e0f101112131415161702"},
           {"dev": "sdd", "array": "log", "wwn": "6e0a0b0c0d0e0f101112131415161703"},
           {"dev": "sde", "array": "bin", "wwn": "6e0a0b0c0d0e0f101112131415161704"},
           {"dev": "sdf", "array": "LINKED", "wwn": "6e0a0b0c0d0e0f101112131415161705"},
           {"dev": "sdg", "array": "bad", "wwn": "6e0a0b0c0d0e0f101112131415161706"}]})";

// FIFO01's archive becomes a FIFO whose only reader leaves once tar has
// written it; ARRAY01's files record what the script inherited.
constexpr const char* kHostileScript = R"SH(#!/bin/sh
dir=$(dirname "$0")
sn=$(basename "$dir")
ls -l /proc/self/fd | awk 'NR > 1 && $NF !~ /^\/(proc|dev\/shm)\// { printf "%s ", $9 }' \
  > "$dir/fds.data"
umask > "$dir/umask.data"
printf '/srv/secret.txt\n' > "$dir/list.data"
: > "$dir/--files-from=list.data"
echo "$sn" > "$dir/CollectLog_$sn.txt"
if [ "$sn" = FIFO01 ]; then
  mkfifo "$dir/result.tar.gz"
  cat "$dir/result.tar.gz" > /dev/null &
fi
exit 0
)SH";

// What the daemon must leave alone: at /opt/Vornal/<sn>, what plant made.
struct Planted {
    const char* sn;
    const char* plant;  // shell, before the start
    const char* keep;   // a file that keeps its "keep\n"
    const char* dir;    // a directory that keeps its listing
};
const Planted kPlanted[] = {
    {"log", "echo keep > /opt/Vornal/log/hostinfolog.tar.gz", "/opt/Vornal/log/hostinfolog.tar.gz",
     ""},
    {"bin", "mkdir /opt/Vornal/bin && echo keep > /opt/Vornal/bin/vntool", "/opt/Vornal/bin/vntool",
     "/opt/Vornal/bin"},
    {"LINKED",
     "mkdir /srv/other && echo keep > /srv/other/keep && chmod 600 /srv/other && "
     "ln -s /srv/other /opt/Vornal/LINKED",
     "/srv/other/keep", "/srv/other"},
};

TEST_F(DaemonE2eTest, AHostileOrBrokenHostAndArrayHarmNothing) {
    ASSERT_EQ(rig_->Stop(), 0);
    rig_ = std::make_unique<vnarray::Rig>(vnarray::Json::parse(kHostile));
    rig_->Start();
    vnarray::Client& array = rig_->client();
    std::map<std::string, std::string> before;
    for (const Planted& p : kPlanted) {
        ASSERT_EQ(std::system(p.plant), 0) << p.sn;
        before[p.sn] = hic_test::Capture(std::string("ls -A ") + p.dir + " 2>&1");
    }
    WriteFile("/srv/secret.txt", "secret\n");
    ASSERT_EQ(std::system("mkfifo /run/x"), 0);
    const std::string listing = Listing({"sdb:1", "sdc:2", "sdd:3", "sde:4", "sdf:5", "sdg:6"});
    WriteFile("/run/vnadmin/show_vlun", listing + Listing({"../run/x:f", "sd\x1b[2Jz:e"}));
    WriteFile("/run/vnadmin/stderr", "vnadmin: warning: the path is degraded\n");
    WriteFile(std::string(kScriptDir) + "/hic_collect.sh", kHostileScript);
    (void)std::remove((std::string(kScriptDir) + "/hic_data.sh").c_str());
    array.RaiseSwitch("ARRAY01", "00000001");
    array.RaiseSwitch("FIFO01", "00000001");
    ASSERT_EQ(Start(), 0);
    const pid_t pid = WaitForDaemon();
    ASSERT_GT(pid, 0);

    // Collections end, a FIFO archive included; a refresh with every array
    // idle skips the traversal name and the main loop goes on.
    const auto refreshes = [] { return SplitLines(ReadFile("/run/vnadmin/calls")).size(); };
    ASSERT_TRUE(WaitFor([&] {
        const std::string log = LoggedMessages();
        return Contains(log, Success("ARRAY01")) &&
               Contains(log,
                        "ERR HIC_CollectTaskThread: array{sn:FIFO01} collect task execute "
                        "failed.\n");
    })) << LoggedMessages();
    const size_t seen = refreshes();
    ASSERT_TRUE(WaitFor([&] { return refreshes() >= seen + 2; })) << LoggedMessages();
    const hic_test::LogList lines = hic_test::LogLines();
    EXPECT_TRUE(
        hic_test::InOrder(lines, {Err("HIC_WriteResultFileBufToArray",
                                      "fopen /opt/Vornal/FIFO01/result.tar.gz file error.\n"),
                                  Err("HIC_WriteCollectResultToArray",
                                      "Write to array{sn:FIFO01} failed on dev /dev/sdc.\n")}));
    for (const Planted& p : kPlanted) {
        SCOPED_TRACE(p.sn);
        EXPECT_TRUE(hic_test::InOrder(
            lines, {Err("HIC_CollectTaskThread", std::string("The directory{/opt/Vornal/") + p.sn +
                                                     "} is not a workspace, left alone.\n")}));
        EXPECT_EQ(ReadFile(p.keep), "keep\n");
        EXPECT_EQ(hic_test::Capture(std::string("ls -A ") + p.dir + " 2>&1"), before[p.sn]);
    }
    EXPECT_EQ(ReadLink("/opt/Vornal/LINKED"), "/srv/other");
    EXPECT_TRUE(hic_test::InOrder(
        lines, {Err("HIC_CollectTaskThread", "Invalid array sn: BAD??[2JSN.\n")}));
    for (const char* dev : {"sdd", "sde", "sdf", "sdg"}) {
        EXPECT_TRUE(array.Commands({{"kind", "c7"}, {"lun", dev}}).empty()) << dev;
    }

    // ARRAY01's archive: its own files only, the tar option among them as a
    // name; its script and every vnadmin held nothing but 0 to 2 (ls's own
    // and libfaketime's do not count) and ran with umask 022.
    EXPECT_EQ(Members(array.UploadData("ARRAY01")),
              (std::vector<std::string>{"--files-from=list.data=", "fds.data=0 1 2 ",
                                        "list.data=/srv/secret.txt\n", "umask.data=0022\n",
                                        "CollectLog_ARRAY01.txt=ARRAY01\n"}));
    for (const std::string& fds : SplitLines(ReadFile("/run/vnadmin/fds"))) {
        EXPECT_EQ(fds, "0 1 2 \n");
    }
    struct stat st {};
    ASSERT_EQ(::stat(HIC_LOG_PATH, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);

    // 100,000 LUNs in one listing: refused whole, one line a pass, and the
    // daemon stays small.
    std::string huge = listing;
    for (int i = 0; i < 100000; ++i) {
        huge += Listing({"sdz" + std::to_string(i) + ":" + std::to_string(i)});
    }
    WriteFile("/run/vnadmin/show_vlun", huge);
    const std::string refused =
        Err("HIC_GetVnLunInfoListByVnadm", "vnadm lists more than 4096 luns, refresh skipped.\n");
    ASSERT_TRUE(WaitFor([&] {
        const auto all = hic_test::LogLines();
        return std::count(all.begin(), all.end(), refused) >= 2;
    })) << LoggedMessages().size();
    EXPECT_LT(ReadFile(HIC_LOG_PATH).size(), 65536U);
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t rss = status.find("VmRSS:");
    ASSERT_NE(rss, std::string::npos);
    if (HIC_DAEMON_SANITIZED == 0) {
        EXPECT_LT(std::atol(status.c_str() + rss + 6), 8192L) << "KiB";
    }

    // No control character but line ends in the log, no write on any disk,
    // nothing left running once the daemon is gone.
    const std::string log = ReadFile(HIC_LOG_PATH);
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](char c) { return (c >= 0 && c < 0x20 && c != '\n') || c == 0x7F; }),
              0);
    EXPECT_TRUE(array.Writes().empty());
    // ... which the array would have seen, as a disk takes it.
    const int fd = ::open("/dev/sdb", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::pwrite(fd, "cp: x\n", 6, 512), 6);
    (void)::close(fd);
    const auto writes = array.Writes();
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(std::tie(writes[0].lun, writes[0].offset, writes[0].length, writes[0].pid),
              std::make_tuple(std::string("sdb"), std::uint64_t{512}, std::size_t{6}, ::getpid()));
    EXPECT_EQ(writes[0].head, hic_test::Bytes({'c', 'p', ':', ' ', 'x', '\n'}));
    StopDaemon();
    // A log that is a symbolic link: nothing is written through it.
    WriteFile("/srv/victim", "victim\n");
    ASSERT_EQ(std::remove(HIC_LOG_PATH), 0);
    ASSERT_EQ(::symlink("/srv/victim", HIC_LOG_PATH), 0);
    EXPECT_EQ(Start("", "PATH=/usr/bin:/bin"), 0);
    EXPECT_TRUE(WaitForExit(255));
    EXPECT_EQ(ReadFile("/srv/victim"), "victim\n");
    EXPECT_TRUE(WaitFor([&] {
        (void)ReapOrphans();
        return Processes(rig_->pid()).empty();
    })) << ::testing::PrintToString(Processes(rig_->pid()));
}

// On a clock a hundred times faster, every write takes 110 seconds and
// fails: the first LUN fails at 110 s and the second at 220 s, each within
// the 300-second budget, so the next LUN is tried; the third fails at 330 s,
// past it, and the fourth is never tried. Before that, the first pass's
// query fails on the first four LUNs: the fifth is not asked.
TEST_F(DaemonE2eTest, UploadGivesUpOnceItsBudgetIsSpent) {
    ASSERT_EQ(rig_->Stop(), 0);
    rig_ = std::make_unique<vnarray::Rig>(vnarray::Json::parse(R"({
        "arrays": [{"sn": "ARRAY09", "name": "slow"}],
        "luns": [{"dev": "sdb", "array": "ARRAY09", "wwn": "6e0a0b0c0d0e0f101112131415161701"},
                 {"dev": "sdc", "array": "ARRAY09", "wwn": "6e0a0b0c0d0e0f101112131415161702"},
                 {"dev": "sdd", "array": "ARRAY09", "wwn": "6e0a0b0c0d0e0f101112131415161703"},
                 {"dev": "sde", "array": "ARRAY09", "wwn": "6e0a0b0c0d0e0f101112131415161704"},
                 {"dev": "sdf", "array": "ARRAY09", "wwn": "6e0a0b0c0d0e0f101112131415161705"}]})"));
    rig_->Start();
    vnarray::Client& array = rig_->client();
    WriteFile("/run/vnadmin/show_vlun", Listing({"sdb:1", "sdc:2", "sdd:3", "sde:4", "sdf:5"}));
    const std::vector<std::string> order = hic_test::DirNames("/sys/block");
    ASSERT_EQ(order.size(), 5U);
    for (size_t i = 0; i < 4; ++i) {
        array.InjectFault({{"lun", order[i]}, {"kind", "c7"}, {"status", 2}, {"count", 1}});
    }
    array.InjectFault({{"kind", "ca"}, {"status", 2}, {"delay_ms", 1100}});
    array.RaiseSwitch("ARRAY09", "00000001");
    // A pid file left by an earlier run, longer than the new content.
    WriteFile(kPidFile, "99999999999 stale content\n");
    ASSERT_EQ(Start("", "FAKETIME='+0 x100'"), 0);
    const pid_t pid = WaitForDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + std::string(1, '\0'));
    ASSERT_TRUE(WaitForLog(
        "ERR HIC_CollectTaskThread: array{sn:ARRAY09} collect task execute failed.\n", 60))
        << LoggedMessages();

    std::vector<std::string> asked;
    for (const auto& c : array.Commands({{"kind", "c7"}})) {
        asked.push_back(c.lun);
    }
    asked.resize(5);
    EXPECT_EQ(asked, std::vector<std::string>({order[0], order[1], order[2], order[3], order[0]}));
    hic_test::LogList failed;
    for (size_t i = 0; i < 3; ++i) {
        failed.push_back(Err("HIC_WriteCollectResultToArray",
                             "Write to array{sn:ARRAY09} failed on dev /dev/" + order[i] + ".\n"));
    }
    EXPECT_EQ(
        hic_test::LinesStartingWith(hic_test::LogLines(), "ERR HIC_WriteCollectResultToArray: "),
        failed);
    EXPECT_TRUE(array.Commands({{"kind", "ca"}, {"lun", order[3]}}).empty());
    EXPECT_TRUE(array.Commands({{"kind", "ca"}, {"lun", order[4]}}).empty());
}

}  // namespace
