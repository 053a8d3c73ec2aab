#include "inventory/lists.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <type_traits>

#include "base/thread.h"
#include "bounded/bounded.h"
#include "log/log.h"

HIC_ListHead HIC_LunListHead = {&HIC_LunListHead, &HIC_LunListHead};
HIC_ListHead HIC_ArrayListHead = {&HIC_ArrayListHead, &HIC_ArrayListHead};

void HIC_InitListHead(HIC_ListHead* head) {
    head->prev = head;
    head->next = head;
}

void HIC_ListAddTail(HIC_ListHead* node, HIC_ListHead* head) {
    HIC_ListHead* last = head->prev;
    last->next = node;
    head->prev = node;
    node->prev = last;
    node->next = head;
}

void HIC_ListDel(HIC_ListHead* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = nullptr;
    node->prev = nullptr;
}

HIC_ListHead* HIC_GetLunListHead() {
    return &HIC_LunListHead;
}

namespace {

// malloc, zero fill over the whole size, then begin the object's lifetime
// (value-initialisation keeps every byte zero, atomics included).
template <typename Record>
Record* AllocZeroed() {
    void* mem = std::malloc(sizeof(Record));
    if (mem == nullptr) {
        return nullptr;
    }
    (void)memset_s(mem, sizeof(Record), 0, sizeof(Record));
    return new (mem) Record();
}

// Unlinks and frees every record of the list that drop() selects.
template <typename Record, typename Drop>
void FreeWhere(HIC_ListHead* head, Drop drop) {
    for (Record* record : hic::ListWalk<Record, Drop>(head, drop)) {
        auto* link = reinterpret_cast<HIC_ListHead*>(record);
        HIC_ListDel(link);
        std::free(link);
    }
}

}  // namespace

HIC_LunInfo* HIC_AllocLunInfo() {
    return AllocZeroed<HIC_LunInfo>();
}

HIC_ArrayInfo* HIC_AllocArrayInfo() {
    return AllocZeroed<HIC_ArrayInfo>();
}

bool HIC_IsArrayReleased(const HIC_ArrayInfo* array) {
    return array->taskState.load() == HIC_TASK_IDLE && array->heartBeatRunning.load() == 0 &&
           array->collectRunning.load() == 0;
}

namespace {

void ReturnToIdle(HIC_ArrayInfo* array) {
    int32_t finished = HIC_TASK_FINISHED;
    (void)array->taskState.compare_exchange_strong(finished, HIC_TASK_IDLE);
}

int StartHolding(std::atomic<int32_t>* flag, void* (*entry)(void*), HIC_ArrayInfo* array) {
    flag->store(1);
    const int ret = hic::StartDetachedThread(entry, array);
    if (ret != 0) {
        flag->store(0);
    }
    return ret;
}

}  // namespace

int hic::StartCollectThread(HIC_ArrayInfo* array, void* (*entry)(void*)) {
    return StartHolding(&array->collectRunning, entry, array);
}

void hic::StartQuerying(HIC_ArrayInfo* array) {
    array->taskState.store(HIC_TASK_QUERYING);
}

void hic::StartCollecting(HIC_ArrayInfo* array) {
    array->taskState.store(HIC_TASK_COLLECTING);
}

bool hic::IsCollecting(const HIC_ArrayInfo* array) {
    return array->taskState.load() == HIC_TASK_COLLECTING;
}

int hic::StartHeartbeatThread(HIC_ArrayInfo* array, void* (*entry)(void*)) {
    return StartHolding(&array->heartBeatRunning, entry, array);
}

bool hic::IsWorkFinished(const HIC_ArrayInfo* array) {
    return array->taskState.load() == HIC_TASK_FINISHED;
}

void hic::FinishWork(HIC_ArrayInfo* array) {
    array->taskState.store(HIC_TASK_FINISHED);
}

void hic::HeartbeatEnded(HIC_ArrayInfo* array) {
    ReturnToIdle(array);
    array->heartBeatRunning.store(0);
}

void hic::HandBack(HIC_ArrayInfo* array) {
    if (array->heartBeatRunning.load() == 0) {
        ReturnToIdle(array);
    }
}

void hic::EndWithoutCollection(HIC_ArrayInfo* array) {
    array->taskState.store(HIC_TASK_IDLE);
    array->collectRunning.store(0);
}

void hic::CollectThreadEnded(HIC_ArrayInfo* array) {
    array->collectRunning.store(0);
}

void HIC_FreeLunList() {
    FreeWhere<HIC_LunInfo>(&HIC_LunListHead, hic::AnyRecord<HIC_LunInfo>);
}

void HIC_FreeArrayList() {
    FreeWhere<HIC_ArrayInfo>(&HIC_ArrayListHead, HIC_IsArrayReleased);
}

void HIC_CleanUpLunInfoList(HIC_ListHead* head) {
    if (head == nullptr) {
        HIC_LOG(HIC_LOG_ERROR, "invalid argument \n");
        return;
    }
    FreeWhere<HIC_ListHead>(head, hic::AnyRecord<HIC_ListHead>);
}

// A link pointer is its record's address only while the link comes first in
// a standard-layout record.
static_assert(std::is_standard_layout_v<HIC_LunInfo> && offsetof(HIC_LunInfo, list) == 0);
static_assert(std::is_standard_layout_v<HIC_ArrayInfo> && offsetof(HIC_ArrayInfo, list) == 0);
static_assert(std::atomic<int32_t>::is_always_lock_free);
