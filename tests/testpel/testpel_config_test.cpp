// The test adapter's configuration, engine record, failure injection and builds.
#include <cstdio>
#include <cstring>
#include <string>

#include "kormomav.h"
#include "pel_entry.h"

namespace {

bool allZero(const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i)
        if (b[i]) return false;
    return true;
}

TEST_F(TestPelTest, DefaultConfigurationAndLayout) {
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(cfg->struct_size, 64u);
    EXPECT_EQ(cfg->uiPelScanFlag, 0x3u);
    EXPECT_EQ(cfg->uiPelActionFlag, 0x19u);
    EXPECT_EQ(cfg->uiPelEventFlag, 0x03FF0003u);
    EXPECT_EQ(cfg->uiPelCIOFlag, 0u);
    EXPECT_TRUE(allZero(cfg->abPad, sizeof cfg->abPad));
    const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo;
    ASSERT_NE(ai, nullptr);
    EXPECT_EQ(ai->struct_size, 56u);
    EXPECT_EQ(ai->uiAdapterID, 4711u);
    EXPECT_EQ(ai->uiThreadModel, 0u);
    EXPECT_EQ(ai->usMavVersion, 2);
    EXPECT_EQ(ai->usPelMajorVersion, 1);
    EXPECT_EQ(ai->usPelMinorVersion, 0);
    EXPECT_EQ(ai->usPad1, 0);
    EXPECT_STREQ(ai->pszVendorInfo, "Kormo Test");
    EXPECT_STREQ(ai->pszAdapterName, "testpel");
    ASSERT_NE(cfg->pInitParams, nullptr);
    ASSERT_NE(cfg->pOptParams, nullptr);
    EXPECT_EQ(cfg->pInitParams->usNumParams, 0);
    EXPECT_EQ(cfg->pOptParams->pParams, nullptr);
}

TEST_F(TestPelTest, ConfigurationIsRebuiltFromTheScriptAndOldOnesStay) {
    PEL_CONFIG* before = nullptr;
    ASSERT_EQ(pel_.getConfig(&before), 0);

    tp_.set_adapter_info(99, 2, 1, 7, 8, nullptr, "other");
    tp_.set_flags(0x1, 0x11, VS_M_VIRUS, 5);
    tp_.add_param(1, VS_P_INITDIRECTORY, VS_TYPE_CHAR, "/opt/db");
    tp_.add_param(0, VS_P_SCANLIMIT, VS_TYPE_INT, "-42");
    tp_.add_param(0, 12345, 77, nullptr);  // unknown code and type pass through
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    ASSERT_NE(cfg, before);
    EXPECT_EQ(cfg->pAdapterInfo->uiAdapterID, 99u);
    EXPECT_EQ(cfg->pAdapterInfo->uiThreadModel, 2u);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 1);
    EXPECT_EQ(cfg->pAdapterInfo->pszVendorInfo, nullptr);
    EXPECT_STREQ(cfg->pAdapterInfo->pszAdapterName, "other");
    EXPECT_EQ(cfg->uiPelActionFlag, 0x11u);
    EXPECT_EQ(cfg->uiPelCIOFlag, 5u);

    ASSERT_EQ(cfg->pInitParams->usNumParams, 1);
    const PEL_PARAM& dir = cfg->pInitParams->pParams[0];
    EXPECT_EQ(dir.struct_size, 32u);
    EXPECT_EQ(dir.tCode, VS_P_INITDIRECTORY);
    EXPECT_EQ(dir.lLength, 7u);
    EXPECT_STREQ(static_cast<const char*>(dir.pvValue), "/opt/db");
    ASSERT_EQ(cfg->pOptParams->usNumParams, 2);
    const PEL_PARAM& lim = cfg->pOptParams->pParams[0];
    EXPECT_EQ(lim.tType, VS_TYPE_INT);
    EXPECT_EQ(lim.lLength, 4u);
    EXPECT_EQ(reinterpret_cast<intptr_t>(lim.pvValue), -42);
    EXPECT_EQ(cfg->pOptParams->pParams[1].tCode, 12345);
    EXPECT_EQ(cfg->pOptParams->pParams[1].tType, 77);

    // The first configuration is untouched and still readable (ASan watches).
    EXPECT_EQ(before->pAdapterInfo->uiAdapterID, 4711u);
    EXPECT_STREQ(before->pAdapterInfo->pszVendorInfo, "Kormo Test");

    tp_.set_no_adapter_info(1);
    tp_.set_null_param_lists(1);
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo, nullptr);
    EXPECT_EQ(cfg->pInitParams, nullptr);
    EXPECT_EQ(cfg->pOptParams, nullptr);

    tp_.reset();
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->uiAdapterID, 4711u);
    EXPECT_EQ(cfg->pInitParams->usNumParams, 0);
    EXPECT_EQ(before->pAdapterInfo->uiAdapterID, 4711u);  // reset frees nothing held
}

