// Pieces shared by the bounded functions' translation units: the argument
// checks, and the two lower layers of formatted output (the format engine
// and the bounded writer). Not for use outside src/bounded and its tests.
#ifndef HIC_BOUNDED_INTERNAL_H
#define HIC_BOUNDED_INTERNAL_H

#include <cstdarg>
#include <cstdint>

#include "bounded/bounded.h"

namespace hic::bounded_internal {

// destMax must be 1 to HIC_BOUNDED_MAX.
inline bool DestMaxValid(uint32_t destMax) {
    return bounded_detail::SizeValid(destMax);
}

// True when the two areas of count bytes share a byte. Compared as integers:
// the areas may belong to unrelated objects.
inline bool AreasOverlap(const void* a, const void* b, uint64_t count) {
    const auto x = reinterpret_cast<uintptr_t>(a);
    const auto y = reinterpret_cast<uintptr_t>(b);
    if (x == y) {
        return false;
    }
    return x < y ? y - x < count : x - y < count;
}

// Engine results besides a character count.
constexpr int kEngineError = -1;   // malformed format or unconvertible argument
constexpr int kEngineNoRoom = -2;  // output did not fit into the buffer

// Formats into dest, writing at most size characters and no terminator.
// Returns the number of characters produced, or kEngineNoRoom after filling
// the buffer, or kEngineError (dest then holds what was produced so far).
// *left receives the number of unused bytes. size must be 1 to
// HIC_BOUNDED_MAX.
int FormatEngine(char* dest, uint32_t size, uint32_t* left, const char* format, va_list args);

// Bounded writer result when the text and its NUL did not fit.
constexpr int kWriterTruncated = -2;

// Runs the engine over a buffer of size bytes (1 to HIC_BOUNDED_MAX) and
// terminates the result. Returns the character count; or kWriterTruncated
// with a NUL in the buffer's last byte; or -1 with an empty buffer when the
// engine failed while room was left.
int BoundedWrite(char* dest, uint32_t size, const char* format, va_list args);

}  // namespace hic::bounded_internal

#endif  // HIC_BOUNDED_INTERNAL_H
