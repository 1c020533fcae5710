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

class ErrorList : public ::testing::Test {
  protected:
    void SetUp() override {
        failAlloc = false;
        ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, PlainRealloc, free));
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
    // MavAdapterErrorText into storage of size; returns the code.
    MAV_RC Text(void* h, char* storage, size_t size, char** buf, size_t* len) {
        *buf = storage;
        *len = size;
        return MavAdapterErrorText(h, buf, len);
    }
    MAV_HDL_REC* hdl_ = nullptr;
};

TEST_F(ErrorList, LatestTextIsReturnedAndEmptyTextsIgnored) {
    hdl_->lastErrorRc = 5;
    MavPAddError(hdl_, "", 7);
    MavPAddError(hdl_, nullptr, 7);
    MavPAddError(nullptr, "x", 7);
    EXPECT_EQ(0u, hdl_->errorCount);
    EXPECT_EQ(5, hdl_->lastErrorRc);
    EXPECT_EQ(0, allocs);
    size_t len = 42;
    char* buf = nullptr;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, &buf, &len));
    EXPECT_EQ(42u, len);  // an empty list leaves the caller's length alone

    MavPAddError(hdl_, "first failure", 11);
    MavPAddError(hdl_, "PelInit failed: no drivers", 22);
    ASSERT_EQ(2u, hdl_->errorCount);
    EXPECT_EQ(22, hdl_->lastErrorRc);
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(hdl_, nullptr, &len));
    EXPECT_EQ(26u, len);
    char storage[64] = {};
    EXPECT_EQ(MAV_OK, Text(hdl_, storage, sizeof storage, &buf, &len));
    EXPECT_EQ(storage, buf);
    EXPECT_STREQ("PelInit failed: no drivers", storage);
    EXPECT_EQ(sizeof storage, len);  // left as the caller set it
    EXPECT_EQ(MAV_E_NULL_PARAM, MavAdapterErrorText(nullptr, &buf, &len));

}

TEST_F(ErrorList, SmallBufferIsReplacedAndGrowthKeepsEntries) {
    MavPAddError(hdl_, "0123456789", 3);
    char storage[4] = "old";
    char* buf = nullptr;
    size_t len = 0;
    allocs = 0;
    EXPECT_EQ(MAV_OK, Text(hdl_, storage, sizeof storage, &buf, &len));
    EXPECT_NE(storage, buf);
    EXPECT_STREQ("old", storage);  // the caller's buffer is untouched
    EXPECT_EQ(1, allocs);
    EXPECT_EQ(12u, lastAllocSize);  // length + 2, zero-filled
    EXPECT_EQ(11u, len);            // length + 1
    EXPECT_STREQ("0123456789", buf);
    free(buf);
    // One byte short of the text: replaced too, the short buffer left alone.
    std::vector<char> shortBuf(9, 'x');
    EXPECT_EQ(MAV_OK, Text(hdl_, shortBuf.data(), shortBuf.size(), &buf, &len));
    EXPECT_NE(shortBuf.data(), buf);
    EXPECT_EQ(std::string(9, 'x'), std::string(shortBuf.begin(), shortBuf.end()));
    free(buf);
    failAlloc = true;
    EXPECT_EQ(MAV_E_NO_SPACE, Text(hdl_, storage, 1, &buf, &len));
    EXPECT_EQ(storage, buf);

    failAlloc = false;
    for (int i = 1; i < 20; i++) MavPAddError(hdl_, std::to_string(i).c_str(), i);
    ASSERT_EQ(20u, hdl_->errorCount);
    EXPECT_STREQ("0123456789", hdl_->errors[0].pszText);
    EXPECT_STREQ("19", hdl_->errors[19].pszText);
    failAlloc = true;  // a failed growth loses the new entry only
    MavPAddError(hdl_, "lost", 99);
    EXPECT_EQ(20u, hdl_->errorCount);
    EXPECT_EQ(19, hdl_->lastErrorRc);
}

// The engine record's text and code come before the handle's list; its text
// follows the same buffer rule, and one that is not UTF-8 empties the buffer.
TEST_F(ErrorList, EngineRecordTakesPrecedence) {
    PEL_INIT own{};
    own.struct_size = sizeof own;
    own.iErrorRC = 5;
    own.pszErrorText = "licence expired";
    MavPAddError(hdl_, "from the list", 1);
    EXPECT_EQ(0xFFFFFFFFu, MavAdapterErrorCode(hdl_));  // no PEL_INIT
    MAV_INST_REC* inst = MavIXAllocInstRec(false);
    ASSERT_NE(nullptr, inst);
    inst->pHdl = hdl_;
    inst->pPelInit = &own;
    EXPECT_EQ(5u, MavAdapterErrorCode(inst));
    char storage[32];
    char* buf = nullptr;
    size_t len = 0;
    for (size_t size : {sizeof storage, size_t{4}}) {
        EXPECT_EQ(MAV_OK, Text(inst, storage, size, &buf, &len));
        EXPECT_EQ(15u, len);
        EXPECT_STREQ("licence expired", buf);
        if (buf != storage) free(buf);
    }
    own.pszErrorText = "bad \xFF";
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, Text(inst, storage, sizeof storage, &buf, &len));
    EXPECT_EQ(0u, len);
    EXPECT_EQ('\0', storage[0]);
    own.pszErrorText = nullptr;
    EXPECT_EQ(MAV_OK, Text(inst, storage, sizeof storage, &buf, &len));
    EXPECT_EQ(0u, len);
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(inst, nullptr, &len));
    MavIXFreeRec(inst);
}

}  // namespace
