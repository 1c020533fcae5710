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

#include <mutex>
#include <new>
#include <string>

#include "clam_common.h"
#include "clam_engine.h"
#include "kormopel.h"
#include "pel_entry.h"
#include "pel_init.h"

namespace clampel {
namespace {

constexpr uint32_t kAdapterId = 0x434c4d01u;  // "CLM", 1
constexpr uint16_t kVersionMajor = 1;
constexpr uint16_t kVersionMinor = 0;
const char kEmpty[] = "";

// Adapter-wide state: the configuration reported to every handle, and the
// engines of failed PelInit calls.
struct Global : AdapterState<Engine, 2, 8> {
    EngineDefaults defaults;
    std::string vendor;
    std::string dbDir;  // reported default of INITDRIVERDIRECTORY
};
Global& G() { return ProcessState<Global>(); }

// Builds the configuration; the defaults are those of a fresh engine.
int Build(Global& g) {
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
    g.info = AdapterInfo(kAdapterId, 2, kVersionMajor, kVersionMinor, g.vendor.c_str(), "clamav");

    g.dbDir = DefaultDbDir();
    g.initParams[0] = TextParam(VS_P_INITDRIVERDIRECTORY, g.dbDir.c_str());
    g.initParams[1] = TextParam(VS_P_INITTEMP_PATH, kEmpty);
    g.optParams[0] = NumberParam(VS_P_SCANLIMIT, VS_TYPE_SIZE_T, d.maxFileSize);
    g.optParams[1] = NumberParam(VS_P_SCANEXTRACT_SIZE, VS_TYPE_SIZE_T, d.maxScanSize);
    g.optParams[2] = NumberParam(VS_P_SCANEXTRACT_DEPTH, VS_TYPE_INT, d.maxDepth);
    g.optParams[3] = NumberParam(VS_P_SCANEXTRACT_TIME, VS_TYPE_INT, d.maxTimeMs);
    g.optParams[4] = NumberParam(VS_P_SCANALLEMBEDDED, VS_TYPE_BOOL, 1);
    g.optParams[5] = NumberParam(VS_P_SCANHEURISTICLEVEL, VS_TYPE_INT, 1);
    g.optParams[6] = TextParam(VS_P_BLOCKMIMETYPES, kEmpty);
    g.optParams[7] = TextParam(VS_P_BLOCKEXTENSIONS, kEmpty);
    g.Publish(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, VS_A_SCAN | VS_A_CHECK_MIME,
              VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR | VS_M_OBJECTFOUND);
    return kOk;
}

// The entry points, over the common frame (pel_entry.h).
struct Adapter : StateMembers<Global, G> {
    using Owner = Engine;
    static constexpr uint32_t kResultMark = clampel::kResultMark;
    static int Start() { return Global::Once(G(), Build); }
    static int Create(const PEL_INITPARAMS* params, Engine** owner) {
        return Engine::Create(params, G().defaults, owner);
    }
    static void Stop() {}
};

}  // namespace
}  // namespace clampel

PEL_DEFINE_ENTRY_POINTS(clampel::Adapter)
