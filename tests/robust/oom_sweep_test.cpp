// Out-of-memory sweep: one scenario that touches every subsystem (start-up,
// pool, parameters, events, file and byte scans with and without the
// temporary-file fallback, results, reload, a traced scan, the profile
// runtime, shutdown) is run once per allocation point with that allocation
// refused. Every run must end without crash, with a documented code from every
// call, with all it allocated given back, and the scenario must succeed in
// full again right after.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "robust_env.h"

namespace robust {
namespace {

constexpr uint32_t kDump = 0x7FFE;  // every library trace bit: record dumps too

// ---- Events --------------------------------------------------------------------

struct EventLog {
    int calls = 0;
    int virusRecords = 0;  // VIRUS records that arrived with their name
    int texts = 0;         // OBJECTFOUND/ERROR texts that arrived
    size_t touched = 0;    // bytes read from what handlers received
};

size_t Touch(const char* s) {
    return s != nullptr ? strlen(s) : 0;
}

template <int Slot>
VS_CALLRC OnSlot(MAV_INST, void* user, void* data) {
    EventLog* log = static_cast<EventLog*>(user);
    ++log->calls;
    if (data == nullptr) return 0;
    if (Slot == 0) {
        const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
        log->touched +=
            Touch(v->pszVirusName) + Touch(v->pszObjectName) + Touch(v->pszFreeTextInfo);
        if (v->pszVirusName != nullptr && strcmp(v->pszVirusName, "Eicar-Test") == 0)
            ++log->virusRecords;
    } else if (Slot == 7) {
        const MAV_SCANERROR* e = static_cast<const MAV_SCANERROR*>(data);
        log->touched += Touch(e->pszErrorText) + Touch(e->pszObjectName);
    } else if (Slot == 2 || Slot == 3) {
        log->touched += Touch(static_cast<const char*>(data));
        ++log->texts;
    }
    return 0;
}

VS_CALLRC OnAny(MAV_INST inst, uint32_t message, void* data, void* user) {
    switch (message) {
        case VS_M_VIRUS:
            return OnSlot<0>(inst, user, data);
        case VS_M_NOTSCANNED:
            return OnSlot<7>(inst, user, data);
        case VS_M_ERROR:
            return OnSlot<2>(inst, user, data);
        case VS_M_OBJECTFOUND:
            return OnSlot<3>(inst, user, data);
        default:
            return OnSlot<11>(inst, user, data);
    }
}

MAV_EVENTS AllSlots() {
    MAV_EVENTS t;
    t.OnVirusFound = OnSlot<0>;
    t.OnClean = OnSlot<1>;
    t.OnError = OnSlot<2>;
    t.OnObjectFound = OnSlot<3>;
    t.AbortScan = OnSlot<4>;
    t.OnNotScanned = OnSlot<5>;
    t.OnVirusRepaired = OnSlot<6>;
    t.OnVirusNotRepaired = OnSlot<7>;
    t.OnMacrosCleaned = OnSlot<8>;
    t.OnMacrosFound = OnSlot<9>;
    t.ScanActions = OnSlot<10>;
    t.ScanProgress = OnSlot<11>;
    return t;
}

// ---- The scenario ----------------------------------------------------------------

// Parameters of every type, on both lists.
void OfferParameters(TestPel& pel) {
    pel.clear_params();
    pel.add_param(1, VS_P_INITDRIVERDIRECTORY, VS_TYPE_CHAR, "/opt/robust/drivers");
    pel.add_param(1, VS_P_INITSERVERS, VS_TYPE_OBJECT, "server-a");
    pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
    pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
    pel.add_param(0, 101, VS_TYPE_BOOL, "1");             // SCANALLFILES
    pel.add_param(0, 104, VS_TYPE_CHAR, "exe,com");       // SCANEXTENSIONS
    pel.add_param(0, 105, VS_TYPE_SHORT, "2");            // SCANHEURISTICLEVEL
    pel.add_param(0, 107, VS_TYPE_LONG, "1000");          // SCANLIMIT
    pel.add_param(0, 110, VS_TYPE_SIZE_T, "4096");        // SCANEXTRACT_SIZE
    pel.add_param(0, 111, VS_TYPE_TIME_T, "60");          // SCANEXTRACT_TIME
    pel.add_param(0, 112, VS_TYPE_FLOAT, "5");            // SCANEXTRACT_DEPTH
    pel.add_param(0, 113, VS_TYPE_DOUBLE, "3");           // SCANEXTRACT_RATIO
    pel.add_param(0, 200, VS_TYPE_BYTE, "0");             // CLEANRENAME
    pel.add_param(0, 300, VS_TYPE_OBJECT, "text/x-bad");  // BLOCKMIMETYPES
}
constexpr uint32_t kParamCount = 14;

void ScriptInfection(TestPel& pel) {
    pel.script_clear();
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("Eicar-Test", "obj<1>", 42, 1, TPEL_SIZE_OF_OBJECT, "free <text>");
    pel.script_scan_error("obj/inner", MAV_E_SCAN_FAILED, "bad archive", 10);
    pel.script_content("obj", "bin", "application/octet-stream", "", 0, TPEL_SIZE_OF_OBJECT);
    pel.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);
    pel.script_event(VS_M_OBJECTFOUND, 0, "obj/inner", 0, 0);
    pel.script_event(VS_M_NOTSCANNED, 0, nullptr, 0, 0);
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 50, 0);
    pel.script_event(VS_M_ERROR, 0, "engine says <no>", 0, 0);
}
constexpr int kEventsPerScan = 5;

