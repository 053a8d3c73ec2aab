// pidfile-guard: start helper of the systemd unit. The daemon forks twice
// and never tells systemd it is ready, so systemd learns its pid from a pid
// file alone; this gives systemd the right one without changing the daemon.
//
//   pidfile-guard pre         (ExecStartPre=) refuse to start while another
//                             process, a daemon started by hand, holds the
//                             lock of the daemon's pid file.
//   pidfile-guard post FILE   (ExecStartPost=) wait until the daemon's pid
//                             file names a process of this unit that holds
//                             the file's write lock, then write that pid to
//                             FILE, the unit's PIDFile=; fail as soon as no
//                             other process is left in the unit, showing
//                             the daemon's last log lines.
//
// The unit's PIDFile= is not the daemon's own file: systemd never reads a
// stale pid from it, and when the unit stops or fails systemd deletes it,
// which must not happen to the file of a daemon started by hand. Exit
// status 0 on success, 1 otherwise, with the reason on standard error.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/handles.h"
#include "core/process.h"
#include "log/log.h"

namespace {

constexpr const char* kProg = "pidfile-guard";
// Between two looks at the pid file while the daemon starts.
constexpr long kPollNs = 10L * 1000 * 1000;
// Enough for every cgroup line of a process; longer files never match.
constexpr size_t kCgroupLen = 4096;
// Log lines shown when the daemon ended during start-up.
constexpr int kLogTailLines = 3;
constexpr long kLogTailBytes = 2048;

void Fail(const char* what) {
    std::fprintf(stderr, "%s: %s: %s\n", kProg, what, std::strerror(errno));
}

// The pid holding a lock that conflicts with a whole-file write lock; 0 when
// there is none, -1 on error.
pid_t LockHolder(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd, F_GETLK, &lock) < 0) {
        return -1;
    }
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

// Reads at most size - 1 bytes of a small file into buf, zero-terminated;
// the length read, or -1.
ssize_t ReadSmallFile(const char* path, char* buf, size_t size) {
    hic::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) {
        return -1;
    }
    size_t len = 0;
    while (len + 1 < size) {
        const ssize_t n = read(fd.Get(), buf + len, size - 1 - len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        len += static_cast<size_t>(n);
    }
    buf[len] = '\0';
    return static_cast<ssize_t>(len);
}

// The cgroup membership of a process, as /proc/PID/cgroup lists it; two
// processes of one unit list the same lines. False when it cannot be read.
bool CgroupOf(pid_t pid, char* buf) {
    char path[64];
    (void)std::snprintf(path, sizeof(path), "/proc/%d/cgroup", static_cast<int>(pid));
    const ssize_t len = ReadSmallFile(path, buf, kCgroupLen);
    return len > 0 && static_cast<size_t>(len) + 1 < kCgroupLen;
}

// A live process (not a zombie) of the same cgroups as this one.
bool InMyUnit(pid_t pid, const char* mine) {
    char stat[512];
    char path[64];
    (void)std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    if (ReadSmallFile(path, stat, sizeof(stat)) <= 0) {
        return false;
    }
    // The state follows the command name, which may itself hold ") ".
    const char* end = std::strrchr(stat, ')');
    if (end == nullptr || end[1] != ' ' || end[2] == 'Z' || end[2] == 'X') {
        return false;
    }
    char theirs[kCgroupLen];
    return CgroupOf(pid, theirs) && std::strcmp(theirs, mine) == 0;
}

// Whether any process of this unit but this helper is alive.
bool OthersInMyUnit(const char* mine) {
    hic::UniqueDir proc(opendir("/proc"));
    if (!proc.Valid()) {
        return true;  // cannot tell: let systemd's start timeout decide
    }
    const pid_t self = getpid();
    while (const struct dirent* entry = readdir(proc.Get())) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && *end == '\0' && pid != self && InMyUnit(static_cast<pid_t>(pid), mine)) {
            return true;
        }
    }
    return false;
}

