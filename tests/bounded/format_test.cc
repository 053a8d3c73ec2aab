// sprintf_s and snprintf_s: argument checks, the truncation rules of each,
// the conversions the differential test cannot cover (prefixes libc lacks,
// floating point, wide characters libc refuses, malformed conversions), and
// that differential test against libc's snprintf: many generated
// conversions (flags, width, precision, "*", size prefixes, every integer
// conversion, characters, strings, pointers) with values at the limits of
// their types. Seeded, so a failure repeats.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <limits>
#include <optional>
#include <random>
#include <string>

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

// Result of formatting into a roomy buffer: the text, or the failure as
// "<-1>" (appended, since GCC 12 at -O3 sees a false overlap in "<" + ...).
template <typename... A>
std::string Formatted(const char* format, A... args) {
    char buffer[1024];
    const int n = Sprintf(buffer, sizeof(buffer), format, args...);
    if (n < 0) {
        return std::string("<").append(std::to_string(n)).append(">");
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
    const std::string t39(k45, 39);
    const std::string t40(k45, 40);
    const TruncationCase cases[] = {
        {"fits", false, 40, {}, "%s", t39.c_str(), 39, t39 + '\0'},
        {"one character too many", false, 39, {}, "%s", t39.c_str(), -1, "\0"s},
        {"empty result", false, 1, {}, "", nullptr, 0, "\0"s},
        {"null format", false, 40, {}, nullptr, nullptr, -1, "\0"s},
        {"destMax 0", false, 0, {}, "%s", "a", -1, ""},
        {"destMax above max", false, 0x80000000, {}, "%s", "a", -1, ""},
        {"null dest", true, 40, {}, "%s", "a", -1, ""},
        {"n: cut after count, kept", false, 40, 39, k45, nullptr, -1, t39 + '\0'},
        {"n: exactly count characters", false, 40, 39, t39.c_str(), nullptr, 39, t39 + '\0'},
        {"n: count 0, empty text", false, 40, 0, "", nullptr, 0, "\0"s},
        {"n: count 0, some text", false, 40, 0, "abc", nullptr, -1, "\0"s},
        {"n: count equal to destMax, fits", false, 40, 40, t39.c_str(), nullptr, 39, t39 + '\0'},
        {"n: count equal to destMax, too long", false, 40, 40, t40.c_str(), nullptr, -1, "\0"s},
        {"n: count 0x7FFFFFFF refused", false, 40, 0x7FFFFFFF, "abc", nullptr, -1, "\0"s},
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

// Renderings with a fixed text: prefixes libc lacks, literals, floating
// point (long enough for the engine's heap buffer), and wide text in the C
// locale.
TEST(FormatEngine, FixedRenderings) {
    const auto wc = [](wchar_t c) { return static_cast<wint_t>(c); };
    const std::pair<std::string, std::string> cases[] = {
        {Formatted("%I64d|%I32d", INT64_MIN, INT32_MIN), "-9223372036854775808|-2147483648"},
        {Formatted("%I64u|%I64x|%I32x", UINT64_MAX, INT64_C(0x123456789), 0xFEDCBA98U),
         "18446744073709551615|123456789|fedcba98"},
        {Formatted("%Id|%Ix", INTPTR_MIN, UINTPTR_MAX),
         std::to_string(INTPTR_MIN) + "|ffffffffffffffff"},
        {Formatted("%qd|%Lu", LLONG_MIN, ULLONG_MAX), "-9223372036854775808|18446744073709551615"},
        {Formatted("%Zu|%Zd", SIZE_MAX, static_cast<size_t>(7)), "18446744073709551615|7"},
        {Formatted("%Nd|%Nx", -5, 255), "-5|ff"},
        {Formatted("[%wd|%wc]", 42, wc(L'a')), "[42|a]"},
        {Formatted("[%ws|%-5ws|%.2ws]", L"wide", L"ab", L"xyz"), "[wide|ab   |xy]"},
        {Formatted("[%C|%S]", wc(L'q'), L"str"), "[q|str]"},
        {Formatted("[%hS|%hC]", L"still wide", wc(L'w')), "[still wide|w]"},
        {Formatted("[%lls|%js|%zs|%ts]", L"a", L"b", L"c", L"d"), "[a|b|c|d]"},
        {Formatted("[%hs|%hhs]", "narrow", "n"), "[narrow|n]"},
        {Formatted("[%I64s]", "narrow"), "[narrow]"},
        {Formatted("[%5%|%-5%]"), "[%|%]"},  // as glibc: no padding
        {Formatted("%.400f", 1e300), Libc("%.400f", 1e300)},
        {Formatted("[%9.1f|%-+7.1Le]", 2.5, 2.5L), Libc("[%9.1f|%-+7.1Le]", 2.5, 2.5L)},
        // Not representable in the C locale: libc fails, and so do we.
        {Formatted("%lc", wc(0xE9)), "<-1>"},
        {Formatted("%ls", L"caf\u00e9"), "<-1>"},
    };
    for (const auto& [got, want] : cases) {
        EXPECT_EQ(got, want);
    }
}

// Outputs cut at a count, beyond the differential test's reach: a floating
// point text from the heap buffer, and widths and precisions in the
// billions. Exactly count characters land, and nothing past them.
TEST(FormatEngine, CutOutputs) {
    const auto cut = [](uint32_t count, const char* format, auto arg) {
        Arena arena;
        const int n = Snprintf(arena.Dest(), 32, count, format, arg);
        return std::to_string(n) + ":" + std::string(arena.Dest(), count + 1) +
               (arena.MatchesOutside(count + 1) ? "" : " (overrun)");
    };
    EXPECT_EQ(cut(10, "%.400f", 1e300), "-1:" + Libc("%.400f", 1e300).substr(0, 10) + '\0');
    EXPECT_EQ(cut(20, "%2000000000d", 5), "-1:" + std::string(20, ' ') + '\0');
    EXPECT_EQ(cut(20, "%.2000000000d", 5), "-1:" + std::string(20, '0') + '\0');
}

class Differential {
  public:
    explicit Differential(uint64_t seed) : rng_(seed) {}

    // One generated case: integers most often, then strings.
    void RunOne() {
        const int kind = Uniform(0, 9);
        if (kind < 6) {
            Integer();
        } else if (kind == 6) {
            Character();
        } else if (kind < 9) {
            String();
        } else {
            Pointer();
        }
    }

    int failures() const { return failures_; }

  private:
    int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

    const char* Pick(std::initializer_list<const char*> choices) {
        return choices.begin()[Uniform(0, static_cast<int>(choices.size()) - 1)];
    }

    // Flags, width and precision, with or without "*".
    void Head() {
        format_ = Pick({"", "", "<", "ab ", "%%"});
        format_ += '%';
        for (int i = Uniform(0, 3); i > 0; --i) {
            format_ += " #+-0"[Uniform(0, 4)];
        }
        const int width = Uniform(0, 3);
        starWidth_ = width == 3;
        if (width == 1 || width == 2) {
            format_ += std::to_string(Uniform(1, 25));
        } else if (starWidth_) {
            format_ += '*';
            width_ = Uniform(-25, 25);
        }
        const int precision = Uniform(0, 4);
        starPrec_ = precision == 4;
        if (precision == 2) {
            format_ += '.';
        } else if (precision == 3) {
            format_ += '.' + std::to_string(Uniform(0, 25));
        } else if (starPrec_) {
            format_ += ".*";
            prec_ = Uniform(-5, 25);
        }
    }

    // A value at or near the limits of its type, or an arbitrary one.
    template <typename T>
    T Value() {
        using L = std::numeric_limits<T>;
        const auto t = [](auto v) { return static_cast<T>(v); };
        const T picks[] = {t(0),
                           t(1),
                           t(-1),
                           L::min(),
                           L::max(),
                           t(L::min() + 1),
                           t(L::max() - 1),
                           t(Uniform(-1000, 1000)),
                           t(rng_())};
        return picks[Uniform(0, 8)];
    }

    template <typename S, typename U>
    void IntegerOf(bool isSigned) {
        if (isSigned) {
            Check(Value<S>());
        } else {
            Check(Value<U>());
        }
    }

    void Integer() {
        Head();
        int size = Uniform(0, 7);
        const char* prefixes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
        format_ += prefixes[size];
        const char conv = "diouxX"[Uniform(0, 5)];
        format_ += conv;
        format_ += Pick({"", ">", " tail"});
        // With hh and h, sometimes a whole int: the promoted value is cut.
        if ((size == 1 || size == 2) && Uniform(0, 1) == 1) {
            size = 0;
        }
        using Gen = void (*)(Differential&, bool);
        static constexpr Gen kBySize[] = {
            [](Differential& d, bool s) { d.IntegerOf<int, unsigned>(s); },
            [](Differential& d, bool s) { d.IntegerOf<signed char, unsigned char>(s); },
            [](Differential& d, bool s) { d.IntegerOf<short, unsigned short>(s); },
            [](Differential& d, bool s) { d.IntegerOf<long, unsigned long>(s); },
            [](Differential& d, bool s) { d.IntegerOf<long long, unsigned long long>(s); },
            [](Differential& d, bool s) { d.IntegerOf<intmax_t, uintmax_t>(s); },
            [](Differential& d, bool s) { d.IntegerOf<ssize_t, size_t>(s); },
            [](Differential& d, bool s) { d.IntegerOf<ptrdiff_t, ptrdiff_t>(s); },
        };
        kBySize[size](*this, conv == 'd' || conv == 'i');
    }

    void Character() {
        Head();
        if (Uniform(0, 1) == 0) {
            format_ += "c|";
            Check(Uniform(0, 1) == 0 ? Uniform(0, 255) : Value<int>());
        } else {
            format_ += "lc|";
            Check(static_cast<wint_t>(Uniform(0, 127)));
        }
    }

    void String() {
        Head();
        const int which = Uniform(0, 4);
        if (Uniform(0, 1) == 0) {
            const char* texts[] = {"", "a", "hello", "a somewhat longer text of words", nullptr};
            format_ += "s|";
            Check(texts[which]);
        } else {
            const wchar_t* texts[] = {L"", L"b", L"wide", L"a wide text of some length", nullptr};
            format_ += Uniform(0, 1) == 0 ? "ls|" : "S|";
            Check(texts[which]);
        }
    }

    void Pointer() {
        Head();
        format_ += "p|";
        const uintptr_t values[] = {0, 1, 0xdeadbeef, UINTPTR_MAX,
                                    reinterpret_cast<uintptr_t>(&rng_)};
        Check(reinterpret_cast<void*>(values[Uniform(0, 4)]));
    }

    template <typename T>
    void Check(T value) {
        if (starWidth_ && starPrec_) {
            Compare(width_, prec_, value);
        } else if (starWidth_) {
            Compare(width_, value);
        } else if (starPrec_) {
            Compare(prec_, value);
        } else {
            Compare(value);
        }
    }

    // Whole, the text and its length are libc's; cut short by a count, the
    // call fails and keeps the first count characters.
    template <typename... A>
    void Compare(A... args) {
        char ours[256];
        char theirs[256];
        const char* format = format_.c_str();
        const int want = LibcInto(theirs, sizeof(theirs), format, args...);
        const int got = Snprintf(ours, sizeof(ours), 0xFFFFFFFF, format, args...);
        const std::string wantText(theirs, want < 0 ? 0 : static_cast<size_t>(want));
        const std::string gotText(ours, got < 0 ? 0 : static_cast<size_t>(got));
        if (got != want || gotText != wantText) {
            ++failures_;
            ADD_FAILURE() << format << ": got " << got << " \"" << gotText << "\", libc " << want
                          << " \"" << wantText << "\"";
            return;
        }
        if (want <= 0) {
            return;
        }
        const auto count = static_cast<uint32_t>(Uniform(0, want - 1));
        const int cut = Snprintf(ours, sizeof(ours), count, format, args...);
        if (cut != -1 || std::string(ours) != wantText.substr(0, count).c_str()) {
            ++failures_;
            ADD_FAILURE() << format << " cut at " << count << ": got " << cut << " \"" << ours
                          << "\"";
        }
    }

    std::mt19937_64 rng_;
    std::string format_;
    bool starWidth_ = false;
    bool starPrec_ = false;
    int width_ = 0;
    int prec_ = 0;
    int failures_ = 0;
};

TEST(FormatDifferential, MatchesLibcSnprintf) {
    Differential run(0x5EED2024);
    for (int i = 0; i < 100000 && run.failures() < 20; ++i) {
        run.RunOne();
    }
    EXPECT_EQ(run.failures(), 0);
}

}  // namespace
