// The format engine behind sprintf_s and snprintf_s: the printf format
// language, written straight into a bounded cursor over the destination.
// Integers, characters, strings and pointers are formatted here, matching
// glibc's printf byte for byte; floating point is handed to libc's
// snprintf and copied in.
//
// Size prefixes: hh and h narrow an integer to char and short; l, ll, j, z,
// t as in C, with q and L the same as ll and Z the same as z (as glibc has
// them); I is pointer-sized, I32 and I64 are the 32- and 64-bit forms; w
// selects the wide form of c and s; N (a far/near relic) is accepted and
// ignored. As in glibc, every prefix that widens an integer to long also
// makes c and s wide, C and S are always wide, and ll/L/q pick long double
// for the floating-point conversions.
//
// Anything outside that class set is an engine error, so the caller ends up
// with -1 and an empty destination rather than a guess: an unknown
// conversion character (including %n and %a), a format ending inside a
// conversion, a second size prefix, a width or precision beyond INT_MAX,
// and a wide character the current locale cannot represent.
#include <array>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "base/handles.h"
#include "bounded/internal.h"

namespace hic::bounded_internal {
namespace {

// Digit sets; the trailing letter is the one of the 0x prefix.
constexpr char kLowerDigits[] = "0123456789abcdefx";
constexpr char kUpperDigits[] = "0123456789ABCDEFX";

constexpr std::array<char, 200> MakeDecimalPairs() {
    std::array<char, 200> pairs{};
    for (size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}
constexpr std::array<char, 200> kDecimalPairs = MakeDecimalPairs();

// The destination cursor: every write is cut at the end of the buffer and
// then reports that it did not fit.
class Sink {
  public:
    Sink(char* dest, uint32_t size) : start_(dest), cur_(dest), left_(size) {}

    bool Write(const char* text, size_t n) {
        if (n > left_) {
            std::memcpy(cur_, text, left_);
            cur_ += left_;
            left_ = 0;
            return false;
        }
        std::memcpy(cur_, text, n);
        cur_ += n;
        left_ -= static_cast<uint32_t>(n);
        return true;
    }

    bool Fill(char c, size_t n) {
        const bool fits = n <= left_;
        const size_t put = fits ? n : left_;
        std::memset(cur_, c, put);
        cur_ += put;
        left_ -= static_cast<uint32_t>(put);
        return fits;
    }

    uint32_t Left() const { return left_; }
    int Count() const { return static_cast<int>(cur_ - start_); }

  private:
    char* start_;
    char* cur_;
    uint32_t left_;
};

enum class Length : uint8_t {
    kDefault,
    kChar,
    kShort,
    kLong,
    kLongLong,
    kIntMax,
    kSize,
    kPtrDiff,
    kPointer,
    kInt32,
    kInt64,
};

constexpr unsigned kFlagLeft = 1U;
constexpr unsigned kFlagPlus = 2U;
constexpr unsigned kFlagSpace = 4U;
constexpr unsigned kFlagAlt = 8U;
constexpr unsigned kFlagZero = 16U;

struct Field {
    unsigned flags = 0;
    int width = 0;
    int prec = -1;  // -1: none given
    Length length = Length::kDefault;
    bool wide = false;  // c and s take wide characters
    char conv = '\0';
};

// va_list wrapped so helpers can take it by reference on every ABI.
struct Args {
    va_list ap;
};

enum class Status : uint8_t { kOk, kNoRoom, kError };

inline Status Fits(bool fits) {
    return fits ? Status::kOk : Status::kNoRoom;
}

// Reads decimal digits into *value; false when the number exceeds INT_MAX.
bool ParseNumber(const char** pos, int* value) {
    const char* p = *pos;
    long long n = 0;
    while (*p >= '0' && *p <= '9') {
        n = n * 10 + (*p - '0');
        if (n > INT_MAX) {
            return false;
        }
        ++p;
    }
    *pos = p;
    *value = static_cast<int>(n);
    return true;
}

// Parses flags, width, precision and size prefix up to the conversion
// character (stored in field->conv); *pos is left behind it.
bool ParseField(const char** pos, Args& args, Field* field) {
    const char* p = *pos;
    for (bool more = true; more;) {
        switch (*p) {
            case '-':
                field->flags |= kFlagLeft;
                break;
            case '+':
                field->flags |= kFlagPlus;
                break;
            case ' ':
                field->flags |= kFlagSpace;
                break;
            case '#':
                field->flags |= kFlagAlt;
                break;
            case '0':
                field->flags |= kFlagZero;
                break;
            default:
                more = false;
                continue;
        }
        ++p;
    }

    if (*p == '*') {
        ++p;
        int width = va_arg(args.ap, int);
        if (width < 0) {
            if (width == INT_MIN) {
                return false;
            }
            field->flags |= kFlagLeft;
            width = -width;
        }
        field->width = width;
    } else if (!ParseNumber(&p, &field->width)) {
        return false;
    }

    if (*p == '.') {
        ++p;
        if (*p == '*') {
            ++p;
            const int prec = va_arg(args.ap, int);
            field->prec = prec < 0 ? -1 : prec;
        } else if (!ParseNumber(&p, &field->prec)) {
            return false;
        }
    }

    switch (*p) {
        case 'h':
            ++p;
            field->length = Length::kShort;
            if (*p == 'h') {
                ++p;
                field->length = Length::kChar;
            }
            break;
        case 'l':
            ++p;
            field->length = Length::kLong;
            if (*p == 'l') {
                ++p;
                field->length = Length::kLongLong;
            }
            field->wide = true;
            break;
        case 'L':
        case 'q':
            ++p;
            field->length = Length::kLongLong;
            field->wide = true;
            break;
        case 'j':
            ++p;
            field->length = Length::kIntMax;
            field->wide = true;
            break;
        case 'z':
        case 'Z':
            ++p;
            field->length = Length::kSize;
            field->wide = true;
            break;
        case 't':
            ++p;
            field->length = Length::kPtrDiff;
            field->wide = true;
            break;
        case 'w':
            ++p;
            field->wide = true;
            break;
        case 'N':
            ++p;
            break;
        case 'I':
            ++p;
            field->length = Length::kPointer;
            if (p[0] == '3' && p[1] == '2') {
                p += 2;
                field->length = Length::kInt32;
            } else if (p[0] == '6' && p[1] == '4') {
                p += 2;
                field->length = Length::kInt64;
            }
            break;
        default:
            break;
    }

    field->conv = *p;
    if (*p != '\0') {
        ++p;
    }
    *pos = p;
    return true;
}

// Several of these types coincide on LP64, but not on every ABI.
// NOLINTBEGIN(bugprone-branch-clone)
uint64_t FetchUnsigned(Args& args, Length length) {
    switch (length) {
        case Length::kChar:
            return static_cast<unsigned char>(va_arg(args.ap, unsigned int));
        case Length::kShort:
            return static_cast<unsigned short>(va_arg(args.ap, unsigned int));
        case Length::kLong:
            return va_arg(args.ap, unsigned long);
        case Length::kLongLong:
            return va_arg(args.ap, unsigned long long);
        case Length::kIntMax:
            return va_arg(args.ap, uintmax_t);
        case Length::kSize:
            return va_arg(args.ap, size_t);
        case Length::kPtrDiff:
            return static_cast<uint64_t>(va_arg(args.ap, ptrdiff_t));
        case Length::kPointer:
            return va_arg(args.ap, uintptr_t);
        case Length::kInt32:
            return va_arg(args.ap, uint32_t);
        case Length::kInt64:
            return va_arg(args.ap, uint64_t);
        case Length::kDefault:
            break;
    }
    return va_arg(args.ap, unsigned int);
}

int64_t FetchSigned(Args& args, Length length) {
    switch (length) {
        case Length::kChar:
            return static_cast<signed char>(va_arg(args.ap, int));
        case Length::kShort:
            return static_cast<short>(va_arg(args.ap, int));
        case Length::kLong:
            return va_arg(args.ap, long);
        case Length::kLongLong:
            return va_arg(args.ap, long long);
        case Length::kIntMax:
            return va_arg(args.ap, intmax_t);
        case Length::kSize:
            // The signed counterpart of size_t.
            return static_cast<int64_t>(va_arg(args.ap, size_t));
        case Length::kPtrDiff:
            return va_arg(args.ap, ptrdiff_t);
        case Length::kPointer:
            return va_arg(args.ap, intptr_t);
        case Length::kInt32:
            return va_arg(args.ap, int32_t);
        case Length::kInt64:
            return va_arg(args.ap, int64_t);
        case Length::kDefault:
            break;
    }
    return va_arg(args.ap, int);
}
// NOLINTEND(bugprone-branch-clone)

// Writes the digits of value backwards ending at end; returns the first.
char* DecimalDigits(uint64_t value, char* end) {
    while (value >= 100) {
        const auto pair = static_cast<size_t>(value % 100) * 2;
        value /= 100;
        end -= 2;
        std::memcpy(end, &kDecimalPairs[pair], 2);
    }
    if (value >= 10) {
        end -= 2;
        std::memcpy(end, &kDecimalPairs[static_cast<size_t>(value) * 2], 2);
    } else {
        *--end = static_cast<char>('0' + value);
    }
    return end;
}

char* PowerOfTwoDigits(uint64_t value, unsigned shift, const char* digitSet, char* end) {
    const uint64_t mask = (uint64_t{1} << shift) - 1;
    do {
        *--end = digitSet[value & mask];
        value >>= shift;
    } while (value != 0);
    return end;
}

// One integer conversion. sign is '-', '+', ' ' or '\0'; base 8, 10 or 16.
Status EmitInteger(Sink& out, const Field& field, uint64_t magnitude, char sign, unsigned base,
                   bool upper) {
    char buffer[24];  // 22 octal digits of a 64-bit value, with room to spare
    char* const end = buffer + sizeof(buffer);
    char* digits = end;
    const char* digitSet = upper ? kUpperDigits : kLowerDigits;
    // Precision 0 prints no digits for a zero value.
    if (magnitude != 0 || field.prec != 0) {
        if (base == 10) {
            digits = DecimalDigits(magnitude, end);
        } else {
            digits = PowerOfTwoDigits(magnitude, base == 16 ? 4U : 3U, digitSet, end);
        }
    }
    const auto digitCount = static_cast<size_t>(end - digits);

    char prefix[3];  // sign and 0x, both only for a pointer
    size_t prefixLen = 0;
    if (sign != '\0') {
        prefix[prefixLen++] = sign;
    }
    if (base == 16 && (field.flags & kFlagAlt) != 0 && magnitude != 0) {
        prefix[prefixLen++] = '0';
        prefix[prefixLen++] = digitSet[16];
    }

    size_t zeros = field.prec > 0 && static_cast<size_t>(field.prec) > digitCount
                       ? static_cast<size_t>(field.prec) - digitCount
                       : 0;
    // "#" with octal: the text must begin with a 0.
    if (base == 8 && (field.flags & kFlagAlt) != 0 && zeros == 0 &&
        (digitCount == 0 || *digits != '0')) {
        zeros = 1;
    }

    const size_t total = prefixLen + zeros + digitCount;
    size_t pad =
        static_cast<size_t>(field.width) > total ? static_cast<size_t>(field.width) - total : 0;
    if ((field.flags & kFlagLeft) == 0 && pad != 0) {
        // "0" pads between the prefix and the digits, unless a precision
        // was given.
        if ((field.flags & kFlagZero) != 0 && field.prec < 0) {
            zeros += pad;
        } else if (!out.Fill(' ', pad)) {
            return Status::kNoRoom;
        }
        pad = 0;
    }
    if (!out.Write(prefix, prefixLen) || !out.Fill('0', zeros) || !out.Write(digits, digitCount)) {
        return Status::kNoRoom;
    }
    return Fits(out.Fill(' ', pad));
}

// Text with width padding (always blanks, as glibc pads strings).
Status EmitPadded(Sink& out, const Field& field, const char* text, size_t len) {
    const size_t pad =
        static_cast<size_t>(field.width) > len ? static_cast<size_t>(field.width) - len : 0;
    if ((field.flags & kFlagLeft) != 0) {
        return Fits(out.Write(text, len) && out.Fill(' ', pad));
    }
    return Fits(out.Fill(' ', pad) && out.Write(text, len));
}

// The multibyte form of a wide text, at most limit bytes without splitting
// a character. First measures (write false), then writes.
Status WideText(Sink* out, const wchar_t* text, size_t limit, size_t* length) {
    mbstate_t state{};
    char mb[MB_LEN_MAX];
    size_t total = 0;
    for (const wchar_t* w = text; *w != L'\0'; ++w) {
        const size_t n = std::wcrtomb(mb, *w, &state);
        if (n == static_cast<size_t>(-1)) {
            return Status::kError;
        }
        if (n > limit - total) {
            break;
        }
        total += n;
        if (out != nullptr && !out->Write(mb, n)) {
            return Status::kNoRoom;
        }
    }
    *length = total;
    return Status::kOk;
}

Status EmitWideString(Sink& out, const Field& field, const wchar_t* text) {
    const size_t limit = field.prec < 0 ? SIZE_MAX : static_cast<size_t>(field.prec);
    size_t len = 0;
    Status status = WideText(nullptr, text, limit, &len);
    if (status != Status::kOk) {
        return status;
    }
    const size_t pad =
        static_cast<size_t>(field.width) > len ? static_cast<size_t>(field.width) - len : 0;
    const bool left = (field.flags & kFlagLeft) != 0;
    if (!left && !out.Fill(' ', pad)) {
        return Status::kNoRoom;
    }
    status = WideText(&out, text, limit, &len);
    if (status != Status::kOk) {
        return status;
    }
    return left ? Fits(out.Fill(' ', pad)) : Status::kOk;
}

Status EmitString(Sink& out, const Field& field, Args& args) {
    const void* arg = va_arg(args.ap, const void*);
    if (arg == nullptr) {
        // glibc prints "(null)" only when the precision lets all of it through.
        const bool whole = field.prec < 0 || field.prec >= 6;
        return EmitPadded(out, field, "(null)", whole ? 6 : 0);
    }
    if (field.wide || field.conv == 'S') {
        return EmitWideString(out, field, static_cast<const wchar_t*>(arg));
    }
    const auto* text = static_cast<const char*>(arg);
    const size_t len = field.prec < 0 ? std::strlen(text) : strnlen(text, field.prec);
    return EmitPadded(out, field, text, len);
}

Status EmitChar(Sink& out, const Field& field, Args& args) {
    if (field.wide || field.conv == 'C') {
        const wint_t wc = va_arg(args.ap, wint_t);
        mbstate_t state{};
        char mb[MB_LEN_MAX];
        const size_t n = std::wcrtomb(mb, static_cast<wchar_t>(wc), &state);
        if (n == static_cast<size_t>(-1)) {
            return Status::kError;
        }
        return EmitPadded(out, field, mb, n);
    }
    const char c = static_cast<char>(va_arg(args.ap, int));
    return EmitPadded(out, field, &c, 1);
}

Status EmitPointer(Sink& out, const Field& field, Args& args) {
    const void* ptr = va_arg(args.ap, const void*);
    if (ptr == nullptr) {
        return EmitPadded(out, field, "(nil)", 5);
    }
    // glibc prints a pointer as %#lx and keeps the "+" and " " flags.
    Field hex = field;
    hex.flags |= kFlagAlt;
    char sign = '\0';
    if ((field.flags & kFlagPlus) != 0) {
        sign = '+';
    } else if ((field.flags & kFlagSpace) != 0) {
        sign = ' ';
    }
    return EmitInteger(out, hex, reinterpret_cast<uintptr_t>(ptr), sign, 16, false);
}

// Floating point goes through libc: rebuild the conversion with the width
// and precision passed as arguments, format into a scratch buffer (on the
// heap when the result is long), and copy it in.
Status EmitFloat(Sink& out, const Field& field, Args& args) {
    char format[16];
    size_t n = 0;
    format[n++] = '%';
    const char flagChars[] = {'-', '+', ' ', '#', '0'};
    const unsigned flagBits[] = {kFlagLeft, kFlagPlus, kFlagSpace, kFlagAlt, kFlagZero};
    for (size_t i = 0; i < sizeof(flagChars); ++i) {
        if ((field.flags & flagBits[i]) != 0) {
            format[n++] = flagChars[i];
        }
    }
    const bool isLongDouble = field.length == Length::kLongLong;
    format[n++] = '*';
    format[n++] = '.';
    format[n++] = '*';
    if (isLongDouble) {
        format[n++] = 'L';
    }
    format[n++] = field.conv;
    format[n] = '\0';

    long double longValue = 0;
    double value = 0;
    if (isLongDouble) {
        longValue = va_arg(args.ap, long double);
    } else {
        value = va_arg(args.ap, double);
    }
    auto run = [&](char* buffer, size_t size) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        return isLongDouble
                   ? std::snprintf(buffer, size, format, field.width, field.prec, longValue)
                   : std::snprintf(buffer, size, format, field.width, field.prec, value);
#pragma GCC diagnostic pop
    };

    char scratch[512];
    const int len = run(scratch, sizeof(scratch));
    if (len < 0) {
        return Status::kError;
    }
    if (static_cast<size_t>(len) < sizeof(scratch)) {
        return Fits(out.Write(scratch, static_cast<size_t>(len)));
    }
    const HeapBuffer big(static_cast<size_t>(len) + 1);
    if (!big.Valid() || run(big.Get(), big.Size()) != len) {
        return Status::kError;
    }
    return Fits(out.Write(big.Get(), static_cast<size_t>(len)));
}

Status Convert(Sink& out, const Field& field, Args& args) {
    switch (field.conv) {
        case 'd':
        case 'i': {
            const int64_t value = FetchSigned(args, field.length);
            char sign = '\0';
            if (value < 0) {
                sign = '-';
            } else if ((field.flags & kFlagPlus) != 0) {
                sign = '+';
            } else if ((field.flags & kFlagSpace) != 0) {
                sign = ' ';
            }
            const uint64_t magnitude =
                value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
            return EmitInteger(out, field, magnitude, sign, 10, false);
        }
        case 'u':
            return EmitInteger(out, field, FetchUnsigned(args, field.length), '\0', 10, false);
        case 'o':
            return EmitInteger(out, field, FetchUnsigned(args, field.length), '\0', 8, false);
        case 'x':
            return EmitInteger(out, field, FetchUnsigned(args, field.length), '\0', 16, false);
        case 'X':
            return EmitInteger(out, field, FetchUnsigned(args, field.length), '\0', 16, true);
        case 'c':
        case 'C':
            return EmitChar(out, field, args);
        case 's':
        case 'S':
            return EmitString(out, field, args);
        case 'p':
            return EmitPointer(out, field, args);
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
            return EmitFloat(out, field, args);
        case '%':
            // As glibc: a "%" conversion ignores its flags and width.
            return Fits(out.Write("%", 1));
        default:
            return Status::kError;
    }
}

Status Run(Sink& out, const char* format, Args& args) {
    const char* p = format;
    for (;;) {
        const char* literal = p;
        while (*p != '\0' && *p != '%') {
            ++p;
        }
        if (p != literal && !out.Write(literal, static_cast<size_t>(p - literal))) {
            return Status::kNoRoom;
        }
        if (*p == '\0') {
            return Status::kOk;
        }
        ++p;  // the '%'
        Field field;
        if (!ParseField(&p, args, &field)) {
            return Status::kError;
        }
        const Status status = Convert(out, field, args);
        if (status != Status::kOk) {
            return status;
        }
    }
}

}  // namespace

int FormatEngine(char* dest, uint32_t size, uint32_t* left, const char* format, va_list args) {
    Sink out(dest, size);
    Args copy;
    va_copy(copy.ap, args);
    const Status status = Run(out, format, copy);
    va_end(copy.ap);
    *left = out.Left();
    switch (status) {
        case Status::kOk:
            return out.Count();
        case Status::kNoRoom:
            return kEngineNoRoom;
        case Status::kError:
            break;
    }
    return kEngineError;
}

}  // namespace hic::bounded_internal
