// Allocation sweeps: one scenario that touches every subsystem (start-up, pool,
// parameters, events, file and byte scans with and without the temporary-file
// fallback, results, reload, traced scans, the profile runtime through the C
// and the C++ entry points, adapters that cannot be loaded, shutdown) is run
// once per allocation point with that allocation refused, then with it and
// every later one refused. The points are those of the memory hooks, or the
// operator new calls made by libkormomav (this executable replaces operator
// new; calls made for the test adapter, a C boundary, are not counted). Each
// run is on a new thread, so per-thread state is allocated again.
//
// Every call must give a documented code and let no exception out, a call
// that succeeds must hand out what it promised, a change that fails must keep
// the old value, ending must need no memory, everything must be given back,
// and the scenario must succeed in full again right after.
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>

#include "mavprofile.h"
#include "mavxxi.h"
#include "robust_env.h"
#include "runtime_text.h"

namespace {

// Operator new is counted on the thread that runs a library call of the
// scenario ("armed").
thread_local bool armed = false, inNew = false;
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
    if (!armed || inNew || robust::inHook) return false;
    inNew = true;
    bool refuse = !FromAdapter() && robust::Refuse(robust::Source::kNew);
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

// Sets the thread's armed state for a scope.
struct Arm {
    explicit Arm(bool on) : was(armed) { armed = on; }
    ~Arm() { armed = was; }
    bool was;
};

// Reads every text a handler is given: with an allocation refused each must
// still be whole (the sanitizers see one that is not).
VS_CALLRC OnAny(MAV_INST, uint32_t message, void* data, void*) {
    auto Len = [](const char* s) { return s != nullptr ? strlen(s) : 0; };
    const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
    volatile size_t n = 0;
    if (data != nullptr && message == VS_M_VIRUS)
        n = Len(v->pszVirusName) + Len(v->pszObjectName) + Len(v->pszFreeTextInfo);
    if (message == VS_M_ERROR || message == VS_M_OBJECTFOUND)
        n = Len(static_cast<const char*>(data));
    (void)n;
    return 0;
}
VS_CALLRC OnVirus(MAV_INST i, void* user, void* data) {
    return OnAny(i, VS_M_VIRUS, data, user);
}

// Profile T: the sub-profile S (group A), then group B; a provider for each
// group, parameters on the profile and on the providers.
std::string RuntimeConfig() {
    RuntimeText c;
    c.line("mav.defaults.profile=T").line("mav.defaults.group=A");
    c.profile("T").step("T", "0", "1", "S").step("T", "1", "0", "B");
    c.param("mav.profile.T", "SCANLIMIT", "LONG", "5");
    c.profile("S").step("S", "0", "0", "A");
    for (std::string g : {"A", "B"}) {
        c.group(g).provider("P" + g, g, testpelPath(), "2");
        c.param("mav.provider.Pelmark.Adapters.P" + g, "SCANEXTENSIONS", "CHAR", "pdf");
    }
    return c.text;
}

// One run, armed from start to end except in the test's own bookkeeping.
// Strict: every call gives its usual code. Otherwise (an allocation refused
// somewhere) any documented code, and the run goes on with what it got.
class Scenario {
  public:
    Scenario(TestPel& pel, bool strict) : pel_(pel), strict_(strict) {}

    void Run() {
        pel_.clear_params();
        pel_.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
        pel_.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
        pel_.add_param(0, 104, VS_TYPE_CHAR, "exe,com");  // SCANEXTENSIONS
        pel_.add_param(0, 107, VS_TYPE_LONG, "1000");     // SCANLIMIT
        pel_.add_param(0, 112, VS_TYPE_FLOAT, "5");       // SCANEXTRACT_DEPTH
        pel_.add_param(0, 300, VS_TYPE_OBJECT, "x/bad");  // BLOCKMIMETYPES
        Infection();
        try {
            Arm on(true);
            Start();
            if (a_ != nullptr) Parameters();
            Scans();
            Fallback();
            ReturnAndReload();
            Runtime();
            Unloadable();
            Cleanup();
        } catch (const std::exception& e) {
            Problem("an exception escaped: ", e.what());
            Cleanup();
        }
    }

    std::string problems_, trail_;

