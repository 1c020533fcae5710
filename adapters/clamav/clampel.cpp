/*
 * clampel.cpp - the seven entry points of the ClamAV adapter.
 *
 * One compiled libclamav engine per handle (thread model 2): PelInit loads and
 * compiles the databases once, all instances of the handle scan on it at the
 * same time. Scan parameters come with every PelScan and apply to that scan.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder): the adapter links libclamav.
 */
#include <clamav.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string>

#include "clam_common.h"
#include "clam_engine.h"
#include "clam_result.h"
#include "kormopel.h"

namespace clampel {
namespace {

constexpr uint32_t kAdapterId = 0x434c4d01u;  // "CLM", 1
constexpr uint16_t kVersionMajor = 1;
constexpr uint16_t kVersionMinor = 0;
const char kEmpty[] = "";

// Adapter-wide state: the configuration reported to every handle, and the
// PEL_INIT records of failed PelInit calls, which the library keeps reading
// but never hands back; they are freed at PelCleanup.
struct Global {
    std::mutex lock;
    bool started = false;
    EngineDefaults defaults;
    std::string vendor;
    std::string dbDir;  // reported default of INITDRIVERDIRECTORY
    PEL_ADAPTERINFO info;
    PEL_PARAM initParams[2];
    PEL_PARAM optParams[8];
    PEL_PARAMS initList;
    PEL_PARAMS optList;
    PEL_CONFIG config;
    std::set<Engine*> failed;
};

Global& G() {
    static Global* g = new Global();  // lives as long as the process: no exit-order issues
    return *g;
}

PEL_PARAM Param(int32_t code, int32_t type, uint64_t value) {
    PEL_PARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tCode = code;
    p.tType = type;
    p.lLength = type == VS_TYPE_BOOL ? 1 : type == VS_TYPE_INT ? 4 : 8;
    p.pvValue = reinterpret_cast<void*>(static_cast<uintptr_t>(value));
    return p;
}

PEL_PARAM TextParam(int32_t code, const char* text) {
    PEL_PARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tCode = code;
    p.tType = VS_TYPE_CHAR;
    p.lLength = std::strlen(text);
    p.pvValue = const_cast<char*>(text);
    return p;
}

// Builds the configuration once; the defaults are those of a fresh engine.
int Start() {
    Global& g = G();
    std::lock_guard<std::mutex> l(g.lock);
    if (g.started) return kOk;
    if (cl_init(CL_INIT_DEFAULT) != CL_SUCCESS) return kNotInitialised;
    InstallMessageHandler();
    cl_engine* probe = cl_engine_new();
    if (probe == nullptr) return kNoSpace;
    Limits& d = g.defaults.limits;
    d.maxFileSize =
        static_cast<uint64_t>(cl_engine_get_num(probe, CL_ENGINE_MAX_FILESIZE, nullptr));
    d.maxScanSize =
        static_cast<uint64_t>(cl_engine_get_num(probe, CL_ENGINE_MAX_SCANSIZE, nullptr));
    d.maxDepth = static_cast<uint32_t>(cl_engine_get_num(probe, CL_ENGINE_MAX_RECURSION, nullptr));
    d.maxTimeMs = static_cast<uint32_t>(cl_engine_get_num(probe, CL_ENGINE_MAX_SCANTIME, nullptr));
    cl_engine_free(probe);

    g.vendor = std::string("libkormomav ClamAV adapter (GPL-2.0) on libclamav ") + cl_retver();
    std::memset(&g.info, 0, sizeof g.info);
    g.info.struct_size = sizeof g.info;
    g.info.uiAdapterID = kAdapterId;
    g.info.uiThreadModel = 2;
    g.info.usMavVersion = PEL_MAV_VERSION;
    g.info.usPelMajorVersion = kVersionMajor;
    g.info.usPelMinorVersion = kVersionMinor;
    g.info.pszVendorInfo = g.vendor.c_str();
    g.info.pszAdapterName = "clamav";

    g.dbDir = DefaultDbDir();
    g.initParams[0] = TextParam(VS_P_INITDRIVERDIRECTORY, g.dbDir.c_str());
    g.initParams[1] = TextParam(VS_P_INITTEMP_PATH, kEmpty);
    g.optParams[0] = Param(VS_P_SCANLIMIT, VS_TYPE_SIZE_T, d.maxFileSize);
    g.optParams[1] = Param(VS_P_SCANEXTRACT_SIZE, VS_TYPE_SIZE_T, d.maxScanSize);
    g.optParams[2] = Param(VS_P_SCANEXTRACT_DEPTH, VS_TYPE_INT, d.maxDepth);
    g.optParams[3] = Param(VS_P_SCANEXTRACT_TIME, VS_TYPE_INT, d.maxTimeMs);
    g.optParams[4] = Param(VS_P_SCANALLEMBEDDED, VS_TYPE_BOOL, 1);
    g.optParams[5] = Param(VS_P_SCANHEURISTICLEVEL, VS_TYPE_INT, 1);
    g.optParams[6] = TextParam(VS_P_BLOCKMIMETYPES, kEmpty);
    g.optParams[7] = TextParam(VS_P_BLOCKEXTENSIONS, kEmpty);
    std::memset(&g.initList, 0, sizeof g.initList);
    g.initList.usNumParams = 2;
    g.initList.pParams = g.initParams;
    std::memset(&g.optList, 0, sizeof g.optList);
    g.optList.usNumParams = 8;
    g.optList.pParams = g.optParams;

    std::memset(&g.config, 0, sizeof g.config);
    g.config.struct_size = sizeof g.config;
    g.config.pAdapterInfo = &g.info;
    g.config.uiPelScanFlag = PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY;
    g.config.uiPelActionFlag = VS_A_SCAN | VS_A_CHECK_MIME;
    g.config.uiPelEventFlag =
        VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR | VS_M_OBJECTFOUND;
    g.config.pInitParams = &g.initList;
    g.config.pOptParams = &g.optList;
    g.started = true;
    return kOk;
}

}  // namespace
}  // namespace clampel

