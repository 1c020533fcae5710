// Out-of-memory sweep: one scenario that touches every subsystem (start-up,
// pool, parameters, events, file and byte scans with and without the
// temporary-file fallback, results, reload, a traced scan, the profile
// runtime, shutdown) is run once per allocation point with that allocation
// refused, then refused from there on. Every call must give a documented code,
// a call that succeeds must hand out what it promised, a change that fails
// must keep the old value, ending must need no memory, everything must be
// given back, and the scenario must succeed in full again right after.
#include <cstring>
#include <string>

#include "mavxxi.h"
#include "robust_env.h"

namespace robust {
namespace {

size_t Len(const char* s) {
    return s != nullptr ? strlen(s) : 0;
}
// Reads what a handler is given: with an allocation refused it must still be
// whole (the sanitizers see a text or record that is not).
VS_CALLRC OnAny(MAV_INST, uint32_t message, void* data, void*) {
    volatile size_t n = 0;
    if (data == nullptr) return 0;
    if (message == VS_M_VIRUS || message == VS_M_REPAIRED) {
        const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
        n = Len(v->pszVirusName) + Len(v->pszObjectName) + Len(v->pszFreeTextInfo);
    } else if (message == VS_M_NOTSCANNED || message == VS_M_NOTREPAIRED) {
        const MAV_SCANERROR* e = static_cast<const MAV_SCANERROR*>(data);
        n = Len(e->pszErrorText) + Len(e->pszObjectName);
    } else if (message == VS_M_ERROR || message == VS_M_OBJECTFOUND) {
        n = Len(static_cast<const char*>(data));
    }
    (void)n;
    return 0;
}
template <uint32_t M>
VS_CALLRC OnSlot(MAV_INST i, void* user, void* data) {
    return OnAny(i, M, data, user);
}

std::string RuntimeConfig() {
    const std::string p = "mav.provider.Pelmark.Adapters.P1";
    return "mav.defaults.profile=R\nmav.defaults.group=G\nmav.profile.R=R\n"
           "mav.profile.R.Active=true\nmav.profile.R.ProfileSteps.0=0\n"
           "mav.profile.R.ProfileSteps.0.ProfileEntryType=0\n"
           "mav.profile.R.ProfileSteps.0.ProfileEntryValue=G\n"
           "mav.profile.R.Parameters.SCANLIMIT=SCANLIMIT\n"
           "mav.profile.R.Parameters.SCANLIMIT.Type=LONG\n"
           "mav.profile.R.Parameters.SCANLIMIT.Value=99\nmav.group.G=G\n" +
           p + "=P1\n" + p + ".Active=true\n" + p + ".Group=G\n" + p + ".PoolMaxInstances=2\n" + p +
           ".AdapterPath=" + testpelPath() + "\n" + p +
           ".Parameters.SCANEXTENSIONS=SCANEXTENSIONS\n" + p +
           ".Parameters.SCANEXTENSIONS.Type=CHAR\n" + p + ".Parameters.SCANEXTENSIONS.Value=pdf\n";
}

// One run. Strict: every call gives its usual code. Otherwise (an allocation
// refused somewhere) any documented code, and the run goes on with what it got.
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
        Start();
        if (a_ != nullptr) Parameters();
        Scans();
        Fallback();
        ReturnAndReload();
        Runtime();
    }

    // Gives everything back under the same refusal: ending needs no memory.
    void Cleanup() {
        for (MAV_INST* p : {&pinst_, &d_, &c_, &b_, &a_})
            if (*p != nullptr) Must("cleanup MavFreeInstance", MavFreeInstance(p));
        Must("cleanup MavStopRuntime", MavStopRuntime());
        for (MAV_HANDLE* h : {&hdl2_, &hdl_}) {
            if (*h != nullptr) Must("cleanup MavEnd", MavEnd(h));
            if (*h != nullptr) problems_ += "  cleanup MavEnd left the handle\n";
        }
        MavSetTraceLevel(0);
        pel_.set_flags(0x3, 0x19, VS_M_ALL, 0);
    }

    std::string problems_, trail_;

