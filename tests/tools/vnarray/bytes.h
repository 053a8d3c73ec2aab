// Byte helpers shared by the virtual array's tests: hex literals, slices
// and the command blocks the daemon sends.
#ifndef HIC_TESTS_TOOLS_VNARRAY_BYTES_H
#define HIC_TESTS_TOOLS_VNARRAY_BYTES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "model.h"

namespace vnarray::test {

inline Bytes Hex(const std::string& text) {
    return FromHex(text).value();
}

inline Bytes Slice(const Bytes& b, std::size_t at, std::size_t n) {
    return Bytes(b.begin() + static_cast<std::ptrdiff_t>(at),
                 b.begin() + static_cast<std::ptrdiff_t>(at + n));
}

// A 16-byte vendor command: big-endian address at byte 2, length at 10,
// and the fixed 0x81 at 14.
inline Bytes VendorCdb(std::uint8_t op, std::uint64_t address, std::uint32_t length) {
    Bytes c(16, 0);
    c[0] = op;
    for (int i = 0; i < 8; ++i) {
        c[2 + i] = static_cast<std::uint8_t>(address >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; ++i) {
        c[10 + i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
    }
    c[14] = 0x81;
    return c;
}

inline Bytes InquiryCdb(bool evpd, std::uint8_t page, std::uint16_t alloc) {
    return {kOpInquiry,
            static_cast<std::uint8_t>(evpd ? 1 : 0),
            page,
            static_cast<std::uint8_t>(alloc >> 8),
            static_cast<std::uint8_t>(alloc & 0xFF),
            0};
}

// The 28-byte heartbeat payload of host 192.168.1.9, versions in hex.
inline Bytes HeartbeatPayload(const std::string& versions) {
    Bytes b = Hex("00 81 00 1c " + versions + " c0 a8 01 09");
    b.resize(28, 0);
    return b;
}

// The 32-byte upload header of host 192.168.1.9 followed by data.
inline Bytes Chunk(std::uint32_t size, const Bytes& data,
                   const std::string& versions = "01 02 03 04", std::uint8_t ip_type = 0) {
    Bytes b = Hex("00 81 00 00 00 00 10 00 " + versions + " c0 a8 01 09");
    b.resize(32, 0);
    for (int i = 0; i < 4; ++i) {
        b[2 + i] = static_cast<std::uint8_t>(size >> (24 - 8 * i));
    }
    b[28] = ip_type;
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

// An archive of n bytes in a pattern that does not repeat every 256.
inline Bytes Archive(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        b[i] = static_cast<std::uint8_t>((i * 7 + i / 251) & 0xFF);
    }
    return b;
}

}  // namespace vnarray::test

#endif  // HIC_TESTS_TOOLS_VNARRAY_BYTES_H