  private:
    void Infection() {
        pel_.script_clear();
        pel_.script_rc(MAV_E_VIRUS_FOUND);
        pel_.script_infection("Eicar-Test", "obj<1>", 42, 1, TPEL_SIZE_OF_OBJECT, "free <text>");
        pel_.script_scan_error("obj/inner", MAV_E_SCAN_FAILED, "bad archive", 10);
        pel_.script_content("obj", "bin", "application/octet-stream", "", 0, TPEL_SIZE_OF_OBJECT);
        pel_.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);
        pel_.script_event(VS_M_NOTSCANNED, 0, nullptr, 0, 0);
        pel_.script_event(VS_M_OBJECTFOUND, 0, "obj/inner", 0, 0);
        pel_.script_event(VS_M_ERROR, 0, "engine says <no>", 0, 0);
    }
    void Problem(const char* what, const char* detail = "") {
        Arm off(false);
        problems_ += std::string("  ") + what + detail + "\n";
    }
    // A documented code; in strict mode the expected one. True when expected.
    bool Check(const char* what, MAV_RC rc, MAV_RC expected) {
        Arm off(false);
        if (!KnownCode(rc)) Problem(what, ": undocumented code");
        if (rc == expected) return true;
        trail_ += std::string(what) + "=" + MavErrorName(rc) + " ";
        if (strict_) Problem(what, MavErrorName(rc));
        return false;
    }
    // A new instance: MAV_OK only with an instance handed out.
    MAV_INST Create(const char* what, MAV_HANDLE h) {
        MAV_INST i = nullptr;
        if (Check(what, MavCreateInstance(h, &i), MAV_OK) && i == nullptr)
            Problem(what, ": MAV_OK without an instance");
        return i;
    }
    bool Alive(MAV_HANDLE h) { return h != nullptr && MavIXRecKind(h) == MAV_REC_HANDLE; }

    // A change that fails leaves the old value in place (values fit a short
    // string: no allocation of the test's own).
    std::string Get(void* h, const char* name, bool* ok) {
        char buf[16];
        size_t len = sizeof buf;
        *ok = Check(name, MavGetParameter(h, name, nullptr, buf, &len), MAV_OK);
        return *ok ? std::string(buf, len) : "?";
    }
    void Set(void* h, const char* name, int32_t type, const char* value) {
        bool ok1, ok2;
        std::string before = Get(h, name, &ok1);
        bool set = Check(name, MavSetParameter(h, name, type, value), MAV_OK);
        std::string after = Get(h, name, &ok2);
        if (!set && ok1 && ok2 && after != before) Problem(name, ": value lost");
        if (strict_ && after != value) Problem(name, ": not stored");
    }

    void Start() {
        if (!Check("MavInit", MavInit(pel_.path(), &hdl_), MAV_OK) || !Alive(hdl_)) return;
        Check("MavSetHandleName", MavSetHandleName(hdl_, "robust-a", 8), MAV_OK);
        if (Check("MavLoadPool", MavLoadPool(hdl_, 2, 1), MAV_OK)) {
            a_ = MavGetInstance(hdl_);
            if (a_ == nullptr) Problem("MavGetInstance: none from a loaded pool");
        } else {
            // MavGetInstance on a pool that is not full hands out one more
            // instance than it returns (kept on purpose): that one could never
            // be given back and the handle never ended.
            a_ = Create("MavCreateInstance after a failed load", hdl_);
        }
        b_ = Create("MavCreateInstance pooled", hdl_);
        c_ = Create("MavCreateInstance listed", hdl_);
        table_.OnVirusFound = OnVirus;
        if (a_ != nullptr) Check("events", MavRegisterEvents(a_, &table_, nullptr), MAV_OK);
        if (b_ != nullptr)
            Check("handler", MavRegisterSingleEventHandler(b_, OnAny, VS_M_ALL, nullptr), MAV_OK);
    }

    void Parameters() {
        Set(hdl_, "INITTIMEOUT", VS_TYPE_INT, "45");
        Set(a_, "SCANEXTENSIONS", VS_TYPE_CHAR, "doc,xls,<a>");
        Set(a_, "SCANLIMIT", VS_TYPE_LONG, "2000");
        Check("OBJECT", MavSetParameter(a_, "BLOCKMIMETYPES", VS_TYPE_OBJECT, "a/evil"), MAV_OK);
        Text name, value;
        Check("MavEnumParameters",
              MavEnumParameters(a_, 5, name.Reset(), &name.len, nullptr, value.Reset(), &value.len),
              MAV_OK);
        Check("reset", MavSetParameter(a_, "SCANLIMIT", VS_TYPE_LONG, nullptr), MAV_OK);
        if (b_ != nullptr) Check("MavSetDefaultConfig", MavSetDefaultConfig(b_), MAV_OK);
        Check("MavGetPelInfo",
              MavGetPelInfo(hdl_, &u32_, &u32_, &u32_, name.Reset(), &name.len, value.Reset(),
                            &value.len),
              MAV_OK);
    }

