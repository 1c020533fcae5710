// The scriptable test adapter through its entry points, without the library: a
// sanity set for the scripting and the fault signals (live records, bad
// releases, call counters, the request record, concurrency) the other suites
// rely on. Scripted events, counts and cleaned bytes are checked where the
// library meets them (tests/scan, tests/robust).
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kormomav.h"
#include "testpel_client.h"

namespace {

struct PelEntries {
    explicit PelEntries(const TestPel& p)
        : startup(p.sym<PEL_STARTUP_FN>("PelStartup")),
          getConfig(p.sym<PEL_GETCONFIG_FN>("PelGetConfig")),
          init(p.sym<PEL_INIT_FN>("PelInit")),
          scan(p.sym<PEL_SCAN_FN>("PelScan")),
          releaseScan(p.sym<PEL_RELEASESCAN_FN>("PelReleaseScan")),
          end(p.sym<PEL_END_FN>("PelEnd")),
          cleanup(p.sym<PEL_CLEANUP_FN>("PelCleanup")) {}
    PEL_STARTUP_FN startup;
    PEL_GETCONFIG_FN getConfig;
    PEL_INIT_FN init;
    PEL_SCAN_FN scan;
    PEL_RELEASESCAN_FN releaseScan;
    PEL_END_FN end;
    PEL_CLEANUP_FN cleanup;
};

// One engine record per test; every record a test gets must go back.
class TestPelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        baseInits_ = tp_.live_inits();
        baseScans_ = tp_.live_scaninfos();
        ASSERT_EQ(pel_.init(nullptr, nullptr, &init_), 0);
        param_.struct_size = sizeof param_;
        cb_.struct_size = sizeof cb_;
    }
    void TearDown() override {
        if (info_) {
            EXPECT_EQ(pel_.releaseScan(&info_), 0);
        }
        PEL_CONFIG* none = nullptr;
        EXPECT_EQ(pel_.end(&init_, &none), 0);
        EXPECT_EQ(tp_.live_inits(), baseInits_);
        EXPECT_EQ(tp_.live_scaninfos(), baseScans_);
    }
    int ScanBytes(unsigned char* bytes, size_t len, uint32_t action = VS_A_SCAN) {
        param_ = PEL_SCANPARAM{sizeof param_, VS_SC_BYTES, action, "mem.obj", bytes, len, 77, 0};
        if (info_) {
            EXPECT_EQ(pel_.releaseScan(&info_), 0);
        }
        return pel_.scan(init_, &cb_, &param_, nullptr, &info_);
    }

    TestPel tp_;
    PelEntries pel_{tp_};
    int baseInits_ = 0, baseScans_ = 0;
    PEL_INIT* init_ = nullptr;
    PEL_SCANPARAM param_{};
    PEL_CALLBACK cb_{};
    PEL_SCANINFO* info_ = nullptr;
};

