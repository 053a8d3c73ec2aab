// Upload of a result archive through the virtual array: the daemon's
// HIC_WriteCollectResultToArray against a bare loop that sends the same
// write-buffer commands (same CDBs, the same 32-byte header and 4064 data
// bytes per transfer, read from the same file) through the same rig, in the
// same run. Also the daemon with its per-chunk INFO line suppressed (log
// level ERROR), to price that line, and the growth of the process's peak
// resident set during one upload, to show that memory stays flat whatever
// the archive's size. Needs the host sandbox (it writes /opt/Vornal and uses
// /dev/sdb):
//   tools/sandbox/hic-sandbox -- <build>/bench/upload_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/handles.h"
#include "client.h"
#include "collect/result_upload.h"
#include "inventory/array_list.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "log/log.h"

namespace {

constexpr const char* kWorkspace = "/opt/Vornal/BENCH01";
constexpr const char* kArchive = "/opt/Vornal/BENCH01/result.tar.gz";
constexpr int64_t kMiB = 1 << 20;

// Peak resident set of this process in KiB; ResetPeakRss starts a new peak
// at the current resident set.
long PeakRssKib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}
void ResetPeakRss() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "upload_bench: %s (run it inside tools/sandbox/hic-sandbox)\n", what);
    std::exit(1);
}

// One vnarray for the run, the daemon's lists built from it by the real
// discovery, and the array record the upload works for.
struct Setup {
    std::unique_ptr<vnarray::Rig> rig;
    HIC_ArrayInfo* array = nullptr;
};

Setup& TheSetup() {
    static Setup setup = [] {
        Setup s;
        s.rig = std::make_unique<vnarray::Rig>(R"({"arrays": [{"sn": "BENCH01", "name": "bench"}],
                                "luns": [{"dev": "sdb", "array": "BENCH01"}]})");
        try {
            s.rig->Start();
        } catch (const std::exception& e) {
            Fail(e.what());
        }
        (void)::mkdir("/opt/Vornal", 0755);
        (void)::mkdir("/opt/Vornal/log", 0755);
        (void)::mkdir(kWorkspace, 0700);
        (void)pthread_mutex_init(&HIC_ResultWriteMutex, nullptr);
        HIC_InitListHead(&HIC_LunListHead);
        HIC_InitListHead(&HIC_ArrayListHead);
        if (HIC_GetLunList() != 0 || HIC_GetArrayList() != 0 ||
            HIC_ArrayListHead.next == &HIC_ArrayListHead) {
            Fail("no array discovered");
        }
        s.array = reinterpret_cast<HIC_ArrayInfo*>(HIC_ArrayListHead.next);
        const unsigned char versions[] = {0x00, 0x00, 0x00, 0x01};
        const unsigned char hostIp[] = {10, 10, 1, 20};
        std::memcpy(s.array->versions, versions, sizeof(versions));
        std::memcpy(s.array->hostIp, hostIp, sizeof(hostIp));
        return s;
    }();
    return setup;
}

// Writes an archive of the given size (random bytes, as compressed data
// looks) unless one of that size is there already.
void PrepareArchive(int64_t size) {
    struct stat st {};
    if (::stat(kArchive, &st) == 0 && st.st_size == size) {
        return;
    }
    std::vector<char> block(kMiB);
    std::mt19937_64 random(static_cast<uint64_t>(size));
    std::ofstream out(kArchive, std::ios::binary | std::ios::trunc);
    for (int64_t done = 0; done < size; done += kMiB) {
        for (char& c : block) {
            c = static_cast<char>(random());
        }
        out.write(block.data(), static_cast<std::streamsize>(std::min(kMiB, size - done)));
    }
}

// Between iterations, untimed: the array forgets what it received (it keeps
// whole archives), and the log starts empty so no rotation runs.
void Tidy(Setup& s) {
    s.rig->client().Reset();
    (void)std::remove(HIC_LOG_PATH);
}

void Report(benchmark::State& state, int64_t size, long peakGrowthKib) {
    state.SetBytesProcessed(state.iterations() * size);
    const int64_t chunks = (size + HIC_RESULT_CHUNK_LEN - 1) / HIC_RESULT_CHUNK_LEN;
    state.counters["chunks"] = static_cast<double>(chunks);
    state.counters["peak_rss_growth_KiB"] = static_cast<double>(peakGrowthKib);
}

