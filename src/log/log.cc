#include "log/log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <shared_mutex>

#include "base/handles.h"
#include "base/shell.h"
#include "bounded/bounded.h"

namespace {

// Set once at start-up, before any other thread exists; atomic all the same
// so that a reader never needs a lock.
std::atomic<int> g_logLevel{HIC_LOG_INFO};

// Lines are written under the shared side, a rotation runs under the
// exclusive side: only one rotation at a time, and no line can land between
// the rotation's copy and its truncation, where it would be lost.
std::shared_mutex g_rotationGuard;

constexpr const char* kLinePrefix = "[%s] [%s] [vn_hostinfo_linux] [%s: %d] ";
constexpr const char* kDateFormat = "%d-%02d-%02d %02d:%02d:%02d";
// Lines up to this size are formed on the stack; longer ones on the heap.
constexpr std::size_t kStackLineSize = 1024;

long CurrentLogSize() {
    struct stat st {};
    if (stat(HIC_LOG_PATH, &st) != 0) {
        return -1;
    }
    return static_cast<long>(st.st_size);
}

class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  private:
    int saved_;
};

// Called with the shared side held; returns with it held again.
void RotateOnce(std::shared_lock<std::shared_mutex>& shared) {
    shared.unlock();
    {
        const std::lock_guard<std::shared_mutex> exclusive(g_rotationGuard);
        // Another thread may have rotated while this one waited: a thread
        // that saw the old size must not archive the fresh log again.
        if (CurrentLogSize() > HIC_LOG_MAX_SIZE) {
            HIC_BackupLogFile();
        }
    }
    shared.lock();
}

// One call is one line: a carriage return or an escape sequence from a
// device name or a serial number could otherwise forge or hide lines. Every
// control character but the line's final line end becomes '?'.
bool IsForbiddenControl(const char* text, std::size_t i, std::size_t len) {
    const auto c = static_cast<unsigned char>(text[i]);
    return (c < 0x20U || c == 0x7FU) && !(c == '\n' && i + 1 == len);
}

// Forms the whole line and hands it to the stream in one piece: the stream
// is unbuffered, so the line reaches the file in a single append write and
// lines of concurrent threads never interleave.
__attribute__((format(printf, 6, 0))) void WriteLine(FILE* file, const char* date, int level,
                                                     const char* func, int line, const char* format,
                                                     va_list args) {
    const char* levelName = HIC_GetLogLevelName(level);
    va_list measureArgs;
    va_copy(measureArgs, args);
    // The analyzer loses track of a va_copy made from a va_list parameter.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int messageLen = std::vsnprintf(nullptr, 0, format, measureArgs);
    va_end(measureArgs);
    const int prefixLen = std::snprintf(nullptr, 0, kLinePrefix, date, levelName, func, line);
    if (messageLen < 0 || prefixLen < 0) {
        return;
    }
    const std::size_t total =
        static_cast<std::size_t>(prefixLen) + static_cast<std::size_t>(messageLen) + 1;

    char stackLine[kStackLineSize];
    hic::HeapBuffer heapLine;
    char* text = stackLine;
    if (total > sizeof(stackLine)) {
        heapLine = hic::HeapBuffer(total);
        if (!heapLine.Valid()) {
            return;
        }
        text = heapLine.Get();
    }
    (void)std::snprintf(text, total, kLinePrefix, date, levelName, func, line);
    (void)std::vsnprintf(text + prefixLen, total - static_cast<std::size_t>(prefixLen), format,
                         args);
    for (std::size_t i = static_cast<std::size_t>(prefixLen); i + 1 < total; ++i) {
        if (IsForbiddenControl(text, i, total - 1)) {
            text[i] = '?';
        }
    }
    (void)std::fwrite(text, 1, total - 1, file);
    (void)std::fflush(file);
}

}  // namespace

int HIC_GetLogLevel() {
    return g_logLevel.load(std::memory_order_relaxed);
}