  private:
    void Infection() {
        pel_.script_clear();
        pel_.script_rc(MAV_E_VIRUS_FOUND);
        pel_.script_infection("Eicar-Test", "obj<1>", 42, 1, TPEL_SIZE_OF_OBJECT, "free <text>");
        pel_.script_scan_error("obj/inner", MAV_E_SCAN_FAILED, "bad archive", 10);
        pel_.script_content("obj", "bin", "application/octet-stream", "", 0, TPEL_SIZE_OF_OBJECT);
        for (uint32_t m : {VS_M_VIRUS, VS_M_OBJECTFOUND, VS_M_NOTSCANNED, VS_M_ERROR})
            pel_.script_event(m, 0,
                              m == VS_M_OBJECTFOUND ? "obj/inner"
                              : m == VS_M_ERROR     ? "no <no>"
                                                    : nullptr,
                              0, 0);
    }
    // A documented code; in strict mode the expected one. True when expected.
    bool Check(const char* what, MAV_RC rc, MAV_RC expected) {
        if (!KnownCode(rc)) problems_ += std::string("  ") + what + ": undocumented code\n";
        if (rc == expected) return true;
        trail_ += std::string(what) + "=" + MavErrorName(rc) + " ";
        if (strict_) problems_ += std::string("  ") + what + ": " + MavErrorName(rc) + "\n";
        return false;
    }
    void Must(const char* what, MAV_RC rc) {
        if (rc != MAV_OK) problems_ += std::string("  ") + what + ": " + MavErrorName(rc) + "\n";
    }
    // A new instance: MAV_OK only with an instance handed out.
    MAV_INST Create(const char* what, MAV_HANDLE h) {
        MAV_INST i = nullptr;
        if (Check(what, MavCreateInstance(h, &i), MAV_OK) && i == nullptr)
            problems_ += std::string("  ") + what + ": MAV_OK without an instance\n";
        return i;
    }
    bool Alive(MAV_HANDLE h) { return h != nullptr && MavIXRecKind(h) == MAV_REC_HANDLE; }

    std::string Param(void* h, const char* name, MAV_RC* rc) {
        char buf[64];
        size_t len = sizeof buf;
        *rc = MavGetParameter(h, name, nullptr, buf, &len);
        return *rc == MAV_OK ? std::string(buf, len) : "?";
    }
    // A change that fails leaves the old value in place.
    void Set(void* h, const char* name, int32_t type, const char* value) {
        MAV_RC rc1, rc2;
        std::string before = Param(h, name, &rc1);
        MAV_RC rc = MavSetParameter(h, name, type, value);
        Check(name, rc, MAV_OK);
        std::string after = Param(h, name, &rc2);
        if (rc != MAV_OK && rc1 == MAV_OK && rc2 == MAV_OK && after != before)
            problems_ += std::string("  ") + name + ": a failed change altered the value\n";
        if (strict_ && (rc2 != MAV_OK || after != value))
            problems_ += std::string("  ") + name + ": not stored\n";
    }

    void Start() {
        if (!Check("MavInit", MavInit(pel_.path(), &hdl_), MAV_OK) || !Alive(hdl_)) return;
        Check("MavSetHandleName", MavSetHandleName(hdl_, "robust-a", 8), MAV_OK);
        if (Check("MavLoadPool", MavLoadPool(hdl_, 2, 1), MAV_OK)) {
            a_ = MavGetInstance(hdl_);
            if (a_ == nullptr) problems_ += "  MavGetInstance: none from a loaded pool\n";
        } else {
            // MavGetInstance on a pool that is not full hands out one more
            // instance than it returns (kept on purpose): that one could never
            // be given back and the handle never ended.
            a_ = Create("MavCreateInstance after a failed load", hdl_);
        }
        b_ = Create("MavCreateInstance pooled", hdl_);
        c_ = Create("MavCreateInstance listed", hdl_);
        static const MAV_EVENTS table = {OnSlot<VS_M_VIRUS>,
                                         OnSlot<0>,
                                         OnSlot<VS_M_ERROR>,
                                         OnSlot<VS_M_OBJECTFOUND>,
                                         OnSlot<0>,
                                         OnSlot<0>,
                                         OnSlot<VS_M_REPAIRED>,
                                         OnSlot<VS_M_NOTREPAIRED>,
                                         OnSlot<0>,
                                         OnSlot<0>,
                                         OnSlot<0>,
                                         OnSlot<0>};
        if (a_ != nullptr)
            Check("MavRegisterEvents", MavRegisterEvents(a_, &table, nullptr), MAV_OK);
        if (b_ != nullptr)
            Check("MavRegisterSingleEventHandler",
                  MavRegisterSingleEventHandler(b_, OnAny, VS_M_ALL, nullptr), MAV_OK);
    }

