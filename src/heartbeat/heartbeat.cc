#include "heartbeat/heartbeat.h"

#include <unistd.h>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "log/log.h"
#include "scsi/sg_transport.h"
#include "scsi/vendor_commands.h"

namespace {

constexpr unsigned int kVersionOffset = 4;
constexpr unsigned int kHostIpOffset = 8;
constexpr unsigned int kHostIpRoom = 20;
constexpr unsigned int kIpTypeOffset = 25;

}  // namespace

void HIC_BuildHeartBeatPayload(unsigned char* payload, const HIC_ArrayInfo* array) {
    (void)memset_s(payload, HIC_HEARTBEAT_LEN, 0, HIC_HEARTBEAT_LEN);
    payload[0] = 0x00;
    payload[1] = 0x81;
    payload[2] = 0x00;
    payload[3] = HIC_HEARTBEAT_LEN;
    (void)memcpy_s(payload + kVersionOffset, HIC_VERSION_LEN, array->versions, HIC_VERSION_LEN);
    (void)memcpy_s(payload + kHostIpOffset, kHostIpRoom, array->hostIp, HIC_IP_ADDR_LEN);
    payload[kIpTypeOffset] = array->ipType;
}

int HIC_SendHeartBeatByLun(const HIC_LunInfo* lun, unsigned char* payload, HIC_ArrayInfo* array) {
    if (lun == nullptr || payload == nullptr || array == nullptr) {
        return -1;
    }
    hic::UniqueFd fd(HIC_OpenDevByPath(lun->devPath, HIC_OPEN_READ_WRITE));
    if (!fd.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", lun->devPath);
        return -1;
    }
    for (;;) {
        if (hic::IsWorkFinished(array)) {
            HIC_LOG(HIC_LOG_INFO, "Pthread HeartBeatC9 exit.\n");
            return 0;
        }
        if (HIC_SendHeartBeat(fd.Get(), payload, HIC_HEARTBEAT_LEN, 0) == -1) {
            fd.Reset();
            HIC_LOG(HIC_LOG_ERROR, "send HeartBeatC9 failed on dev %s.\n", lun->devPath);
            return -1;
        }
        HIC_LOG(HIC_LOG_INFO, "send HeartBeat C9 to array{sn:%s}.\n", array->arraySn);
        (void)sleep(HIC_HEARTBEAT_PERIOD);
    }
}

void* HIC_SendC9ToArray(void* arg) {
    auto* array = static_cast<HIC_ArrayInfo*>(arg);
    if (array == nullptr) {
        return nullptr;
    }
    HIC_LOG(HIC_LOG_INFO, "start HeartBeat thread.\n");
    {
        hic::HeapBuffer payload(HIC_HEARTBEAT_LEN);
        if (payload.Valid()) {
            auto* bytes = reinterpret_cast<unsigned char*>(payload.Get());
            HIC_BuildHeartBeatPayload(bytes, array);
            // The first LUN of the array carries the heartbeats; a failed one
            // is not tried again by this thread.
            for (const HIC_LunInfo* lun : hic::LunsOf(&HIC_LunListHead, array->arraySn)) {
                if (HIC_SendHeartBeatByLun(lun, bytes, array) != -1) {
                    break;
                }
            }
        }
    }
    // Done with the LUN list and the payload before the array may go idle.
    hic::HeartbeatEnded(array);
    return nullptr;
}

int HIC_HeartBeatThreadCreate(HIC_ArrayInfo* array) {
    if (array == nullptr) {
        return -1;
    }
    HIC_LOG(HIC_LOG_INFO, "start HeartBeat C9 to array: %s.\n", array->arraySn);
    const int ret = hic::StartHeartbeatThread(array, HIC_SendC9ToArray);
    if (ret != 0) {
        HIC_LOG(HIC_LOG_ERROR, "fail to create pthread heartBeatC9, ret:%d.\n", ret);
        return -1;
    }
    return 0;
}