std::string RuntimeConfig() {
    std::string p = "mav.provider.Pelmark.Adapters.P1";
    return "mav.defaults.profile=ROBUST\n"
           "mav.defaults.group=G\n"
           "mav.profile.ROBUST=ROBUST\n"
           "mav.profile.ROBUST.Active=true\n"
           "mav.profile.ROBUST.ProfileLinkage=0\n"
           "mav.profile.ROBUST.ProfileSteps.0=0\n"
           "mav.profile.ROBUST.ProfileSteps.0.ProfileEntryType=0\n"
           "mav.profile.ROBUST.ProfileSteps.0.ProfileEntryValue=G\n"
           "mav.profile.ROBUST.Parameters.SCANLIMIT=SCANLIMIT\n"
           "mav.profile.ROBUST.Parameters.SCANLIMIT.Type=LONG\n"
           "mav.profile.ROBUST.Parameters.SCANLIMIT.Value=99\n"
           "mav.group.G=G\n"
           "mav.group.G.Parameters.SCANALLFILES=SCANALLFILES\n"
           "mav.group.G.Parameters.SCANALLFILES.Type=BOOL\n"
           "mav.group.G.Parameters.SCANALLFILES.Value=0\n" +
           p + "=P1\n" + p + ".Active=true\n" + p + ".Group=G\n" + p + ".PoolMaxInstances=2\n" + p +
           ".AdapterPath=" + testpelPath() + "\n" + p +
           ".Parameters.SCANEXTENSIONS=SCANEXTENSIONS\n" + p +
           ".Parameters.SCANEXTENSIONS.Type=CHAR\n" + p + ".Parameters.SCANEXTENSIONS.Value=pdf\n";
}

// One run. In strict mode every call must give its expected code and outputs;
// otherwise (an allocation refused somewhere) every call must give some
// documented code and the run goes on with whatever it got.
class Scenario {
  public:
    Scenario(TestPel& pel, bool strict) : pel_(pel), strict_(strict) {}

    void Run() {
        OfferParameters(pel_);
        ScriptInfection(pel_);
        StartAndPool();
        if (hdl_ != nullptr) {
            Parameters();
            Events();
            Scans();
            Information();
        }
        FallbackHandle();
        ReturnAndReload();
        TracedScan();
        Runtime();
    }

