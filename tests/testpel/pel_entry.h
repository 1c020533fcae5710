// pel_entry.h - the test adapter's entry points, resolved directly (no library).
#ifndef TESTPEL_PEL_ENTRY_H
#define TESTPEL_PEL_ENTRY_H

#include <gtest/gtest.h>

#include "testpel_client.h"

struct PelEntries {
    explicit PelEntries(const TestPel& pel)
        : startup(pel.sym<PEL_STARTUP_FN>("PelStartup")),
          getConfig(pel.sym<PEL_GETCONFIG_FN>("PelGetConfig")),
          init(pel.sym<PEL_INIT_FN>("PelInit")),
          scan(pel.sym<PEL_SCAN_FN>("PelScan")),
          releaseScan(pel.sym<PEL_RELEASESCAN_FN>("PelReleaseScan")),
          end(pel.sym<PEL_END_FN>("PelEnd")),
          cleanup(pel.sym<PEL_CLEANUP_FN>("PelCleanup")) {}
    PEL_STARTUP_FN startup;
    PEL_GETCONFIG_FN getConfig;
    PEL_INIT_FN init;
    PEL_SCAN_FN scan;
    PEL_RELEASESCAN_FN releaseScan;
    PEL_END_FN end;
    PEL_CLEANUP_FN cleanup;
};

class TestPelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(pel_.startup, nullptr);
        ASSERT_NE(pel_.cleanup, nullptr);
        baseInits_ = tp_.live_inits();
        baseScans_ = tp_.live_scaninfos();
    }
    // Every test must hand back what it got.
    void TearDown() override {
        EXPECT_EQ(tp_.live_inits(), baseInits_);
        EXPECT_EQ(tp_.live_scaninfos(), baseScans_);
    }
    PEL_INIT* newInit() {
        PEL_INIT* in = nullptr;
        EXPECT_EQ(pel_.init(nullptr, nullptr, &in), 0);
        return in;
    }
    void endInit(PEL_INIT* in) {
        PEL_CONFIG* none = nullptr;
        EXPECT_EQ(pel_.end(&in, &none), 0);
        EXPECT_EQ(in, nullptr);
    }

    TestPel tp_;
    PelEntries pel_{tp_};
    int baseInits_ = 0;
    int baseScans_ = 0;
};

#endif
