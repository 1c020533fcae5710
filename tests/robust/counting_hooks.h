// counting_hooks.h - memory hooks for robustness tests: they count, track and
// fail allocations on request.
//
//   CountingHooks::Install();          // once, before the library allocates
//   CountingHooks::FailFrom(k, false); // fail only the k-th allocation from now
//   ... run a scenario ...
//   CountingHooks::Disarm();
//   CountingHooks::Leaks(since)        // what is still live, records excluded
//
// Allocate and reallocate count as allocation points; free does not. Live
// pointers are kept XOR-masked so that LeakSanitizer does not see the table as
// a reference: a block the library loses is still reported at exit.
//
// Handle and instance records are never handed back to the hooks: a released
// record stays on the library's free list with its marks wiped and is taken
// again by the next handle or instance. Leaks() recognises such blocks by
// their shape and reports them apart (RecycledRecords()).
#ifndef KORMO_TESTS_ROBUST_COUNTING_HOOKS_H
#define KORMO_TESTS_ROBUST_COUNTING_HOOKS_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "mavxxi.h"

namespace robust {

// Allocation sizes of the record pool's blocks (see CountingHooks::RecordState).
constexpr size_t RoundLine(size_t n) {
    return (n + MAV_REC_LINE - 1) / MAV_REC_LINE * MAV_REC_LINE;
}
constexpr size_t kHdlAlloc =
    RoundLine(256 + sizeof(THR_CRIT_SEC) + sizeof(void*)) + MAV_REC_LINE;
constexpr size_t kInstAlloc =
    RoundLine(sizeof(MAV_INST_REC) + sizeof(PEL_SCANPARAM) + sizeof(void*)) + MAV_REC_LINE;

class CountingHooks {
    // Shared state first: the inline members below deduce types from it.
    static constexpr uintptr_t kMask = 0xA5A5A5A5A5A5A5A5ull;

    struct Info {
        size_t size;
        uint64_t serial;
    };
    struct State {
        std::mutex lock;
        bool installed = false;
        uint64_t points = 0, failAt = 0, failed = 0, serial = 1, foreign = 0, badTags = 0;
        bool persistent = false;
        std::unordered_map<uintptr_t, Info> live;
    };
    static State& state() {
        static State* s = new State;  // outlives every static destructor
        return *s;
    }
    template <typename F>
    static auto locked(F f) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        return f(s);
    }

  public:
    struct Block {
        void* ptr;
        size_t size;
        uint64_t serial;  // allocation point that made it
    };

    // Replaces the library's hooks with these (idempotent).
    static void Install() {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (s.installed) return;
        s.installed = MavRegisterMmCallbacks(Alloc, Realloc, Free) == MAV_OK;
    }
    static bool Installed() { return state().installed; }
    // Frees memory the library handed to the caller (through these hooks).
    static void Release(void* p) { Free(p); }
    // True on a thread while it runs inside one of these hooks.
    static bool& InHook() {
        static thread_local bool inHook = false;
        return inHook;
    }

