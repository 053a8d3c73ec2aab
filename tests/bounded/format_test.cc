// sprintf_s and snprintf_s: argument checks, the truncation rules of each,
// the bounded writer's report, and the conversions the differential test
// against libc cannot cover (prefixes libc lacks, pointers, floating
// point, wide characters, malformed conversions).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <tuple>

#include "bounded/arena.h"
#include "bounded/bounded.h"

namespace {

using hic::test::Arena;
using namespace std::string_literals;

// Formats with runtime format strings: the prefixes under test are unknown
// to the compiler's printf checker.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Wraps a va_list form as a variadic call.
#define HIC_VA_CALL(call)   \
    va_list args;           \
    va_start(args, format); \
    const int n = call;     \
    va_end(args);           \
    return n

int Sprintf(char* dest, uint32_t destMax, const char* format, ...) {
    HIC_VA_CALL(vsprintf_s(dest, destMax, format, args));
}
int Snprintf(char* dest, uint32_t destMax, uint32_t count, const char* format, ...) {
    HIC_VA_CALL(vsnprintf_s(dest, destMax, count, format, args));
}
int LibcInto(char* dest, size_t size, const char* format, ...) {
    HIC_VA_CALL(std::vsnprintf(dest, size, format, args));
}

#pragma GCC diagnostic pop

// libc's rendering of the same call, as the oracle for what libc formats.
template <typename... A>
std::string Libc(const char* format, A... args) {
    char buffer[1024];
    const int n = LibcInto(buffer, sizeof(buffer), format, args...);
    EXPECT_GE(n, 0);
    EXPECT_LT(n, static_cast<int>(sizeof(buffer)));
    return std::string(buffer, n < 0 ? 0 : static_cast<size_t>(n));
}

// What a failed call shows as, "<-1>": appended, since GCC 12 at -O3 sees a
// false overlap in "<" + std::to_string(n).
std::string FailureText(int n) {
    return std::string("<").append(std::to_string(n)).append(">");
}

// Result of formatting into a roomy buffer: the text, or "<-1>".
template <typename... A>
std::string Formatted(const char* format, A... args) {
    char buffer[1024];
    const int n = Sprintf(buffer, sizeof(buffer), format, args...);
    if (n < 0) {
        return FailureText(n);
    }
    EXPECT_EQ(buffer[n], '\0');
    return std::string(buffer, static_cast<size_t>(n));
}

constexpr char k45[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHI";
static_assert(sizeof(k45) == 46);

struct TruncationCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    std::optional<uint32_t> count;  // that of snprintf_s; none for sprintf_s
    const char* format;
    const char* arg;
    int result;
    std::string destAfter;  // the text with its NUL, "\0" for emptied, "" untouched
};

TEST(SprintfAndSnprintf, ChecksAndTruncation) {
    const std::string t38(k45, 38);
    const std::string t39(k45, 39);
    const std::string t40(k45, 40);
    const TruncationCase cases[] = {
        {"fits", false, 40, {}, "%s", t39.c_str(), 39, t39 + '\0'},
        {"45 characters into 40", false, 40, {}, "%s", k45, -1, "\0"s},
        {"one character too many", false, 39, {}, "%s", t39.c_str(), -1, "\0"s},
        {"empty result", false, 1, {}, "", nullptr, 0, "\0"s},
        {"destMax 1, one character", false, 1, {}, "x", nullptr, -1, "\0"s},
        {"null format", false, 40, {}, nullptr, nullptr, -1, "\0"s},
        {"destMax 0", false, 0, {}, "%s", "a", -1, ""},
        {"destMax above max", false, 0x80000000, {}, "%s", "a", -1, ""},
        {"null dest", true, 40, {}, "%s", "a", -1, ""},
        {"malformed conversion", false, 40, {}, "ab%y", nullptr, -1, "\0"s},
        {"n: cut after count, kept", false, 40, 39, k45, nullptr, -1, t39 + '\0'},
        {"n: exactly count characters", false, 40, 39, t39.c_str(), nullptr, 39, t39 + '\0'},
        {"n: below count", false, 40, 39, t38.c_str(), nullptr, 38, t38 + '\0'},
        {"n: count 0, empty text", false, 40, 0, "", nullptr, 0, "\0"s},
        {"n: count 0, some text", false, 40, 0, "abc", nullptr, -1, "\0"s},
        {"n: count 1 keeps one character", false, 40, 1, "abc", nullptr, -1, "a\0"s},
        {"n: count equal to destMax, fits", false, 40, 40, t39.c_str(), nullptr, 39, t39 + '\0'},
        {"n: count equal to destMax, too long", false, 40, 40, t40.c_str(), nullptr, -1, "\0"s},
        {"n: count above destMax, too long", false, 40, 100, k45, nullptr, -1, "\0"s},
        {"n: count all ones, fits", false, 40, 0xFFFFFFFF, "0123456789", nullptr, 10,
         "0123456789\0"s},
        {"n: count all ones, too long", false, 40, 0xFFFFFFFF, k45, nullptr, -1, "\0"s},
        {"n: count 0x7FFFFFFF refused", false, 40, 0x7FFFFFFF, "abc", nullptr, -1, "\0"s},
        {"n: count 0x80000000 refused", false, 40, 0x80000000, "abc", nullptr, -1, "\0"s},
        {"n: count 0xFFFFFFFE refused", false, 40, 0xFFFFFFFE, "abc", nullptr, -1, "\0"s},
        {"n: count 0x7FFFFFFE accepted", false, 40, 0x7FFFFFFE, "abc", nullptr, 3, "abc\0"s},
        {"n: error below count empties", false, 40, 39, "ab%y", nullptr, -1, "\0"s},
        {"n: error above count empties", false, 40, 100, "ab%y", nullptr, -1, "\0"s},
        {"n: error after the cut is never seen", false, 40, 2, "abc%y", nullptr, -1, "ab\0"s},
        {"n: null format", false, 40, 10, nullptr, nullptr, -1, "\0"s},
        {"n: destMax 0", false, 0, 10, "abc", nullptr, -1, ""},
        {"n: destMax above max", false, 0x80000000, 10, "abc", nullptr, -1, ""},
        {"n: null dest", true, 40, 10, "abc", nullptr, -1, ""},
    };
    for (const TruncationCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        char* dest = c.nullDest ? nullptr : arena.Dest();
        EXPECT_EQ(c.count ? Snprintf(dest, c.destMax, *c.count, c.format, c.arg)
                          : Sprintf(dest, c.destMax, c.format, c.arg),
                  c.result);
        arena.Expect(0, c.destAfter);
        // A failed call may leave scratch behind the emptied string, but
        // never beyond destMax, nor beyond the count and its NUL.
        uint32_t scratch = 0;
        if (c.result < 0 && c.destAfter == "\0"s) {
            scratch = c.count && *c.count < c.destMax ? *c.count + 1 : c.destMax;
            EXPECT_EQ(*arena.Dest(), '\0');
        }
        EXPECT_TRUE(arena.MatchesOutside(scratch));
    }
}

TEST(FormatEngine, MalformedConversionsFail) {
    const char* formats[] = {
        "%",   "ab%",  "%y", "%n",  "%a",  "%A", "%hhhd",         "%lhd",           "%1$d",
        "%'d", "%I6d", "%5", "%.3", "%ll", "%-", "%99999999999d", "%.99999999999d", "%2147483648d",
    };
    for (const char* format : formats) {
        SCOPED_TRACE(format);
        char dest[64] = "untouched";
        EXPECT_EQ(Sprintf(dest, sizeof(dest), format, 1, 2, 3), -1);
        EXPECT_EQ(dest[0], '\0');
    }
}

// Renderings with a fixed text: prefixes libc lacks, literals, and wide
// text in the C locale.
TEST(FormatEngine, FixedRenderings) {
    const wchar_t* nullWide = nullptr;
    const auto wc = [](wchar_t c) { return static_cast<wint_t>(c); };
    const std::pair<std::string, std::string> cases[] = {
        {Formatted("%I64d", INT64_MIN), "-9223372036854775808"},
        {Formatted("%I64u", UINT64_MAX), "18446744073709551615"},
        {Formatted("%I64x|%I32x", INT64_C(0x123456789), 0xFEDCBA98U), "123456789|fedcba98"},
        {Formatted("%I32d", INT32_MIN), "-2147483648"},
        {Formatted("%Id|%Ix", INTPTR_MIN, UINTPTR_MAX),
         std::to_string(INTPTR_MIN) + "|ffffffffffffffff"},
        {Formatted("%qd|%qu", LLONG_MIN, ULLONG_MAX), "-9223372036854775808|18446744073709551615"},
        {Formatted("%Ld", LLONG_MAX), "9223372036854775807"},
        {Formatted("%Zu|%Zd", SIZE_MAX, static_cast<size_t>(7)), "18446744073709551615|7"},
        {Formatted("%Nd|%Nx", -5, 255), "-5|ff"},
        {Formatted("%wd", 42), "42"},
        {Formatted("[%wc]", wc(L'a')), "[a]"},
        {Formatted("[%ws|%-5ws|%.2ws]", L"wide", L"ab", L"xyz"), "[wide|ab   |xy]"},
        {Formatted("[%C|%S]", wc(L'q'), L"str"), "[q|str]"},
        {Formatted("[%hS|%hC]", L"still wide", wc(L'w')), "[still wide|w]"},
        {Formatted("[%lls|%js|%zs|%ts]", L"a", L"b", L"c", L"d"), "[a|b|c|d]"},
        {Formatted("[%hs|%hhs]", "narrow", "n"), "[narrow|n]"},
        {Formatted("[%I64s]", "narrow"), "[narrow]"},
        {Formatted("100%%"), "100%"},
        {Formatted("[%5%|%-5%]"), "[%|%]"},  // as glibc: no padding
        {Formatted("a%sb%dc", "-", 1), "a-b1c"},
        {Formatted("%c", 0), "\0"s},
        {Formatted("%s%s%s%s%s%s%s%s%s%s", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"),
         "12345678910"},
        {Formatted("%p", nullptr), "(nil)"},
        {Formatted("[%ls|%S|%10ls|%-8ls]", L"abc", L"def", nullWide, L"x"),
         "[abc|def|    (null)|x       ]"},
        {Formatted("[%.3ls|%.6ls]", nullWide, nullWide), "[|(null)]"},
        {Formatted("[%.2ls|%5.1ls]", L"abc", L"xyz"), "[ab|    x]"},
        {Formatted("[%lc|%3lc|%-3lc]", wc(L'A'), wc(L'B'), wc(L'C')), "[A|  B|C  ]"},
        // Not representable in the C locale: libc fails, and so do we.
        {Formatted("%lc", wc(0xE9)), "<-1>"},
        {Formatted("%ls", L"caf\u00e9"), "<-1>"},
        {Libc("%ls", L"ok"), "ok"},
    };
    for (const auto& [got, want] : cases) {
        EXPECT_EQ(got, want);
    }
}

// Texts longer than the engine's scratch buffer, whole or cut at a count:
// exactly the expected bytes land, and nothing past them.
TEST(FormatEngine, LongAndCutOutputs) {
    const std::string big(5000, 'q');
    const std::string longFloat = Libc("%.400f", 1e300);
    struct Case {
        std::string got;  // from a 6000-byte destination, or an arena for cut texts
        std::string want;
    };
    std::string dest(6000, '\0');
    const auto whole = [&dest](int n) {
        return n < 0 ? FailureText(n) : dest.substr(0, static_cast<size_t>(n) + 1);
    };
    const auto cut = [](uint32_t count, const char* format, auto arg) {
        Arena arena;
        const int n = Snprintf(arena.Dest(), 32, count, format, arg);
        return std::to_string(n) + ":" + std::string(arena.Dest(), count + 1) +
               (arena.MatchesOutside(count + 1) ? "" : " (overrun)");
    };
    const Case cases[] = {
        {whole(sprintf_s(dest.data(), 6000, "%.400f", 1e300)), longFloat + '\0'},
        {whole(sprintf_s(dest.data(), 6000, "[%900.1f]", 2.5)), Libc("[%900.1f]", 2.5) + '\0'},
        {whole(sprintf_s(dest.data(), 6000, "<%s>", big.c_str())), "<" + big + ">" + '\0'},
        {whole(sprintf_s(dest.data(), 6000, "%5500d", 7)), std::string(5499, ' ') + "7" + '\0'},
        {cut(10, "%.400f", 1e300), "-1:" + longFloat.substr(0, 10) + '\0'},
        {cut(5, "%ls", L"abcdefgh"), "-1:abcde\0"s},
        {cut(5, "%-9lc|", static_cast<wint_t>(L'z')), "-1:z    \0"s},
        {cut(20, "%2000000000d", 5), "-1:" + std::string(20, ' ') + '\0'},
        {cut(20, "%.2000000000d", 5), "-1:" + std::string(20, '0') + '\0'},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.got, c.want);
    }
}

}  // namespace
