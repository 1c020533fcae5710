// Record dumps: gating, exact line formats, numbering of the entries.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "krntrc.h"
#include "mavxxi.h"

namespace {

struct Line {
    std::string func, text;
    uint32_t level;
};
std::vector<Line> lines;

int Capture(const char*, const char* func, int, uint32_t level, const char* text) {
    lines.push_back({func, text, level});
    return 0;
}

std::string Num(const char* label, long long v) {
    char b[128];
    snprintf(b, sizeof b, "           %-15.15s: %d\n", label, int(v));
    return b;
}
std::string Txt(const char* label, const char* v) {
    char b[256];
    snprintf(b, sizeof b, "           %-15.15s: %s\n", label, v);
    return b;
}
std::string Ptr(const char* label, const void* v) {
    char b[128];
    snprintf(b, sizeof b, "           %-15.15s: %p\n", label, v);
    return b;
}
std::string CTime(int64_t date) {
    char b[64];
    time_t t = date;
    return ctime_r(&t, b);
}

class Dump : public ::testing::Test {
  protected:
    void SetUp() override {
        lines.clear();
        MavSetTraceHandler(Capture);
        MavSetTraceLevel(0);
        CTrcSetTraceLevelFct(0);
        hdl_ = MavIXAllocHdlRec();
        inst_ = MavIXAllocInstRec(false);
        ASSERT_NE(nullptr, hdl_);
        ASSERT_NE(nullptr, inst_);
        inst_->pHdl = hdl_;
        inst_->pPelInit = &init_;
        init_.struct_size = sizeof init_;
    }
    void TearDown() override {
        MavSetTraceHandler(nullptr);
        MavSetTraceLevel(0);
        CTrcSetTraceLevelFct(0);
        MavIXFreeRec(inst_);
        MavIXFreeRec(hdl_);
    }
    std::vector<std::string> Texts(const char* func) const {
        std::vector<std::string> out;
        for (const Line& l : lines) {
            EXPECT_EQ(func, l.func) << l.text;
            EXPECT_EQ(MAV_TRC_PEL, l.level) << l.text;
            out.push_back(l.text);
        }
        return out;
    }

    MAV_HDL_REC* hdl_ = nullptr;
    MAV_INST_REC* inst_ = nullptr;
    PEL_INIT init_{};
};

TEST_F(Dump, NothingWithoutLevelAndNullRefused) {
    PEL_SCANINFO si{};
    inst_->pScanInfo = &si;
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_EQ(MAV_OK, MavIXTracePELEngine(inst_));
    EXPECT_EQ(MAV_OK, MavIXTracePELConfig(inst_));
    MavSetTraceLevel(0x7FFE & ~MAV_TRC_PEL);  // every bit but 32
    CTrcSetTraceLevelFct(1);
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavIXTracePELScanInfo(nullptr));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavIXTracePELEngine(nullptr));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavIXTracePELConfig(nullptr));

    // Kernel level 2 alone is enough.
    MavSetTraceLevel(0);
    CTrcSetTraceLevelFct(2);
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_FALSE(lines.empty());
}

TEST_F(Dump, MissingRecords) {
    MavSetTraceLevel(MAV_TRC_PEL);
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELScanInfo(inst_));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELEngine(hdl_));  // no shared PEL_INIT
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELConfig(hdl_));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("PEL_SCANINFO structure is initial\n", lines[0].text);
    EXPECT_EQ("PEL_INIT structure is initial\n", lines[1].text);

    // Switched on by the kernel level alone, the notice is written like the dump.
    lines.clear();
    MavSetTraceLevel(0);
    CTrcSetTraceLevelFct(2);
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELScanInfo(inst_));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELEngine(hdl_));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELConfig(hdl_));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("PEL_CONFIG structure is initial\n", lines[2].text);
    EXPECT_EQ(MAV_TRC_PEL, lines[2].level);
}

