// Discovery of the served LUNs under /sys/block at start-up, and the
// identity read that both discovery and the management-tool refresh use.
#ifndef HIC_INVENTORY_DISCOVERY_H
#define HIC_INVENTORY_DISCOVERY_H

#include <dirent.h>

#include <cstdint>

#include "inventory/lists.h"

constexpr const char* HIC_SYS_BLOCK_DIR = "/sys/block";
constexpr const char* HIC_VENDOR_TRELOX = "TRELOX";
constexpr const char* HIC_VENDOR_PELKO = "PELKO";
// Size of the vendor work buffer of one candidate.
constexpr uint32_t HIC_VENDOR_BUF_LEN = 16;

// Appends one record per accepted device, in directory order. 0 when the
// scan ran to its end (also with nothing accepted), -1 on failure.
int HIC_GetLunList();
// 0 when the entry is an "sd" disk of a served vendor; the vendor and the
// device path are then in the two buffers.
int HIC_CheckIsValidDev(const struct dirent* entry, char* vendor, uint32_t vendorSize,
                        char* devPath, uint32_t devPathSize);
// Fills lunName, lunWwn, arrayName and arraySn from the device at devPath;
// "--" in each field that cannot be read.
void HIC_GetDevInfo(HIC_LunInfo* lun);

#endif  // HIC_INVENTORY_DISCOVERY_H
