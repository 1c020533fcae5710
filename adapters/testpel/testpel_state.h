// testpel_state.h - the test adapter's one process-wide state (configuration,
// engine record, scripted scan outcome, counters, and the records alive in
// the library's hands) and the builders of the records it hands out.
// Everything in State is guarded by State::mu.
#ifndef TESTPEL_STATE_H
#define TESTPEL_STATE_H

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
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

namespace testpel {

using Text = std::optional<std::string>;

inline Text textOf(const char* s) {
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
};

struct Failure {
    int rc = 0;
    Text vendorText;
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

// The script after tpel_reset: clean, with one content entry naming the
// scanned object.
Script DefaultScript();

// What tpel_reset sets back: configuration, engine, failures, counters, the
// last request and the script, each with its default.
struct Settings {
    uint32_t adapterId = 4711, threadModel = 0;
    uint16_t mavVersion = TESTPEL_DEFAULT_MAV_VERSION, pelMajor = 1, pelMinor = 0;
    Text vendorInfo = std::string("Kormo Test"), adapterName = std::string("testpel");
    uint32_t scanFlag = PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, actionFlag = 0x19;
    uint32_t eventFlag = VS_M_VIRUS | VS_M_CLEAN | VS_M_ERROR | VS_M_OBJECTFOUND |
                         VS_M_ABORTSCAN | VS_M_NOTSCANNED | VS_M_REPAIRED | VS_M_NOTREPAIRED |
                         VS_M_MACROSCLEANED | VS_M_CONTAINMACROS | VS_M_SCANACTIONS |
                         VS_M_SCANPROGRESS;
    uint32_t cioFlag = 0;
    bool nullParamLists = false;
    std::vector<Param> params[2];  // [0] optional, [1] init

    uint16_t engMajor = 3, engMinor = 1;
    Text engText = std::string("testpel engine 3.1");
    int64_t engDate = 1577836800;  // 2020-01-01 00:00:00 UTC
    uint32_t engViruses = 1000;
    std::vector<Driver> drivers{Driver{std::string("testpel.drv"), 1, 0, 1577836800, 1000, 10, 0}};

    Failure fail[TPEL_ENTRY_COUNT];
    uint32_t calls[TPEL_ENTRY_COUNT] = {};
    uint32_t badReleases = 0;
    bool haveLastScan = false;
    TPEL_LAST_SCAN lastScan = {};
    std::vector<int32_t> eventResults;
    Script script = DefaultScript();
};

struct State : Settings {
    std::mutex mu;
    uint32_t activeScans = 0, maxActiveScans = 0;
    uint64_t initSerial = 0;  // hEngine of the next PEL_INIT: 1, 2, ... (never reset)
    // records alive in the library's hands (not touched by tpel_reset)
    std::vector<ConfigBlock*> configs;
    std::set<InitBlock*> inits;
    std::set<ScanBlock*> scans;

    void reset();
};

// The one state; never destroyed (the library may call in while the process exits).
State& st();

struct ScannedObject {
    Text name;
    size_t size;
    uint32_t jobId;
};

// ---- Records (testpel_records.cpp) ----------------------------------------------

bool isTextType(int32_t type);
size_t typeSize(int32_t type);
// Reads every text of the list as an engine would (a freed or moved text
// shows under AddressSanitizer); the bytes read.
size_t readParams(const PEL_PARAMS* p);
ConfigBlock* buildConfig(const State& s);
void freeHandedBackConfigs(State& s);
InitBlock* buildInit(const State& s, const Failure& f);
void freeInitBlock(InitBlock* b);
ScanBlock* buildScanInfo(const Script& sc, const ScannedObject& obj);
void freeScanBlock(ScanBlock* b);
// Copies the request; reads the first bytes of a file scan's file.
void recordRequest(TPEL_LAST_SCAN& r, const PEL_INIT* pInit, const PEL_CALLBACK* pCallback,
                   const PEL_SCANPARAM* sp, const PEL_OPTPARAMS* pOpt, bool hadInfoPtr);
// Calls back for one scripted event; false when the event is not sent.
bool sendEvent(const PEL_CALLBACK& cb, const Event& ev, const Script& sc, const ScannedObject& obj,
               int32_t& result);

}  // namespace testpel

#endif
