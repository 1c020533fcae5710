// Fail-closed behaviour of the core: policy does not travel through pools,
// instance configurations start from the handle, ended records stay refused,
// hostile adapter lengths, fork while another
// thread is inside the library, unknown parameter names.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "kormomav.h"
#include "testpel_client.h"

namespace {

class FailClosedCore : public ::testing::Test {
  protected:
    void SetUp() override {
        pel.add_param(0, VS_P_SCANLIMIT, VS_TYPE_LONG, "100");
        pel.add_param(0, VS_P_SCANEXTENSIONS, VS_TYPE_CHAR, "*");
    }
    void TearDown() override {
        if (h != nullptr) {
            EXPECT_EQ(MAV_OK, MavEnd(&h));
        }
    }
    MAV_HANDLE Start() {
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h));
        return h;
    }
    static std::string Get(void* obj, const char* name) {
        char buf[64] = {};
        size_t len = sizeof buf;
        if (MavGetParameter(obj, name, nullptr, buf, &len) != MAV_OK) return "(failed)";
        return std::string(buf, len);
    }
    TestPel pel;
    MAV_HANDLE h = nullptr;
};

// What one user sets on a pooled instance is gone when the next one gets it;
// every new configuration starts from the handle's values, not the adapter's.
TEST_F(FailClosedCore, PoolsAndInstanceCopiesCarryTheHandlesValues) {
    Start();
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "SCANLIMIT", VS_TYPE_LONG, "7"));
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 2, 1));  // "with defaults": the handle's
    MAV_INST a = nullptr, b = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &a));
    EXPECT_EQ("7", Get(a, "SCANLIMIT"));
    ASSERT_EQ(MAV_OK, MavSetParameter(a, "SCANLIMIT", VS_TYPE_LONG, "999999"));
    ASSERT_EQ(MAV_OK, MavFreeInstance(&a));  // back to the pool
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &a));
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &b));
    for (MAV_INST i : {a, b}) EXPECT_EQ("7", Get(i, "SCANLIMIT"));
    // A first change on an instance copies the handle's values, not defaults.
    ASSERT_EQ(MAV_OK, MavSetParameter(b, "SCANEXTENSIONS", VS_TYPE_CHAR, "exe"));
    EXPECT_EQ("7", Get(b, "SCANLIMIT"));
    EXPECT_EQ("*", Get(h, "SCANEXTENSIONS"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&a));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&b));
}

// An ended handle or instance is refused whatever was allocated since, and
// never ends or scans someone else's live record.
TEST_F(FailClosedCore, EndedRecordsStayRefusedAfterReuse) {
    Start();
    unsigned char bytes[4] = {'d', 'a', 't', 'a'};
    MAV_HANDLE staleH = nullptr;
    MAV_INST staleI = nullptr;
    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &staleH));
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &staleI));
    MAV_HANDLE endedH = staleH;
    MAV_INST freedI = staleI;
    ASSERT_EQ(MAV_OK, MavEnd(&endedH));
    ASSERT_EQ(MAV_OK, MavFreeInstance(&freedI));  // pool size 0: ended
    for (int round = 0; round < 20; ++round) {
        MAV_HANDLE other = nullptr;
        MAV_INST inst = nullptr;
        ASSERT_EQ(MAV_OK, MavInit(pel.path(), &other));
        ASSERT_EQ(MAV_OK, MavCreateInstance(other, &inst));
        MAV_HANDLE again = staleH;
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(&again)) << round;
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanBytes(staleI, "x", bytes, 4, 0, nullptr));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstancePointer(staleI));
        EXPECT_EQ(MAV_OK, MavScanBytes(inst, "x", bytes, 4, 0, nullptr));
        EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
        EXPECT_EQ(MAV_OK, MavEnd(&other));
    }
}

std::atomic<long> hookBalance{0};
std::atomic<int> hookDelayMs{0};
std::atomic<bool> hookInside{false};
void* CountAlloc(size_t size, int clean, const char*) {
    hookBalance.fetch_add(1);
    if (int ms = hookDelayMs.exchange(0)) {
        hookInside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    return clean ? calloc(1, size) : malloc(size);
}
void* CountRealloc(void* p, size_t size, const char*) {
    if (p == nullptr) hookBalance.fetch_add(1);
    return realloc(p, size);
}
void CountFree(void* p) {
    if (p != nullptr) hookBalance.fetch_sub(1);
    free(p);
}

// Record blocks go back through the free hook with the last handle, and the
// pointers of that time are still refused (without being read: ASan).
TEST_F(FailClosedCore, LastEndReturnsEveryBlockThroughTheHooks) {
    ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, CountRealloc, CountFree));
    for (int pass = 0; pass < 2; ++pass) {
        Start();
        MAV_INST i = nullptr;
        ASSERT_EQ(MAV_OK, MavSetPoolSize(h, 1));
        ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
        ASSERT_EQ(MAV_OK, MavFreeInstance(&i));
        ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
        MAV_HANDLE staleH = h;
        MAV_INST staleI = i;
        ASSERT_EQ(MAV_OK, MavFreeInstance(&i));
        ASSERT_EQ(MAV_OK, MavEnd(&h));
        EXPECT_EQ(0, hookBalance.load()) << "pass " << pass;
        unsigned char byte = 0;
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanBytes(staleI, "x", &byte, 1, 0, nullptr));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(&staleH));
    }
}

// A length the adapter reports that would wrap the buffer size is refused.
TEST_F(FailClosedCore, HostileParameterLengthFailsStartUp) {
    pel.add_param(0, VS_P_SCANEXTRACT_PATH, VS_TYPE_CHAR, "/tmp");
    pel.set_last_param_length(0, SIZE_MAX);
    MAV_RC rc = MavInit(pel.path(), &h);
    EXPECT_NE(MAV_OK, rc);
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

// A child forked while another thread holds a library lock can use the library.
TEST_F(FailClosedCore, ForkWhileAnotherThreadIsInsideTheLibrary) {
    ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, CountRealloc, CountFree));
    Start();
    MAV_INST fresh = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &fresh));
    hookInside = false;
    hookDelayMs = 300;  // the next allocation (its own configuration) waits under the handle lock
    std::thread inside([&] { MavSetParameter(fresh, "SCANLIMIT", VS_TYPE_LONG, "5"); });
    for (int n = 0; n < 2000 && !hookInside; ++n)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(hookInside);
    pid_t child = fork();
    if (child == 0) {
        MAV_INST i = nullptr;
        bool ok = MavSetParameter(h, "SCANEXTENSIONS", VS_TYPE_CHAR, "exe") == MAV_OK &&
                  MavCreateInstance(h, &i) == MAV_OK && MavFreeInstance(&i) == MAV_OK;
        _exit(ok ? 0 : 1);
    }
    inside.join();
    EXPECT_EQ(MAV_OK, MavFreeInstance(&fresh));
    ASSERT_GT(child, 0);
    int status = -1;
    for (int n = 0; n < 1000 && waitpid(child, &status, WNOHANG) == 0; ++n)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (status == -1) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        FAIL() << "the child hung";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// An unknown parameter name is named in the handle's error text.
TEST_F(FailClosedCore, UnknownParameterNameInErrorText) {
    Start();
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(h, "SCANBOGUS", VS_TYPE_LONG, "1"));
    char buf[512];
    char* text = buf;
    size_t len = sizeof buf;
    ASSERT_EQ(MAV_OK, MavAdapterErrorText(h, &text, &len));
    EXPECT_NE(std::string::npos, std::string(text, len).find("SCANBOGUS"));
    if (text != buf) free(text);
}

}  // namespace