TEST_F(TestPelTest, ConfigurationDefaultsAndScript) {
    PEL_CONFIG* before = nullptr;
    ASSERT_EQ(pel_.getConfig(&before), 0);
    EXPECT_EQ(before->struct_size, 64u);
    EXPECT_EQ(before->uiPelScanFlag, 0x3u);
    EXPECT_EQ(before->uiPelActionFlag, 0x19u);
    EXPECT_EQ(before->uiPelEventFlag, 0x03FF0003u);
    EXPECT_EQ(before->pAdapterInfo->struct_size, 56u);
    EXPECT_EQ(before->pAdapterInfo->uiAdapterID, 4711u);
    EXPECT_EQ(before->pAdapterInfo->usMavVersion, 2);
    EXPECT_STREQ(before->pAdapterInfo->pszVendorInfo, "Kormo Test");
    EXPECT_STREQ(before->pAdapterInfo->pszAdapterName, "testpel");
    EXPECT_EQ(before->pInitParams->usNumParams, 0);

    tp_.set_adapter_info(99, 2, 1, 7, 8, nullptr, "other");
    tp_.set_flags(0x1, 0x11, VS_M_VIRUS, 5);
    tp_.add_param(1, VS_P_INITDIRECTORY, VS_TYPE_CHAR, "/opt/db");
    tp_.add_param(0, VS_P_SCANLIMIT, VS_TYPE_INT, "-42");
    tp_.add_param(0, 12345, 77, nullptr);  // unknown code and type pass through
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->uiThreadModel, 2u);
    EXPECT_EQ(cfg->pAdapterInfo->pszVendorInfo, nullptr);
    EXPECT_EQ(cfg->uiPelCIOFlag, 5u);
    const PEL_PARAM& dir = cfg->pInitParams->pParams[0];
    EXPECT_EQ(dir.lLength, 7u);
    EXPECT_STREQ(static_cast<const char*>(dir.pvValue), "/opt/db");
    ASSERT_EQ(cfg->pOptParams->usNumParams, 2);
    EXPECT_EQ(reinterpret_cast<intptr_t>(cfg->pOptParams->pParams[0].pvValue), -42);
    EXPECT_EQ(cfg->pOptParams->pParams[1].tType, 77);
    // Earlier configurations stay valid (ASan watches), also across a reset.
    tp_.set_no_adapter_info(1);
    tp_.set_null_param_lists(1);
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo, nullptr);
    EXPECT_EQ(cfg->pOptParams, nullptr);
    tp_.reset();
    ASSERT_EQ(pel_.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->uiAdapterID, 4711u);
    EXPECT_STREQ(before->pAdapterInfo->pszVendorInfo, "Kormo Test");
}

TEST_F(TestPelTest, EngineRecordParameterCopyAndBadReleases) {
    tp_.add_driver("second.drv", 2, 5, 1234, 7, 8, -3);
    tp_.set_engine_counts(11, 12, 13);
    PEL_PARAM list[1] = {{32, VS_P_INITSERVERS, VS_TYPE_CHAR, 9, const_cast<char*>("localhost")}};
    PEL_PARAMS params = {1, {0, 0, 0}, list};
    PEL_INIT* in = nullptr;
    ASSERT_EQ(pel_.init(nullptr, &params, &in), 0);
    EXPECT_TRUE(tp_.is_live_init(in));
    EXPECT_EQ(tp_.live_inits(), baseInits_ + 2);
    EXPECT_EQ(in->struct_size, 88u);
    EXPECT_NE(in->hEngine, init_->hEngine);
    EXPECT_STREQ(in->pszEngineVersionText, "testpel engine 3.1");
    EXPECT_EQ(in->uiSignatures, 13u);
    ASSERT_EQ(in->usDrivers, 2);
    EXPECT_EQ(in->pDriver[0].struct_size, 48u);
    EXPECT_STREQ(in->pDriver[1].pszName, "second.drv");
    EXPECT_EQ(in->pDriver[1].iDriverRC, -3);
    char text[4];
    size_t len = 0;
    ASSERT_EQ(tp_.last_param(0, VS_P_INITSERVERS, nullptr, &len, nullptr, text, sizeof text), 1);
    EXPECT_EQ(len, 9u);
    EXPECT_STREQ(text, "loc");  // truncated to the buffer
    EXPECT_EQ(tp_.last_param(0, VS_P_INITDRIVERS, nullptr, nullptr, nullptr, nullptr, 0), 0);

    // A second PelEnd of a record is refused and counted, not freed twice.
    PEL_INIT* stale = in;
    ASSERT_EQ(pel_.end(&in, nullptr), 0);
    EXPECT_FALSE(tp_.is_live_init(stale));
    EXPECT_EQ(pel_.end(&stale, nullptr), MAV_E_INVALID_PARAM);
    EXPECT_EQ(tp_.bad_releases(), 1u);
}

