// testpel.cpp - the scriptable test adapter.
//
// Built only from the adapter interface (kormopel.h) and its own control
// interface (testpel_ctl.h), like any vendor's adapter. One process-wide state,
// guarded by one mutex; PelScan copies what it needs under the lock and calls
// back with no lock held. Records handed to the library are tracked so that
// tests can see leaks and double releases; configurations stay alive until
// PelCleanup (or tpel_reset) after the library handed them back.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kormopel.h"

// Every function declared in the control header is part of the adapter's
// exported interface; everything else keeps the hidden default.
#pragma GCC visibility push(default)
#include "testpel_ctl.h"
#pragma GCC visibility pop

#ifndef TESTPEL_DEFAULT_MAV_VERSION
#define TESTPEL_DEFAULT_MAV_VERSION 2
#endif

namespace {

constexpr int kRcNullParam = 2;       // MAV_E_NULL_PARAM
constexpr int kRcInvalidParam = 3;    // MAV_E_INVALID_PARAM
constexpr int kRcNoSpace = 1;         // MAV_E_NO_SPACE
constexpr int kRcCbcTerminated = 17;  // MAV_E_CBC_TERMINATED

using Text = std::optional<std::string>;

Text textOf(const char* s) {
    return s ? Text(s) : std::nullopt;
}

struct Param {
    int32_t code;
    int32_t type;
    Text text;       // CHAR/OBJECT
    int64_t number;  // other types
    size_t length;
};

struct Infection {
    Text virusName, objectName, freeText;
    uint32_t virusId;
    int repairable;
    size_t objectSize;
};

struct ScanError {
    Text objectName, errorText;
    int errorRc;
    size_t objectSize;
};

struct Content {
    Text objectName, extension, contentType, charSet;
    uint32_t objectType;
    size_t objectSize;
    bool fromScan;  // the default entry: name and extension of the scanned object
};

struct Event {
    uint32_t message;
    int index;
    Text text;
    uint64_t number;
    int force;
};

struct Driver {
    Text name;
    uint16_t major, minor;
    int64_t date;
    uint32_t viruses, variants;
    int32_t rc;
};

// The scripted outcome of a scan; copied whole by PelScan.
struct Script {
    int rc = 0;
    bool countsFixed = false;
    uint32_t scanned = 0, notScanned = 0, clean = 0, infections = 0, scanErrors = 0;
    bool noScanInfo = false;
    bool nullArrays = false;
    std::vector<Infection> infectionList;
    std::vector<ScanError> errorList;
    std::vector<Content> contentList;
    std::optional<std::vector<unsigned char>> cleaned;
    std::vector<Event> events;
    uint32_t delayMs = 0;
};

struct Failure {
    int rc = 0;
    Text vendorText;
};

struct CapturedParams {
    bool seen = false;
    std::vector<Param> list;
};

// One PEL_CONFIG and everything it points to. The C records come first so that
// their padding is zeroed once in the constructor.
struct ConfigBlock {
    PEL_CONFIG cfg;
    PEL_ADAPTERINFO info;
    PEL_PARAMS lists[2];
    std::vector<PEL_PARAM> params[2];
    std::deque<std::string> texts;  // stable storage for every string
    bool handedBack = false;        // PelEnd got it back: free at PelCleanup

    ConfigBlock() {
        std::memset(&cfg, 0, sizeof cfg);
        std::memset(&info, 0, sizeof info);
        std::memset(lists, 0, sizeof lists);
    }
    const char* keep(const Text& t) {
        if (!t) return nullptr;
        texts.push_back(*t);
        return texts.back().c_str();
    }
};

// PEL_INIT with what it owns; init is first so &block->init == block.
struct InitBlock {
    PEL_INIT init;
    PEL_DRIVERINFO* drivers;
    std::vector<char*> strings;
};

// PEL_SCANINFO with the real array lengths, which a hostile script may make
// differ from the counters; info is first so &block->info == block.
struct ScanBlock {
    PEL_SCANINFO info;
    PEL_CONTENTINFO* contents;
    PEL_VIRUSINFO* viruses;
    PEL_SCANERROR* errors;
    size_t nContents, nViruses, nErrors;
    unsigned char* cleaned;
    std::vector<char*> strings;
};

struct State {
    std::mutex mu;

    // configuration
    uint32_t adapterId, threadModel;
    uint16_t mavVersion, pelMajor, pelMinor;
    Text vendorInfo, adapterName;
    bool noAdapterInfo;
    uint32_t scanFlag, actionFlag, eventFlag, cioFlag;
    bool nullParamLists;
    std::vector<Param> params[2];  // [0] optional, [1] init