// The pid the file names (decimal digits, then a NUL byte, a line end or
// nothing), or 0; holder gets the pid holding the file's lock, or 0.
pid_t ReadPidFile(pid_t* holder) {
    *holder = 0;
    hic::UniqueFd fd(open(HIC_PID_FILE, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.Valid()) {
        return 0;
    }
    char text[32] = {};
    const ssize_t n = pread(fd.Get(), text, sizeof(text) - 1, 0);
    if (n <= 0) {
        return 0;
    }
    char* end = nullptr;
    const long pid = std::strtol(text, &end, 10);
    if (end == text || (*end != '\0' && *end != '\n') || pid <= 0) {
        return 0;
    }
    *holder = LockHolder(fd.Get());
    return static_cast<pid_t>(pid);
}

// The last lines of the daemon's log, where it says why it ended.
void ShowLogTail() {
    hic::UniqueFd fd(open(HIC_LOG_PATH, O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd.Valid() || fstat(fd.Get(), &st) < 0) {
        return;
    }
    char text[kLogTailBytes + 1] = {};
    const off_t from = st.st_size > kLogTailBytes ? st.st_size - kLogTailBytes : 0;
    const ssize_t n = pread(fd.Get(), text, kLogTailBytes, from);
    if (n <= 0) {
        return;
    }
    const char* end = text + n;
    const char* start = end;
    for (int lines = 0; start > text; --start) {
        if (start != end && start[-1] == '\n' && ++lines == kLogTailLines) {
            break;
        }
    }
    std::fprintf(stderr, "%s: last lines of %s:\n%s", kProg, HIC_LOG_PATH, start);
}

int Pre() {
    hic::UniqueFd fd(open(HIC_PID_FILE, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.Valid()) {
        if (errno == ENOENT) {
            return 0;  // first start: the daemon creates the file
        }
        Fail(HIC_PID_FILE);
        return 1;
    }
    const pid_t holder = LockHolder(fd.Get());
    if (holder < 0) {
        Fail(HIC_PID_FILE);
        return 1;
    }
    if (holder > 0) {
        std::fprintf(stderr,
                     "%s: %s is locked by process %d: vn_hostinfo already runs outside this "
                     "unit; stop it before starting the unit\n",
                     kProg, HIC_PID_FILE, static_cast<int>(holder));
        return 1;
    }
    return 0;
}

// Writes the pid for systemd: a new file renamed over the old one, so that
// systemd never reads it half written.
int WriteUnitPidFile(const char* path, pid_t pid) {
    char tmp[4096];
    const int len = std::snprintf(tmp, sizeof(tmp), "%s.new", path);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(tmp)) {
        std::fprintf(stderr, "%s: %s: name too long\n", kProg, path);
        return 1;
    }
    hic::UniqueFd fd(open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    char text[32];
    const int n = std::snprintf(text, sizeof(text), "%d\n", static_cast<int>(pid));
    if (!fd.Valid() || write(fd.Get(), text, static_cast<size_t>(n)) != n ||
        rename(tmp, path) < 0) {
        Fail(path);
        (void)unlink(tmp);
        return 1;
    }
    return 0;
}

int Post(const char* unitPidFile) {
    char mine[kCgroupLen];
    if (!CgroupOf(getpid(), mine)) {
        Fail("/proc/self/cgroup");
        return 1;
    }
    const struct timespec poll = {0, kPollNs};
    for (;;) {
        pid_t holder = 0;
        const pid_t named = ReadPidFile(&holder);
        if (named > 0 && named == holder && InMyUnit(named, mine)) {
            return WriteUnitPidFile(unitPidFile, named);
        }
        if (!OthersInMyUnit(mine)) {
            std::fprintf(stderr, "%s: vn_hostinfo ended during start-up\n", kProg);
            ShowLogTail();
            return 1;
        }
        (void)nanosleep(&poll, nullptr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "pre") == 0) {
        return Pre();
    }
    if (argc == 3 && std::strcmp(argv[1], "post") == 0) {
        return Post(argv[2]);
    }
    std::fprintf(stderr, "usage: %s pre | %s post FILE\n", kProg, kProg);
    return 2;
}
