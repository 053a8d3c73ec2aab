// LUN and array records and the circular doubly linked lists that hold
// them. Records are appended at the tail and walked from the head's next,
// so every walk sees them oldest first; that order is the tie-break
// wherever several LUNs of one array could serve.
#ifndef HIC_INVENTORY_LISTS_H
#define HIC_INVENTORY_LISTS_H

#include <atomic>
#include <cstdint>
#include <cstring>

#include "settings/host_address.h"

// Link pair; every record begins with one, so a link pointer and a pointer
// to its record are the same address.
struct HIC_ListHead {
    HIC_ListHead* prev;
    HIC_ListHead* next;
};

// Stands in an identity field that could not be read from the device.
constexpr const char* HIC_NO_VALUE = "--";

// Buffers of device paths, workspace paths and command lines.
constexpr uint32_t HIC_PATH_LEN = 256;
// Widths of the other fields, terminator included.
constexpr uint32_t HIC_LUN_NAME_LEN = 257;
constexpr uint32_t HIC_LUN_WWN_LEN = 257;
constexpr uint32_t HIC_VENDOR_ID_LEN = 17;
constexpr uint32_t HIC_ARRAY_NAME_LEN = 81;
constexpr uint32_t HIC_ARRAY_SN_LEN = 21;
constexpr uint32_t HIC_VERSION_LEN = 4;

struct HIC_LunInfo {
    HIC_ListHead list;
    char devPath[HIC_PATH_LEN];
    char lunName[HIC_LUN_NAME_LEN];
    char lunWwn[HIC_LUN_WWN_LEN];
    char vendorId[HIC_VENDOR_ID_LEN];
    char arrayName[HIC_ARRAY_NAME_LEN];
    char arraySn[HIC_ARRAY_SN_LEN];
};

// State of an array's collection work; see HIC_ArrayInfo::taskState.
enum HIC_TaskState : int32_t {
    HIC_TASK_IDLE = 0,
    HIC_TASK_QUERYING = 1,
    HIC_TASK_COLLECTING = 2,
    HIC_TASK_FINISHED = 3,
};

// One storage array. Its three threads hand the record over through
// taskState, heartBeatRunning and collectRunning, only by the transitions
// below HIC_IsArrayReleased.
struct HIC_ArrayInfo {
    HIC_ListHead list;
    std::atomic<int32_t> taskState;
    char arraySn[HIC_ARRAY_SN_LEN];
    unsigned char versions[HIC_VERSION_LEN];
    std::atomic<int32_t> heartBeatRunning;
    unsigned char hostIp[HIC_IP_ADDR_LEN];
    unsigned char ipType;
    std::atomic<int32_t> collectRunning;
};

// The two process-wide list heads; start-up makes both empty first.
extern HIC_ListHead HIC_LunListHead;
extern HIC_ListHead HIC_ArrayListHead;

void HIC_InitListHead(HIC_ListHead* head);
void HIC_ListAddTail(HIC_ListHead* node, HIC_ListHead* head);
void HIC_ListDel(HIC_ListHead* node);
HIC_ListHead* HIC_GetLunListHead();

// Heap records, zero-filled over their whole size; nullptr when the heap
// refuses. Release them with free() (the list-freeing operations do).
HIC_LunInfo* HIC_AllocLunInfo();
HIC_ArrayInfo* HIC_AllocArrayInfo();

// True when no thread of the array holds the record: idle, no heartbeat,
// no collection thread. Only then may a new task start or the record go.
bool HIC_IsArrayReleased(const HIC_ArrayInfo* array);

