// mavxx_inst.cpp - instances and pools of a handle.
//
// A handle's pool array has MAV_HDL_POOL_SLOTS slots (never fewer than
// uiPoolSize); pooled instances sit in non-null slots, so uiPooled is the
// number of non-null slots. Instances beyond the pool are on pInstList. All of
// it is guarded by the handle's critical section; adapter calls that create or
// end engine instances run under it.
#include <cstring>

#include "mavxxi.h"

namespace {

bool SharedModel(const MAV_HDL_REC* hdl) {
    const PEL_CONFIG* cfg = hdl->pPelConfig;
    const PEL_ADAPTERINFO* info = cfg != nullptr ? cfg->pAdapterInfo : nullptr;
    return info != nullptr && (info->uiThreadModel == 1 || info->uiThreadModel == 2);
}

size_t Slots(const MAV_HDL_REC* hdl) {
    return hdl->pPool != nullptr ? MAV_HDL_POOL_SLOTS(hdl) : 0;
}

// Calls PelEnd for *init with a null configuration pointer, traced.
MAV_RC EndEngine(const PEL_FUNCTIONS* fns, PEL_INIT** init) {
    PEL_CONFIG* noCfg = nullptr;
    MAV_TRC(MAV_TRC_PEL, ">> PelEnd(%p,%p) >> \n", static_cast<void*>(init),
            static_cast<void*>(&noCfg));
    MAV_RC rc = fns->pfnEnd(init, &noCfg);
    MAV_TRC(MAV_TRC_PEL, "<< PelEnd(%p,%p) = %d << \n", static_cast<void*>(init),
            static_cast<void*>(&noCfg), rc);
    return rc;
}

// Takes the vendor's reason of a failed PelInit into the trace and the
// handle's error list.
void TakeVendorError(MAV_HDL_REC* hdl, const PEL_INIT* init) {
    if (init == nullptr || init->pszErrorText == nullptr) return;
    MAV_TRC_FN(
        MAV_TRC_ERROR, "MavICreateInstance",
        "PelInit failed with \n                vendor internal rc = [%d]\n                vendor "
        "reason = [%s]\n",
        init->iErrorRC, init->pszErrorText);
    KORMO_CHAR* text = nullptr;
    if (MavICharToKORMO(&text, init->pszErrorText) > 0) {
        MavPAddError(hdl, text, init->iErrorRC);
    } else {
        MavPAddError(hdl, init->pszErrorText, init->iErrorRC);
    }
    MavIFree(text);
}

// Index of inst in the pool array, searching the first limit slots; -1 when
// not there.
long FindSlot(const MAV_HDL_REC* hdl, const MAV_INST_REC* inst, size_t limit) {
    size_t n = Slots(hdl) < limit ? Slots(hdl) : limit;
    for (size_t i = 0; i < n; ++i) {
        if (hdl->pPool[i] == inst) return static_cast<long>(i);
    }
    return -1;
}

// Puts a new instance into the first empty slot (one exists while
// uiPooled < uiPoolSize <= slots).
bool PutInPool(MAV_HDL_REC* hdl, MAV_INST_REC* inst) {
    for (size_t i = 0; i < Slots(hdl); ++i) {
        if (hdl->pPool[i] == nullptr) {
            hdl->pPool[i] = inst;
            return true;
        }
    }
    return false;
}

// The first free pooled instance in pool order, or null.
MAV_INST_REC* FirstFree(const MAV_HDL_REC* hdl) {
    for (size_t i = 0; i < Slots(hdl); ++i) {
        MAV_INST_REC* p = hdl->pPool[i];
        if (p != nullptr && p->bPooled && !p->bInUse) return p;
    }
    return nullptr;
}

void HandOut(MAV_HDL_REC* hdl, MAV_INST_REC* inst) {
    inst->bInUse = 1;
    inst->uiThreadId = ThrGetCurrentId();
    --hdl->uiPoolFree;
}

// Creates an instance and makes it a free pool member (MavLoadPool, reload).
// With ownConfig it gets its own configuration, a copy of the handle's values
// as they are now (never the adapter's defaults: a pool must not undo what
// the caller set on the handle).
MAV_RC AddFreePooled(MAV_HDL_REC* hdl, bool ownConfig) {
    MAV_INST_REC* inst = nullptr;
    MAV_CFG* own = nullptr;
    MAV_RC rc = MavICreateInstance(hdl, &inst);
    if (rc == MAV_OK && ownConfig) rc = MavIXAssignHdlToCFG(inst, &own);
    if (rc == MAV_OK && !PutInPool(hdl, inst)) rc = MAV_E_NO_SPACE;
    if (rc != MAV_OK) {
        MavIXDiscardInst(&inst);
        return rc;
    }
    inst->bPooled = 1;
    inst->bInUse = 0;
    inst->uiThreadId = MAV_THREAD_NONE;
    ++hdl->uiPooled;
    ++hdl->uiPoolFree;
    ++hdl->uiInstances;
    return MAV_OK;
}

// Copies the parameter values of from over the same entries of to (both
// built from one PEL_CONFIG; to not yet shared).
MAV_RC CopyValues(const MAV_CFG* from, MAV_CFG* to) {
    const PEL_PARAMS* src[2] = {from->pInitParams, from->pOptParams};
    PEL_PARAMS* dst[2] = {to->pInitParams, to->pOptParams};
    for (int l = 0; l < 2; ++l) {
        if (src[l] == nullptr || dst[l] == nullptr || src[l]->pParams == nullptr ||
            dst[l]->pParams == nullptr)
            continue;
        uint16_t n = src[l]->usNumParams < dst[l]->usNumParams ? src[l]->usNumParams
                                                               : dst[l]->usNumParams;
        for (uint16_t i = 0; i < n; ++i) {
            const PEL_PARAM* p = &src[l]->pParams[i];
            MAV_RC rc = MavIXCopyParameter(&dst[l]->pParams[i], p->tCode, p, l == 0, nullptr);
            if (rc != MAV_OK) return rc;
        }
    }
    return MAV_OK;
}

// Calls fn for every instance of the handle (pooled and listed).
template <typename Fn>
void ForEachInst(MAV_HDL_REC* hdl, Fn&& fn) {
    for (size_t i = 0; i < Slots(hdl); ++i) {
        if (hdl->pPool[i] != nullptr) fn(hdl->pPool[i]);
    }
    for (MAV_INST_NODE* n = hdl->pInstList; n != nullptr; n = n->pNext) fn(n->pInst);
}

// A new configuration holding the handle's current values, flags, callback
// record and (a copy of) its event registration. With the handle locked.
MAV_RC CopyHandleCfg(MAV_HDL_REC* hdl, MAV_CFG** out) {
    MAV_CFG* cfg = nullptr;
    MAV_RC rc = MavIXAllocCFG(hdl->pPelConfig, &cfg);
    if (rc == MAV_OK && hdl->pPelConfig != nullptr)
        rc = MavIXSetDefaultConfig(hdl->pPelConfig, cfg);
    const MAV_CFG* from = hdl->pCfg;
    // The copy starts from the handle's values as they are now.
    if (rc == MAV_OK && from != nullptr) rc = CopyValues(from, cfg);
    if (rc == MAV_OK && from != nullptr) {
        cfg->uiDefaultAction = MavICfgAction(from);
        cfg->usActionCount = from->usActionCount;
        cfg->bNoScanInfo = MavICfgFlag(&from->bNoScanInfo);
        cfg->bNotScannedAsWarning = MavICfgFlag(&from->bNotScannedAsWarning);
        // Each configuration owns its own event registration.
        const MAV_EVENT_REG* reg = from->pAux != nullptr ? from->pAux->pEvents : nullptr;
        if (reg != nullptr) {
            MAV_EVENT_REG* copy = static_cast<MAV_EVENT_REG*>(MavIAlloc(sizeof *copy, true));
            if (copy == nullptr) {
                rc = MAV_E_NO_SPACE;
            } else {
                memcpy(copy, reg, sizeof *copy);
                cfg->pAux->pEvents = copy;
            }
        }
        if (rc == MAV_OK && from->pCallback != nullptr) {
            *cfg->pCallback = *from->pCallback;
            if (cfg->pCallback->pvContext == from) cfg->pCallback->pvContext = cfg;
        }
    }
    if (rc != MAV_OK) {
        MavIXFreeCFG(&cfg);
        return rc;
    }
    *out = cfg;
    return MAV_OK;
}

}  // namespace

