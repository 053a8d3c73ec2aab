// The daemon's log: one process-wide level, one logging operation, dated
// lines appended to a fixed file, and size-triggered rotation into a
// one-generation archive. HIC_ASSERT reports on standard output instead.
#ifndef HIC_LOG_LOG_H
#define HIC_LOG_LOG_H

#include <cstdint>

// Levels; lower is more verbose.
constexpr int HIC_LOG_DEBUG = 0;
constexpr int HIC_LOG_INFO = 1;
constexpr int HIC_LOG_WARN = 2;
constexpr int HIC_LOG_ERROR = 3;

constexpr const char* HIC_LOG_DIR = "/opt/Vornal/log";
constexpr const char* HIC_LOG_PATH = "/opt/Vornal/log/hostinfotool.log";
constexpr const char* HIC_LOG_BAK_PATH = "/opt/Vornal/log/hostinfotool_bak.log";
constexpr const char* HIC_LOG_ARCHIVE_PATH = "/opt/Vornal/log/hostinfolog.tar.gz";
// The log is rotated once it is strictly larger than this.
constexpr long HIC_LOG_MAX_SIZE = 31457280;
// Size of the date buffer every caller of HIC_GetDate passes.
constexpr uint32_t HIC_DATE_LEN = 40;

int HIC_GetLogLevel();
void HIC_SetLogLevel(int level);
const char* HIC_GetLogLevelName(int level);
void HIC_GetDate(char* dest, uint32_t size);
void HIC_BackupLogFile();

// Writes one line "[date] [level] [vn_hostinfo_linux] [func: line] message"
// when the current level lets it through. Never fails towards the caller.
void HIC_WriteLog(int level, const char* func, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Prints the assertion report on standard output when cond is false;
// execution goes on either way.
void HIC_AssertReport(bool cond, const char* func, int line);

// Each call site passes its own operation name and source line.
#define HIC_LOG(level, ...) HIC_WriteLog((level), __func__, __LINE__, __VA_ARGS__)
#define HIC_ASSERT(cond) HIC_AssertReport(static_cast<bool>(cond), __func__, __LINE__)

#endif  // HIC_LOG_LOG_H
