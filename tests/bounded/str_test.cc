// strcpy_s, strncpy_s, strcat_s and strtok_s: result codes in their order
// of precedence, the exact destination bytes afterwards, the short-copy
// paths at every length and alignment, and reads that stop at the NUL.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "bounded/arena.h"
#include "bounded/bounded.h"

namespace {

using hic::test::Arena;
using namespace std::string_literals;

// Where a case's source text lives.
struct Source {
    bool null = false;
    bool inArena = false;
    std::ptrdiff_t offset = 0;  // from the destination, inside the arena
    std::string text;           // outside text, or bytes placed in the arena
};

Source Outside(std::string text) {
    return {false, false, 0, std::move(text)};
}
Source InArena(std::ptrdiff_t offset, std::string bytes) {
    return {false, true, offset, std::move(bytes)};
}
Source NullSource() {
    return {true, false, 0, {}};
}

struct StringCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    std::string destBefore;  // bytes placed at the destination first
    Source src;
    uint32_t count;  // strncpy_s only
    int code;
    std::string destAfter;  // bytes expected from the destination on
};

const char* Prepare(Arena& arena, const StringCase& c, std::string& outside) {
    arena.Set(0, c.destBefore);
    if (c.src.null) {
        return nullptr;
    }
    if (c.src.inArena) {
        arena.Set(c.src.offset, c.src.text);
        return arena.At(c.src.offset);
    }
    outside = c.src.text;
    return outside.c_str();
}

TEST(StrcpyS, ResultsAndBytes) {
    const std::string text40(40, 'x');
    const std::string text39(39, 'y');
    const StringCase cases[] = {
        {"short text", false, 8, "", Outside("abc"), 0, 0, "abc\0"s},
        {"text fills destMax", false, 8, "", Outside("abcdefg"), 0, 0, "abcdefg\0"s},
        {"one too long", false, 8, "", Outside("abcdefgh"), 0, 162, "\0"s},
        {"empty text", false, 8, "", Outside(""), 0, 0, "\0"s},
        {"40 characters into 40", false, 40, "", Outside(text40), 0, 162, "\0"s},
        {"39 characters into 40", false, 40, "", Outside(text39), 0, 0, text39 + '\0'},
        {"destMax 0", false, 0, "", Outside("a"), 0, 34, ""},
        {"destMax above max", false, 0x80000000, "", Outside("a"), 0, 34, ""},
        {"destMax checked before dest", true, 0, "", Outside("a"), 0, 34, ""},
        {"null dest", true, 8, "", Outside("a"), 0, 22, ""},
        {"null source", false, 8, "", NullSource(), 0, 150, "\0"s},
        {"source inside destination", false, 16, "abcdefg\0"s, InArena(2, ""), 0, 182, "\0"s},
        {"source ends in destination", false, 16, "", InArena(-4, "wxyzab\0"s), 0, 182, "\0"s},
        {"too long beats overlap", false, 4, "abcdefg\0"s, InArena(2, ""), 0, 162, "\0"s},
        {"source right behind", false, 8, "", InArena(4, "abc\0"s), 0, 0, "abc\0"s},
        {"source right before", false, 8, "", InArena(-4, "abc\0"s), 0, 0, "abc\0"s},
        {"onto itself", false, 8, "abc\0"s, InArena(0, ""), 0, 0, "abc\0"s},
        {"onto itself, too long", false, 8, "abcdefghij\0"s, InArena(0, ""), 0, 162, "\0"s},
    };
    for (const StringCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        std::string outside;
        const char* src = Prepare(arena, c, outside);
        EXPECT_EQ(strcpy_s(c.nullDest ? nullptr : arena.Dest(), c.destMax, src), c.code);
        arena.Expect(0, c.destAfter);
        EXPECT_TRUE(arena.Matches());
    }
}

