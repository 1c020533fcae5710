// mavxx_init.cpp - library start-up and shutdown: MavInit, MavEnd, MavReload,
// the process code page, and creating and releasing a MAV_CFG.
//
// Lock order: registry, then handle. MavEnd holds both for its whole end
// sequence, so it cannot deadlock against a reload of all handles (registry,
// then each handle) and no other thread finds the handle half ended.
#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "krncp.h"
#include "mavxxi.h"

namespace {

std::atomic<uint8_t> bThrInit{0};
std::once_flag thrInitOnce;

constexpr const char* kPlatform = "AMD/Intel x86_64 with Linux";
constexpr const char* kThreading = "mt";
constexpr const char* kCharSet = "ascii";

// Starts the thread service and the code-page library once per process. A
// failed start is not remembered: the next MavInit tries again.
bool StartProcess() {
    if (bThrInit.load(std::memory_order_acquire) != 0) return true;
    try {
        std::call_once(thrInitOnce, [] {
            ThrSetDllMode(1);
            if (ThrProcInit() != 0) throw std::runtime_error("thread service");
            rscpInit(-1);
            MavIXRegisterForkHandlers();
            bThrInit.store(1, std::memory_order_release);
        });
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

void FreeParams(PEL_PARAMS** params) {
    PEL_PARAMS* p = *params;
    if (p == nullptr) return;
    if (p->pParams != nullptr) {
        for (uint16_t i = 0; i < p->usNumParams; ++i) {
            PEL_PARAM* e = &p->pParams[i];
            // CHAR and OBJECT values are copies owned by the configuration.
            if ((e->tType == VS_TYPE_CHAR || e->tType == VS_TYPE_OBJECT) && e->pvValue != nullptr)
                MavIFree(e->pvValue);
        }
        MavIFree(p->pParams);
    }
    MavIFree(p);
    *params = nullptr;
}

// An empty copy of an adapter list: same count, entries zeroed.
bool AllocParams(const PEL_PARAMS* from, PEL_PARAMS** to) {
    PEL_PARAMS* p = static_cast<PEL_PARAMS*>(MavIAlloc(sizeof(PEL_PARAMS), true));
    *to = p;
    if (p == nullptr) return false;
    uint16_t count = from != nullptr ? from->usNumParams : 0;
    if (count == 0) return true;
    p->pParams = static_cast<PEL_PARAM*>(MavIAlloc(count * sizeof(PEL_PARAM), true));
    if (p->pParams == nullptr) return false;
    p->usNumParams = count;
    return true;
}

// Calls PelEnd with the handle's shared engine and its configuration.
MAV_RC EndAdapter(MAV_HDL_REC* hdl) {
    PEL_INIT** init = &hdl->pSharedInit;
    PEL_CONFIG** cfg = &hdl->pPelConfig;
    MAV_TRC(MAV_TRC_PEL, ">> PelEnd(%p,%p) >> \n", static_cast<void*>(init),
            static_cast<void*>(cfg));
    MAV_RC rc = hdl->pFunctions->pfnEnd(init, cfg);
    MAV_TRC(MAV_TRC_PEL, "<< PelEnd(%p,%p) = %d << \n", static_cast<void*>(init),
            static_cast<void*>(cfg), rc);
    return rc;
}

struct CleanupSearch {
    PEL_CLEANUP_FN pfnCleanup;
    bool bFound;
};

bool OtherUser(MAV_HDL_REC* h, void* ctx) {
    CleanupSearch* s = static_cast<CleanupSearch*>(ctx);
    if (h->pFunctions != nullptr && h->pFunctions->pfnCleanup == s->pfnCleanup) s->bFound = true;
    return !s->bFound;
}

// Ends what a failed start-up left of an unregistered handle. Best effort,
// results ignored: such a handle can always be ended. The adapter gets its
// PelEnd and, when no registered handle still uses it, its PelCleanup.
void TearDownFailedStart(MAV_HDL_REC* hdl) {
    PEL_FUNCTIONS* fns = hdl->pFunctions;
    if (fns != nullptr && (MAV_HDL_STATE(hdl) & MAV_HDL_STARTED) != 0) {
        if (fns->pfnEnd != nullptr) EndAdapter(hdl);
        if (fns->pfnCleanup != nullptr) {
            CleanupSearch s{fns->pfnCleanup, false};
            MavIXForEachHdl(OtherUser, &s);
            if (!s.bFound) {
                MAV_TRC(MAV_TRC_PEL, ">> PelCleanup() >> \n");
                MAV_RC rc = fns->pfnCleanup();
                MAV_TRC(MAV_TRC_PEL, "<< PelCleanup() = %d << \n", rc);
            }
        }
    }
    if (fns != nullptr || hdl->iDlHandle != -1) {
        if (hdl->iDlHandle != -1) {
            MavIUnLoadLib(&hdl->iDlHandle, fns);
        } else {
            MavIFree(fns);
        }
        hdl->pFunctions = nullptr;
    }
}

// Frees a handle's parts and recycles its record (marks wiped). Called with
// the handle locked, so a thread waiting for the lock finds it ended.
void FreeHandle(MAV_HDL_REC* hdl) {
    MavIXFreeCFG(&hdl->pCfg);
    if (hdl->pName != nullptr) {
        MavIFree(hdl->pName->pszName);
        MavIFree(hdl->pName);
        hdl->pName = nullptr;
    }
    MavIFree(hdl->pszTmpPath);
    hdl->pszTmpPath = nullptr;
    if (hdl->errors != nullptr) MavPFreeError(&hdl->errors, hdl->errorCount);
    hdl->errorCount = 0;
    MavIFree(hdl->pPool);
    hdl->pPool = nullptr;
    MavIXFreeRec(hdl);
}

}  // namespace

extern "C" {

// ---- MAV_CFG --------------------------------------------------------------------------

MAV_RC MavIXAllocCFG(const PEL_CONFIG* pelCfg, MAV_CFG** pcfg) {
    if (pcfg == nullptr) return MAV_E_NULL_PARAM;
    MAV_CFG* cfg = static_cast<MAV_CFG*>(MavIAlloc(sizeof(MAV_CFG), true));
    if (cfg == nullptr) return MAV_E_NO_SPACE;
    cfg->struct_size = MAV_CFG_SIZE;
    cfg->usActionCount = 0;
    cfg->uiDefaultAction = MAV_DEFAULT_ACTION;
    bool ok = false;
    cfg->pAux = static_cast<MAV_CFG_AUX*>(MavIAlloc(sizeof(MAV_CFG_AUX), true));
    if (cfg->pAux != nullptr) {
        cfg->pCallback = static_cast<PEL_CALLBACK*>(MavIAlloc(sizeof(PEL_CALLBACK), true));
    }
    if (cfg->pCallback != nullptr) {
        cfg->pCallback->struct_size = sizeof(PEL_CALLBACK);
        ok = AllocParams(pelCfg != nullptr ? pelCfg->pInitParams : nullptr, &cfg->pInitParams) &&
             AllocParams(pelCfg != nullptr ? pelCfg->pOptParams : nullptr, &cfg->pOptParams);
    }
    if (!ok) {
        MavIXFreeCFG(&cfg);
        return MAV_E_NO_SPACE;
    }
    if (pelCfg != nullptr) {
        if ((pelCfg->uiPelActionFlag & 0x10u) != 0) ++cfg->usActionCount;
        if ((pelCfg->uiPelActionFlag & 0x1u) != 0) ++cfg->usActionCount;
    }
    *pcfg = cfg;
    return MAV_OK;
}

MAV_RC MavIXFreeCFG(MAV_CFG** pcfg) {
    if (pcfg == nullptr) return MAV_E_NULL_PARAM;
    MAV_CFG* cfg = *pcfg;
    // The configurations a handle retired are chained to the one replacing
    // them (second reserved word).
    while (cfg != nullptr) {
        MAV_CFG* retired = reinterpret_cast<MAV_CFG*>(cfg->aReserved[1]);
        MavIXFreeRetired(cfg);
        FreeParams(&cfg->pInitParams);
        FreeParams(&cfg->pOptParams);
        MavIFree(cfg->pCallback);
        if (cfg->pAux != nullptr) {
            MavIFree(cfg->pAux->pEvents);
            MavIFree(cfg->pAux);
        }
        MavIFree(cfg);
        cfg = retired;
    }
    *pcfg = nullptr;
    return MAV_OK;
}

PEL_PARAMS* MavIXGetCfgInitParams(MAV_CFG* cfg) {
    return cfg != nullptr ? cfg->pInitParams : nullptr;
}

PEL_PARAMS* MavIXGetCfgOptParams(MAV_CFG* cfg) {
    return cfg != nullptr ? cfg->pOptParams : nullptr;
}

PEL_CALLBACK* MavIXGetCfgCallback(MAV_CFG* cfg) {
    return cfg != nullptr ? cfg->pCallback : nullptr;
}

// ---- Start-up ----------------------------------------------------------------------------

MAV_RC MavInit(const KORMO_CHAR* adapterPath, MAV_HANDLE* phdl) {
    if (!StartProcess()) {
        MAV_TRC_E("Thread Library could not be initialized.\n");
        return MAV_E_NO_SPACE;
    }
    MAV_TRC_ENTRY(">> start >> %s(%s,%p)\n", __func__,
                  adapterPath != nullptr ? adapterPath : "(NULL)", static_cast<void*>(phdl));
    MavIOpenDefaultTrace();
    uint32_t level = MavGetTraceLevel();
    if ((level & MAV_TRC_ERROR) == 0) MavSetTraceLevel(level | MAV_TRC_ERROR);

    if (phdl == nullptr) {
        MAV_TRC_E("NULL HANDLE passed to function. No initialization possible\n");
        MAV_TRC_EXIT(MAV_E_NULL_PARAM);
        return MAV_E_NULL_PARAM;
    }
    MavIPrintTraceAlways(__FILE__, __func__, __LINE__,
                         "%s(): Initializing the native Mavgate library (MAVLIB)\n", __func__);
    MavIPrintTraceAlways(
        __FILE__, __func__, __LINE__, "           %s (%s,%s,KORMO_CHAR/size_t/void* = %u/%u/%u)\n",
        kPlatform, kThreading, kCharSet, static_cast<unsigned>(sizeof(KORMO_CHAR) * 8),
        static_cast<unsigned>(sizeof(size_t) * 8), static_cast<unsigned>(sizeof(void*) * 8));
    MavIPrintTraceAlways(
        __FILE__, __func__, __LINE__, "%s(): PEL_LIB = \"%s\"\n", __func__,
        adapterPath != nullptr ? adapterPath : "(NULL) => use environment variable PEL_LIB");

    MAV_HDL_REC* hdl = MavIXAllocHdlRec();
    *phdl = hdl;
    if (hdl == nullptr) {
        MAV_TRC_EXIT(MAV_E_NO_SPACE);
        return MAV_E_NO_SPACE;
    }
    hdl->uiVersion = 2;
    hdl->iDlHandle = -1;
    hdl->uiFlag1 = 0;
    hdl->uiFlag2 = 1;

    MAV_RC rc = MAV_OK;
    int csRc = ThrCSInit2(hdl->pCS);  // a recycled block keeps its section
    if (csRc != THR_RC_OK && csRc != THR_RC_EXISTS) rc = MAV_E_NO_SPACE;
    if (rc == MAV_OK) {
        hdl->pPool = static_cast<MAV_INST_REC**>(MavIAlloc(sizeof(MAV_INST_REC*), true));
        if (hdl->pPool == nullptr) rc = MAV_E_NO_SPACE;
        MAV_HDL_POOL_SLOTS(hdl) = hdl->pPool != nullptr ? 1 : 0;
    }
    if (rc == MAV_OK) rc = MavILoadLib(adapterPath, hdl);
    if (rc == MAV_OK) {
        MAV_RC resolveRc = MavILoadFucs(hdl->iDlHandle, &hdl->pFunctions);
        rc = MavIStartPel(hdl, adapterPath, resolveRc);
    }
    if (rc == MAV_OK) rc = MavIGetConfig(hdl->pPelConfig, &hdl->pCfg);
    if (rc == MAV_OK) {
        rc = MavIXTracePELConfig(hdl);
        if (rc != MAV_OK) MAV_TRC_E("Error rc = %s in MavIXTracePELConfig\n", MavErrorName(rc));
    }
    if (rc == MAV_OK) {
        rc = MavIXAddHdl(hdl);
        if (rc != MAV_OK) MAV_TRC_E("Error rc = %s in MavIXAddHdl\n", MavErrorName(rc));
    }
    // The record stays with the caller, who ends it with MavEnd.
    if (rc != MAV_OK) MavIXFreeCFG(&hdl->pCfg);
    MAV_TRC_EXIT(rc);
    return rc;
}

// ---- Shutdown -------------------------------------------------------------------------------

MAV_RC MavEnd(MAV_HANDLE* phdl) {
    // Arguments first; a null handle is already ended.
    if (phdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle \n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(*phdl);
    if (hdl == nullptr) return MAV_OK;
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, static_cast<void*>(phdl));
    MAV_RC rc = MAV_OK;
    bool freed = false;
    if (MavIXRecKind(hdl) != MAV_REC_HANDLE) {
        rc = MAV_E_INVALID_HANDLE;
    } else if (!MavILockRegistry()) {
        rc = MAV_E_NO_SPACE;
    } else if (!MavILockHdl(hdl)) {
        // Ended by another thread meanwhile, or the lock failed.
        rc = MavIXRecKindByMarks(hdl) == MAV_REC_HANDLE ? MAV_E_NO_SPACE : MAV_E_INVALID_HANDLE;
        MavIUnlockRegistry();
    } else {
        THR_CRIT_SEC* cs = hdl->pCS;
        if (hdl->pInstList != nullptr || hdl->uiPooled != hdl->uiPoolFree) {
            rc = MAV_E_IN_PROGRESS;
        } else {
            rc = MavIXEndPooled(hdl, false);
            if (rc == MAV_OK && hdl->uiInstances != 0) rc = MAV_E_IN_PROGRESS;
        }
        if (rc == MAV_OK) {
            const bool registered = MavIXIsRegistered(hdl);
            PEL_FUNCTIONS* fns = hdl->pFunctions;
            if (registered && fns != nullptr && fns->pfnEnd != nullptr) {
                rc = EndAdapter(hdl);
                if (rc == MAV_OK) rc = MavIXCleanupPel(hdl);
                if (rc == MAV_OK) {
                    rc = MavIUnLoadLib(&hdl->iDlHandle, fns);
                    hdl->pFunctions = nullptr;  // freed whatever the result
                }
                if (rc == MAV_OK) rc = MavIXRemoveHdl(hdl);
            } else if (registered) {
                // No adapter table left (an earlier end failed after freeing it).
                if (hdl->iDlHandle != -1) MavIUnLoadLib(&hdl->iDlHandle, nullptr);
                rc = MavIXRemoveHdl(hdl);
            } else {
                TearDownFailedStart(hdl);
            }
            if (rc == MAV_OK) {
                FreeHandle(hdl);
                freed = true;
            }
        }
        ThrCSUnlock(cs);
        MavIUnlockRegistry();
        MavIXRecUnpin();  // taken by MavILockHdl; the last record gives the slabs back
    }
    if (freed) *phdl = nullptr;
    MAV_TRC(MAV_TRC_FUNCTION, "<<  end  << %s(mav_hdl=%p)(MAV_RC=%s) \n", __func__,
            static_cast<void*>(hdl), MavErrorName(rc));
    return rc;
}

// ---- Reload ------------------------------------------------------------------------------------

MAV_RC MavIReload(MAV_HDL_REC* hdl) {
    if (hdl == nullptr || MavIXRecKind(hdl) != MAV_REC_HANDLE) return MAV_E_INVALID_HANDLE;
    if (!MavILockHdl(hdl)) {
        return MavIXRecKindByMarks(hdl) == MAV_REC_HANDLE ? MAV_E_NO_SPACE : MAV_E_INVALID_HANDLE;
    }
    MAV_RC rc = MAV_OK;
    if (hdl->pInstList != nullptr) rc = MAV_E_IN_PROGRESS;
    for (size_t i = 0; rc == MAV_OK && hdl->pPool != nullptr && i < MAV_HDL_POOL_SLOTS(hdl); ++i) {
        if (hdl->pPool[i] != nullptr && hdl->pPool[i]->bInUse) rc = MAV_E_IN_PROGRESS;
    }
    if (rc == MAV_OK) {
        rc = MavIXEndPooled(hdl, false);
        if (rc != MAV_OK) {
            MAV_TRC_E("Fatal error in MavReload, ReleaseInstance (rc==%s)\n", MavErrorName(rc));
        }
    }
    if (rc == MAV_OK && hdl->uiInstances != 0) rc = MAV_E_IN_PROGRESS;
    if (rc == MAV_OK && hdl->pSharedInit != nullptr && hdl->pFunctions != nullptr &&
        hdl->pFunctions->pfnEnd != nullptr) {
        // A reload does not hand the configuration back.
        PEL_CONFIG* noCfg = nullptr;
        PEL_INIT** init = &hdl->pSharedInit;
        MAV_TRC(MAV_TRC_PEL, ">> PelEnd(%p,%p) >> \n", static_cast<void*>(init),
                static_cast<void*>(&noCfg));
        rc = hdl->pFunctions->pfnEnd(init, &noCfg);
        MAV_TRC(MAV_TRC_PEL, "<< PelEnd(%p,%p) = %d << \n", static_cast<void*>(init),
                static_cast<void*>(&noCfg), rc);
    }
    if (rc == MAV_OK) {
        hdl->pSharedInit = nullptr;
        rc = MavIXFillPool(hdl, false);
    }
    MavIUnlockHdl(hdl);
    return rc;
}

namespace {

bool ReloadOne(MAV_HDL_REC* hdl, void* ctx) {
    MAV_RC* first = static_cast<MAV_RC*>(ctx);
    MAV_RC rc = MavIReload(hdl);
    if (rc != MAV_OK) {
        MAV_TRC_W(" The adapter could not be reloaded, failed with rc=%s ! \n", MavErrorName(rc));
        if (*first == MAV_OK) *first = rc;
    }
    return true;
}

}  // namespace

MAV_RC MavIReloadAll(void) {
    if (MavIXGetHdlSize() == 0) {
        MAV_TRC_ENTRY(" MAVLIB is not initialized, no PEL loaded, nothing todo! \n");
        return MAV_OK;
    }
    if (!MavILockRegistry()) return MAV_E_NO_SPACE;
    MAV_RC first = MAV_OK;
    MavIXForEachHdl(ReloadOne, &first);
    MavIUnlockRegistry();
    return first;
}

MAV_RC MavReload(MAV_HANDLE hdl) {
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, hdl);
    MAV_RC rc = hdl != nullptr ? MavIReload(static_cast<MAV_HDL_REC*>(hdl)) : MavIReloadAll();
    MAV_TRC_EXIT(rc);
    return rc;
}

// ---- Process code page -------------------------------------------------------------------------

int MavSetProcessCodePage(const KORMO_CHAR* codePage) {
    if (codePage != nullptr && strlen(codePage) != 4) return 0;
    return SetProcessCodePageFromEnv(codePage) == 0 ? 1 : 0;
}

const KORMO_CHAR* MavGetProcessCodePage(void) {
    return GetProcessCodePageU();
}

}  // extern "C"
