// robust_env.h - what the robustness tests share: counting memory hooks
// installed before the first library call, private temporary directories
// (PEL_TMP and one for INITTEMP_PATH), trace lines swallowed by a handler,
// and a fixture that checks after each test that nothing was left behind.
#ifndef KORMO_TESTS_ROBUST_ROBUST_ENV_H
#define KORMO_TESTS_ROBUST_ROBUST_ENV_H

#include <gtest/gtest.h>

#include <string>

#include "counting_hooks.h"
#include "testpel_client.h"

namespace robust {

const std::string& DefaultTmpDir();  // PEL_TMP of this process
const std::string& HandleTmpDir();   // for a handle's INITTEMP_PATH
const std::string& SampleFile();     // a small file to scan

// True for every code the library documents (-6..32).
inline bool KnownCode(MAV_RC rc) {
    return rc >= MAV_E_BLOCKED_BY_POLICY && rc <= 32;
}

// Nothing left after a test: no handle registered, no engine or result record
// at the adapter, no bad release, no hook allocation of the test still live
// (the record slabs go back with the last record), no foreign free, no
// temporary file.
class RobustTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // What Check() finds, as text (empty when nothing is left).
    std::string LeftOver(uint64_t mark);

    TestPel pel;
    uint64_t mark_ = 0, misuse_ = 0;
};

}  // namespace robust

#endif
