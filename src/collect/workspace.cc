#include "collect/workspace.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "base/shell.h"
#include "bounded/bounded.h"
#include "log/log.h"

namespace {

bool IsAsciiAlnum(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// Removes name inside the directory dirFd; path is the same entry's full
// path, kept for the length rule of child paths. Every step works relative
// to an opened directory with O_NOFOLLOW, so a link swapped in while we
// walk cannot lead the removal out of the tree.
void DeleteAt(int dirFd, const char* name, const char* path) {
    struct stat st {};
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (S_ISREG(st.st_mode)) {
        (void)::unlinkat(dirFd, name, 0);
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        return;  // links, devices, pipes and sockets stay where they are
    }
    hic::UniqueDir dir;
    {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
        hic::UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.Valid()) {
            return;
        }
        dir.Reset(::fdopendir(fd.Get()));
        if (!dir.Valid()) {
            return;
        }
        (void)fd.Release();  // the directory stream owns it now
    }
    // On the heap: a deep tree must not exhaust a worker thread's stack.
    hic::HeapBuffer child(HIC_CHILD_PATH_LEN);
    if (!child.Valid()) {
        return;
    }
    const int fd = ::dirfd(dir.Get());
    // Each collection thread walks its own workspace with its own stream.
    while (const struct dirent* entry = ::readdir(dir.Get())) {  // NOLINT(concurrency-mt-unsafe)
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        if (sprintf_s(child.Get(), HIC_CHILD_PATH_LEN, "%s/%s", path, entry->d_name) == -1) {
            // This walk is the recursion of HIC_DeleteFileByPath: report under its name.
            HIC_WriteLog(HIC_LOG_ERROR, "HIC_DeleteFileByPath", __LINE__, "sprintf_s failed.\n");
            return;
        }
        DeleteAt(fd, entry->d_name, child.Get());
        (void)::unlinkat(fd, entry->d_name, AT_REMOVEDIR);
    }
    dir.Reset();
    (void)::unlinkat(dirFd, name, AT_REMOVEDIR);
}

// Runs a command line through the shell. Its exit status is not examined,
// but a shell that cannot start at all (no process left, no memory) is worth
// a line, under the calling operation's name: nothing it expects will be there.
void RunShell(const char* func, const char* command) {
    if (hic::RunShell(command) != 0) {
        HIC_WriteLog(HIC_LOG_ERROR, func, __LINE__, "can't run %s: %s.\n", command,
                     std::strerror(errno));
    }
}

}  // namespace

int HIC_IsValidArraySn(const char* sn, uint32_t bound) {
    if (sn == nullptr) {
        return -1;
    }
    for (uint32_t i = 0; i < bound; ++i) {
        if (sn[i] == '\0') {
            return 0;
        }
        if (!IsAsciiAlnum(sn[i])) {
            return -1;
        }
    }
    return 0;
}

int HIC_GetWorkspacePath(const char* func, const HIC_ArrayInfo* array, const char* leaf, char* path,
                         uint32_t size) {
    if (array == nullptr || leaf == nullptr || path == nullptr || size == 0) {
        return -1;
    }
    (void)memset_s(path, size, 0, size);
    if (HIC_IsValidArraySn(array->arraySn, HIC_ARRAY_SN_LEN) != 0) {
        HIC_WriteLog(HIC_LOG_ERROR, func, __LINE__, "Invalid array sn: %s.\n", array->arraySn);
        return -1;
    }
    if (sprintf_s(path, size, "%s%s%s", HIC_WORKSPACE_ROOT, array->arraySn, leaf) == -1) {
        HIC_WriteLog(HIC_LOG_ERROR, func, __LINE__, "sprintf_s failed.\n");
        return -1;
    }
    return 0;
}

