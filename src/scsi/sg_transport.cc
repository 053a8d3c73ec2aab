#include "scsi/sg_transport.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "base/coding.h"
#include "bounded/bounded.h"
#include "log/log.h"

int HIC_OpenDevByPath(const char* path, int mode) {
    if (path == nullptr) {
        return -1;
    }
    // Close-on-exec: a shell command started meanwhile must not inherit a disk.
    const int flags = ((mode == HIC_OPEN_READ_ONLY) ? O_RDONLY : O_RDWR) | O_CLOEXEC;
    const int fd = ::open(path, flags);  // NOLINT(cppcoreguidelines-pro-type-vararg)
    if (fd < 0) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", path);
        return fd;
    }
    return fd;
}

int HIC_BuildCdb(unsigned char* cdb, int cdbLen, unsigned char opcode, uint64_t address,
                 uint32_t length) {
    if (cdb == nullptr || cdbLen < static_cast<int>(HIC_CDB_LEN)) {
        return -1;
    }
    cdb[0] = opcode;
    cdb[1] = 0x00;
    hic::EncodeBigEndian64(cdb + 2, address);
    hic::EncodeBigEndian32(cdb + 10, length);
    cdb[14] = 0x81;
    cdb[15] = 0x00;
    return 0;
}

void HIC_LogIoctlFailureAt(const char* func, int line, int err) {
    HIC_WriteLog(HIC_LOG_ERROR, func, line, "ioctl(SG_IO) failed: %s (errno=%d).\n",
                 std::strerror(err), err);
}

int HIC_SgExchange(int fd, unsigned char* cdb, unsigned char cdbLen, unsigned char* data,
                   unsigned int dataLen, int direction, HIC_SgStatus* result) {
    unsigned char sense[HIC_SENSE_LEN];
    (void)memset_s(sense, sizeof(sense), 0, sizeof(sense));

    sg_io_hdr_t hdr;
    (void)memset_s(&hdr, sizeof(hdr), 0, sizeof(hdr));
    hdr.interface_id = 'S';
    hdr.dxfer_direction = direction;
    hdr.cmd_len = cdbLen;
    hdr.mx_sb_len = HIC_SENSE_LEN;
    hdr.dxfer_len = dataLen;
    hdr.dxferp = data;
    hdr.cmdp = cdb;
    hdr.sbp = sense;
    hdr.timeout = HIC_SG_TIMEOUT;

    if (::ioctl(fd, SG_IO, &hdr) < 0) {  // NOLINT(cppcoreguidelines-pro-type-vararg)
        return -1;
    }
    result->status = hdr.status;
    result->hostStatus = hdr.host_status;
    result->driverStatus = hdr.driver_status;
    return 0;
}

int HIC_IoctlSendCmd(int fd, unsigned char* cdb, unsigned char* data, unsigned int dataLen,
                     int direction) {
    if (cdb == nullptr || data == nullptr) {
        return -1;
    }
    HIC_SgStatus st{};
    if (HIC_SgExchange(fd, cdb, HIC_CDB_LEN, data, dataLen, direction, &st) != 0) {
        HIC_LogIoctlFailure(errno);
        return -1;
    }
    if (st.Clean()) {
        return 0;
    }
    HIC_LOG(HIC_LOG_DEBUG, "send ioctl failed. status:%d, host_status:%d, driver_status:%d.\n",
            st.status, st.hostStatus, st.driverStatus);
    return -1;
}