using namespace clampel;

extern "C" {

PEL_EXPORT int PelStartup(void) {
    try {
        return Start();
    } catch (...) {
        return kNoSpace;
    }
}

PEL_EXPORT int PelGetConfig(PEL_CONFIG** ppConfig) {
    if (ppConfig == nullptr) return kNullParam;
    int rc = PelStartup();
    *ppConfig = rc == kOk ? &G().config : nullptr;
    return rc;
}

PEL_EXPORT int PelInit(PEL_CALLBACK* /*pCallback*/, PEL_INITPARAMS* pInitParams,
                       PEL_INIT** ppInit) {
    if (ppInit == nullptr) return kNullParam;
    *ppInit = nullptr;
    try {
        int rc = PelStartup();
        if (rc != kOk) return rc;
        Engine* engine = nullptr;
        rc = Engine::Create(pInitParams, G().defaults, &engine);
        *ppInit = engine->Init();
        if (rc != kOk) {
            std::lock_guard<std::mutex> l(G().lock);
            G().failed.insert(engine);
        }
        return rc;
    } catch (...) {
        return kNoSpace;
    }
}

PEL_EXPORT int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pScanParam,
                       PEL_OPTPARAMS* pOptParams, PEL_SCANINFO** ppScanInfo) {
    if (ppScanInfo != nullptr) *ppScanInfo = nullptr;
    Engine* engine = Engine::FromInit(pInit);
    if (engine == nullptr) return pInit == nullptr ? kNullParam : kNotInitialised;
    if (pInit->hEngine == nullptr) return kNotInitialised;  // a failed PelInit
    try {
        return engine->Scan(pCallback, pScanParam, pOptParams, ppScanInfo);
    } catch (...) {
        return kNoSpace;
    }
}

PEL_EXPORT int PelReleaseScan(PEL_SCANINFO** ppScanInfo) {
    if (ppScanInfo == nullptr) return kNullParam;
    if (*ppScanInfo == nullptr) return kOk;
    ScanResult* r = ScanResult::FromInfo(*ppScanInfo);
    if (r == nullptr) return kInvalidParam;
    delete r;
    *ppScanInfo = nullptr;
    return kOk;
}

PEL_EXPORT int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** /*ppConfig*/) {
    if (ppInit == nullptr) return kNullParam;
    if (*ppInit == nullptr) return kOk;
    Engine* engine = Engine::FromInit(*ppInit);
    if (engine == nullptr) return kInvalidParam;
    {
        std::lock_guard<std::mutex> l(G().lock);
        G().failed.erase(engine);
    }
    delete engine;
    *ppInit = nullptr;
    return kOk;
}

PEL_EXPORT int PelCleanup(void) {
    std::set<Engine*> failed;
    {
        std::lock_guard<std::mutex> l(G().lock);
        failed.swap(G().failed);
    }
    for (Engine* e : failed) delete e;
    return kOk;
}

}  // extern "C"
