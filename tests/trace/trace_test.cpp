// Trace level, stream, handler, line format and activation.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "krntrc.h"
#include "mavxxi.h"
#include "temp_dir.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::stringstream ss(ReadFile(path));
    for (std::string l; std::getline(ss, l);) lines.push_back(l);
    return lines;
}

struct Captured {
    std::string file, func, text;
    int line;
    uint32_t level;
};
std::vector<Captured> captured;

int Capture(const char* file, const char* func, int line, uint32_t level, const char* text) {
    captured.push_back({file, func, text, line, level});
    return 0;
}

// Every test starts with no handler, no stream and the trace off, in a
// directory of its own.
class Trace : public ::testing::Test {
  protected:
    void SetUp() override {
        captured.clear();
        MavSetTraceHandler(nullptr);
        MavDeactivateTrace();
        CTrcSetFpTf(nullptr);
        MavSetTraceLevel(0);
    }
    void TearDown() override {
        SetUp();
        CTrcSetTraceLevelFct(0);
        MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
    }
    // Activates a trace file of the test's directory at basis 0.
    std::string Activate(const char* name, uint32_t basis = 0) {
        std::string log = dir_.file(name);
        EXPECT_EQ(MAV_OK, MavActivateTrace(log.c_str(), basis));
        return log;
    }
    TempDir dir_;
};

// date, time with milliseconds, process, thread, [file:function:line]: label
const std::string kPrefix = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3} p\d{6,} t[ \d]{3}\d+ )";

TEST_F(Trace, HandlerGetsTheLineInsteadOfTheFileWithinItsLimits) {
    std::string log = Activate("h.log");
    ASSERT_EQ(MAV_OK, MavSetTraceHandler(Capture));
    MavPPrintTrace(MAV_TRC_VIRUS, "/a/b/c/mavxx_scan.cpp", "MavScanFile", 77, "found %s\n", "V");
    MavPPrintTrace(MAV_TRC_INFO, "plain.cpp", "G", 5, "p\n");
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ("mavxx_scan.cpp", captured[0].file);
    EXPECT_EQ("MavScanFile", captured[0].func);
    EXPECT_EQ(77, captured[0].line);
    EXPECT_EQ(MAV_TRC_VIRUS, captured[0].level);
    EXPECT_EQ("found V\n", captured[0].text);
    EXPECT_EQ("", ReadFile(log));

    // 4095 characters fit; one more is refused with an error line.
    captured.clear();
    std::string fits(4095, 'a');
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "%s", fits.c_str());
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "%s!", fits.c_str());
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ(fits, captured[0].text);
    EXPECT_EQ("*** ERROR => vsnprintfU returned with buffer exceed !!!", captured[1].text);
    EXPECT_EQ(MAV_TRC_ERROR, captured[1].level);
    captured.clear();
    MavRegisterMmCallbacks([](size_t, int, const char*) -> void* { return nullptr; }, MavPXRealloc,
                           MavPXFree);
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "x\n");
    ASSERT_EQ(1u, captured.size());
    EXPECT_EQ("*** ERROR => memory alloc for trace buffer failed", captured[0].text);
    EXPECT_EQ(MAV_TRC_ERROR, captured[0].level);
    MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);

    // Without the handler, back to the file.
    MavSetTraceHandler(nullptr);
    MavPPrintTrace(MAV_TRC_INFO, "plain.cpp", "G", 5, "p\n");
    EXPECT_EQ(1u, captured.size());
    EXPECT_EQ(1u, Lines(log).size());
}

TEST_F(Trace, ActivationKeepsOneOldGeneration) {
    std::string log = dir_.write("trace.log", "current\n");
    dir_.write("trace.log.old", "older\n");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 1));
    EXPECT_EQ("current\n", ReadFile(log + ".old"));
    EXPECT_EQ("", ReadFile(log));
    EXPECT_EQ(518u, MavGetTraceLevel());
    ASSERT_NE(nullptr, MavGetTraceFile());
    MAV_TRC_W("first run\n");
    // A second activation moves the first trace aside, closing it.
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 2));
    EXPECT_NE(std::string::npos, ReadFile(log + ".old").find("* W * first run"));
    EXPECT_EQ(622u, MavGetTraceLevel());
    ASSERT_EQ(MAV_OK, MavDeactivateTrace());
    EXPECT_EQ(0u, MavGetTraceLevel());
    EXPECT_EQ(nullptr, MavGetTraceFile());

    // Without a name activation deactivates; a bad path fails.
    for (const char* none : {"", static_cast<const char*>(nullptr)}) {
        ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 3));
        ASSERT_EQ(MAV_OK, MavActivateTrace(none, 3));
        EXPECT_EQ(nullptr, MavGetTraceFile());
        EXPECT_EQ(0u, MavGetTraceLevel());
    }
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavActivateTrace(dir_.file("missing/x.log").c_str(), 3));
    EXPECT_EQ(nullptr, MavGetTraceFile());
    // Both sections were released: other threads can still trace and set levels.
    std::thread t([] { EXPECT_EQ(MAV_OK, MavSetTraceLevel(2)); });
    t.join();
    EXPECT_EQ(2u, MavGetTraceLevel());
}

