// lifecycle_fixture.h - shared set-up of the lifecycle tests: the test adapter,
// an empty handle registry before and after each test, a handle's error list.
#ifndef LIFECYCLE_FIXTURE_H
#define LIFECYCLE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "mav_fixture.h"
#include "mavxxi.h"

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("PEL_LIB");
        ASSERT_EQ(0u, MavIXGetHdlSize()) << "a previous test left a handle registered";
    }
    void TearDown() override {
        unsetenv("PEL_LIB");
        EXPECT_EQ(0u, MavIXGetHdlSize());
    }
    static MAV_HDL_REC* Rec(MAV_HANDLE h) { return static_cast<MAV_HDL_REC*>(h); }
    static MAV_INST_REC* Inst(MAV_INST i) { return static_cast<MAV_INST_REC*>(i); }
    // The latest entry of a handle's error list ("" when empty).
    static std::string LastError(MAV_HANDLE h) {
        const MAV_HDL_REC* r = Rec(h);
        if (r == nullptr || r->errors == nullptr || r->errorCount == 0) return "";
        const MAV_ERROR_ENTRY& e = r->errors[r->errorCount - 1];
        return std::string(e.pszText, e.lLength);
    }
    // Starts a handle on the test adapter.
    MAV_HANDLE Start() {
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h));
        return h;
    }
    TestPel pel;
};

#endif