    void Parameters() {
        Set(hdl_, "INITTIMEOUT", VS_TYPE_INT, "45");
        Set(a_, "SCANEXTENSIONS", VS_TYPE_CHAR, "doc,xls,<a>");
        Set(a_, "SCANLIMIT", VS_TYPE_LONG, "2000");
        Check("OBJECT", MavSetParameter(a_, "BLOCKMIMETYPES", VS_TYPE_OBJECT, "a/evil"), MAV_OK);
        Check("custom", MavSetParameter(a_, "CUST_CLEAN", VS_TYPE_BOOL, "true"), MAV_OK);
        for (uint32_t i = 0; i <= 6; ++i) {
            char name[64], value[64];
            size_t nameLen = sizeof name, valueLen = sizeof value;
            Check("MavEnumParameters",
                  MavEnumParameters(a_, i, name, &nameLen, nullptr, value, &valueLen),
                  i < 6 ? MAV_OK : MAV_E_INVALID_ENUM_INDEX);
        }
        Check("reset", MavSetParameter(a_, "SCANLIMIT", VS_TYPE_LONG, nullptr), MAV_OK);
        if (b_ != nullptr) Check("MavSetDefaultConfig", MavSetDefaultConfig(b_), MAV_OK);
        uint32_t u32 = 0;
        uint16_t u16 = 0;
        uint64_t u64 = 0;
        char name[64], vendor[64];
        size_t nameLen = sizeof name, vendorLen = sizeof vendor;
        Check("MavGetPelInfo",
              MavGetPelInfo(hdl_, &u32, &u32, &u32, name, &nameLen, vendor, &vendorLen), MAV_OK);
        Check("MavGetPelTechInfo", MavGetPelTechInfo(hdl_, &u32, &u32, &u16, &u32, &u32, &u32),
              MAV_OK);
        nameLen = sizeof name;
        Check("MavGetEngineInfo", MavGetEngineInfo(a_, &u32, name, &nameLen, &u64, &u32, &u16),
              MAV_OK);
        nameLen = sizeof name;
        Check("MavEnumDriverInfo", MavEnumDriverInfo(a_, 0, &u32, name, &nameLen, &u64, &u32),
              MAV_OK);
        KORMO_CHAR* text = nullptr;
        size_t textLen = 0;
        Check("MavAdapterErrorText", MavAdapterErrorText(a_, &text, &textLen), MAV_OK);
    }

    void Results(void* inst, const char* what) {
        char a[64], b[64], c[64];
        size_t al = 0, bl = sizeof b, cl = sizeof c;
        uint32_t u32 = 0;
        uint64_t u64 = 0;
        Check(what,
              MavEnumInfections(inst, 0, nullptr, nullptr, nullptr, &al, nullptr, nullptr, nullptr,
                                nullptr, nullptr),
              MAV_OK);
        al = sizeof a;
        Check(what, MavEnumInfections(inst, 0, nullptr, &u32, a, &al, b, &bl, &u64, c, &cl),
              MAV_OK);
        Check(what,
              MavEnumInfections(inst, 1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr),
              MAV_E_INVALID_ENUM_INDEX);
        al = sizeof a, bl = sizeof b, cl = sizeof c;
        Check(what, MavEnumScanErrors(inst, 0, &u32, a, &al, b, &bl, &u64), MAV_OK);
        al = sizeof a, bl = sizeof b, cl = sizeof c;
        Check(what, MavEnumContentInfo(inst, 0, &u32, a, &al, b, &bl, c, &cl, nullptr), MAV_OK);
    }