// The daemon's upload step as the collection thread calls it.
void DaemonUpload(benchmark::State& state, int level) {
    Setup& s = TheSetup();
    const int64_t size = state.range(0) * kMiB;
    PrepareArchive(size);
    HIC_SetLogLevel(level);
    long peakGrowth = 0;
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        state.PauseTiming();
        Tidy(s);
        s.array->taskState.store(HIC_TASK_COLLECTING);
        ResetPeakRss();
        const long before = PeakRssKib();
        state.ResumeTiming();

        HIC_WriteCollectResultToArray(s.array);

        state.PauseTiming();
        peakGrowth = std::max(peakGrowth, PeakRssKib() - before);
        if (s.array->taskState.load() != HIC_TASK_FINISHED) {
            state.SkipWithError("upload failed");
        }
        state.ResumeTiming();
    }
    HIC_SetLogLevel(HIC_LOG_INFO);
    Report(state, size, peakGrowth);
}

void BM_DaemonUpload(benchmark::State& state) {
    DaemonUpload(state, HIC_LOG_INFO);
}
void BM_DaemonUploadNoChunkLog(benchmark::State& state) {
    DaemonUpload(state, HIC_LOG_ERROR);
}

// The same commands with nothing around them: one descriptor, the header
// built once, each chunk read with pread behind it and sent.
void BM_BareLoop(benchmark::State& state) {
    Setup& s = TheSetup();
    const int64_t size = state.range(0) * kMiB;
    PrepareArchive(size);
    std::vector<uint8_t> buf(HIC_RESULT_BUF_LEN, 0);
    HIC_BuildResultBufHeader(buf.data(), HIC_RESULT_BUF_LEN, s.array, static_cast<long>(size));
    std::vector<uint8_t> sense(96, 0);
    long peakGrowth = 0;
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        state.PauseTiming();
        Tidy(s);
        ResetPeakRss();
        const long before = PeakRssKib();
        state.ResumeTiming();

        hic::UniqueFd dev(::open("/dev/sdb", O_RDWR));
        hic::UniqueFd file(::open(kArchive, O_RDONLY));
        if (!dev.Valid() || !file.Valid()) {
            state.SkipWithError("cannot open /dev/sdb or the archive");
            break;
        }
        for (int64_t offset = 0; offset < size; offset += HIC_RESULT_CHUNK_LEN) {
            const auto n =
                static_cast<uint32_t>(std::min<int64_t>(HIC_RESULT_CHUNK_LEN, size - offset));
            if (::pread(file.Get(), buf.data() + HIC_RESULT_HEADER_LEN, n, offset) !=
                static_cast<ssize_t>(n)) {
                state.SkipWithError("short read");
                break;
            }
            const uint32_t len = HIC_RESULT_HEADER_LEN + n;
            unsigned char cdb[16] = {0xCA};
            for (int i = 0; i < 8; ++i) {
                cdb[2 + i] =
                    static_cast<unsigned char>(static_cast<uint64_t>(offset) >> (56 - 8 * i));
            }
            for (int i = 0; i < 4; ++i) {
                cdb[10 + i] = static_cast<unsigned char>(len >> (24 - 8 * i));
            }
            cdb[14] = 0x81;
            sg_io_hdr_t hdr{};
            hdr.interface_id = 'S';
            hdr.dxfer_direction = SG_DXFER_TO_DEV;
            hdr.cmd_len = 16;
            hdr.mx_sb_len = 96;
            hdr.dxfer_len = len;
            hdr.dxferp = buf.data();
            hdr.cmdp = cdb;
            hdr.sbp = sense.data();
            hdr.timeout = 30;
            if (::ioctl(dev.Get(), SG_IO, &hdr) != 0 || hdr.status != 0 || hdr.host_status != 0 ||
                hdr.driver_status != 0) {
                state.SkipWithError("SG_IO failed");
                break;
            }
        }

        state.PauseTiming();
        peakGrowth = std::max(peakGrowth, PeakRssKib() - before);
        state.ResumeTiming();
    }
    Report(state, size, peakGrowth);
}

// Archive sizes in MiB: memory must not grow from the one to the other.
void Sizes(benchmark::internal::Benchmark* b) {
    b->Arg(8)->Arg(64)->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_BareLoop)->Apply(Sizes);
BENCHMARK(BM_DaemonUpload)->Apply(Sizes);
BENCHMARK(BM_DaemonUploadNoChunkLog)->Apply(Sizes);

}  // namespace
