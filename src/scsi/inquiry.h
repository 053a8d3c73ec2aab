// INQUIRY and the readers of a LUN's identity: vendor, LUN name, WWN, array
// name, array software version and array serial number. Each reader issues
// one INQUIRY on a descriptor the caller opened and takes fixed byte ranges
// out of the returned page.
#ifndef HIC_SCSI_INQUIRY_H
#define HIC_SCSI_INQUIRY_H

#include <cstdint>

constexpr uint32_t HIC_INQUIRY_CDB_LEN = 6;
constexpr unsigned char HIC_INQUIRY_OPCODE = 0x12;

// Pages the readers use, each with the allocation length asked for.
constexpr unsigned char HIC_PAGE_STANDARD = 0x00;
constexpr uint32_t HIC_STANDARD_INQ_LEN = 36;
constexpr unsigned char HIC_PAGE_UNIT_SN = 0x80;
constexpr uint32_t HIC_UNIT_SN_INQ_LEN = 28;
constexpr unsigned char HIC_PAGE_DEVICE_ID = 0x83;
constexpr uint32_t HIC_DEVICE_ID_INQ_LEN = 24;
constexpr unsigned char HIC_PAGE_ARRAY_VERSION = 0xC0;
constexpr uint32_t HIC_ARRAY_VERSION_INQ_LEN = 716;
constexpr unsigned char HIC_PAGE_LUN_INFO = 0xC8;
constexpr uint32_t HIC_LUN_INFO_INQ_LEN = 512;

// The 13 characters a serial number may not contain: it names a directory
// and enters shell command lines.
constexpr const char* HIC_SN_FORBIDDEN_CHARS = "<>\"\\|?*;&$`\n!";

// Zero-fills buf over len, then one INQUIRY (6-byte CDB, data in) of len.
int HIC_DoInquiry(int fd, unsigned char evpd, unsigned char page, unsigned char* buf,
                  unsigned int len);

int HIC_GetVendorId(int fd, char* buf, uint32_t capacity);
int HIC_GetLunName(int fd, char* buf, uint32_t capacity);
int HIC_GetLunWwn(int fd, char* buf, uint32_t capacity);
int HIC_GetArrayName(int fd, char* buf, uint32_t capacity);
// 0 when the array software is 2.7 or later; -1 when older or unreadable.
int HIC_CheckArrayVersion(int fd);
// -1 also when the serial number holds one of the forbidden characters.
int HIC_GetArraySn(int fd, char* buf, uint32_t capacity);

// Renders count bytes of src from index start as lowercase hex pairs, as
// many as fit with a NUL into capacity.
int HIC_TransBinaryToAscii(const unsigned char* src, uint32_t start, uint32_t count, char* out,
                           uint32_t capacity);
// -1 when text is null or one of the forbidden characters occurs before
// the bound or the first NUL.
int HIC_CheckInvalidChars(const char* text, uint32_t bound);

#endif  // HIC_SCSI_INQUIRY_H
