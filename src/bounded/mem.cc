// Error paths of the bounded copy, move and fill; the fast paths are inline
// in the header. Each tests the conditions one by one, in the documented
// order, and resets the destination before reporting.
#include <cstring>

#include "bounded/bounded.h"
#include "bounded/internal.h"

namespace hic::bounded_detail {

using bounded_internal::AreasOverlap;
using bounded_internal::DestMaxValid;

namespace {

// The checks memcpy_s and memmove_s share, in their order.
int CopyArgsError(void* dest, uint32_t destMax, const void* src, uint32_t count) {
    if (!DestMaxValid(destMax)) {
        return HIC_ERANGE;
    }
    if (dest == nullptr) {
        return HIC_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return HIC_EINVAL_AND_RESET;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return HIC_ERANGE_AND_RESET;
    }
    return HIC_EOK;
}

}  // namespace

int MemcpyError(void* dest, uint32_t destMax, const void* src, uint32_t count) {
    const int ret = CopyArgsError(dest, destMax, src, count);
    if (ret != HIC_EOK) {
        return ret;
    }
    if (AreasOverlap(dest, src, count)) {
        std::memset(dest, 0, destMax);
        return HIC_EOVERLAP_AND_RESET;
    }
    // Copy onto itself, or nothing to copy.
    return HIC_EOK;
}

int MemmoveError(void* dest, uint32_t destMax, const void* src, uint32_t count) {
    return CopyArgsError(dest, destMax, src, count);
}

int MemsetError(void* dest, uint32_t destMax, int c, uint32_t count) {
    if (destMax > HIC_BOUNDED_MAX || (destMax == 0 && count != 0)) {
        return HIC_ERANGE;
    }
    if (dest == nullptr) {
        return HIC_EINVAL;
    }
    if (count > destMax) {
        // The caller asked for a fill: give it the whole buffer's worth.
        std::memset(dest, c, destMax);
        return HIC_ERANGE_AND_RESET;
    }
    // destMax 0 and count 0: nothing to do.
    return HIC_EOK;
}

}  // namespace hic::bounded_detail