extern "C" {

// ---- Internals ----------------------------------------------------------------------

MAV_RC MavICreateInstance(MAV_HDL_REC* hdl, MAV_INST_REC** pinst) {
    if (hdl == nullptr || pinst == nullptr) return MAV_E_NULL_PARAM;
    MAV_INST_REC* inst = MavIXAllocInstRec(false);
    *pinst = inst;
    if (inst == nullptr) return MAV_E_NO_SPACE;
    inst->pHdl = hdl;
    inst->pCfg = hdl->pCfg;
    inst->uiThreadId = ThrGetCurrentId();
    inst->sCallback.struct_size = sizeof(PEL_CALLBACK);
    const bool shared = SharedModel(hdl);
    if (shared) inst->pPelInit = hdl->pSharedInit;

    const PEL_FUNCTIONS* fns = hdl->pFunctions;
    // A handle whose start-up failed has no configuration: no engine for it.
    if (fns == nullptr || fns->pfnInit == nullptr || hdl->pCfg == nullptr) {
        return MAV_E_NOT_INITIALISED;
    }
    if (inst->pPelInit == nullptr) {
        PEL_CALLBACK* cb = MavIXGetCfgCallback(hdl->pCfg);
        PEL_PARAMS* params = MavIXGetCfgInitParams(hdl->pCfg);
        MAV_TRC(MAV_TRC_PEL, ">> PelInit(%p,%p,%p) >> \n", static_cast<void*>(cb),
                static_cast<void*>(params), static_cast<void*>(&inst->pPelInit));
        MAV_RC rc = fns->pfnInit(cb, params, &inst->pPelInit);
        MAV_TRC(MAV_TRC_PEL, "<< PelInit(%p,%p,%p) = %d << \n", static_cast<void*>(cb),
                static_cast<void*>(params), static_cast<void*>(&inst->pPelInit), rc);
        if (rc != MAV_OK) {
            TakeVendorError(hdl, inst->pPelInit);
            // The failed record goes back to the adapter: the instance is
            // discarded by the caller and nothing else could end it.
            if (inst->pPelInit != nullptr && fns->pfnEnd != nullptr) {
                EndEngine(fns, &inst->pPelInit);
            }
            inst->pPelInit = nullptr;
            return rc;
        }
        MAV_RC drc = MavIXTracePELEngine(inst);
        if (drc != MAV_OK) MAV_TRC_E("Error rc = %s in MavIXTracePELEngine\n", MavErrorName(drc));
    }
    if (shared && hdl->pSharedInit == nullptr) hdl->pSharedInit = inst->pPelInit;
    return MAV_OK;
}

MAV_RC MavIReleaseInstance(MAV_INST_REC** pinst) {
    if (pinst == nullptr || *pinst == nullptr) return MAV_E_NULL_PARAM;
    MAV_INST_REC* inst = *pinst;
    MAV_HDL_REC* hdl = inst->pHdl;
    const PEL_FUNCTIONS* fns = hdl != nullptr ? hdl->pFunctions : nullptr;
    if (fns == nullptr || fns->pfnReleaseScan == nullptr || fns->pfnEnd == nullptr) {
        return MAV_E_NOT_INITIALISED;  // the caller frees it without the adapter
    }
    if (inst->pScanInfo != nullptr) {
        MAV_TRC(MAV_TRC_PEL, ">> PelReleaseScan(%p) >> \n", static_cast<void*>(&inst->pScanInfo));
        MAV_RC rc = fns->pfnReleaseScan(&inst->pScanInfo);
        MAV_TRC(MAV_TRC_PEL, "<< PelReleaseScan(%p) = %d << \n",
                static_cast<void*>(&inst->pScanInfo), rc);
        if (rc != MAV_OK) return rc;
    }
    if (!SharedModel(hdl) && inst->pPelInit != nullptr) return EndEngine(fns, &inst->pPelInit);
    return MAV_OK;
}

MAV_RC MavIXFreeInst(MAV_INST_REC** pinst) {
    if (pinst == nullptr) return MAV_E_NULL_PARAM;
    MAV_INST_REC* inst = *pinst;
    if (inst == nullptr) return MAV_OK;
    if (inst->pCfg != nullptr && (inst->pHdl == nullptr || inst->pCfg != inst->pHdl->pCfg)) {
        MavIXFreeCFG(&inst->pCfg);
    }
    inst->pCfg = nullptr;
    if (inst->pProfileInst != nullptr) {
        MavIXProfileOps()->pfnFree(inst->pProfileInst);
        inst->pProfileInst = nullptr;
    }
    MavIXFreeRec(inst);  // the PEL_SCANPARAM lives in the same block
    *pinst = nullptr;
    return MAV_OK;
}

// Frees a new instance that never joined the handle: gives its engine back
// (unless shared) and its record.
void MavIXDiscardInst(MAV_INST_REC** pinst) {
    if (pinst == nullptr || *pinst == nullptr) return;
    MavIReleaseInstance(pinst);
    MavIXFreeInst(pinst);
}

MAV_RC MavIXAddInst2List(MAV_HDL_REC* hdl, MAV_INST_REC* inst) {
    if (hdl == nullptr || inst == nullptr) return MAV_E_NULL_PARAM;
    MAV_INST_NODE* node = static_cast<MAV_INST_NODE*>(MavIAlloc(sizeof(MAV_INST_NODE), true));
    if (node == nullptr) return MAV_E_NO_SPACE;
    node->pInst = inst;
    node->pNext = hdl->pInstList;
    hdl->pInstList = node;
    return MAV_OK;
}

MAV_RC MavIXRemoveInst(MAV_INST_REC* inst) {
    MAV_HDL_REC* hdl = inst != nullptr ? inst->pHdl : nullptr;
    if (hdl == nullptr) {
        MAV_TRC_E("Null pointer passed hdl=%p, instance=%p\n", static_cast<void*>(hdl),
                  static_cast<void*>(inst));
        return MAV_E_NULL_PARAM;
    }
    if (inst->bPooled) {
        MAV_TRC_E("Not pooled instance cannot not be removed\n");
        return MAV_E_INVALID_HANDLE;
    }
    // The whole list is walked: an instance is always found, whatever the
    // pool size.
    uint32_t looked = 0;
    MAV_INST_NODE** link = &hdl->pInstList;
    for (MAV_INST_NODE* node = *link; node != nullptr; node = *link) {
        ++looked;
        if (node->pInst == inst) {
            *link = node->pNext;
            MavIFree(node);
            return MAV_OK;
        }
        link = &node->pNext;
    }
    if (hdl->uiPoolSize > looked) return MAV_OK;
    MAV_TRC_E("Pooled instance cannot not be removed\n");
    return MAV_E_INVALID_HANDLE;
}

MAV_RC MavIXEndInst(MAV_HDL_REC* hdl, MAV_INST_REC* inst) {
    MAV_INST_REC* p = inst;
    MAV_RC rc = MavIReleaseInstance(&p);
    // Without an adapter table the instance cannot be ended by the adapter; it
    // is freed all the same and the code returned.
    if (rc != MAV_OK && rc != MAV_E_NOT_INITIALISED) return rc;
    if (inst->bPooled) {
        long slot = FindSlot(hdl, inst, Slots(hdl));
        if (slot >= 0) hdl->pPool[slot] = nullptr;
        --hdl->uiPooled;
        if (!inst->bInUse) --hdl->uiPoolFree;
    } else {
        MavIXRemoveInst(inst);
    }
    MavIXFreeInst(&p);
    --hdl->uiInstances;
    return rc;
}

MAV_RC MavIXEndPooled(MAV_HDL_REC* hdl, bool lastFirst) {
    size_t n = Slots(hdl);
    for (size_t k = 0; k < n; ++k) {
        size_t i = lastFirst ? n - 1 - k : k;
        MAV_INST_REC* inst = hdl->pPool[i];
        if (inst == nullptr) continue;
        MAV_RC rc = MavIXEndInst(hdl, inst);
        if (rc != MAV_OK) return rc;
    }
    return MAV_OK;
}

MAV_RC MavIXFillPool(MAV_HDL_REC* hdl, bool ownConfig) {
    while (hdl->uiPooled < hdl->uiPoolSize) {
        MAV_RC rc = AddFreePooled(hdl, ownConfig);
        if (rc != MAV_OK) return rc;
    }
    return MAV_OK;
}

MAV_RC MavIXAssignHdlToCFG(void* hdlOrInst, MAV_CFG** pcfg) {
    if (pcfg == nullptr) return MAV_E_NULL_PARAM;
    MAV_REC_KIND kind = MavIXRecKind(hdlOrInst);
    if (kind == MAV_REC_HANDLE) {
        // A handle whose start-up failed has no configuration to change.
        *pcfg = static_cast<MAV_HDL_REC*>(hdlOrInst)->pCfg;
        return *pcfg != nullptr ? MAV_OK : MAV_E_NOT_INITIALISED;
    }
    MAV_INST_REC* inst = nullptr;
    if (kind == MAV_REC_INSTANCE) {
        inst = static_cast<MAV_INST_REC*>(hdlOrInst);
    } else if (kind == MAV_REC_PROFILE) {
        inst = MavIGetInst(hdlOrInst);
        if (inst == nullptr) return MAV_E_NOT_INITIALISED;
    } else {
        return MAV_E_INVALID_HANDLE;
    }
    MAV_HDL_REC* hdl = inst->pHdl;
    if (hdl == nullptr) return MAV_E_NOT_INITIALISED;
    if (inst->pCfg != nullptr && inst->pCfg != hdl->pCfg) {
        *pcfg = inst->pCfg;
        return MAV_OK;
    }
    // Copy on first write; the handle's configuration is read under its lock.
    if (!MavILockHdl(hdl)) return MAV_E_INVALID_HANDLE;
    MAV_CFG* cfg = nullptr;
    MAV_RC rc = CopyHandleCfg(hdl, &cfg);
    MavIUnlockHdl(hdl);
    if (rc != MAV_OK) return rc;
    __atomic_store_n(&inst->pCfg, cfg, __ATOMIC_RELEASE);
    *pcfg = cfg;
    return MAV_OK;
}

MAV_RC MavIXCfgForChange(void* hdlOrInst, MAV_CFG** pcfg, bool* publish) {
    *publish = false;
    if (MavIXRecKind(hdlOrInst) != MAV_REC_HANDLE) return MavIXAssignHdlToCFG(hdlOrInst, pcfg);
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlOrInst);
    if (hdl->pCfg == nullptr) return MAV_E_NOT_INITIALISED;
    bool scanning = false;
    ForEachInst(hdl, [&](MAV_INST_REC* inst) {
        if (inst->bInUse && inst->pCfg == hdl->pCfg) scanning = true;
    });
    if (!scanning) {
        *pcfg = hdl->pCfg;
        return MAV_OK;
    }
    MAV_RC rc = CopyHandleCfg(hdl, pcfg);
    *publish = rc == MAV_OK;
    return rc;
}

