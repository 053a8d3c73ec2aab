// Fuzzes the settings line handling (value extraction, trim, type text) and
// both address parsers. Besides crashes and out-of-bounds access it checks
// the IPv4 parser against a small model of its rules, the IPv6 parser
// against inet_pton wherever both accept, and the line handling against
// plain re-statements of the grammar.
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "settings/host_address.h"
#include "settings/settings_file.h"

namespace {

constexpr size_t kLineLen = 256;

void Check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

bool IsWs(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string ModelTrim(const std::string& s) {
    size_t b = 0;
    size_t e = s.size();
    while (b < e && IsWs(s[b])) {
        ++b;
    }
    while (e > b && IsWs(s[e - 1])) {
        --e;
    }
    return s.substr(b, e - b);
}

// The IPv4 rules, stated on the whole text at once: spaces vanish, only
// digits and dots remain, exactly four dot-separated parts, an empty part
// is 0, and no part exceeds 255.
bool ModelIPv4(const std::string& text, unsigned char out[4]) {
    std::string compact;
    for (char c : text) {
        if (c == ' ') {
            continue;
        }
        if ((c < '0' || c > '9') && c != '.') {
            return false;
        }
        compact += c;
    }
    std::vector<std::string> parts(1);
    for (char c : compact) {
        if (c == '.') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    if (parts.size() != 4) {
        return false;
    }
    for (size_t k = 0; k < 4; ++k) {
        unsigned value = 0;
        for (char c : parts[k]) {
            value = value * 10 + static_cast<unsigned>(c - '0');
            if (value > 255) {
                return false;
            }
        }
        out[k] = static_cast<unsigned char>(value);
    }
    return true;
}

// Text up to its NUL, or the whole buffer when it has none.
std::string TextOf(const char* buf, size_t size) {
    return {buf, strnlen(buf, size)};
}

void FuzzLine(const uint8_t* data, size_t size) {
    // As the reader hands it over: at most 255 characters, zero-filled.
    std::vector<char> line(kLineLen, '\0');
    std::memcpy(line.data(), data, std::min(size, kLineLen - 1));
    std::vector<char> value(kLineLen, '\0');
    const int32_t rc = HIC_GetValueFromLine(line.data(), value.data(), kLineLen);

    const void* eqPos = std::memchr(line.data(), '=', kLineLen);
    const char* semi = nullptr;
    if (eqPos != nullptr) {
        const char* start = static_cast<const char*>(eqPos) + 1;
        semi = static_cast<const char*>(
            std::memchr(start, ';', static_cast<size_t>(line.data() + kLineLen - start)));
    }
    Check((rc == 0) == (semi != nullptr));
    if (rc != 0) {
        Check(std::all_of(value.begin(), value.end(), [](char c) { return c == '\0'; }));
        return;
    }
    const char* start = static_cast<const char*>(eqPos) + 1;
    const auto len = static_cast<size_t>(semi - start);
    Check(std::memcmp(value.data(), start, len) == 0);
    Check(std::all_of(value.begin() + static_cast<std::ptrdiff_t>(len), value.end(),
                      [](char c) { return c == '\0'; }));

    // The type text as the daemon reads it: untrimmed.
    unsigned char code = 0;
    const int32_t typeRc = HIC_TransIpType(value.data(), kLineLen, &code);
    const std::string typeText = TextOf(value.data(), kLineLen);
    const size_t p = typeText.find_first_not_of(' ');
    int expected = -1;
    if (p != std::string::npos && typeText.size() >= p + 4 &&
        (typeText[p] == 'I' || typeText[p] == 'i') &&
        (typeText[p + 1] == 'P' || typeText[p + 1] == 'p') &&
        (typeText[p + 2] == 'V' || typeText[p + 2] == 'v')) {
        expected = typeText[p + 3] == '4' ? 0 : typeText[p + 3] == '6' ? 1 : -1;
    }
    Check(typeRc == (expected < 0 ? -1 : 0));
    Check(code == (expected < 0 ? HIC_IP_TYPE_INVALID : static_cast<unsigned char>(expected)));

    // The address text: trimmed in place.
    const std::string before = TextOf(value.data(), kLineLen);
    const int32_t trimRc = HIC_StringTrim(value.data(), kLineLen);
    Check((trimRc == 0) == !before.empty());
    if (trimRc == 0) {
        Check(TextOf(value.data(), kLineLen) == ModelTrim(before));
    }
}

void FuzzParsers(const uint8_t* data, size_t size) {
    if (size == 0) {
        return;
    }
    // Exactly size bytes without a terminator of ours: the parsers must stop
    // at the buffer's end.
    std::vector<char> raw(data, data + size);
    const auto rawSize = static_cast<uint32_t>(size);
    const std::string text = TextOf(raw.data(), size);

    unsigned char out[16];
    std::memset(out, 0xEE, sizeof(out));
    unsigned char model[4] = {0, 0, 0, 0};
    const bool modelOk = ModelIPv4(text, model);
    const int32_t v4 = HIC_IPv4StringToNumber(raw.data(), rawSize, out, sizeof(out));
    Check((v4 == 0) == modelOk);
    if (v4 == 0) {
        Check(std::memcmp(out, model, 4) == 0);
    } else {
        Check(out[0] == 0xEE && out[1] == 0xEE && out[2] == 0xEE && out[3] == 0xEE);
    }
    for (size_t k = 4; k < sizeof(out); ++k) {
        Check(out[k] == 0xEE);
    }
    (void)HIC_CheckIPv4FirstChar(raw.data(), rawSize);

    unsigned char out6[16];
    std::memset(out6, 0xEE, sizeof(out6));
    const int32_t v6 = HIC_IPv6StringToNumber(raw.data(), rawSize, out6, sizeof(out6));
    unsigned char pton[16];
    if (v6 != 0) {
        for (unsigned char b : out6) {
            Check(b == 0xEE);
        }
    } else if (inet_pton(AF_INET6, text.c_str(), pton) == 1) {
        Check(std::memcmp(out6, pton, sizeof(pton)) == 0);
    }

    // Through the front door, on a terminated copy: trim, first character,
    // then the IPv4 parser.
    std::vector<char> buf(data, data + size);
    buf.push_back('\0');
    const auto bufSize = static_cast<uint32_t>(buf.size());
    std::vector<char> buf6 = buf;
    const std::string trimmed = ModelTrim(TextOf(buf.data(), buf.size()));
    std::memset(out, 0xEE, sizeof(out));
    const int32_t front4 = HIC_IPStringToNumber(HIC_IP_TYPE_V4, buf.data(), bufSize, out, 16);
    const bool frontModel =
        !trimmed.empty() && trimmed[0] >= '0' && trimmed[0] <= '9' && ModelIPv4(trimmed, model);
    Check((front4 == 0) == frontModel);
    if (front4 == 0) {
        Check(std::memcmp(out, model, 4) == 0);
    }
    std::memset(out6, 0xEE, sizeof(out6));
    (void)HIC_IPStringToNumber(HIC_IP_TYPE_V6, buf6.data(), bufSize, out6, 16);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Above every message level: no line is written, wherever this runs.
    HIC_SetLogLevel(HIC_LOG_ERROR + 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzLine(data, size);
    FuzzParsers(data, size);
    return 0;
}
