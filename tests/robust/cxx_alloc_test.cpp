// C++ allocation sweep: the profile runtime's objects, maps and strings and
// the loader's table and texts come from operator new, not from the memory
// hooks. This executable replaces operator new. While a library call of the
// scenario runs ("armed"), the operator new calls made by libkormomav are
// counted and the k-th (or every one from the k-th on) throws
// std::bad_alloc. Calls made for the test adapter (a C boundary this sweep
// does not test) or for the hooks' own table are not counted. Every run is on
// a new thread, so that per-thread state (the loader's last error text) is
// allocated again each time. No exception may leave a C entry point, the C++
// entry points may throw only std::bad_alloc or their documented exceptions,
// and after each run nothing may be left behind.
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>

#include "mavprofile.h"
#include "robust_env.h"

#if defined(__SANITIZE_ADDRESS__) && __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define ROBUST_HAVE_LSAN 1
#endif

namespace {

thread_local bool armed = false, inNew = false;
// Written only by the armed thread; read after it is joined.
uint64_t newPoints = 0, failAt = 0, refused = 0;
bool failPersistent = false;
void* adapterBase = nullptr;  // where the test adapter is loaded

bool FromAdapter() {
    void* frames[16];
    int n = backtrace(frames, 16);
    Dl_info info;
    for (int i = 1; i < n; ++i) {
        if (dladdr(frames[i], &info) != 0 && info.dli_fbase == adapterBase) return true;
    }
    return false;
}

bool RefuseNew() {
    if (!armed || inNew || robust::CountingHooks::InHook()) return false;
    inNew = true;
    bool refuse = false;
    if (!FromAdapter()) {
        ++newPoints;
        refuse = failAt != 0 && (newPoints == failAt || (failPersistent && newPoints > failAt));
        refused += refuse ? 1 : 0;
    }
    inNew = false;
    return refuse;
}

}  // namespace

