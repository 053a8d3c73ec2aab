// The workspace of one array's collection: the serial-number check, making
// the directory and copying the scripts in, running the collection script
// and the packing command, and removing the tree again.
#ifndef HIC_COLLECT_WORKSPACE_H
#define HIC_COLLECT_WORKSPACE_H

#include <cstdint>

#include "inventory/lists.h"

constexpr const char* HIC_SCRIPT_DIR = "/Vornal/install/otherTools/";
constexpr const char* HIC_WORKSPACE_ROOT = "/opt/Vornal/";
constexpr const char* HIC_COLLECT_SCRIPT_ARG = "-scene upgrade";
constexpr unsigned int HIC_WORKSPACE_MODE = 0600;
constexpr uint32_t HIC_CHILD_PATH_LEN = 4096;

// 0 when every character before the NUL or the bound is an ASCII letter or
// digit: only such a serial number may enter a path or a shell command.
int HIC_IsValidArraySn(const char* sn, uint32_t bound);
// Forms "/opt/Vornal/<SN>" followed by leaf ("" for the workspace itself)
// in path. -1, logged under the caller's operation name func, when the
// serial number may not enter a path or the result does not fit.
int HIC_GetWorkspacePath(const char* func, const HIC_ArrayInfo* array, const char* leaf, char* path,
                         uint32_t size);
// 0 when path holds a workspace this daemon made: a real directory (not a
// link) of the daemon's user with mode 0600, never the log's directory; or,
// unless mustExist, nothing at all. Anything else: -1, one ERROR line under
// func, and nothing there is touched.
int HIC_CheckWorkspace(const char* func, const char* path, bool mustExist);
// HIC_DeleteFileByPath, only after HIC_CheckWorkspace allows it.
int HIC_RemoveWorkspace(const char* func, const char* path);
// Makes the workspace and copies the two scripts into it.
int HIC_GetCollectFile(const HIC_ArrayInfo* array);
void HIC_CreateDirectory(const char* path);
// Runs the collection script in the workspace, then packs result.tar.gz.
void HIC_ExecuteCollectScript(const HIC_ArrayInfo* array);
// Removes a regular file, or a directory with everything below it. A
// symbolic link is never followed and never removed, so a tree holding
// one stays (with the link) and nothing outside it is touched.
void HIC_DeleteFileByPath(const char* path);

#endif  // HIC_COLLECT_WORKSPACE_H
