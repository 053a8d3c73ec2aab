#include "inventory/vnadm_refresh.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "inventory/discovery.h"
#include "log/log.h"

namespace {

constexpr int kDevNameToken = 1;  // the 2nd token, counted from 0
constexpr int kWwnToken = 3;      // the 4th token

// Busy by the array list's own measure: a collection thread that has been
// started but has not yet left the idle state walks LUN records too.
bool AnyArrayBusy() {
    for (const HIC_ArrayInfo* array : hic::EntriesOf<HIC_ArrayInfo>(&HIC_ArrayListHead)) {
        if (!HIC_IsArrayReleased(array)) {
            return true;
        }
    }
    return false;
}

// First entry that names the LUN's device and carries its WWN.
HIC_VnLunInfo* FindConfirmation(HIC_ListHead* head, const HIC_LunInfo* lun) {
    for (HIC_VnLunInfo* entry : hic::EntriesOf<HIC_VnLunInfo>(head)) {
        if (std::strstr(lun->devPath, entry->devName) != nullptr &&
            std::strcmp(entry->lunWwn, lun->lunWwn) == 0) {
            return entry;
        }
    }
    return nullptr;
}

// Only a kernel block-device name may become "/dev/<name>": letters and
// digits, not empty. Anything else ("../run/x", "--") could name another file.
bool IsPlainDevName(const char* name) {
    if (*name == '\0') {
        return false;
    }
    for (; *name != '\0'; ++name) {
        if (std::isalnum(static_cast<unsigned char>(*name)) == 0) {
            return false;
        }
    }
    return true;
}

HIC_VnLunInfo* AllocVnLunInfo() {
    void* mem = std::malloc(sizeof(HIC_VnLunInfo));
    if (mem != nullptr) {
        (void)memset_s(mem, sizeof(HIC_VnLunInfo), 0, sizeof(HIC_VnLunInfo));
    }
    return static_cast<HIC_VnLunInfo*>(mem);
}

}  // namespace

void HIC_CopyAttrFromVnadm(char* dest, uint32_t size, const char* src, uint32_t len) {
    HIC_ASSERT(dest != nullptr);
    HIC_ASSERT(src != nullptr);
    if (dest == nullptr || src == nullptr) {
        return;
    }
    // A token as long as the slot would leave it without a terminator.
    if (len == 0 || len >= size || memcpy_s(dest, size, src, len) != 0) {
        (void)strcpy_s(dest, size, HIC_NO_VALUE);
    }
}

int HIC_GetVnLunInfoListByVnadm(HIC_ListHead* head) {
    HIC_ASSERT(head != nullptr);
    if (head == nullptr) {
        return -1;
    }
    char line[HIC_VNADM_LINE_LEN];
    char prevWwn[HIC_VNADM_FIELD_LEN];
    (void)memset_s(line, sizeof(line), 0, sizeof(line));
    (void)memset_s(prevWwn, sizeof(prevWwn), 0, sizeof(prevWwn));

    hic::UniquePipe pipe(::popen(HIC_VNADM_LIST_CMD, "re"));
    if (!pipe.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "popen failed.\n");
        return -1;
    }
    char slots[HIC_VNADM_MAX_TOKENS][HIC_VNADM_SLOT_LEN];
    int entries = 0;
    while (std::fgets(line, sizeof(line), pipe.Get()) != nullptr) {
        if (std::strlen(line) == 0) {
            continue;
        }
        (void)memset_s(slots, sizeof(slots), 0, sizeof(slots));
        char* ctx = nullptr;
        char* tok = strtok_s(line, " ", &ctx);
        for (int k = 0; k < HIC_VNADM_MAX_TOKENS && tok != nullptr; ++k) {
            HIC_CopyAttrFromVnadm(slots[k], HIC_VNADM_SLOT_LEN, tok,
                                  static_cast<uint32_t>(std::strlen(tok)));
            tok = strtok_s(nullptr, " ", &ctx);
        }
        if (!IsPlainDevName(slots[kDevNameToken])) {
            continue;
        }
        // Only the line just before counts: the same WWN twice in a row is
        // one LUN. The filter starts empty, so a first line without a 4th
        // token is dropped as well.
        if (std::strcmp(slots[kWwnToken], prevWwn) == 0) {
            continue;
        }
        (void)strncpy_s(prevWwn, sizeof(prevWwn), slots[kWwnToken], HIC_VNADM_FIELD_LEN - 1);

        if (++entries > HIC_VNADM_MAX_LUNS) {
            HIC_LOG(HIC_LOG_ERROR, "vnadm lists more than %d luns, refresh skipped.\n",
                    HIC_VNADM_MAX_LUNS);
            return -1;
        }
        HIC_VnLunInfo* entry = AllocVnLunInfo();
        if (entry == nullptr) {
            return -1;
        }
        HIC_CopyAttrFromVnadm(entry->devName, sizeof(entry->devName), slots[kDevNameToken],
                              static_cast<uint32_t>(std::strlen(slots[kDevNameToken])));
        HIC_CopyAttrFromVnadm(entry->lunWwn, sizeof(entry->lunWwn), slots[kWwnToken],
                              static_cast<uint32_t>(std::strlen(slots[kWwnToken])));
        HIC_ListAddTail(&entry->list, head);
    }
    return 0;
}

