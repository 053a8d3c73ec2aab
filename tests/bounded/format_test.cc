// sprintf_s and snprintf_s: argument checks, the truncation rules of each,
// the bounded writer's report, and the conversions the differential test
// against libc cannot cover (prefixes libc lacks, pointers, floating
// point, wide characters, malformed conversions).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "bounded/arena.h"
#include "bounded/bounded.h"
#include "bounded/internal.h"

namespace {

using hic::test::Arena;
using namespace std::string_literals;

// Formats with runtime format strings: the prefixes under test are unknown
// to the compiler's printf checker.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

int Sprintf(char* dest, uint32_t destMax, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = vsprintf_s(dest, destMax, format, args);
    va_end(args);
    return n;
}

int Snprintf(char* dest, uint32_t destMax, uint32_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return n;
}

int Write(char* dest, uint32_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = hic::bounded_internal::BoundedWrite(dest, size, format, args);
    va_end(args);
    return n;
}

// libc's rendering of the same call, as the oracle for what libc formats.
std::string Libc(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    EXPECT_GE(n, 0);
    EXPECT_LT(n, static_cast<int>(sizeof(buffer)));
    return std::string(buffer, n < 0 ? 0 : static_cast<size_t>(n));
}

#pragma GCC diagnostic pop

// Result of formatting into a roomy buffer: the text, or "<-1>".
template <typename... A>
std::string Formatted(const char* format, A... args) {
    char buffer[1024];
    const int n = Sprintf(buffer, sizeof(buffer), format, args...);
    if (n < 0) {
        return "<" + std::to_string(n) + ">";
    }
    EXPECT_EQ(buffer[n], '\0');
    return std::string(buffer, static_cast<size_t>(n));
}

constexpr char k45[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHI";
static_assert(sizeof(k45) == 46);

TEST(SprintfS, PidIntoSixteenBytes) {
    char dest[16];
    const long pid = getpid();
    const std::string digits = std::to_string(pid);
    EXPECT_EQ(sprintf_s(dest, sizeof(dest), "%ld", pid), static_cast<int>(digits.size()));
    EXPECT_EQ(std::string(dest), digits);
}

struct SprintfCase {
    const char* name;
    bool nullDest;
    uint32_t destMax;
    const char* format;
    const char* arg;
    int result;
    std::string destAfter;  // the text with its NUL, "\0" for emptied, "" untouched
};

TEST(SprintfS, ChecksAndTruncation) {
    const std::string text39(k45, 39);
    const SprintfCase cases[] = {
        {"fits", false, 40, "%s", text39.c_str(), 39, text39 + '\0'},
        {"45 characters into 40", false, 40, "%s", k45, -1, "\0"s},
        {"one character too many", false, 39, "%s", text39.c_str(), -1, "\0"s},
        {"empty result", false, 1, "", nullptr, 0, "\0"s},
        {"destMax 1, one character", false, 1, "x", nullptr, -1, "\0"s},
        {"null format", false, 40, nullptr, nullptr, -1, "\0"s},
        {"destMax 0", false, 0, "%s", "a", -1, ""},
        {"destMax above max", false, 0x80000000, "%s", "a", -1, ""},
        {"null dest", true, 40, "%s", "a", -1, ""},
        {"malformed conversion", false, 40, "ab%y", nullptr, -1, "\0"s},
    };
    for (const SprintfCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        EXPECT_EQ(Sprintf(c.nullDest ? nullptr : arena.Dest(), c.destMax, c.format, c.arg),
                  c.result);
        arena.Expect(0, c.destAfter);
        // A failed call may leave scratch behind the emptied string, but
        // never beyond destMax.
        const uint32_t scratch = c.result < 0 && c.destAfter == "\0"s ? c.destMax : 0;
        EXPECT_TRUE(arena.MatchesOutside(scratch));
        if (scratch != 0) {
            EXPECT_EQ(*arena.Dest(), '\0');
        }
    }
}

struct SnprintfCase {
    const char* name;
    uint32_t destMax;
    uint32_t count;
    const char* format;
    int result;
    std::string destAfter;  // the text with its NUL, or "\0" for emptied
};

TEST(SnprintfS, ChecksAndTruncation) {
    const std::string text39(k45, 39);
    const std::string text38(k45, 38);
    const std::string text40(k45, 40);
    const SnprintfCase cases[] = {
        {"cut after count, kept", 40, 39, k45, -1, text39 + '\0'},
        {"exactly count characters", 40, 39, text39.c_str(), 39, text39 + '\0'},
        {"below count", 40, 39, text38.c_str(), 38, text38 + '\0'},
        {"count 0, empty text", 40, 0, "", 0, "\0"s},
        {"count 0, some text", 40, 0, "abc", -1, "\0"s},
        {"count 1 keeps one character", 40, 1, "abc", -1, "a\0"s},
        {"count equal to destMax, fits", 40, 40, text39.c_str(), 39, text39 + '\0'},
        {"count equal to destMax, too long", 40, 40, text40.c_str(), -1, "\0"s},
        {"count above destMax, too long", 40, 100, k45, -1, "\0"s},
        {"count all ones, fits", 40, 0xFFFFFFFF, "0123456789", 10, "0123456789\0"s},
        {"count all ones, too long", 40, 0xFFFFFFFF, k45, -1, "\0"s},
        {"count 0x7FFFFFFF refused", 40, 0x7FFFFFFF, "abc", -1, "\0"s},
        {"count 0x80000000 refused", 40, 0x80000000, "abc", -1, "\0"s},
        {"count 0xFFFFFFFE refused", 40, 0xFFFFFFFE, "abc", -1, "\0"s},
        {"count 0x7FFFFFFE accepted", 40, 0x7FFFFFFE, "abc", 3, "abc\0"s},
        {"error below count empties", 40, 39, "ab%y", -1, "\0"s},
        {"error above count empties", 40, 100, "ab%y", -1, "\0"s},
        {"error after the cut is never seen", 40, 2, "abc%y", -1, "ab\0"s},
        {"null format", 40, 10, nullptr, -1, "\0"s},
        {"destMax 0", 0, 10, "abc", -1, ""},
        {"destMax above max", 0x80000000, 10, "abc", -1, ""},
    };
    for (const SnprintfCase& c : cases) {
        SCOPED_TRACE(c.name);
        Arena arena;
        EXPECT_EQ(Snprintf(arena.Dest(), c.destMax, c.count, c.format), c.result);
        arena.Expect(0, c.destAfter);
        if (c.result >= 0 || c.destAfter != "\0"s) {
            EXPECT_TRUE(arena.Matches());
        } else {
            const uint32_t limit = c.count < c.destMax ? c.count + 1 : c.destMax;
            EXPECT_TRUE(arena.MatchesOutside(limit));
        }
    }
    EXPECT_EQ(Snprintf(nullptr, 40, 10, "abc"), -1);
}

TEST(BoundedWriter, ReportsTruncation) {
    struct Case {
        const char* format;
        uint32_t size;
        int result;
        std::string dest;  // expected bytes from the start
    };
    const Case cases[] = {
        {"abcd", 5, 4, "abcd\0"s},
        {"abcde", 5, -2, "abcd\0"s},
        {"abcdefgh", 5, -2, "abcd\0"s},
        {"", 1, 0, "\0"s},
        {"a", 1, -2, "\0"s},
        {"ab%y", 5, -1, "\0b"s},
        {"abcd%y", 5, -1, "\0bcd"s},
        // The error comes only after the buffer is full: reported as cut.
        {"abcde%y", 5, -2, "abcd\0"s},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        Arena arena;
        EXPECT_EQ(Write(arena.Dest(), c.size, c.format), c.result);
        arena.Expect(0, c.dest);
        EXPECT_TRUE(arena.Matches());
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

TEST(FormatEngine, PrefixesLibcLacks) {
    struct Case {
        std::string got;
        std::string want;
    };
    const Case cases[] = {
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
        {Formatted("[%wc]", static_cast<wint_t>(L'a')), "[a]"},
        {Formatted("[%ws|%-5ws|%.2ws]", L"wide", L"ab", L"xyz"), "[wide|ab   |xy]"},
        {Formatted("[%C|%S]", static_cast<wint_t>(L'q'), L"str"), "[q|str]"},
        {Formatted("[%hS|%hC]", L"still wide", static_cast<wint_t>(L'w')), "[still wide|w]"},
        {Formatted("[%lls|%js|%zs|%ts]", L"a", L"b", L"c", L"d"), "[a|b|c|d]"},
        {Formatted("[%hs|%hhs]", "narrow", "n"), "[narrow|n]"},
        {Formatted("[%I64s]", "narrow"), "[narrow]"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.got, c.want);
    }
}

TEST(FormatEngine, PercentAndLiterals) {
    EXPECT_EQ(Formatted("100%%"), "100%");
    EXPECT_EQ(Formatted("[%5%|%-5%]"), "[%|%]");  // as glibc: no padding
    EXPECT_EQ(Formatted("a%sb%dc", "-", 1), "a-b1c");
    EXPECT_EQ(Formatted("%c", 0), "\0"s);
    EXPECT_EQ(Formatted("%s%s%s%s%s%s%s%s%s%s", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"),
              "12345678910");
}

TEST(FormatEngine, Pointers) {
    int object = 0;
    void* null = nullptr;
    const char* formats[] = {"%p",    "[%20p]", "[%-20p]", "[%020p]", "[%.20p]",
                             "[%+p]", "[% p]",  "[%#p]",   "[%.0p]",  "[%3p]"};
    for (const char* format : formats) {
        SCOPED_TRACE(format);
        EXPECT_EQ(Formatted(format, &object), Libc(format, &object));
        EXPECT_EQ(Formatted(format, null), Libc(format, null));
        EXPECT_EQ(Formatted(format, reinterpret_cast<void*>(UINTPTR_MAX)),
                  Libc(format, reinterpret_cast<void*>(UINTPTR_MAX)));
    }
    EXPECT_EQ(Formatted("%p", null), "(nil)");
}

TEST(FormatEngine, FloatingPointMatchesLibc) {
    const char* formats[] = {"%f",      "%e",    "%E",     "%g",       "%G",  "%F",
                             "%.0f",    "%#.0f", "%10.3f", "%-10.3e|", "%+g", "% g",
                             "%010.2f", "%*.*f", "%.30e",  "%lf",      "%#g", "%.0e"};
    const double values[] = {0.0,      -0.0,      1.0,     -1.5,    3.14159265358979,
                             1e300,    -1e-300,   DBL_MAX, DBL_MIN, 123456789.125,
                             INFINITY, -INFINITY, NAN};
    for (const char* format : formats) {
        for (const double v : values) {
            SCOPED_TRACE(::testing::Message() << format << " " << v);
            if (std::string(format) == "%*.*f") {
                EXPECT_EQ(Formatted(format, 12, 4, v), Libc(format, 12, 4, v));
                EXPECT_EQ(Formatted(format, -12, -1, v), Libc(format, -12, -1, v));
            } else {
                EXPECT_EQ(Formatted(format, v), Libc(format, v));
            }
        }
    }
    const long double big = LDBL_MAX;
    EXPECT_EQ(Formatted("%Le|%LG", big, -1.25L), Libc("%Le|%LG", big, -1.25L));
    EXPECT_EQ(Formatted("%.3Lf", 2.0005L), Libc("%.3Lf", 2.0005L));
    EXPECT_EQ(Formatted("%llf", 2.5L), Libc("%llf", 2.5L));
}

// Longer than the engine's scratch buffer: the heap takes over.
TEST(FormatEngine, LongFloatingPoint) {
    char dest[2048];
    const std::string want = Libc("%.400f", 1e300);
    ASSERT_EQ(sprintf_s(dest, sizeof(dest), "%.400f", 1e300), static_cast<int>(want.size()));
    EXPECT_EQ(std::string(dest), want);
    ASSERT_EQ(sprintf_s(dest, sizeof(dest), "[%900.1f]", 2.5), 902);
    EXPECT_EQ(std::string(dest), Libc("[%900.1f]", 2.5));
    // Cut like every other text.
    EXPECT_EQ(snprintf_s(dest, sizeof(dest), 10, "%.400f", 1e300), -1);
    EXPECT_EQ(std::string(dest), Libc("%.400f", 1e300).substr(0, 10));
}

TEST(FormatEngine, WideTextInTheCLocale) {
    const wchar_t* null = nullptr;
    EXPECT_EQ(Formatted("[%ls|%S|%10ls|%-8ls]", L"abc", L"def", null, L"x"),
              "[abc|def|    (null)|x       ]");
    EXPECT_EQ(Formatted("[%.3ls|%.6ls]", null, null), "[|(null)]");
    EXPECT_EQ(Formatted("[%.2ls|%5.1ls]", L"abc", L"xyz"), "[ab|    x]");
    EXPECT_EQ(Formatted("[%lc|%3lc|%-3lc]", static_cast<wint_t>(L'A'), static_cast<wint_t>(L'B'),
                        static_cast<wint_t>(L'C')),
              "[A|  B|C  ]");
    // Not representable in the C locale: libc fails, and so do we.
    EXPECT_EQ(Formatted("%lc", static_cast<wint_t>(0xE9)), "<-1>");
    EXPECT_EQ(Formatted("%ls", L"caf\u00e9"), "<-1>");
    EXPECT_EQ(Libc("%ls", L"ok"), "ok");
}

TEST(FormatEngine, WideTextInUtf8) {
    const char* previous = std::setlocale(LC_CTYPE, nullptr);
    const std::string saved = previous != nullptr ? previous : "C";
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        GTEST_SKIP() << "no C.UTF-8 locale";
    }
    const wchar_t* text = L"a\u00e9\u20acz";  // 1, 2, 3 and 1 bytes
    const char* formats[] = {"[%ls]",   "[%.1ls]", "[%.2ls]",    "[%.3ls]",
                             "[%.5ls]", "[%10ls]", "[%-10.4ls]", "[%S]"};
    for (const char* format : formats) {
        SCOPED_TRACE(format);
        EXPECT_EQ(Formatted(format, text), Libc(format, text));
    }
    EXPECT_EQ(Formatted("[%lc|%4lc]", static_cast<wint_t>(0x20AC), static_cast<wint_t>(0xE9)),
              Libc("[%lc|%4lc]", static_cast<wint_t>(0x20AC), static_cast<wint_t>(0xE9)));
    std::setlocale(LC_CTYPE, saved.c_str());
}

TEST(FormatEngine, WideOutputLongerThanTheBuffer) {
    char dest[8];
    EXPECT_EQ(snprintf_s(dest, sizeof(dest), 5, "%ls", L"abcdefgh"), -1);
    EXPECT_EQ(std::string(dest), "abcde");
    EXPECT_EQ(snprintf_s(dest, sizeof(dest), 5, "%-9lc|", static_cast<wint_t>(L'z')), -1);
    EXPECT_EQ(std::string(dest), "z    ");
}

TEST(FormatEngine, HugePaddingIsCutNotOverrun) {
    Arena arena;
    EXPECT_EQ(Snprintf(arena.Dest(), 32, 20, "%2000000000d", 5), -1);
    arena.Expect(0, std::string(20, ' ') + '\0');
    EXPECT_TRUE(arena.Matches());

    Arena again;
    EXPECT_EQ(Snprintf(again.Dest(), 32, 20, "%.2000000000d", 5), -1);
    again.Expect(0, std::string(20, '0') + '\0');
    EXPECT_TRUE(again.Matches());
}

TEST(FormatEngine, LongTexts) {
    const std::string big(5000, 'q');
    std::string dest(6000, '\0');
    ASSERT_EQ(sprintf_s(dest.data(), 6000, "<%s>", big.c_str()), 5002);
    EXPECT_EQ(dest.substr(0, 5003), "<" + big + ">" + '\0');
    ASSERT_EQ(sprintf_s(dest.data(), 6000, "%5500d", 7), 5500);
    EXPECT_EQ(dest.substr(0, 5501), std::string(5499, ' ') + "7" + '\0');
}

}  // namespace
