// Encoding of the host's management address into the form sent to the
// arrays: a one-byte type code and a 16-byte field in network byte order.
// The parsers follow their own rules, which the arrays are built around:
// empty IPv4 parts count as 0, spaces inside an IPv4 text are ignored, an
// IPv6 group keeps only its lowest 16 bits, and an IPv6 text may have
// fewer than eight groups without a double colon.
#ifndef HIC_SETTINGS_HOST_ADDRESS_H
#define HIC_SETTINGS_HOST_ADDRESS_H

#include <cstdint>

constexpr unsigned char HIC_IP_TYPE_V4 = 0;
constexpr unsigned char HIC_IP_TYPE_V6 = 1;
constexpr unsigned char HIC_IP_TYPE_INVALID = 0x99;

// Size of the address field in the array record and on the wire.
constexpr uint32_t HIC_IP_ADDR_LEN = 16;
constexpr uint32_t HIC_IPV4_PART_NUM = 4;
constexpr uint32_t HIC_IPV6_GROUP_NUM = 8;

// Reads the settings file and encodes the address into out (16 bytes,
// zero-filled by the caller; outSize must be at least 16) and the type
// code into ipType. Returns 0 or -1; a failure leaves out untouched.
int32_t HIC_GetSendIPAndType(unsigned char* out, uint32_t outSize, unsigned char* ipType);

// "IPv4" or "IPv6" in any case, after leading spaces; characters behind
// the digit are not looked at. Sets 0 or 1 and returns 0, or sets
// HIC_IP_TYPE_INVALID and returns -1.
int32_t HIC_TransIpType(const char* text, uint32_t size, unsigned char* ipType);

// Trims text in place, then encodes it by the parser of type into out.
// Returns 0 or -1; out is written only on success.
int32_t HIC_IPStringToNumber(unsigned char type, char* text, uint32_t size, unsigned char* out,
                             uint32_t outSize);

// The first character that is not a space must be a decimal digit.
int32_t HIC_CheckIPv4FirstChar(const char* text, uint32_t size);

// Dotted decimal into bytes 0 to 3 of out; bytes 4 to 15 are not written.
int32_t HIC_IPv4StringToNumber(const char* text, uint32_t size, unsigned char* out,
                               uint32_t outSize);

// Writes the four parts into bytes 0 to 3 when exactly three dots were
// seen and out holds at least 4 bytes.
int32_t HIC_CopyIPv4Parts(const uint32_t parts[HIC_IPV4_PART_NUM], uint32_t dotCount,
                          unsigned char* out, uint32_t outSize);

// Colon-separated hexadecimal groups into the 16 bytes of out.
int32_t HIC_IPv6StringToNumber(const char* text, uint32_t size, unsigned char* out,
                               uint32_t outSize);

// One hexadecimal digit (0-9, a-f, A-F) to its value 0 to 15.
int32_t HIC_HexCharToValue(char c, uint32_t* value);

// Opens the gap of a double colon: groups gapIndex to lastIndex move to
// the end of the eight slots, in order, and the slots left behind become
// 0. More than one double colon is refused.
int32_t HIC_ExpandIPv6Zeros(uint32_t groups[HIC_IPV6_GROUP_NUM], uint32_t lastIndex,
                            uint32_t doubleColonCount, uint32_t gapIndex);

// Writes the eight groups big-endian into 16 bytes of out when at most
// seven colons were seen (a double colon counts as two).
int32_t HIC_CopyIPv6Groups(const uint32_t groups[HIC_IPV6_GROUP_NUM], uint32_t colonCount,
                           unsigned char* out, uint32_t outSize);

#endif  // HIC_SETTINGS_HOST_ADDRESS_H