    // Gives everything back. Must succeed whatever happened before: ending
    // needs no memory.
    void Cleanup() {
        for (MAV_INST* p : {&pinst_, &d_, &c_, &b_, &a_, &t_}) {
            if (*p != nullptr) Must("cleanup MavFreeInstance", MavFreeInstance(p), MAV_OK);
            *p = nullptr;
        }
        Must("cleanup MavStopRuntime", MavStopRuntime(), MAV_OK);
        for (MAV_HANDLE* h : {&hdl2_, &hdl_}) {
            if (*h != nullptr) Must("cleanup MavEnd", MavEnd(h), MAV_OK);
            if (*h != nullptr) problems_.push_back("cleanup MavEnd left the handle");
        }
        MavSetTraceLevel(0);
        pel_.set_flags(0x3, 0x19, VS_M_ALL, 0);
    }

    const std::vector<std::string>& problems() const { return problems_; }
    int calls() const { return calls_; }
    int deviations() const { return deviations_; }
    // The calls that did not give their usual result, for failure messages.
    const std::vector<std::string>& trail() const { return trail_; }

  private:
    // A call's result: always a documented code; in strict mode the expected one.
    bool Check(const char* what, MAV_RC rc, MAV_RC expected) {
        ++calls_;
        if (!KnownCode(rc))
            problems_.push_back(std::string(what) + ": undocumented code " + std::to_string(rc));
        if (rc == expected) return true;
        ++deviations_;
        trail_.push_back(std::string(what) + " -> " + MavErrorName(rc));
        if (strict_)
            problems_.push_back(std::string(what) + ": " + MavErrorName(rc) + ", expected " +
                                MavErrorName(expected));
        return false;
    }
    // A result that must hold in every run.
    void Must(const char* what, MAV_RC rc, MAV_RC expected) {
        ++calls_;
        if (rc != expected)
            problems_.push_back(std::string(what) + ": " + MavErrorName(rc) + ", expected " +
                                MavErrorName(expected));
    }
    // An output that must hold in strict mode.
    void Strict(const char* what, bool ok) {
        if (strict_ && !ok) problems_.push_back(std::string(what) + ": wrong output");
    }

    std::string Param(void* h, const char* name, MAV_RC* rc) {
        char buf[256];
        size_t len = sizeof buf;
        int32_t type = -1;
        *rc = MavGetParameter(h, name, &type, buf, &len);
        return *rc == MAV_OK ? std::string(buf, len) : std::string();
    }

    // A change that fails leaves the old value in place.
    void SetKeepsOldOnFailure(const char* what, void* h, const char* name, int32_t type,
                              const char* value) {
        MAV_RC grc;
        std::string before = Param(h, name, &grc);
        bool haveBefore = grc == MAV_OK;
        MAV_RC rc = MavSetParameter(h, name, type, value);
        Check(what, rc, MAV_OK);
        std::string after = Param(h, name, &grc);
        if (type == VS_TYPE_OBJECT) {
            // OBJECT values are stored but never formatted back.
            Strict(what, grc == MAV_OK && after.empty());
        } else if (rc == MAV_OK) {
            Strict(what, grc == MAV_OK && after == value);
        } else if (haveBefore && grc == MAV_OK && after != before) {
            problems_.push_back(std::string(what) + ": failed change altered the value from \"" +
                                before + "\" to \"" + after + "\"");
        }
    }

    void StartAndPool() {
        Check("MavInit", MavInit(pel_.path(), &hdl_), MAV_OK);
        if (hdl_ == nullptr) return;
        if (MavIXRecKind(hdl_) != MAV_REC_HANDLE) {
            // Start-up failed; the handle is only ended.
            return;
        }
        Check("MavSetHandleName", MavSetHandleName(hdl_, "robust-a", 8), MAV_OK);
        if (Check("MavLoadPool", MavLoadPool(hdl_, 2, 1), MAV_OK)) {
            a_ = MavGetInstance(hdl_);
            ++calls_;
            Strict("MavGetInstance", a_ != nullptr);
        } else {
            // MavGetInstance on a pool that is not full hands out one more
            // instance than it returns (kept on purpose); that one could never
            // be given back and the handle never ended.
            Check("MavCreateInstance after a failed load", MavCreateInstance(hdl_, &a_), MAV_OK);
        }
        Check("MavCreateInstance pooled", MavCreateInstance(hdl_, &b_), MAV_OK);
        Check("MavCreateInstance listed", MavCreateInstance(hdl_, &c_), MAV_OK);
        Strict("MavGetHandleByName", MavGetHandleByName("robust-a", 8) == hdl_);
    }

