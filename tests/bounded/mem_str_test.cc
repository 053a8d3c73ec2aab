// The bounded copies, fill, append and tokeniser: memcpy_s, memmove_s,
// memset_s, strcpy_s, strncpy_s, strcat_s and strtok_s. Result codes in
// their order of precedence, the exact destination bytes afterwards, the
// short-copy paths at every length and alignment, and reads that stop at
// the NUL.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "bounded/arena.h"
#include "bounded/bounded.h"

namespace {

using hic::test::Arena;
using namespace std::string_literals;

// Source positions other than an offset from the destination.
constexpr std::ptrdiff_t kNullSrc = 1000;
constexpr std::ptrdiff_t kOutside = 2000;

using CopyFn = int (*)(void*, uint32_t, const void*, uint32_t);

constexpr char kOutsideText[] = "0123456789abcdefghijklmnopqrstuvwxyz";

struct CopyCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    std::ptrdiff_t src;  // kNullSrc, kOutside or an offset from the destination
    uint32_t count;
    int code;  // 0 leaves the copy; 150, 162 and 182 an emptied destMax; others no change
};
constexpr int kOverlap = -1;  // as code: 182 from memcpy_s, while memmove_s copies

void RunCopyCase(CopyFn fn, const CopyCase& c) {
    SCOPED_TRACE(c.name);
    const int code = c.code != kOverlap ? c.code : fn == &memcpy_s ? 182 : 0;
    Arena arena;
    const char* src = c.src == kNullSrc   ? nullptr
                      : c.src == kOutside ? kOutsideText
                                          : arena.At(c.src);
    // The source's bytes before the call: what a correct copy leaves even
    // when the areas overlap.
    const std::string before = src != nullptr ? std::string(src, c.count) : std::string();
    EXPECT_EQ(fn(c.nullDest ? nullptr : arena.Dest(), c.destMax, src, c.count), code);
    if (code == 0) {
        arena.Expect(0, before);
    } else if (code == 150 || code == 162 || code == 182) {
        arena.Expect(0, std::string(c.destMax, '\0'));
    }
    EXPECT_TRUE(arena.Matches());
}

TEST(MemCopies, CommonCases) {
    const CopyCase cases[] = {
        {"count equal to destMax", false, 10, kOutside, 10, 0},
        {"count 0", false, 10, kOutside, 0, 0},
        {"largest destMax", false, 0x7FFFFFFF, kOutside, 3, 0},
        {"destMax 0", false, 0, kOutside, 1, 34},
        {"destMax above max", false, 0x80000000, kOutside, 1, 34},
        {"destMax checked before dest", true, 0, kOutside, 1, 34},
        {"null dest", true, 10, kOutside, 1, 22},
        {"null dest before null src", true, 10, kNullSrc, 1, 22},
        {"null src with count 0", false, 10, kNullSrc, 0, 150},
        {"null src before count", false, 10, kNullSrc, 16, 150},
        {"count 1 above destMax", false, 10, kOutside, 11, 162},
        {"too long onto itself", false, 10, 0, 11, 162},
        {"onto itself", false, 10, 0, 5, 0},
        {"source right behind", false, 10, 4, 4, 0},
        {"source right before", false, 10, -4, 4, 0},
        {"one shared byte behind", false, 10, 3, 4, kOverlap},
        {"one shared byte before", false, 10, -3, 4, kOverlap},
        {"source inside destination", false, 10, 2, 6, kOverlap},
        {"source before destination", false, 10, -3, 8, kOverlap},
    };
    for (const CopyFn fn : {&memcpy_s, &memmove_s}) {
        SCOPED_TRACE(fn == &memcpy_s ? "memcpy_s" : "memmove_s");
        for (const CopyCase& c : cases) {
            RunCopyCase(fn, c);
        }
    }
}

