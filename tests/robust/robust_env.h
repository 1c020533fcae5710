// robust_env.h - what every robustness test of test_robust shares: counting
// memory hooks installed before the first library call, private temporary
// directories, trace lines swallowed by a handler, and a fixture that checks
// after each test that nothing was left behind.
#ifndef KORMO_TESTS_ROBUST_ROBUST_ENV_H
#define KORMO_TESTS_ROBUST_ROBUST_ENV_H

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "counting_hooks.h"
#include "testpel_client.h"

namespace robust {

// Directory named by PEL_TMP for this process (the library's default
// temporary directory); empty after every scan.
const std::string& DefaultTmpDir();
// A second empty directory, used as a handle's INITTEMP_PATH.
const std::string& HandleTmpDir();
// A small file to scan.
const std::string& SampleFile();
// Number of regular files in a directory.
int FilesIn(const std::string& dir);

// Trace lines the handler received since the last reset.
uint64_t TraceLines();
void ResetTraceLines();

// True for every code the library documents (-6..32).
inline bool KnownCode(MAV_RC rc) {
    return rc >= MAV_E_BLOCKED_BY_POLICY && rc <= 32;
}

// Checks after a test: no handle registered, no engine or result record held
// at the adapter, no double release, no hook allocation of the test still
// live (recycled records aside), no foreign free, no temporary file.
class RobustTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Re-reads the baseline (for tests that leave global state on purpose).
    void Rebase() { mark_ = CountingHooks::Mark(); }

    TestPel pel;

  private:
    uint64_t mark_ = 0;
    uint64_t foreign_ = 0;
};

}  // namespace robust

#endif
