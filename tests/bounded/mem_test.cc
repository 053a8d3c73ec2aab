// memcpy_s, memmove_s and memset_s: every result code in its order of
// precedence, and the exact bytes around the destination afterwards.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bounded/arena.h"
#include "bounded/bounded.h"

namespace {

using hic::test::Arena;

constexpr char kOutsideText[] = "0123456789abcdefghijklmnopqrstuvwxyz";

enum class Src { kNull, kOutside, kArena };
enum class Outcome { kUntouched, kCopied, kZeroed };

struct CopyCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    Src src;
    std::ptrdiff_t srcOffset;  // from the destination, for Src::kArena
    uint32_t count;
    int code;
    Outcome outcome;
};

using CopyFn = int (*)(void*, uint32_t, const void*, uint32_t);

void RunCopyCase(CopyFn fn, const CopyCase& c) {
    SCOPED_TRACE(c.name);
    Arena arena;
    const char* src = nullptr;
    if (c.src == Src::kOutside) {
        src = kOutsideText;
    } else if (c.src == Src::kArena) {
        src = arena.At(c.srcOffset);
    }
    // What the source holds before the call: the result of a correct copy
    // even when the areas overlap.
    const std::string before = src != nullptr ? std::string(src, c.count) : std::string();

    EXPECT_EQ(fn(c.nullDest ? nullptr : arena.Dest(), c.destMax, src, c.count), c.code);
    if (c.outcome == Outcome::kCopied) {
        arena.Expect(0, before);
    } else if (c.outcome == Outcome::kZeroed) {
        arena.Expect(0, std::string(c.destMax, '\0'));
    }
    EXPECT_TRUE(arena.Matches());
}

// Cases both copies treat alike.
const CopyCase kCommonCases[] = {
    {"copies count bytes", false, 10, Src::kOutside, 0, 7, 0, Outcome::kCopied},
    {"count equal to destMax", false, 10, Src::kOutside, 0, 10, 0, Outcome::kCopied},
    {"count 0", false, 10, Src::kOutside, 0, 0, 0, Outcome::kUntouched},
    {"largest destMax", false, 0x7FFFFFFF, Src::kOutside, 0, 3, 0, Outcome::kCopied},
    {"destMax 0", false, 0, Src::kOutside, 0, 1, 34, Outcome::kUntouched},
    {"destMax above max", false, 0x80000000, Src::kOutside, 0, 1, 34, Outcome::kUntouched},
    {"destMax all ones", false, 0xFFFFFFFF, Src::kOutside, 0, 1, 34, Outcome::kUntouched},
    {"destMax checked before dest", true, 0, Src::kOutside, 0, 1, 34, Outcome::kUntouched},
    {"null dest", true, 10, Src::kOutside, 0, 1, 22, Outcome::kUntouched},
    {"null dest before null src", true, 10, Src::kNull, 0, 1, 22, Outcome::kUntouched},
    {"null src", false, 10, Src::kNull, 0, 5, 150, Outcome::kZeroed},
    {"null src with count 0", false, 10, Src::kNull, 0, 0, 150, Outcome::kZeroed},
    {"null src before count", false, 10, Src::kNull, 0, 16, 150, Outcome::kZeroed},
    {"16 bytes into 10", false, 10, Src::kOutside, 0, 16, 162, Outcome::kZeroed},
    {"count 1 above destMax", false, 10, Src::kOutside, 0, 11, 162, Outcome::kZeroed},
    {"too long onto itself", false, 10, Src::kArena, 0, 11, 162, Outcome::kZeroed},
    {"onto itself", false, 10, Src::kArena, 0, 5, 0, Outcome::kUntouched},
    {"count 0 onto itself", false, 10, Src::kArena, 0, 0, 0, Outcome::kUntouched},
    {"source right behind", false, 10, Src::kArena, 4, 4, 0, Outcome::kCopied},
    {"source right before", false, 10, Src::kArena, -4, 4, 0, Outcome::kCopied},
};

class MemcpyCommon : public ::testing::TestWithParam<CopyCase> {};
TEST_P(MemcpyCommon, Case) {
    RunCopyCase(memcpy_s, GetParam());
}
INSTANTIATE_TEST_SUITE_P(Bounded, MemcpyCommon, ::testing::ValuesIn(kCommonCases));

