// Trace level, stream, handler, line format and activation.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "krntrc.h"
#include "mavxxi.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream ss(text);
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
        char tmpl[] = "/tmp/kormo_trace_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        captured.clear();
        MavSetTraceHandler(nullptr);
        MavDeactivateTrace();
        CTrcSetFpTf(nullptr);
        MavSetTraceLevel(0);
    }
    void TearDown() override {
        MavSetTraceHandler(nullptr);
        MavDeactivateTrace();
        CTrcSetFpTf(nullptr);
        CTrcSetTraceLevelFct(0);
        MavSetTraceLevel(0);
        MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
        std::string cmd = "rm -rf '" + dir_ + "'";
        (void)system(cmd.c_str());
    }
    std::string Path(const char* name) const { return dir_ + "/" + name; }

    std::string dir_;
};

// date, time with milliseconds, process, thread, [file:function:line]: label
const char* const kPrefix = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3} p\d{6,} t[ \d]{3}\d+ )";

TEST_F(Trace, FileLineFormat) {
    std::string log = Path("t.log");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 0));
    MavPPrintTrace(MAV_TRC_PEL, "/src/sec/mav/mavxx_scan.cpp", "MavScanClean", 42, "rc=%d %s\n", 7,
                   "x");
    MavPPrintTrace(MAV_TRC_FUNCTION, "short.c", "AVeryLongFunctionName", 12345, "y\n");
    MavPPrintTrace(MAV_TRC_ERROR, nullptr, "Fn", 9, "z\n");
    std::vector<std::string> lines = Lines(ReadFile(log));
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(std::regex_match(
        lines[0],
        std::regex(std::string(kPrefix) + R"(\[mavxx_scan:MavScanClean:  42\]: \*PEL\* rc=7 x)")))
        << lines[0];
    EXPECT_TRUE(std::regex_match(
        lines[1],
        std::regex(std::string(kPrefix) + R"(\[short.c   :AVeryLongFun:12345\]: \*MAV\* y)")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(
        lines[2],
        std::regex(std::string(kPrefix) + R"(\[unknown   :Fn          :   0\]: \* E \* z)")))
        << lines[2];
    // The process id is the caller's.
    char pid[32];
    snprintf(pid, sizeof pid, " p%06ld ", static_cast<long>(getpid()));
    EXPECT_NE(std::string::npos, lines[0].find(pid));
}

TEST_F(Trace, LabelOfTheLowestOfTheSixteenBits) {
    std::string log = Path("l.log");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 0));
    const struct {
        uint32_t level;
        const char* label;
    } cases[] = {{1, ""},          {2, "* E *"},       {2 | 64, "* E *"},
                 {4, "* W *"},     {8, "* I *"},       {16, "* M *"},
                 {32, "*PEL*"},    {64, "*MAV*"},      {128, "*THR*"},
                 {256, "*PAR*"},   {512, "*VIR*"},     {1024, "*CBC*"},
                 {2048, "*RFC*"},  {4096, "*MEM*"},    {8192, "*TAB*"},
                 {16384, "*JNI*"}, {32768, ""},        {0x10000, ""},
                 {0, ""},          {0x10020, "*PEL*"}, {0x4000 | 0x8000, "*JNI*"}};
    for (const auto& c : cases) MavPPrintTrace(c.level, "f.c", "F", 1, "m\n");
    std::vector<std::string> lines = Lines(ReadFile(log));
    ASSERT_EQ(sizeof cases / sizeof cases[0], lines.size());
    for (size_t i = 0; i < lines.size(); i++) {
        std::string tail = std::string("]: ") + cases[i].label + " m";
        ASSERT_GE(lines[i].size(), tail.size());
        EXPECT_EQ(tail, lines[i].substr(lines[i].size() - tail.size())) << cases[i].level;
    }
}

TEST_F(Trace, HandlerGetsTheLineInsteadOfTheFile) {
    std::string log = Path("h.log");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 0));
    ASSERT_EQ(MAV_OK, MavSetTraceHandler(Capture));
    MavPPrintTrace(MAV_TRC_VIRUS, "/a/b/c/mavxx_scan.cpp", "MavScanFile", 77, "found %s\n", "V");
    MavPPrintTrace(MAV_TRC_INFO, "plain.cpp", "G", 5, "p\n");
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ("mavxx_scan.cpp", captured[0].file);
    EXPECT_EQ("MavScanFile", captured[0].func);
    EXPECT_EQ(77, captured[0].line);
    EXPECT_EQ(MAV_TRC_VIRUS, captured[0].level);
    EXPECT_EQ("found V\n", captured[0].text);
    EXPECT_EQ("plain.cpp", captured[1].file);
    EXPECT_EQ("", ReadFile(log));

    // Back to the file.
    MavSetTraceHandler(nullptr);
    MavPPrintTrace(MAV_TRC_INFO, "plain.cpp", "G", 5, "p\n");
    EXPECT_EQ(2u, captured.size());
    EXPECT_EQ(1u, Lines(ReadFile(log)).size());
}

