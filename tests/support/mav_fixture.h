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
        std::lock_guard<std::mutex> g(log().mu);
        log().lines.clear();
        MavSetTraceHandler(&TraceCapture::Handler);
        MavSetTraceLevel(level);
    }
    ~TraceCapture() {
        MavSetTraceLevel(0);
        MavSetTraceHandler(nullptr);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // Number of lines containing part; whether one line is exactly text.
    static int CountContaining(const std::string& part) {
        std::lock_guard<std::mutex> g(log().mu);
        int n = 0;
        for (const std::string& l : log().lines) n += l.find(part) != std::string::npos;
        return n;
    }
    static bool Has(const std::string& text) {
        std::lock_guard<std::mutex> g(log().mu);
        for (const std::string& l : log().lines) if (l == text) return true;
        return false;
    }

  private:
    struct Log {
        std::mutex mu;
        std::vector<std::string> lines;
    };
    static Log& log() {
        static Log l;
        return l;
    }
    static int Handler(const char*, const char*, int, uint32_t, const char* text) {
        std::lock_guard<std::mutex> g(log().mu);
        log().lines.push_back(text);
        return 0;
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
