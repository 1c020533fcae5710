// A handle's error list and the adapter's error code and text.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mavxxi.h"

namespace {

int allocs = 0;
size_t lastAllocSize = 0;
bool failAlloc = false;

void* CountAlloc(size_t size, int clean, const char*) {
    allocs++;
    lastAllocSize = size;
    if (failAlloc) return nullptr;
    return clean ? calloc(1, size) : malloc(size);
}
void* PlainRealloc(void* p, size_t size, const char*) {
    return failAlloc ? nullptr : realloc(p, size);
}
void PlainFree(void* p) {
    free(p);
}

class ErrorList : public ::testing::Test {
  protected:
    void SetUp() override {
        allocs = 0;
        failAlloc = false;
        ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, PlainRealloc, PlainFree));
        hdl_ = MavIXAllocHdlRec();
        ASSERT_NE(nullptr, hdl_);
        ASSERT_EQ(THR_RC_OK, ThrCSInit2(hdl_->pCS));
        allocs = 0;
    }
    void TearDown() override {
        MavPFreeError(&hdl_->errors, hdl_->errorCount);
        EXPECT_EQ(nullptr, hdl_->errors);
        ThrCSDelete(hdl_->pCS);
        MavIXFreeRec(hdl_);
        MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
    }
    MAV_HDL_REC* hdl_ = nullptr;
};

TEST_F(ErrorList, EmptyOrNullTextsAreIgnored) {
    hdl_->lastErrorRc = 5;
    MavPAddError(hdl_, "", 7);
    MavPAddError(hdl_, nullptr, 7);
    MavPAddError(nullptr, "x", 7);
    EXPECT_EQ(nullptr, hdl_->errors);
    EXPECT_EQ(0u, hdl_->errorCount);
    EXPECT_EQ(5, hdl_->lastErrorRc);
    EXPECT_EQ(0, allocs);

    // An empty list leaves the caller's length alone.
    size_t len = 42;
    char* buf = nullptr;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, &len));
    EXPECT_EQ(42u, len);
}

TEST_F(ErrorList, LatestTextIsReturned) {
    MavPAddError(hdl_, "first failure", 11);
    MavPAddError(hdl_, "PelInit failed: no drivers", 22);
    ASSERT_EQ(2u, hdl_->errorCount);
    EXPECT_EQ(22, hdl_->lastErrorRc);
    EXPECT_EQ(26u, hdl_->errors[1].lLength);

    size_t len = 0;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, nullptr, &len));
    EXPECT_EQ(26u, len);

    char storage[64];
    memset(storage, 0, sizeof storage);
    char* buf = storage;
    len = sizeof storage;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, &len));
    EXPECT_EQ(storage, buf);
    EXPECT_STREQ("PelInit failed: no drivers", storage);
    EXPECT_EQ(sizeof storage, len);  // left as the caller set it

    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, nullptr));  // nothing asked
    EXPECT_EQ(MAV_E_NULL_PARAM, MavAdapterErrorText(nullptr, &buf, &len));
}

std::vector<std::string> traced;
int CaptureTrace(const char*, const char*, int, uint32_t, const char* text) {
    traced.push_back(text);
    return 0;
}

TEST_F(ErrorList, EveryEntryLineHasItsExitLine) {
    traced.clear();
    MavSetTraceHandler(CaptureTrace);
    MavSetTraceLevel(MAV_TRC_ERROR | MAV_TRC_FUNCTION);
    char* buf = nullptr;
    size_t len = 0;
    EXPECT_EQ(MAV_E_NULL_PARAM, MavAdapterErrorText(nullptr, &buf, &len));
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, nullptr));  // nothing asked
    MavSetTraceLevel(0);
    MavSetTraceHandler(nullptr);
    // The null handle is refused before the entry line.
    ASSERT_EQ(3u, traced.size());
    EXPECT_EQ("Invalid NULL parameter for handle\n", traced[0]);
    EXPECT_EQ(0u, traced[1].rfind(">> start >> MavAdapterErrorText(", 0)) << traced[1];
    EXPECT_EQ("<<  end  << MavAdapterErrorText(MAV_RC==MAV_OK) \n", traced[2]);
}