    // engine
    uint16_t engMajor, engMinor;
    Text engText;
    int64_t engDate;
    uint32_t engViruses;
    std::vector<Driver> drivers;

    Failure fail[TPEL_ENTRY_COUNT];
    uint32_t calls[TPEL_ENTRY_COUNT];
    uint32_t badReleases = 0;
    uint32_t activeScans = 0, maxActiveScans = 0;
    uint64_t initSerial = 0;  // hEngine of the next PEL_INIT: 1, 2, ... (never reset)

    bool haveLastScan;
    TPEL_LAST_SCAN lastScan;
    CapturedParams lastParams[2];  // [0] PelInit, [1] PelScan
    std::vector<int32_t> eventResults;

    Script script;

    // records alive in the library's hands (not touched by tpel_reset)
    std::vector<ConfigBlock*> configs;
    std::set<InitBlock*> inits;
    std::set<ScanBlock*> scans;

    void reset();
};

State& st() {
    // Never destroyed: the library may still call in while the process exits.
    static State* s = [] {
        State* p = new State;
        p->reset();
        return p;
    }();
    return *s;
}

Content defaultContent() {
    Content c;
    c.contentType = "application/octet-stream";
    c.charSet = "";
    c.objectType = 0;
    c.objectSize = TPEL_SIZE_OF_OBJECT;
    c.fromScan = true;
    return c;
}

void freeHandedBackConfigs(State& s) {
    auto& v = s.configs;
    for (auto it = v.begin(); it != v.end();) {
        if ((*it)->handedBack) {
            delete *it;
            it = v.erase(it);
        } else {
            ++it;
        }
    }
}

void State::reset() {
    adapterId = 4711;
    threadModel = 0;
    mavVersion = TESTPEL_DEFAULT_MAV_VERSION;
    pelMajor = 1;
    pelMinor = 0;
    vendorInfo = "Kormo Test";
    adapterName = "testpel";
    noAdapterInfo = false;
    scanFlag = PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY;
    actionFlag = 0x19;
    eventFlag = VS_M_VIRUS | VS_M_CLEAN | VS_M_ERROR | VS_M_OBJECTFOUND | VS_M_ABORTSCAN |
                VS_M_NOTSCANNED | VS_M_REPAIRED | VS_M_NOTREPAIRED | VS_M_MACROSCLEANED |
                VS_M_CONTAINMACROS | VS_M_SCANACTIONS | VS_M_SCANPROGRESS;
    cioFlag = 0;
    nullParamLists = false;
    params[0].clear();
    params[1].clear();

    engMajor = 3;
    engMinor = 1;
    engText = "testpel engine 3.1";
    engDate = 1577836800;  // 2020-01-01 00:00:00 UTC
    engViruses = 1000;
    drivers.clear();
    drivers.push_back(Driver{std::string("testpel.drv"), 1, 0, engDate, 1000, 10, 0});

    for (auto& f : fail) f = Failure{};
    std::fill(std::begin(calls), std::end(calls), 0u);
    badReleases = 0;
    maxActiveScans = activeScans;
    haveLastScan = false;
    std::memset(&lastScan, 0, sizeof lastScan);
    lastParams[0] = CapturedParams{};
    lastParams[1] = CapturedParams{};
    eventResults.clear();

    script = Script{};
    script.contentList.push_back(defaultContent());

    freeHandedBackConfigs(*this);
}

size_t typeSize(int32_t type) {
    switch (type) {
        case VS_TYPE_BOOL:
        case VS_TYPE_BYTE:
            return 1;
        case VS_TYPE_SHORT:
            return 2;
        case VS_TYPE_INT:
        case VS_TYPE_FLOAT:
            return 4;
        default:
            return 8;
    }
}

bool isTextType(int32_t type) {
    return type == VS_TYPE_CHAR || type == VS_TYPE_OBJECT;
}

char* dupText(const Text& t, std::vector<char*>& owned) {
    if (!t) return nullptr;
    char* p = strdup(t->c_str());
    if (p) owned.push_back(p);
    return p;
}

template <typename T>
T* allocArray(size_t n) {
    return n ? static_cast<T*>(calloc(n, sizeof(T))) : nullptr;
}

uint32_t currentThreadId() {
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

void captureParams(const PEL_PARAMS* p, CapturedParams& out) {
    out.seen = true;
    out.list.clear();
    if (!p || !p->pParams) return;
    for (uint16_t i = 0; i < p->usNumParams; ++i) {
        const PEL_PARAM& e = p->pParams[i];
        Param c{e.tCode, e.tType, std::nullopt, 0, e.lLength};
        if (isTextType(e.tType)) {
            c.text = textOf(static_cast<const char*>(e.pvValue));
        } else {
            c.number = static_cast<int64_t>(reinterpret_cast<intptr_t>(e.pvValue));
        }
        out.list.push_back(std::move(c));
    }
}

// ---- PEL_SCANINFO ------------------------------------------------------------

struct ScannedObject {
    Text name;
    size_t size;
    uint32_t jobId;
};

size_t sizeFor(size_t scripted, const ScannedObject& obj) {
    return scripted == TPEL_SIZE_OF_OBJECT ? obj.size : scripted;
}

Text extensionOf(const Text& name) {
    if (!name) return std::string();
    size_t slash = name->find_last_of('/');
    std::string base = slash == std::string::npos ? *name : name->substr(slash + 1);
    size_t dot = base.find_last_of('.');
    return dot == std::string::npos ? std::string() : base.substr(dot + 1);
}

void fillVirus(PEL_VIRUSINFO& v, const Infection& in, const ScannedObject& obj,
               std::vector<char*>& owned) {
    std::memset(&v, 0, sizeof v);
    v.struct_size = sizeof(PEL_VIRUSINFO);
    v.bRepairable = in.repairable ? 1 : 0;
    v.uiVirusID = in.virusId;
    v.pszVirusName = dupText(in.virusName, owned);
    v.uiJobID = obj.jobId;
    v.pszObjectName = dupText(in.objectName, owned);
    v.lObjectSize = sizeFor(in.objectSize, obj);
    v.pszFreeTextInfo = dupText(in.freeText, owned);
}

void fillError(PEL_SCANERROR& e, const ScanError& in, const ScannedObject& obj,
               std::vector<char*>& owned) {
    std::memset(&e, 0, sizeof e);
    e.struct_size = sizeof(PEL_SCANERROR);
    e.uiJobID = obj.jobId;
    e.pszObjectName = dupText(in.objectName, owned);
    e.lObjectSize = sizeFor(in.objectSize, obj);
    e.iErrorRC = in.errorRc;
    e.pszErrorText = dupText(in.errorText, owned);
}

void fillContent(PEL_CONTENTINFO& c, const Content& in, const ScannedObject& obj,
                 std::vector<char*>& owned) {
    std::memset(&c, 0, sizeof c);
    c.struct_size = sizeof(PEL_CONTENTINFO);
    c.tObjectType = in.objectType;
    c.pszExtension = dupText(in.fromScan ? extensionOf(obj.name) : in.extension, owned);
    c.pszContentType = dupText(in.contentType, owned);
    c.pszCharSet = dupText(in.charSet, owned);
    c.uiJobID = obj.jobId;
    c.pszObjectName = dupText(in.fromScan ? obj.name : in.objectName, owned);
    c.lObjectSize = sizeFor(in.objectSize, obj);
}

void freeScanBlock(ScanBlock* b) {
    for (char* p : b->strings) free(p);
    free(b->contents);
    free(b->viruses);
    free(b->errors);
    free(b->cleaned);
    delete b;
}

ScanBlock* buildScanInfo(const Script& sc, const ScannedObject& obj) {
    auto* b = new ScanBlock{};
    std::memset(&b->info, 0, sizeof b->info);
    PEL_SCANINFO& si = b->info;
    si.struct_size = sizeof(PEL_SCANINFO);
    si.uiJobID = obj.jobId;
    const uint32_t nc = static_cast<uint32_t>(sc.contentList.size());
    const uint32_t ni = static_cast<uint32_t>(sc.infectionList.size());
    const uint32_t ne = static_cast<uint32_t>(sc.errorList.size());
    if (sc.countsFixed) {
        si.uiScanned = sc.scanned;
        si.uiNotScanned = sc.notScanned;
        si.uiClean = sc.clean;
        si.uiInfections = sc.infections;
        si.uiScanErrors = sc.scanErrors;
    } else {
        si.uiScanned = nc;
        si.uiClean = nc > ni + ne ? nc - ni - ne : 0;
        si.uiInfections = ni;
        si.uiScanErrors = ne;
    }
    if (!sc.nullArrays) {
        b->nContents = nc;
        b->nViruses = ni;
        b->nErrors = ne;
        b->contents = allocArray<PEL_CONTENTINFO>(nc);
        b->viruses = allocArray<PEL_VIRUSINFO>(ni);
        b->errors = allocArray<PEL_SCANERROR>(ne);
        if ((nc && !b->contents) || (ni && !b->viruses) || (ne && !b->errors)) {
            freeScanBlock(b);
            return nullptr;
        }
        for (uint32_t i = 0; i < nc; ++i)
            fillContent(b->contents[i], sc.contentList[i], obj, b->strings);
        for (uint32_t i = 0; i < ni; ++i)
            fillVirus(b->viruses[i], sc.infectionList[i], obj, b->strings);
        for (uint32_t i = 0; i < ne; ++i) fillError(b->errors[i], sc.errorList[i], obj, b->strings);
        si.pContentInfo = b->contents;
        si.pVirusInfo = b->viruses;
        si.pScanError = b->errors;
    }
    if (sc.cleaned) {
        const auto& bytes = *sc.cleaned;
        b->cleaned = static_cast<unsigned char*>(malloc(bytes.size() ? bytes.size() : 1));
        if (!b->cleaned) {
            freeScanBlock(b);
            return nullptr;
        }
        if (!bytes.empty()) std::memcpy(b->cleaned, bytes.data(), bytes.size());
        si.pbBytesCleaned = b->cleaned;
        si.lBytesCleaned = bytes.size();
    }
    return b;
}

// Records the request; reads the file of a file scan outside any lock.
void recordRequest(TPEL_LAST_SCAN& r, const PEL_INIT* pInit, const PEL_CALLBACK* pCallback,
                   const PEL_SCANPARAM* sp, const PEL_OPTPARAMS* pOpt, bool hadInfoPtr) {
    std::memset(&r, 0, sizeof r);
    r.pInit = pInit;
    r.pOptParams = pOpt;
    r.bHadScanInfoPtr = hadInfoPtr;
    r.uiThreadId = currentThreadId();
    if (pCallback) {
        r.bHadCallback = 1;
        std::memcpy(&r.sCallback, pCallback, sizeof r.sCallback);
    }
    if (!sp) return;
    r.scanParamSize = sp->struct_size;
    r.uiScanCode = sp->tScanCode;
    r.uiActionCode = sp->tActionCode;
    r.uiJobID = sp->uiJobID;
    r.lLength = sp->lLength;
    if (sp->pszObjectName) {
        r.bHadObjectName = 1;
        strncpy(r.szObjectName, sp->pszObjectName, sizeof r.szObjectName - 1);
    }
    if (sp->pbByte) {
        r.bHadBytes = 1;
        std::memcpy(r.abBytes, sp->pbByte, std::min(sp->lLength, sizeof r.abBytes));
    }
    if (sp->tScanCode == VS_SC_FILE && sp->pszObjectName) {
        int fd = open(sp->pszObjectName, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            struct stat sb;
            r.bFileExisted = 1;
            if (fstat(fd, &sb) == 0) r.lFileSize = static_cast<size_t>(sb.st_size);
            size_t got = 0;
            while (got < sizeof r.abBytes) {
                ssize_t n = read(fd, r.abBytes + got, sizeof r.abBytes - got);
                if (n <= 0) break;
                got += static_cast<size_t>(n);
            }
            close(fd);
        }
    }
}

// Calls back for one scripted event; false when the event is not sent.
bool sendEvent(const PEL_CALLBACK& cb, const Event& ev, const Script& sc, const ScannedObject& obj,
               int32_t& result) {
    if (!cb.pfnCallback) return false;
    if (!(ev.message & cb.uiMessageMask) && !ev.force) return false;
    std::vector<char*> owned;
    PEL_VIRUSINFO vi;
    PEL_SCANERROR se;
    std::string text;
    void* data = nullptr;
    const bool inRange = ev.index >= 0;
    const size_t idx = static_cast<size_t>(ev.index);
    switch (ev.message) {
        case VS_M_VIRUS:
        case VS_M_REPAIRED:
            if (inRange && idx < sc.infectionList.size()) {
                fillVirus(vi, sc.infectionList[idx], obj, owned);
                data = &vi;
            }
            break;
        case VS_M_NOTSCANNED:
        case VS_M_NOTREPAIRED:
            if (inRange && idx < sc.errorList.size()) {
                fillError(se, sc.errorList[idx], obj, owned);
                data = &se;
            }
            break;
        case VS_M_OBJECTFOUND:
        case VS_M_ERROR:
            if (ev.text) {
                text = *ev.text;
                data = &text[0];
            }
            break;
        default:
            data = reinterpret_cast<void*>(static_cast<uintptr_t>(ev.number));
            break;
    }
    result = cb.pfnCallback(nullptr, ev.message, data, cb.pvContext);
    for (char* p : owned) free(p);
    return true;
}

ConfigBlock* buildConfig(const State& s) {
    auto* b = new ConfigBlock;
    PEL_CONFIG& c = b->cfg;
    c.struct_size = sizeof(PEL_CONFIG);
    if (!s.noAdapterInfo) {
        PEL_ADAPTERINFO& a = b->info;
        a.struct_size = sizeof(PEL_ADAPTERINFO);
        a.uiAdapterID = s.adapterId;
        a.uiThreadModel = s.threadModel;
        a.usMavVersion = s.mavVersion;
        a.usPelMajorVersion = s.pelMajor;
        a.usPelMinorVersion = s.pelMinor;
        a.pszVendorInfo = b->keep(s.vendorInfo);
        a.pszAdapterName = b->keep(s.adapterName);
        c.pAdapterInfo = &a;
    }
    c.uiPelScanFlag = s.scanFlag;
    c.uiPelActionFlag = s.actionFlag;
    c.uiPelEventFlag = s.eventFlag;
    c.uiPelCIOFlag = s.cioFlag;
    for (int l = 0; l < 2; ++l) {
        std::vector<PEL_PARAM>& out = b->params[l];
        out.resize(s.params[l].size());
        for (size_t i = 0; i < out.size(); ++i) {
            const Param& p = s.params[l][i];
            PEL_PARAM& e = out[i];
            std::memset(&e, 0, sizeof e);
            e.struct_size = sizeof(PEL_PARAM);
            e.tCode = p.code;
            e.tType = p.type;
            e.lLength = p.length;
            if (isTextType(p.type)) {
                e.pvValue = const_cast<char*>(b->keep(p.text));
            } else {
                e.pvValue = reinterpret_cast<void*>(static_cast<intptr_t>(p.number));
            }
        }
        b->lists[l].usNumParams = static_cast<uint16_t>(out.size());
        b->lists[l].pParams = out.empty() ? nullptr : out.data();
    }
    if (!s.nullParamLists) {
        c.pInitParams = &b->lists[1];
        c.pOptParams = &b->lists[0];
    }
    return b;
}

InitBlock* buildInit(const State& s, const Failure& f) {
    auto* b = new InitBlock{};
    PEL_INIT& in = b->init;
    std::memset(&in, 0, sizeof in);
    in.struct_size = sizeof(PEL_INIT);
    in.uiViruses = s.engViruses;
    in.usEngineMajVersion = s.engMajor;
    in.usEngineMinVersion = s.engMinor;
    in.pszEngineVersionText = dupText(s.engText, b->strings);
    in.utcDate = s.engDate;
    b->drivers = allocArray<PEL_DRIVERINFO>(s.drivers.size());
    if (b->drivers) {
        in.usDrivers = static_cast<uint16_t>(s.drivers.size());
        in.pDriver = b->drivers;
        for (size_t i = 0; i < s.drivers.size(); ++i) {
            const Driver& d = s.drivers[i];
            PEL_DRIVERINFO& o = b->drivers[i];
            o.struct_size = sizeof(PEL_DRIVERINFO);
            o.pszName = dupText(d.name, b->strings);
            o.usDrMajVersion = d.major;
            o.usDrMinVersion = d.minor;
            o.utcDate = d.date;
            o.uiViruses = d.viruses;
            o.uiVariants = d.variants;
            o.iDriverRC = d.rc;
        }
    }
    if (f.rc) {
        in.iErrorRC = f.rc;
        in.pszErrorText = dupText(f.vendorText, b->strings);
    }
    return b;
}

void freeInitBlock(InitBlock* b) {
    for (char* p : b->strings) free(p);
    free(b->drivers);
    delete b;
}

void countCall(State& s, int entry) {
    ++s.calls[entry];
}

}  // namespace

// ---- Entry points ---------------------------------------------------------------

extern "C" {

int PelStartup(void) {
    State& s = st();
    std::lock_guard<std::mutex> g(s.mu);
    countCall(s, TPEL_STARTUP);
    return s.fail[TPEL_STARTUP].rc;
}

int PelGetConfig(PEL_CONFIG** ppConfig) {
    State& s = st();
    std::lock_guard<std::mutex> g(s.mu);
    countCall(s, TPEL_GETCONFIG);
    if (!ppConfig) return kRcNullParam;
    ConfigBlock* b = buildConfig(s);
    s.configs.push_back(b);
    *ppConfig = &b->cfg;
    return s.fail[TPEL_GETCONFIG].rc;
}

int PelInit(PEL_CALLBACK* pCallback, PEL_INITPARAMS* pInitParams, PEL_INIT** ppInit) {
    (void)pCallback;
    State& s = st();
    std::lock_guard<std::mutex> g(s.mu);
    countCall(s, TPEL_INIT);
    captureParams(pInitParams, s.lastParams[0]);
    if (!ppInit) return kRcNullParam;
    *ppInit = nullptr;
    const Failure& f = s.fail[TPEL_INIT];
    if (f.rc && !f.vendorText) return f.rc;
    InitBlock* b = buildInit(s, f);
    b->init.hEngine = reinterpret_cast<void*>(static_cast<uintptr_t>(++s.initSerial));
    s.inits.insert(b);
    *ppInit = &b->init;
    return f.rc;
}

int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pScanParam,
            PEL_OPTPARAMS* pOptParams, PEL_SCANINFO** ppScanInfo) {
    State& s = st();
    TPEL_LAST_SCAN req;
    recordRequest(req, pInit, pCallback, pScanParam, pOptParams, ppScanInfo != nullptr);
    CapturedParams opt;
    captureParams(pOptParams, opt);
    if (ppScanInfo) *ppScanInfo = nullptr;

    Script sc;
    int failRc;
    {
        std::lock_guard<std::mutex> g(s.mu);
        countCall(s, TPEL_SCAN);
        s.lastScan = req;
        s.haveLastScan = true;
        s.lastParams[1] = std::move(opt);
        failRc = s.fail[TPEL_SCAN].rc;
        sc = s.script;
        s.maxActiveScans = std::max(s.maxActiveScans, ++s.activeScans);
    }
    auto leave = [&s](int rc) {
        std::lock_guard<std::mutex> g(s.mu);
        --s.activeScans;
        return rc;
    };
    if (!pScanParam) return leave(kRcNullParam);
    if (failRc) return leave(failRc);
    if (sc.delayMs) std::this_thread::sleep_for(std::chrono::milliseconds(sc.delayMs));

    ScannedObject obj{textOf(pScanParam->pszObjectName),
                      req.bFileExisted ? req.lFileSize : pScanParam->lLength, pScanParam->uiJobID};

    std::vector<int32_t> results;
    bool stopped = false;
    if (pCallback) {
        PEL_CALLBACK cb = *pCallback;
        for (const Event& ev : sc.events) {
            int32_t r = 0;
            if (!sendEvent(cb, ev, sc, obj, r)) continue;
            results.push_back(r);
            if (r != 0) {
                stopped = true;
                break;
            }
        }
    }
    {
        std::lock_guard<std::mutex> g(s.mu);
        s.eventResults = results;
    }
    if (stopped) return leave(kRcCbcTerminated);

    if (sc.cleaned && pScanParam->tScanCode == VS_SC_BYTES && pScanParam->pbByte &&
        (pScanParam->tActionCode & VS_A_CLEAN)) {
        size_t n = std::min(sc.cleaned->size(), pScanParam->lLength);
        if (n) std::memcpy(pScanParam->pbByte, sc.cleaned->data(), n);
    }

    if (ppScanInfo && !sc.noScanInfo) {
        ScanBlock* b = buildScanInfo(sc, obj);
        if (!b) return leave(kRcNoSpace);
        {
            std::lock_guard<std::mutex> g(s.mu);
            s.scans.insert(b);
        }
        *ppScanInfo = &b->info;
    }
    return leave(sc.rc);
}

int PelReleaseScan(PEL_SCANINFO** ppScanInfo) {
    State& s = st();
    ScanBlock* b = nullptr;
    {
        std::lock_guard<std::mutex> g(s.mu);
        countCall(s, TPEL_RELEASESCAN);
        if (s.fail[TPEL_RELEASESCAN].rc) return s.fail[TPEL_RELEASESCAN].rc;
        if (!ppScanInfo) return kRcNullParam;
        if (!*ppScanInfo) return 0;
        b = reinterpret_cast<ScanBlock*>(*ppScanInfo);
        if (!s.scans.erase(b)) {
            ++s.badReleases;
            return kRcInvalidParam;
        }
    }
    freeScanBlock(b);
    *ppScanInfo = nullptr;
    return 0;
}

int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** ppConfig) {
    State& s = st();
    InitBlock* b = nullptr;
    {
        std::lock_guard<std::mutex> g(s.mu);
        countCall(s, TPEL_END);
        if (s.fail[TPEL_END].rc) return s.fail[TPEL_END].rc;
        if (ppInit && *ppInit) {
            b = reinterpret_cast<InitBlock*>(*ppInit);
            if (!s.inits.erase(b)) {
                ++s.badReleases;
                return kRcInvalidParam;
            }
        }
        if (ppConfig && *ppConfig) {
            for (ConfigBlock* c : s.configs)
                if (&c->cfg == *ppConfig) c->handedBack = true;
        }
    }
    if (b) {
        freeInitBlock(b);
        *ppInit = nullptr;
    }
    return 0;
}

