// Record dumps: gating, exact line formats, numbering of the entries.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
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

char* S(const char* s) {
    return const_cast<char*>(s);
}
// A field line: the label in width (15 for records, 25 for parameters).
std::string F(const char* label, const std::string& value, int width = 15) {
    char b[256];
    snprintf(b, sizeof b, "           %-*.*s: %s\n", width, width, label, value.c_str());
    return b;
}
std::string N(long long v) {
    return std::to_string(v);
}
std::string P(const void* p) {
    char b[32];
    snprintf(b, sizeof b, "%p", p);
    return b;
}
std::string CTime(int64_t date) {
    char b[64];
    time_t t = date;
    std::string s = ctime_r(&t, b);
    return s.substr(0, s.size() - 1);  // F adds the line end
}
// Appends the lines of labels[i] with values[i] to out.
void Fields(std::vector<std::string>& out, const std::vector<const char*>& labels,
            const std::vector<std::string>& values) {
    ASSERT_EQ(labels.size(), values.size());
    for (size_t i = 0; i < labels.size(); ++i) out.push_back(F(labels[i], values[i]));
}
// "-----NAME(i)---...---" and "---...---(i)NAME" banners of 72 characters;
// lead is the dashes before the head's name.
std::string Head(const char* name, int i, int lead = 5) {
    std::string s = std::string(lead, '-') + name + "(" + N(i) + ")";
    return s + std::string(72 - s.size(), '-') + "\n";
}
std::string Tail(const char* name, int i) {
    std::string s = "(" + N(i) + ")" + name + "\n";
    return std::string(73 - s.size(), '-') + s;
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
        ThrCSInit2(hdl_->pCS);  // as MavInit: engine records are dumped under it
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

TEST_F(Dump, GatingAndMissingRecords) {
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

    // Level bit 32 or kernel level 2 alone switch dumps and notices on.
    inst_->pScanInfo = nullptr;
    for (int kernel : {0, 2}) {
        lines.clear();
        MavSetTraceLevel(kernel == 0 ? MAV_TRC_PEL : 0);
        CTrcSetTraceLevelFct(kernel);
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELScanInfo(inst_));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELEngine(hdl_));  // no shared PEL_INIT
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavIXTracePELConfig(hdl_));
        std::vector<std::string> want = {"PEL_SCANINFO structure is initial\n",
                                         "PEL_INIT structure is initial\n",
                                         "PEL_CONFIG structure is initial\n"};
        std::vector<std::string> got;
        for (const Line& l : lines) got.push_back(l.text);
        EXPECT_EQ(want, got) << kernel;
        EXPECT_EQ(MAV_TRC_PEL, lines.back().level);
    }
    inst_->pScanInfo = &si;
    lines.clear();
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_FALSE(lines.empty());
}

TEST_F(Dump, ScanInfoBlocks) {
    PEL_CONTENTINFO content{80,         3,  0, nullptr, S("text/plain"), nullptr, 9, 0,
                            S("a.txt"), 68, 0, 5};
    PEL_VIRUSINFO virus[2] = {
        {72, 0, {}, 1, 2, 3, 4, 100, S("Eicar"), 9, 0, S("a.txt"), 68, nullptr},
        {72, 1, {}, 1, 2, 3, 4, 101, S("Other"), 9, 0, S("a.txt"), 68, nullptr}};
    PEL_SCANERROR err{48, 9, 0, S("b.zip"), 0, -3, 0, S("encrypted")};
    PEL_SCANINFO si{80, 9, 1, 0, 0, 2, 1, &content, virus, &err, nullptr, 0, nullptr};
    inst_->pScanInfo = &si;
    MavSetTraceLevel(MAV_TRC_PEL);
    ASSERT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    std::vector<std::string> want = {
        "PEL_SCANINFO-----------------------------------------------------------\n"};
    Fields(want,
           {"struct_size", "uiJobID", "uiScanned", "uiNotScanned", "uiClean", "uiInfections",
            "uiScanErrors"},
           {"80", "9", "1", "0", "0", "2", "1"});
    want.push_back(Head("PEL_CONTENTINFO", 0));
    Fields(want,
           {"struct_size", "Object Type", "Content Type", "uiJobID", "Object Name", "Object Size",
            "match_so", "match_eo"},
           {"80", "3", "text/plain", "9", "a.txt", "68", "0", "5"});
    want.push_back(Tail("PEL_CONTENTINFO", 0));
    for (int i = 0; i < 2; i++) {
        want.push_back(Head("PEL_VIRUSINFO", i));
        Fields(
            want,
            {"struct_size", "Repairable", "Detect Type", "Virus Type", "Object Type", "Action Type",
             "Virus ID", "Virus Name", "Job ID", "Object Name", "Object Size", "Free text info"},
            {"72", i == 1 ? "true" : "false", "1", "2", "3", "4", N(100 + i),
             i == 0 ? "Eicar" : "Other", "9", "a.txt", "68", "(null)"});
        want.push_back(Tail("PEL_VIRUSINFO", i));
    }
    want.push_back(Head("PEL_SCANERROR", 0));
    Fields(want, {"struct_size", "Job ID", "Object Name", "Object Size", "Error RC", "Error text"},
           {"48", "9", "b.zip", "0", "-3", "encrypted"});
    want.push_back(Tail("PEL_SCANERROR", 0));
    Fields(want, {"pbBytesCleaned", "lBytesCleaned", "pvReserved1"}, {P(nullptr), "0", P(nullptr)});
    want.push_back("-----------------------------------------------------------PEL_SCANINFO\n");
    EXPECT_EQ(want, Texts("MavIXTracePELEngine"));
    EXPECT_EQ(73u, want[8].size());

    // Counts without lists: only the summary's own lines.
    si.pContentInfo = nullptr;
    si.pVirusInfo = nullptr;
    si.pScanError = nullptr;
    lines.clear();
    ASSERT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_EQ(12u, lines.size());
}

