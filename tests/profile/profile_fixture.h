// profile_fixture.h - helpers of the profile runtime tests.
#ifndef PROFILE_FIXTURE_H
#define PROFILE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "mavprofile_i.h"
#include "mavxxi.h"
#include "runtime_text.h"
#include "temp_dir.h"
#include "testpel_client.h"

namespace profiletest {

using ::TempDir;

using Config = ::RuntimeText;

// Every test starts and ends with the runtime stopped and an empty key map
// (the map otherwise keeps the first value of every key for the process).
class RuntimeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        MavStopRuntime();
        mav::mav_properties = mav::PropertyReader();
    }
    void TearDown() override {
        MavStopRuntime();
        mav::mav_properties = mav::PropertyReader();
    }
    MAV_RC start(const std::string& text) { return MavStartRuntime(text.data(), text.size()); }

    TestPel pel;
};

// Two separately loaded copies of the test adapter, pel (A) and *pelB, each
// with its own script, and a file to scan.
class TwoAdapterTest : public RuntimeTest {
  protected:
    void SetUp() override {
        RuntimeTest::SetUp();
        pathB = dir.file("libtestpel_b.so");
        ASSERT_TRUE(std::filesystem::copy_file(pel.path(), pathB));
        const char* env = getenv("TESTPEL_DIR");
        std::string old = env != nullptr ? env : "";
        setenv("TESTPEL_DIR", dir.path.c_str(), 1);
        pelB.reset(new TestPel("libtestpel_b.so"));
        old.empty() ? unsetenv("TESTPEL_DIR") : setenv("TESTPEL_DIR", old.c_str(), 1);
        file = dir.write("object.bin", "content");
    }
    // Every C instance went back to its pool, so both handles could end.
    void TearDown() override {
        RuntimeTest::TearDown();
        EXPECT_EQ(pel.live_inits(), 0);
        EXPECT_EQ(pelB->live_inits(), 0);
    }

    TempDir dir;
    std::string pathB, file;
    std::unique_ptr<TestPel> pelB;
};

}  // namespace profiletest

#endif
