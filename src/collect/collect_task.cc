#include "collect/collect_task.h"

#include <pthread.h>

#include "bounded/bounded.h"
#include "collect/result_upload.h"
#include "collect/switch_poll.h"
#include "collect/workspace.h"
#include "heartbeat/heartbeat.h"
#include "log/log.h"
#include "settings/host_address.h"

int HIC_StartCollectTaskForArray(HIC_ArrayInfo* array) {
    if (array == nullptr) {
        return -1;
    }
    unsigned char hostIp[HIC_IP_ADDR_LEN];
    unsigned char ipType = 0;
    (void)memset_s(hostIp, sizeof(hostIp), 0, sizeof(hostIp));
    if (HIC_GetSendIPAndType(hostIp, sizeof(hostIp), &ipType) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "Get host ip or iptype failed.\n");
        return -1;
    }
    (void)memcpy_s(array->hostIp, sizeof(array->hostIp), hostIp, sizeof(hostIp));
    array->ipType = ipType;

    pthread_attr_t attr;
    (void)pthread_attr_init(&attr);
    (void)pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // Raised before the thread exists, so the main loop never sees the
    // array released while its thread is starting.
    array->collectRunning.store(1);
    pthread_t tid;
    const int ret = pthread_create(&tid, &attr, HIC_CollectTaskThread, array);
    (void)pthread_attr_destroy(&attr);
    if (ret != 0) {
        array->collectRunning.store(0);
        HIC_LOG(HIC_LOG_INFO, "fail to create pthread HIC_CollectTaskThread, ret:%d.\n", ret);
        return -1;
    }
    return 0;
}

int HIC_StartQueryCollectInfoByLun(const HIC_LunInfo* lun, HIC_ArrayInfo* array) {
    if (lun == nullptr || array == nullptr) {
        return -1;
    }
    char workspace[HIC_PATH_LEN];
    if (HIC_GetWorkspacePath(array, "", workspace, sizeof(workspace)) != 0) {
        return -1;
    }
    // Nothing of an earlier task survives into this one.
    HIC_DeleteFileByPath(workspace);
    return HIC_GetSwitchInfo(lun, array) == -1 ? -1 : 0;
}

int HIC_GetCollectScriptFromArray(HIC_ArrayInfo* array) {
    if (array == nullptr) {
        return -1;
    }
    int failed = 0;
    bool answered = false;
    for (const HIC_LunInfo* lun : hic::LunsOf(HIC_GetLunListHead(), array->arraySn)) {
        if (failed >= HIC_MAX_QUERY_LUNS) {
            return -1;
        }
        HIC_LOG(HIC_LOG_DEBUG, "Select lun %s.\n", lun->devPath);
        if (HIC_StartQueryCollectInfoByLun(lun, array) == 0) {
            answered = true;
            break;
        }
        ++failed;
    }
    if (!answered) {
        return 0;  // still querying: the thread takes it as no collection
    }
    if (array->taskState.load() != HIC_TASK_COLLECTING) {
        return -1;
    }
    if (HIC_HeartBeatThreadCreate(array) != 0) {
        return -1;
    }
    HIC_ExecuteCollectScript(array);
    return 0;
}

void* HIC_CollectTaskThread(void* arg) {
    auto* array = static_cast<HIC_ArrayInfo*>(arg);
    if (array == nullptr) {
        return nullptr;
    }
    char workspace[HIC_PATH_LEN];
    if (HIC_GetWorkspacePath(array, "", workspace, sizeof(workspace)) != 0) {
        array->collectRunning.store(0);
        return nullptr;
    }
    array->taskState.store(HIC_TASK_QUERYING);

    if (HIC_GetCollectScriptFromArray(array) == -1 ||
        array->taskState.load() != HIC_TASK_COLLECTING) {
        // No collection. The workspace goes before the array is released.
        HIC_DeleteFileByPath(workspace);
        array->taskState.store(HIC_TASK_IDLE);
        array->collectRunning.store(0);
        return nullptr;
    }

    HIC_WriteCollectResultToArray(array);
    if (array->taskState.load() == HIC_TASK_FINISHED) {
        HIC_LOG(HIC_LOG_INFO, "array{sn:%s} collect task execute success.\n", array->arraySn);
    } else {
        HIC_LOG(HIC_LOG_ERROR, "array{sn:%s} collect task execute failed.\n", array->arraySn);
        array->taskState.store(HIC_TASK_FINISHED);  // also stops the heartbeat
    }
    // The heartbeat may make the array idle at any moment from here on, but
    // collectRunning keeps a new task away until the workspace is gone.
    if (array->heartBeatRunning.load() == 0) {
        int32_t finished = HIC_TASK_FINISHED;
        (void)array->taskState.compare_exchange_strong(finished, HIC_TASK_IDLE);
    }
    HIC_DeleteFileByPath(workspace);
    array->collectRunning.store(0);
    return nullptr;
}