// The hand-over of an array record between the main thread, the array's
// collection thread and its heartbeat thread, without a lock (the three
// fields are atomics). Each flag is raised by the thread that creates the
// thread it stands for, before that thread exists, and cleared as that
// thread's last touch of the record. taskState is written by the collection
// thread alone, but for the heartbeat's FINISHED to IDLE; the main thread
// only reads. Only these transitions change the three fields:
// - main thread: StartCollectThread;
// - collection thread: StartQuerying; StartCollecting (through the switch
//   query); StartHeartbeatThread; FinishWork after the upload (the
//   upload's success does it first), which stops the heartbeat; HandBack;
//   removes the workspace; CollectThreadEnded, its very last step. Without
//   a collection, it removes the workspace and ends with
//   EndWithoutCollection instead;
// - heartbeat thread: polls IsWorkFinished, then HeartbeatEnded.
// HandBack and HeartbeatEnded both turn FINISHED into IDLE, so whichever of
// the two threads comes last leaves the array idle. Idle alone does not
// release the array: the collection thread still removes its workspace
// after it, and a new task started then would lose its fresh files to the
// ending one. collectRunning, cleared only after the removal, keeps the main
// thread from starting one (HIC_IsArrayReleased) until the old task is gone,
// and keeps the record alive until no thread can touch it any more.
namespace hic {
// Raise the thread's flag, create the detached thread with the record as its
// argument, clear the flag again if that fails; pthread_create's result.
int StartCollectThread(HIC_ArrayInfo* array, void* (*entry)(void*));
int StartHeartbeatThread(HIC_ArrayInfo* array, void* (*entry)(void*));
void StartQuerying(HIC_ArrayInfo* array);
void StartCollecting(HIC_ArrayInfo* array);
bool IsCollecting(const HIC_ArrayInfo* array);
// Idle and released without a collection: the array declined, no LUN
// answered, or the heartbeat could not be started.
void EndWithoutCollection(HIC_ArrayInfo* array);
void FinishWork(HIC_ArrayInfo* array);
bool IsWorkFinished(const HIC_ArrayInfo* array);
void HeartbeatEnded(HIC_ArrayInfo* array);
// FINISHED to IDLE, unless the heartbeat still runs and will do it itself.
void HandBack(HIC_ArrayInfo* array);
void CollectThreadEnded(HIC_ArrayInfo* array);
}  // namespace hic

void HIC_FreeLunList();
// Frees the array list after a failed build. Records still held by a
// collection or heartbeat thread stay linked, so those threads never see
// freed memory; the next build finds them by serial number and adds none
// twice.
void HIC_FreeArrayList();
// Frees every record of a temporary list whose records begin with their
// link; the head itself stays, empty.
void HIC_CleanUpLunInfoList(HIC_ListHead* head);

namespace hic {

// The typed walk over a list whose records begin with their link, oldest
// first: for (HIC_ArrayInfo* array : hic::EntriesOf<HIC_ArrayInfo>(&head)).
// Only records for which match() holds are visited. Like the kernel's
// list_for_each_entry_safe, the next link is read before the body runs, so
// the body may unlink and free the record it was given (and no other of
// that list); a record appended to the walked list meanwhile may be missed.
template <typename Record, typename Match = bool (*)(const Record*)>
class ListWalk {
  public:
    class Iterator {
      public:
        Iterator(HIC_ListHead* cur, const ListWalk* walk)
            : cur_(cur), next_(cur->next), walk_(walk) {
            Settle();
        }
        Record* operator*() const { return reinterpret_cast<Record*>(cur_); }
        Iterator& operator++() {
            Step();
            Settle();
            return *this;
        }
        bool operator!=(const Iterator& other) const { return cur_ != other.cur_; }

      private:
        void Step() {
            cur_ = next_;
            next_ = cur_->next;
        }
        void Settle() {
            while (cur_ != walk_->head_ && !walk_->match_(reinterpret_cast<Record*>(cur_))) {
                Step();
            }
        }

        HIC_ListHead* cur_;
        HIC_ListHead* next_;
        const ListWalk* walk_;
    };

    ListWalk(HIC_ListHead* head, Match match) : head_(head), match_(match) {}
    Iterator begin() const { return Iterator(head_->next, this); }
    Iterator end() const { return Iterator(head_, this); }

  private:
    HIC_ListHead* head_;
    Match match_;
};

template <typename Record>
bool AnyRecord(const Record* /*record*/) {
    return true;
}

// Every record of the list.
template <typename Record>
ListWalk<Record> EntriesOf(HIC_ListHead* head) {
    return ListWalk<Record>(head, AnyRecord<Record>);
}

// The LUNs of the array with serial number sn.
struct SameArraySn {
    const char* sn;
    bool operator()(const HIC_LunInfo* lun) const { return std::strcmp(lun->arraySn, sn) == 0; }
};
inline ListWalk<HIC_LunInfo, SameArraySn> LunsOf(HIC_ListHead* head, const char* sn) {
    return ListWalk<HIC_LunInfo, SameArraySn>(head, SameArraySn{sn});
}

}  // namespace hic

#endif  // HIC_INVENTORY_LISTS_H
