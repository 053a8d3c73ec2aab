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
#include <sstream>
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

    void RunOne() {
        const int kind = Uniform(0, 9);
        switch (kind) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
            case 5:
                Integer();
                break;
            case 6:
                Character();
                break;
            case 7:
            case 8:
                String();
                break;
            default:
                Pointer();
                break;
        }
    }

    int failures() const { return failures_; }
    int cases() const { return cases_; }

  private:
    int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

    // Flags, width and precision, with or without "*".
    void Head() {
        format_ = Pick({"", "", "<", "ab ", "%%"});
        format_ += '%';
        for (int i = Uniform(0, 3); i > 0; --i) {
            format_ += " #+-0"[Uniform(0, 4)];
        }
        starWidth_ = false;
        starPrec_ = false;
        switch (Uniform(0, 3)) {
            case 0:
                break;
            case 1:
            case 2:
                format_ += std::to_string(Uniform(1, 25));
                break;
            default:
                format_ += '*';
                starWidth_ = true;
                width_ = Uniform(-25, 25);
                break;
        }
        switch (Uniform(0, 4)) {
            case 0:
            case 1:
                break;
            case 2:
                format_ += '.';
                break;
            case 3:
                format_ += '.' + std::to_string(Uniform(0, 25));
                break;
            default:
                format_ += ".*";
                starPrec_ = true;
                prec_ = Uniform(-5, 25);
                break;
        }
    }

    const char* Pick(std::initializer_list<const char*> choices) {
        return choices.begin()[Uniform(0, static_cast<int>(choices.size()) - 1)];
    }

    template <typename T>
    T Value() {
        using L = std::numeric_limits<T>;
        switch (Uniform(0, 8)) {
            case 0:
                return 0;
            case 1:
                return 1;
            case 2:
                return static_cast<T>(-1);
            case 3:
                return L::min();
            case 4:
                return L::max();
            case 5:
                return static_cast<T>(L::min() + 1);
            case 6:
                return static_cast<T>(L::max() - 1);
            case 7:
                return static_cast<T>(Uniform(-1000, 1000));
            default:
                return static_cast<T>(rng_());
        }
    }

    // Signed and unsigned types of one size prefix.
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
        const int size = Uniform(0, 7);
        const char* prefixes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
        format_ += prefixes[size];
        const char conv = "diouxX"[Uniform(0, 5)];
        format_ += conv;
        format_ += Pick({"", ">", " tail"});
        const bool isSigned = conv == 'd' || conv == 'i';
        switch (size) {
            case 1:
                // Promoted values, sometimes out of range to see the cut.
                if (Uniform(0, 1) == 0) {
                    IntegerOf<signed char, unsigned char>(isSigned);
                } else {
                    IntegerOf<int, unsigned>(isSigned);
                }
                break;
            case 2:
                if (Uniform(0, 1) == 0) {
                    IntegerOf<short, unsigned short>(isSigned);
                } else {
                    IntegerOf<int, unsigned>(isSigned);
                }
                break;
            case 3:
                IntegerOf<long, unsigned long>(isSigned);
                break;
            case 4:
                IntegerOf<long long, unsigned long long>(isSigned);
                break;
            case 5:
                IntegerOf<intmax_t, uintmax_t>(isSigned);
                break;
            case 6:
                IntegerOf<ssize_t, size_t>(isSigned);
                break;
            case 7:
                IntegerOf<ptrdiff_t, ptrdiff_t>(isSigned);
                break;
            default:
                IntegerOf<int, unsigned>(isSigned);
                break;
        }
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
            Fail() << format << ": got " << got << " \"" << gotText << "\", libc " << want << " \""
                   << wantText << "\"";
            return;
        }
        if (want <= 0) {
            return;
        }
        // The same text cut short by a count keeps its first count characters.
        const auto count = static_cast<uint32_t>(Uniform(0, want - 1));
        const int cut = Ours(ours, sizeof(ours), count, format, args...);
        if (cut != -1 || std::string(ours) != wantText.substr(0, count).c_str()) {
            Fail() << format << " cut at " << count << ": got " << cut << " \"" << ours << "\"";
        }
    }

    std::ostringstream& Fail() {
        ++failures_;
        message_.str("");
        return message_;
    }

  public:
    // Reports the most recent failure, if any.
    void Report() {
        if (failures_ != reported_) {
            reported_ = failures_;
            ADD_FAILURE() << message_.str();
        }
    }

  private:
    std::mt19937_64 rng_;
    std::string format_;
    bool starWidth_ = false;
    bool starPrec_ = false;
    int width_ = 0;
    int prec_ = 0;
    int failures_ = 0;
    int reported_ = 0;
    int cases_ = 0;
    std::ostringstream message_;
};

TEST(FormatDifferential, MatchesLibcSnprintf) {
    Differential run(0x5EED2024);
    for (int i = 0; i < 100000 && run.failures() < 20; ++i) {
        run.RunOne();
        run.Report();
    }
    EXPECT_EQ(run.failures(), 0);
    EXPECT_GE(run.cases(), 100000);
}

}  // namespace
