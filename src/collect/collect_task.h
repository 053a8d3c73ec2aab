// The main loop's array step, and the collection task it starts: a detached
// thread per array that asks the array through up to four of its LUNs
// whether it wants a collection, and if so starts the heartbeat, runs the
// script, uploads the result, and in every case removes the workspace and
// hands the array back.
#ifndef HIC_COLLECT_COLLECT_TASK_H
#define HIC_COLLECT_COLLECT_TASK_H

#include "inventory/lists.h"

// LUNs of one array asked in one task, at most.
constexpr int HIC_MAX_QUERY_LUNS = 4;

// Brings the array list up to date and starts a collection task for every
// array that no thread holds. -1 when the array list could not be built.
int HIC_GetHostCollectSwitchInfo();
// Reads the host address afresh into the record and starts the thread.
int HIC_StartCollectTaskForArray(HIC_ArrayInfo* array);
// Thread entry; arg is the HIC_ArrayInfo.
void* HIC_CollectTaskThread(void* arg);
// Queries the LUNs; if the array asks, starts the heartbeat and runs the script.
int HIC_GetCollectScriptFromArray(HIC_ArrayInfo* array);
// Removes the array's old workspace, then asks this LUN with HIC_GetSwitchInfo.
int HIC_StartQueryCollectInfoByLun(const HIC_LunInfo* lun, HIC_ArrayInfo* array);

#endif  // HIC_COLLECT_COLLECT_TASK_H