int HIC_CheckAndClearLunListByVnadm(HIC_ListHead* head) {
    if (head == nullptr) {
        return -1;
    }
    // Worker threads use LUN records without a lock; touch none while any
    // array has work in flight.
    if (AnyArrayBusy()) {
        return -1;
    }
    for (HIC_LunInfo* lun : hic::EntriesOf<HIC_LunInfo>(&HIC_LunListHead)) {
        if (std::strcmp(lun->arraySn, HIC_NO_VALUE) == 0) {
            HIC_ListDel(&lun->list);
            std::free(lun);
        } else if (HIC_VnLunInfo* entry = FindConfirmation(head, lun); entry != nullptr) {
            HIC_ListDel(&entry->list);
            std::free(entry);
        } else {
            HIC_LOG(HIC_LOG_DEBUG, "clear device %s by vnadm output.\n", lun->devPath);
            HIC_ListDel(&lun->list);
            std::free(lun);
        }
    }
    return 0;
}

int HIC_RefreshLunListByVnadm(HIC_ListHead* head) {
    if (head == nullptr) {
        HIC_LOG(HIC_LOG_ERROR, "invalid argument \n");
        return -1;
    }
    char devPath[HIC_PATH_LEN];
    for (const HIC_VnLunInfo* entry : hic::EntriesOf<HIC_VnLunInfo>(head)) {
        (void)memset_s(devPath, sizeof(devPath), 0, sizeof(devPath));
        if (sprintf_s(devPath, sizeof(devPath), "/dev/%s", entry->devName) == -1) {
            HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
            return -1;
        }
        HIC_LunInfo* lun = HIC_AllocLunInfo();
        if (lun == nullptr) {
            HIC_LOG(HIC_LOG_ERROR, "alloc mem failed for dev %s.\n", devPath);
            return -1;
        }
        // The tool's word is taken: no vendor check for its LUNs.
        (void)strcpy_s(lun->vendorId, sizeof(lun->vendorId), HIC_VENDOR_TRELOX);
        (void)strcpy_s(lun->devPath, sizeof(lun->devPath), devPath);
        HIC_GetDevInfo(lun);
        HIC_ListAddTail(&lun->list, &HIC_LunListHead);
        HIC_LOG(HIC_LOG_DEBUG, "Refresh add device %s from vnadm.\n", devPath);
    }
    return 0;
}

void HIC_RefreshLunAndArrayList() {
    HIC_ListHead head;
    HIC_InitListHead(&head);
    if (HIC_GetVnLunInfoListByVnadm(&head) == 0 && HIC_CheckAndClearLunListByVnadm(&head) == 0 &&
        HIC_RefreshLunListByVnadm(&head) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "refresh lun list failed.\n");
    }
    HIC_CleanUpLunInfoList(&head);
}
