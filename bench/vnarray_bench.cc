// Round trips per second through the virtual array's FUSE route: 4096-byte
// data-out (0xCA write buffer) and data-in (0xC7 switch query) SG_IO commands,
// from one and from two threads. Needs the host sandbox:
//   tools/sandbox/hic-sandbox -- <build>/bench/vnarray_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "base/handles.h"
#include "client.h"

namespace {

constexpr std::uint32_t kTransfer = 4096;

// One vnarray for the whole run; its destructor stops it at exit.
vnarray::Rig& TheRig() {
    static vnarray::Rig rig(
        R"({"arrays": [{"sn": "BENCH0001", "switch": 1, "collect_version": "00000001"}],
                               "luns": [{"dev": "sdb", "array": "BENCH0001"}]})");
    static const bool started = [] {
        try {
            rig.Start();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "vnarray_bench: %s (run it inside tools/sandbox/hic-sandbox)\n",
                         e.what());
            std::exit(1);
        }
        return true;
    }();
    (void)started;
    return rig;
}

std::vector<std::uint8_t> Cdb(std::uint8_t op, std::uint32_t length) {
    std::vector<std::uint8_t> c(16, 0);
    c[0] = op;
    c[10] = static_cast<std::uint8_t>(length >> 24);
    c[11] = static_cast<std::uint8_t>(length >> 16);
    c[12] = static_cast<std::uint8_t>(length >> 8);
    c[13] = static_cast<std::uint8_t>(length);
    c[14] = 0x81;
    return c;
}

void RoundTrips(benchmark::State& state, std::uint8_t op, int direction) {
    TheRig();
    hic::UniqueFd fd(::open("/dev/sdb", O_RDWR));
    if (!fd.Valid()) {
        state.SkipWithError("cannot open /dev/sdb");
        return;
    }
    std::vector<std::uint8_t> cdb = Cdb(op, kTransfer);
    std::vector<std::uint8_t> data(kTransfer, 0x5A);
    // A one-chunk archive: every write is a complete upload of 4064 bytes.
    data[0] = 0x00;
    data[1] = 0x81;
    data[2] = 0x00;
    data[3] = 0x00;
    data[4] = 0x0F;
    data[5] = 0xE0;
    data[6] = 0x10;
    data[7] = 0x00;
    std::vector<std::uint8_t> sense(96, 0);
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        sg_io_hdr_t hdr{};
        hdr.interface_id = 'S';
        hdr.dxfer_direction = direction;
        hdr.cmd_len = 16;
        hdr.mx_sb_len = 96;
        hdr.dxfer_len = kTransfer;
        hdr.dxferp = data.data();
        hdr.cmdp = cdb.data();
        hdr.sbp = sense.data();
        hdr.timeout = 30;
        if (::ioctl(fd.Get(), SG_IO, &hdr) != 0 || hdr.status != 0 || hdr.host_status != 0 ||
            hdr.driver_status != 0) {
            state.SkipWithError("SG_IO failed");
            break;
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kTransfer));
}

void BM_WriteBuffer4096(benchmark::State& state) {
    RoundTrips(state, 0xCA, SG_DXFER_TO_DEV);
}
void BM_QuerySwitch4096(benchmark::State& state) {
    RoundTrips(state, 0xC7, SG_DXFER_FROM_DEV);
}

BENCHMARK(BM_WriteBuffer4096)->UseRealTime()->Threads(1)->Threads(2);
BENCHMARK(BM_QuerySwitch4096)->UseRealTime()->Threads(1)->Threads(2);

}  // namespace
