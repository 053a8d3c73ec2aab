#include "collect/collect_task.h"

#include "bounded/bounded.h"
#include "collect/result_upload.h"
#include "collect/switch_poll.h"
#include "collect/workspace.h"
#include "heartbeat/heartbeat.h"
#include "inventory/array_list.h"
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

    const int ret = hic::StartCollectThread(array, HIC_CollectTaskThread);
    if (ret != 0) {
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
    if (HIC_GetWorkspacePath(__func__, array, "", workspace, sizeof(workspace)) != 0) {
        return -1;
    }
    // Nothing of an earlier task survives into this one.
    if (HIC_RemoveWorkspace(__func__, workspace) != 0) {
        return -1;
    }
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
    if (!hic::IsCollecting(array)) {
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
    if (HIC_GetWorkspacePath(__func__, array, "", workspace, sizeof(workspace)) != 0 ||
        HIC_CheckWorkspace(__func__, workspace, false) != 0) {
        hic::EndWithoutCollection(array);
        return nullptr;
    }
    hic::StartQuerying(array);

    if (HIC_GetCollectScriptFromArray(array) == -1 || !hic::IsCollecting(array)) {
        (void)HIC_RemoveWorkspace(__func__, workspace);
        hic::EndWithoutCollection(array);
        return nullptr;
    }

    HIC_WriteCollectResultToArray(array);
    if (hic::IsWorkFinished(array)) {
        HIC_LOG(HIC_LOG_INFO, "array{sn:%s} collect task execute success.\n", array->arraySn);
    } else {
        HIC_LOG(HIC_LOG_ERROR, "array{sn:%s} collect task execute failed.\n", array->arraySn);
        hic::FinishWork(array);
    }
    hic::HandBack(array);
    (void)HIC_RemoveWorkspace(__func__, workspace);
    hic::CollectThreadEnded(array);
    return nullptr;
}

int HIC_GetHostCollectSwitchInfo() {
    if (HIC_GetArrayList() == -1) {
        HIC_FreeArrayList();
        return -1;
    }
    for (HIC_ArrayInfo* array : hic::EntriesOf<HIC_ArrayInfo>(&HIC_ArrayListHead)) {
        // Idle is not enough: the previous task's threads must also be gone,
        // or the new task could lose its workspace to the ending one.
        if (HIC_IsArrayReleased(array)) {
            (void)HIC_StartCollectTaskForArray(array);
        }
    }
    return 0;
}