#ifndef TESTPEL_NO_CLEANUP
int PelCleanup(void) {
    State& s = st();
    std::lock_guard<std::mutex> g(s.mu);
    countCall(s, TPEL_CLEANUP);
    if (s.fail[TPEL_CLEANUP].rc) return s.fail[TPEL_CLEANUP].rc;
    freeHandedBackConfigs(s);
    return 0;
}
#endif

// ---- Control interface -------------------------------------------------------------

#define TPEL_LOCKED  \
    State& s = st(); \
    std::lock_guard<std::mutex> g(s.mu)

void tpel_reset(void) {
    TPEL_LOCKED;
    s.reset();
}

void tpel_set_adapter_info(uint32_t adapterId, uint32_t threadModel, uint16_t mavVersion,
                           uint16_t pelMajor, uint16_t pelMinor, const char* vendorInfo,
                           const char* adapterName) {
    TPEL_LOCKED;
    s.adapterId = adapterId;
    s.threadModel = threadModel;
    s.mavVersion = mavVersion;
    s.pelMajor = pelMajor;
    s.pelMinor = pelMinor;
    s.vendorInfo = textOf(vendorInfo);
    s.adapterName = textOf(adapterName);
}

void tpel_set_no_adapter_info(int on) {
    TPEL_LOCKED;
    s.noAdapterInfo = on != 0;
}

