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

}  // namespace