    void Parameters() {
        SetKeepsOldOnFailure("MavSetParameter handle INT", hdl_, "INITTIMEOUT", VS_TYPE_INT, "45");
        if (a_ == nullptr) return;
        SetKeepsOldOnFailure("MavSetParameter instance CHAR", a_, "SCANEXTENSIONS", VS_TYPE_CHAR,
                             "doc,xls,<a>");
        SetKeepsOldOnFailure("MavSetParameter instance LONG", a_, "SCANLIMIT", VS_TYPE_LONG,
                             "2000");
        SetKeepsOldOnFailure("MavSetParameter instance OBJECT", a_, "BLOCKMIMETYPES",
                             VS_TYPE_OBJECT, "application/x-evil");
        Check("MavSetParameter custom", MavSetParameter(a_, "CUST_CLEAN", VS_TYPE_BOOL, "true"),
              MAV_OK);
        MAV_RC rc;
        Strict("handle keeps its value", Param(hdl_, "SCANEXTENSIONS", &rc) == "exe,com");
        Check("MavGetParameter handle", rc, MAV_OK);
        for (uint32_t i = 0; i <= kParamCount; ++i) {
            char name[64], value[256];
            size_t nameLen = sizeof name, valueLen = sizeof value;
            int32_t type = -1;
            Check("MavEnumParameters",
                  MavEnumParameters(a_, i, name, &nameLen, &type, value, &valueLen),
                  i < kParamCount ? MAV_OK : MAV_E_INVALID_ENUM_INDEX);
        }
        Check("MavSetParameter reset", MavSetParameter(a_, "SCANLIMIT", VS_TYPE_LONG, nullptr),
              MAV_OK);
        Strict("reset value", Param(a_, "SCANLIMIT", &rc) == "1000");
        if (b_ != nullptr) Check("MavSetDefaultConfig", MavSetDefaultConfig(b_), MAV_OK);
    }

    void Events() {
        static const MAV_EVENTS table = AllSlots();
        if (a_ != nullptr)
            Check("MavRegisterEvents", MavRegisterEvents(a_, &table, &logA_), MAV_OK);
        if (b_ != nullptr)
            Check("MavRegisterSingleEventHandler",
                  MavRegisterSingleEventHandler(b_, OnAny, VS_M_ALL, &logB_), MAV_OK);
    }

    void Results(void* inst, const char* what) {
        char name[64], object[64], free[64];
        size_t nameLen = 0, objectLen = sizeof object, freeLen = sizeof free;
        uint8_t repairable = 0;
        uint32_t id = 0;
        uint64_t size = 0;
        // Size first, then the text.
        Check(what,
              MavEnumInfections(inst, 0, nullptr, nullptr, nullptr, &nameLen, nullptr, nullptr,
                                nullptr, nullptr, nullptr),
              MAV_OK);
        nameLen = sizeof name;
        if (Check(what,
                  MavEnumInfections(inst, 0, &repairable, &id, name, &nameLen, object, &objectLen,
                                    &size, free, &freeLen),
                  MAV_OK))
            Strict("infection name", std::string(name, nameLen) == "Eicar-Test" && id == 42);
        Check(what,
              MavEnumInfections(inst, 1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr),
              MAV_E_INVALID_ENUM_INDEX);
        uint32_t code = 0;
        size_t errLen = sizeof free;
        objectLen = sizeof object;
        Check(what, MavEnumScanErrors(inst, 0, &code, free, &errLen, object, &objectLen, &size),
              MAV_OK);
        uint32_t type = 0;
        size_t extLen = sizeof name, ctLen = sizeof free;
        objectLen = sizeof object;
        Check(what,
              MavEnumContentInfo(inst, 0, &type, name, &extLen, free, &ctLen, object, &objectLen,
                                 nullptr),
              MAV_OK);
    }

