// The inventory over 1024 LUNs on 8 virtual arrays:
//   - discovery (HIC_GetLunList), next to a bare loop that issues the same
//     opens and INQUIRY commands through the same virtual array, so the
//     daemon's own share of the cost shows;
//   - one refresh pass (HIC_RefreshLunAndArrayList) whose listing confirms
//     every LUN, so nothing changes; process CPU time is what counts (the
//     tool and the shell run in child processes and are not ours).
// Needs the host sandbox:
//   tools/sandbox/hic-sandbox -- <build>/bench/inventory_bench
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "client.h"
#include "inventory/array_list.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "inventory/vnadm_refresh.h"
#include "log/log.h"

namespace {

constexpr int kLuns = 1024;
constexpr int kArrays = 8;

// Kernel disk names: sda .. sdz, sdaa .. sdzz, sdaaa ...
std::string DiskName(int index) {
    std::string letters;
    for (int n = index + 1; n > 0; n = (n - 1) / 26) {
        letters.insert(letters.begin(), static_cast<char>('a' + (n - 1) % 26));
    }
    return "sd" + letters;
}

vnarray::Json Config() {
    vnarray::Json arrays = vnarray::Json::array();
    for (int a = 0; a < kArrays; ++a) {
        arrays.push_back(
            {{"sn", "BENCHARRAY" + std::to_string(a)}, {"name", "array-" + std::to_string(a)}});
    }
    vnarray::Json luns = vnarray::Json::array();
    for (int i = 0; i < kLuns; ++i) {
        luns.push_back({{"dev", DiskName(i)},
                        {"array", "BENCHARRAY" + std::to_string(i % kArrays)},
                        {"name", "lun-" + std::to_string(i)}});
    }
    return {{"arrays", arrays}, {"luns", luns}};
}

// One vnarray for the whole run; its destructor stops it at exit.
vnarray::Rig& TheRig() {
    static vnarray::Rig rig(Config());
    static const bool started = [] {
        try {
            rig.Start();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "inventory_bench: %s (run it inside tools/sandbox/hic-sandbox)\n",
                         e.what());
            std::exit(1);
        }
        ::mkdir("/opt/Vornal", 0755);
        ::mkdir("/opt/Vornal/log", 0755);
        return true;
    }();
    (void)started;
    return rig;
}

int Inquiry(int fd, unsigned char evpd, unsigned char page, unsigned char* buf, unsigned len) {
    unsigned char cdb[6] = {
        0x12, evpd, page, static_cast<unsigned char>(len >> 8), static_cast<unsigned char>(len), 0};
    unsigned char sense[96] = {};
    sg_io_hdr_t hdr{};
    hdr.interface_id = 'S';
    hdr.dxfer_direction = SG_DXFER_FROM_DEV;
    hdr.cmd_len = sizeof(cdb);
    hdr.mx_sb_len = sizeof(sense);
    hdr.dxfer_len = len;
    hdr.dxferp = buf;
    hdr.cmdp = cdb;
    hdr.sbp = sense;
    hdr.timeout = 30;
    return ::ioctl(fd, SG_IO, &hdr) == 0 && hdr.status == 0 ? 0 : -1;
}

// The same system calls discovery makes per disk, without its bookkeeping:
// the directory walk, one stat, the vendor check on one descriptor and the
// four identity reads on a second one.
int BareDiscovery() {
    DIR* dir = ::opendir("/sys/block");
    if (dir == nullptr) {
        return -1;
    }
    int found = 0;
    unsigned char page[512];
    while (const dirent* e = ::readdir(dir)) {  // NOLINT(concurrency-mt-unsafe)
        if (std::strncmp(e->d_name, "sd", 2) != 0) {
            continue;
        }
        char path[300];
        std::snprintf(path, sizeof(path), "/sys/block/%s", e->d_name);
        struct stat st {};
        if (::stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
            continue;
        }
        std::snprintf(path, sizeof(path), "/dev/%s", e->d_name);
        int fd = ::open(path, O_RDONLY);
        if (fd < 0) {
            continue;
        }
        const bool served =
            Inquiry(fd, 0, 0, page, 36) == 0 && std::memcmp(page + 8, "TRELOX", 6) == 0;
        ::close(fd);
        if (!served) {
            continue;
        }
        fd = ::open(path, O_RDONLY);
        if (fd < 0) {
            continue;
        }
        (void)Inquiry(fd, 1, 0xC8, page, 512);
        (void)Inquiry(fd, 1, 0x83, page, 24);
        (void)Inquiry(fd, 1, 0xC8, page, 512);
        (void)Inquiry(fd, 1, 0x80, page, 28);
        ::close(fd);
        ++found;
    }
    ::closedir(dir);
    return found;
}

int CountLuns() {
    int n = 0;
    for (HIC_ListHead* p = HIC_LunListHead.next; p != &HIC_LunListHead; p = p->next) {
        ++n;
    }
    return n;
}

