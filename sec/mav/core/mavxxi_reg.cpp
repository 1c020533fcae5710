// mavxxi_reg.cpp - the process-wide handle registry, handle names, handle
// resolution and the registry and handle locks.
//
// The registry is a list of (handle, next) nodes that always ends in an empty
// node. Its critical section is created once and never deleted: creating and
// deleting it with the first and last handle would race with a concurrent
// MavInit or MavEnd. Handle names are read and written under the registry lock.
#include <cstring>
#include <mutex>

#include "mavxxi.h"

namespace {

struct MAV_HDL_NODE {
    MAV_HDL_REC* pHdl;
    MAV_HDL_NODE* pNext;
};

struct MAV_REGISTRY {
    THR_CRIT_SEC sCS;
    int iCSRc;                      // result of creating sCS
    std::atomic<uint32_t> uiCount;  // registered handles
    MAV_HDL_NODE* pHead;            // null while empty; else ends in an empty node
};

MAV_REGISTRY mavIPool;
std::once_flag mavIPoolOnce;

// The registry's critical section, created on first use. THR_RC_OK when usable.
int RegistryCS() {
    std::call_once(mavIPoolOnce, [] {
        int rc = ThrCSInit2(&mavIPool.sCS);
        mavIPool.iCSRc = rc == THR_RC_EXISTS ? THR_RC_OK : rc;
    });
    return mavIPool.iCSRc;
}

// True when the handle's name begins with length bytes of name.
bool NameMatches(const MAV_HDL_REC* hdl, const KORMO_CHAR* name, size_t length) {
    const MAV_HDL_NAME* n = hdl->pName;
    if (n == nullptr || n->pszName == nullptr || n->lLength == 0) return false;
    // Prefix rule: the stored length is not compared; strncmp stops at the
    // stored name's end.
    return strncmp(n->pszName, name, length) == 0;
}

// The handle whose critical section guards hdlOrInst (a handle, or an
// instance's handle), found by the marks; null for anything else.
MAV_HDL_REC* LockTarget(void* hdlOrInst) {
    switch (MavIXRecKindByMarks(hdlOrInst)) {
        case MAV_REC_HANDLE:
            return static_cast<MAV_HDL_REC*>(hdlOrInst);
        case MAV_REC_INSTANCE:
            return static_cast<MAV_INST_REC*>(hdlOrInst)->pHdl;
        default:
            return nullptr;
    }
}

// The first registered handle, in registry order, for which match(hdl) is
// true; null when none (or the registry lock cannot be taken).
template <typename Match>
MAV_HDL_REC* FindHdl(Match&& match) {
    if (!MavILockRegistry()) return nullptr;
    MAV_HDL_REC* found = nullptr;
    for (MAV_HDL_NODE* n = mavIPool.pHead; n != nullptr && n->pNext != nullptr; n = n->pNext) {
        if (match(n->pHdl)) {
            found = n->pHdl;
            break;
        }
    }
    MavIUnlockRegistry();
    return found;
}

}  // namespace