void* operator new(size_t size) {
    void* p = RefuseNew() ? nullptr : std::malloc(size != 0 ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
namespace robust {
namespace {

struct Armed {
    Armed() { armed = true; }
    ~Armed() { armed = false; }
};

// A profile of a sub-profile and a group, two providers.
std::string Config() {
    const std::string p = "mav.provider.Pelmark.Adapters.P";
    std::string text =
        "mav.defaults.profile=TOP\nmav.profile.TOP=TOP\nmav.profile.TOP.Active=true\n"
        "mav.profile.TOP.ProfileSteps.0=0\nmav.profile.TOP.ProfileSteps.0.ProfileEntryType=1\n"
        "mav.profile.TOP.ProfileSteps.0.ProfileEntryValue=SUB\n"
        "mav.profile.TOP.ProfileSteps.1=1\nmav.profile.TOP.ProfileSteps.1.ProfileEntryType=0\n"
        "mav.profile.TOP.ProfileSteps.1.ProfileEntryValue=G2\n"
        "mav.profile.TOP.Parameters.SCANLIMIT=SCANLIMIT\n"
        "mav.profile.TOP.Parameters.SCANLIMIT.Type=LONG\n"
        "mav.profile.TOP.Parameters.SCANLIMIT.Value=5\n"
        "mav.profile.SUB=SUB\nmav.profile.SUB.Active=true\nmav.profile.SUB.ProfileSteps.0=0\n"
        "mav.profile.SUB.ProfileSteps.0.ProfileEntryType=0\n"
        "mav.profile.SUB.ProfileSteps.0.ProfileEntryValue=G1\nmav.group.G1=G1\nmav.group.G2=G2\n";
    for (const char* n : {"1", "2"}) {
        text += p + n + "=P" + n + "\n" + p + n + ".Active=true\n" + p + n + ".Group=G" + n + "\n" +
                p + n + ".PoolMaxInstances=2\n" + p + n + ".AdapterPath=" + testpelPath() + "\n";
    }
    return text;
}

class CxxAllocSweep : public RobustTest, public ::testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        RobustTest::SetUp();
        Dl_info info;
        ASSERT_NE(0, dladdr(reinterpret_cast<void*>(pel.reset), &info));
        adapterBase = info.dli_fbase;
        void* warm[4];
        backtrace(warm, 4);                           // loads the unwinder before anything is armed
        pel.add_param(0, 107, VS_TYPE_LONG, "1000");  // SCANLIMIT
        pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
        pel.script_rc(MAV_E_VIRUS_FOUND);
        pel.script_infection("Eicar-Test", "obj", 1, 0, TPEL_SIZE_OF_OBJECT, nullptr);
    }
    void TearDown() override {
        adapterBase = nullptr;
        RobustTest::TearDown();
    }

    std::string problems_, trail_;
    // Records a problem of a run (not asserted: a run always cleans up).
    void Expect(bool ok, const char* what) {
        if (!ok) problems_ += std::string("  ") + what + "\n";
    }
    // A C entry point runs armed; an exception leaving it is a defect. Its
    // code must be documented and, with strict, the expected one.
    template <typename F>
    MAV_RC Call(const char* what, bool strict, MAV_RC expected, F f) {
        MAV_RC rc = MAV_E_NO_SPACE;
        try {
            Armed a;
            rc = f();
        } catch (const std::exception& e) {
            problems_ += std::string("  ") + what + " let " + e.what() + " escape\n";
        }
        trail_ += std::string(what) + "=" + MavErrorName(rc) + " ";
        Expect(KnownCode(rc) && (!strict || rc == expected), what);
        return rc;
    }

    // The profile runtime: start, a profile instance and its scan, the C++
    // entry points, stop.
    void Runtime(bool strict) {
        const std::string config = Config();
        MAV_RC rc = Call("MavStartRuntime", strict, MAV_OK,
                         [&] { return MavStartRuntime(config.data(), config.size()); });
        if (rc == MAV_OK) {
            MAV_INST pinst = nullptr;
            Call("MavGetProfileInstance", strict, MAV_OK,
                 [&] { return MavGetProfileInstance("TOP", &pinst); });
            if (pinst != nullptr) {
                unsigned char bytes[16] = {0};
                MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
                Call("MavScanBytes", strict, MAV_E_VIRUS_FOUND,
                     [&] { return MavScanBytes(pinst, "object", bytes, sizeof bytes, 1, &si); });
                Call("MavFreeInstance", true, MAV_OK, [&] { return MavFreeInstance(&pinst); });
            }
            try {
                Armed a;
                std::unique_ptr<mav::MavInstance> s = mav::MavInstance::createInstance("TOP");
                Expect(!strict || s != nullptr, "createInstance");
                if (s) s->scan(SampleFile().c_str());
                Expect(s == nullptr, "an infected object was reported without exception");
            } catch (const mav::MavCInfectionException& e) {
                Expect(std::strstr(e.what(), "object") != nullptr, "infection message");
            } catch (const std::bad_alloc&) {
                Expect(!strict, "bad_alloc with memory");
            } catch (...) {
                Expect(false, "unexpected exception from the C++ entry points");
            }
        }
        Call("MavStopRuntime", true, MAV_OK, [] { return MavStopRuntime(); });  // needs no memory
    }

    // The C interface: a handle whose bytes go through a temporary file in its
    // own directory, events, scans, results, shutdown; then adapters that
    // cannot be loaded (a named file, the default names), whose loader texts
    // are kept.
    void Core(bool strict) {
        pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
        MAV_HANDLE h = nullptr;
        if (Call("MavInit", strict, MAV_OK, [&] { return MavInit(pel.path(), &h); }) == MAV_OK) {
            Call("INITTEMP_PATH", strict, MAV_OK, [&] {
                return MavSetParameter(h, "INITTEMP_PATH", VS_TYPE_CHAR, HandleTmpDir().c_str());
            });
            MAV_INST i = nullptr;
            Call("MavCreateInstance", strict, MAV_OK, [&] { return MavCreateInstance(h, &i); });
            if (i != nullptr) {
                MAV_EVENTS events = {};
                events.OnVirusFound = [](MAV_INST, void*, void*) -> VS_CALLRC { return 0; };
                Call("MavRegisterEvents", strict, MAV_OK,
                     [&] { return MavRegisterEvents(i, &events, nullptr); });
                unsigned char bytes[16] = {0};
                MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
                Call("MavScanBytes", strict, MAV_E_VIRUS_FOUND,
                     [&] { return MavScanBytes(i, "dir/object", bytes, sizeof bytes, 1, &si); });
                Call("MavScanFile", strict, MAV_E_VIRUS_FOUND,
                     [&] { return MavScanFile(i, SampleFile().c_str(), 2, &si); });
                char name[32];
                size_t len = sizeof name;
                Call("MavEnumInfections", strict, MAV_OK, [&] {
                    return MavEnumInfections(i, 0, nullptr, nullptr, name, &len, nullptr, nullptr,
                                             nullptr, nullptr, nullptr);
                });
                Call("MavFreeInstance", true, MAV_OK, [&] { return MavFreeInstance(&i); });
            }
        }
        if (h != nullptr) Call("MavEnd", true, MAV_OK, [&] { return MavEnd(&h); });
        pel.set_flags(0x3, 0x19, VS_M_ALL, 0);
        const std::string missing = DefaultTmpDir() + "/missing-adapter.so";
        for (const char* path : {missing.c_str(), static_cast<const char*>(nullptr)}) {
            MAV_HANDLE bad = nullptr;
            Call("MavInit (missing)", strict, MAV_E_PEL_LOAD_FAILED,
                 [&] { return MavInit(path, &bad); });
            size_t len = 0;
            Call("MavAdapterErrorText", strict, bad != nullptr ? MAV_OK : MAV_E_NULL_PARAM,
                 [&] { return MavAdapterErrorText(bad, nullptr, &len); });
            if (bad != nullptr)
                Call("MavEnd (missing)", true, MAV_OK, [&] { return MavEnd(&bad); });
        }
    }

    // One run on a new thread; its problems (empty when none).
    std::string Run(uint64_t k, bool persistent) {
        uint64_t mark = CountingHooks::Mark();
        newPoints = refused = 0;
        failAt = k;
        failPersistent = persistent;
        std::thread t([&] { GetParam() ? Core(k == 0) : Runtime(k == 0); });
        t.join();
        failAt = 0;
        if (k != 0 && refused == 0) problems_ += "  nothing refused\n";
        std::string out = problems_ + LeftOver(mark);
        if (!out.empty()) out += "  calls: " + trail_ + "\n";
        problems_.clear();
        trail_.clear();
        return out;
    }
};

// Each operator new refused once, then from there on: the C interface (true)
// and the profile runtime (false).
TEST_P(CxxAllocSweep, NoExceptionEscapesAndNothingLeaks) {
    ASSERT_EQ("", Run(0, false)) << "warm-up";
    ASSERT_EQ("", Run(0, false)) << "counting run";
    const uint64_t points = newPoints;
    // Under valgrind its own operator new replaces this executable's.
    {
        Armed a;
        ::operator delete(::operator new(8));
    }
    if (newPoints == points) GTEST_SKIP() << "operator new is not this executable's (valgrind?)";
    ASSERT_GT(points, 0u) << "the scenario makes no operator new call in the library";
    for (bool persistent : {false, true}) {
        for (uint64_t k = 1; k <= points; ++k) {
            ASSERT_EQ("", Run(k, persistent))
                << "operator new " << k << " of " << points << " refused"
                << (persistent ? " and every later one" : "");
            ASSERT_EQ("", Run(0, false)) << "then again with memory, after " << k;
        }
    }
#ifdef ROBUST_HAVE_LSAN
    EXPECT_EQ(0, __lsan_do_recoverable_leak_check()) << "unreachable heap blocks";
#endif
    std::printf("[ sweep    ] %llu operator new points\n", static_cast<unsigned long long>(points));
}

INSTANTIATE_TEST_SUITE_P(Robust, CxxAllocSweep, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "CInterface" : "ProfileRuntime");
});

}  // namespace
}  // namespace robust
