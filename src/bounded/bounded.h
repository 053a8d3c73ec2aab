// Bounded memory and string functions. Every copy, fill, append, tokenising
// and formatted write into a fixed buffer of the daemon goes through these:
// each takes the destination's capacity (destMax), checks its arguments and
// reports failure by a result code, leaving the destination in a defined
// state instead of writing past its end.
#ifndef HIC_BOUNDED_BOUNDED_H
#define HIC_BOUNDED_BOUNDED_H

#include <cstdarg>
#include <cstdint>
#include <cstring>

// Result codes of the memory and string functions. 128 on top of an error
// number means the destination was reset before returning.
constexpr int HIC_EOK = 0;
constexpr int HIC_EINVAL = 22;                    // destination pointer null
constexpr int HIC_ERANGE = 34;                    // destMax 0 or above HIC_BOUNDED_MAX
constexpr int HIC_EINVAL_AND_RESET = 22 + 128;    // 150: source null / dest unterminated
constexpr int HIC_ERANGE_AND_RESET = 34 + 128;    // 162: data does not fit
constexpr int HIC_EOVERLAP_AND_RESET = 54 + 128;  // 182: source and destination overlap

// Largest valid destMax and count.
constexpr uint32_t HIC_BOUNDED_MAX = 0x7FFFFFFFU;

// The error paths of the memory functions below: they test the conditions
// one by one, reset the destination and return the code. Called only from
// the inline fast paths.
namespace hic::bounded_detail {
int MemcpyError(void* dest, uint32_t destMax, const void* src, uint32_t count);
int MemmoveError(void* dest, uint32_t destMax, const void* src, uint32_t count);
int MemsetError(void* dest, uint32_t destMax, int c, uint32_t count);

// destMax (or a count) of 1 to HIC_BOUNDED_MAX, in one unsigned compare.
inline bool SizeValid(uint32_t size) {
    return size - 1U < HIC_BOUNDED_MAX;
}
}  // namespace hic::bounded_detail

// The memory functions' fast paths are inline: on the daemon's copies of a
// few dozen bytes an extra call would cost as much as the copy itself.
inline int memcpy_s(void* dest, uint32_t destMax, const void* src, uint32_t count) {
    // Two wrapping differences, each at least count, mean neither area
    // starts inside the other; dest equal to src fails them (unless count
    // is 0) and goes to the error path, which copies nothing.
    const auto d = reinterpret_cast<uintptr_t>(dest);
    const auto s = reinterpret_cast<uintptr_t>(src);
    // One combined test and one branch: on short copies every branch counts.
    const bool fast = hic::bounded_detail::SizeValid(destMax) & (count <= destMax) & (d != 0) &
                      (s != 0) & (d - s >= count) & (s - d >= count);
    if (fast) {
        // The analyzer cannot follow the null tests through the bitwise and.
        std::memcpy(dest, src, count);  // NOLINT(clang-analyzer-core.NonNullParamChecker)
        return HIC_EOK;
    }
    return hic::bounded_detail::MemcpyError(dest, destMax, src, count);
}

inline int memmove_s(void* dest, uint32_t destMax, const void* src, uint32_t count) {
    if (hic::bounded_detail::SizeValid(destMax) && dest != nullptr && src != nullptr &&
        count <= destMax) {
        std::memmove(dest, src, count);
        return HIC_EOK;
    }
    return hic::bounded_detail::MemmoveError(dest, destMax, src, count);
}

inline int memset_s(void* dest, uint32_t destMax, int c, uint32_t count) {
    if (hic::bounded_detail::SizeValid(destMax) && dest != nullptr && count <= destMax) {
        std::memset(dest, c, count);
        return HIC_EOK;
    }
    return hic::bounded_detail::MemsetError(dest, destMax, c, count);
}

int strcpy_s(char* dest, uint32_t destMax, const char* src);
int strncpy_s(char* dest, uint32_t destMax, const char* src, uint32_t count);
int strcat_s(char* dest, uint32_t destMax, const char* src);
char* strtok_s(char* text, const char* delimiters, char** context);

// Formatted output: number of characters written (NUL excluded), or -1.
// The engine accepts the whole class set, including size prefixes the
// compiler's printf checker does not know ("I", "w", "N", ...); callers in
// the daemon use only standard conversions, so the checker stays on.
int sprintf_s(char* dest, uint32_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int snprintf_s(char* dest, uint32_t destMax, uint32_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vsprintf_s(char* dest, uint32_t destMax, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
int vsnprintf_s(char* dest, uint32_t destMax, uint32_t count, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));

#endif  // HIC_BOUNDED_BOUNDED_H