TEST_F(TestPelTest, InitBuildsTheEngineRecordAndEndFreesIt) {
    tp_.add_driver("second.drv", 2, 5, 1234, 7, 8, -3);
    tp_.set_engine_counts(11, 12, 13);
    PEL_INIT* in = newInit();
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(tp_.live_inits(), baseInits_ + 1);
    EXPECT_TRUE(tp_.is_live_init(in));
    EXPECT_EQ(in->struct_size, 88u);
    EXPECT_NE(in->hEngine, nullptr);
    EXPECT_EQ(in->usEngineMajVersion, 3);
    EXPECT_EQ(in->usEngineMinVersion, 1);
    EXPECT_STREQ(in->pszEngineVersionText, "testpel engine 3.1");
    EXPECT_EQ(in->uiExtensions, 11u);
    EXPECT_EQ(in->uiIntRevision, 12u);
    EXPECT_EQ(in->uiSignatures, 13u);
    EXPECT_EQ(in->iErrorRC, 0);
    EXPECT_EQ(in->pszErrorText, nullptr);
    EXPECT_TRUE(allZero(in->ausPad1, sizeof in->ausPad1));
    ASSERT_EQ(in->usDrivers, 2);
    EXPECT_EQ(in->pDriver[0].struct_size, 48u);
    EXPECT_STREQ(in->pDriver[1].pszName, "second.drv");
    EXPECT_EQ(in->pDriver[1].usDrMinVersion, 5);
    EXPECT_EQ(in->pDriver[1].uiVariants, 8u);
    EXPECT_EQ(in->pDriver[1].iDriverRC, -3);
    EXPECT_EQ(in->pDriver[1].uiPad2, 0u);

    PEL_INIT* other = newInit();
    EXPECT_NE(other->hEngine, in->hEngine);
    PEL_INIT* stale = in;
    endInit(in);
    EXPECT_FALSE(tp_.is_live_init(stale));
    // A second PelEnd of the same record is refused and counted, not freed twice.
    PEL_CONFIG* none = nullptr;
    EXPECT_EQ(pel_.end(&stale, &none), MAV_E_INVALID_PARAM);
    EXPECT_EQ(tp_.bad_releases(), 1u);
    EXPECT_EQ(pel_.end(&other, nullptr), 0);  // a null configuration address is fine
    PEL_INIT* nothing = nullptr;
    EXPECT_EQ(pel_.end(&nothing, &none), 0);
    EXPECT_EQ(tp_.calls(TPEL_END), 4u);
}

TEST_F(TestPelTest, InitSeesTheLibrarysParameterCopy) {
    EXPECT_EQ(tp_.last_param_count(0), -1);
    PEL_PARAM list[2] = {};
    list[0] = PEL_PARAM{32, VS_P_INITTIMEOUT, VS_TYPE_INT, 4, reinterpret_cast<void*>(30)};
    list[1] = PEL_PARAM{32, VS_P_INITSERVERS, VS_TYPE_CHAR, 9, const_cast<char*>("localhost")};
    PEL_PARAMS params = {2, {0, 0, 0}, list};
    PEL_INIT* in = nullptr;
    ASSERT_EQ(pel_.init(nullptr, &params, &in), 0);
    EXPECT_EQ(tp_.last_param_count(0), 2);
    int32_t type = -1;
    size_t len = 0;
    int64_t num = -1;
    char text[4] = "x";
    ASSERT_EQ(tp_.last_param(0, VS_P_INITTIMEOUT, &type, &len, &num, text, sizeof text), 1);
    EXPECT_EQ(type, VS_TYPE_INT);
    EXPECT_EQ(num, 30);
    EXPECT_STREQ(text, "");
    ASSERT_EQ(tp_.last_param(0, VS_P_INITSERVERS, nullptr, &len, &num, text, sizeof text), 1);
    EXPECT_EQ(len, 9u);
    EXPECT_EQ(num, 0);
    EXPECT_STREQ(text, "loc");  // truncated to the buffer
    EXPECT_EQ(tp_.last_param(0, VS_P_INITDRIVERS, nullptr, nullptr, nullptr, nullptr, 0), 0);
    endInit(in);
}

