// The per-LUN question whether the array wants a collection now: its
// collect switch is on and its collect version differs from the one of the
// last collection the host started for it.
#ifndef HIC_COLLECT_SWITCH_POLL_H
#define HIC_COLLECT_SWITCH_POLL_H

#include "inventory/lists.h"

// Reply bytes of the switch query that are read.
constexpr unsigned int HIC_SWITCH_STATUS_OFFSET = 4;
constexpr unsigned int HIC_SWITCH_VERSION_OFFSET = 5;
constexpr unsigned char HIC_SWITCH_ON = 1;

// 0 when this LUN answered (collection armed, or declined); -1 when it
// failed and another LUN of the array may be tried. Arming makes the
// workspace, copies the scripts in and remembers the version.
int HIC_GetSwitchInfo(const HIC_LunInfo* lun, HIC_ArrayInfo* array);
// 0 when the switch is on and the version differs from the remembered one.
int HIC_IsValidToExecuteCollectTask(unsigned char switchStatus, const HIC_ArrayInfo* array,
                                    const unsigned char* version);

#endif  // HIC_COLLECT_SWITCH_POLL_H
