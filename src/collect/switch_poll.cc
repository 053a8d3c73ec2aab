#include "collect/switch_poll.h"

#include <cerrno>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "collect/workspace.h"
#include "log/log.h"
#include "scsi/inquiry.h"
#include "scsi/sg_transport.h"
#include "scsi/vendor_commands.h"

int HIC_GetSwitchInfo(const HIC_LunInfo* lun, HIC_ArrayInfo* array) {
    unsigned char reply[HIC_SWITCH_REPLY_LEN];
    unsigned char version[HIC_VERSION_LEN];
    (void)memset_s(reply, sizeof(reply), 0, sizeof(reply));
    (void)memset_s(version, sizeof(version), 0, sizeof(version));
    if (lun == nullptr || array == nullptr) {
        return -1;
    }
    const int rawFd = HIC_OpenDevByPath(lun->devPath, HIC_OPEN_READ_ONLY);
    if (rawFd < 0) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed, fd:%d, errno:%d.\n", lun->devPath, rawFd, errno);
        return -1;
    }
    hic::UniqueFd fd(rawFd);
    // Older array software does not know the collect commands: it counts as
    // having answered, with no collection.
    if (HIC_CheckArrayVersion(fd.Get()) != 0) {
        return 0;
    }
    if (HIC_DoQuerySwitchStatus(fd.Get(), reply, sizeof(reply)) == -1) {
        HIC_LOG(HIC_LOG_DEBUG, "get collect switch info failed.\n");
        return -1;
    }
    const unsigned char status = reply[HIC_SWITCH_STATUS_OFFSET];
    (void)memcpy_s(version, sizeof(version), reply + HIC_SWITCH_VERSION_OFFSET, HIC_VERSION_LEN);
    if (HIC_IsValidToExecuteCollectTask(status, array, version) == -1) {
        return 0;
    }
    HIC_LOG(HIC_LOG_INFO, "Select lun %s to start the collection task for array:%s.\n",
            lun->devPath, array->arraySn);
    if (HIC_GetCollectFile(array) == -1) {
        return -1;
    }
    // Remembered before the script runs: a collection that fails later is
    // not started again for the same version.
    (void)memcpy_s(array->versions, sizeof(array->versions), version, sizeof(version));
    hic::StartCollecting(array);
    return 0;
}

int HIC_IsValidToExecuteCollectTask(unsigned char switchStatus, const HIC_ArrayInfo* array,
                                    const unsigned char* version) {
    if (array == nullptr || version == nullptr) {
        return -1;
    }
    if (switchStatus != HIC_SWITCH_ON) {
        return -1;
    }
    HIC_LOG(HIC_LOG_INFO, "Get the array{sn:%s} switchStatus %d.\n", array->arraySn, switchStatus);
    for (uint32_t i = 0; i < HIC_VERSION_LEN; ++i) {
        if (array->versions[i] != version[i]) {
            return 0;
        }
    }
    HIC_LOG(HIC_LOG_DEBUG, "the versions are not change, not execute collect.\n");
    return -1;
}
