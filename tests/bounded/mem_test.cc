// memcpy_s, memmove_s and memset_s: every result code in its order of
// precedence, and the exact bytes around the destination afterwards.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "bounded/arena.h"
#include "bounded/bounded.h"

namespace {

using hic::test::Arena;
using CopyFn = int (*)(void*, uint32_t, const void*, uint32_t);

constexpr char kOutsideText[] = "0123456789abcdefghijklmnopqrstuvwxyz";
// Source positions other than an offset from the destination.
constexpr std::ptrdiff_t kNullSrc = 1000;
constexpr std::ptrdiff_t kOutside = 2000;

struct CopyCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    std::ptrdiff_t src;  // kNullSrc, kOutside or an offset from the destination
    uint32_t count;
    int code;  // 0 leaves the copy; 150, 162 and 182 an emptied destMax; others no change
};

void RunCopyCase(CopyFn fn, const CopyCase& c) {
    SCOPED_TRACE(c.name);
    Arena arena;
    const char* src = c.src == kNullSrc   ? nullptr
                      : c.src == kOutside ? kOutsideText
                                          : arena.At(c.src);
    // The source's bytes before the call: what a correct copy leaves even
    // when the areas overlap.
    const std::string before = src != nullptr ? std::string(src, c.count) : std::string();
    EXPECT_EQ(fn(c.nullDest ? nullptr : arena.Dest(), c.destMax, src, c.count), c.code);
    if (c.code == 0) {
        arena.Expect(0, before);
    } else if (c.code == 150 || c.code == 162 || c.code == 182) {
        arena.Expect(0, std::string(c.destMax, '\0'));
    }
    EXPECT_TRUE(arena.Matches());
}

TEST(MemCopies, CommonCases) {
    const CopyCase cases[] = {
        {"copies count bytes", false, 10, kOutside, 7, 0},
        {"count equal to destMax", false, 10, kOutside, 10, 0},
        {"count 0", false, 10, kOutside, 0, 0},
        {"largest destMax", false, 0x7FFFFFFF, kOutside, 3, 0},
        {"destMax 0", false, 0, kOutside, 1, 34},
        {"destMax above max", false, 0x80000000, kOutside, 1, 34},
        {"destMax all ones", false, 0xFFFFFFFF, kOutside, 1, 34},
        {"destMax checked before dest", true, 0, kOutside, 1, 34},
        {"null dest", true, 10, kOutside, 1, 22},
        {"null dest before null src", true, 10, kNullSrc, 1, 22},
        {"null src", false, 10, kNullSrc, 5, 150},
        {"null src with count 0", false, 10, kNullSrc, 0, 150},
        {"null src before count", false, 10, kNullSrc, 16, 150},
        {"16 bytes into 10", false, 10, kOutside, 16, 162},
        {"count 1 above destMax", false, 10, kOutside, 11, 162},
        {"too long onto itself", false, 10, 0, 11, 162},
        {"onto itself", false, 10, 0, 5, 0},
        {"count 0 onto itself", false, 10, 0, 0, 0},
        {"source right behind", false, 10, 4, 4, 0},
        {"source right before", false, 10, -4, 4, 0},
    };
    for (const CopyFn fn : {&memcpy_s, &memmove_s}) {
        SCOPED_TRACE(fn == &memcpy_s ? "memcpy_s" : "memmove_s");
        for (const CopyCase& c : cases) {
            RunCopyCase(fn, c);
        }
    }
}

TEST(MemCopies, OverlapZeroesForMemcpyAndIsCopiedByMemmove) {
    const std::pair<CopyFn, CopyCase> cases[] = {
        {memcpy_s, {"source inside destination", false, 10, 2, 4, 182}},
        {memcpy_s, {"source ends inside", false, 10, -2, 4, 182}},
        {memcpy_s, {"one shared byte behind", false, 10, 3, 4, 182}},
        {memcpy_s, {"one shared byte before", false, 10, -3, 4, 182}},
        {memmove_s, {"source inside destination", false, 10, 2, 6, 0}},
        {memmove_s, {"source before destination", false, 10, -3, 8, 0}},
    };
    for (const auto& [fn, c] : cases) {
        RunCopyCase(fn, c);
    }
}

TEST(MemsetS, ResultsAndBytes) {
    // name, null dest, destMax, count, code, and the bytes from dest then
    // holding 'A', the fill's low byte
    const std::tuple<const char*, bool, uint32_t, uint32_t, int, uint32_t> cases[] = {
        {"fills count bytes", false, 10, 5, 0, 5},
        {"count equal to destMax", false, 10, 10, 0, 10},
        {"count 0", false, 10, 0, 0, 0},
        {"20 bytes into 8 fills all 8", false, 8, 20, 162, 8},
        {"destMax 0 and count 0", false, 0, 0, 0, 0},
        {"destMax 0 and count 0, null dest", true, 0, 0, 22, 0},
        {"destMax 0 with a count", false, 0, 1, 34, 0},
        {"destMax 0 with a count, null dest", true, 0, 1, 34, 0},
        {"destMax above max", false, 0x80000000, 0, 34, 0},
        {"destMax all ones", false, 0xFFFFFFFF, 1, 34, 0},
        {"null dest", true, 10, 5, 22, 0},
        {"null dest before count", true, 10, 20, 22, 0},
        {"largest destMax", false, 0x7FFFFFFF, 4, 0, 4},
    };
    for (const auto& [name, nullDest, destMax, count, code, filled] : cases) {
        SCOPED_TRACE(name);
        Arena arena;
        EXPECT_EQ(memset_s(nullDest ? nullptr : arena.Dest(), destMax, 0x141, count), code);
        arena.Expect(0, std::string(filled, 'A'));
        EXPECT_TRUE(arena.Matches());
    }
}

}  // namespace