void MavIXPublishCfg(MAV_HDL_REC* hdl, MAV_CFG* shadow) {
    MAV_CFG* live = hdl->pCfg;
    // Texts the change replaced in the copy were never visible: freed now.
    MavIXFreeRetired(shadow);
    PEL_PARAMS* oldInit = live->pInitParams;
    PEL_PARAMS* oldOpt = live->pOptParams;
    __atomic_store_n(&live->pInitParams, shadow->pInitParams, __ATOMIC_RELEASE);
    __atomic_store_n(&live->pOptParams, shadow->pOptParams, __ATOMIC_RELEASE);
    MavICfgSetAction(live, MavICfgAction(shadow));
    MavICfgSetFlag(&live->bNoScanInfo, shadow->bNoScanInfo != 0);
    MavICfgSetFlag(&live->bNotScannedAsWarning, shadow->bNotScannedAsWarning != 0);
    // The shadow keeps the old lists (a scan may still read them) and waits on
    // the live configuration's chain until that is freed.
    shadow->pInitParams = oldInit;
    shadow->pOptParams = oldOpt;
    shadow->aReserved[1] = live->aReserved[1];
    live->aReserved[1] = reinterpret_cast<size_t>(shadow);
}

// ---- Public instance calls ----------------------------------------------------------------

