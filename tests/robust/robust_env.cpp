// robust_env.cpp - process set-up of test_robust (see robust_env.h).
#include "robust_env.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "mavprofile_i.h"
#include "mavxxi.h"

namespace robust {
namespace {

std::string tmpRoot, defaultTmp, handleTmp, sample;

int SwallowTrace(const char*, const char*, int, uint32_t, const char*) {
    return 0;
}

int FilesIn(const std::string& dir) {
    int n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
        closedir(d);
    }
    return n;
}

class Env : public ::testing::Environment {
  public:
    // Before anything of the library runs: the hooks see every allocation and
    // PEL_TMP is read (and cached) only once.
    void SetUp() override {
        CountingHooks::Install();
        char tmpl[] = "/tmp/kormo_robust_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        tmpRoot = tmpl;
        defaultTmp = tmpRoot + "/pel_tmp";
        handleTmp = tmpRoot + "/handle_tmp";
        sample = tmpRoot + "/sample.com";
        mkdir(defaultTmp.c_str(), 0700);
        mkdir(handleTmp.c_str(), 0700);
        FILE* fp = std::fopen(sample.c_str(), "wb");
        ASSERT_NE(nullptr, fp);
        std::fputs("X5O!P%@AP[4\\PZX54(P^)7CC)7}$ROBUST-SAMPLE", fp);
        std::fclose(fp);
        setenv("PEL_TMP", defaultTmp.c_str(), 1);
        ASSERT_EQ(MAV_OK, MavSetTraceHandler(SwallowTrace));
    }
    void TearDown() override {
        MavSetTraceHandler(nullptr);
        unlink(sample.c_str());
        for (const std::string& d : {handleTmp, defaultTmp, tmpRoot}) rmdir(d.c_str());
    }
};

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new Env);

}  // namespace

const std::string& DefaultTmpDir() {
    return defaultTmp;
}
const std::string& HandleTmpDir() {
    return handleTmp;
}
const std::string& SampleFile() {
    return sample;
}

void RobustTest::SetUp() {
    ASSERT_TRUE(CountingHooks::Installed());
    // The properties reader keeps the first value of every key across starts:
    // each test starts the profile runtime from an empty reader.
    mav::mav_properties = mav::PropertyReader();
    CountingHooks::Disarm();
    mark_ = CountingHooks::Mark();
    misuse_ = CountingHooks::Misuse();
}

std::string RobustTest::LeftOver(uint64_t mark) {
    std::string out;
    if (MavIXGetHdlSize() != 0) out += "  handles left registered\n";
    if (pel.live_inits() != 0) out += "  engine records never ended\n";
    if (pel.live_scaninfos() != 0) out += "  scan results never released\n";
    if (pel.bad_releases() != 0) out += "  records released twice or foreign records released\n";
    if (CountingHooks::Misuse() != misuse_) out += "  free hook got a pointer it never gave\n";
    if (FilesIn(DefaultTmpDir()) + FilesIn(HandleTmpDir()) != 0) out += "  temporary file left\n";
    std::string leaks = CountingHooks::Leaks(mark);
    return leaks.empty() ? out : out + "  hook allocations still live:\n" + leaks;
}

void RobustTest::TearDown() {
    CountingHooks::Disarm();
    MavSetTraceLevel(0);
    EXPECT_EQ("", LeftOver(mark_));
}

}  // namespace robust
