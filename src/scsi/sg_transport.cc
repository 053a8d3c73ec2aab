#include "scsi/sg_transport.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "bounded/bounded.h"
#include "log/log.h"

int HIC_OpenDevByPath(const char* path, int mode) {
    if (path == nullptr) {
        return -1;
    }
    const int flags = (mode == HIC_OPEN_READ_ONLY) ? O_RDONLY : O_RDWR;
    const int fd = ::open(path, flags);  // NOLINT(cppcoreguidelines-pro-type-vararg)
    if (fd < 0) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", path);
        return fd;
    }
    return fd;
}

int HIC_BuildCdb(unsigned char* cdb, int cdbLen, unsigned char opcode, uint64_t address,
                 uint32_t length) {
    if (cdb == nullptr || cdbLen < HIC_CDB_LEN) {
        return -1;
    }
    cdb[0] = opcode;
    cdb[1] = 0x00;
    for (int i = 0; i < 8; ++i) {
        cdb[2 + i] = static_cast<unsigned char>(address >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; ++i) {
        cdb[10 + i] = static_cast<unsigned char>(length >> (24 - 8 * i));
    }
    cdb[14] = 0x81;
    cdb[15] = 0x00;
    return 0;
}

int HIC_IoctlSendCmd(int fd, unsigned char* cdb, unsigned char* data, unsigned int dataLen,
                     int direction) {
    unsigned char sense[HIC_SENSE_LEN];
    (void)memset_s(sense, sizeof(sense), 0, sizeof(sense));
    if (cdb == nullptr || data == nullptr) {
        return -1;
    }

    sg_io_hdr_t hdr;
    (void)memset_s(&hdr, sizeof(hdr), 0, sizeof(hdr));
    hdr.interface_id = 'S';
    hdr.dxfer_direction = direction;
    hdr.cmd_len = HIC_CDB_LEN;
    hdr.mx_sb_len = HIC_SENSE_LEN;
    hdr.dxfer_len = dataLen;
    hdr.dxferp = data;
    hdr.cmdp = cdb;
    hdr.sbp = sense;
    hdr.timeout = HIC_SG_TIMEOUT;

    if (::ioctl(fd, SG_IO, &hdr) < 0) {  // NOLINT(cppcoreguidelines-pro-type-vararg)
        const int err = errno;
        HIC_LOG(HIC_LOG_ERROR, "ioctl(SG_IO) failed: %s (errno=%d).\n", std::strerror(err), err);
        return -1;
    }
    if (hdr.status == 0 && hdr.host_status == 0 && hdr.driver_status == 0) {
        return 0;
    }
    HIC_LOG(HIC_LOG_DEBUG, "send ioctl failed. status:%d, host_status:%d, driver_status:%d.\n",
            hdr.status, hdr.host_status, hdr.driver_status);
    return -1;
}