TEST_F(TestPelTest, RecordsTheRequestAndBuildsTheScriptedResult) {
    tp_.script_clear();
    tp_.script_rc(MAV_E_VIRUS_FOUND);
    tp_.script_infection("Test<Virus>", "a.exe", 42, 1, TPEL_SIZE_OF_OBJECT, "free");
    tp_.script_scan_error("b.zip", 14, "encrypted", 100);
    tp_.script_content("c.txt", "txt", "text/plain", "utf-8", 3, 12);
    std::vector<unsigned char> buf(300);
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i * 7);
    cb_.uiMessageMask = 0x5;
    ASSERT_EQ(ScanBytes(buf.data(), buf.size(), 0x12), MAV_E_VIRUS_FOUND);
    TPEL_LAST_SCAN r = tp_.lastScan();
    EXPECT_EQ(r.uiScanCode, VS_SC_BYTES);
    EXPECT_EQ(r.uiActionCode, 0x12u);
    EXPECT_EQ(r.uiJobID, 77u);
    EXPECT_STREQ(r.szObjectName, "mem.obj");
    EXPECT_TRUE(r.bHadBytes && r.bHadScanInfoPtr && r.bHadCallback);
    EXPECT_EQ(r.lLength, 300u);
    EXPECT_EQ(0, std::memcmp(r.abBytes, buf.data(), 256));
    EXPECT_EQ(r.sCallback.uiMessageMask, 0x5u);
    EXPECT_EQ(r.pInit, init_);
    EXPECT_EQ(r.scanParamSize, 48u);
    EXPECT_EQ(r.uiThreadId, static_cast<uint32_t>(syscall(SYS_gettid)));

    ASSERT_NE(info_, nullptr);
    EXPECT_EQ(info_->struct_size, 80u);
    EXPECT_EQ(info_->uiScanned, 1u);
    EXPECT_EQ(info_->uiClean, 0u);
    EXPECT_EQ(info_->uiInfections, 1u);
    EXPECT_EQ(info_->pVirusInfo[0].struct_size, 72u);
    EXPECT_EQ(info_->pVirusInfo[0].lObjectSize, 300u);  // the scanned object's size
    EXPECT_EQ(info_->pScanError[0].struct_size, 48u);
    EXPECT_STREQ(info_->pScanError[0].pszErrorText, "encrypted");
    EXPECT_STREQ(info_->pContentInfo[0].pszCharSet, "utf-8");

    // A file request: existence and size are recorded, the default content
    // entry describes the file.
    char path[] = "/tmp/testpel_scan_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "HELLOaaaaa", 10), 10);
    close(fd);
    tp_.script_clear();
    ASSERT_EQ(pel_.releaseScan(&info_), 0);
    param_ = PEL_SCANPARAM{sizeof param_, VS_SC_FILE, 0, path, nullptr, strlen(path), 1, 0};
    ASSERT_EQ(pel_.scan(init_, nullptr, &param_, nullptr, &info_), 0);
    unlink(path);
    r = tp_.lastScan();
    EXPECT_TRUE(r.bFileExisted);
    EXPECT_EQ(r.lFileSize, 10u);
    EXPECT_FALSE(r.bHadBytes || r.bHadCallback);
    EXPECT_EQ(0, std::memcmp(r.abBytes, "HELLO", 5));
}