extern "C" {

// ---- Locks --------------------------------------------------------------------

int MavILockRegistry(void) {
    if (RegistryCS() != THR_RC_OK) return 0;
    return ThrCSLock(&mavIPool.sCS) == THR_RC_OK ? 1 : 0;
}

void MavIUnlockRegistry(void) {
    ThrCSUnlock(&mavIPool.sCS);
}

// Locks the handle of a handle or instance. The marks are checked again once
// the lock is held, so a handle ended meanwhile is refused (its block, and so
// its critical section, stays valid).
// The slabs stay pinned from here to MavIUnlockHdl: the section lives in a
// record block, which must not go back to the allocator while a thread waits.
int MavILockHdl(void* hdlOrInst) {
    MavIXRecPin();
    MAV_HDL_REC* hdl = LockTarget(hdlOrInst);
    if (hdl == nullptr || hdl->pCS == nullptr || ThrCSLock(hdl->pCS) != THR_RC_OK) {
        MavIXRecUnpin();
        return 0;
    }
    if (MavIXRecKindByMarks(hdl) != MAV_REC_HANDLE) {
        ThrCSUnlock(hdl->pCS);
        MavIXRecUnpin();
        return 0;
    }
    return 1;
}

MAV_HDL_REC* MavILockOwner(void* p) {
    MAV_HDL_REC* hdl = MavIGetHandle(p);
    return hdl != nullptr && MavILockHdl(hdl) ? hdl : nullptr;
}

void MavIUnlockHdl(void* hdlOrInst) {
    MAV_HDL_REC* hdl = LockTarget(hdlOrInst);
    if (hdl != nullptr && hdl->pCS != nullptr) ThrCSUnlock(hdl->pCS);
    MavIXRecUnpin();
}

// ---- Registry -------------------------------------------------------------------

MAV_RC MavIXAddHdl(MAV_HDL_REC* hdl) {
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    int csRc = RegistryCS();
    if (csRc == THR_RC_NORESOURCES) return MAV_E_NOT_INITIALISED;
    if (csRc != THR_RC_OK) return MAV_E_INVALID_HANDLE;
    if (!MavILockRegistry()) return MAV_E_NO_SPACE;
    if (mavIPool.pHead == nullptr) {
        mavIPool.pHead = static_cast<MAV_HDL_NODE*>(MavIAlloc(sizeof(MAV_HDL_NODE), true));
        if (mavIPool.pHead == nullptr) {
            MavIUnlockRegistry();
            return MAV_E_NO_SPACE;
        }
        (void)MavPXGetDefaultTmpPath();  // worked out once, cached by the scan side
    }
    MAV_HDL_NODE* last = mavIPool.pHead;
    while (last->pNext != nullptr) last = last->pNext;
    MAV_HDL_NODE* empty = static_cast<MAV_HDL_NODE*>(MavIAlloc(sizeof(MAV_HDL_NODE), true));
    if (empty == nullptr) {
        // An empty registry keeps no node: the one made above is given back.
        if (mavIPool.uiCount.load() == 0) {
            MavIFree(mavIPool.pHead);
            mavIPool.pHead = nullptr;
        }
        MavIUnlockRegistry();
        return MAV_E_NO_SPACE;
    }
    last->pHdl = hdl;
    last->pNext = empty;
    mavIPool.uiCount.fetch_add(1);
    MavIUnlockRegistry();
    return MAV_OK;
}

MAV_RC MavIXRemoveHdl(MAV_HDL_REC* hdl) {
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    if (!MavILockRegistry()) return MAV_E_INVALID_HANDLE;
    MAV_RC rc = MAV_E_INVALID_HANDLE;
    MAV_HDL_NODE* prev = nullptr;
    for (MAV_HDL_NODE* n = mavIPool.pHead; n != nullptr && n->pNext != nullptr; n = n->pNext) {
        if (n->pHdl != hdl) {
            prev = n;
            continue;
        }
        if (prev == nullptr) {
            mavIPool.pHead = n->pNext;
        } else {
            prev->pNext = n->pNext;
        }
        MavIFree(n);
        rc = MAV_OK;
        if (mavIPool.uiCount.fetch_sub(1) == 1) {
            MavIFree(mavIPool.pHead);  // the empty node
            mavIPool.pHead = nullptr;
        }
        break;
    }
    MavIUnlockRegistry();
    return rc;
}

// True when hdl is registered. Takes the registry lock (recursive).
bool MavIXIsRegistered(MAV_HDL_REC* hdl) {
    return hdl != nullptr && FindHdl([hdl](MAV_HDL_REC* h) { return h == hdl; }) != nullptr;
}

uint32_t MavIXGetHdlSize(void) {
    return mavIPool.uiCount.load();
}

MAV_HDL_REC* MavIXGetHdl(uint32_t flagMask) {
    return FindHdl([flagMask](MAV_HDL_REC* h) {
        const PEL_CONFIG* cfg = h->pPelConfig;
        return cfg != nullptr && (cfg->uiPelActionFlag & flagMask) != 0;
    });
}

uint32_t MavIXGetHdlSizeByName(const KORMO_CHAR* name, size_t length, uint32_t limit) {
    if (name == nullptr || !MavILockRegistry()) return 0;
    uint32_t count = 0;
    for (MAV_HDL_NODE* n = mavIPool.pHead; n != nullptr && n->pNext != nullptr && count < limit;
         n = n->pNext) {
        if (NameMatches(n->pHdl, name, length)) ++count;
    }
    MavIUnlockRegistry();
    return count;
}

// Calls fn for every registered handle in registry order under the registry
// lock; stops when fn returns false.
void MavIXForEachHdl(bool (*fn)(MAV_HDL_REC* hdl, void* ctx), void* ctx) {
    if (!MavILockRegistry()) return;
    for (MAV_HDL_NODE* n = mavIPool.pHead; n != nullptr && n->pNext != nullptr; n = n->pNext) {
        if (!fn(n->pHdl, ctx)) break;
    }
    MavIUnlockRegistry();
}

// ---- Handle names ------------------------------------------------------------------

MAV_RC MavSetHandleName(MAV_HANDLE hdlArg, const KORMO_CHAR* name, size_t length) {
    MAV_HDL_REC* hdl = static_cast<MAV_HDL_REC*>(hdlArg);
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p,%zu)\n", __func__, hdlArg, (const void*)name, length);
    MAV_RC rc = MAV_OK;
    if (name == nullptr && length != 0) {
        MAV_TRC_E("Invalid NULL parameter for handle name\n");
        rc = MAV_E_NULL_PARAM;
    } else if (!MavILockRegistry()) {
        rc = MAV_E_NO_SPACE;
    } else {
        if (MavIXRecKindByMarks(hdl) != MAV_REC_HANDLE) {
            rc = MAV_E_INVALID_HANDLE;
        } else {
            if (hdl->pName == nullptr) {
                hdl->pName = static_cast<MAV_HDL_NAME*>(MavIAlloc(sizeof(MAV_HDL_NAME), true));
            }
            char* copy = static_cast<char*>(MavIAlloc(length + 1, true));
            if (hdl->pName == nullptr || copy == nullptr) {
                MavIFree(copy);
                MAV_TRC_E("Error in memory allocation of handle name\n");
                rc = MAV_E_NO_SPACE;
            } else {
                if (length != 0) memcpy(copy, name, length);
                copy[length] = '\0';
                MavIFree(hdl->pName->pszName);
                hdl->pName->pszName = copy;
                hdl->pName->lLength = length;
            }
        }
        MavIUnlockRegistry();
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_HANDLE MavGetHandleByName(const KORMO_CHAR* name, size_t length) {
    MAV_TRC_ENTRY(">> start >> %s(%p,%zu)\n", __func__, (const void*)name, length);
    MAV_HDL_REC* found = nullptr;
    if (name != nullptr) {
        found = FindHdl([&](MAV_HDL_REC* h) { return NameMatches(h, name, length); });
    }
    MAV_TRC(MAV_TRC_FUNCTION, "<<  end  << %s(%p) \n", __func__, (void*)found);
    return found;
}

// ---- Resolution ------------------------------------------------------------------------

MAV_INST_REC* MavIGetInst(void* p) {
    switch (MavIXRecKind(p)) {
        case MAV_REC_INSTANCE:
            return static_cast<MAV_INST_REC*>(p);
        case MAV_REC_PROFILE: {
            MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(
                MavIXProfileOps()->pfnCurrentInstance(static_cast<MAV_INST_REC*>(p)->pProfileInst));
            return MavIXRecKind(inst) == MAV_REC_INSTANCE ? inst : nullptr;
        }
        default:
            return nullptr;
    }
}

MAV_HDL_REC* MavIGetHandle(void* p) {
    if (MavIXRecKind(p) == MAV_REC_HANDLE) return static_cast<MAV_HDL_REC*>(p);
    MAV_INST_REC* inst = MavIGetInst(p);
    if (inst == nullptr) return nullptr;
    return MavIXRecKindByMarks(inst->pHdl) == MAV_REC_HANDLE ? inst->pHdl : nullptr;
}

MAV_HANDLE MavGetHandle(void* hdl) {
    return MavIGetHandle(hdl);
}

MAV_CFG* MavIGetCfg(void* hdlOrInst) {
    if (MavIXRecKind(hdlOrInst) == MAV_REC_HANDLE) {
        return __atomic_load_n(&static_cast<MAV_HDL_REC*>(hdlOrInst)->pCfg, __ATOMIC_ACQUIRE);
    }
    MAV_INST_REC* inst = MavIGetInst(hdlOrInst);
    return inst != nullptr ? __atomic_load_n(&inst->pCfg, __ATOMIC_ACQUIRE) : nullptr;
}

}  // extern "C"

// Fork handler in a child (mavxxi_fork.cpp): the registry's and every
// registered handle's section, held by the forking thread, created anew.
void MavIXRegForkChild(void) {
    if (mavIPool.iCSRc != THR_RC_OK) return;
    for (MAV_HDL_NODE* n = mavIPool.pHead; n != nullptr && n->pNext != nullptr; n = n->pNext) {
        if (n->pHdl->pCS != nullptr) MavIXForkRenewCS(n->pHdl->pCS);
    }
    MavIXForkRenewCS(&mavIPool.sCS);
}
