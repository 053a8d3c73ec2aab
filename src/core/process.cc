#include "core/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "log/log.h"

namespace {

constexpr int kVersionLen = 256;
constexpr int kPidTextLen = 16;

// The pid file stays open, and its lock held, for the daemon's whole life.
int g_pidFileFd = -1;

// atoi's reading of a version piece: blanks, a sign, digits; no digits 0.
int PieceToInt(const char* piece) {
    long value = std::strtol(piece, nullptr, 10);
    if (value > 0x7FFFFFFFL) {
        value = 0x7FFFFFFFL;
    } else if (value < -0x7FFFFFFFL) {
        value = -0x7FFFFFFFL;
    }
    return static_cast<int>(value);
}

// The lock is ours but the file cannot say so: give up like a second instance.
int PidFileWriteFailed() {
    HIC_WriteLog(HIC_LOG_ERROR, "HIC_CheckIsAlreadyRunning", __LINE__, "can't write %s: %s.\n",
                 HIC_PID_FILE, std::strerror(errno));
    return -1;
}

}  // namespace

void HIC_TakeTheProgramRunToBackground() {
    (void)umask(HIC_UMASK);
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) {
        HIC_LOG(HIC_LOG_ERROR, "can't get file limit.\n");
        std::exit(1);
    }
    pid_t pid = fork();
    if (pid < 0) {
        HIC_LOG(HIC_LOG_ERROR, "fork failed.\n");
        std::exit(1);
    }
    if (pid != 0) {
        std::exit(0);
    }
    (void)setsid();
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;  // NOLINT(cppcoreguidelines-pro-type-union-access)
    (void)sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    if (sigaction(SIGHUP, &sa, nullptr) < 0) {
        HIC_LOG(HIC_LOG_ERROR, "can't ignore SIGHUP.\n");
        std::exit(1);
    }
    pid = fork();
    if (pid < 0) {
        std::exit(1);
    }
    if (pid != 0) {
        std::exit(0);
    }
    // Holding the start directory would keep its file system busy for good.
    if (chdir("/") != 0) {
        HIC_LOG(HIC_LOG_ERROR, "can't change directory to /: %s.\n", std::strerror(errno));
        std::exit(1);
    }
    (void)umask(HIC_UMASK);
    const long max = (limit.rlim_max == RLIM_INFINITY) ? HIC_DEFAULT_FD_LIMIT
                                                       : static_cast<long>(limit.rlim_max);
    for (long fd = 0; fd < max; ++fd) {
        (void)close(static_cast<int>(fd));
    }
    // Left empty, 0 to 2 would go to the next files opened (the pid file, a
    // disk), and every child's output and any stray write with them.
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
        if (open(HIC_DEV_NULL, O_RDWR) != fd) {  // NOLINT(cppcoreguidelines-pro-type-vararg)
            break;
        }
    }
}

int HIC_LockPidFile(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return fcntl(fd, F_SETLK, &lock);  // NOLINT(cppcoreguidelines-pro-type-vararg)
}

int HIC_GetPidFileFd() {
    return g_pidFileFd;
}

int HIC_CheckIsAlreadyRunning() {
    char text[kPidTextLen];
    (void)memset_s(text, sizeof(text), 0, sizeof(text));
    g_pidFileFd = open(HIC_PID_FILE, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,  // NOLINT
                       HIC_PID_FILE_MODE);
    if (g_pidFileFd < 0) {
        HIC_LOG(HIC_LOG_ERROR, "can't open %s: %s.\n", HIC_PID_FILE, std::strerror(errno));
        return -1;
    }
    if (HIC_LockPidFile(g_pidFileFd) < 0) {
        const int err = errno;
        if (err == EACCES || err == EAGAIN) {
            (void)close(g_pidFileFd);
        }
        HIC_LOG(HIC_LOG_ERROR, "can't lock %s: %s.\n", HIC_PID_FILE, std::strerror(err));
        return -1;
    }
    if (ftruncate(g_pidFileFd, 0) != 0) {
        return PidFileWriteFailed();
    }
    if (sprintf_s(text, sizeof(text), "%ld", static_cast<long>(getpid())) == -1) {
        return -1;
    }
    // The digits and their NUL, at the start of the file. A pid file that
    // names no process, or the wrong one, would mislead whoever stops us.
    const std::size_t len = std::strlen(text) + 1;
    if (pwrite(g_pidFileFd, text, len, 0) != static_cast<ssize_t>(len)) {
        return PidFileWriteFailed();
    }
    return 0;
}

int HIC_CheckVornal() {
    if (std::system(HIC_VNADMIN_PRESENCE_CMD) != 0) {  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
        HIC_LOG(HIC_LOG_ERROR, "Vornal is not installed in the OS.\n");
        return -1;
    }
    hic::UniquePipe pipe(popen(HIC_VNADMIN_VERSION_CMD, "re"));
    if (!pipe.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "popen failed.\n");
        return 0;
    }
    char version[kVersionLen];
    (void)memset_s(version, sizeof(version), 0, sizeof(version));
    if (std::fgets(version, sizeof(version), pipe.Get()) == nullptr || version[0] == '\0') {
        return 0;
    }
    version[kVersionLen - 1] = '\0';
    HIC_LOG(HIC_LOG_INFO, "The Vornal version is %s.\n", version);

    // Missing pieces count as 0: "31" reads as 31.0.0, "31.0" as 31.0.0.
    int parts[3] = {0, 0, 0};
    char* ctx = nullptr;
    char* piece = strtok_s(version, ".", &ctx);
    for (int i = 0; i < 3 && piece != nullptr; ++i) {
        parts[i] = PieceToInt(piece);
        piece = strtok_s(nullptr, ".", &ctx);
    }
    pipe.Reset();
    const int major = parts[0];
    const int minor = parts[1];
    const int patch = parts[2];
    if (major <= 30 || (major == 31 && minor == 0 && patch <= 26)) {
        HIC_LOG(HIC_LOG_ERROR, "The Vornal version is too low.\n");
        return -1;
    }
    return 0;
}