TEST_F(Dump, ScanInfoBlocks) {
    PEL_CONTENTINFO content{};
    content.struct_size = sizeof content;
    content.tObjectType = 3;
    content.pszContentType = const_cast<char*>("text/plain");
    content.uiJobID = 9;
    content.pszObjectName = const_cast<char*>("a.txt");
    content.lObjectSize = 68;
    content.match_eo = 5;
    PEL_VIRUSINFO virus[2] = {};
    for (int i = 0; i < 2; i++) {
        virus[i].struct_size = sizeof virus[i];
        virus[i].bRepairable = uint8_t(i);
        virus[i].tDetectType = 1;
        virus[i].tVirusType = 2;
        virus[i].tObjectType = 3;
        virus[i].tActionType = 4;
        virus[i].uiVirusID = 100 + i;
        virus[i].pszVirusName = const_cast<char*>(i == 0 ? "Eicar" : "Other");
        virus[i].uiJobID = 9;
        virus[i].pszObjectName = const_cast<char*>("a.txt");
        virus[i].lObjectSize = 68;
    }
    PEL_SCANERROR err{};
    err.struct_size = sizeof err;
    err.uiJobID = 9;
    err.pszObjectName = const_cast<char*>("b.zip");
    err.iErrorRC = -3;
    err.pszErrorText = const_cast<char*>("encrypted");
    PEL_SCANINFO si{};
    si.struct_size = sizeof si;
    si.uiJobID = 9;
    si.uiScanned = 1;
    si.uiInfections = 2;
    si.uiScanErrors = 1;
    si.pContentInfo = &content;
    si.pVirusInfo = virus;
    si.pScanError = &err;
    si.lBytesCleaned = 0;
    inst_->pScanInfo = &si;

    MavSetTraceLevel(MAV_TRC_PEL);
    ASSERT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    std::vector<std::string> want = {
        "PEL_SCANINFO-----------------------------------------------------------\n",
        Num("struct_size", 80),
        Num("uiJobID", 9),
        Num("uiScanned", 1),
        Num("uiNotScanned", 0),
        Num("uiClean", 0),
        Num("uiInfections", 2),
        Num("uiScanErrors", 1),
        "-----PEL_CONTENTINFO(0)-------------------------------------------------\n",
        Num("struct_size", 80),
        Num("Object Type", 3),
        Txt("Content Type", "text/plain"),
        Num("uiJobID", 9),
        Txt("Object Name", "a.txt"),
        Num("Object Size", 68),
        Num("match_so", 0),
        Num("match_eo", 5),
        "------------------------------------------------------(0)PEL_CONTENTINFO\n"};
    for (int i = 0; i < 2; i++) {
        char b[128];
        snprintf(b, sizeof b,
                 "-----PEL_VIRUSINFO(%d)---------------------------------------------------\n", i);
        want.push_back(b);
        std::vector<std::string> block = {
            Num("struct_size", 72),   Txt("Repairable", i == 1 ? "true" : "false"),
            Num("Detect Type", 1),    Num("Virus Type", 2),
            Num("Object Type", 3),    Num("Action Type", 4),
            Num("Virus ID", 100 + i), Txt("Virus Name", i == 0 ? "Eicar" : "Other"),
            Num("Job ID", 9),         Txt("Object Name", "a.txt"),
            Num("Object Size", 68),   Txt("Free text info", "(null)")};
        want.insert(want.end(), block.begin(), block.end());
        snprintf(b, sizeof b,
                 "--------------------------------------------------------(%d)PEL_VIRUSINFO\n", i);
        want.push_back(b);
    }
    std::vector<std::string> tail = {
        "-----PEL_SCANERROR(0)---------------------------------------------------\n",
        Num("struct_size", 48),
        Num("Job ID", 9),
        Txt("Object Name", "b.zip"),
        Num("Object Size", 0),
        Num("Error RC", -3),
        Txt("Error text", "encrypted"),
        "--------------------------------------------------------(0)PEL_SCANERROR\n",
        Ptr("pbBytesCleaned", nullptr),
        Num("lBytesCleaned", 0),
        Ptr("pvReserved1", nullptr),
        "-----------------------------------------------------------PEL_SCANINFO\n"};
    want.insert(want.end(), tail.begin(), tail.end());
    EXPECT_EQ(want, Texts("MavIXTracePELEngine"));
    // Banners: 71 characters, 72 with a one-digit number, plus the line end.
    EXPECT_EQ(73u, want[8].size());
    EXPECT_EQ(72u, want.back().size());
}

TEST_F(Dump, AbsentListsAreWalkedAsEmpty) {
    PEL_SCANINFO si{};
    si.struct_size = sizeof si;
    si.uiScanned = 3;
    si.uiInfections = 2;
    si.uiScanErrors = 1;
    inst_->pScanInfo = &si;
    MavSetTraceLevel(MAV_TRC_PEL);
    ASSERT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_EQ(12u, lines.size());
}