TEST(StrncpyS, ResultsAndBytes) {
    const StringCase cases[] = {
        {"whole short text", false, 8, "", Outside("abc"), 5, 0, "abc\0"s},
        {"cut at count", false, 8, "", Outside("abcdef"), 3, 0, "abc\0"s},
        {"count equal to destMax, text fits", false, 8, "", Outside("abcdefg"), 8, 0, "abcdefg\0"s},
        {"count equal to destMax, text too long", false, 8, "", Outside("abcdefgh"), 8, 162, "\0"s},
        {"count above destMax, text too long", false, 8, "", Outside("abcdefghij"), 20, 162, "\0"s},
        {"count below destMax, text longer", false, 8, "", Outside("abcdefghij"), 7, 0,
         "abcdefg\0"s},
        {"empty text", false, 8, "", Outside(""), 5, 0, "\0"s},
        {"count 0", false, 8, "abc\0"s, Outside("xyz"), 0, 0, "\0"s},
        {"null source beats count 0", false, 8, "abc\0"s, NullSource(), 0, 150, "\0"s},
        {"count above max", false, 8, "", Outside("a"), 0x80000000, 162, "\0"s},
        {"count all ones", false, 8, "", Outside("a"), 0xFFFFFFFF, 162, "\0"s},
        {"destMax 0", false, 0, "", Outside("a"), 1, 34, ""},
        {"destMax above max", false, 0xFFFFFFFF, "", Outside("a"), 1, 34, ""},
        {"null dest", true, 8, "", Outside("a"), 1, 22, ""},
        {"null source", false, 8, "", NullSource(), 1, 150, "\0"s},
        {"copied characters overlap", false, 8, "abcdefg\0"s, InArena(2, ""), 3, 182, "\0"s},
        {"copied characters touch", false, 8, "abcdefg\0"s, InArena(3, ""), 3, 0, "def\0efg\0"s},
        {"onto itself cuts at count", false, 8, "abcdefg\0"s, InArena(0, ""), 3, 0, "abc\0efg\0"s},
    };
    for (const StringCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        std::string outside;
        const char* src = Prepare(arena, c, outside);
        EXPECT_EQ(strncpy_s(c.nullDest ? nullptr : arena.Dest(), c.destMax, src, c.count), c.code);
        arena.Expect(0, c.destAfter);
        EXPECT_TRUE(arena.Matches());
    }
}

TEST(StrcatS, ResultsAndBytes) {
    const StringCase cases[] = {
        {"appends", false, 8, "ab\0"s, Outside("cd"), 0, 0, "abcd\0"s},
        {"fills destMax exactly", false, 8, "abc\0"s, Outside("defg"), 0, 0, "abcdefg\0"s},
        {"one too many", false, 8, "abc\0"s, Outside("defgh"), 0, 162, "\0bc\0"s},
        {"long source", false, 8, "abcd\0"s, Outside("efghijklmnop"), 0, 162, "\0bcd\0"s},
        {"empty source", false, 8, "abc\0"s, Outside(""), 0, 0, "abc\0"s},
        {"empty destination", false, 8, "\0"s, Outside("abc"), 0, 0, "abc\0"s},
        {"destMax 0", false, 0, "\0"s, Outside("a"), 0, 34, "\0"s},
        {"destMax above max", false, 0x80000000, "\0"s, Outside("a"), 0, 34, "\0"s},
        {"null dest", true, 8, "", Outside("a"), 0, 22, ""},
        {"null source", false, 8, "ab\0"s, NullSource(), 0, 150, "\0b\0"s},
        {"unterminated destination", false, 8, "abcdefgh", Outside("x"), 0, 150, "\0bcdefgh"s},
        {"source is destination", false, 16, "abc\0"s, InArena(0, ""), 0, 182, "\0bc\0"s},
        {"source inside destination text", false, 16, "abc\0"s, InArena(1, ""), 0, 182, "\0bc\0"s},
        {"source where the text goes", false, 8, "ab\0"s, InArena(3, "xy\0"s), 0, 182,
         "\0b\0xy\0"s},
        {"source behind destMax", false, 8, "ab\0"s, InArena(8, "xy\0"s), 0, 0, "abxy\0"s},
        {"source before destination", false, 8, "ab\0"s, InArena(-3, "xy\0"s), 0, 0, "abxy\0"s},
        {"source running into destination", false, 8, "ab\0"s, InArena(-2, "xy"), 0, 182, "\0b\0"s},
        {"unterminated, source at its end", false, 8, "abcdefgh", InArena(8, "xy\0"s), 0, 150,
         "\0bcdefghxy\0"s},
        {"unterminated, source inside", false, 8, "abcdefgh\0"s, InArena(4, ""), 0, 182,
         "\0bcdefgh\0"s},
    };
    for (const StringCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        std::string outside;
        const char* src = Prepare(arena, c, outside);
        EXPECT_EQ(strcat_s(c.nullDest ? nullptr : arena.Dest(), c.destMax, src), c.code);
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
                if (fits) {
                    arena.Expect(0, dest + src + '\0');
                } else {
                    arena.Expect(0, "\0"s);
                }
                ASSERT_TRUE(arena.Matches());
            }
        }
    }
}

