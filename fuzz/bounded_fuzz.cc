// Fuzzes the bounded functions. The input picks one of three experiments:
//  - a generated conversion formatted by sprintf_s or snprintf_s into a
//    destination with guard bytes, compared with libc's snprintf wherever
//    libc knows the format, and held to the truncation rules;
//  - the same with the prefixes only our engine knows and with malformed
//    conversions, where only the bounds and the result shape are checked;
//  - the bounded copies, fill and append over an arena with overlapping
//    and unterminated areas, checked against a plain model and for writes
//    outside destMax; and the tokenizer against a plain splitter.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "bounded/bounded.h"

namespace {

// What the current input does, printed with a failed check.
std::string g_context;

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "check failed: %s (%s)\n", what, g_context.c_str());
        std::abort();
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

int Ours(bool counted, char* dest, uint32_t destMax, uint32_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = counted ? vsnprintf_s(dest, destMax, count, format, args)
                          : vsprintf_s(dest, destMax, format, args);
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

// ---------------------------------------------------------------------------
// Formatted output

constexpr size_t kGuard = 32;
constexpr uint32_t kMaxDest = 300;
constexpr char kGuardByte = '\x5C';

enum class Arg { kInt, kInt32, kInt64, kDouble, kLongDouble, kPointer, kNone };

struct FormatCase {
    std::string format;
    bool starWidth = false;
    bool starPrec = false;
    int width = 0;
    int prec = 0;
    Arg arg = Arg::kNone;
    bool libcKnows = true;
};

// The argument a conversion reads, by our engine's rules. Strings always get
// a wide ASCII text, which reads as a valid narrow text as well.
Arg ArgFor(const std::string& prefix, char conv) {
    switch (conv) {
        case 's':
        case 'S':
        case 'p':
            return Arg::kPointer;
        case 'c':
        case 'C':
            return Arg::kInt;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
            return prefix == "ll" || prefix == "L" || prefix == "q" ? Arg::kLongDouble
                                                                    : Arg::kDouble;
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            if (prefix.empty() || prefix == "h" || prefix == "hh" || prefix == "w" ||
                prefix == "N") {
                return Arg::kInt;
            }
            return prefix == "I32" ? Arg::kInt32 : Arg::kInt64;
        default:
            return Arg::kNone;
    }
}

FormatCase MakeFormat(FuzzedDataProvider& in, bool libcOnly) {
    FormatCase c;
    std::string literal = in.ConsumeRandomLengthString(8);
    for (char ch : literal) {
        if (ch == '%') {
            c.format += "%%";
        } else if (ch != '\0') {
            c.format += ch;
        }
    }
    c.format += '%';
    for (int i = in.ConsumeIntegralInRange(0, 3); i > 0; --i) {
        c.format += " #+-0"[in.ConsumeIntegralInRange(0, 4)];
    }
    switch (in.ConsumeIntegralInRange(0, 2)) {
        case 1:
            c.format += std::to_string(in.ConsumeIntegralInRange(1, 400));
            break;
        case 2:
            c.format += '*';
            c.starWidth = true;
            c.width = in.ConsumeIntegralInRange(-400, 400);
            break;
        default:
            break;
    }
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 1:
            c.format += '.';
            break;
        case 2:
            c.format += '.' + std::to_string(in.ConsumeIntegralInRange(0, 400));
            break;
        case 3:
            c.format += ".*";
            c.starPrec = true;
            c.prec = in.ConsumeIntegralInRange(-10, 400);
            break;
        default:
            break;
    }
    static const char* const kLibcPrefixes[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
    static const char* const kOurPrefixes[] = {"I", "I32", "I64", "w", "N", "Z", "q", "L"};
    static const char kConversions[] = "diouxXcspeEfFgGCS%";
    std::string prefix;
    char conv = '\0';
    if (libcOnly) {
        prefix = kLibcPrefixes[in.ConsumeIntegralInRange<size_t>(0, 7)];
        conv = kConversions[in.ConsumeIntegralInRange<size_t>(0, sizeof(kConversions) - 2)];
        // libc has no rule for these mixes; keep to the ones it documents.
        if (conv == 'c' || conv == 's') {
            prefix = prefix == "l" ? "l" : "";
        } else if (conv == 'p' || conv == 'C' || conv == 'S' || conv == '%' ||
                   ArgFor("", conv) == Arg::kDouble) {
            prefix.clear();
        }
    } else {
        prefix = kOurPrefixes[in.ConsumeIntegralInRange<size_t>(0, 7)];
        // Now and then a character outside the class set.
        conv = in.ConsumeBool()
                   ? in.ConsumeIntegral<char>()
                   : kConversions[in.ConsumeIntegralInRange<size_t>(0, sizeof(kConversions) - 2)];
        c.libcKnows = false;
    }
    c.format += prefix;
    c.format += conv;
    c.arg = ArgFor(prefix, conv);
    if (conv == '%') {
        c.arg = Arg::kInt;  // harmless extra argument
    }
    return c;
}

struct Target {
    bool counted;
    uint32_t destMax;
    uint32_t count;
};

// The bytes libc would produce, or nothing when libc fails.
void CheckFormatted(const FormatCase& c, const Target& t, const char* reference, int refLen,
                    const char* buffer, int got) {
    const char* dest = buffer + kGuard;
    for (size_t i = 0; i < kGuard; ++i) {
        Check(buffer[i] == kGuardByte, "guard before the destination");
    }
    for (size_t i = kGuard + t.destMax; i < kGuard * 2 + kMaxDest; ++i) {
        Check(buffer[i] == kGuardByte, "guard behind destMax");
    }
    if (got >= 0) {
        Check(static_cast<uint32_t>(got) < t.destMax && dest[got] == '\0', "result terminated");
    } else {
        Check(got == -1, "only -1 reports failure");
    }
    if (t.destMax == 0) {
        Check(got == -1, "destMax 0 refused");
        return;
    }
    const bool cutAllowed = t.counted && t.count < t.destMax;
    if (t.counted && t.count >= HIC_BOUNDED_MAX && t.count != UINT32_MAX) {
        Check(got == -1 && dest[0] == '\0', "count refused");
        return;
    }
    if (!c.libcKnows) {
        if (got < 0) {
            // Either emptied, or cut after count characters (snprintf_s).
            Check(dest[0] == '\0' || (cutAllowed && dest[t.count] == '\0'),
                  "failure leaves an empty or cut text");
        }
        return;
    }
    if (refLen < 0) {
        // Text cut before the failing conversion is a cut, not a failure.
        Check(got == -1 && (dest[0] == '\0' || (cutAllowed && dest[t.count] == '\0')),
              "libc failure is our failure");
        return;
    }
    const auto len = static_cast<uint32_t>(refLen);
    if (cutAllowed) {
        if (len <= t.count) {
            Check(got == refLen && std::memcmp(dest, reference, len) == 0, "counted text");
        } else {
            Check(got == -1 && std::memcmp(dest, reference, t.count) == 0 && dest[t.count] == '\0',
                  "text cut after count");
        }
        return;
    }
    if (len < t.destMax) {
        Check(got == refLen && std::memcmp(dest, reference, len) == 0, "whole text");
    } else {
        Check(got == -1 && dest[0] == '\0', "too long empties");
    }
}

template <typename... A>
void RunFormat(const FormatCase& c, const Target& t, A... args) {
    char reference[4096];
    int refLen = -1;
    if (c.libcKnows) {
        refLen = Theirs(reference, sizeof(reference), c.format.c_str(), args...);
        if (refLen >= static_cast<int>(sizeof(reference))) {
            return;
        }
    }
    char buffer[kGuard * 2 + kMaxDest];
    std::memset(buffer, kGuardByte, sizeof(buffer));
    const int got = Ours(t.counted, buffer + kGuard, t.destMax, t.count, c.format.c_str(), args...);
    g_context = "format \"" + c.format + "\" destMax " + std::to_string(t.destMax) + " count " +
                std::to_string(t.count) + (t.counted ? "" : " (sprintf_s)") + " libc " +
                std::to_string(refLen) + " got " + std::to_string(got);
    CheckFormatted(c, t, reference, refLen, buffer, got);
}

template <typename T>
void WithStars(const FormatCase& c, const Target& t, T value) {
    if (c.starWidth && c.starPrec) {
        RunFormat(c, t, c.width, c.prec, value);
    } else if (c.starWidth) {
        RunFormat(c, t, c.width, value);
    } else if (c.starPrec) {
        RunFormat(c, t, c.prec, value);
    } else {
        RunFormat(c, t, value);
    }
}

void FuzzFormat(FuzzedDataProvider& in, bool libcOnly) {
    const FormatCase c = MakeFormat(in, libcOnly);
    Target t{};
    t.counted = in.ConsumeBool();
    t.destMax = in.ConsumeIntegralInRange<uint32_t>(0, kMaxDest);
    if (in.ConsumeIntegralInRange(0, 15) == 0) {
        t.destMax = in.ConsumeBool() ? 0x80000000U : 0xFFFFFFFFU;  // refused, never touched
    }
    t.count = in.ConsumeIntegralInRange<uint32_t>(0, kMaxDest + 10);
    if (in.ConsumeIntegralInRange(0, 7) == 0) {
        const uint32_t edgeCounts[] = {0x7FFFFFFEU, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU,
                                       0xFFFFFFFFU};
        t.count = edgeCounts[in.ConsumeIntegralInRange<size_t>(0, 4)];
    }
    if (t.destMax > kMaxDest) {
        // Refused before any write: check against an empty reference.
        char buffer[kGuard * 2 + kMaxDest];
        std::memset(buffer, kGuardByte, sizeof(buffer));
        const int got = Ours(t.counted, buffer + kGuard, t.destMax, t.count, "%d", 1);
        Check(got == -1, "bad destMax refused");
        for (char b : buffer) {
            Check(b == kGuardByte, "bad destMax writes nothing");
        }
        return;
    }

    wchar_t text[24];
    const size_t textLen = in.ConsumeIntegralInRange<size_t>(0, 23);
    for (size_t i = 0; i < textLen; ++i) {
        text[i] = static_cast<wchar_t>(in.ConsumeIntegralInRange(1, 127));
    }
    text[textLen] = L'\0';

    switch (c.arg) {
        case Arg::kInt:
            WithStars(c, t, in.ConsumeIntegral<int>());
            break;
        case Arg::kInt32:
            WithStars(c, t, in.ConsumeIntegral<int32_t>());
            break;
        case Arg::kInt64:
            WithStars(c, t, in.ConsumeIntegral<long long>());
            break;
        case Arg::kDouble:
            WithStars(c, t, in.ConsumeFloatingPoint<double>());
            break;
        case Arg::kLongDouble:
            WithStars(c, t, static_cast<long double>(in.ConsumeFloatingPoint<double>()));
            break;
        case Arg::kPointer:
            WithStars(c, t, in.ConsumeBool() ? static_cast<const void*>(text) : nullptr);
            break;
        case Arg::kNone:
            // Malformed: the engine stops before reading a value.
            WithStars(c, t, 0);
            break;
    }
}

// ---------------------------------------------------------------------------
// Copies, fill, append, tokenizer

constexpr size_t kArena = 160;
constexpr size_t kDestAt = 48;

void FuzzCopies(FuzzedDataProvider& in) {
    char arena[kArena];
    for (char& b : arena) {
        b = in.ConsumeBool() ? '\0' : static_cast<char>(in.ConsumeIntegralInRange('a', 'z'));
    }
    arena[kArena - 1] = '\0';  // every text in the arena ends inside it
    char* const dest = arena + kDestAt;

    uint32_t destMax = in.ConsumeIntegralInRange<uint32_t>(0, 64);
    if (in.ConsumeIntegralInRange(0, 15) == 0) {
        destMax = in.ConsumeBool() ? 0x80000000U : 0xFFFFFFFFU;
    }
    const uint32_t count = in.ConsumeIntegralInRange<uint32_t>(0, 72);
    const char outsideText[80] = "outside source text";  // count bytes stay inside
    const char* src = nullptr;
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            break;
        case 1:
            src = outsideText;
            break;
        default:
            // Anywhere in the arena from which count bytes stay inside it.
            src = arena + in.ConsumeIntegralInRange<size_t>(0, kArena - 73);
            break;
    }
    const bool nullDest = in.ConsumeIntegralInRange(0, 31) == 0;
    const int op = in.ConsumeIntegralInRange(0, 5);
    const int fill = in.ConsumeIntegral<int>();

    char before[kArena];
    std::memcpy(before, arena, kArena);
    g_context = "op " + std::to_string(op) + " destMax " + std::to_string(destMax) + " count " +
                std::to_string(count) + " src " +
                (src == nullptr ? std::string("null") : std::to_string(src - dest));
    const std::string srcBefore = src != nullptr ? std::string(src) : std::string();
    const std::string srcBytes = src != nullptr ? std::string(src, count) : std::string();
    const std::string destBefore(dest, strnlen(dest, destMax <= 64 ? destMax : 0));

    char* d = nullDest ? nullptr : dest;
    int rc = 0;
    switch (op) {
        case 0:
            rc = memcpy_s(d, destMax, src, count);
            break;
        case 1:
            rc = memmove_s(d, destMax, src, count);
            break;
        case 2:
            rc = memset_s(d, destMax, fill, count);
            break;
        case 3:
            rc = strcpy_s(d, destMax, src);
            break;
        case 4:
            rc = strncpy_s(d, destMax, src, count);
            break;
        default:
            rc = strcat_s(d, destMax, src);
            break;
    }

    // Nothing outside [dest, dest + destMax) changes, ever.
    const uint32_t span = destMax <= 64 && !nullDest ? destMax : 0;
    for (size_t i = 0; i < kArena; ++i) {
        if (i < kDestAt || i >= kDestAt + span) {
            Check(arena[i] == before[i], "write outside destMax");
        }
    }
    if (span == 0) {
        Check(rc == HIC_ERANGE || rc == HIC_EINVAL || rc == HIC_EOK, "no destination, no reset");
        return;
    }

    const bool isString = op >= 3;
    switch (rc) {
        case HIC_EOK:
            break;
        case HIC_EINVAL_AND_RESET:
        case HIC_ERANGE_AND_RESET:
        case HIC_EOVERLAP_AND_RESET:
            if (op == 2) {
                Check(rc == HIC_ERANGE_AND_RESET, "fill fails only on size");
                for (uint32_t i = 0; i < destMax; ++i) {
                    Check(dest[i] == static_cast<char>(fill), "fill of the whole destination");
                }
            } else if (isString) {
                Check(dest[0] == '\0', "string reset");
            } else {
                for (uint32_t i = 0; i < destMax; ++i) {
                    Check(dest[i] == '\0', "memory reset");
                }
            }
            return;
        default:
            Check(false, "unexpected result code");
    }

    // Success: the plain model of each function.
    switch (op) {
        case 0:
        case 1:
            Check(count <= destMax && std::memcmp(dest, srcBytes.data(), count) == 0, "copy");
            break;
        case 2:
            for (uint32_t i = 0; i < count; ++i) {
                Check(dest[i] == static_cast<char>(fill), "fill");
            }
            break;
        case 3:
            Check(srcBefore.size() < destMax && srcBefore == dest, "strcpy");
            break;
        case 4:
            Check(count == 0 ? dest[0] == '\0' : srcBefore.substr(0, count) == dest, "strncpy");
            break;
        default:
            Check(destBefore.size() + srcBefore.size() < destMax && destBefore + srcBefore == dest,
                  "strcat");
            break;
    }
}

void FuzzTokens(FuzzedDataProvider& in) {
    std::string delimiters = in.ConsumeRandomLengthString(4);
    delimiters = delimiters.c_str();  // up to the first NUL
    std::string text = in.ConsumeRandomLengthString(64);
    text = text.c_str();

    std::vector<std::string> want;
    std::string current;
    for (char ch : text) {
        if (delimiters.find(ch) != std::string::npos) {
            if (!current.empty()) {
                want.push_back(current);
            }
            current.clear();
        } else {
            current += ch;
        }
    }
    if (!current.empty()) {
        want.push_back(current);
    }

    std::vector<std::string> got;
    char* context = nullptr;
    for (char* t = strtok_s(text.data(), delimiters.c_str(), &context); t != nullptr;
         t = strtok_s(nullptr, delimiters.c_str(), &context)) {
        Check(got.size() <= want.size(), "too many tokens");
        got.emplace_back(t);
    }
    Check(got == want, "tokens");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            FuzzFormat(in, true);
            break;
        case 1:
            FuzzFormat(in, false);
            break;
        case 2:
            FuzzCopies(in);
            break;
        default:
            FuzzTokens(in);
            break;
    }
    return 0;
}
