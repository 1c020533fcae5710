// testpel_entry.cpp - the seven adapter entry points of the test adapter.
// PelScan copies the script under the lock and calls back with no lock held.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "testpel_state.h"

using namespace testpel;

namespace {

constexpr int kRcNullParam = 2;       // MAV_E_NULL_PARAM
constexpr int kRcInvalidParam = 3;    // MAV_E_INVALID_PARAM
constexpr int kRcNoSpace = 1;         // MAV_E_NO_SPACE
constexpr int kRcCbcTerminated = 17;  // MAV_E_CBC_TERMINATED

void countCall(State& s, int entry) {
    ++s.calls[entry];
}

}  // namespace

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
    readParams(pInitParams);
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
    readParams(pOptParams);
    if (ppScanInfo) *ppScanInfo = nullptr;

    Script sc;
    int failRc;
    {
        std::lock_guard<std::mutex> g(s.mu);
        countCall(s, TPEL_SCAN);
        s.lastScan = req;
        s.haveLastScan = true;
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

}  // extern "C"
