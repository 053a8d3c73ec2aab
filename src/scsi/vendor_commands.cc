#include "scsi/vendor_commands.h"

#include <scsi/sg.h>

#include "bounded/bounded.h"
#include "log/log.h"
#include "scsi/sg_transport.h"

int HIC_SendHeartBeat(int fd, unsigned char* payload, unsigned int payloadLen, uint64_t address) {
    unsigned char cdb[HIC_CDB_LEN];
    (void)memset_s(cdb, sizeof(cdb), 0, sizeof(cdb));
    if (payload == nullptr) {
        return -1;
    }
    if (HIC_BuildCdb(cdb, HIC_CDB_LEN, HIC_OPCODE_HEARTBEAT, address, payloadLen) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "build cdb failed.\n");
        return -1;
    }
    if (HIC_IoctlSendCmd(fd, cdb, payload, payloadLen, SG_DXFER_TO_DEV) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "send heartbeat failed.\n");
        return -1;
    }
    return 0;
}

int HIC_DoWriteBufToArray(int fd, unsigned char* buf, unsigned int bufLen, int32_t offset) {
    unsigned char cdb[HIC_CDB_LEN];
    (void)memset_s(cdb, sizeof(cdb), 0, sizeof(cdb));
    if (buf == nullptr || offset < 0) {
        return -1;
    }
    // Sign extension is harmless: only non-negative offsets get here.
    const auto address = static_cast<uint64_t>(static_cast<int64_t>(offset));
    if (HIC_BuildCdb(cdb, HIC_CDB_LEN, HIC_OPCODE_WRITE_BUF, address, bufLen) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "build cdb failed.\n");
        return -1;
    }
    if (HIC_IoctlSendCmd(fd, cdb, buf, bufLen, SG_DXFER_TO_DEV) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "write to array failed.\n");
        return -1;
    }
    return 0;
}

int HIC_DoQuerySwitchStatus(int fd, unsigned char* buf, unsigned int bufLen) {
    unsigned char cdb[HIC_CDB_LEN];
    (void)memset_s(cdb, sizeof(cdb), 0, sizeof(cdb));
    if (buf == nullptr) {
        return -1;
    }
    (void)memset_s(buf, bufLen, 0, bufLen);
    if (HIC_BuildCdb(cdb, HIC_CDB_LEN, HIC_OPCODE_QUERY_SWITCH, 0, HIC_SWITCH_REPLY_LEN) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "build cdb failed.\n");
        return -1;
    }
    if (HIC_IoctlSendCmd(fd, cdb, buf, bufLen, SG_DXFER_FROM_DEV) != 0) {
        HIC_LOG(HIC_LOG_DEBUG, "query collect switch failed.\n");
        return -1;
    }
    return 0;
}
