// Big-endian (network order) stores and loads of fixed-width integers, the
// byte order of every multi-byte number in a SCSI command block, an INQUIRY
// page and an upload chunk header. dst and src point to at least the
// width's bytes; no alignment is assumed.
#ifndef HIC_BASE_CODING_H
#define HIC_BASE_CODING_H

#include <cstdint>

namespace hic {

inline void EncodeBigEndian16(unsigned char* dst, uint16_t value) {
    dst[0] = static_cast<unsigned char>(value >> 8);
    dst[1] = static_cast<unsigned char>(value);
}

inline void EncodeBigEndian32(unsigned char* dst, uint32_t value) {
    EncodeBigEndian16(dst, static_cast<uint16_t>(value >> 16));
    EncodeBigEndian16(dst + 2, static_cast<uint16_t>(value));
}

inline void EncodeBigEndian64(unsigned char* dst, uint64_t value) {
    EncodeBigEndian32(dst, static_cast<uint32_t>(value >> 32));
    EncodeBigEndian32(dst + 4, static_cast<uint32_t>(value));
}

inline uint16_t DecodeBigEndian16(const unsigned char* src) {
    return static_cast<uint16_t>((src[0] << 8) | src[1]);
}

}  // namespace hic

#endif  // HIC_BASE_CODING_H