void HIC_SetLogLevel(int level) {
    g_logLevel.store(level, std::memory_order_relaxed);
}

const char* HIC_GetLogLevelName(int level) {
    switch (level) {
        case HIC_LOG_DEBUG:
            return "DEBUG";
        case HIC_LOG_INFO:
            return "INFO";
        case HIC_LOG_WARN:
            return "WARN";
        case HIC_LOG_ERROR:
            return "ERR";
        default:
            return "ERROR";
    }
}

void HIC_GetDate(char* dest, uint32_t size) {
    char date[HIC_DATE_LEN];
    (void)memset_s(date, sizeof(date), 0, sizeof(date));
    if (dest == nullptr) {
        return;
    }
    const time_t now = time(nullptr);
    struct tm local {};
    // Several threads form dates at once: the reentrant conversion.
    if (localtime_r(&now, &local) == nullptr) {
        return;
    }
    if (snprintf_s(date, HIC_DATE_LEN, HIC_DATE_LEN - 1, kDateFormat, local.tm_year + 1900,
                   local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                   local.tm_sec) == -1) {
        return;
    }
    if (strncpy_s(dest, size, date, size - 1) != HIC_EOK) {
        (void)std::puts("strncpy_s failed in func HIC_GetDate.");
    }
}

void HIC_BackupLogFile() {
    // Every step runs whatever the previous one gave: the log must shrink even
    // when the copy or the archive fails, and the log cannot report a failure
    // of its own rotation.
    (void)std::remove(HIC_LOG_ARCHIVE_PATH);
    (void)hic::RunShell(
        "cp -f /opt/Vornal/log/hostinfotool.log /opt/Vornal/log/hostinfotool_bak.log >/dev/null "
        "2>&1");
    (void)hic::RunShell(
        "cd /opt/Vornal/log; tar zcvf /opt/Vornal/log/hostinfolog.tar.gz hostinfotool_bak.log "
        ">/dev/null 2>&1");
    (void)std::remove(HIC_LOG_BAK_PATH);
    (void)hic::RunShell(
        "echo \"/* The log is transferred to the bak */\" > /opt/Vornal/log/hostinfotool.log");
}

// A printf-style interface, so that the compiler checks every call site.
// NOLINTNEXTLINE(cert-dcl50-cpp)
void HIC_WriteLog(int level, const char* func, int line, const char* format, ...) {
    if (HIC_GetLogLevel() > level || format == nullptr) {
        return;
    }
    // Callers often log and then report errno; the log's own calls must not
    // change it under them (declared first, so it restores last).
    const ErrnoKeeper keepErrno;
    std::shared_lock<std::shared_mutex> shared(g_rotationGuard);
    // Not through a link planted in the log's place, nor into a FIFO.
    const hic::UniqueFile file(
        hic::OpenRegularStream(HIC_LOG_PATH, O_WRONLY | O_APPEND | O_CREAT, "ab"));
    if (!file.Valid()) {
        return;
    }
    (void)std::setvbuf(file.Get(), nullptr, _IONBF, 0);

    char date[HIC_DATE_LEN];
    (void)memset_s(date, sizeof(date), 0, sizeof(date));

    if (std::fseek(file.Get(), 0, SEEK_END) == 0 && std::ftell(file.Get()) > HIC_LOG_MAX_SIZE) {
        // The stream stays open: being in append mode, the line lands after
        // the marker the rotation leaves behind.
        RotateOnce(shared);
    }

    HIC_GetDate(date, HIC_DATE_LEN);

    va_list args;
    va_start(args, format);
    WriteLine(file.Get(), date, level, func, line, format, args);
    va_end(args);
}

void HIC_AssertReport(bool cond, const char* func, int line) {
    if (!cond) {
        (void)std::printf("*** Assertion on function \"%s\" line %d\n", func, line);
        (void)std::fflush(stdout);
    }
}
