// instance_test.cpp - scan instances over two adapters (linkage walks, the C
// walk behind a profile instance handle) and the exceptions.
#include "profile_fixture.h"

using profiletest::Config;
using profiletest::TwoAdapterTest;

namespace {

// What a scan threw: "infection|what|text", "scan|what" or "" for nothing.
template <typename F>
std::string Thrown(F scan) {
    try {
        scan();
    } catch (const mav::MavCInfectionException& e) {
        return std::string("infection|") + e.what() + "|" + e.getText();
    } catch (const mav::MavCScanException& e) {
        return std::string("scan|") + e.what();
    }
    return "";
}

// Profiles over two separate adapters: the test adapter A and a copy B of it
// under another name, loaded separately so each has its own script.
class TwoAdapters : public TwoAdapterTest {
  protected:
    void SetUp() override {
        TwoAdapterTest::SetUp();

        Config c;
        c.profile("L0", true, "0").step("L0", "0", "0", "GA").step("L0", "1", "0", "GB");
        c.profile("L1", true, "1").step("L1", "0", "0", "GA").step("L1", "1", "0", "GB");
        c.profile("NOINFO").step("NOINFO", "0", "0", "GA");
        c.param("mav.profile.NOINFO", "CUST_NO_SCANINFO", "BOOL", "true");
        c.profile("WARN").step("WARN", "0", "0", "GA").step("WARN", "1", "0", "GB");
        c.param("mav.profile.WARN", "CUST_NOT_SCANNED_AS_WARNING", "BOOL", "1");
        c.profile("CLEAN").step("CLEAN", "0", "0", "GA");
        c.param("mav.profile.CLEAN", "CUST_CLEAN", "BOOL", "true");
        c.group("GA").group("GB").provider("A", "GA", pel.path(), "2");
        c.provider("B", "GB", pathB, "2");
        ASSERT_EQ(start(c.text), MAV_OK);
    }

