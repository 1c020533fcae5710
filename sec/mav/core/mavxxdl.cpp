// mavxxdl.cpp - choosing, opening and closing the adapter file, resolving its
// seven entry points, and the adapter's global start and cleanup.
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "krndl.h"
#include "mavxxi.h"

namespace {

constexpr const char* kPelLibVar = "PEL_LIB";
constexpr const char* kDefaultLib1 = "libkormopel.so";
constexpr const char* kDefaultLib2 = "libkormocsa.so";

// Entry point names in slot order, ended by an empty name.
struct PelEntry {
    const char* pszName;
    int iSlot;
};
constexpr PelEntry kPelEntries[] = {
    {"PelStartup", 0},     {"PelGetConfig", 1}, {"PelInit", 2},    {"PelScan", 3},
    {"PelReleaseScan", 4}, {"PelEnd", 5},       {"PelCleanup", 6}, {"", -1},
};
static_assert(sizeof(PEL_FUNCTIONS) == 7 * sizeof(void*), "PEL_FUNCTIONS layout");

// Opens fileName; *rc receives the loader's code.
bool Open(const char* fileName, MAV_HDL_REC* hdl, int* rc) {
    int dl = -1;
    *rc = DlLoadLib(fileName, &dl);
    hdl->iDlHandle = *rc == 0 ? dl : -1;
    return *rc == 0;
}

// Opens a default adapter name: first the file of that name beside this
// library (the installed pair; also found when the loader's caller is not this
// library, as under sanitizers), then in the private adapter folder "kormomav"
// beside it (where the packages install adapters), else through the loader's
// search path. Fixed buffers: MavInit must not meet std::bad_alloc.
bool OpenDefault(const char* name, MAV_HDL_REC* hdl, int* rc) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&MavILoadLib), &info) != 0 && info.dli_fname != nullptr) {
        const char* slash = strrchr(info.dli_fname, '/');
        static const char* const kSubdirs[] = {"", "kormomav/"};
        for (const char* sub : kSubdirs) {
            char path[PATH_MAX];
            if (slash != nullptr &&
                static_cast<size_t>(snprintf(path, sizeof path, "%.*s%s%s",
                                             static_cast<int>(slash + 1 - info.dli_fname),
                                             info.dli_fname, sub, name)) < sizeof path &&
                access(path, F_OK) == 0 && Open(path, hdl, rc))
                return true;
        }
    }
    return Open(name, hdl, rc);
}

}  // namespace