int HIC_CheckWorkspace(const char* func, const char* path, bool mustExist) {
    struct stat st {};
    if (::lstat(path, &st) != 0 && errno == ENOENT && !mustExist) {
        return 0;
    }
    // A serial number can name any directory under the root, the log's
    // among them: only one this daemon made is ever removed, reused or
    // entered. Nobody else can make a directory of root's with this mode.
    if (std::strcmp(path, HIC_LOG_DIR) != 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() &&
        (st.st_mode & 07777U) == HIC_WORKSPACE_MODE) {
        return 0;
    }
    HIC_WriteLog(HIC_LOG_ERROR, func, __LINE__,
                 "The directory{%s} is not a workspace, left alone.\n", path);
    return -1;
}

int HIC_RemoveWorkspace(const char* func, const char* path) {
    if (HIC_CheckWorkspace(func, path, false) != 0) {
        return -1;
    }
    HIC_DeleteFileByPath(path);
    return 0;
}

int HIC_GetCollectFile(const HIC_ArrayInfo* array) {
    char workspace[HIC_PATH_LEN];
    if (HIC_GetWorkspacePath(__func__, array, "", workspace, sizeof(workspace)) != 0) {
        return -1;
    }
    HIC_CreateDirectory(workspace);
    // Whatever the mkdir said, only the daemon's own directory gets the scripts.
    if (HIC_CheckWorkspace(__func__, workspace, true) != 0) {
        return -1;
    }

    char command[HIC_PATH_LEN];
    (void)memset_s(command, sizeof(command), 0, sizeof(command));
    if (sprintf_s(command, sizeof(command), "cp -f %shic_collect.sh %s", HIC_SCRIPT_DIR,
                  workspace) == -1) {
        HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
        return -1;
    }
    RunShell(__func__, command);
    (void)memset_s(command, sizeof(command), 0, sizeof(command));
    if (sprintf_s(command, sizeof(command), "cp -f %shic_data.sh %s", HIC_SCRIPT_DIR, workspace) ==
        -1) {
        HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
        return -1;
    }
    RunShell(__func__, command);
    return 0;
}

void HIC_CreateDirectory(const char* path) {
    if (path == nullptr) {
        HIC_LOG(HIC_LOG_ERROR, "%s.\n", "file path is null, can not recreate");
        return;
    }
    if (::mkdir(path, HIC_WORKSPACE_MODE) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "The directory{%s} recreate fail.\n", path);
        return;
    }
    HIC_LOG(HIC_LOG_INFO, "The directory{%s} recreate success.\n", path);
}

void HIC_ExecuteCollectScript(const HIC_ArrayInfo* array) {
    if (array == nullptr) {
        return;
    }
    // Callers have checked the serial number; this checks it again before it
    // enters a shell command line.
    char workspace[HIC_PATH_LEN];
    if (HIC_GetWorkspacePath(__func__, array, "", workspace, sizeof(workspace)) != 0) {
        return;
    }

    char command[HIC_PATH_LEN];
    (void)memset_s(command, sizeof(command), 0, sizeof(command));
    if (sprintf_s(command, sizeof(command), "sh %s/hic_collect.sh %s >/dev/null 2>&1", workspace,
                  HIC_COLLECT_SCRIPT_ARG) == -1) {
        HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
        return;
    }
    HIC_LOG(HIC_LOG_DEBUG, "%s.\n", command);
    RunShell(__func__, command);

    char pack[HIC_PATH_LEN];
    (void)memset_s(pack, sizeof(pack), 0, sizeof(pack));
    if (sprintf_s(pack, sizeof(pack),
                  "cd %s/; tar zcf %s/result.tar.gz -- *.data CollectLog_*.txt >/dev/null 2>&1",
                  workspace, workspace) == -1) {
        HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
        return;
    }
    HIC_LOG(HIC_LOG_DEBUG, "%s.\n", pack);
    RunShell(__func__, pack);
}

void HIC_DeleteFileByPath(const char* path) {
    if (path == nullptr) {
        return;
    }
    DeleteAt(AT_FDCWD, path, path);
}
