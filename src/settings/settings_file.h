// The host settings file: the administrator's record of the host's
// management address and its type, read afresh for every collection so
// edits take effect without a restart. Lines are keyed by a substring
// ("IpType=", "IpAddress=") and carry their value between the first "="
// and the next ";".
#ifndef HIC_SETTINGS_SETTINGS_FILE_H
#define HIC_SETTINGS_SETTINGS_FILE_H

#include <cstdint>

constexpr const char* HIC_HOST_INFO_PATH = "/etc/vn.hostinfo";
constexpr const char* HIC_IP_TYPE_KEY = "IpType=";
constexpr const char* HIC_IP_ADDRESS_KEY = "IpAddress=";
// Size of the text buffers the callers pass for the address and the type.
constexpr uint32_t HIC_HOST_INFO_LINE_LEN = 256;

// Reads path in pieces of at most size - 1 characters (a piece ends after
// a newline) and copies the first piece that contains key, with the zero
// fill behind it, as size bytes into out. Returns 0, or -1 when no piece
// matches or the file cannot be read.
int32_t HIC_ReadFileByLine(const char* path, const char* key, char* out, uint32_t size);

// Copies the bytes between the first "=" of line and the next ";" into
// out, without a terminator: out must be zero-filled by the caller. line is
// a buffer of size bytes holding a terminated text. Returns 0 or -1.
int32_t HIC_GetValueFromLine(const char* line, char* out, uint32_t size);

// Removes leading and trailing white space (space, \t, \n, \v, \f, \r) of
// the text in place. Returns 0 (also when only white space was there and
// the text is now empty), or -1 for a null or empty text.
int32_t HIC_StringTrim(char* text, uint32_t size);

// Reads the address value (trimmed) and the type value (as written) from
// the settings file into two zero-filled buffers of size bytes each.
// Returns 0 when both were read and the address is not empty, else -1.
int32_t HIC_GetIpAndType(char* ipAddress, char* ipType, uint32_t size);

#endif  // HIC_SETTINGS_SETTINGS_FILE_H