MAV_RC MavCreateInstance(MAV_HANDLE hdlArg, MAV_INST* pinst) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (hdl == nullptr || pinst == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p)\n", __func__, hdlArg, static_cast<void*>(pinst));
    if (MavIXRecKind(hdl) != MAV_REC_HANDLE || !MavILockHdl(hdl)) {
        MAV_TRC_EXIT(MAV_E_INVALID_HANDLE);
        return MAV_E_INVALID_HANDLE;
    }
    MAV_RC rc = MAV_OK;
    if (hdl->uiPoolFree > 0) {
        MAV_INST_REC* inst = FirstFree(hdl);
        if (inst == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
        } else {
            HandOut(hdl, inst);
            *pinst = inst;
        }
    } else {
        MAV_INST_REC* inst = nullptr;
        rc = MavICreateInstance(hdl, &inst);
        if (rc == MAV_OK) {
            inst->bInUse = 1;
            if (hdl->uiPooled < hdl->uiPoolSize && PutInPool(hdl, inst)) {
                inst->bPooled = 1;
                ++hdl->uiPooled;
            } else {
                inst->bPooled = 0;
                rc = MavIXAddInst2List(hdl, inst);
            }
        }
        if (rc == MAV_OK) {
            ++hdl->uiInstances;
            *pinst = inst;
        } else {
            MavIXDiscardInst(&inst);
        }
    }
    MavIUnlockHdl(hdl);
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_INST MavGetInstance(MAV_HANDLE hdlArg) {
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, hdlArg);
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    MAV_INST result = nullptr;
    if (MavIXRecKind(hdl) == MAV_REC_HANDLE && MavILockHdl(hdl)) {
        if (hdl->uiPoolFree != 0 || hdl->uiPoolSize != 0) {
            MAV_INST_REC* inst = FirstFree(hdl);
            if (inst != nullptr) {
                HandOut(hdl, inst);
                result = inst;
            }
            // While the pool still grows, a further instance replaces the one
            // just handed out, which stays in use (kept as it is).
            if (hdl->uiPooled < hdl->uiPoolSize) MavCreateInstance(hdl, &result);
        }
        MavIUnlockHdl(hdl);
    }
    MAV_TRC(MAV_TRC_FUNCTION, "<<  end  << %s(%p) \n", __func__, result);
    return result;
}