TEST_F(TestPelTest, FailureInjectionPerEntryPoint) {
    tp_.fail(TPEL_STARTUP, 7, nullptr);
    EXPECT_EQ(pel_.startup(), 7);
    tp_.fail(TPEL_STARTUP, 0, nullptr);
    EXPECT_EQ(pel_.startup(), 0);
    EXPECT_EQ(tp_.calls(TPEL_STARTUP), 2u);

    tp_.fail(TPEL_GETCONFIG, 9, nullptr);
    PEL_CONFIG* cfg = nullptr;
    EXPECT_EQ(pel_.getConfig(&cfg), 9);
    EXPECT_NE(cfg, nullptr);  // the pointer is still set

    tp_.fail(TPEL_INIT, 5, nullptr);
    PEL_INIT* in = reinterpret_cast<PEL_INIT*>(&cfg);
    EXPECT_EQ(pel_.init(nullptr, nullptr, &in), 5);
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(tp_.live_inits(), baseInits_);
    tp_.fail(TPEL_INIT, 9, "licence expired");
    EXPECT_EQ(pel_.init(nullptr, nullptr, &in), 9);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(in->iErrorRC, 9);
    EXPECT_STREQ(in->pszErrorText, "licence expired");
    EXPECT_EQ(tp_.live_inits(), baseInits_ + 1);

    tp_.fail(TPEL_END, 15, nullptr);
    PEL_INIT* keep = in;
    EXPECT_EQ(pel_.end(&in, &cfg), 15);
    EXPECT_EQ(in, keep);  // nothing freed
    EXPECT_TRUE(tp_.is_live_init(in));
    tp_.fail(TPEL_END, 0, nullptr);
    endInit(in);

    tp_.fail(TPEL_CLEANUP, 4, nullptr);
    EXPECT_EQ(pel_.cleanup(), 4);
    tp_.reset();
    EXPECT_EQ(pel_.cleanup(), 0);
    EXPECT_EQ(tp_.calls(TPEL_CLEANUP), 1u);
    EXPECT_EQ(tp_.calls(TPEL_INIT), 0u);
    EXPECT_EQ(tp_.calls(TPEL_ENTRY_COUNT), 0u);  // out of range: 0
}

TEST(TestPelBuilds, WithoutCleanupLacksOnlyPelCleanup) {
    TestPel tp("libtestpel_nocleanup.so");
    PelEntries pel(tp);
    EXPECT_EQ(pel.cleanup, nullptr);
    EXPECT_NE(pel.startup, nullptr);
    EXPECT_NE(pel.getConfig, nullptr);
    EXPECT_NE(pel.init, nullptr);
    EXPECT_NE(pel.scan, nullptr);
    EXPECT_NE(pel.releaseScan, nullptr);
    EXPECT_NE(pel.end, nullptr);
    // Its own state, separate from libtestpel.so.
    TestPel plain;
    tp.fail(TPEL_STARTUP, 3, nullptr);
    EXPECT_EQ(pel.startup(), 3);
    EXPECT_EQ(plain.calls(TPEL_STARTUP), 0u);
}

TEST(TestPelBuilds, Version3ReportsVersion3EvenAfterReset) {
    TestPel tp("libtestpel_v3.so");
    PelEntries pel(tp);
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(pel.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 3);
    tp.set_adapter_info(1, 0, 2, 1, 0, "v", "n");
    ASSERT_EQ(pel.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 2);
    tp.reset();
    ASSERT_EQ(pel.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 3);
}

TEST(TestPelBuilds, ExportsOnlyTheInterface) {
    for (const char* variant : {"libtestpel.so", "libtestpel_v3.so"}) {
        std::string cmd = "nm -D --defined-only " + testpelPath(variant) + " 2>/dev/null";
        FILE* f = popen(cmd.c_str(), "r");
        ASSERT_NE(f, nullptr);
        char line[512];
        int pel = 0, ctl = 0;
        while (fgets(line, sizeof line, f)) {
            char name[400] = "";
            if (sscanf(line, "%*s %*s %399s", name) != 1) continue;
            std::string n(name);
            if (n.rfind("Pel", 0) == 0) {
                ++pel;
            } else if (n.rfind("tpel_", 0) == 0) {
                ++ctl;
            } else {
                ADD_FAILURE() << variant << " exports " << n;
            }
        }
        if (pclose(f) != 0 && pel == 0) GTEST_SKIP() << "nm not available";
        EXPECT_EQ(pel, 7) << variant;
        EXPECT_GT(ctl, 30) << variant;
    }
}

}  // namespace