void tpel_set_flags(uint32_t scanFlag, uint32_t actionFlag, uint32_t eventFlag, uint32_t cioFlag) {
    TPEL_LOCKED;
    s.scanFlag = scanFlag;
    s.actionFlag = actionFlag;
    s.eventFlag = eventFlag;
    s.cioFlag = cioFlag;
}

void tpel_clear_params(void) {
    TPEL_LOCKED;
    s.params[0].clear();
    s.params[1].clear();
}

void tpel_set_null_param_lists(int on) {
    TPEL_LOCKED;
    s.nullParamLists = on != 0;
}

void tpel_add_param(int initList, int32_t code, int32_t type, const char* value) {
    TPEL_LOCKED;
    Param p{code, type, std::nullopt, 0, typeSize(type)};
    if (isTextType(type)) {
        p.text = textOf(value);
        p.length = value ? std::strlen(value) : 0;
    } else if (value) {
        p.number = std::strtoll(value, nullptr, 10);
    }
    s.params[initList ? 1 : 0].push_back(std::move(p));
}

void tpel_set_last_param_length(int initList, size_t length) {
    TPEL_LOCKED;
    std::vector<Param>& list = s.params[initList ? 1 : 0];
    if (!list.empty()) list.back().length = length;
}

void tpel_fail(int entry, int rc, const char* vendorText) {
    if (entry < 0 || entry >= TPEL_ENTRY_COUNT) return;
    TPEL_LOCKED;
    s.fail[entry] = Failure{rc, textOf(vendorText)};
}