MAV_RC MavFreeInstance(MAV_INST* pinst) {
    if (pinst == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(*pinst);
    if (inst == nullptr) return MAV_OK;  // already freed
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, static_cast<void*>(pinst));
    MAV_RC rc = MAV_OK;
    MAV_REC_KIND kind = MavIXRecKindByMarks(inst);
    if (kind == MAV_REC_PROFILE) {
        MavIXFreeInst(reinterpret_cast<MAV_INST_REC**>(pinst));
        MavIXRecTrim();  // it may have been the last record
        MAV_TRC_EXIT(rc);
        return rc;
    }
    MAV_HDL_REC* hdl = kind == MAV_REC_INSTANCE ? inst->pHdl : nullptr;
    if (kind != MAV_REC_INSTANCE) {
        rc = MAV_E_INVALID_HANDLE;
    } else if (hdl == nullptr) {
        MAV_TRC_E("NULL parameter for MAV handle, not initialized\n");
        rc = MAV_E_NOT_INITIALISED;
    } else if (!MavILockHdl(hdl)) {
        rc = MAV_E_INVALID_HANDLE;
    } else {
        if (hdl->uiInstances == 0) {
            MAV_TRC_E("NULL parameter for MAV reference counter, not proper initialized\n");
            rc = MAV_E_INVALID_HANDLE;
        } else if (hdl->pFunctions == nullptr) {
            rc = MAV_E_PEL_LOAD_FAILED;
        } else if (inst->pScanInfo != nullptr && hdl->pFunctions->pfnReleaseScan != nullptr) {
            MAV_TRC(MAV_TRC_PEL, ">> PelReleaseScan(%p) >> \n",
                    static_cast<void*>(&inst->pScanInfo));
            rc = hdl->pFunctions->pfnReleaseScan(&inst->pScanInfo);
            MAV_TRC(MAV_TRC_PEL, "<< PelReleaseScan(%p) = %d << \n",
                    static_cast<void*>(&inst->pScanInfo), rc);
        }
        if (rc == MAV_OK) {
            long slot = inst->bPooled ? FindSlot(hdl, inst, hdl->uiPoolSize) : -1;
            if (slot >= 0 && hdl->uiPoolSize >= hdl->uiPooled) {
                if (inst->bInUse) {
                    // Back with the handle's configuration: what this user
                    // set (limits, warnings, actions) must not reach the next.
                    if (inst->pCfg != hdl->pCfg) {
                        MAV_CFG* own = inst->pCfg;
                        __atomic_store_n(&inst->pCfg, hdl->pCfg, __ATOMIC_RELEASE);
                        MavIXFreeCFG(&own);
                    }
                    inst->bInUse = 0;
                    inst->uiThreadId = MAV_THREAD_NONE;
                    ++hdl->uiPoolFree;
                } else {
                    rc = MAV_E_INVALID_HANDLE;
                }
            } else {
                // Beyond the pool, or the pool size was lowered: ended.
                rc = MavIXEndInst(hdl, inst);
                if (rc == MAV_OK || rc == MAV_E_NOT_INITIALISED) *pinst = nullptr;
            }
        }
        MavIUnlockHdl(hdl);
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_RC MavFreeInstancePointer(MAV_INST inst) {
    MAV_INST copy = inst;
    return MavFreeInstance(&copy);
}

// ---- Pools --------------------------------------------------------------------------------

MAV_RC MavSetPoolSize(MAV_HANDLE hdlArg, size_t size) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    MAV_TRC_ENTRY(">> start >> %s(%p,%zu)\n", __func__, hdlArg, size);
    if (MavIXRecKind(hdl) != MAV_REC_HANDLE || !MavILockHdl(hdl)) {
        MAV_TRC_EXIT(MAV_OK);  // not a handle: nothing done
        return MAV_OK;
    }
    MAV_RC rc = MAV_OK;
    if (size > hdl->uiPooled) {
        size_t slots = Slots(hdl);
        // The array never shrinks: slots beyond a lowered size may still hold
        // pooled instances.
        size_t want = size > slots ? size : slots;
        MAV_INST_REC** pool = nullptr;
        if (size <= UINT32_MAX && want <= SIZE_MAX / sizeof(MAV_INST_REC*)) {
            pool = want == slots ? hdl->pPool
                                 : static_cast<MAV_INST_REC**>(
                                       MavIRealloc(hdl->pPool, want * sizeof(MAV_INST_REC*)));
        }
        if (pool == nullptr) {
            hdl->uiPoolSize = 0;
            rc = MAV_E_NO_SPACE;
            MAV_TRC_E("%s ended with %s \n", __func__, MavErrorName(rc));
        } else {
            for (size_t i = slots; i < want; ++i) pool[i] = nullptr;
            hdl->pPool = pool;
            MAV_HDL_POOL_SLOTS(hdl) = want;
            hdl->uiPoolSize = static_cast<uint32_t>(size);
        }
    } else {
        if (size == 0) MAV_TRC_W("Number of instanced to be created is 0!!!\n");
        MAV_TRC_W("Pool size can not be reduced here, release first the running instances !\n");
        hdl->uiPoolSize = static_cast<uint32_t>(size);
    }
    MavIUnlockHdl(hdl);
    MAV_TRC_EXIT(rc);
    return rc;
}

size_t MavGetPoolSize(MAV_HANDLE hdlArg) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (MavIXRecKind(hdl) != MAV_REC_HANDLE || !MavILockHdl(hdl)) return 0;
    size_t size = hdl->uiPoolSize;
    MavIUnlockHdl(hdl);
    return size;
}

