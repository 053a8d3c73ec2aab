// The SG_IO pass-through: opening a disk node, laying out the 16-byte
// vendor command descriptor block, and submitting one command.
#ifndef HIC_SCSI_SG_TRANSPORT_H
#define HIC_SCSI_SG_TRANSPORT_H

#include <cstdint>

constexpr uint32_t HIC_CDB_LEN = 16;
constexpr uint32_t HIC_SENSE_LEN = 96;
// The request's timeout field is in milliseconds: 30 ms.
constexpr unsigned int HIC_SG_TIMEOUT = 30;
// HIC_OpenDevByPath modes: 1 read-only, anything else read-write.
constexpr int HIC_OPEN_READ_ONLY = 1;
constexpr int HIC_OPEN_READ_WRITE = 2;

// Returns the descriptor, or -1 (logged unless the path is null).
int HIC_OpenDevByPath(const char* path, int mode);

// Lays out opcode, 0, 64-bit big-endian address, 32-bit big-endian length,
// 0x81, 0 in the first 16 bytes of cdb. -1 when cdb is null or cdbLen < 16.
int HIC_BuildCdb(unsigned char* cdb, int cdbLen, unsigned char opcode, uint64_t address,
                 uint32_t length);

// The three status bytes the kernel hands back with a completed request.
struct HIC_SgStatus {
    unsigned char status;
    unsigned short hostStatus;
    unsigned short driverStatus;

    bool Clean() const { return status == 0 && hostStatus == 0 && driverStatus == 0; }
};

// Submits one command of cdbLen bytes through SG_IO with a 96-byte sense
// buffer and the fixed timeout. -1 with errno set when the ioctl itself
// fails; otherwise 0 with the three statuses in *result.
int HIC_SgExchange(int fd, unsigned char* cdb, unsigned char cdbLen, unsigned char* data,
                   unsigned int dataLen, int direction, HIC_SgStatus* result);

// The ERROR line of a failed SG_IO ioctl, under the caller's name.
void HIC_LogIoctlFailureAt(const char* func, int line, int err);
#define HIC_LogIoctlFailure(err) HIC_LogIoctlFailureAt(__func__, __LINE__, (err))

// Submits one 16-byte command; direction is SG_DXFER_TO_DEV or
// SG_DXFER_FROM_DEV. 0 only when the transport and all three statuses are
// clean; a short transfer still counts as success.
int HIC_IoctlSendCmd(int fd, unsigned char* cdb, unsigned char* data, unsigned int dataLen,
                     int direction);

#endif  // HIC_SCSI_SG_TRANSPORT_H
