// mavxxi_rec.cpp - handle and instance record blocks.
//
// Records live in cache-line aligned blocks taken through the memory hooks and
// never handed back: a released block is wiped of its size and marks and kept
// on a free list of its kind, so a stale pointer always reads valid memory with
// wiped marks and is refused. A handle block also holds the handle's critical
// section, created once for the block and kept across recycling (a thread that
// still waits on it never waits on destroyed storage). An instance block also
// holds the instance's PEL_SCANPARAM.
#include <cstring>
#include <mutex>

#include "mavxxi.h"

namespace {

constexpr size_t kLine = MAV_REC_LINE;

// Handle block: record, critical section on its own line, free-list link.
constexpr size_t kHdlCsOff = 256;
constexpr size_t kHdlLinkOff = kHdlCsOff + sizeof(THR_CRIT_SEC);
constexpr size_t kHdlBlock = (kHdlLinkOff + sizeof(void*) + kLine - 1) / kLine * kLine;
static_assert(kHdlCsOff >= sizeof(MAV_HDL_REC), "handle block layout");

// Instance block: record, PEL_SCANPARAM, free-list link.
constexpr size_t kInstSpOff = sizeof(MAV_INST_REC);
constexpr size_t kInstLinkOff = kInstSpOff + sizeof(PEL_SCANPARAM);
constexpr size_t kInstBlock = (kInstLinkOff + sizeof(void*) + kLine - 1) / kLine * kLine;
static_assert(kInstSpOff % alignof(PEL_SCANPARAM) == 0, "instance block layout");

constexpr size_t kHeadOff = 8;
constexpr size_t kHdlTailOff = offsetof(MAV_HDL_REC, uiTailMark);
constexpr size_t kInstTailOff = offsetof(MAV_INST_REC, uiTailMark);

// Free lists; the mutex is the "record pool" lock of the global order.
std::mutex recPoolLock;
void* freeHdlBlocks = nullptr;
void* freeInstBlocks = nullptr;

char* At(const void* p, size_t off) {
    return const_cast<char*>(static_cast<const char*>(p)) + off;
}
void** Link(void* block, size_t off) {
    return reinterpret_cast<void**>(At(block, off));
}

// Size and marks are read and written atomically: a stale pointer may be
// checked by one thread while another recycles its block.
size_t LoadSize(const void* p) {
    return __atomic_load_n(reinterpret_cast<const size_t*>(p), __ATOMIC_ACQUIRE);
}
uint32_t LoadU32(const void* p, size_t off) {
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(At(p, off)), __ATOMIC_ACQUIRE);
}
void StoreSize(void* p, size_t v) {
    __atomic_store_n(reinterpret_cast<size_t*>(p), v, __ATOMIC_RELEASE);
}
void StoreU32(void* p, size_t off, uint32_t v) {
    __atomic_store_n(reinterpret_cast<uint32_t*>(At(p, off)), v, __ATOMIC_RELEASE);
}

// Zeroes [from, to) of a block.
void Zero(void* p, size_t from, size_t to) {
    if (to > from) memset(At(p, from), 0, to - from);
}

// A block of the given size: recycled when one is free, else new and aligned.
void* TakeBlock(void** freeList, size_t linkOff, size_t blockSize) {
    {
        std::lock_guard<std::mutex> guard(recPoolLock);
        if (*freeList != nullptr) {
            void* block = *freeList;
            *freeList = *Link(block, linkOff);
            *Link(block, linkOff) = nullptr;
            return block;
        }
    }
    void* raw = MavIAlloc(blockSize + kLine, true);
    if (raw == nullptr) return nullptr;
    uintptr_t a = (reinterpret_cast<uintptr_t>(raw) + kLine - 1) & ~(uintptr_t)(kLine - 1);
    return reinterpret_cast<void*>(a);
}

}  // namespace

