// robust_env.h - what the robustness tests share: memory hooks installed
// before the first library call, private temporary directories (PEL_TMP and
// one for INITTEMP_PATH), trace lines swallowed by a handler, and a fixture
// that checks after each test that nothing was left behind.
#ifndef KORMO_TESTS_ROBUST_ROBUST_ENV_H
#define KORMO_TESTS_ROBUST_ROBUST_ENV_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "kormomav.h"
#include "testpel_client.h"

namespace robust {

// Allocation points: every allocation and reallocation of the memory hooks,
// or every operator new the C++ allocation sweep counts. FailFrom(k,
// persistent, source) starts counting the points of source again and refuses
// the k-th (with persistent, every later one too); k = 0 refuses nothing.
enum class Source { kHooks, kNew };
void FailFrom(uint64_t k, bool persistent, Source source = Source::kHooks);
// Counts a point of source (when it is the one counted); true when refused.
bool Refuse(Source source, const char* tag = "mav");
// Points and refusals since FailFrom; the serial number of the next
// allocation (never reset: a mark); frees of pointers never handed out and
// allocations not tagged "mav".
struct HookCounts {
    uint64_t points, refused, serial, misuse;
};
HookCounts Counts();
// The free hook; also frees what the library handed to the caller.
void Release(void* p);
// True on a thread while it runs inside a hook.
extern thread_local bool inHook;

// PEL_TMP of this process, a directory for a handle's INITTEMP_PATH, a small
// file to scan.
struct Paths {
    std::string defaultTmp, handleTmp, sample;
};
extern Paths paths;

// True for every code the library documents (-6..32).
inline bool KnownCode(MAV_RC rc) {
    return rc >= MAV_E_BLOCKED_BY_POLICY && rc <= 32;
}

class RobustTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // What was left since mark, as text ("" when nothing): a handle
    // registered, an engine or result record at the adapter, a bad release, a
    // hook block still live (the record slabs go back with the last record), a
    // free of a pointer the hooks never gave, a temporary file.
    std::string LeftOver(uint64_t mark);

    TestPel pel;
    uint64_t mark_ = 0, misuse_ = 0;
};

}  // namespace robust

#endif