uint32_t tpel_calls(int entry) {
    if (entry < 0 || entry >= TPEL_ENTRY_COUNT) return 0;
    TPEL_LOCKED;
    return s.calls[entry];
}

int tpel_live_inits(void) {
    TPEL_LOCKED;
    return static_cast<int>(s.inits.size());
}

int tpel_live_scaninfos(void) {
    TPEL_LOCKED;
    return static_cast<int>(s.scans.size());
}

int tpel_last_scan(TPEL_LAST_SCAN* out) {
    TPEL_LOCKED;
    if (!s.haveLastScan) {
        if (out) std::memset(out, 0, sizeof *out);
        return 0;
    }
    if (out) *out = s.lastScan;
    return 1;
}

void tpel_script_clear(void) {
    TPEL_LOCKED;
    s.script = Script{};
}

void tpel_script_rc(int rc) {
    TPEL_LOCKED;
    s.script.rc = rc;
}

void tpel_script_counts(uint32_t scanned, uint32_t notScanned, uint32_t clean, uint32_t infections,
                        uint32_t scanErrors) {
    TPEL_LOCKED;
    Script& sc = s.script;
    sc.countsFixed = true;
    sc.scanned = scanned;
    sc.notScanned = notScanned;
    sc.clean = clean;
    sc.infections = infections;
    sc.scanErrors = scanErrors;
}

