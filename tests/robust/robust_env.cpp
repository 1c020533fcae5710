// robust_env.cpp - process set-up of test_robust (see robust_env.h).
#include "robust_env.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "mavprofile_i.h"

namespace robust {
namespace {

std::string tmpRoot;
std::string defaultTmp;
std::string handleTmp;
std::string sample;
std::atomic<uint64_t> traceLines{0};

int SwallowTrace(const char*, const char*, int, uint32_t, const char* text) {
    if (text != nullptr) traceLines.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

std::string MakeDir(const std::string& path) {
    mkdir(path.c_str(), 0700);
    return path;
}

class Env : public ::testing::Environment {
  public:
    void SetUp() override {
        // Before anything of the library runs: the hooks see every allocation
        // and PEL_TMP is read (and cached) only once.
        CountingHooks::Install();
        char tmpl[] = "/tmp/kormo_robust_XXXXXX";
        const char* root = mkdtemp(tmpl);
        ASSERT_NE(nullptr, root);
        tmpRoot = root;
        defaultTmp = MakeDir(tmpRoot + "/pel_tmp");
        handleTmp = MakeDir(tmpRoot + "/handle_tmp");
        MakeDir(tmpRoot + "/data");
        sample = tmpRoot + "/data/sample.com";
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
        rmdir((tmpRoot + "/data").c_str());
        rmdir(handleTmp.c_str());
        rmdir(defaultTmp.c_str());
        rmdir(tmpRoot.c_str());
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

int FilesIn(const std::string& dir) {
    int n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
        closedir(d);
    }
    return n;
}

uint64_t TraceLines() {
    return traceLines.load();
}
void ResetTraceLines() {
    traceLines.store(0);
}

void RobustTest::SetUp() {
    ASSERT_TRUE(CountingHooks::Installed());
    // The properties reader keeps the first value of every key across starts:
    // each test starts the profile runtime from an empty reader.
    mav::mav_properties = mav::PropertyReader();
    CountingHooks::Disarm();
    mark_ = CountingHooks::Mark();
    foreign_ = CountingHooks::ForeignFrees();
}

void RobustTest::TearDown() {
    CountingHooks::Disarm();
    MavSetTraceLevel(0);
    EXPECT_EQ(0u, MavIXGetHdlSize()) << "handles left registered";
    EXPECT_EQ(0, pel.live_inits()) << "engine records never ended";
    EXPECT_EQ(0, pel.live_scaninfos()) << "scan results never released";
    EXPECT_EQ(0u, pel.bad_releases()) << "records released twice or foreign records released";
    EXPECT_EQ(0u, CountingHooks::RecordsInUse()) << "handle or instance records never freed";
    std::vector<CountingHooks::Block> leaks = CountingHooks::Leaks(mark_);
    EXPECT_TRUE(leaks.empty()) << "hook allocations still live:\n"
                               << CountingHooks::Describe(leaks);
    EXPECT_EQ(foreign_, CountingHooks::ForeignFrees()) << "free hook got a pointer it never gave";
    EXPECT_EQ(0, FilesIn(DefaultTmpDir())) << "temporary file left in " << DefaultTmpDir();
    EXPECT_EQ(0, FilesIn(HandleTmpDir())) << "temporary file left in " << HandleTmpDir();
}

}  // namespace robust
