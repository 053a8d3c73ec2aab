// Start-up services of the daemon process: moving into the background,
// the single-instance lock on the pid file, and the product check.
#ifndef HIC_CORE_PROCESS_H
#define HIC_CORE_PROCESS_H

constexpr const char* HIC_PID_FILE = "/Vornal/install/otherTools/hostInfoCollect.pid";
constexpr unsigned int HIC_PID_FILE_MODE = 0600;
// Nothing the daemon or its children create is writable by others.
constexpr unsigned int HIC_UMASK = 022;
// Opened on descriptors 0 to 2 once every descriptor is closed.
constexpr const char* HIC_DEV_NULL = "/dev/null";
// Descriptors closed when the hard limit is unlimited.
constexpr long HIC_DEFAULT_FD_LIMIT = 1024;

constexpr const char* HIC_VNADMIN_PRESENCE_CMD = "which vnadmin >/dev/null 2>&1";
constexpr const char* HIC_VNADMIN_VERSION_CMD =
    "vnadmin show version | grep \"Driver\" | awk '{printf $NF}'";

// Double fork into a new session with SIGHUP ignored, working directory
// "/", umask 022, every descriptor closed and /dev/null on 0 to 2. Returns only in the daemon;
// every other process, and any failure, ends here.
void HIC_TakeTheProgramRunToBackground();
// 0 when this process holds the pid-file lock and has written its pid.
int HIC_CheckIsAlreadyRunning();
// Whole-file write lock with F_SETLK; the fcntl result.
int HIC_LockPidFile(int fd);
int HIC_GetPidFileFd();
// 0 when the management tool is present with a driver newer than 31.0.26.
int HIC_CheckVornal();

#endif  // HIC_CORE_PROCESS_H
