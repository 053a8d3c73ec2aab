// The refresh of the LUN list from the management tool's listing of LUNs
// in service, run once per main-loop pass while every array is idle.
#ifndef HIC_INVENTORY_VNADM_REFRESH_H
#define HIC_INVENTORY_VNADM_REFRESH_H

#include <cstdint>

#include "inventory/lists.h"

constexpr const char* HIC_VNADM_LIST_CMD = "vnadmin show vlun type=all | grep \"Normal\"";
constexpr uint32_t HIC_VNADM_LINE_LEN = 512;
constexpr int HIC_VNADM_MAX_TOKENS = 15;
constexpr uint32_t HIC_VNADM_SLOT_LEN = 256;
constexpr uint32_t HIC_VNADM_FIELD_LEN = 257;
// Most LUNs one listing may report: a longer one is refused whole, so that
// what a broken tool prints costs bounded memory and log.
constexpr int HIC_VNADM_MAX_LUNS = 4096;

// One LUN of the listing, in a list that lives for one refresh only.
struct HIC_VnLunInfo {
    HIC_ListHead list;
    char devName[HIC_VNADM_FIELD_LEN];
    char lunWwn[HIC_VNADM_FIELD_LEN];
};

// Refreshes the LUN list only; the array list grows in the main loop's step.
void HIC_RefreshLunAndArrayList();
// Runs the tool and appends one entry per accepted line to the empty list.
int HIC_GetVnLunInfoListByVnadm(HIC_ListHead* head);
// Copies len characters of src into dest, or "--" when there are none or
// they do not fit with a terminator.
void HIC_CopyAttrFromVnadm(char* dest, uint32_t size, const char* src, uint32_t len);
// Drops every LUN the listing does not confirm and every entry that
// confirms one. -1, with nothing changed, while some array is busy.
int HIC_CheckAndClearLunListByVnadm(HIC_ListHead* head);
// Adds a LUN, with a fresh identity read, for each entry left.
int HIC_RefreshLunListByVnadm(HIC_ListHead* head);

#endif  // HIC_INVENTORY_VNADM_REFRESH_H
