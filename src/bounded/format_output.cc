// The two upper layers of formatted output: the bounded writer, which
// terminates what the engine produced and reports truncation, and the
// public functions with their argument checks and truncation rules.
#include <cstdarg>

#include "bounded/bounded.h"
#include "bounded/internal.h"

namespace hic::bounded_internal {

int BoundedWrite(char* dest, uint32_t size, const char* format, va_list args) {
    uint32_t left = 0;
    const int count = FormatEngine(dest, size, &left, format, args);
    if (count >= 0 && left > 0) {
        dest[count] = '\0';
        return count;
    }
    // An engine error after the buffer is already full is a truncation as
    // well: the text produced so far did not fit with its NUL.
    if (count == kEngineNoRoom || left == 0) {
        dest[size - 1] = '\0';
        return kWriterTruncated;
    }
    dest[0] = '\0';
    return -1;
}

}  // namespace hic::bounded_internal

namespace {

using hic::bounded_internal::BoundedWrite;
using hic::bounded_internal::DestMaxValid;

// The argument checks both functions share; empties dest when it is usable.
bool RefuseArguments(char* dest, uint32_t destMax, const char* format) {
    if (format != nullptr && dest != nullptr && DestMaxValid(destMax)) {
        return false;
    }
    if (dest != nullptr && DestMaxValid(destMax)) {
        dest[0] = '\0';
    }
    return true;
}

}  // namespace

int vsprintf_s(char* dest, uint32_t destMax, const char* format, va_list args) {
    if (RefuseArguments(dest, destMax, format)) {
        return -1;
    }
    const int count = BoundedWrite(dest, destMax, format, args);
    if (count < 0) {
        // No partial result: the whole text must fit.
        dest[0] = '\0';
        return -1;
    }
    return count;
}

int vsnprintf_s(char* dest, uint32_t destMax, uint32_t count, const char* format, va_list args) {
    if (RefuseArguments(dest, destMax, format)) {
        return -1;
    }
    // 0xFFFFFFFF stays valid: it asks for "as much as fits".
    if (count >= HIC_BOUNDED_MAX && count != UINT32_MAX) {
        dest[0] = '\0';
        return -1;
    }
    if (destMax > count) {
        // Room for count characters and the NUL: a longer text is cut after
        // count characters and kept.
        const int written = BoundedWrite(dest, count + 1, format, args);
        return written < 0 ? -1 : written;
    }
    const int written = BoundedWrite(dest, destMax, format, args);
    if (written < 0) {
        dest[0] = '\0';
        return -1;
    }
    return written;
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the C-style interface is the point.
int sprintf_s(char* dest, uint32_t destMax, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int count = vsprintf_s(dest, destMax, format, args);
    va_end(args);
    return count;
}

// NOLINTNEXTLINE(cert-dcl50-cpp)
int snprintf_s(char* dest, uint32_t destMax, uint32_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int written = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return written;
}