    void Scans() {
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        if (a_ != nullptr) {
            logA_ = EventLog();
            if (Check("MavScanFile", MavScanFile(a_, SampleFile().c_str(), 7, &si),
                      MAV_E_VIRUS_FOUND)) {
                Strict("summary", si.uiInfections == 1 && si.uiScanErrors == 1);
                Strict("table events", logA_.calls == kEventsPerScan && logA_.virusRecords == 1 &&
                                           logA_.texts == 2);
            }
            Results(a_, "results after file scan");
        }
        if (b_ != nullptr) {
            logB_ = EventLog();
            unsigned char bytes[64];
            memset(bytes, 'b', sizeof bytes);
            if (Check("MavScanBytes", MavScanBytes(b_, "mem/obj", bytes, sizeof bytes, 8, &si),
                      MAV_E_VIRUS_FOUND))
                Strict("single-handler events", logB_.calls == kEventsPerScan);
            Results(b_, "results after bytes scan");
        }
        if (c_ != nullptr) {
            unsigned char bytes[32];
            memset(bytes, 'c', sizeof bytes);
            size_t length = sizeof bytes;
            pel_.script_clear();
            pel_.script_rc(MAV_E_CLEAN_OK);
            pel_.script_cleaned("clean", 5);
            if (Check("MavCleanBytes", MavCleanBytes(c_, "dirty", bytes, &length, 9, &si),
                      MAV_E_CLEAN_OK))
                Strict("cleaned bytes", memcmp(bytes, "clean", 5) == 0);
            ScriptInfection(pel_);
            // Without a summary no result record is asked for.
            Check("MavScanClean no summary",
                  MavScanClean(c_, VS_SC_FILE, 0, SampleFile().c_str(), nullptr, nullptr, nullptr,
                               10, nullptr),
                  MAV_E_VIRUS_FOUND);
            Check("no results",
                  MavEnumInfections(c_, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr),
                  MAV_E_NO_SCANINFO);
        }
    }

    void Information() {
        uint32_t version = 0, params = 0, events = 0;
        char name[64], vendor[64];
        size_t nameLen = sizeof name, vendorLen = sizeof vendor;
        if (Check(
                "MavGetPelInfo",
                MavGetPelInfo(hdl_, &version, &params, &events, name, &nameLen, vendor, &vendorLen),
                MAV_OK))
            Strict("adapter name",
                   std::string(name, nameLen) == "testpel" && params == kParamCount);
        uint32_t id = 0, model = 0, scan = 0, action = 0, cio = 0;
        uint16_t mavVersion = 0;
        Check("MavGetPelTechInfo",
              MavGetPelTechInfo(hdl_, &id, &model, &mavVersion, &scan, &action, &cio), MAV_OK);
        if (a_ == nullptr) return;
        uint64_t date = 0;
        uint32_t viruses = 0;
        uint16_t drivers = 0;
        nameLen = sizeof name;
        Check("MavGetEngineInfo",
              MavGetEngineInfo(a_, &version, name, &nameLen, &date, &viruses, &drivers), MAV_OK);
        nameLen = sizeof name;
        Check("MavEnumDriverInfo",
              MavEnumDriverInfo(a_, 0, &version, name, &nameLen, &date, &viruses), MAV_OK);
        KORMO_CHAR* text = nullptr;
        size_t textLen = 0;
        Check("MavAdapterErrorText", MavAdapterErrorText(a_, &text, &textLen), MAV_OK);
        Strict("MavAdapterErrorCode", MavAdapterErrorCode(a_) == 0);
    }

