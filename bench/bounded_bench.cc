// The bounded functions against their libc counterparts: copy, fill, copy
// and append of texts at several sizes, and formatted output of the
// conversions the daemon uses. Each pair does the same work per iteration,
// with the buffers escaped so neither call can be dropped or folded.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bounded/bounded.h"

namespace {

constexpr int64_t kSizes[] = {8, 16, 32, 64, 256, 4096};

void Sizes(benchmark::internal::Benchmark* b) {
    for (int64_t size : kSizes) {
        b->Arg(size);
    }
}

struct Buffers {
    explicit Buffers(size_t size) : src(size + 64, 's'), dest(size + 64, 'd') {
        // A text of size - 1 characters: with its NUL it fills size bytes.
        src[size - 1] = '\0';
        benchmark::DoNotOptimize(src.data());
        benchmark::DoNotOptimize(dest.data());
    }
    std::vector<char> src;
    std::vector<char> dest;
};

void BM_memcpy_s(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(memcpy_s(b.dest.data(), size, b.src.data(), size));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
}

void BM_memcpy(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::memcpy(b.dest.data(), b.src.data(), size));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void BM_memset_s(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(memset_s(b.dest.data(), size, 0x5A, size));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
}

void BM_memset(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::memset(b.dest.data(), 0x5A, size));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void BM_strcpy_s(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(strcpy_s(b.dest.data(), size, b.src.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
}

void BM_strcpy(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    Buffers b(size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::strcpy(b.dest.data(), b.src.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

// Appends half a buffer's worth behind a text of the other half; the
// destination text is cut back to its first half every iteration.
struct AppendBuffers : Buffers {
    explicit AppendBuffers(size_t size) : Buffers(size), half(size / 2) {
        std::memset(dest.data(), 'd', half);
        dest[half] = '\0';
        src[size - half - 1] = '\0';  // half + rest - 1 characters and the NUL fill size
    }
    size_t half;
};

void BM_strcat_s(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    AppendBuffers b(size);
    for (auto _ : state) {
        b.dest[b.half] = '\0';
        benchmark::DoNotOptimize(strcat_s(b.dest.data(), size, b.src.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
}

void BM_strcat(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    AppendBuffers b(size);
    for (auto _ : state) {
        b.dest[b.half] = '\0';
        benchmark::DoNotOptimize(std::strcat(b.dest.data(), b.src.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

BENCHMARK(BM_memcpy_s)->Apply(Sizes);
BENCHMARK(BM_memcpy)->Apply(Sizes);
BENCHMARK(BM_memset_s)->Apply(Sizes);
BENCHMARK(BM_memset)->Apply(Sizes);
BENCHMARK(BM_strcpy_s)->Apply(Sizes);
BENCHMARK(BM_strcpy)->Apply(Sizes);
BENCHMARK(BM_strcat_s)->Apply(Sizes);
BENCHMARK(BM_strcat)->Apply(Sizes);

// Formatted output: the daemon's conversions, ours against libc, each into
// a 256-byte buffer (the daemon's usual line size). Format and value are
// hidden from the compiler, which could otherwise fold libc's call.
constexpr char kText[] = "/opt/Vornal/log/hostinfotool.log";

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

template <typename T>
void FormatOurs(benchmark::State& state, const char* format, T value) {
    char dest[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(format);
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(snprintf_s(dest, sizeof(dest), sizeof(dest) - 1, format, value));
        benchmark::ClobberMemory();
    }
}

template <typename T>
void FormatLibc(benchmark::State& state, const char* format, T value) {
    char dest[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(format);
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(std::snprintf(dest, sizeof(dest), format, value));
        benchmark::ClobberMemory();
    }
}

#pragma GCC diagnostic pop

void BM_snprintf_s_s(benchmark::State& state) {
    FormatOurs(state, "%s", kText);
}
void BM_snprintf_s_s_libc(benchmark::State& state) {
    FormatLibc(state, "%s", kText);
}
void BM_snprintf_s_d(benchmark::State& state) {
    FormatOurs(state, "%d", -1234567);
}
void BM_snprintf_s_d_libc(benchmark::State& state) {
    FormatLibc(state, "%d", -1234567);
}
void BM_snprintf_s_02x(benchmark::State& state) {
    FormatOurs(state, "%02x", 0x0Bu);
}
void BM_snprintf_s_02x_libc(benchmark::State& state) {
    FormatLibc(state, "%02x", 0x0Bu);
}
void BM_snprintf_s_ld(benchmark::State& state) {
    FormatOurs(state, "%ld", 4194304L);
}
void BM_snprintf_s_ld_libc(benchmark::State& state) {
    FormatLibc(state, "%ld", 4194304L);
}

BENCHMARK(BM_snprintf_s_s);
BENCHMARK(BM_snprintf_s_s_libc);
BENCHMARK(BM_snprintf_s_d);
BENCHMARK(BM_snprintf_s_d_libc);
BENCHMARK(BM_snprintf_s_02x);
BENCHMARK(BM_snprintf_s_02x_libc);
BENCHMARK(BM_snprintf_s_ld);
BENCHMARK(BM_snprintf_s_ld_libc);

}  // namespace
