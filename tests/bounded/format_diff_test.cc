// Differential test of the format engine against libc's snprintf: many
// generated conversions (flags, width, precision, "*", size prefixes, every
// integer conversion, characters, strings, pointers) with values at the
// limits of their types. Seeded, so a failure repeats.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <limits>
#include <random>
#include <string>

#include "bounded/bounded.h"

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

int Ours(char* dest, uint32_t destMax, uint32_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return n;
}

int Theirs(char* dest, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(dest, size, format, args);
    va_end(args);
    return n;
}

#pragma GCC diagnostic pop

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
    int cases() const { return cases_; }

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
        ++cases_;
        char ours[256];
        char theirs[256];
        const char* format = format_.c_str();
        const int want = Theirs(theirs, sizeof(theirs), format, args...);
        const int got = Ours(ours, sizeof(ours), 0xFFFFFFFF, format, args...);
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
        const int cut = Ours(ours, sizeof(ours), count, format, args...);
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
    int cases_ = 0;
};

TEST(FormatDifferential, MatchesLibcSnprintf) {
    Differential run(0x5EED2024);
    for (int i = 0; i < 100000 && run.failures() < 20; ++i) {
        run.RunOne();
    }
    EXPECT_EQ(run.failures(), 0);
    EXPECT_GE(run.cases(), 100000);
}

}  // namespace