    void Results(void* inst) {
        Text a, b, c;
        Check("MavEnumInfections",
              MavEnumInfections(inst, 0, nullptr, &u32_, a.Reset(), &a.len, b.Reset(), &b.len,
                                &u64_, c.Reset(), &c.len),
              MAV_OK);
        Check("MavEnumContentInfo",
              MavEnumContentInfo(inst, 0, &u32_, a.Reset(), &a.len, b.Reset(), &b.len, c.Reset(),
                                 &c.len, nullptr),
              MAV_OK);
    }

    // Scans 64 bytes (traced: every trace bit, record dumps too); on a verdict,
    // reads the results and gives true.
    bool ScanBytes(MAV_INST i, const char* name, bool traced = false) {
        unsigned char bytes[64];
        memset(bytes, 'b', sizeof bytes);
        MavSetTraceLevel(traced ? 0x7FFE : 0);
        MAV_RC rc = MavScanBytes(i, name, bytes, sizeof bytes, 8, &si_);
        MavSetTraceLevel(0);
        if (!Check(name, rc, MAV_E_VIRUS_FOUND)) return false;
        Results(i);
        return true;
    }

    void Scans() {
        if (a_ != nullptr &&
            Check("MavScanFile", MavScanFile(a_, paths.sample.c_str(), 7, &si_), MAV_E_VIRUS_FOUND))
            Results(a_);
        if (b_ != nullptr) ScanBytes(b_, "mem/obj", true);
        if (c_ == nullptr) return;
        unsigned char bytes[32] = {0};
        size_t length = sizeof bytes;
        pel_.script_clear();
        pel_.script_rc(MAV_E_CLEAN_OK);
        pel_.script_cleaned("clean", 5);
        Check("MavCleanBytes", MavCleanBytes(c_, "dirty", bytes, &length, 9, &si_), MAV_E_CLEAN_OK);
        Infection();
    }

    // A second handle whose adapter cannot scan memory: bytes go through a
    // temporary file in the handle's own directory.
    void Fallback() {
        pel_.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
        MAV_RC rc = MavInit(pel_.path(), &hdl2_);
        pel_.set_flags(0x3, 0x19, VS_M_ALL, 0);
        if (!Check("MavInit fallback", rc, MAV_OK)) return;
        // (A refused INITTEMP_PATH keeps the new text and the old directory.)
        Check("INITTEMP_PATH",
              MavSetParameter(hdl2_, "INITTEMP_PATH", VS_TYPE_CHAR, paths.handleTmp.c_str()),
              MAV_OK);
        if ((d_ = Create("MavCreateInstance fallback", hdl2_)) == nullptr) return;
        // A verdict on the temporary file: the engine was given every byte.
        if (ScanBytes(d_, "dir/name\\x.doc") && pel_.lastScan().lFileSize != 64)
            Problem("a verdict on a temporary file without the bytes");
    }

    void Free(const char* what, MAV_INST* i) {
        if (*i != nullptr && Check(what, MavFreeInstance(i), MAV_OK)) *i = nullptr;
    }
    void ReturnAndReload() {
        Free("MavFreeInstance listed", &c_);
        Free("MavFreeInstance pooled", &b_);
        Free("MavFreeInstance pooled", &a_);
        if (Alive(hdl_)) Check("MavReload", MavReload(hdl_), MAV_OK);
        if (d_ != nullptr) Check("MavReload busy", MavReload(nullptr), MAV_E_IN_PROGRESS);
        Free("MavFreeInstance fallback", &d_);
        Check("MavReload all", MavReload(nullptr), MAV_OK);
        if (Alive(hdl_)) Check("MavFreePool", MavFreePool(hdl_), MAV_OK);
    }

    // The profile runtime through the C and the C++ entry points.
    void Runtime() {
        if (!Check("MavStartRuntime", MavStartRuntime(config_.data(), config_.size()), MAV_OK))
            return;
        // (A refused instance record gives MAV_OK and no instance: kept.)
        Check("MavGetProfileInstance", MavGetProfileInstance("T", &pinst_), MAV_OK);
        if (pinst_ != nullptr) ScanBytes(pinst_, "profile");
        Free("MavFreeInstance profile", &pinst_);
        try {
            std::unique_ptr<mav::MavInstance> s = mav::MavInstance::createInstance("T");
            if (s == nullptr && strict_) Problem("createInstance: none");
            if (s) s->scan(paths.sample.c_str());
            if (s) Problem("an infected object was reported without exception");
        } catch (const mav::MavCInfectionException& e) {
            if (std::strstr(e.what(), "object") == nullptr) Problem("infection message");
        } catch (const std::bad_alloc&) {
            if (strict_) Problem("bad_alloc with memory");
        }
        Check("MavStopRuntime", MavStopRuntime(), MAV_OK);
    }

