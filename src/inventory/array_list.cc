#include "inventory/array_list.h"

#include <cstring>

#include "bounded/bounded.h"
#include "inventory/lists.h"
#include "log/log.h"

namespace {

constexpr uint32_t kSnChars = HIC_ARRAY_SN_LEN - 1;

bool HasArray(const char* sn) {
    for (const HIC_ArrayInfo* array : hic::EntriesOf<HIC_ArrayInfo>(&HIC_ArrayListHead)) {
        if (std::strcmp(array->arraySn, sn) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

int HIC_GetArrayList() {
    for (const HIC_LunInfo* lun : hic::EntriesOf<HIC_LunInfo>(&HIC_LunListHead)) {
        if (std::strcmp(lun->arraySn, HIC_NO_VALUE) == 0 || lun->arraySn[0] == '\0' ||
            HasArray(lun->arraySn)) {
            continue;
        }
        HIC_ArrayInfo* array = HIC_AllocArrayInfo();
        if (array == nullptr) {
            HIC_LOG(HIC_LOG_ERROR, "alloc mem failed for tmpArray.\n");
            return -1;
        }
        // 20 bytes at most; the record's last byte stays the terminator.
        (void)memcpy_s(array->arraySn, kSnChars, lun->arraySn, kSnChars);
        HIC_ListAddTail(&array->list, &HIC_ArrayListHead);
    }
    HIC_LOG(HIC_LOG_DEBUG, "get array info list success.\n");
    return 0;
}
