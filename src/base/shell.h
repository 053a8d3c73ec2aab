// Running a command line through the system shell.
#ifndef HIC_BASE_SHELL_H
#define HIC_BASE_SHELL_H

#include <cstdlib>

namespace hic {

// Runs `command` through /bin/sh and waits for it. What the command itself
// exits with is not looked at (the daemon's commands discard their output and
// are judged by what they leave behind); -1, with errno set, means that no
// shell could be started at all.
inline int RunShell(const char* command) {
    const int status = std::system(command);  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return status == -1 ? -1 : 0;
}

}  // namespace hic

#endif  // HIC_BASE_SHELL_H