    // Adapters that cannot be loaded (a named file, then the default names):
    // the failed handle keeps the loader's text.
    void Unloadable() {
        for (const char* path : {missing_.c_str(), static_cast<const char*>(nullptr)}) {
            MAV_HANDLE bad = nullptr;
            Check("MavInit missing", MavInit(path, &bad), MAV_E_PEL_LOAD_FAILED);
            if (bad != nullptr && MavEnd(&bad) != MAV_OK) Problem("MavEnd of a failed start-up");
        }
    }

    // Gives everything back under the same refusal: ending needs no memory
    // (and no instance or handle is left when it is done).
    void Cleanup() {
        for (MAV_INST* p : {&pinst_, &d_, &c_, &b_, &a_})
            if (*p != nullptr && MavFreeInstance(p) != MAV_OK) Problem("cleanup MavFreeInstance");
        if (MavStopRuntime() != MAV_OK) Problem("cleanup MavStopRuntime");
        for (MAV_HANDLE* h : {&hdl2_, &hdl_})
            if (*h != nullptr && (MavEnd(h) != MAV_OK || *h != nullptr)) Problem("cleanup MavEnd");
        pinst_ = d_ = c_ = b_ = a_ = nullptr;
    }

    // A caller's text buffer, refilled before each call.
    struct Text {
        char buf[64];
        size_t len;
        char* Reset() {
            len = sizeof buf;
            return buf;
        }
    };

    TestPel& pel_;
    bool strict_;
    const std::string config_ = RuntimeConfig(), missing_ = paths.defaultTmp + "/missing.so";
    MAV_EVENTS table_ = {};
    MAV_SCANINFO si_ = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    uint32_t u32_ = 0;
    uint64_t u64_ = 0;
    MAV_HANDLE hdl_ = nullptr, hdl2_ = nullptr;
    MAV_INST a_ = nullptr, b_ = nullptr, c_ = nullptr, d_ = nullptr, pinst_ = nullptr;
};

// The parameter: bit 1 counts operator new (else the memory hooks), bit 0
// refuses from the k-th point on (else the k-th only).
class AllocSweep : public RobustTest, public ::testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        RobustTest::SetUp();
        Dl_info info;
        ASSERT_NE(0, dladdr(reinterpret_cast<void*>(pel.reset), &info));
        adapterBase = info.dli_fbase;
        void* warm[4];
        backtrace(warm, 4);  // loads the unwinder before anything is armed
    }

    // One run with the k-th point refused (k = 0: strict, nothing refused);
    // its problems, empty when none.
    std::string Run(uint64_t k) {
        uint64_t mark = Counts().serial;
        FailFrom(k, (GetParam() & 1) != 0, (GetParam() & 2) != 0 ? Source::kNew : Source::kHooks);
        Scenario s(pel, k == 0);
        std::thread([&s] { s.Run(); }).join();
        const HookCounts n = Counts();
        points_ = n.points;
        FailFrom(0, false);
        std::string out = s.problems_ + LeftOver(mark);
        if (k != 0 && n.refused == 0) out += "  nothing refused\n";
        pel.reset();
        return out.empty() ? out : out + "  calls that failed: " + s.trail_ + "\n";
    }
    uint64_t points_ = 0;
};

TEST_P(AllocSweep, EveryPointRefused) {
    ASSERT_EQ("", Run(0)) << "warm-up";  // one-time state exists from here on
    ASSERT_EQ("", Run(0)) << "counting run";
    const uint64_t points = points_;
    FailFrom(0, false, Source::kNew);
    {  // Under valgrind its own operator new replaces this executable's.
        Arm on(true);
        ::operator delete(::operator new(8));
    }
    if (Counts().points == 0) GTEST_SKIP() << "operator new is not this executable's";
    ASSERT_GT(points, 100u);
    for (uint64_t k = 1; k <= points; ++k) {
        ASSERT_EQ("", Run(k)) << "point " << k << " of " << points << " refused";
        ASSERT_EQ("", Run(0)) << "then again with memory, after " << k;
    }
    std::printf("[ sweep    ] %llu allocation points\n", static_cast<unsigned long long>(points));
}

INSTANTIATE_TEST_SUITE_P(Robust, AllocSweep, ::testing::Range(0, 4), [](const auto& info) {
    return std::string(info.param & 2 ? "OperatorNew" : "Hooks") +
           (info.param & 1 ? "FromThereOn" : "Once");
});

}  // namespace
}  // namespace robust