TEST(MemsetS, ResultsAndBytes) {
    // name, null dest, destMax, count, code, and the bytes from dest then
    // holding 'A', the fill's low byte
    const std::tuple<const char*, bool, uint32_t, uint32_t, int, uint32_t> cases[] = {
        {"count equal to destMax", false, 10, 10, 0, 10},
        {"count 0", false, 10, 0, 0, 0},
        {"20 bytes into 8 fills all 8", false, 8, 20, 162, 8},
        {"destMax 0 and count 0", false, 0, 0, 0, 0},
        {"destMax 0 and count 0, null dest", true, 0, 0, 22, 0},
        {"destMax 0 with a count", false, 0, 1, 34, 0},
        {"destMax 0 with a count, null dest", true, 0, 1, 34, 0},
        {"destMax above max", false, 0x80000000, 0, 34, 0},
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

enum class Fn { kCpy, kNcpy, kCat };
using enum Fn;

struct StringCase {
    Fn fn;
    const char* name;
    bool nullDest;
    uint32_t destMax;
    std::string destBefore;  // bytes placed at the destination first
    std::ptrdiff_t src;      // kNullSrc, kOutside or an offset from the destination
    std::string srcText;     // the outside text, or bytes placed at the offset
    uint32_t count;          // strncpy_s only
    int code;
    std::string destAfter;  // bytes expected from the destination on
};

TEST(StringCopies, ResultsAndBytes) {
    const StringCase cases[] = {
        {kCpy, "one too long", false, 8, "", kOutside, "abcdefgh", 0, 162, "\0"s},
        {kCpy, "destMax 0", false, 0, "", kOutside, "a", 0, 34, ""},
        {kCpy, "destMax above max", false, 0x80000000, "", kOutside, "a", 0, 34, ""},
        {kCpy, "destMax checked before dest", true, 0, "", kOutside, "a", 0, 34, ""},
        {kCpy, "null dest", true, 8, "", kOutside, "a", 0, 22, ""},
        {kCpy, "null source", false, 8, "", kNullSrc, "", 0, 150, "\0"s},
        {kCpy, "source inside destination", false, 16, "abcdefg\0"s, 2, "", 0, 182, "\0"s},
        {kCpy, "source ends in destination", false, 16, "", -4, "wxyzab\0"s, 0, 182, "\0"s},
        {kCpy, "too long beats overlap", false, 4, "abcdefg\0"s, 2, "", 0, 162, "\0"s},
        {kCpy, "source right behind", false, 8, "", 4, "abc\0"s, 0, 0, "abc\0"s},
        {kCpy, "source right before", false, 8, "", -4, "abc\0"s, 0, 0, "abc\0"s},
        {kCpy, "onto itself", false, 8, "abc\0"s, 0, "", 0, 0, "abc\0"s},
        {kCpy, "onto itself, too long", false, 8, "abcdefghij\0"s, 0, "", 0, 162, "\0"s},
        {kNcpy, "whole short text", false, 8, "", kOutside, "abc", 5, 0, "abc\0"s},
        {kNcpy, "count equal to destMax, text fits", false, 8, "", kOutside, "abcdefg", 8, 0,
         "abcdefg\0"s},
        {kNcpy, "count equal to destMax, text too long", false, 8, "", kOutside, "abcdefgh", 8, 162,
         "\0"s},
        {kNcpy, "count above destMax, text too long", false, 8, "", kOutside, "abcdefghij", 20, 162,
         "\0"s},
        {kNcpy, "count below destMax, text longer", false, 8, "", kOutside, "abcdefghij", 7, 0,
         "abcdefg\0"s},
        {kNcpy, "count 0", false, 8, "abc\0"s, kOutside, "xyz", 0, 0, "\0"s},
        {kNcpy, "null source beats count 0", false, 8, "abc\0"s, kNullSrc, "", 0, 150, "\0"s},
        {kNcpy, "count above max", false, 8, "", kOutside, "a", 0x80000000, 162, "\0"s},
        {kNcpy, "destMax 0", false, 0, "", kOutside, "a", 1, 34, ""},
        {kNcpy, "destMax above max", false, 0xFFFFFFFF, "", kOutside, "a", 1, 34, ""},
        {kNcpy, "null dest", true, 8, "", kOutside, "a", 1, 22, ""},
        {kNcpy, "null source", false, 8, "", kNullSrc, "", 1, 150, "\0"s},
        {kNcpy, "copied characters overlap", false, 8, "abcdefg\0"s, 2, "", 3, 182, "\0"s},
        {kNcpy, "copied characters touch", false, 8, "abcdefg\0"s, 3, "", 3, 0, "def\0efg\0"s},
        {kNcpy, "onto itself cuts at count", false, 8, "abcdefg\0"s, 0, "", 3, 0, "abc\0efg\0"s},
        {kCat, "destMax 0", false, 0, "\0"s, kOutside, "a", 0, 34, "\0"s},
        {kCat, "destMax above max", false, 0x80000000, "\0"s, kOutside, "a", 0, 34, "\0"s},
        {kCat, "null dest", true, 8, "", kOutside, "a", 0, 22, ""},
        {kCat, "null source", false, 8, "ab\0"s, kNullSrc, "", 0, 150, "\0b\0"s},
        {kCat, "unterminated destination", false, 8, "abcdefgh", kOutside, "x", 0, 150,
         "\0bcdefgh"s},
        {kCat, "source is destination", false, 16, "abc\0"s, 0, "", 0, 182, "\0bc\0"s},
        {kCat, "source where the text goes", false, 8, "ab\0"s, 3, "xy\0"s, 0, 182, "\0b\0xy\0"s},
        {kCat, "source behind destMax", false, 8, "ab\0"s, 8, "xy\0"s, 0, 0, "abxy\0"s},
        {kCat, "source before destination", false, 8, "ab\0"s, -3, "xy\0"s, 0, 0, "abxy\0"s},
        {kCat, "source running into destination", false, 8, "ab\0"s, -2, "xy", 0, 182, "\0b\0"s},
        {kCat, "unterminated, source at its end", false, 8, "abcdefgh", 8, "xy\0"s, 0, 150,
         "\0bcdefghxy\0"s},
        {kCat, "unterminated, source inside", false, 8, "abcdefgh\0"s, 4, "", 0, 182,
         "\0bcdefgh\0"s},
    };
    for (const StringCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        arena.Set(0, c.destBefore);
        const char* src = c.srcText.c_str();
        if (c.src == kNullSrc) {
            src = nullptr;
        } else if (c.src != kOutside) {
            arena.Set(c.src, c.srcText);
            src = arena.At(c.src);
        }
        char* dest = c.nullDest ? nullptr : arena.Dest();
        EXPECT_EQ(c.fn == kCpy    ? strcpy_s(dest, c.destMax, src)
                  : c.fn == kNcpy ? strncpy_s(dest, c.destMax, src, c.count)
                                  : strcat_s(dest, c.destMax, src),
                  c.code);
        arena.Expect(0, c.destAfter);
        EXPECT_TRUE(arena.Matches());
    }
}

// Every text length around the short-copy limit, at every alignment of
// source and destination: exactly the text and its NUL arrive.
TEST(StrcpyS, EveryShortLengthAndAlignment) {
    alignas(8) char source[64];
    for (uint32_t len = 0; len <= 40; ++len) {
        for (std::ptrdiff_t srcAlign = 0; srcAlign < 8; ++srcAlign) {
            char* src = source + srcAlign;
            for (uint32_t i = 0; i < len; ++i) {
                src[i] = static_cast<char>('a' + (i + len) % 26);
            }
            src[len] = '\0';
            for (std::ptrdiff_t destAlign = 0; destAlign < 8; ++destAlign) {
                SCOPED_TRACE(::testing::Message()
                             << "len " << len << " src+" << srcAlign << " dest+" << destAlign);
                Arena arena;  // the arena's destination is 8-byte aligned
                static_assert(Arena::kDest % 8 == 0);
                ASSERT_EQ(strcpy_s(arena.At(destAlign), len + 1, src), 0);
                arena.Expect(destAlign, std::string(src, len + 1));
                ASSERT_TRUE(arena.Matches());
            }
        }
    }
}

// The appended length is measured byte by byte first, then by a scan;
// every split between the two, against every capacity.
TEST(StrcatS, EveryShortLengthAgainstEveryCapacity) {
    for (uint32_t destLen = 0; destLen <= 10; ++destLen) {
        for (uint32_t srcLen = 0; srcLen <= 12; ++srcLen) {
            const std::string dest(destLen, 'd');
            const std::string src(srcLen, 's');
            for (uint32_t destMax = destLen + 1; destMax <= 24; ++destMax) {
                SCOPED_TRACE(::testing::Message() << destLen << "+" << srcLen << " in " << destMax);
                Arena arena;
                arena.Set(0, dest + '\0');
                const bool fits = destLen + srcLen < destMax;
                ASSERT_EQ(strcat_s(arena.Dest(), destMax, src.c_str()), fits ? 0 : 162);
                arena.Expect(0, fits ? dest + src + '\0' : "\0"s);
                ASSERT_TRUE(arena.Matches());
            }
        }
    }
}

std::vector<std::string> Tokens(char* text, const char* delimiters) {
    std::vector<std::string> tokens;
    char* context = nullptr;
    for (char* t = strtok_s(text, delimiters, &context); t != nullptr;
         t = strtok_s(nullptr, delimiters, &context)) {
        tokens.emplace_back(t);
    }
    // Once exhausted it stays exhausted.
    EXPECT_EQ(strtok_s(nullptr, delimiters, &context), nullptr);
    return tokens;
}

TEST(StrtokS, Tokens) {
    struct Case {
        std::string text;
        const char* delimiters;
        std::vector<std::string> tokens;
    };
    const Case cases[] = {{"..a..b..", ".", {"a", "b"}},
                          {"", ".", {}},
                          {"a, b;;c ", " ,;", {"a", "b", "c"}},
                          {"no delimiter here", "", {"no delimiter here"}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        EXPECT_EQ(Tokens(text.data(), c.delimiters), c.tokens);
    }
}

}  // namespace
