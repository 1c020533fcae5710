// mavxxi_rec.cpp - handle and instance record blocks.
//
// Records live in fixed-size blocks carved from slabs taken through the memory
// hooks. Every check of a caller's pointer first asks whether it is the start
// of a block of a current slab (MavIXRecOwned), so a pointer into memory the
// library gave back is refused without being read.
//
// Stale pointers. An ended record has its size and marks wiped and its block
// waits in a first-in first-out quarantine; a block is taken again only when
// more than kQuarantine others wait behind it, so an ended handle or instance
// keeps reading wiped marks - and is refused - while at least that many
// records are ended after it. When the last record of the process ends, the
// slabs go back through the free hook (an application counting its hook calls
// sees every block returned); the next slab's carving starts at another block,
// so a pointer from before still reads no live record there.
//
// A handle block also holds the handle's critical section, created once for
// the block and kept while the block is recycled (a thread that still waits
// on it never waits on destroyed storage); sections are deleted when the slabs
// go back, which waits until no thread is inside MavILockHdl (MavIXRecPin).
// An instance block also holds the instance's PEL_SCANPARAM.
#include <cstring>
#include <mutex>

#include "mavxxi.h"

// Slab table read by MavIXRecOwned (mavxxi.h).
MAV_REC_SLAB mavRecSlabs[MAV_REC_MAX_SLABS];
std::atomic<uint32_t> mavRecSlabCount{0};