extern "C" {

MAV_RC MavILoadLib(const KORMO_CHAR* path, MAV_HDL_REC* hdl) {
    if (hdl == nullptr) {
        MAV_TRC_E("Null parameter for MAV handle \n");
        return MAV_E_NULL_PARAM;
    }
    int rc = 0;
    if (path != nullptr && path[0] != '\0') {
        MAV_TRC(MAV_TRC_PEL, "Loading adapter: \"%s\"\n", path);
        // A bare file name is looked for where the adapters are installed
        // before the loader's path, as the default names are.
        if (strchr(path, '/') == nullptr ? OpenDefault(path, hdl, &rc) : Open(path, hdl, &rc))
            return MAV_OK;
    } else {
        const char* env = getenv(kPelLibVar);
        if (env != nullptr && env[0] != '\0' && env[0] != ' ') {
            MAV_TRC(MAV_TRC_PEL, "Loading adapter using environment variable %s: \"%s\"\n",
                    kPelLibVar, env);
            if (strchr(env, '/') == nullptr ? OpenDefault(env, hdl, &rc) : Open(env, hdl, &rc))
                return MAV_OK;
        } else {
            // The default names only when neither a path nor the variable is given.
            if (OpenDefault(kDefaultLib1, hdl, &rc)) return MAV_OK;
            if (OpenDefault(kDefaultLib2, hdl, &rc)) return MAV_OK;
            MavPAddError(hdl,
                         "Could not load any library. Neither the adapter path nor an "
                         "environment variable was set.",
                         rc);
            MAV_TRC_E(
                "Neither the adapter path nor the environment variable %s was set. \nCould not "
                "load an adapter library...\n",
                kPelLibVar);
            return MAV_E_PEL_LOAD_FAILED;
        }
    }
    MAV_TRC(MAV_TRC_PEL, "Load of adapter failed. DlLoadLib return rc=%d\n", rc);
    // Copied at once: the store is only valid until the next kernel call.
    // A fixed buffer (MavInit must not meet std::bad_alloc); a loader text
    // longer than it is cut.
    const char* last = ErrGetLastText();
    char text[4096];
    snprintf(text, sizeof text, "%s", last != nullptr ? last : "");
    if (text[0] == '\0') return MAV_E_PEL_LOAD_FAILED;
    MAV_TRC_E("Adapter library not loaded because >>>%s<<<\n", text);
    MavPAddError(hdl, text, 0);
    ErrClear();
    return MAV_E_PEL_LOAD_FAILED;
}

MAV_RC MavILoadFucs(int dlHandle, PEL_FUNCTIONS** table) {
    if (dlHandle == -1) {
        MAV_TRC_E("DL handle invalid\n");
        return MAV_E_INVALID_HANDLE;
    }
    if (table == nullptr) {
        MAV_TRC_E("The loading library of the interface failed, no function pointer provided\n");
        return MAV_E_PEL_LOAD_FAILED;
    }
    PEL_FUNCTIONS* fns = static_cast<PEL_FUNCTIONS*>(MavIAlloc(sizeof(PEL_FUNCTIONS), true));
    *table = fns;
    if (fns == nullptr) return MAV_E_NO_SPACE;
    char* slots = reinterpret_cast<char*>(fns);
    for (const PelEntry* e = kPelEntries; e->pszName[0] != '\0'; ++e) {
        void* fn = nullptr;
        if (DlLoadFunc(dlHandle, e->pszName, &fn) != 0) fn = nullptr;
        memcpy(slots + e->iSlot * sizeof(void*), &fn, sizeof fn);
        if (fn == nullptr) {
            MAV_TRC_E("The loading of function \"%s\" in adapter failed!\n", e->pszName);
            return MAV_E_PEL_LOAD_FAILED;
        }
        MAV_TRC(MAV_TRC_PEL, "The loading of function \"%s\" in adapter was successful.\n",
                e->pszName);
    }
    MAV_TRC(MAV_TRC_PEL, "All functions in the adapter were loaded successfully.\n");
    return MAV_OK;
}

MAV_RC MavIUnLoadLib(int* dlHandle, PEL_FUNCTIONS* table) {
    if (table != nullptr) MavIFree(table);
    if (dlHandle == nullptr || *dlHandle == -1) {
        MAV_TRC_E("DL handle invalid\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_TRC(MAV_TRC_PEL, "Unloading adapter ...\n");
    return DlUnloadLib(dlHandle) == 0 ? MAV_OK : MAV_E_INVALID_HANDLE;
}

namespace {

struct SameAdapter {
    uint32_t uiAdapterID;
    int iCount;
};

bool CountSameAdapter(MAV_HDL_REC* h, void* ctx) {
    SameAdapter* s = static_cast<SameAdapter*>(ctx);
    if (h->uiAdapterID == s->uiAdapterID) ++s->iCount;
    return s->iCount < 2;
}

}  // namespace

MAV_RC MavIXCleanupPel(MAV_HDL_REC* hdl) {
    if (hdl == nullptr || MavIXGetHdlSize() == 0) return MAV_E_INVALID_HANDLE;
    // Held while counting and while PelCleanup runs: two handles of one
    // adapter cannot both find that they are the last.
    if (!MavILockRegistry()) return MAV_E_NO_SPACE;
    SameAdapter same{hdl->uiAdapterID, 0};
    MavIXForEachHdl(CountSameAdapter, &same);
    MAV_RC rc = MAV_OK;
    // Checks PelEnd's slot and calls PelCleanup's: both are set once resolved.
    if (same.iCount == 1 && hdl->pFunctions != nullptr && hdl->pFunctions->pfnEnd != nullptr &&
        hdl->pFunctions->pfnCleanup != nullptr) {
        MAV_TRC(MAV_TRC_PEL, ">> PelCleanup() >> \n");
        rc = hdl->pFunctions->pfnCleanup();
        MAV_TRC(MAV_TRC_PEL, "<< PelCleanup() = %d << \n", rc);
    }
    MavIUnlockRegistry();
    return rc;
}

MAV_RC MavIStartPel(MAV_HDL_REC* hdl, const KORMO_CHAR* path, MAV_RC resolveRc) {
    if (hdl == nullptr) return MAV_E_NULL_PARAM;
    if (resolveRc != MAV_OK) {
        if (path != nullptr && path[0] != '\0') {
            char msg[4096];
            snprintf(msg, sizeof msg,
                     "No PEL functions available in library %s. This library is no Rondo-MAV "
                     "adapter, see the support note on installing an adapter.",
                     path);
            MAV_TRC_E("%s\n", msg);
            MavPAddError(hdl, msg, resolveRc);
        } else {
            MavPAddError(hdl, "No PEL functions available. This library is no Rondo-MAV adapter.",
                         resolveRc);
        }
        return resolveRc;
    }
    PEL_FUNCTIONS* fns = hdl->pFunctions;
    if (fns == nullptr) return MAV_E_PEL_LOAD_FAILED;

    MAV_TRC(MAV_TRC_PEL, ">> PelStartup() >> \n");
    MAV_RC rc = fns->pfnStartup != nullptr ? fns->pfnStartup() : MAV_E_INVALID_PARAM;
    MAV_TRC(MAV_TRC_PEL, "<< PelStartup() = %d << \n", rc);
    if (rc != MAV_OK) {
        MAV_TRC_E("Global adapter initialization (PelStartup) failed with rc = %d\n", rc);
        MavPAddError(hdl,
                     "Global adapter initialization in PelStartup failed. Please contact PEL "
                     "vendor.",
                     rc);
        return rc;
    }
    MAV_HDL_STATE(hdl) |= MAV_HDL_STARTED;

    PEL_CONFIG* cfg = nullptr;
    MAV_TRC(MAV_TRC_PEL, ">> PelGetConfig(%p) >> \n", static_cast<void*>(&cfg));
    if (fns->pfnGetConfig != nullptr) rc = fns->pfnGetConfig(&cfg);
    MAV_TRC(MAV_TRC_PEL, "<< PelGetConfig(%p) = %d << \n", static_cast<void*>(&cfg), rc);
    hdl->pPelConfig = cfg;
    if (rc != MAV_OK) {
        MAV_TRC_E("PelGetConfig failed with rc = %d\n", rc);
        MavPAddError(hdl, "Adapter function PelGetConfig failed. Please contact PEL vendor.", rc);
        return rc;
    }

    const PEL_ADAPTERINFO* info = cfg != nullptr ? cfg->pAdapterInfo : nullptr;
    if (info != nullptr) {
        hdl->uiAdapterID = info->uiAdapterID;
        if (info->usMavVersion > MAV_INTERFACE_VERSION) {
            MavPAddError(hdl, "Supported adapter version not compatible to Rondo-MAV 2.00 version",
                         MAV_E_NOT_SUPPORTED);
            MAV_TRC_E("Supported adapter version %d not compatible to Rondo-MAV version %d.\n",
                      info->usMavVersion, MAV_INTERFACE_VERSION);
            return MAV_E_NOT_SUPPORTED;
        }
    }
    return MAV_OK;
}

}  // extern "C"