extern "C" {

MAV_HDL_REC* MavIXAllocHdlRec(void) {
    void* block = TakeBlock(&freeHdlBlocks, kHdlLinkOff, kHdlBlock);
    if (block == nullptr) return nullptr;
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(block);
    // Everything but size, marks and the critical section pointer.
    Zero(block, kHeadOff + 4, offsetof(MAV_HDL_REC, pCS));
    Zero(block, offsetof(MAV_HDL_REC, pCS) + sizeof(void*), kHdlTailOff);
    Zero(block, kHdlTailOff + 4, sizeof(MAV_HDL_REC));
    hdl->pCS = reinterpret_cast<THR_CRIT_SEC*>(At(block, kHdlCsOff));
    StoreU32(block, kHdlTailOff, MAV_HDL_TAIL);
    StoreU32(block, kHeadOff, MAV_HDL_HEAD);
    StoreSize(block, MAV_HDL_SIZE);
    return hdl;
}

MAV_INST_REC* MavIXAllocInstRec(bool profile) {
    void* block = TakeBlock(&freeInstBlocks, kInstLinkOff, kInstBlock);
    if (block == nullptr) return nullptr;
    MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(block);
    Zero(block, kHeadOff + 4, kInstTailOff);
    Zero(block, kInstTailOff + 4, kInstLinkOff);
    // A profile instance record holds only its marks, thread and MavInstance:
    // every other field stays zero.
    if (!profile) {
        inst->pScanParam = reinterpret_cast<PEL_SCANPARAM*>(At(block, kInstSpOff));
        inst->pScanParam->struct_size = sizeof(PEL_SCANPARAM);
    }
    StoreU32(block, kInstTailOff, profile ? MAV_PINST_TAIL : MAV_INST_TAIL);
    StoreU32(block, kHeadOff, profile ? MAV_PINST_HEAD : MAV_INST_HEAD);
    StoreSize(block, MAV_INST_SIZE);
    return inst;
}

void MavIXFreeRec(void* rec) {
    if (rec == nullptr) return;
    std::lock_guard<std::mutex> guard(recPoolLock);
    // Checked under the lock: a second release of the same block finds it wiped.
    size_t size = LoadSize(rec);
    if (size == MAV_HDL_SIZE && LoadU32(rec, kHeadOff) == MAV_HDL_HEAD) {
        StoreSize(rec, 0);
        StoreU32(rec, kHeadOff, 0);
        StoreU32(rec, kHdlTailOff, 0);
        *Link(rec, kHdlLinkOff) = freeHdlBlocks;
        freeHdlBlocks = rec;
    } else if (size == MAV_INST_SIZE) {
        uint32_t head = LoadU32(rec, kHeadOff);
        if (head != MAV_INST_HEAD && head != MAV_PINST_HEAD) return;
        StoreSize(rec, 0);
        StoreU32(rec, kHeadOff, 0);
        StoreU32(rec, kInstTailOff, 0);
        *Link(rec, kInstLinkOff) = freeInstBlocks;
        freeInstBlocks = rec;
    }
}

MAV_REC_KIND MavIXRecKindByMarks(const void* p) {
    if (p == nullptr) return MAV_REC_NONE;
    size_t size = LoadSize(p);
    uint32_t head = LoadU32(p, kHeadOff);
    if (size == MAV_HDL_SIZE) {
        if (head == MAV_HDL_HEAD && LoadU32(p, kHdlTailOff) == MAV_HDL_TAIL) return MAV_REC_HANDLE;
    } else if (size == MAV_INST_SIZE) {
        uint32_t tail = LoadU32(p, kInstTailOff);
        if (head == MAV_INST_HEAD && tail == MAV_INST_TAIL) return MAV_REC_INSTANCE;
        if (head == MAV_PINST_HEAD && tail == MAV_PINST_TAIL) return MAV_REC_PROFILE;
    }
    return MAV_REC_NONE;
}

MAV_REC_KIND MavIXRecKind(const void* p) {
    MAV_REC_KIND kind = MavIXRecKindByMarks(p);
    const MAV_INST_REC* inst = static_cast<const MAV_INST_REC*>(p);
    if (kind == MAV_REC_INSTANCE && inst->pPelInit == nullptr) return MAV_REC_NONE;
    if (kind == MAV_REC_PROFILE && inst->pProfileInst == nullptr) return MAV_REC_NONE;
    return kind;
}

}  // extern "C"

// Fork handlers (mavxxi_fork.cpp): the record pool lock.
void MavIXRecForkLock(void) {
    recPoolLock.lock();
}
void MavIXRecForkUnlock(void) {
    recPoolLock.unlock();
}
