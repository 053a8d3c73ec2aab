// Bounded copy, append and tokenising of NUL-terminated texts. Same shape as
// the memory functions: one fast path testing every precondition at once,
// and an ordered error path that empties the destination before reporting.
#include <cstring>

#include "bounded/bounded.h"
#include "bounded/internal.h"

namespace {

using hic::bounded_internal::AreasOverlap;
using hic::bounded_internal::DestMaxValid;

// Texts of up to this many bytes (NUL included) are copied by fixed-size
// moves; the daemon's copies are mostly short names and fields.
constexpr uint32_t kSmallCopyMax = 32;

// Each case is a memcpy of a constant size, which the compiler emits as a
// few register moves. Exactly n bytes are read, so nothing past the
// source's NUL is touched.
// clang-format off
#define HIC_SMALL_COPY_CASES(COPY)                                                  \
    COPY(1)  COPY(2)  COPY(3)  COPY(4)  COPY(5)  COPY(6)  COPY(7)  COPY(8)          \
    COPY(9)  COPY(10) COPY(11) COPY(12) COPY(13) COPY(14) COPY(15) COPY(16)         \
    COPY(17) COPY(18) COPY(19) COPY(20) COPY(21) COPY(22) COPY(23) COPY(24)         \
    COPY(25) COPY(26) COPY(27) COPY(28) COPY(29) COPY(30) COPY(31) COPY(32)
// clang-format on

#define HIC_COPY_UNALIGNED(n)      \
    case n:                        \
        std::memcpy(dest, src, n); \
        break;

// With both addresses on an 8-byte boundary the compiler may use aligned
// word moves.
#define HIC_COPY_ALIGNED(n)                      \
    case n:                                      \
        std::memcpy(alignedDest, alignedSrc, n); \
        break;

void CopySmall(char* dest, const char* src, uint32_t n) {
    if (((reinterpret_cast<uintptr_t>(dest) | reinterpret_cast<uintptr_t>(src)) & 7U) == 0) {
        void* alignedDest = __builtin_assume_aligned(dest, 8);
        const void* alignedSrc = __builtin_assume_aligned(src, 8);
        switch (n) {
            HIC_SMALL_COPY_CASES(HIC_COPY_ALIGNED)
            default:
                break;
        }
        return;
    }
    switch (n) {
        HIC_SMALL_COPY_CASES(HIC_COPY_UNALIGNED)
        default:
            break;
    }
}

#undef HIC_COPY_ALIGNED
#undef HIC_COPY_UNALIGNED
#undef HIC_SMALL_COPY_CASES

// Copies n bytes (the text and its NUL).
inline void CopyText(char* dest, const char* src, uint32_t n) {
    if (n <= kSmallCopyMax) {
        CopySmall(dest, src, n);
    } else {
        std::memcpy(dest, src, n);
    }
}

// Length of the text, counting at most limit characters.
inline uint32_t TextLength(const char* text, uint32_t limit) {
    return static_cast<uint32_t>(strnlen(text, limit));
}

// Length of an appended text, at most limit characters. Appended pieces are
// usually short, so the first characters are tested one at a time before
// the general scan; each test reads only after the previous byte proved to
// be no NUL.
inline uint32_t AppendLength(const char* text, uint32_t limit) {
    constexpr uint32_t kUnrolled = 8;
    if (limit <= kUnrolled) {
        return TextLength(text, limit);
    }
    if (text[0] == '\0') {
        return 0;
    }
    if (text[1] == '\0') {
        return 1;
    }
    if (text[2] == '\0') {
        return 2;
    }
    if (text[3] == '\0') {
        return 3;
    }
    if (text[4] == '\0') {
        return 4;
    }
    if (text[5] == '\0') {
        return 5;
    }
    if (text[6] == '\0') {
        return 6;
    }
    if (text[7] == '\0') {
        return 7;
    }
    return kUnrolled + TextLength(text + kUnrolled, limit - kUnrolled);
}

// Overlap of an append: the whole resulting text (destLen + srcLen + 1
// bytes from dest) against the source text with its NUL. Appending a text
// to itself therefore counts as an overlap.
inline bool AppendOverlaps(const char* dest, uint32_t destLen, const char* src, uint32_t srcLen) {
    const auto d = reinterpret_cast<uintptr_t>(dest);
    const auto s = reinterpret_cast<uintptr_t>(src);
    const uint64_t destArea = uint64_t{destLen} + srcLen + 1;
    const uint64_t srcArea = uint64_t{srcLen} + 1;
    return d <= s ? s - d < destArea : d - s < srcArea;
}

int StrcpyError(char* dest, uint32_t destMax, const char* src) {
    if (!DestMaxValid(destMax)) {
        return HIC_ERANGE;
    }
    if (dest == nullptr) {
        return HIC_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return HIC_EINVAL_AND_RESET;
    }
    const uint32_t len = TextLength(src, destMax);
    if (len >= destMax) {
        dest[0] = '\0';
        return HIC_ERANGE_AND_RESET;
    }
    if (AreasOverlap(dest, src, uint64_t{len} + 1)) {
        dest[0] = '\0';
        return HIC_EOVERLAP_AND_RESET;
    }
    // Copy onto itself.
    return HIC_EOK;
}

int StrncpyError(char* dest, uint32_t destMax, const char* src, uint32_t count) {
    if (!DestMaxValid(destMax)) {
        return HIC_ERANGE;
    }
    if (dest == nullptr) {
        return HIC_EINVAL;
    }
    dest[0] = '\0';
    if (src == nullptr) {
        return HIC_EINVAL_AND_RESET;
    }
    if (count == 0) {
        return HIC_EOK;
    }
    if (count > HIC_BOUNDED_MAX) {
        return HIC_ERANGE_AND_RESET;
    }
    if (destMax <= count && TextLength(src, destMax) == destMax) {
        return HIC_ERANGE_AND_RESET;
    }
    // The fast path refuses nothing else.
    return HIC_EOVERLAP_AND_RESET;
}

int StrcatError(char* dest, uint32_t destMax, const char* src) {
    if (!DestMaxValid(destMax)) {
        return HIC_ERANGE;
    }
    if (dest == nullptr) {
        return HIC_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return HIC_EINVAL_AND_RESET;
    }
    const uint32_t destLen = TextLength(dest, destMax);
    const uint32_t srcLen = TextLength(src, destMax);
    const bool unterminated = destLen == destMax;
    if (AppendOverlaps(dest, destLen, src, srcLen)) {
        // A source at or behind the end of an unterminated destination is
        // reported as the bad destination it is, not as an overlap.
        const bool srcBehindEnd =
            reinterpret_cast<uintptr_t>(src) >= reinterpret_cast<uintptr_t>(dest) + destLen;
        dest[0] = '\0';
        return unterminated && srcBehindEnd ? HIC_EINVAL_AND_RESET : HIC_EOVERLAP_AND_RESET;
    }
    if (uint64_t{destLen} + srcLen + 1 > destMax) {
        dest[0] = '\0';
        return unterminated ? HIC_EINVAL_AND_RESET : HIC_ERANGE_AND_RESET;
    }
    // Unreachable with a consistent fast path; append anyway.
    std::memcpy(dest + destLen, src, srcLen + 1);
    return HIC_EOK;
}

inline bool IsDelimiter(char c, const char* delimiters) {
    for (const char* d = delimiters; *d != '\0'; ++d) {
        if (*d == c) {
            return true;
        }
    }
    return false;
}

}  // namespace

