// robust_env.cpp - memory hooks and process set-up of test_robust (see
// robust_env.h).
#include "robust_env.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <unordered_map>

#include "mavprofile_i.h"
#include "mavxxi.h"

namespace robust {

thread_local bool inHook = false;

namespace {

namespace fs = std::filesystem;

// Hook state. Live pointers are kept XOR-masked so that LeakSanitizer does
// not take the table for a reference: a block the library loses is still
// reported at exit.
struct Hooks {
    std::mutex lock;
    HookCounts n = {0, 0, 1, 0};
    uint64_t failAt = 0;
    bool persistent = false;
    Source source = Source::kHooks;
    std::unordered_map<uintptr_t, uint64_t> live;  // masked pointer -> serial
};
Hooks& hooks = *new Hooks;  // outlives every static destructor
constexpr uintptr_t kMask = 0xA5A5A5A5A5A5A5A5ull;
uintptr_t Key(void* p) {
    return reinterpret_cast<uintptr_t>(p) ^ kMask;
}

// With the lock held: a new live block.
void Track(Hooks& h, void* p) {
    inHook = true;
    h.live[Key(p)] = h.n.serial++;
    inHook = false;
}
void* Alloc(size_t size, int clean, const char* tag) {
    if (Refuse(Source::kHooks, tag)) return nullptr;
    void* p = (clean & 0xFF) != 0 ? std::calloc(1, size + 1) : std::malloc(size + 1);
    std::lock_guard<std::mutex> g(hooks.lock);
    if (p != nullptr) Track(hooks, p);
    return p;
}
void* Realloc(void* ptr, size_t size, const char* tag) {
    if (Refuse(Source::kHooks, tag)) return nullptr;
    const uintptr_t old = Key(ptr);
    void* p = std::realloc(ptr, size + 1);
    if (p == nullptr) return nullptr;
    std::lock_guard<std::mutex> g(hooks.lock);
    if (ptr != nullptr && hooks.live.erase(old) == 0) ++hooks.n.misuse;
    Track(hooks, p);
    return p;
}
}  // namespace

bool Refuse(Source source, const char* tag) {
    Hooks& h = hooks;
    std::lock_guard<std::mutex> g(h.lock);
    h.n.misuse += tag == nullptr || std::strcmp(tag, "mav") != 0 ? 1 : 0;
    if (source != h.source) return false;
    ++h.n.points;
    bool refuse =
        h.failAt != 0 && (h.n.points == h.failAt || (h.persistent && h.n.points > h.failAt));
    h.n.refused += refuse ? 1 : 0;
    return refuse;
}

void Release(void* ptr) {
    if (ptr == nullptr) return;
    {
        std::lock_guard<std::mutex> g(hooks.lock);
        // Not ours: counted and left alone (freeing it could corrupt the heap
        // of whoever owns it).
        if (hooks.live.erase(Key(ptr)) == 0) {
            ++hooks.n.misuse;
            return;
        }
    }
    std::free(ptr);
}
namespace {

std::ptrdiff_t FilesIn(const std::string& dir) {
    return std::distance(fs::directory_iterator(dir), fs::directory_iterator());
}

class Env : public ::testing::Environment {
  public:
    // Before anything of the library runs: the hooks see every allocation and
    // PEL_TMP is read (and cached) only once.
    void SetUp() override {
        ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(Alloc, Realloc, Release));
        char tmpl[] = "/tmp/kormo_robust_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        const std::string root = tmpl;
        paths = {root + "/pel_tmp", root + "/handle_tmp", root + "/sample.com"};
        fs::create_directory(paths.defaultTmp);
        fs::create_directory(paths.handleTmp);
        std::ofstream(paths.sample) << "X5O!P%@AP[4\\PZX54(P^)7CC)7}$ROBUST-SAMPLE";
        setenv("PEL_TMP", paths.defaultTmp.c_str(), 1);
        // Trace lines go to a handler that drops them.
        ASSERT_EQ(MAV_OK, MavSetTraceHandler([](const char*, const char*, int, uint32_t,
                                                const char*) { return 0; }));
    }
    void TearDown() override {
        MavSetTraceHandler(nullptr);
        fs::remove_all(fs::path(paths.sample).parent_path());
    }
};

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new Env);

}  // namespace

Paths paths;

void FailFrom(uint64_t k, bool persistent, Source source) {
    std::lock_guard<std::mutex> g(hooks.lock);
    hooks.n.points = hooks.n.refused = 0;
    hooks.failAt = k;
    hooks.persistent = persistent;
    hooks.source = source;
}
HookCounts Counts() {
    std::lock_guard<std::mutex> g(hooks.lock);
    return hooks.n;
}

void RobustTest::SetUp() {
    // The properties reader keeps the first value of every key across starts:
    // each test starts the profile runtime from an empty reader.
    mav::mav_properties = mav::PropertyReader();
    FailFrom(0, false);
    mark_ = Counts().serial;
    misuse_ = Counts().misuse;
}

void RobustTest::TearDown() {
    FailFrom(0, false);
    MavSetTraceLevel(0);
    EXPECT_EQ("", LeftOver(mark_));
}

std::string RobustTest::LeftOver(uint64_t mark) {
    std::string out, leaks;
    {
        std::lock_guard<std::mutex> g(hooks.lock);
        for (const auto& e : hooks.live)
            if (e.second >= mark) leaks += " #" + std::to_string(e.second);
    }
    if (!leaks.empty()) out = "  hook blocks still live, from allocations" + leaks + "\n";
    if (MavIXGetHdlSize() != 0) out += "  handles left registered\n";
    if (pel.live_inits() != 0) out += "  engine records never ended\n";
    if (pel.live_scaninfos() != 0) out += "  scan results never released\n";
    if (pel.bad_releases() != 0) out += "  records released twice or foreign records released\n";
    if (Counts().misuse != misuse_) out += "  free hook got a pointer it never gave\n";
    if (FilesIn(paths.defaultTmp) + FilesIn(paths.handleTmp) != 0) out += "  temporary file left\n";
    return out;
}

}  // namespace robust