    // Counting starts again at 0; the k-th allocation point from now (1-based)
    // fails, and with persistent every later one too. k = 0 fails nothing.
    static void FailFrom(uint64_t k, bool persistent) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        s.points = 0;
        s.failAt = k;
        s.persistent = persistent;
        s.failed = 0;
    }
    static void Disarm() { FailFrom(0, false); }

    // Allocation points since the last FailFrom/Disarm.
    static uint64_t Points() {
        return locked([](State& s) { return s.points; });
    }
    // Allocations refused since the last FailFrom/Disarm.
    static uint64_t Refused() {
        return locked([](State& s) { return s.failed; });
    }
    // Serial number of the next allocation (never reset): a mark for Leaks().
    static uint64_t Mark() {
        return locked([](State& s) { return s.serial; });
    }
    // Frees of pointers these hooks never handed out (double frees, memory of
    // another allocator passed to the free hook); and wrong tags.
    static uint64_t ForeignFrees() {
        return locked([](State& s) { return s.foreign; });
    }
    static uint64_t BadTags() {
        return locked([](State& s) { return s.badTags; });
    }
    // Live blocks allocated at or after mark that are not recycled records.
    static std::vector<Block> Leaks(uint64_t mark) {
        std::vector<Block> out;
        for (const Block& b : LiveSince(mark)) {
            if (RecordState(b) != kRecycled) out.push_back(b);
        }
        return out;
    }
    // Recycled record blocks currently held (whenever allocated).
    static size_t RecycledRecords() {
        size_t n = 0;
        for (const Block& b : LiveSince(0)) n += RecordState(b) == kRecycled ? 1 : 0;
        return n;
    }
    // Record blocks in use now: handles and instances not ended (a recycled
    // block taken again is no new allocation, so Leaks() cannot see it).
    static size_t RecordsInUse() {
        size_t n = 0;
        for (const Block& b : LiveSince(0)) n += RecordState(b) == kInUse ? 1 : 0;
        return n;
    }

    static std::string Describe(const std::vector<Block>& blocks) {
        std::string s;
        for (const Block& b : blocks)
            s += "  block of " + std::to_string(b.size) + " bytes from allocation #" +
                 std::to_string(b.serial) + "\n";
        return s;
    }

  private:
    // With the lock held: true when this allocation point is to fail.
    static bool Refuse(State& s, const char* tag) {
        if (tag == nullptr || std::strcmp(tag, "mav") != 0) ++s.badTags;
        ++s.points;
        bool refuse =
            s.failAt != 0 && (s.points == s.failAt || (s.persistent && s.points > s.failAt));
        if (refuse) ++s.failed;
        return refuse;
    }
    // Marks this thread as inside a hook while it updates the table (a test
    // that makes operator new fail leaves these allocations alone).
    struct InHookScope {
        InHookScope() { InHook() = true; }
        ~InHookScope() { InHook() = false; }
    };
    static void Track(State& s, void* p, size_t size) {
        InHookScope scope;
        s.live[reinterpret_cast<uintptr_t>(p) ^ kMask] = Info{size, s.serial++};
    }
    static bool Untrack(State& s, void* p) {
        return s.live.erase(reinterpret_cast<uintptr_t>(p) ^ kMask) != 0;
    }

    static void* Alloc(size_t size, int clean, const char* tag) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (Refuse(s, tag)) return nullptr;
        void* p = (clean & 0xFF) != 0 ? std::calloc(1, size != 0 ? size : 1)
                                      : std::malloc(size != 0 ? size : 1);
        if (p != nullptr) Track(s, p, size);
        return p;
    }
    static void* Realloc(void* ptr, size_t size, const char* tag) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (Refuse(s, tag)) return nullptr;
        const uintptr_t oldKey = reinterpret_cast<uintptr_t>(ptr) ^ kMask;
        void* p = std::realloc(ptr, size != 0 ? size : 1);
        if (p == nullptr) return nullptr;
        if (ptr != nullptr && s.live.erase(oldKey) == 0) ++s.foreign;
        Track(s, p, size);
        return p;
    }
    static void Free(void* ptr) {
        if (ptr == nullptr) return;
        State& s = state();
        {
            std::lock_guard<std::mutex> g(s.lock);
            if (!Untrack(s, ptr)) {
                // Not ours: counted and left alone (freeing it could corrupt
                // the heap of whoever owns it).
                ++s.foreign;
                return;
            }
        }
        std::free(ptr);
    }

    static std::vector<Block> LiveSince(uint64_t mark) {
        std::vector<Block> out;
        locked([&](State& s) {
            for (const auto& e : s.live) {
                if (e.second.serial >= mark)
                    out.push_back(Block{reinterpret_cast<void*>(e.first ^ kMask), e.second.size,
                                        e.second.serial});
            }
            return 0;
        });
        return out;
    }

    // A record block is an allocation of the size the record pool asks for
    // (a cache line more than the block, which is aligned inside it): the
    // record with the handle's critical section, or with the instance's
    // PEL_SCANPARAM, and the free-list link. It is recycled when its size word
    // and marks are wiped, in use when they are set. (A profile instance
    // record has no self-pointer, so the size is what tells.)
    enum RecState { kNoRecord, kRecycled, kInUse };
    static RecState RecordState(const Block& b) {
        if (b.size != kHdlAlloc && b.size != kInstAlloc) return kNoRecord;
        uintptr_t rec = (reinterpret_cast<uintptr_t>(b.ptr) + MAV_REC_LINE - 1) &
                        ~uintptr_t(MAV_REC_LINE - 1);
        if (b.size == kHdlAlloc) {
            const MAV_HDL_REC* h = reinterpret_cast<const MAV_HDL_REC*>(rec);
            if (reinterpret_cast<uintptr_t>(h->pCS) != rec + 256) return kNoRecord;
            if (h->struct_size == 0 && h->uiHeadMark == 0 && h->uiTailMark == 0) return kRecycled;
            if (h->struct_size == MAV_HDL_SIZE && h->uiHeadMark == MAV_HDL_HEAD) return kInUse;
            return kNoRecord;
        }
        const MAV_INST_REC* i = reinterpret_cast<const MAV_INST_REC*>(rec);
        if (i->struct_size == 0 && i->uiHeadMark == 0 && i->uiTailMark == 0) return kRecycled;
        if (i->struct_size == MAV_INST_SIZE &&
            (i->uiHeadMark == MAV_INST_HEAD || i->uiHeadMark == MAV_PINST_HEAD))
            return kInUse;
        return kNoRecord;
    }
};

}  // namespace robust

#endif