TEST_F(Trace, HandlerTextLimitAndAllocationFailure) {
    MavSetTraceHandler(Capture);
    std::string fits(4095, 'a');
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "%s", fits.c_str());
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "%s!", fits.c_str());
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ(fits, captured[0].text);
    EXPECT_EQ("*** ERROR => vsnprintfU returned with buffer exceed !!!", captured[1].text);
    EXPECT_EQ(MAV_TRC_ERROR, captured[1].level);
    EXPECT_EQ("mavxxtrc.cpp", captured[1].file);
    EXPECT_EQ("MavPPrintTrace", captured[1].func);

    captured.clear();
    MavRegisterMmCallbacks([](size_t, int, const char*) -> void* { return nullptr; }, MavPXRealloc,
                           MavPXFree);
    MavPPrintTrace(MAV_TRC_PEL, "f.c", "F", 1, "x\n");
    ASSERT_EQ(1u, captured.size());
    EXPECT_EQ("*** ERROR => memory alloc for trace buffer failed", captured[0].text);
    EXPECT_EQ(MAV_TRC_ERROR, captured[0].level);
}

TEST_F(Trace, BasisLevels) {
    const struct {
        uint32_t basis, library;
        int kernel;
    } cases[] = {{0, 2, 0}, {1, 518, 1}, {2, 622, 2}, {3, 32766, 3}, {4, 2, 0}, {99, 2, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(MAV_OK, MavSetBasisTraceLevel(c.basis));
        EXPECT_EQ(c.library, MavGetTraceLevel()) << c.basis;
        EXPECT_EQ(c.kernel, CTrcGetTraceLevel()) << c.basis;
    }
}

TEST_F(Trace, ActivationKeepsOneOldGeneration) {
    std::string log = Path("trace.log");
    WriteFile(log, "current\n");
    WriteFile(log + ".old", "older\n");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 1));
    EXPECT_EQ("current\n", ReadFile(log + ".old"));
    EXPECT_EQ("", ReadFile(log));
    EXPECT_EQ(518u, MavGetTraceLevel());
    EXPECT_EQ(1, CTrcGetTraceLevel());
    FILE* fp = MavGetTraceFile();
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(fp, CTrcGetFpTf());

    MAV_TRC_W("first run\n");
    // A second activation moves the first trace aside, closing it.
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 2));
    EXPECT_NE(std::string::npos, ReadFile(log + ".old").find("* W * first run"));
    EXPECT_EQ(622u, MavGetTraceLevel());

    ASSERT_EQ(MAV_OK, MavDeactivateTrace());
    EXPECT_EQ(0u, MavGetTraceLevel());
    EXPECT_EQ(0, CTrcGetTraceLevel());
    EXPECT_EQ(nullptr, MavGetTraceFile());
    EXPECT_EQ(nullptr, CTrcGetFpTf());
}

TEST_F(Trace, ActivationWithoutNameDeactivatesAndBadPathFails) {
    std::string log = Path("a.log");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 3));
    ASSERT_EQ(MAV_OK, MavActivateTrace("", 3));
    EXPECT_EQ(nullptr, MavGetTraceFile());
    EXPECT_EQ(0u, MavGetTraceLevel());
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 3));
    ASSERT_EQ(MAV_OK, MavActivateTrace(nullptr, 3));
    EXPECT_EQ(nullptr, MavGetTraceFile());

    std::string bad = Path("missing/dir/x.log");
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavActivateTrace(bad.c_str(), 3));
    EXPECT_EQ(nullptr, MavGetTraceFile());
    // Both sections were released: other threads can still trace and set levels.
    std::thread t([] { EXPECT_EQ(MAV_OK, MavSetTraceLevel(2)); });
    t.join();
    EXPECT_EQ(2u, MavGetTraceLevel());
}

