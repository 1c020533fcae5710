// Process trace and the flat helpers.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "krnflat.h"
#include "krntrc.h"

namespace {

class Trace : public ::testing::Test {
  protected:
    void SetUp() override {
        fp_ = tmpfile();
        ASSERT_NE(fp_, nullptr);
    }
    void TearDown() override {
        CTrcSetFpTf(nullptr);
        CTrcSetTraceLevelFct(0);
        fclose(fp_);
    }
    std::vector<std::string> Lines() {
        fflush(fp_);
        rewind(fp_);
        std::vector<std::string> lines;
        char buf[4096];
        while (fgets(buf, sizeof buf, fp_) != nullptr) lines.push_back(buf);
        return lines;
    }
    FILE* fp_ = nullptr;
};

TEST_F(Trace, WritesOnlyWithStreamAndLevel) {
    CTrcSetTraceLevelFct(1);
    DpTrcA7("no stream %d", 1);
    CTrcSetFpTf(fp_);
    EXPECT_EQ(CTrcGetFpTf(), fp_);
    CTrcSetTraceLevelFct(0);
    DpTrcErrA7("level zero");
    EXPECT_TRUE(Lines().empty());

    CTrcSetTraceLevelFct(7);
    EXPECT_EQ(CTrcGetTraceLevel(), 3);
    CTrcSaveLocation("/src/krn/module.cpp", 42);
    DpTrcErrA7("boom %s", "here");
    DpTrcWarnA7("careful\n");  // no second line end
    DpTrcA7("plain");
    CTrcSetTraceLevelFct(-2);
    EXPECT_EQ(CTrcGetTraceLevel(), 0);

    std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 3u);
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} p\d{6,} t *\d+ )";
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex(stamp + R"(\[module\.cpp:  42\]: \*\*\* ERROR => boom here\n)")))
        << lines[0];
    EXPECT_TRUE(std::regex_match(
        lines[1], std::regex(stamp + R"(\[unknown   :   0\]: \*\*\* WARNING => careful\n)")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(stamp + R"(\[unknown   :   0\]: plain\n)")))
        << lines[2];
}

TEST_F(Trace, ConcurrentLinesNeverInterleave) {
    CTrcSetFpTf(fp_);
    CTrcSetTraceLevelFct(1);
    DpLock();  // recursive: the writers below take it again on this thread
    DpTrcA7("under the lock");
    DpUnlock();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                DpTrcA7("thread %d line %d %s", t, i, std::string(300, 'x').c_str());
        });
    }
    for (auto& th : threads) th.join();
    std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 801u);
    std::regex shape(R"(.*\]: thread \d line \d+ x{300}\n)");
    for (size_t i = 1; i < lines.size(); ++i)
        ASSERT_TRUE(std::regex_match(lines[i], shape)) << lines[i];
}

TEST(Flat, CaseBlindCompare) {
    EXPECT_EQ(strcmpiU("PEL_Scan", "pel_sCAN"), 0);
    EXPECT_LT(strcmpiU("abc", "ABD"), 0);
    EXPECT_LT(strcmpiU("ab", "AbC"), 0);
    EXPECT_GT(strcmpiU("b", "A"), 0);
    EXPECT_NE(strcmpiU("\xC4", "\xE4"), 0);  // ASCII letters only
    EXPECT_LT(strcmpiU(nullptr, ""), 0);
    EXPECT_GT(strcmpiU("", nullptr), 0);
    EXPECT_EQ(strcmpiU(nullptr, nullptr), 0);
    EXPECT_EQ(strncmpiU("HelloX", "helloY", 5), 0);
    EXPECT_NE(strncmpiU("HelloX", "helloY", 6), 0);
    EXPECT_EQ(strncmpiU("a", "A", 10), 0);
}

TEST(Flat, BoundedCopy) {
    char buf[4];
    EXPECT_EQ(strlcpyU(buf, "abcdef", sizeof buf), 6u);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strlcpyU(buf, "ab", sizeof buf), 2u);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(strlcpyU(buf, "xyz", 1), 3u);
    EXPECT_STREQ(buf, "");
}

TEST(Flat, UniqueFilesAreExclusiveAndPrivate) {
    char dir[] = "/tmp/krnflatXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    mode_t old = umask(0);  // the mode must not depend on the umask
    std::set<std::string> names;
    for (int i = 0; i < 5; ++i) {
        std::string templ = std::string(dir) + "/scan_XXXXXX.tmp";
        std::vector<char> t(templ.begin(), templ.end());
        t.push_back('\0');
        int fd = mkstempsU(t.data(), 4);
        ASSERT_GE(fd, 0);
        std::string name(t.data());
        EXPECT_EQ(name.substr(name.size() - 4), ".tmp");
        EXPECT_EQ(name.find("XXXXXX"), std::string::npos);
        EXPECT_EQ(
            name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789",
                                   templ.size() - 10),
            templ.size() - 4);
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        names.insert(name);
        close(fd);
    }
    umask(old);
    EXPECT_EQ(names.size(), 5u);
    for (const std::string& n : names) unlink(n.c_str());
    rmdir(dir);
    char bad[] = "/tmp/krn_noX.tmp";
    EXPECT_EQ(mkstempsU(bad, 4), -1);
    EXPECT_EQ(mkstempsU(nullptr, 0), -1);
}

TEST(Flat, Time) {
    time_t now = time(nullptr);
    time_t s = 0;
    int ms = -1;
    timeOfDayU(&s, &ms);
    EXPECT_GE(ms, 0);
    EXPECT_LE(ms, 999);
    EXPECT_LE(s - now, 1);
    struct tm a, b;
    ASSERT_EQ(localtimeU(&now, &a), &a);
    localtime_r(&now, &b);
    EXPECT_EQ(mktime(&a), mktime(&b));
    EXPECT_EQ(localtimeU(nullptr, &a), nullptr);
}

}  // namespace