void tpel_script_no_scaninfo(int on) {
    TPEL_LOCKED;
    s.script.noScanInfo = on != 0;
}

void tpel_script_null_arrays(int on) {
    TPEL_LOCKED;
    s.script.nullArrays = on != 0;
}

void tpel_script_infection(const char* virusName, const char* objectName, uint32_t virusId,
                           int repairable, size_t objectSize, const char* freeText) {
    TPEL_LOCKED;
    s.script.infectionList.push_back(Infection{textOf(virusName), textOf(objectName),
                                               textOf(freeText), virusId, repairable, objectSize});
}

void tpel_script_scan_error(const char* objectName, int errorRc, const char* errorText,
                            size_t objectSize) {
    TPEL_LOCKED;
    s.script.errorList.push_back(
        ScanError{textOf(objectName), textOf(errorText), errorRc, objectSize});
}

void tpel_script_content(const char* objectName, const char* extension, const char* contentType,
                         const char* charSet, uint32_t objectType, size_t objectSize) {
    TPEL_LOCKED;
    s.script.contentList.push_back(Content{textOf(objectName), textOf(extension),
                                           textOf(contentType), textOf(charSet), objectType,
                                           objectSize, false});
}

void tpel_script_cleaned(const void* bytes, size_t length) {
    TPEL_LOCKED;
    const auto* p = static_cast<const unsigned char*>(bytes);
    s.script.cleaned = p ? std::vector<unsigned char>(p, p + length) : std::vector<unsigned char>();
}