TEST_F(Trace, SetTraceFileNullKeepsTheStreamAndDefaultIsStandardError) {
    MavIOpenDefaultTrace();
    EXPECT_EQ(stderr, MavGetTraceFile());
    EXPECT_EQ(stderr, CTrcGetFpTf());

    std::string path = Path("own.log");
    FILE* fp = fopen(path.c_str(), "w");
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(MAV_OK, MavSetTraceFile(fp));
    EXPECT_EQ(MAV_OK, MavSetTraceFile(nullptr));
    EXPECT_EQ(fp, MavGetTraceFile());
    EXPECT_EQ(fp, CTrcGetFpTf());
    MavIOpenDefaultTrace();  // a stream is set: nothing changes
    EXPECT_EQ(fp, MavGetTraceFile());
    MavPPrintTrace(MAV_TRC_ERROR, "f.c", "F", 1, "own\n");
    EXPECT_NE(std::string::npos, ReadFile(path).find("own"));
    // Deactivation closes the library's stream (fp is not used after it).
    MavDeactivateTrace();
    EXPECT_EQ(nullptr, MavGetTraceFile());

    // Without a library stream the kernel's stream is used.
    std::string kpath = Path("kernel.log");
    FILE* kfp = fopen(kpath.c_str(), "w");
    ASSERT_NE(nullptr, kfp);
    CTrcSetFpTf(kfp);
    EXPECT_EQ(kfp, MavGetTraceFile());
    MavPPrintTrace(MAV_TRC_ERROR, "f.c", "F", 1, "kernel\n");
    EXPECT_NE(std::string::npos, ReadFile(kpath).find("* E * kernel"));
    CTrcSetFpTf(nullptr);
    fclose(kfp);
}

TEST_F(Trace, MacrosTestTheLevelBeforeFormatting) {
    MavSetTraceHandler(Capture);
    int evaluated = 0;
    auto arg = [&evaluated] { return ++evaluated; };
    MavSetTraceLevel(0);
    MAV_TRC(MAV_TRC_PEL, "%d\n", arg());
    MAV_TRC_E("%d\n", arg());
    EXPECT_EQ(0, evaluated);
    EXPECT_TRUE(captured.empty());

    MavSetTraceLevel(MAV_TRC_FUNCTION);  // errors are written whenever the level is non-zero
    MAV_TRC(MAV_TRC_PEL, "%d\n", arg());
    MAV_TRC_E("%d\n", arg());
    MAV_TRC_EXIT(MAV_E_VIRUS_FOUND);
    EXPECT_EQ(1, evaluated);
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ(MAV_TRC_ERROR, captured[0].level);
    EXPECT_EQ("<<  end  << TestBody(MAV_RC==MAV_E_VIRUS_FOUND) \n", captured[1].text);

    captured.clear();
    MavIPrintTraceAlways("f.c", "MavInit", 3, "always %d\n", 1);
    MavSetTraceLevel(0);
    MavIPrintTraceAlways("f.c", "MavInit", 3, "always %d\n", 2);
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ("always 2\n", captured[1].text);
}

TEST_F(Trace, ConcurrentLinesNeverInterleave) {
    std::string log = Path("mt.log");
    ASSERT_EQ(MAV_OK, MavActivateTrace(log.c_str(), 3));
    constexpr int kThreads = 4, kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; i++) {
                MavPPrintTrace(MAV_TRC_THREAD, "mt.c", "Worker", t, "thread %d line %d %s\n", t, i,
                               std::string(100, char('a' + t)).c_str());
                if (i % 50 == 0) MavSetTraceLevel(0x7FFE);
            }
        });
    }
    for (auto& th : threads) th.join();
    std::vector<std::string> lines = Lines(ReadFile(log));
    ASSERT_EQ(size_t(kThreads * kLines), lines.size());
    std::regex line(
        std::string(kPrefix) +
        R"(\[mt.c      :Worker      :   (\d)\]: \*THR\* thread (\d) line \d+ ([a-d])\3{99})");
    for (const std::string& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        EXPECT_EQ(m[1], m[2]);
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

TEST_F(Trace, ConcurrentHandlerLinesAreWholeAndOwnBuffers) {
    handlerCalls = 0;
    badTexts = 0;
    MavSetTraceHandler(CountingHandler);
    MavSetTraceLevel(0xFFFF);  // the memory bit too: hooks run inside the writer
    constexpr int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; i++) {
                MAV_TRC(MAV_TRC_THREAD, "from %d\n", __LINE__);
                MavPPrintTrace(MAV_TRC_THREAD, "x.c", "F", t * 1000 + i, "from %d\n", t * 1000 + i);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(2 * kThreads * kLines, handlerCalls.load());
    EXPECT_EQ(0, badTexts.load());
}

}  // namespace