    // A second handle on the same adapter that cannot scan memory: bytes go
    // through a temporary file in the handle's own directory.
    void FallbackHandle() {
        pel_.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
        MAV_RC rc = MavInit(pel_.path(), &hdl2_);
        pel_.set_flags(0x3, 0x19, VS_M_ALL, 0);
        if (!Check("MavInit fallback handle", rc, MAV_OK)) return;
        Check("MavSetParameter INITTEMP_PATH",
              MavSetParameter(hdl2_, "INITTEMP_PATH", VS_TYPE_CHAR, HandleTmpDir().c_str()),
              MAV_OK);
        if (!Check("MavCreateInstance fallback", MavCreateInstance(hdl2_, &d_), MAV_OK)) return;
        unsigned char bytes[100];
        memset(bytes, 'd', sizeof bytes);
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        if (Check("MavScanBytes fallback",
                  MavScanBytes(d_, "dir/name\\x.doc", bytes, sizeof bytes, 11, &si),
                  MAV_E_VIRUS_FOUND)) {
            TPEL_LAST_SCAN last = pel_.lastScan();
            Strict("scanned as a file", last.uiScanCode == VS_SC_FILE && last.bFileExisted &&
                                            last.lFileSize == sizeof bytes);
        }
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
        if (hdl_ != nullptr && MavIXRecKind(hdl_) == MAV_REC_HANDLE)
            Check("MavReload", MavReload(hdl_), MAV_OK);
        if (hdl2_ != nullptr && d_ != nullptr)
            Check("MavReload busy", MavReload(nullptr), MAV_E_IN_PROGRESS);
        if (d_ != nullptr && Check("MavFreeInstance fallback", MavFreeInstance(&d_), MAV_OK))
            d_ = nullptr;
        Check("MavReload all", MavReload(nullptr), MAV_OK);
        if (hdl_ != nullptr && MavIXRecKind(hdl_) == MAV_REC_HANDLE)
            Check("MavFreePool", MavFreePool(hdl_), MAV_OK);
    }

    // One scan with every trace bit on: record dumps and adapter traces.
    void TracedScan() {
        if (hdl_ == nullptr || MavIXRecKind(hdl_) != MAV_REC_HANDLE) return;
        if (!Check("MavCreateInstance traced", MavCreateInstance(hdl_, &t_), MAV_OK)) return;
        MavSetTraceLevel(kDump);
        unsigned char bytes[16] = {0};
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        Check("MavScanBytes traced", MavScanBytes(t_, "traced", bytes, sizeof bytes, 13, &si),
              MAV_E_VIRUS_FOUND);
        MavSetTraceLevel(0);
        if (Check("MavFreeInstance traced", MavFreeInstance(&t_), MAV_OK)) t_ = nullptr;
    }

    void Runtime() {
        const std::string config = RuntimeConfig();
        if (!Check("MavStartRuntime", MavStartRuntime(config.data(), config.size()), MAV_OK))
            return;
        MAV_RC rc = MavGetProfileInstance("ROBUST", &pinst_);
        Check("MavGetProfileInstance", rc, MAV_OK);
        Strict("profile instance", pinst_ != nullptr);
        if (pinst_ != nullptr) {
            unsigned char bytes[8] = {'p', 'r', 'o', 'f', 'i', 'l', 'e', 0};
            MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
            Check("MavScanBytes profile",
                  MavScanBytes(pinst_, "profile-object", bytes, sizeof bytes, 14, &si),
                  MAV_E_VIRUS_FOUND);
            Results(pinst_, "results of a profile instance");
            Check("MavFreeInstance profile", MavFreeInstance(&pinst_), MAV_OK);
            pinst_ = nullptr;
        }
        Check("MavStopRuntime", MavStopRuntime(), MAV_OK);
    }

    TestPel& pel_;
    bool strict_;
    MAV_HANDLE hdl_ = nullptr, hdl2_ = nullptr;
    MAV_INST a_ = nullptr, b_ = nullptr, c_ = nullptr, d_ = nullptr, t_ = nullptr;
    MAV_INST pinst_ = nullptr;
    EventLog logA_, logB_;
    std::vector<std::string> problems_;
    std::vector<std::string> trail_;
    int calls_ = 0;
    int deviations_ = 0;
};

std::string Join(const std::vector<std::string>& v) {
    std::string s;
    for (const std::string& x : v) s += "  " + x + "\n";
    return s;
}