namespace {

constexpr size_t kBlock = MAV_REC_BLOCK;

// Handle block: record, critical section on its own line. Instance block:
// record, PEL_SCANPARAM. Both: the quarantine link in the last word.
constexpr size_t kHdlCsOff = 256;
constexpr size_t kInstSpOff = sizeof(MAV_INST_REC);
constexpr size_t kLinkOff = kBlock - sizeof(void*);
static_assert(kHdlCsOff >= sizeof(MAV_HDL_REC), "handle block layout");
static_assert(kHdlCsOff + sizeof(THR_CRIT_SEC) <= kLinkOff, "handle block layout");
static_assert(kInstSpOff + sizeof(PEL_SCANPARAM) <= kHdlCsOff, "instance block layout");
static_assert(kInstSpOff % alignof(PEL_SCANPARAM) == 0, "instance block layout");

constexpr size_t kHeadOff = 8;
constexpr size_t kHdlTailOff = offsetof(MAV_HDL_REC, uiTailMark);
constexpr size_t kInstTailOff = offsetof(MAV_INST_REC, uiTailMark);

// Blocks of the first slab; each further slab doubles, up to kMaxBlocks.
constexpr size_t kFirstBlocks = 16;
constexpr size_t kMaxBlocks = 4096;
// Ended blocks waiting before one is taken again.
constexpr size_t kQuarantine = 64;

// Everything below is guarded by recPoolLock, the "record pool" lock of the
// global order.
std::mutex recPoolLock;
void* slabRaw[MAV_REC_MAX_SLABS];  // what the hook handed out, per slab
size_t carveSlab = 0;              // slab being carved (== count: none left)
size_t carved = 0;                 // blocks carved from it
size_t carveStart = 0;             // first block carved from slab 0
size_t sessions = 0;               // times the slabs went back
void* queueHead = nullptr;         // oldest ended block
void* queueTail = nullptr;
size_t queued = 0;
std::atomic<size_t> liveRecords{0};  // written under the lock
std::atomic<uint32_t> pins{0};  // threads inside MavILockHdl/MavIUnlockHdl

char* At(const void* p, size_t off) {
    return const_cast<char*>(static_cast<const char*>(p)) + off;
}
void** Link(void* block) {
    return reinterpret_cast<void**>(At(block, kLinkOff));
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

size_t SlabBlocks(size_t i) {
    size_t n = kFirstBlocks << (i < 8 ? i : 8);
    return n < kMaxBlocks ? n : kMaxBlocks;
}

// A new slab (zeroed, aligned to the record line); false when memory or the
// slab table runs out. With the lock held.
bool AddSlab() {
    uint32_t count = mavRecSlabCount.load(std::memory_order_relaxed);
    if (count >= MAV_REC_MAX_SLABS) return false;
    size_t bytes = SlabBlocks(count) * kBlock;
    void* raw = MavIAlloc(bytes + MAV_REC_LINE, true);
    if (raw == nullptr) return false;
    uintptr_t a = (reinterpret_cast<uintptr_t>(raw) + MAV_REC_LINE - 1) &
                  ~static_cast<uintptr_t>(MAV_REC_LINE - 1);
    slabRaw[count] = raw;
    // Base before size: a reader that sees the size sees the base.
    mavRecSlabs[count].base.store(a, std::memory_order_relaxed);
    mavRecSlabs[count].bytes.store(bytes, std::memory_order_release);
    mavRecSlabCount.store(count + 1, std::memory_order_release);
    return true;
}

// A block for a new record: from the quarantine when enough wait, else carved.
void* TakeBlock() {
    std::lock_guard<std::mutex> guard(recPoolLock);
    void* block = nullptr;
    if (queued > kQuarantine) {
        block = queueHead;
        queueHead = *Link(block);
        if (queueHead == nullptr) queueTail = nullptr;
        *Link(block) = nullptr;
        --queued;
    } else {
        if (carveSlab >= mavRecSlabCount.load(std::memory_order_relaxed) ||
            carved == SlabBlocks(carveSlab)) {
            if (carveSlab < mavRecSlabCount.load(std::memory_order_relaxed)) ++carveSlab;
            carved = 0;
            if (!AddSlab()) return nullptr;
        }
        size_t n = SlabBlocks(carveSlab);
        size_t index = carveSlab == 0 ? (carveStart + carved) % n : carved;
        ++carved;
        block = reinterpret_cast<void*>(
            mavRecSlabs[carveSlab].base.load(std::memory_order_relaxed) + index * kBlock);
    }
    liveRecords.fetch_add(1, std::memory_order_relaxed);
    return block;
}

// With the lock held: gives the slabs back when no record is live and no
// thread is inside a handle lock call.
void TrimLocked() {
    if (liveRecords.load(std::memory_order_relaxed) != 0 ||
        pins.load(std::memory_order_acquire) != 0)
        return;
    uint32_t count = mavRecSlabCount.load(std::memory_order_relaxed);
    if (count == 0) return;
    mavRecSlabCount.store(0, std::memory_order_release);
    for (uint32_t i = 0; i < count; ++i) {
        uintptr_t base = mavRecSlabs[i].base.load(std::memory_order_relaxed);
        size_t bytes = mavRecSlabs[i].bytes.load(std::memory_order_relaxed);
        for (size_t off = 0; off < bytes; off += kBlock) {
            // Zero storage or a created section (blocks start zeroed and only
            // handle records write there).
            ThrCSDelete(reinterpret_cast<THR_CRIT_SEC*>(base + off + kHdlCsOff));
        }
        mavRecSlabs[i].bytes.store(0, std::memory_order_release);
        mavRecSlabs[i].base.store(0, std::memory_order_relaxed);
        MavIFree(slabRaw[i]);
        slabRaw[i] = nullptr;
    }
    ++sessions;
    carveStart = (sessions * 7) % kFirstBlocks;
    carveSlab = 0;
    carved = 0;
    queueHead = queueTail = nullptr;
    queued = 0;
}

}  // namespace

extern "C" {

MAV_HDL_REC* MavIXAllocHdlRec(void) {
    void* block = TakeBlock();
    if (block == nullptr) return nullptr;
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(block);
    // Everything but size and marks; the section after the record stays.
    Zero(block, kHeadOff + 4, kHdlTailOff);
    Zero(block, kHdlTailOff + 4, sizeof(MAV_HDL_REC));
    hdl->pCS = reinterpret_cast<THR_CRIT_SEC*>(At(block, kHdlCsOff));
    StoreU32(block, kHdlTailOff, MAV_HDL_TAIL);
    StoreU32(block, kHeadOff, MAV_HDL_HEAD);
    StoreSize(block, MAV_HDL_SIZE);
    return hdl;
}

MAV_INST_REC* MavIXAllocInstRec(bool profile) {
    void* block = TakeBlock();
    if (block == nullptr) return nullptr;
    MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(block);
    Zero(block, kHeadOff + 4, kInstTailOff);
    Zero(block, kInstTailOff + 4, kInstSpOff + sizeof(PEL_SCANPARAM));
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
    if (rec == nullptr || !MavIXRecOwned(rec)) return;
    std::lock_guard<std::mutex> guard(recPoolLock);
    // Checked under the lock: a second release of the same block finds it wiped.
    size_t size = LoadSize(rec);
    uint32_t head = LoadU32(rec, kHeadOff);
    size_t tailOff;
    if (size == MAV_HDL_SIZE && head == MAV_HDL_HEAD) {
        tailOff = kHdlTailOff;
    } else if (size == MAV_INST_SIZE && (head == MAV_INST_HEAD || head == MAV_PINST_HEAD)) {
        tailOff = kInstTailOff;
    } else {
        return;
    }
    StoreSize(rec, 0);
    StoreU32(rec, kHeadOff, 0);
    StoreU32(rec, tailOff, 0);
    *Link(rec) = nullptr;
    if (queueTail != nullptr) {
        *Link(queueTail) = rec;
    } else {
        queueHead = rec;
    }
    queueTail = rec;
    ++queued;
    liveRecords.fetch_sub(1, std::memory_order_relaxed);
}

void MavIXRecTrim(void) {
    std::lock_guard<std::mutex> guard(recPoolLock);
    TrimLocked();
}

void MavIXRecPin(void) {
    pins.fetch_add(1, std::memory_order_acq_rel);
}

void MavIXRecUnpin(void) {
    // Only the last thread out while no record is live takes the lock.
    if (pins.fetch_sub(1, std::memory_order_acq_rel) == 1 &&
        liveRecords.load(std::memory_order_relaxed) == 0)
        MavIXRecTrim();
}

bool MavIXRecOwnedSlow(const void* p) {
    uintptr_t a = reinterpret_cast<uintptr_t>(p);
    uint32_t n = mavRecSlabCount.load(std::memory_order_acquire);
    for (uint32_t i = 1; i < n; ++i) {
        uintptr_t off = a - mavRecSlabs[i].base.load(std::memory_order_relaxed);
        if (off < mavRecSlabs[i].bytes.load(std::memory_order_acquire))
            return (off & (MAV_REC_BLOCK - 1)) == 0;
    }
    return false;
}

MAV_REC_KIND MavIXRecKindByMarks(const void* p) {
    if (p == nullptr || !MavIXRecOwned(p)) return MAV_REC_NONE;
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