MAV_RC MavLoadPool(MAV_HANDLE hdlArg, size_t size, uint32_t setDefaults) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    MAV_TRC_ENTRY(">> start >> %s(%p,%zu,%u)\n", __func__, hdlArg, size, setDefaults);
    MAV_RC rc = MAV_OK;
    // The size is checked before the handle is looked at.
    if (size == 0) {
        MAV_TRC_E("Invalid size (%ld) for load of pool provided\n", static_cast<long>(size));
        rc = MAV_E_INVALID_PARAM;
    } else if (MavIXRecKind(hdl) != MAV_REC_HANDLE || !MavILockHdl(hdl)) {
        rc = MAV_E_INVALID_HANDLE;
    } else {
        if (size < hdl->uiPoolSize) {
            MAV_TRC_E("Invalid size (%ld) for load of pool provided\n", static_cast<long>(size));
            rc = MAV_E_INVALID_PARAM;
        } else {
            rc = MavSetPoolSize(hdl, size);
            if (rc == MAV_OK) rc = MavIXFillPool(hdl, setDefaults != 0);
        }
        MavIUnlockHdl(hdl);
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_RC MavFreePool(MAV_HANDLE hdlArg) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (hdl == nullptr) return MAV_OK;
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, hdlArg);
    MAV_RC rc = MAV_OK;
    if (MavIXRecKind(hdl) != MAV_REC_HANDLE || !MavILockHdl(hdl)) {
        MAV_TRC_EXIT(MAV_E_INVALID_HANDLE);
        return MAV_E_INVALID_HANDLE;
    }
    bool inUse = false;
    for (size_t i = 0; i < Slots(hdl); ++i) {
        if (hdl->pPool[i] != nullptr && hdl->pPool[i]->bInUse) inUse = true;
    }
    if (inUse || hdl->uiPoolFree != hdl->uiPooled || hdl->uiPooled != hdl->uiInstances) {
        rc = MAV_E_IN_PROGRESS;
    } else {
        rc = MavIXEndPooled(hdl, true);
        if (rc == MAV_OK && hdl->uiInstances == 0) {
            hdl->uiPoolSize = 0;
            MavIFree(hdl->pPool);
            hdl->pPool = nullptr;
            MAV_HDL_POOL_SLOTS(hdl) = 0;
            const PEL_FUNCTIONS* fns = hdl->pFunctions;
            if (SharedModel(hdl) && fns != nullptr && fns->pfnEnd != nullptr &&
                hdl->pSharedInit != nullptr) {
                rc = EndEngine(fns, &hdl->pSharedInit);
                if (rc == MAV_OK) hdl->pSharedInit = nullptr;
            }
        }
    }
    MavIUnlockHdl(hdl);
    MAV_TRC_EXIT(rc);
    return rc;
}

}  // extern "C"