TEST_F(ErrorList, SmallBufferIsReplacedByANewOne) {
    MavPAddError(hdl_, "0123456789", 3);
    char storage[4] = "old";
    char* buf = storage;
    size_t len = sizeof storage;
    allocs = 0;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, &len));
    EXPECT_NE(storage, buf);
    EXPECT_STREQ("old", storage);  // the caller's buffer is untouched
    EXPECT_EQ(1, allocs);
    EXPECT_EQ(12u, lastAllocSize);  // length + 2, zero-filled
    EXPECT_EQ(11u, len);            // length + 1
    EXPECT_STREQ("0123456789", buf);
    free(buf);

    failAlloc = true;
    buf = storage;
    len = 1;
    EXPECT_EQ(MAV_E_NO_SPACE, MavAdapterErrorText(hdl_, &buf, &len));
    EXPECT_EQ(storage, buf);
}

TEST_F(ErrorList, GrowingTheListKeepsEarlierEntries) {
    for (int i = 0; i < 20; i++) MavPAddError(hdl_, std::to_string(i).c_str(), i);
    ASSERT_EQ(20u, hdl_->errorCount);
    EXPECT_STREQ("0", hdl_->errors[0].pszText);
    EXPECT_STREQ("19", hdl_->errors[19].pszText);
    // A failed growth loses the new entry only.
    failAlloc = true;
    MavPAddError(hdl_, "lost", 99);
    EXPECT_EQ(20u, hdl_->errorCount);
    EXPECT_EQ(19, hdl_->lastErrorRc);
    EXPECT_STREQ("19", hdl_->errors[19].pszText);
}

TEST_F(ErrorList, EngineRecordTakesPrecedence) {
    PEL_INIT init{};
    init.struct_size = sizeof init;
    init.iErrorRC = -17;
    init.pszErrorText = "licence expired";
    MavPAddError(hdl_, "from the list", 1);
    EXPECT_EQ(0xFFFFFFFFu, MavAdapterErrorCode(nullptr));
    EXPECT_EQ(0xFFFFFFFFu, MavAdapterErrorCode(hdl_));  // no PEL_INIT
    hdl_->pSharedInit = &init;
    EXPECT_EQ(static_cast<uint32_t>(-17), MavAdapterErrorCode(hdl_));

    MAV_INST_REC* inst = MavIXAllocInstRec(false);
    ASSERT_NE(nullptr, inst);
    PEL_INIT own = init;
    own.iErrorRC = 5;
    inst->pHdl = hdl_;
    inst->pPelInit = &own;
    EXPECT_EQ(5u, MavAdapterErrorCode(inst));

    size_t len = 0;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, nullptr, &len));
    EXPECT_EQ(15u, len);
    char storage[32];
    char* buf = storage;
    len = sizeof storage;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(inst, &buf, &len));
    EXPECT_EQ(15u, len);  // converted length
    EXPECT_STREQ("licence expired", storage);

    // Too small: a new buffer of length + 2, converted into.
    buf = storage;
    len = 4;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(inst, &buf, &len));
    EXPECT_NE(storage, buf);
    EXPECT_EQ(17u, lastAllocSize);
    EXPECT_EQ(15u, len);
    EXPECT_STREQ("licence expired", buf);
    free(buf);

    // Invalid UTF-8 from the adapter: emptied buffer, size 0, conversion code.
    own.pszErrorText = "bad \xFF";
    buf = storage;
    len = sizeof storage;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavAdapterErrorText(inst, &buf, &len));
    EXPECT_EQ(0u, len);
    EXPECT_EQ('\0', storage[0]);

    own.pszErrorText = nullptr;
    len = 9;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(inst, &buf, &len));
    EXPECT_EQ(0u, len);
    MavIXFreeRec(inst);
}

}  // namespace
