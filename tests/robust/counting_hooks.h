// counting_hooks.h - memory hooks for the robustness tests: every allocation
// and reallocation is an allocation point; the k-th point from FailFrom(k) is
// refused (with persistent, every later one too) and live blocks are tracked
// so that a test can ask what is still held.
//
// Live pointers are kept XOR-masked so that LeakSanitizer does not take the
// table for a reference: a block the library loses is still reported at exit.
#ifndef KORMO_TESTS_ROBUST_COUNTING_HOOKS_H
#define KORMO_TESTS_ROBUST_COUNTING_HOOKS_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kormomav.h"

namespace robust {

class CountingHooks {
  public:
    static void Install() {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (!s.installed) s.installed = MavRegisterMmCallbacks(Alloc, Realloc, Free) == MAV_OK;
    }
    static bool Installed() { return state().installed; }
    // Frees memory the library handed to the caller through these hooks.
    static void Release(void* p) { Free(p); }
    // True on a thread while it runs inside one of these hooks (the C++
    // allocation sweep leaves the table's own allocations alone).
    static bool& InHook() {
        static thread_local bool inHook = false;
        return inHook;
    }

    // Counting starts again at 0; k = 0 refuses nothing.
    static void FailFrom(uint64_t k, bool persistent) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        s.points = s.refused = 0;
        s.failAt = k;
        s.persistent = persistent;
    }
    static void Disarm() { FailFrom(0, false); }
    static uint64_t Points() { return Read(&State::points); }
    static uint64_t Refused() { return Read(&State::refused); }
    // Serial number of the next allocation (never reset): a mark for Leaks().
    static uint64_t Mark() { return Read(&State::serial); }
    // Frees of pointers these hooks never handed out, and allocations not
    // tagged "mav".
    static uint64_t Misuse() { return Read(&State::misuse); }

    // The blocks allocated at or after mark and still live; empty when none.
    static std::string Leaks(uint64_t mark) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        std::string out;
        for (const auto& e : s.live) {
            if (e.second.serial >= mark)
                out += "  block of " + std::to_string(e.second.size) + " bytes from allocation #" +
                       std::to_string(e.second.serial) + "\n";
        }
        return out;
    }

  private:
    static constexpr uintptr_t kMask = 0xA5A5A5A5A5A5A5A5ull;
    struct Info {
        size_t size;
        uint64_t serial;
    };
    struct State {
        std::mutex lock;
        bool installed = false, persistent = false;
        uint64_t points = 0, failAt = 0, refused = 0, serial = 1, misuse = 0;
        std::unordered_map<uintptr_t, Info> live;
    };
    static State& state() {
        static State* s = new State;  // outlives every static destructor
        return *s;
    }
    static uint64_t Read(uint64_t State::*field) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        return s.*field;
    }
    struct InHookScope {
        InHookScope() { InHook() = true; }
        ~InHookScope() { InHook() = false; }
    };
    // With the lock held: counts the point, true when it is to be refused.
    static bool Refuse(State& s, const char* tag) {
        if (tag == nullptr || std::strcmp(tag, "mav") != 0) ++s.misuse;
        ++s.points;
        bool refuse =
            s.failAt != 0 && (s.points == s.failAt || (s.persistent && s.points > s.failAt));
        s.refused += refuse ? 1 : 0;
        return refuse;
    }
    static void Track(State& s, void* p, size_t size) {
        InHookScope scope;
        s.live[reinterpret_cast<uintptr_t>(p) ^ kMask] = Info{size, s.serial++};
    }
    static void* Alloc(size_t size, int clean, const char* tag) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (Refuse(s, tag)) return nullptr;
        void* p = (clean & 0xFF) != 0 ? std::calloc(1, size + 1) : std::malloc(size + 1);
        if (p != nullptr) Track(s, p, size);
        return p;
    }
    static void* Realloc(void* ptr, size_t size, const char* tag) {
        State& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        if (Refuse(s, tag)) return nullptr;
        const uintptr_t old = reinterpret_cast<uintptr_t>(ptr) ^ kMask;
        void* p = std::realloc(ptr, size + 1);
        if (p == nullptr) return nullptr;
        if (ptr != nullptr && s.live.erase(old) == 0) ++s.misuse;
        Track(s, p, size);
        return p;
    }
    static void Free(void* ptr) {
        if (ptr == nullptr) return;
        State& s = state();
        {
            std::lock_guard<std::mutex> g(s.lock);
            // Not ours: counted and left alone (freeing it could corrupt the
            // heap of whoever owns it).
            if (s.live.erase(reinterpret_cast<uintptr_t>(ptr) ^ kMask) == 0) {
                ++s.misuse;
                return;
            }
        }
        std::free(ptr);
    }
};

}  // namespace robust

#endif