class OomSweep : public RobustTest {
  protected:
    // One strict run: everything as expected, everything given back.
    void CleanRun(const std::string& when) {
        uint64_t mark = CountingHooks::Mark();
        Scenario s(pel, true);
        s.Run();
        s.Cleanup();
        ASSERT_TRUE(s.problems().empty()) << when << ":\n" << Join(s.problems());
        AfterRun(mark, when);
    }

    // What must hold after any run.
    void AfterRun(uint64_t mark, const std::string& when) {
        ASSERT_EQ(0u, MavIXGetHdlSize()) << when << ": handles left registered";
        ASSERT_EQ(0, pel.live_inits()) << when << ": engine records left";
        ASSERT_EQ(0, pel.live_scaninfos()) << when << ": scan results left";
        ASSERT_EQ(0u, pel.bad_releases()) << when << ": bad releases";
        ASSERT_EQ(0u, CountingHooks::RecordsInUse()) << when << ": handle or instance records left";
        std::vector<CountingHooks::Block> leaks = CountingHooks::Leaks(mark);
        ASSERT_TRUE(leaks.empty()) << when << ": leaked\n" << CountingHooks::Describe(leaks);
        ASSERT_EQ(0, FilesIn(DefaultTmpDir()) + FilesIn(HandleTmpDir()))
            << when << ": temporary files left";
        MAV_INST none = nullptr;
        ASSERT_EQ(MAV_E_PROFILE_NOT_VALID, MavGetProfileInstance(nullptr, &none)) << when;
    }

    void Sweep(bool persistent) {
        CleanRun("warm-up");  // record blocks and one-time state exist from here on
        if (HasFatalFailure()) return;
        CountingHooks::Disarm();
        CleanRun("counting run");
        if (HasFatalFailure()) return;
        const uint64_t points = CountingHooks::Points();
        ASSERT_GT(points, 50u);

        auto started = std::chrono::steady_clock::now();
        uint64_t refusedRuns = 0, deviations = 0, calls = 0;
        for (uint64_t k = 1; k <= points; ++k) {
            const std::string when = std::string(persistent ? "refusing from" : "refusing only") +
                                     " allocation " + std::to_string(k) + " of " +
                                     std::to_string(points);
            uint64_t mark = CountingHooks::Mark();
            CountingHooks::FailFrom(k, persistent);
            Scenario s(pel, false);
            s.Run();
            s.Cleanup();  // under the same failure: ending needs no memory
            refusedRuns += CountingHooks::Refused() > 0 ? 1 : 0;
            CountingHooks::Disarm();
            ASSERT_TRUE(s.problems().empty()) << when << ":\n"
                                              << Join(s.problems()) << "after these calls failed:\n"
                                              << Join(s.trail());
            AfterRun(mark, when);
            if (HasFatalFailure()) return;
            deviations += static_cast<uint64_t>(s.deviations());
            calls += static_cast<uint64_t>(s.calls());
            pel.reset();
            CleanRun(when + ", then again with memory");
            if (HasFatalFailure()) return;
        }
        double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        // Blocks of handle and instance records stay for reuse; their number
        // must not grow with the runs.
        size_t records = CountingHooks::RecycledRecords();
        EXPECT_LE(records, 16u);
        EXPECT_EQ(0u, CountingHooks::BadTags());
        std::printf(
            "[ sweep    ] %s: %llu allocation points, %llu runs refused memory, "
            "%llu calls (%llu answered with a failure), %zu recycled record blocks, "
            "%.1f s\n",
            persistent ? "persistent" : "single", static_cast<unsigned long long>(points),
            static_cast<unsigned long long>(refusedRuns), static_cast<unsigned long long>(calls),
            static_cast<unsigned long long>(deviations), records, secs);
        RecordProperty("allocation_points", static_cast<int>(points));
    }
};

TEST_F(OomSweep, EveryAllocationPointRefusedOnce) {
    Sweep(false);
}

TEST_F(OomSweep, EveryAllocationPointRefusedFromThereOn) {
    Sweep(true);
}

}  // namespace
}  // namespace robust
