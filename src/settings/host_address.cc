#include "settings/host_address.h"

#include "base/coding.h"
#include "bounded/bounded.h"
#include "log/log.h"
#include "settings/settings_file.h"

namespace {

constexpr uint32_t HIC_IPV4_PART_MAX = 255;
constexpr uint32_t HIC_IPV4_DOT_NUM = 3;
constexpr uint32_t HIC_IPV6_COLON_MAX = 7;
constexpr uint32_t HIC_IPV6_GROUP_BYTES = sizeof(uint32_t);

bool IsDecimalDigit(char c) {
    return c >= '0' && c <= '9';
}

char ToUpperAscii(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

int32_t HIC_GetSendIPAndType(unsigned char* out, uint32_t outSize, unsigned char* ipType) {
    // The encoding always writes a whole field; a smaller one is refused
    // rather than overrun.
    if (out == nullptr || ipType == nullptr || outSize < HIC_IP_ADDR_LEN) {
        return -1;
    }
    char ipText[HIC_HOST_INFO_LINE_LEN];
    char typeText[HIC_HOST_INFO_LINE_LEN];
    (void)memset_s(ipText, sizeof(ipText), 0, sizeof(ipText));
    (void)memset_s(typeText, sizeof(typeText), 0, sizeof(typeText));

    if (HIC_GetIpAndType(ipText, typeText, HIC_HOST_INFO_LINE_LEN) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "Get Host IP and IPType failed \n");
        return -1;
    }
    if (HIC_TransIpType(typeText, HIC_HOST_INFO_LINE_LEN, ipType) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "trans IP type failed.\n");
        return -1;
    }
    HIC_LOG(HIC_LOG_DEBUG, "trans IP string to number %d, ip is %s.\n", *ipType, ipText);
    if (HIC_IPStringToNumber(*ipType, ipText, HIC_HOST_INFO_LINE_LEN, out, HIC_IP_ADDR_LEN) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "trans IP string to number failed.\n");
        return -1;
    }
    return 0;
}

int32_t HIC_TransIpType(const char* text, uint32_t size, unsigned char* ipType) {
    if (ipType == nullptr) {
        return -1;
    }
    *ipType = HIC_IP_TYPE_INVALID;
    if (text == nullptr) {
        return -1;
    }
    uint32_t pos = 0;
    while (pos < size && text[pos] == ' ') {
        ++pos;
    }
    if (size - pos <= 3) {
        return -1;
    }
    if (ToUpperAscii(text[pos]) != 'I' || ToUpperAscii(text[pos + 1]) != 'P' ||
        ToUpperAscii(text[pos + 2]) != 'V') {
        return -1;
    }
    if (text[pos + 3] == '4') {
        *ipType = HIC_IP_TYPE_V4;
        return 0;
    }
    if (text[pos + 3] == '6') {
        *ipType = HIC_IP_TYPE_V6;
        return 0;
    }
    return -1;
}

int32_t HIC_IPStringToNumber(unsigned char type, char* text, uint32_t size, unsigned char* out,
                             uint32_t outSize) {
    if (text == nullptr || out == nullptr) {
        return -1;
    }
    if (HIC_StringTrim(text, size) != 0) {
        return -1;
    }
    if (text[0] == '\0') {
        HIC_LOG(HIC_LOG_ERROR, "The ip string is null.\n");
        return -1;
    }
    if (type == HIC_IP_TYPE_V4) {
        if (HIC_CheckIPv4FirstChar(text, size) != 0) {
            return -1;
        }
        return HIC_IPv4StringToNumber(text, size, out, outSize);
    }
    if (type == HIC_IP_TYPE_V6) {
        return HIC_IPv6StringToNumber(text, size, out, outSize);
    }
    return -1;
}

int32_t HIC_CheckIPv4FirstChar(const char* text, uint32_t size) {
    if (text == nullptr) {
        return -1;
    }
    uint32_t pos = 0;
    while (pos < size && text[pos] == ' ') {
        ++pos;
    }
    if (pos >= size || !IsDecimalDigit(text[pos])) {
        return -1;
    }
    return 0;
}

int32_t HIC_IPv4StringToNumber(const char* text, uint32_t size, unsigned char* out,
                               uint32_t outSize) {
    if (text == nullptr || out == nullptr) {
        return -1;
    }
    uint32_t parts[HIC_IPV4_PART_NUM] = {0, 0, 0, 0};
    uint32_t index = 0;
    uint32_t dots = 0;
    for (uint32_t pos = 0; pos < size; ++pos) {
        if (index >= HIC_IPV4_PART_NUM) {
            return -1;
        }
        const char c = text[pos];
        if (IsDecimalDigit(c)) {
            parts[index] = parts[index] * 10 + static_cast<uint32_t>(c - '0');
            if (parts[index] > HIC_IPV4_PART_MAX) {
                return -1;
            }
        } else if (c == '.') {
            ++index;
            ++dots;
        } else if (c == ' ') {
            continue;
        } else if (c == '\0') {
            break;
        } else {
            return -1;
        }
    }
    return HIC_CopyIPv4Parts(parts, dots, out, outSize);
}