TEST_F(TestPelTest, FailureInjectionAndReleaseChecks) {
    tp_.fail(TPEL_STARTUP, 7, nullptr);
    EXPECT_EQ(pel_.startup(), 7);
    tp_.fail(TPEL_GETCONFIG, 9, nullptr);
    PEL_CONFIG* cfg = nullptr;
    EXPECT_EQ(pel_.getConfig(&cfg), 9);
    EXPECT_NE(cfg, nullptr);  // the pointer is still set
    tp_.fail(TPEL_INIT, 5, nullptr);
    PEL_INIT* in = init_;
    EXPECT_EQ(pel_.init(nullptr, nullptr, &in), 5);
    EXPECT_EQ(in, nullptr);
    tp_.fail(TPEL_INIT, 9, "licence expired");
    EXPECT_EQ(pel_.init(nullptr, nullptr, &in), 9);
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->pszErrorText, "licence expired");
    tp_.fail(TPEL_END, 15, nullptr);
    EXPECT_EQ(pel_.end(&in, nullptr), 15);
    EXPECT_TRUE(tp_.is_live_init(in));  // nothing freed
    tp_.fail(TPEL_END, 0, nullptr);
    EXPECT_EQ(pel_.end(&in, nullptr), 0);

    unsigned char byte = 0;
    tp_.fail(TPEL_SCAN, 13, nullptr);
    EXPECT_EQ(ScanBytes(&byte, 1), 13);
    EXPECT_EQ(info_, nullptr);
    EXPECT_EQ(tp_.lastScan().uiJobID, 77u);  // the request is still recorded
    tp_.fail(TPEL_SCAN, 0, nullptr);
    ASSERT_EQ(ScanBytes(&byte, 1), 0);
    PEL_SCANINFO* stale = info_;
    tp_.fail(TPEL_RELEASESCAN, 12, nullptr);
    EXPECT_EQ(pel_.releaseScan(&info_), 12);
    EXPECT_EQ(info_, stale);
    tp_.fail(TPEL_RELEASESCAN, 0, nullptr);
    ASSERT_EQ(pel_.releaseScan(&info_), 0);
    EXPECT_EQ(pel_.releaseScan(&stale), MAV_E_INVALID_PARAM);
    EXPECT_EQ(tp_.bad_releases(), 1u);
    EXPECT_EQ(tp_.calls(TPEL_SCAN), 2u);
    EXPECT_EQ(tp_.calls(TPEL_ENTRY_COUNT), 0u);  // out of range: 0

    tp_.fail(TPEL_CLEANUP, 4, nullptr);
    EXPECT_EQ(pel_.cleanup(), 4);
    tp_.reset();
    EXPECT_EQ(pel_.cleanup(), 0);
    EXPECT_EQ(tp_.calls(TPEL_CLEANUP), 1u);
}

TEST_F(TestPelTest, ScansRunConcurrently) {
    tp_.script_delay_ms(100);
    std::atomic<int> failures{0};
    auto worker = [&] {
        unsigned char byte = 0;
        PEL_SCANPARAM p{sizeof p, VS_SC_BYTES, 0, nullptr, &byte, 1, 0, 0};
        PEL_SCANINFO* info = nullptr;
        if (pel_.scan(init_, nullptr, &p, nullptr, &info) != 0) ++failures;
        if (pel_.releaseScan(&info) != 0) ++failures;
    };
    std::thread t1(worker), t2(worker);
    t1.join();
    t2.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tp_.max_concurrent_scans(), 2u);
}

TEST(TestPelBuilds, VariantsHaveTheirOwnStateAndShape) {
    TestPel plain, nocleanup("libtestpel_nocleanup.so"), v3("libtestpel_v3.so");
    PelEntries partial(nocleanup), third(v3);
    EXPECT_EQ(partial.cleanup, nullptr);
    EXPECT_NE(partial.end, nullptr);
    nocleanup.fail(TPEL_STARTUP, 3, nullptr);
    EXPECT_EQ(partial.startup(), 3);
    EXPECT_EQ(plain.calls(TPEL_STARTUP), 0u);
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(third.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 3);
    v3.set_adapter_info(1, 0, 2, 1, 0, "v", "n");
    ASSERT_EQ(third.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 2);
    v3.reset();  // version 3 even after a reset
    ASSERT_EQ(third.getConfig(&cfg), 0);
    EXPECT_EQ(cfg->pAdapterInfo->usMavVersion, 3);
}

}  // namespace