// Silent unless asked: no default stream; KORMO_TRACE (read once per process,
// so each case runs in a child) names one.
TEST_F(Trace, DefaultStreamOnlyWhenTheEnvironmentAsks) {
    const std::string file = dir_.file("env.log");
    const struct {
        const char* dest;
        const char* level;
        int expect;  // 0 no stream, 1 stderr, 2 the file (level 6)
    } cases[] = {{nullptr, nullptr, 0}, {"", "6", 0}, {"stderr", nullptr, 1},
                 {file.c_str(), "6", 2}, {"/nonexistent/dir/x.log", "6", 0}};
    for (const auto& c : cases) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            MavSetTraceFile(nullptr);
            CTrcSetFpTf(nullptr);
            if (c.dest != nullptr) setenv("KORMO_TRACE", c.dest, 1); else unsetenv("KORMO_TRACE");
            if (c.level != nullptr) setenv("KORMO_TRACE_LEVEL", c.level, 1);
            MavSetTraceLevel(0);
            MavIOpenDefaultTrace();
            FILE* fp = MavGetTraceFile();
            bool ok = c.expect == 0 ? fp == nullptr
                    : c.expect == 1 ? fp == stderr
                                    : fp != nullptr && fp != stderr && MavGetTraceLevel() == 6;
            _exit(ok ? 0 : 1);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << (c.dest ? c.dest : "(unset)");
    }
}

std::atomic<int> handlerCalls{0};
std::atomic<int> badTexts{0};

int CountingHandler(const char*, const char*, int line, uint32_t, const char* text) {
    handlerCalls++;
    char want[64];
    snprintf(want, sizeof want, "from %d\n", line);
    if (strcmp(want, text) != 0) badTexts++;
    return 0;
}

// Four threads write whole lines, to the file and through the handler, while
// levels change.
TEST_F(Trace, ConcurrentLinesNeverInterleave) {
    std::string log = Activate("mt.log", 3);
    constexpr int kThreads = 4, kLines = 200;
    auto run = [](bool handler) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; t++) {
            threads.emplace_back([t, handler] {
                for (int i = 0; i < kLines; i++) {
                    if (handler) {
                        MAV_TRC(MAV_TRC_THREAD, "from %d\n", __LINE__);
                        MavPPrintTrace(MAV_TRC_THREAD, "x.c", "F", t * 1000 + i, "from %d\n",
                                       t * 1000 + i);
                        continue;
                    }
                    MavPPrintTrace(MAV_TRC_THREAD, "mt.c", "Worker", t, "thread %d line %d %s\n", t,
                                   i, std::string(100, char('a' + t)).c_str());
                    if (i % 50 == 0) MavSetTraceLevel(0x7FFE);
                }
            });
        }
        for (auto& th : threads) th.join();
    };
    run(false);
    std::vector<std::string> lines = Lines(log);
    ASSERT_EQ(size_t(kThreads * kLines), lines.size());
    std::regex line(
        kPrefix +
        R"(\[mt.c      :Worker      :   (\d)\]: \*THR\* thread (\d) line \d+ ([a-d])\3{99})");
    for (const std::string& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        EXPECT_EQ(m[1], m[2]);
    }

    // Through the handler, each line in a buffer of its own; with the memory
    // bit on, the hooks run inside the writer.
    handlerCalls = 0;
    badTexts = 0;
    MavSetTraceHandler(CountingHandler);
    MavSetTraceLevel(0xFFFF);
    run(true);
    EXPECT_EQ(2 * kThreads * kLines, handlerCalls.load());
    EXPECT_EQ(0, badTexts.load());
}

}  // namespace
