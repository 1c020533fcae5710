// Record dumps: gating, missing records, and the shape and numbering of the entries.
#include <gtest/gtest.h>

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

char* S(const char* s) {
    return const_cast<char*>(s);
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

// Dumps only when asked (level bit 32 or kernel level 2), and null records
// refused.
TEST_F(Dump, OnlyWhenAsked) {
    PEL_SCANINFO si{};
    inst_->pScanInfo = &si;
    MavSetTraceLevel(0x7FFE & ~MAV_TRC_PEL);
    CTrcSetTraceLevelFct(1);
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavIXTracePELScanInfo(nullptr));
    CTrcSetTraceLevelFct(2);
    EXPECT_EQ(MAV_OK, MavIXTracePELScanInfo(inst_));
    EXPECT_FALSE(lines.empty());
}

// A few fields and the shape of every line: each entry of each list is
// dumped once, between its numbered banners.
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
    std::string all;
    for (const std::string& l : Texts("MavIXTracePELEngine")) {
        all += l;
        bool banner = l.find("-----") != std::string::npos;
        bool field = l.compare(0, 11, std::string(11, ' ')) == 0 && l.find(": ") == 26;
        EXPECT_TRUE(banner || field) << l;
        EXPECT_EQ('\n', l.back());
        EXPECT_TRUE(!banner || l.size() == 72u || l.size() == 73u) << l;
    }
    for (const char* part :
         {"-----PEL_VIRUSINFO(0)---", "---(1)PEL_VIRUSINFO\n", "---(0)PEL_SCANERROR\n",
          "---(0)PEL_CONTENTINFO\n", ": Other\n", ": encrypted\n", ": text/plain\n", ": -3\n",
          ": true\n", ": (null)\n"})
        EXPECT_NE(std::string::npos, all.find(part)) << part;
    EXPECT_EQ(std::string::npos, all.find("(2)PEL_VIRUSINFO"));

}

}  // namespace