void DaemonDiscovery(benchmark::State& state) {
    HIC_FreeLunList();
    if (HIC_GetLunList() != 0 || CountLuns() != kLuns) {
        state.SkipWithError("discovery did not find every LUN");
    }
}

void BM_Discovery(benchmark::State& state) {
    TheRig();
    HIC_SetLogLevel(static_cast<int>(state.range(0)));
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        DaemonDiscovery(state);
    }
    HIC_FreeLunList();
    HIC_SetLogLevel(HIC_LOG_INFO);
    state.counters["luns"] = kLuns;
}

void BM_DiscoveryBareLoop(benchmark::State& state) {
    TheRig();
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        if (BareDiscovery() != kLuns) {
            state.SkipWithError("the bare loop did not find every LUN");
        }
    }
    state.counters["luns"] = kLuns;
}

double CpuSeconds() {
    rusage ru{};
    ::getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Both in one run, alternating which goes first, so drift of the machine
// hits both alike; the counters give the ratio of the medians. range(0) is
// the log level.
void BM_DiscoveryPaired(benchmark::State& state) {
    TheRig();
    HIC_SetLogLevel(static_cast<int>(state.range(0)));
    std::vector<double> daemonWall;
    std::vector<double> bareWall;
    std::vector<double> daemonCpu;
    std::vector<double> bareCpu;
    bool daemonFirst = true;
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        for (int turn = 0; turn < 2; ++turn) {
            const bool daemon = (turn == 0) == daemonFirst;
            const auto t0 = std::chrono::steady_clock::now();
            const double c0 = CpuSeconds();
            if (daemon) {
                DaemonDiscovery(state);
            } else if (BareDiscovery() != kLuns) {
                state.SkipWithError("the bare loop did not find every LUN");
            }
            const double cpu = CpuSeconds() - c0;
            const double wall =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            (daemon ? daemonWall : bareWall).push_back(wall);
            (daemon ? daemonCpu : bareCpu).push_back(cpu);
        }
        daemonFirst = !daemonFirst;
    }
    HIC_FreeLunList();
    HIC_SetLogLevel(HIC_LOG_INFO);
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v.empty() ? 0.0 : v[v.size() / 2];
    };
    state.counters["daemon_ms"] = median(daemonWall) * 1e3;
    state.counters["bare_ms"] = median(bareWall) * 1e3;
    state.counters["wall_ratio"] = median(daemonWall) / median(bareWall);
    state.counters["daemon_cpu_ms"] = median(daemonCpu) * 1e3;
    state.counters["bare_cpu_ms"] = median(bareCpu) * 1e3;
}

// A listing that confirms every LUN of the list; range(0) 0 lists them in
// the LUN list's order, 1 in the reverse one (the longest match walks).
void WriteListing(bool reverse) {
    std::vector<const HIC_LunInfo*> luns;
    for (HIC_ListHead* p = HIC_LunListHead.next; p != &HIC_LunListHead; p = p->next) {
        luns.push_back(reinterpret_cast<const HIC_LunInfo*>(p));
    }
    if (reverse) {
        std::reverse(luns.begin(), luns.end());
    }
    ::mkdir("/run/vnadmin", 0755);
    std::ofstream out("/run/vnadmin/show_vlun", std::ios::trunc);
    out << "  ID  Host Device  Name        WWN                               Status   Array\n";
    unsigned id = 0;
    for (const HIC_LunInfo* lun : luns) {
        out << "  " << id++ << "  " << (lun->devPath + 5) << "  " << lun->lunName << "  "
            << lun->lunWwn << "  Normal   " << lun->arraySn << "\n";
    }
}

void BM_RefreshNothingToChange(benchmark::State& state) {
    TheRig();
    HIC_SetLogLevel(HIC_LOG_INFO);
    HIC_FreeLunList();
    if (HIC_GetLunList() != 0 || CountLuns() != kLuns || HIC_GetArrayList() != 0) {
        state.SkipWithError("cannot build the lists");
        return;
    }
    WriteListing(state.range(0) != 0);
    const HIC_ListHead* first = HIC_LunListHead.next;
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        HIC_RefreshLunAndArrayList();
    }
    if (CountLuns() != kLuns || HIC_LunListHead.next != first) {
        state.SkipWithError("the refresh changed the LUN list");
    }
    HIC_FreeLunList();
    state.counters["luns"] = kLuns;
}

BENCHMARK(BM_Discovery)
    ->Arg(HIC_LOG_INFO)
    ->Arg(HIC_LOG_DEBUG)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_DiscoveryBareLoop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DiscoveryPaired)
    ->Arg(HIC_LOG_INFO)
    ->Arg(HIC_LOG_DEBUG)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(15);
BENCHMARK(BM_RefreshNothingToChange)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