// A source text ending right at the end of a readable page, followed by an
// unreadable one: no copy may read past the NUL.
class PageEndText : public ::testing::Test {
  protected:
    void SetUp() override {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* map =
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(map, MAP_FAILED);
        base_ = static_cast<char*>(map);
        ASSERT_EQ(mprotect(base_ + page_, page_, PROT_NONE), 0);
    }
    void TearDown() override {
        if (base_ != nullptr) {
            munmap(base_, 2 * page_);
        }
    }
    // Places text and its NUL so that the NUL is the page's last byte.
    const char* Place(const std::string& text) {
        char* start = base_ + page_ - text.size() - 1;
        std::memcpy(start, text.c_str(), text.size() + 1);
        return start;
    }

    size_t page_ = 0;
    char* base_ = nullptr;
};

TEST_F(PageEndText, CopiesStopAtTheNul) {
    for (uint32_t len = 0; len <= 40; ++len) {
        SCOPED_TRACE(len);
        const std::string text(len, 't');
        const char* src = Place(text);
        char dest[64];
        ASSERT_EQ(strcpy_s(dest, sizeof(dest), src), 0);
        EXPECT_EQ(std::string(dest), text);
        ASSERT_EQ(strncpy_s(dest, sizeof(dest), src, 63), 0);
        EXPECT_EQ(std::string(dest), text);
        dest[0] = '\0';
        ASSERT_EQ(strcat_s(dest, sizeof(dest), src), 0);
        EXPECT_EQ(std::string(dest), text);
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
    const Case cases[] = {
        {"31.0.27", ".", {"31", "0", "27"}},
        {"..a..b..", ".", {"a", "b"}},
        {"", ".", {}},
        {"....", ".", {}},
        {"a, b;;c ", " ,;", {"a", "b", "c"}},
        {"no delimiter here", "", {"no delimiter here"}},
        {"single", ".", {"single"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        EXPECT_EQ(Tokens(text.data(), c.delimiters), c.tokens);
    }
}

TEST(StrtokS, CutsTheTextInPlace) {
    char text[] = "31.0.27";
    char* context = nullptr;
    char* first = strtok_s(text, ".", &context);
    EXPECT_EQ(first, text);
    EXPECT_EQ(context, text + 3);
    EXPECT_EQ(std::string(text, sizeof(text)), "31\0000.27\0"s);
    EXPECT_EQ(strtok_s(nullptr, ".", &context), text + 3);
    EXPECT_EQ(strtok_s(nullptr, ".", &context), text + 5);
    EXPECT_EQ(context, text + 7);  // the end of the text
    EXPECT_EQ(std::string(text, sizeof(text)), "31\0000\00027\0"s);
}

TEST(StrtokS, NullArguments) {
    char text[] = "a.b";
    char* context = nullptr;
    EXPECT_EQ(strtok_s(text, nullptr, &context), nullptr);
    EXPECT_EQ(strtok_s(text, ".", nullptr), nullptr);
    EXPECT_EQ(strtok_s(nullptr, ".", &context), nullptr);  // no stored position
    EXPECT_EQ(std::string(text), "a.b");
}

TEST(StrtokS, ContextsAreIndependent) {
    char first[] = "a b";
    char second[] = "1,2";
    char* c1 = nullptr;
    char* c2 = nullptr;
    EXPECT_STREQ(strtok_s(first, " ", &c1), "a");
    EXPECT_STREQ(strtok_s(second, ",", &c2), "1");
    EXPECT_STREQ(strtok_s(nullptr, " ", &c1), "b");
    EXPECT_STREQ(strtok_s(nullptr, ",", &c2), "2");
    EXPECT_EQ(strtok_s(nullptr, " ", &c1), nullptr);
    EXPECT_EQ(strtok_s(nullptr, ",", &c2), nullptr);
}

}  // namespace
