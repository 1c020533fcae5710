// mav_fixture.h - a handle on the test adapter with one instance, and capture
// of trace lines through a trace handler.
//
//   class MyTest : public MavFixture {};
//   TEST_F(MyTest, X) { pel.add_param(...); Start(); ... }
//
// Configure the adapter before Start(): PelGetConfig is read by MavInit.
#ifndef MAV_FIXTURE_H
#define MAV_FIXTURE_H

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "kormomav.h"
#include "testpel_client.h"

// Trace lines written while it lives (handler installed, level set).
class TraceCapture {
  public:
    explicit TraceCapture(uint32_t level) {
        Clear();
        MavSetTraceHandler(&TraceCapture::Handler);
        MavSetTraceLevel(level);
    }
    ~TraceCapture() {
        MavSetTraceLevel(0);
        MavSetTraceHandler(nullptr);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    static void Clear() {
        std::lock_guard<std::mutex> g(mu());
        lines().clear();
        funcs().clear();
    }
    // Number of lines whose text is exactly text.
    static int Count(const std::string& text) {
        std::lock_guard<std::mutex> g(mu());
        int n = 0;
        for (const std::string& l : lines()) n += l == text;
        return n;
    }
    static bool Has(const std::string& text) { return Count(text) > 0; }
    // True when a line of exactly text was written under the function name func.
    static bool HasFrom(const std::string& func, const std::string& text) {
        std::lock_guard<std::mutex> g(mu());
        for (size_t i = 0; i < lines().size(); ++i) {
            if (lines()[i] == text && funcs()[i] == func) return true;
        }
        return false;
    }
    // Number of lines containing part.
    static int CountContaining(const std::string& part) {
        std::lock_guard<std::mutex> g(mu());
        int n = 0;
        for (const std::string& l : lines()) n += l.find(part) != std::string::npos;
        return n;
    }

  private:
    static int Handler(const char*, const char* func, int, uint32_t, const char* text) {
        std::lock_guard<std::mutex> g(mu());
        lines().push_back(text);
        funcs().push_back(func != nullptr ? func : "");
        return 0;
    }
    static std::mutex& mu() {
        static std::mutex m;
        return m;
    }
    static std::vector<std::string>& lines() {
        static std::vector<std::string> l;
        return l;
    }
    static std::vector<std::string>& funcs() {
        static std::vector<std::string> f;
        return f;
    }
};

class MavFixture : public ::testing::Test {
  protected:
    void TearDown() override {
        if (inst != nullptr) {
            EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
        }
        if (hdl != nullptr) {
            EXPECT_EQ(MAV_OK, MavEnd(&hdl));
        }
        MavSetTraceLevel(0);
    }
    // Starts a handle on the adapter and takes one (listed) instance.
    void Start() {
        ASSERT_EQ(MAV_OK, MavInit(pel.path(), &hdl));
        ASSERT_EQ(MAV_OK, MavCreateInstance(hdl, &inst));
        // MavInit switches error lines on; the tests want a quiet trace.
        MavSetTraceLevel(0);
    }

    TestPel pel;
    MAV_HANDLE hdl = nullptr;
    MAV_INST inst = nullptr;
};

#endif