int strcpy_s(char* dest, uint32_t destMax, const char* src) {
    if (DestMaxValid(destMax) && dest != nullptr && src != nullptr && dest != src) {
        const uint32_t len = TextLength(src, destMax);
        if (len < destMax && !AreasOverlap(dest, src, uint64_t{len} + 1)) {
            CopyText(dest, src, len + 1);
            return HIC_EOK;
        }
    }
    return StrcpyError(dest, destMax, src);
}

int strncpy_s(char* dest, uint32_t destMax, const char* src, uint32_t count) {
    if (DestMaxValid(destMax) && dest != nullptr && src != nullptr && DestMaxValid(count)) {
        // With destMax > count at most count characters are taken, which
        // always fit with the NUL; otherwise the text must end before destMax.
        const uint32_t len = destMax <= count ? TextLength(src, destMax) : TextLength(src, count);
        if (len < destMax && !AreasOverlap(dest, src, len)) {
            if (dest != src) {
                std::memcpy(dest, src, len);
            }
            dest[len] = '\0';
            return HIC_EOK;
        }
    }
    return StrncpyError(dest, destMax, src, count);
}

int strcat_s(char* dest, uint32_t destMax, const char* src) {
    if (DestMaxValid(destMax) && dest != nullptr && src != nullptr) {
        const uint32_t destLen = TextLength(dest, destMax);
        if (destLen < destMax) {
            const uint32_t room = destMax - destLen;  // characters plus the NUL
            const uint32_t srcLen = AppendLength(src, room);
            if (srcLen < room && !AppendOverlaps(dest, destLen, src, srcLen)) {
                CopyText(dest + destLen, src, srcLen + 1);
                return HIC_EOK;
            }
        }
    }
    return StrcatError(dest, destMax, src);
}

char* strtok_s(char* text, const char* delimiters, char** context) {
    if (delimiters == nullptr || context == nullptr) {
        return nullptr;
    }
    char* pos = text != nullptr ? text : *context;
    if (pos == nullptr) {
        return nullptr;
    }
    while (*pos != '\0' && IsDelimiter(*pos, delimiters)) {
        ++pos;
    }
    if (*pos == '\0') {
        *context = pos;
        return nullptr;
    }
    char* token = pos;
    while (*pos != '\0' && !IsDelimiter(*pos, delimiters)) {
        ++pos;
    }
    if (*pos != '\0') {
        *pos = '\0';
        ++pos;
    }
    *context = pos;
    return token;
}
