// lifecycle_fixture.h - shared set-up of the lifecycle tests: the test adapter,
// a trace capture and access to a handle's error list.
#ifndef LIFECYCLE_FIXTURE_H
#define LIFECYCLE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "kormomav.h"
#include "mavxxi.h"
#include "testpel_client.h"

// Trace lines delivered to the handler, as "function|text".
struct TraceCapture {
    static std::mutex& lock() {
        static std::mutex m;
        return m;
    }
    static std::vector<std::string>& lines() {
        static std::vector<std::string> v;
        return v;
    }
    static int Handler(const char*, const char* func, int, uint32_t, const char* text) {
        std::lock_guard<std::mutex> g(lock());
        lines().push_back(std::string(func ? func : "") + "|" + (text ? text : ""));
        return 0;
    }
    explicit TraceCapture(uint32_t level) : saved_(MavGetTraceLevel()) {
        lines().clear();
        MavSetTraceHandler(Handler);
        MavSetTraceLevel(level);
    }
    ~TraceCapture() {
        MavSetTraceLevel(saved_);
        MavSetTraceHandler(nullptr);
    }
    // True when a captured line equals "func|text".
    static bool Has(const std::string& func, const std::string& text) {
        std::lock_guard<std::mutex> g(lock());
        for (const std::string& l : lines())
            if (l == func + "|" + text) return true;
        return false;
    }
    // Number of captured lines whose text begins with prefix.
    static int Count(const std::string& prefix) {
        std::lock_guard<std::mutex> g(lock());
        int n = 0;
        for (const std::string& l : lines()) {
            size_t bar = l.find('|');
            if (l.compare(bar + 1, prefix.size(), prefix) == 0) ++n;
        }
        return n;
    }
    uint32_t saved_;
};

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("PEL_LIB");
        ASSERT_EQ(0u, MavIXGetHdlSize()) << "a previous test left a handle registered";
    }
    void TearDown() override {
        unsetenv("PEL_LIB");
        EXPECT_EQ(0u, MavIXGetHdlSize());
    }
    static MAV_HDL_REC* Rec(MAV_HANDLE h) { return static_cast<MAV_HDL_REC*>(h); }
    static MAV_INST_REC* Inst(MAV_INST i) { return static_cast<MAV_INST_REC*>(i); }
    // The latest entry of a handle's error list ("" when empty).
    static std::string LastError(MAV_HANDLE h) {
        const MAV_HDL_REC* r = Rec(h);
        if (r == nullptr || r->errors == nullptr || r->errorCount == 0) return "";
        const MAV_ERROR_ENTRY& e = r->errors[r->errorCount - 1];
        return std::string(e.pszText, e.lLength);
    }
    // Starts a handle on the test adapter.
    MAV_HANDLE Start() {
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h));
        return h;
    }
    TestPel pel;
};

#endif
