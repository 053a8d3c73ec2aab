#include "settings/settings_file.h"

#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "log/log.h"

namespace {

bool IsTrimSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

int32_t HIC_ReadFileByLine(const char* path, const char* key, char* out, uint32_t size) {
    // The upper bound keeps the piece length within what fgets takes.
    if (path == nullptr || key == nullptr || out == nullptr || size == 0 ||
        size > HIC_BOUNDED_MAX) {
        return -1;
    }
    hic::HeapBuffer piece(size);
    if (!piece.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "alloc mem failed.\n");
        return -1;
    }
    hic::UniqueFile file(std::fopen(path, "rbe"));
    if (!file.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "fopen %s file error.\n", path);
        return -1;
    }
    while (std::feof(file.Get()) == 0) {
        (void)memset_s(piece.Get(), size, 0, size);
        // A null result is end of file or a read error; on an error the end
        // flag never comes, so stop here either way.
        if (std::fgets(piece.Get(), static_cast<int>(size), file.Get()) == nullptr) {
            break;
        }
        if (std::strstr(piece.Get(), key) != nullptr) {
            // The whole buffer, so the caller gets the zero fill behind the text.
            if (memcpy_s(out, size, piece.Get(), size) != HIC_EOK) {
                return -1;
            }
            return 0;
        }
    }
    return -1;
}

int32_t HIC_GetValueFromLine(const char* line, char* out, uint32_t size) {
    if (line == nullptr || out == nullptr || size == 0) {
        return -1;
    }
    uint32_t pos = 0;
    while (pos < size && line[pos] != '=') {
        ++pos;
    }
    if (pos >= size) {
        HIC_LOG(HIC_LOG_ERROR, "No \"=\" found in line {%s}.\n", line);
        return -1;
    }
    const uint32_t start = pos + 1;
    uint32_t len = 0;
    while (start + len < size && line[start + len] != ';') {
        ++len;
    }
    if (start + len >= size) {
        HIC_LOG(HIC_LOG_ERROR, "No \";\" found in line {%s}.\n", line);
        return -1;
    }
    if (memcpy_s(out, size, line + start, len) != HIC_EOK) {
        HIC_LOG(HIC_LOG_ERROR, "%s.\n", "memcpy_s failed");
        return -1;
    }
    return 0;
}

int32_t HIC_StringTrim(char* text, uint32_t size) {
    if (text == nullptr || size == 0 || text[0] == '\0') {
        return -1;
    }
    uint32_t lead = 0;
    while (lead < size && IsTrimSpace(text[lead])) {
        ++lead;
    }
    // The rest with its NUL; a text not terminated within the buffer is
    // moved up to the buffer's end and no further.
    const uint32_t restMax = size - lead;
    auto count = static_cast<uint32_t>(strnlen(text + lead, restMax));
    if (count < restMax) {
        ++count;
    }
    if (memmove_s(text, size, text + lead, count) != HIC_EOK) {
        HIC_LOG(HIC_LOG_ERROR, "%s.\n", "trim string failed");
        return -1;
    }
    for (std::size_t end = strnlen(text, size); end > 0 && IsTrimSpace(text[end - 1]); --end) {
        text[end - 1] = '\0';
    }
    return 0;
}

int32_t HIC_GetIpAndType(char* ipAddress, char* ipType, uint32_t size) {
    if (ipAddress == nullptr || ipType == nullptr || size == 0) {
        return -1;
    }
    hic::HeapBuffer line(size);
    if (!line.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "alloc mem failed.\n");
        return -1;
    }

    (void)memset_s(line.Get(), size, 0, size);
    if (HIC_ReadFileByLine(HIC_HOST_INFO_PATH, HIC_IP_TYPE_KEY, line.Get(), size) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "Read IpType failed.\n");
        return -1;
    }
    if (HIC_GetValueFromLine(line.Get(), ipType, size) != 0) {
        return -1;
    }

    (void)memset_s(line.Get(), size, 0, size);
    if (HIC_ReadFileByLine(HIC_HOST_INFO_PATH, HIC_IP_ADDRESS_KEY, line.Get(), size) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "Read IpAddress failed.\n");
        return -1;
    }
    if (HIC_GetValueFromLine(line.Get(), ipAddress, size) != 0) {
        return -1;
    }
    // The type is left as written: its reader skips leading blanks itself.
    return HIC_StringTrim(ipAddress, size);
}
