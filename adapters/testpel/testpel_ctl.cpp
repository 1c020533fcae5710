// testpel_ctl.cpp - the state's defaults and the control interface tests
// script the adapter with (testpel_ctl.h).
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "testpel_state.h"

namespace testpel {

State& st() {
    // Never destroyed: the library may still call in while the process exits.
    static State* s = [] {
        State* p = new State;
        p->reset();
        return p;
    }();
    return *s;
}

Script DefaultScript() {
    Script sc;
    sc.contentList.push_back(Content{{}, {}, std::string("application/octet-stream"),
                                     std::string(), 0, TPEL_SIZE_OF_OBJECT, true});
    return sc;
}

void State::reset() {
    static_cast<Settings&>(*this) = Settings();
    maxActiveScans = activeScans;
    freeHandedBackConfigs(*this);
}

}  // namespace testpel

using namespace testpel;

extern "C" {

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

void tpel_add_driver(const char* name, uint16_t major, uint16_t minor, int64_t date,
                     uint32_t viruses, uint32_t variants, int32_t driverRc) {
    TPEL_LOCKED;
    s.drivers.push_back(Driver{textOf(name), major, minor, date, viruses, variants, driverRc});
}

uint32_t tpel_bad_releases(void) {
    TPEL_LOCKED;
    return s.badReleases;
}

uint32_t tpel_max_concurrent_scans(void) {
    TPEL_LOCKED;
    return s.maxActiveScans;
}

}  // extern "C"