class MemmoveCommon : public ::testing::TestWithParam<CopyCase> {};
TEST_P(MemmoveCommon, Case) {
    RunCopyCase(memmove_s, GetParam());
}
INSTANTIATE_TEST_SUITE_P(Bounded, MemmoveCommon, ::testing::ValuesIn(kCommonCases));

TEST(MemcpyS, OverlapZeroesDestination) {
    const CopyCase cases[] = {
        {"source inside destination", false, 10, Src::kArena, 2, 4, 182, Outcome::kZeroed},
        {"source ends inside", false, 10, Src::kArena, -2, 4, 182, Outcome::kZeroed},
        {"one shared byte behind", false, 10, Src::kArena, 3, 4, 182, Outcome::kZeroed},
        {"one shared byte before", false, 10, Src::kArena, -3, 4, 182, Outcome::kZeroed},
    };
    for (const CopyCase& c : cases) {
        RunCopyCase(memcpy_s, c);
    }
}

TEST(MemmoveS, OverlapIsCopied) {
    const CopyCase cases[] = {
        {"source inside destination", false, 10, Src::kArena, 2, 6, 0, Outcome::kCopied},
        {"source before destination", false, 10, Src::kArena, -3, 8, 0, Outcome::kCopied},
    };
    for (const CopyCase& c : cases) {
        RunCopyCase(memmove_s, c);
    }
}

struct SetCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    int fill;
    uint32_t count;
    int code;
    uint32_t filled;  // bytes from dest expected to hold the fill byte
};

TEST(MemsetS, ResultsAndBytes) {
    const SetCase cases[] = {
        {"fills count bytes", false, 10, 0x41, 5, 0, 5},
        {"count equal to destMax", false, 10, 0x41, 10, 0, 10},
        {"count 0", false, 10, 0x41, 0, 0, 0},
        {"fill value taken as a byte", false, 10, 0x141, 3, 0, 3},
        {"20 bytes into 8 fills all 8", false, 8, 0x41, 20, 162, 8},
        {"destMax 0 and count 0", false, 0, 0x41, 0, 0, 0},
        {"destMax 0 and count 0, null dest", true, 0, 0x41, 0, 22, 0},
        {"destMax 0 with a count", false, 0, 0x41, 1, 34, 0},
        {"destMax 0 with a count, null dest", true, 0, 0x41, 1, 34, 0},
        {"destMax above max", false, 0x80000000, 0x41, 0, 34, 0},
        {"destMax all ones", false, 0xFFFFFFFF, 0x41, 1, 34, 0},
        {"null dest", true, 10, 0x41, 5, 22, 0},
        {"null dest before count", true, 10, 0x41, 20, 22, 0},
        {"largest destMax", false, 0x7FFFFFFF, 0x41, 4, 0, 4},
    };
    for (const SetCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        EXPECT_EQ(memset_s(c.nullDest ? nullptr : arena.Dest(), c.destMax, c.fill, c.count),
                  c.code);
        arena.Expect(0, std::string(c.filled, 'A'));
        EXPECT_TRUE(arena.Matches());
    }
}

// The bulk path: large copies and fills land whole and nowhere else.
TEST(MemoryFunctions, LargeBlocks) {
    constexpr uint32_t kSize = 1 << 16;
    std::string src(kSize, '\0');
    for (uint32_t i = 0; i < kSize; ++i) {
        src[i] = static_cast<char>(i * 7 + 1);
    }
    std::string dest(kSize + 2, 'G');
    ASSERT_EQ(memcpy_s(&dest[1], kSize, src.data(), kSize), 0);
    EXPECT_EQ(dest.substr(1, kSize), src);
    EXPECT_EQ(dest.front(), 'G');
    EXPECT_EQ(dest.back(), 'G');

    ASSERT_EQ(memmove_s(&dest[1], kSize, &dest[2], kSize - 1), 0);
    EXPECT_EQ(dest.substr(1, kSize - 1), src.substr(1));
    EXPECT_EQ(dest.back(), 'G');

    ASSERT_EQ(memset_s(&dest[1], kSize, 0x5A, kSize), 0);
    EXPECT_EQ(dest.substr(1, kSize), std::string(kSize, 'Z'));
    EXPECT_EQ(dest.front(), 'G');
    EXPECT_EQ(dest.back(), 'G');
}

}  // namespace