void tpel_script_event(uint32_t message, int index, const char* text, uint64_t number, int force) {
    TPEL_LOCKED;
    s.script.events.push_back(Event{message, index, textOf(text), number, force});
}

int tpel_event_results(int32_t* out, int max) {
    TPEL_LOCKED;
    int n = static_cast<int>(s.eventResults.size());
    for (int i = 0; out && i < n && i < max; ++i) out[i] = s.eventResults[i];
    return n;
}

void tpel_set_engine(uint16_t major, uint16_t minor, const char* versionText, int64_t date,
                     uint32_t viruses) {
    TPEL_LOCKED;
    s.engMajor = major;
    s.engMinor = minor;
    s.engText = textOf(versionText);
    s.engDate = date;
    s.engViruses = viruses;
}

void tpel_clear_drivers(void) {
    TPEL_LOCKED;
    s.drivers.clear();
}

void tpel_add_driver(const char* name, uint16_t major, uint16_t minor, int64_t date,
                     uint32_t viruses, uint32_t variants, int32_t driverRc) {
    TPEL_LOCKED;
    s.drivers.push_back(Driver{textOf(name), major, minor, date, viruses, variants, driverRc});
}

int tpel_last_param(int atScan, int32_t code, int32_t* type, size_t* length, int64_t* number,
                    char* text, size_t textSize) {
    TPEL_LOCKED;
    for (const Param& p : s.lastParams[atScan ? 1 : 0].list) {
        if (p.code != code) continue;
        if (type) *type = p.type;
        if (length) *length = p.length;
        if (number) *number = isTextType(p.type) ? 0 : p.number;
        if (text && textSize) {
            std::string t = isTextType(p.type) && p.text ? *p.text : std::string();
            size_t n = std::min(t.size(), textSize - 1);
            std::memcpy(text, t.data(), n);
            text[n] = '\0';
        }
        return 1;
    }
    return 0;
}

uint32_t tpel_bad_releases(void) {
    TPEL_LOCKED;
    return s.badReleases;
}

void tpel_script_delay_ms(uint32_t ms) {
    TPEL_LOCKED;
    s.script.delayMs = ms;
}

uint32_t tpel_max_concurrent_scans(void) {
    TPEL_LOCKED;
    return s.maxActiveScans;
}

}  // extern "C"