TEST_F(Dump, EngineWithDrivers) {
    PEL_DRIVERINFO drivers[2] = {};
    for (int i = 0; i < 2; i++) {
        drivers[i].struct_size = sizeof drivers[i];
        drivers[i].pszName = i == 0 ? "main.cvd" : "daily.cvd";
        drivers[i].usDrMajVersion = 1;
        drivers[i].usDrMinVersion = uint16_t(2 + i);
        drivers[i].utcDate = 1700000000 + i * 86400;
        drivers[i].uiViruses = 1000;
        drivers[i].uiVariants = 10;
        drivers[i].iDriverRC = -i;
    }
    init_.hEngine = &init_;
    init_.uiViruses = 1234;
    init_.uiExtensions = 5;
    init_.uiIntRevision = 6;
    init_.uiSignatures = 7;
    init_.usDrivers = 2;
    init_.pDriver = drivers;
    init_.usEngineMajVersion = 3;
    init_.usEngineMinVersion = 4;
    init_.pszEngineVersionText = "3.4.0";
    init_.utcDate = 1600000000;
    init_.iErrorRC = 0;

    MavSetTraceLevel(MAV_TRC_PEL);
    ASSERT_EQ(MAV_OK, MavIXTracePELEngine(inst_));
    char date[128];
    snprintf(date, sizeof date, "           %-15.15s: %s", "Engine Date",
             CTime(1600000000).c_str());
    std::vector<std::string> want = {
        "PEL_INIT---------------------------------------------------------------\n",
        Num("struct_size", 88),
        Ptr("Engine Handle", &init_),
        Num("Num Viruses", 1234),
        Num("Num Extensions", 5),
        Num("Num IntRevision", 6),
        Num("Num Signatures", 7),
        Num("Num Drivers", 2),
        Num("Major Version", 3),
        Num("Minor Version", 4),
        Txt("Engine Version", "3.4.0"),
        date,
        Num("Error Code", 0),
        Txt("Error Text", "(null)"),
        "---------------------------------------------------------------PEL_INIT\n"};
    for (int i = 0; i < 2; i++) {
        char b[128];
        snprintf(b, sizeof b,
                 "PEL_DRIVERINFO(%d)-------------------------------------------------------\n", i);
        want.push_back(b);
        want.push_back("           struct_size    : 48\n");
        want.push_back("           Major Version  : 1\n");
        want.push_back(std::string("           Minor Version  : ") + std::to_string(2 + i) + "\n");
        want.push_back(std::string("           Driver Name    : ") + drivers[i].pszName + "\n");
        want.push_back("           Driver Date    : " + CTime(drivers[i].utcDate));
        want.push_back("           Num Viruses    : 1000\n");
        want.push_back("           Num Variants   : 10\n");
        want.push_back(std::string("           Driver Code    : ") + std::to_string(-i) + "\n");
        snprintf(b, sizeof b,
                 "-------------------------------------------------------(%d)PEL_DRIVERINFO\n", i);
        want.push_back(b);
    }
    EXPECT_EQ(want, Texts("MavIXTracePELEngine"));

    // A handle dumps its shared engine record.
    lines.clear();
    hdl_->pSharedInit = &init_;
    EXPECT_EQ(MAV_OK, MavIXTracePELEngine(hdl_));
    EXPECT_EQ(want.size(), lines.size());
}

TEST_F(Dump, ConfigWithParameters) {
    PEL_ADAPTERINFO ai{};
    ai.struct_size = sizeof ai;
    ai.uiAdapterID = 77;
    ai.uiThreadModel = 1;
    ai.usMavVersion = 2;
    ai.usPelMajorVersion = 1;
    ai.usPelMinorVersion = 5;
    ai.pszVendorInfo = "Kormo test";
    ai.pszAdapterName = "testpel";
    ai.bReserved1 = 1;
    PEL_PARAM initParams[2] = {
        {32, VS_P_INITDRIVERDIRECTORY, VS_TYPE_CHAR, 6, const_cast<char*>("/opt/x")},
        {32, VS_P_INITTIMEOUT, VS_TYPE_INT, 4, reinterpret_cast<void*>(30)}};
    PEL_PARAM optParams[1] = {{32, VS_P_SCANALLFILES, VS_TYPE_BOOL, 1, reinterpret_cast<void*>(1)}};
    PEL_PARAMS initList{2, {}, initParams};
    PEL_PARAMS optList{1, {}, optParams};
    PEL_CONFIG cfg{};
    cfg.struct_size = sizeof cfg;
    cfg.pAdapterInfo = &ai;
    cfg.uiPelScanFlag = 3;
    cfg.uiPelActionFlag = 0x11;
    cfg.uiPelEventFlag = 0x10000;
    cfg.uiPelCIOFlag = 0;
    cfg.pInitParams = &initList;
    cfg.pOptParams = &optList;
    hdl_->pPelConfig = &cfg;

    CTrcSetTraceLevelFct(3);
    ASSERT_EQ(MAV_OK, MavIXTracePELConfig(inst_));  // an instance dumps its handle's record
    auto param = [](const char* name, const char* value) {
        char b[128];
        snprintf(b, sizeof b, "           %-25.25s: %s\n", name, value);
        return std::string(b);
    };
    std::vector<std::string> want = {
        "PEL_CONFIG-------------------------------------------------------------\n",
        Num("struct_size", 64),
        Num("Adapter ID", 77),
        Num("Thread Model", 1),
        Num("Mav Version", 2),
        Num("PelMajorVersion", 1),
        Num("PelMinorVersion", 5),
        Txt("Vendor Info", "Kormo test"),
        Txt("Adapter Name", "testpel"),
        Txt("Reserved1", "true"),
        Ptr("Reserved2", nullptr),
        Num("Pel Scan Flag", 3),
        Num("Pel Action Flag", 17),
        Num("Pel Event Flag", 0x10000),
        Num("Pel CIO Flag", 0),
        Txt("Reserved1", "false"),
        Ptr("Reserved2", nullptr),
        "PEL_INITPARAMS(2):\n",
        param("INITDRIVERDIRECTORY", "/opt/x"),
        param("INITTIMEOUT", "30"),
        "PEL_OPTPARAMS(1):\n",
        param("SCANALLFILES", "1"),
        "-------------------------------------------------------------PEL_CONFIG\n"};
    EXPECT_EQ(want, Texts("MavIXTracePELConfig"));
}

}  // namespace
