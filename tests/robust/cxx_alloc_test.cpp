// C++ allocation sweep of the profile runtime: its objects, maps and strings
// come from operator new, not from the memory hooks. This executable replaces
// operator new; while a library call of the scenario runs ("armed"), the k-th
// allocation made by the library throws std::bad_alloc (allocations made by
// the test adapter are left alone: an adapter is a C boundary that this sweep
// does not test). No exception may leave a C entry point, the C++ entry points
// may throw only std::bad_alloc or their documented exceptions, and after the
// runtime stops nothing may be left: no handle, no engine record, no hook
// allocation, and no heap block that LeakSanitizer finds unreachable.
#include <dlfcn.h>
#include <link.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "mavprofile.h"
#include "robust_env.h"

#if defined(__SANITIZE_ADDRESS__) && __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define ROBUST_HAVE_LSAN 1
#endif

namespace {

thread_local bool armed = false;
thread_local bool inNew = false;
thread_local uint64_t newPoints = 0;
thread_local uint64_t failAt = 0;
thread_local bool failPersistent = false;
thread_local uint64_t refused = 0;
// Address range of the test adapter's code.
uintptr_t adapterLow = 0, adapterHigh = 0;

// True when the allocation is made on behalf of the test adapter.
bool FromAdapter() {
    if (adapterHigh == 0) return false;
    void* frames[10];
    int n = backtrace(frames, 10);
    for (int i = 1; i < n; ++i) {
        uintptr_t pc = reinterpret_cast<uintptr_t>(frames[i]);
        if (pc >= adapterLow && pc < adapterHigh) return true;
    }
    return false;
}

// Every operator new counts as a point; the one to refuse is passed on to the
// next point when it serves the adapter.
bool RefuseNew() {
    if (!armed || inNew || robust::CountingHooks::InHook()) return false;
    inNew = true;
    ++newPoints;
    bool refuse = failAt != 0 && (newPoints == failAt || (failPersistent && newPoints > failAt));
    if (refuse && FromAdapter()) {
        if (newPoints == failAt) ++failAt;
        refuse = false;
    }
    refused += refuse ? 1 : 0;
    inNew = false;
    return refuse;
}

void* NewOrThrow(size_t size) {
    if (RefuseNew()) throw std::bad_alloc();
    void* p = std::malloc(size != 0 ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(size_t size) {
    return NewOrThrow(size);
}
void* operator new[](size_t size) {
    return NewOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (RefuseNew()) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    if (RefuseNew()) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

namespace robust {
namespace {

// Library calls of the scenario run armed.
struct Armed {
    Armed() { armed = true; }
    ~Armed() { armed = false; }
};

std::string Config() {
    const std::string p = "mav.provider.Pelmark.Adapters.P";
    std::string text =
        "mav.defaults.profile=TOP\n"
        "mav.profile.TOP=TOP\n"
        "mav.profile.TOP.Active=true\n"
        "mav.profile.TOP.ProfileLinkage=0\n"
        "mav.profile.TOP.ProfileSteps.0=0\n"
        "mav.profile.TOP.ProfileSteps.0.ProfileEntryType=1\n"
        "mav.profile.TOP.ProfileSteps.0.ProfileEntryValue=SUB\n"
        "mav.profile.TOP.ProfileSteps.1=1\n"
        "mav.profile.TOP.ProfileSteps.1.ProfileEntryType=0\n"
        "mav.profile.TOP.ProfileSteps.1.ProfileEntryValue=G2\n"
        "mav.profile.TOP.Parameters.SCANLIMIT=SCANLIMIT\n"
        "mav.profile.TOP.Parameters.SCANLIMIT.Type=LONG\n"
        "mav.profile.TOP.Parameters.SCANLIMIT.Value=5\n"
        "mav.profile.SUB=SUB\n"
        "mav.profile.SUB.Active=true\n"
        "mav.profile.SUB.ProfileSteps.0=0\n"
        "mav.profile.SUB.ProfileSteps.0.ProfileEntryType=0\n"
        "mav.profile.SUB.ProfileSteps.0.ProfileEntryValue=G1\n"
        "mav.group.G1=G1\n"
        "mav.group.G1.Parameters.SCANLIMIT=SCANLIMIT\n"
        "mav.group.G1.Parameters.SCANLIMIT.Type=LONG\n"
        "mav.group.G1.Parameters.SCANLIMIT.Value=7\n"
        "mav.group.G2=G2\n";
    for (const char* n : {"1", "2"}) {
        text += p + n + "=P" + n + "\n" + p + n + ".Active=true\n" + p + n + ".Group=G" + n + "\n" +
                p + n + ".PoolMaxInstances=2\n" + p + n + ".AdapterPath=" + testpelPath() + "\n" +
                p + n + ".Parameters.SCANLIMIT=SCANLIMIT\n" + p + n +
                ".Parameters.SCANLIMIT.Type=LONG\n" + p + n + ".Parameters.SCANLIMIT.Value=9\n";
    }
    return text;
}

struct AdapterRange {
    uintptr_t base, low, high;
};

// The executable segments of the object loaded at range->base.
int FindRange(struct dl_phdr_info* info, size_t, void* data) {
    AdapterRange* range = static_cast<AdapterRange*>(data);
    if (info->dlpi_addr != range->base) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || (ph.p_flags & PF_X) == 0) continue;
        uintptr_t lo = info->dlpi_addr + ph.p_vaddr;
        if (range->high == 0 || lo < range->low) range->low = lo;
        if (lo + ph.p_memsz > range->high) range->high = lo + ph.p_memsz;
    }
    return 1;
}

class CxxAllocSweep : public RobustTest {
  protected:
    void SetUp() override {
        RobustTest::SetUp();
        Dl_info info;
        ASSERT_NE(0, dladdr(reinterpret_cast<void*>(pel.reset), &info));
        AdapterRange range{reinterpret_cast<uintptr_t>(info.dli_fbase), 0, 0};
        dl_iterate_phdr(FindRange, &range);
        ASSERT_NE(0u, range.high);
        adapterLow = range.low;
        adapterHigh = range.high;
        void* warm[4];
        backtrace(warm, 4);  // loads the unwinder before anything is armed
    }
    void TearDown() override {
        adapterLow = adapterHigh = 0;
        RobustTest::TearDown();
    }

    void Script() {
        pel.clear_params();
        pel.add_param(0, 107, VS_TYPE_LONG, "1000");  // SCANLIMIT
        pel.script_clear();
        pel.script_rc(MAV_E_VIRUS_FOUND);
        pel.script_infection("Eicar-Test", "obj", 1, 0, TPEL_SIZE_OF_OBJECT, nullptr);
    }

    // Problems of one run, collected (not asserted) so that a run always
    // cleans up; the calls made, for the failure message.
    std::string problems;
    std::string trail;
    void expect(bool ok, const char* what) {
        if (!ok) problems += std::string("  ") + what + "\n";
    }
    // A C entry point runs armed; an exception leaving it is a defect.
    template <typename F>
    MAV_RC call(const char* what, F f) {
        MAV_RC code = MAV_E_NO_SPACE;
        try {
            Armed a;
            code = f();
        } catch (const std::exception& e) {
            problems += std::string("  ") + what + " let " + e.what() + " escape\n";
        }
        trail += std::string(what) + "=" + MavErrorName(code) + " ";
        return code;
    }
    std::string Result() {
        if (MavIXGetHdlSize() != 0) problems += "  handles left registered\n";
        if (pel.live_inits() != 0) problems += "  engine records left\n";
        if (CountingHooks::RecordsInUse() != 0) problems += "  handle or instance records left\n";
        if (!problems.empty()) problems += "  calls: " + trail + "\n";
        std::string out;
        out.swap(problems);
        trail.clear();
        return out;
    }

    // The profile runtime: start, profile instance, scans, C++ entry points,
    // stop. strict: memory never runs out.
    std::string Run(bool strict) {
        Script();
        const std::string config = Config();
        MAV_RC rc =
            call("MavStartRuntime", [&] { return MavStartRuntime(config.data(), config.size()); });
        expect(rc == MAV_OK || (!strict && rc == MAV_E_NO_SPACE), "MavStartRuntime");
        if (rc == MAV_OK) {
            MAV_INST pinst = nullptr;
            rc =
                call("MavGetProfileInstance", [&] { return MavGetProfileInstance("TOP", &pinst); });
            expect(KnownCode(rc), "MavGetProfileInstance code");
            expect(!strict || (rc == MAV_OK && pinst != nullptr), "MavGetProfileInstance");
            if (pinst != nullptr) {
                unsigned char bytes[16] = {0};
                MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
                rc = call("MavScanBytes", [&] {
                    return MavScanBytes(pinst, "object", bytes, sizeof bytes, 1, &si);
                });
                expect(KnownCode(rc) && (!strict || rc == MAV_E_VIRUS_FOUND), "MavScanBytes");
                rc = call("MavFreeInstance", [&] { return MavFreeInstance(&pinst); });
                expect(rc == MAV_OK, "MavFreeInstance");
            }
            // The C++ entry points: bad_alloc or the documented exceptions.
            try {
                Armed a;
                std::unique_ptr<mav::MavInstance> s = mav::MavInstance::createInstance("TOP");
                expect(!strict || s != nullptr, "createInstance");
                if (s) {
                    s->scan(SampleFile().c_str());
                    expect(false, "an infected object was reported without exception");
                }
            } catch (const mav::MavCInfectionException& e) {
                expect(std::strstr(e.what(), "object") != nullptr, "infection message");
            } catch (const std::bad_alloc&) {
                expect(!strict, "bad_alloc with memory");
            } catch (...) {
                expect(false, "unexpected exception from the C++ entry points");
            }
        }
        rc = call("MavStopRuntime", [] { return MavStopRuntime(); });  // needs no memory
        expect(rc == MAV_OK, "MavStopRuntime");
        return Result();
    }

    // The C interface on its own: start-up (also of missing adapters, whose
    // loader texts are kept), a handle with its own temporary directory,
    // events, scans of bytes through a temporary file and of a file, results,
    // shutdown.
    std::string RunCore(bool strict) {
        Script();
        pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
        pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
        MAV_HANDLE h = nullptr;
        MAV_RC rc = call("MavInit", [&] { return MavInit(pel.path(), &h); });
        expect(rc == MAV_OK || (!strict && KnownCode(rc)), "MavInit");
        if (rc == MAV_OK) {
            rc = call("MavSetParameter", [&] {
                return MavSetParameter(h, "INITTEMP_PATH", VS_TYPE_CHAR, HandleTmpDir().c_str());
            });
            expect(KnownCode(rc) && (!strict || rc == MAV_OK), "INITTEMP_PATH");
            MAV_INST i = nullptr;
            rc = call("MavCreateInstance", [&] { return MavCreateInstance(h, &i); });
            expect(KnownCode(rc) && (!strict || rc == MAV_OK), "MavCreateInstance");
            if (i != nullptr) {
                MAV_EVENTS events = {};
                events.OnVirusFound = [](MAV_INST, void*, void*) -> VS_CALLRC { return 0; };
                rc = call("MavRegisterEvents",
                          [&] { return MavRegisterEvents(i, &events, nullptr); });
                expect(KnownCode(rc) && (!strict || rc == MAV_OK), "MavRegisterEvents");
                unsigned char bytes[16] = {0};
                MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
                rc = call("MavScanBytes", [&] {
                    return MavScanBytes(i, "dir/object", bytes, sizeof bytes, 1, &si);
                });
                expect(KnownCode(rc) && (!strict || rc == MAV_E_VIRUS_FOUND), "MavScanBytes");
                rc = call("MavScanFile",
                          [&] { return MavScanFile(i, SampleFile().c_str(), 2, &si); });
                expect(KnownCode(rc) && (!strict || rc == MAV_E_VIRUS_FOUND), "MavScanFile");
                char name[32];
                size_t len = sizeof name;
                rc = call("MavEnumInfections", [&] {
                    return MavEnumInfections(i, 0, nullptr, nullptr, name, &len, nullptr, nullptr,
                                             nullptr, nullptr, nullptr);
                });
                expect(KnownCode(rc), "MavEnumInfections");
                rc = call("MavFreeInstance", [&] { return MavFreeInstance(&i); });
                expect(rc == MAV_OK, "MavFreeInstance");
            }
        }
        if (h != nullptr) expect(call("MavEnd", [&] { return MavEnd(&h); }) == MAV_OK, "MavEnd");
        pel.set_flags(0x3, 0x19, VS_M_ALL, 0);
        // Adapters that cannot be loaded: a named file, then the default names.
        const std::string missing = DefaultTmpDir() + "/missing-adapter.so";
        for (const char* path : {missing.c_str(), static_cast<const char*>(nullptr)}) {
            MAV_HANDLE bad = nullptr;
            rc = call("MavInit (missing)", [&] { return MavInit(path, &bad); });
            expect(rc == MAV_E_PEL_LOAD_FAILED || (!strict && KnownCode(rc)), "MavInit (missing)");
            size_t len = 0;
            rc = call("MavAdapterErrorText",
                      [&] { return MavAdapterErrorText(bad, nullptr, &len); });
            expect(KnownCode(rc), "MavAdapterErrorText");
            if (bad != nullptr)
                expect(call("MavEnd", [&] { return MavEnd(&bad); }) == MAV_OK, "MavEnd (missing)");
        }
        return Result();
    }

    // core: the C interface scenario, else the profile runtime's.
    void Sweep(bool core, bool persistent) {
        auto run = [this, core](bool strict) { return core ? RunCore(strict) : Run(strict); };
        const char* what = core ? "the C interface" : "the profile runtime";
        failAt = 0;
        ASSERT_EQ("", run(true)) << "warm-up";
        newPoints = 0;
        ASSERT_EQ("", run(true)) << "counting run";
        const uint64_t points = newPoints;
        // Under valgrind its own operator new replaces this executable's.
        if (points == 0) GTEST_SKIP() << "operator new is not this test's (valgrind?)";
        uint64_t refusedRuns = 0;
        for (uint64_t k = 1; k <= points; ++k) {
            uint64_t mark = CountingHooks::Mark();
            newPoints = 0;
            refused = 0;
            failAt = k;
            failPersistent = persistent;
            std::string problems = run(false);
            failAt = 0;
            refusedRuns += refused > 0 ? 1 : 0;
            ASSERT_EQ("", problems) << "operator new refused at " << k << " of " << points;
            std::vector<CountingHooks::Block> leaks = CountingHooks::Leaks(mark);
            ASSERT_TRUE(leaks.empty()) << "operator new refused at " << k << ":\n"
                                       << CountingHooks::Describe(leaks);
            ASSERT_EQ("", run(true)) << "then again with memory, after " << k;
        }
#ifdef ROBUST_HAVE_LSAN
        EXPECT_EQ(0, __lsan_do_recoverable_leak_check()) << "unreachable heap blocks";
#endif
        std::printf(
            "[ sweep    ] C++ %s: %llu operator new points in %s, %llu runs refused memory\n",
            persistent ? "persistent" : "single", static_cast<unsigned long long>(points), what,
            static_cast<unsigned long long>(refusedRuns));
    }
};

// Each operator new refused once, then from there on.
TEST_F(CxxAllocSweep, ProfileRuntimeSurvivesRefusedNew) {
    Sweep(false, false);
    Sweep(false, true);
}

TEST_F(CxxAllocSweep, CInterfaceLetsNoExceptionOut) {
    Sweep(true, false);
    Sweep(true, true);
}

}  // namespace
}  // namespace robust
