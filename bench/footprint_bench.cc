// The installed daemon's footprint: resident memory, descriptors, threads and
// CPU, over a long idle run and over 100 collections in a row on the virtual
// array. The daemon runs under libfaketime at 100 times the speed, so a
// 30-second pass takes 0.3 s. Runs inside the host sandbox with the daemon
// installed at /usr/sbin (see the README for the command).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "client.h"
#include "support/support.h"

namespace {

constexpr const char* kPidFile = "/Vornal/install/otherTools/hostInfoCollect.pid";
constexpr const char* kLog = "/opt/Vornal/log/hostinfotool.log";
constexpr double kSpeed = 100.0;
constexpr double kPassSeconds = 30.0 / kSpeed;

struct Sample {
    long rssKib = 0;
    long threads = 0;
    long fds = 0;
    double cpuSeconds = 0;
};

Sample Measure(pid_t pid) {
    Sample s;
    const std::string proc = "/proc/" + std::to_string(pid);
    std::istringstream status(hic_test::ReadFile(proc + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            s.rssKib = std::atol(line.c_str() + 6);
        } else if (line.rfind("Threads:", 0) == 0) {
            s.threads = std::atol(line.c_str() + 8);
        }
    }
    if (DIR* d = ::opendir((proc + "/fd").c_str())) {
        while (const dirent* e = ::readdir(d)) {
            s.fds += e->d_name[0] != '.' ? 1 : 0;
        }
        ::closedir(d);
    }
    // utime and stime are fields 14 and 15, after the parenthesised name.
    const std::string stat = hic_test::ReadFile(proc + "/stat");
    std::istringstream rest(stat.substr(stat.rfind(')') + 2));
    std::string field;
    unsigned long ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i >= 14) {
            ticks += std::stoul(field);
        }
    }
    s.cpuSeconds = static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return s;
}

// The host as the daemon expects it, the virtual array, and the daemon.
class Host {
  public:
    Host() {
        if (std::system("mkdir -p /opt/Vornal/log /Vornal/install/otherTools /run/vnadmin") != 0) {
            std::fprintf(stderr, "footprint_bench: cannot make the host's directories\n");
        }
        (void)std::remove(kLog);
        (void)std::remove(kPidFile);
        hic_test::WriteFile("/etc/vn.hostinfo", "IpType=IPv4;\nIpAddress=10.0.0.1;\n");
        hic_test::WriteFile(
            "/Vornal/install/otherTools/hic_collect.sh",
            "#!/bin/sh\nd=$(dirname \"$0\")\nhead -c 20000 /dev/urandom > \"$d/a.data\"\n"
            "echo done > \"$d/CollectLog_x.txt\"\n");
        hic_test::WriteFile("/Vornal/install/otherTools/hic_data.sh", "#!/bin/sh\n");
        hic_test::WriteFile("/run/vnadmin/show_version", "Driver 31.1.0\n");
        hic_test::WriteFile("/run/vnadmin/show_vlun",
                            "0 sdb 0 6e000000000000000000000000000001 Normal\n");
        rig_.Start();
        const std::string cmd =
            std::string("env LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1") +
            " FAKETIME='+0 x" + std::to_string(static_cast<int>(kSpeed)) +
            "' /usr/sbin/vn_hostinfo";
        if (std::system(cmd.c_str()) != 0 ||
            !hic_test::WaitFor([&] { return ReadPid() > 0; }, 10)) {
            std::fprintf(stderr, "the daemon did not start; is it installed in this sandbox?\n");
            std::exit(1);
        }
        pid_ = ReadPid();
    }
    ~Host() {
        (void)::kill(pid_, SIGKILL);
        (void)rig_.Stop();
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    pid_t pid() const { return pid_; }
    vnarray::Client& array() { return rig_.client(); }

  private:
    static pid_t ReadPid() {
        const std::string text = hic_test::ReadFile(kPidFile);
        return text.empty() ? -1 : static_cast<pid_t>(std::atol(text.c_str()));
    }

    vnarray::Rig rig_{R"({"arrays": [{"sn": "ARRAY01"}],
                          "luns": [{"dev": "sdb", "array": "ARRAY01",
                                    "wwn": "6e000000000000000000000000000001"}]})"};
    pid_t pid_ = -1;
};

void Report(benchmark::State& state, const Sample& before, const Sample& after) {
    state.counters["rss_kib_before"] = static_cast<double>(before.rssKib);
    state.counters["rss_kib_after"] = static_cast<double>(after.rssKib);
    state.counters["fds_before"] = static_cast<double>(before.fds);
    state.counters["fds_after"] = static_cast<double>(after.fds);
    state.counters["threads_before"] = static_cast<double>(before.threads);
    state.counters["threads_after"] = static_cast<double>(after.threads);
}

void BM_IdlePasses(benchmark::State& state) {
    const int passes = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Host host;
        // Let start-up and the first pass settle.
        std::this_thread::sleep_for(std::chrono::duration<double>(2 * kPassSeconds));
        const Sample before = Measure(host.pid());
        std::this_thread::sleep_for(std::chrono::duration<double>(passes * kPassSeconds));
        const Sample after = Measure(host.pid());
        Report(state, before, after);
        state.counters["cpu_us_per_pass"] = (after.cpuSeconds - before.cpuSeconds) * 1e6 / passes;
    }
}

void BM_Collections(benchmark::State& state) {
    const int collections = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Host host;
        std::this_thread::sleep_for(std::chrono::duration<double>(2 * kPassSeconds));
        const Sample before = Measure(host.pid());
        int done = 0;
        Sample half;
        for (int i = 1; i <= collections; ++i) {
            if (i == collections / 2 + 1) {
                half = Measure(host.pid());
            }
            char version[9];
            std::snprintf(version, sizeof(version), "%08x", static_cast<unsigned>(i));
            host.array().RaiseSwitch("ARRAY01", version);
            // Complete at the array, then back to idle with the workspace gone.
            const bool ok = hic_test::WaitFor(
                [&] {
                    const auto uploads = host.array().Uploads("ARRAY01");
                    return static_cast<int>(uploads.size()) == i && uploads.back().complete &&
                           ::access("/opt/Vornal/ARRAY01", F_OK) != 0;
                },
                30);
            if (!ok) {
                state.SkipWithError("a collection did not complete");
                break;
            }
            ++done;
        }
        // One more pass so the last heartbeat thread has ended.
        std::this_thread::sleep_for(std::chrono::duration<double>(2 * kPassSeconds));
        const Sample after = Measure(host.pid());
        Report(state, before, after);
        // Growth shows as a difference between the second half and the first.
        state.counters["rss_kib_half"] = static_cast<double>(half.rssKib);
        state.counters["collections"] = done;
        state.counters["cpu_ms_per_collection"] =
            (after.cpuSeconds - before.cpuSeconds) * 1e3 / done;
    }
}

}  // namespace

BENCHMARK(BM_IdlePasses)->Arg(200)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Collections)->Arg(100)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