int32_t HIC_CopyIPv4Parts(const uint32_t parts[HIC_IPV4_PART_NUM], uint32_t dotCount,
                          unsigned char* out, uint32_t outSize) {
    if (parts == nullptr || out == nullptr) {
        return -1;
    }
    if (outSize < HIC_IPV4_PART_NUM || dotCount != HIC_IPV4_DOT_NUM) {
        return -1;
    }
    for (uint32_t k = 0; k < HIC_IPV4_PART_NUM; ++k) {
        out[k] = static_cast<unsigned char>(parts[k]);
    }
    return 0;
}

int32_t HIC_IPv6StringToNumber(const char* text, uint32_t size, unsigned char* out,
                               uint32_t outSize) {
    if (text == nullptr || out == nullptr) {
        return -1;
    }
    // Accumulators wrap freely: only the lowest 16 bits of a group count.
    uint32_t groups[HIC_IPV6_GROUP_NUM] = {0, 0, 0, 0, 0, 0, 0, 0};
    uint32_t index = 0;
    uint32_t colons = 0;
    uint32_t doubleColons = 0;
    uint32_t gapIndex = 0;
    // A colon right behind another completes a double colon.
    bool afterColon = false;
    for (uint32_t pos = 0; pos < size; ++pos) {
        if (index >= HIC_IPV6_GROUP_NUM) {
            return -1;
        }
        const char c = text[pos];
        uint32_t value = 0;
        if (HIC_HexCharToValue(c, &value) == 0) {
            groups[index] = groups[index] * 16 + value;
            afterColon = false;
        } else if (c == ':') {
            if (afterColon) {
                gapIndex = index;
                ++doubleColons;
            } else {
                ++index;
            }
            ++colons;
            afterColon = true;
        } else if (c == '\0') {
            break;
        } else {
            return -1;
        }
    }
    if (HIC_ExpandIPv6Zeros(groups, index, doubleColons, gapIndex) != 0) {
        return -1;
    }
    return HIC_CopyIPv6Groups(groups, colons, out, outSize);
}

int32_t HIC_HexCharToValue(char c, uint32_t* value) {
    if (value == nullptr) {
        return -1;
    }
    if (c >= '0' && c <= '9') {
        *value = static_cast<uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
        *value = static_cast<uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
        *value = static_cast<uint32_t>(c - 'A' + 10);
    } else {
        return -1;
    }
    return 0;
}

int32_t HIC_ExpandIPv6Zeros(uint32_t groups[HIC_IPV6_GROUP_NUM], uint32_t lastIndex,
                            uint32_t doubleColonCount, uint32_t gapIndex) {
    if (groups == nullptr || doubleColonCount > 1) {
        return -1;
    }
    if (doubleColonCount == 0) {
        return 0;
    }
    // A text that ends on the colon opening a ninth group has no slot for it.
    if (lastIndex < gapIndex || lastIndex >= HIC_IPV6_GROUP_NUM) {
        return -1;
    }
    const uint32_t moved = lastIndex - gapIndex + 1;
    const uint32_t firstMoved = HIC_IPV6_GROUP_NUM - moved;
    if (firstMoved == gapIndex) {
        return 0;
    }
    const uint32_t movedBytes = moved * HIC_IPV6_GROUP_BYTES;
    if (memmove_s(&groups[firstMoved], movedBytes, &groups[gapIndex], movedBytes) != HIC_EOK) {
        return -1;
    }
    const uint32_t gapBytes = (firstMoved - gapIndex) * HIC_IPV6_GROUP_BYTES;
    if (memset_s(&groups[gapIndex], gapBytes, 0, gapBytes) != HIC_EOK) {
        return -1;
    }
    return 0;
}

int32_t HIC_CopyIPv6Groups(const uint32_t groups[HIC_IPV6_GROUP_NUM], uint32_t colonCount,
                           unsigned char* out, uint32_t outSize) {
    if (groups == nullptr || out == nullptr) {
        return -1;
    }
    if (outSize < HIC_IP_ADDR_LEN || colonCount > HIC_IPV6_COLON_MAX) {
        return -1;
    }
    unsigned char* byte = out;
    for (uint32_t k = 0; k < HIC_IPV6_GROUP_NUM; ++k, byte += 2) {
        hic::EncodeBigEndian16(byte, static_cast<uint16_t>(groups[k]));
    }
    return 0;
}