TEST_F(Dump, EngineWithDrivers) {
    PEL_DRIVERINFO drivers[2] = {{48, "main.cvd", 1, 2, 0, 1700000000, 1000, 10, 0, 0},
                                 {48, "daily.cvd", 1, 3, 0, 1700086400, 1000, 10, -1, 0}};
    init_ = PEL_INIT{88, &init_, 1234, 5,       6,          7, 2, {},     drivers,
                     3,  4,      0,    "3.4.0", 1600000000, 0, 0, nullptr};
    MavSetTraceLevel(MAV_TRC_PEL);
    ASSERT_EQ(MAV_OK, MavIXTracePELEngine(inst_));
    std::vector<std::string> want = {
        "PEL_INIT---------------------------------------------------------------\n"};
    Fields(want,
           {"struct_size", "Engine Handle", "Num Viruses", "Num Extensions", "Num IntRevision",
            "Num Signatures", "Num Drivers", "Major Version", "Minor Version", "Engine Version",
            "Engine Date", "Error Code", "Error Text"},
           {"88", P(&init_), "1234", "5", "6", "7", "2", "3", "4", "3.4.0", CTime(1600000000), "0",
            "(null)"});
    want.push_back("---------------------------------------------------------------PEL_INIT\n");
    for (int i = 0; i < 2; i++) {
        want.push_back(Head("PEL_DRIVERINFO", i, 0));
        Fields(want,
               {"struct_size", "Major Version", "Minor Version", "Driver Name", "Driver Date",
                "Num Viruses", "Num Variants", "Driver Code"},
               {"48", "1", N(2 + i), drivers[i].pszName, CTime(drivers[i].utcDate), "1000", "10",
                N(-i)});
        want.push_back(Tail("PEL_DRIVERINFO", i));
    }
    EXPECT_EQ(want, Texts("MavIXTracePELEngine"));

    // A handle dumps its shared engine record.
    lines.clear();
    hdl_->pSharedInit = &init_;
    EXPECT_EQ(MAV_OK, MavIXTracePELEngine(hdl_));
    EXPECT_EQ(want.size(), lines.size());
}

TEST_F(Dump, ConfigWithParameters) {
    PEL_ADAPTERINFO ai{56, 77, 1, 2, 1, 5, 0, "Kormo test", "testpel", 1, {}, nullptr};
    PEL_PARAM initParams[2] = {{32, VS_P_INITDRIVERDIRECTORY, VS_TYPE_CHAR, 6, S("/opt/x")},
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
    cfg.pInitParams = &initList;
    cfg.pOptParams = &optList;
    hdl_->pPelConfig = &cfg;

    CTrcSetTraceLevelFct(3);
    ASSERT_EQ(MAV_OK, MavIXTracePELConfig(inst_));  // an instance dumps its handle's record
    std::vector<std::string> want = {
        "PEL_CONFIG-------------------------------------------------------------\n"};
    Fields(want,
           {"struct_size", "Adapter ID", "Thread Model", "Mav Version", "PelMajorVersion",
            "PelMinorVersion", "Vendor Info", "Adapter Name", "Reserved1", "Reserved2",
            "Pel Scan Flag", "Pel Action Flag", "Pel Event Flag", "Pel CIO Flag", "Reserved1",
            "Reserved2"},
           {"64", "77", "1", "2", "1", "5", "Kormo test", "testpel", "true", P(nullptr), "3", "17",
            "65536", "0", "false", P(nullptr)});
    want.push_back("PEL_INITPARAMS(2):\n");
    want.push_back(F("INITDRIVERDIRECTORY", "/opt/x", 25));
    want.push_back(F("INITTIMEOUT", "30", 25));
    want.push_back("PEL_OPTPARAMS(1):\n");
    want.push_back(F("SCANALLFILES", "1", 25));
    want.push_back("-------------------------------------------------------------PEL_CONFIG\n");
    EXPECT_EQ(want, Texts("MavIXTracePELConfig"));
}

}  // namespace
