// The heartbeat an array receives while the host works on a collection it
// asked for: command 0xC9 with a 28-byte payload every 10 seconds through
// the array's first working LUN, until the array's work is finished.
#ifndef HIC_HEARTBEAT_HEARTBEAT_H
#define HIC_HEARTBEAT_HEARTBEAT_H

#include "inventory/lists.h"

constexpr uint32_t HIC_HEARTBEAT_LEN = 28;
constexpr unsigned int HIC_HEARTBEAT_PERIOD = 10;

// Starts the detached heartbeat thread of the array (the hand-over of the
// record is in inventory/lists.h).
int HIC_HeartBeatThreadCreate(HIC_ArrayInfo* array);
// Thread entry; arg is the HIC_ArrayInfo. Hands the array back as it ends.
void* HIC_SendC9ToArray(void* arg);
// Heartbeats through one LUN until the array's work is finished (0), or
// -1 when the LUN cannot be opened or a heartbeat fails.
int HIC_SendHeartBeatByLun(const HIC_LunInfo* lun, unsigned char* payload, HIC_ArrayInfo* array);
// Lays out the 28-byte payload from the array's version, address and type.
void HIC_BuildHeartBeatPayload(unsigned char* payload, const HIC_ArrayInfo* array);

#endif  // HIC_HEARTBEAT_HEARTBEAT_H