    void Scans() {
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        unsigned char bytes[64];
        memset(bytes, 'b', sizeof bytes);
        if (a_ != nullptr) {
            Check("MavScanFile", MavScanFile(a_, SampleFile().c_str(), 7, &si), MAV_E_VIRUS_FOUND);
            Results(a_, "results after file scan");
        }
        if (b_ != nullptr) {
            MavSetTraceLevel(0x7FFE);  // every trace bit: record dumps too
            Check("MavScanBytes", MavScanBytes(b_, "mem/obj", bytes, sizeof bytes, 8, &si),
                  MAV_E_VIRUS_FOUND);
            MavSetTraceLevel(0);
            Results(b_, "results after bytes scan");
        }
        if (c_ == nullptr) return;
        size_t length = 32;
        pel_.script_clear();
        pel_.script_rc(MAV_E_CLEAN_OK);
        pel_.script_cleaned("clean", 5);
        Check("MavCleanBytes", MavCleanBytes(c_, "dirty", bytes, &length, 9, &si), MAV_E_CLEAN_OK);
        Infection();
        Check("MavScanClean no summary",
              MavScanClean(c_, VS_SC_FILE, 0, SampleFile().c_str(), nullptr, nullptr, nullptr, 10,
                           nullptr),
              MAV_E_VIRUS_FOUND);
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
              MavSetParameter(hdl2_, "INITTEMP_PATH", VS_TYPE_CHAR, HandleTmpDir().c_str()),
              MAV_OK);
        if ((d_ = Create("MavCreateInstance fallback", hdl2_)) == nullptr) return;
        unsigned char bytes[100];
        memset(bytes, 'd', sizeof bytes);
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        Check("MavScanBytes fallback",
              MavScanBytes(d_, "dir/name\\x.doc", bytes, sizeof bytes, 11, &si), MAV_E_VIRUS_FOUND);
        size_t length = sizeof bytes;
        Check("MavScanClean fallback unnamed",
              MavScanClean(d_, VS_SC_BYTES, 0, nullptr, nullptr, bytes, &length, 12, &si),
              MAV_E_VIRUS_FOUND);
        Results(d_, "results after fallback scan");
    }

    void ReturnAndReload() {
        if (c_ != nullptr && Check("MavFreeInstance listed", MavFreeInstance(&c_), MAV_OK))
            c_ = nullptr;
        if (b_ != nullptr && Check("MavFreeInstancePointer", MavFreeInstancePointer(b_), MAV_OK))
            b_ = nullptr;
        if (a_ != nullptr && Check("MavFreeInstance pooled", MavFreeInstance(&a_), MAV_OK))
            a_ = nullptr;
        if (Alive(hdl_)) Check("MavReload", MavReload(hdl_), MAV_OK);
        if (d_ != nullptr) Check("MavReload busy", MavReload(nullptr), MAV_E_IN_PROGRESS);
        if (d_ != nullptr && Check("MavFreeInstance fallback", MavFreeInstance(&d_), MAV_OK))
            d_ = nullptr;
        Check("MavReload all", MavReload(nullptr), MAV_OK);
        if (Alive(hdl_)) Check("MavFreePool", MavFreePool(hdl_), MAV_OK);
    }

    void Runtime() {
        const std::string config = RuntimeConfig();
        if (!Check("MavStartRuntime", MavStartRuntime(config.data(), config.size()), MAV_OK))
            return;
        if (Check("MavGetProfileInstance", MavGetProfileInstance("R", &pinst_), MAV_OK) &&
            pinst_ == nullptr)
            problems_ += "  MavGetProfileInstance: MAV_OK without an instance\n";
        if (pinst_ != nullptr) {
            unsigned char bytes[8] = {'p', 'r', 'o', 'f', 'i', 'l', 'e', 0};
            MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
            Check("MavScanBytes profile",
                  MavScanBytes(pinst_, "profile-object", bytes, sizeof bytes, 14, &si),
                  MAV_E_VIRUS_FOUND);
            Results(pinst_, "results of a profile instance");
            Must("MavFreeInstance profile", MavFreeInstance(&pinst_));
            pinst_ = nullptr;
        }
        Check("MavStopRuntime", MavStopRuntime(), MAV_OK);
    }

    TestPel& pel_;
    bool strict_;
    MAV_HANDLE hdl_ = nullptr, hdl2_ = nullptr;
    MAV_INST a_ = nullptr, b_ = nullptr, c_ = nullptr, d_ = nullptr, pinst_ = nullptr;
};

class OomSweep : public RobustTest, public ::testing::WithParamInterface<bool> {
  protected:
    // One run (k = 0: strict, nothing refused); empty when all went well.
    std::string RunOnce(uint64_t k, bool persistent) {
        uint64_t mark = CountingHooks::Mark();
        CountingHooks::FailFrom(k, persistent);
        Scenario s(pel, k == 0);
        s.Run();
        s.Cleanup();
        points_ = CountingHooks::Points();
        std::string refused = k != 0 && CountingHooks::Refused() == 0 ? "  nothing refused\n" : "";
        CountingHooks::Disarm();
        std::string out = s.problems_ + refused + LeftOver(mark);
        MAV_INST none = nullptr;
        if (MavGetProfileInstance(nullptr, &none) != MAV_E_PROFILE_NOT_VALID)
            out += "  runtime still up\n";
        pel.reset();
        return out.empty() ? out : out + "  calls that failed: " + s.trail_ + "\n";
    }
    uint64_t points_ = 0;
};

// Each allocation point refused once (false), then from there on (true).
TEST_P(OomSweep, EveryAllocationPointRefused) {
    ASSERT_EQ("", RunOnce(0, false)) << "warm-up";  // one-time state exists from here on
    ASSERT_EQ("", RunOnce(0, false)) << "counting run";
    const uint64_t points = points_;
    ASSERT_GT(points, 50u);
    for (uint64_t k = 1; k <= points; ++k) {
        ASSERT_EQ("", RunOnce(k, GetParam()))
            << "allocation " << k << " of " << points << " refused";
        ASSERT_EQ("", RunOnce(0, false)) << "then again with memory, after " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Robust, OomSweep, ::testing::Bool());

}  // namespace
}  // namespace robust