    std::unique_ptr<mav::MavInstance> take(const char* name) {
        std::unique_ptr<mav::MavInstance> inst = mav::MavInstance::createInstance(name);
        EXPECT_TRUE(inst);
        return inst;
    }
};

TEST_F(TwoAdapters, LinkageZeroStopsAtTheFirstFinding) {
    pelB->script_rc(MAV_E_VIRUS_FOUND);
    pelB->script_infection("Virus-B", "inner", 7, 0, 10, "found by B");
    auto inst = take("L0");
    auto scanFile = [&] { inst->scan(file.c_str()); };
    EXPECT_EQ("infection|Infection \"Virus-B\" in object \"" + file + "\"|Virus-B",
              Thrown(scanFile));
    EXPECT_EQ(inst->getCurrent(), 1);
    // A finding without an infection record: the fallback text.
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pelB->script_clear();
    EXPECT_EQ("infection|Infection \"Infection\" in object \"" + file + "\"|Infection",
              Thrown(scanFile));
    EXPECT_EQ(inst->getCurrent(), 0);
    EXPECT_EQ(pelB->calls(TPEL_SCAN), 1u);
}

// Cleaning writes into the scanned buffer: a profile that cleans hands the
// adapter a copy, and the caller's const bytes stay as they were.
TEST_F(TwoAdapters, CleaningProfileLeavesTheCallersBytesAlone) {
    pel.script_rc(MAV_E_CLEAN_OK);
    pel.script_cleaned("CLEAN", 5);
    auto inst = take("CLEAN");
    unsigned char bytes[] = "dirty bytes";
    const unsigned char* callers = bytes;
    Thrown([&] { inst->scan(callers, sizeof bytes - 1, "obj"); });
    EXPECT_EQ("dirty bytes", std::string(reinterpret_cast<char*>(bytes)));
    EXPECT_NE(0u, pel.lastScan().uiActionCode & VS_A_CLEAN);
}

TEST_F(TwoAdapters, LinkageOneStopsAtTheFirstCleanResult) {
    auto inst = take("L1");
    pel.script_rc(MAV_E_SCAN_FAILED);
    EXPECT_EQ(inst->scan(file.c_str()), MAV_OK);
    EXPECT_EQ(pelB->calls(TPEL_SCAN), 1u);
    pel.script_rc(MAV_OK);
    EXPECT_EQ(inst->scan(file.c_str()), MAV_OK);
    EXPECT_EQ(pelB->calls(TPEL_SCAN), 1u);

    pel.script_rc(MAV_E_SCAN_FAILED);
    pelB->script_rc(MAV_E_SCAN_FAILED);
    pelB->script_scan_error("inner", 99, "B broke", 1);
    EXPECT_EQ("scan|Scan error in object \"" + file + "\": \"B broke\"",
              Thrown([&] { inst->scan(file.c_str()); }));
    pelB->script_clear();
    pelB->script_rc(MAV_E_SCAN_FAILED);
    EXPECT_EQ("scan|Scan error in object \"mem\": \"ScanError\"",
              Thrown([&] { inst->scan(reinterpret_cast<const unsigned char*>("xy"), 2, "mem"); }));
}

TEST_F(TwoAdapters, NotScannedIsAcceptedWhereConfigured) {
    // Strict first: a parameter set through a profile stays with the pooled
    // instance it was set on.
    pel.script_rc(MAV_E_NOT_SCANNED);
    EXPECT_THROW(take("L0")->scan(file.c_str()), mav::MavCScanException);
    MAV_INST strict = MavGetProfileInstancePointer("L0");
    ASSERT_NE(strict, nullptr);
    EXPECT_EQ(MavScanFile(strict, file.c_str(), 0, nullptr), MAV_E_NOT_SCANNED);
    EXPECT_EQ(MavFreeInstance(&strict), MAV_OK);

    EXPECT_EQ(take("WARN")->scan(file.c_str()), MAV_OK);
    MAV_INST warn = MavGetProfileInstancePointer("WARN");
    ASSERT_NE(warn, nullptr);
    EXPECT_EQ(MavScanFile(warn, file.c_str(), 0, nullptr), MAV_OK);
    EXPECT_EQ(MavFreeInstance(&warn), MAV_OK);
}

TEST_F(TwoAdapters, ProfileInstanceHandleWalksWithoutMovingCurrent) {
    pelB->script_rc(MAV_E_VIRUS_FOUND);
    pelB->script_infection("Virus-B", "inner", 7, 0, 10, "found by B");
    MAV_INST h = nullptr;
    ASSERT_EQ(MavGetProfileInstance("L0", &h), MAV_OK);
    ASSERT_NE(h, nullptr);
    auto* mi = static_cast<mav::MavInstance*>(static_cast<MAV_INST_REC*>(h)->pProfileInst);
    ASSERT_NE(mi, nullptr);

    MAV_SCANINFO summary = {32, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(MavScanFile(h, file.c_str(), 0, &summary), MAV_E_VIRUS_FOUND);
    EXPECT_EQ(summary.uiInfections, 1u);
    EXPECT_EQ(mi->getCurrent(), 0);
    // Results are read from the C instance at the current index: A's (clean).
    EXPECT_EQ(MavIXGetInstanceHandleFromProfile(mi), mi->getCInstances()[0]);
    size_t size = 0;
    EXPECT_EQ(MavEnumInfections(h, 0, nullptr, nullptr, nullptr, &size, nullptr, nullptr, nullptr,
                                nullptr, nullptr),
              MAV_E_INVALID_ENUM_INDEX);
    EXPECT_THROW(mi->scan(file.c_str()), mav::MavCInfectionException);
    EXPECT_EQ(mi->getCurrent(), 1);
    EXPECT_EQ(MavEnumInfections(h, 0, nullptr, nullptr, nullptr, &size, nullptr, nullptr, nullptr,
                                nullptr, nullptr),
              MAV_OK);
    EXPECT_GT(size, 0u);

    MAV_INST l1 = MavGetProfileInstancePointer("L1");
    pel.script_rc(MAV_E_SCAN_FAILED);
    pelB->script_rc(MAV_OK);
    EXPECT_EQ(MavScanFile(l1, file.c_str(), 0, nullptr), MAV_OK);
    EXPECT_EQ(MavFreeInstance(&l1), MAV_OK);
    EXPECT_EQ(MavFreeInstance(&h), MAV_OK);
    EXPECT_EQ(h, nullptr);
}

}  // namespace
