// mavxx_event.cpp - event registration and the callback handed to the adapter.
//
// A registration lives in the MAV_CFG it was made on (MAV_CFG_AUX.pEvents).
// Before every PelScan the scan fills the instance's own PEL_CALLBACK from it
// (context = the instance), so concurrent scans never share a written line.
// Registration may race with scans of other instances of the same handle: its
// fields are written and read with relaxed atomic accesses, so a scan sees
// either the old or the new value of each field.
#include <cstring>

#include "mavxxi.h"

namespace {

struct EventRow {
    uint32_t bit;
    const char* message;
    const char* handler;
    int slot;
};

// Message bit, its name, the handler's name and the slot in MAV_EVENTS.
constexpr EventRow kEvents[] = {
    {VS_M_VIRUS, "VS_M_VIRUS", "OnVirusFound", 0},
    {VS_M_CLEAN, "VS_M_CLEAN", "OnClean", 1},
    {VS_M_ERROR, "VS_M_ERROR", "OnError", 2},
    {VS_M_OBJECTFOUND, "VS_M_OBJECTFOUND", "OnObjectFound", 3},
    {VS_M_ABORTSCAN, "VS_M_ABORTSCAN", "AbortScan", 4},
    {VS_M_NOTSCANNED, "VS_M_NOTSCANNED", "OnNotScanned", 5},
    {VS_M_REPAIRED, "VS_M_REPAIRED", "OnVirusRepaired", 6},
    {VS_M_NOTREPAIRED, "VS_M_NOTREPAIRED", "OnVirusNotRepaired", 7},
    {VS_M_MACROSCLEANED, "VS_M_MACROSCLEANED", "OnMacrosCleaned", 8},
    {VS_M_CONTAINMACROS, "VS_M_CONTAINMACROS", "OnMacrosFound", 9},
    {VS_M_SCANACTIONS, "VS_M_SCANACTIONS", "ScanActions", 10},
    {VS_M_SCANPROGRESS, "VS_M_SCANPROGRESS", "ScanProgress", 11},
};
constexpr int kSlots = 12;
static_assert(sizeof(MAV_EVENTS) == kSlots * sizeof(MAV_EVENT_FN), "MAV_EVENTS slots");

template <typename T>
void Store(T* p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELAXED);
}
template <typename T>
T Load(const T* p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

MAV_EVENT_FN* Slots(MAV_EVENTS* t) {
    return reinterpret_cast<MAV_EVENT_FN*>(t);
}
const MAV_EVENT_FN* Slots(const MAV_EVENTS* t) {
    return reinterpret_cast<const MAV_EVENT_FN*>(t);
}

// True when the adapter sends at least one of the messages (or all are
// asked); otherwise traces each unsupported message asked for.
bool CheckEventMsg(uint32_t mask, uint32_t supported) {
    if ((mask & supported) != 0 || mask == VS_M_ALL) return true;
    for (const EventRow& r : kEvents) {
        if ((mask & r.bit) != 0 && (supported & r.bit) == 0)
            MAV_TRC_FN(MAV_TRC_ERROR, "MavXCheckEventMsg",
                       "The event message %s is not supported by the PEL!\n", r.message);
    }
    return false;
}

// Table slot a message is routed to, -1 for an unknown message. Both
// NOTSCANNED and NOTREPAIRED go to OnVirusNotRepaired.
int SlotOf(uint32_t message) {
    switch (message) {
        case VS_M_VIRUS:
            return 0;
        case VS_M_CLEAN:
            return 1;
        case VS_M_ERROR:
            return 2;
        case VS_M_OBJECTFOUND:
            return 3;
        case VS_M_ABORTSCAN:
            return 4;
        case VS_M_NOTSCANNED:
            return 7;
        case VS_M_REPAIRED:
            return 6;
        case VS_M_NOTREPAIRED:
            return 7;
        case VS_M_MACROSCLEANED:
            return 8;
        case VS_M_CONTAINMACROS:
            return 9;
        case VS_M_SCANACTIONS:
            return 10;
        case VS_M_SCANPROGRESS:
            return 11;
        default:
            return -1;
    }
}

KORMO_CHAR* Convert(const char* utf8) {
    if (utf8 == nullptr) return nullptr;
    KORMO_CHAR* out = nullptr;
    MavICharToKORMO(&out, utf8);
    return out;
}

// Stores a registration's handlers: the single handler, or the table's slots
// (a null table clears them all), and the user data.
void StoreHandlers(MAV_EVENT_REG* reg, MAV_EVENT_HANDLER single, const MAV_EVENT_FN* table,
                   void* userData) {
    Store(&reg->pfnSingle, single);
    MAV_EVENT_FN* dst = Slots(&reg->sTable);
    for (int i = 0; i < kSlots; ++i) Store(&dst[i], table != nullptr ? table[i] : nullptr);
    Store(&reg->uiHasTable, table != nullptr ? 1u : 0u);
    Store(&reg->pvUserData, userData);
}

void StoreCallback(PEL_CALLBACK* cb, PEL_CALLBACK_FN fn, uint32_t mask, void* context) {
    Store(&cb->pfnCallback, fn);
    Store(&cb->uiMessageMask, mask);
    Store(&cb->pvContext, context);
}

// The handler's copy of an adapter record: numbers as they are, texts
// converted (in field order); FreeTexts gives the texts back in the same order.
void CopyRecord(const PEL_VIRUSINFO* src, MAV_VIRUSINFO* dst) {
    dst->struct_size = src->struct_size;
    dst->bRepairable = src->bRepairable;
    dst->tDetectType = src->tDetectType;
    dst->tVirusType = src->tVirusType;
    dst->tObjectType = src->tObjectType;
    dst->tActionType = src->tActionType;
    dst->uiVirusID = src->uiVirusID;
    dst->uiJobID = src->uiJobID;
    dst->lObjectSize = src->lObjectSize;
    dst->pszVirusName = Convert(src->pszVirusName);
    dst->pszObjectName = Convert(src->pszObjectName);
    dst->pszFreeTextInfo = Convert(src->pszFreeTextInfo);
}

void FreeTexts(MAV_VIRUSINFO* rec) {
    MavIFree(rec->pszVirusName);
    MavIFree(rec->pszObjectName);
    MavIFree(rec->pszFreeTextInfo);
}

void CopyRecord(const PEL_SCANERROR* src, MAV_SCANERROR* dst) {
    dst->struct_size = src->struct_size;
    dst->uiJobID = src->uiJobID;
    dst->lObjectSize = src->lObjectSize;
    dst->iErrorRC = src->iErrorRC;
    dst->pszObjectName = Convert(src->pszObjectName);
    dst->pszErrorText = Convert(src->pszErrorText);
}

void FreeTexts(MAV_SCANERROR* rec) {
    MavIFree(rec->pszObjectName);
    MavIFree(rec->pszErrorText);
}

// Calls call(arg) with the handler's copy of the adapter record data (a Rec),
// or with null when data is null; the copy's texts live for the call only.
template <typename Rec, typename Call>
VS_CALLRC CallWithRecord(const void* data, Call&& call) {
    Rec copy;
    memset(&copy, 0, sizeof copy);
    Rec* arg = nullptr;
    if (data != nullptr) {
        CopyRecord(static_cast<const Rec*>(data), &copy);
        arg = &copy;
    }
    VS_CALLRC rc = call(arg);
    FreeTexts(&copy);
    return rc;
}

}  // namespace

extern "C" {

MAV_RC MavPXRegisterCallback(void* hdl, const MAV_EVENTS* events, MAV_EVENT_HANDLER handler,
                             uint32_t mask, void* userData) {
    MAV_HDL_REC* h = MavIGetHandle(hdl);
    if (h == nullptr) return MAV_E_INVALID_HANDLE;
    const PEL_CONFIG* pelCfg = h->pPelConfig;
    if (pelCfg == nullptr) return MAV_E_NOT_INITIALISED;

    if (mask != 0 && !CheckEventMsg(mask, pelCfg->uiPelEventFlag)) return MAV_E_NOT_SUPPORTED;
    uint32_t tableMask = 0;
    if (events != nullptr) {
        const MAV_EVENT_FN* slots = Slots(events);
        for (const EventRow& r : kEvents) {
            if (slots[r.slot] != nullptr) tableMask |= r.bit;
        }
        if (tableMask != 0 && !CheckEventMsg(tableMask, pelCfg->uiPelEventFlag))
            return MAV_E_NOT_SUPPORTED;
        mask = tableMask;
    }

    int locked = MavILockHdl(h);
    MAV_CFG* cfg = nullptr;
    MAV_RC rc = MavIXAssignHdlToCFG(hdl, &cfg);
    if (rc != MAV_OK) {
        if (locked) MavIUnlockHdl(h);
        return rc;
    }
    if (cfg->pAux == nullptr || cfg->pCallback == nullptr) {
        if (locked) MavIUnlockHdl(h);
        return MAV_E_NOT_INITIALISED;
    }
    MAV_EVENT_REG* reg = __atomic_load_n(&cfg->pAux->pEvents, __ATOMIC_ACQUIRE);
    if (reg == nullptr && mask != 0) {
        reg = static_cast<MAV_EVENT_REG*>(MavIAlloc(sizeof(MAV_EVENT_REG), true));
        if (reg == nullptr) {
            if (locked) MavIUnlockHdl(h);
            return MAV_E_NO_SPACE;
        }
        __atomic_store_n(&cfg->pAux->pEvents, reg, __ATOMIC_RELEASE);
    }
    PEL_CALLBACK* cb = cfg->pCallback;
    if (mask != 0) {
        // Mask last: a scan that sees the new mask also finds the handlers.
        StoreHandlers(reg, events != nullptr ? nullptr : handler,
                      events != nullptr ? Slots(events) : nullptr, userData);
        __atomic_store_n(&reg->uiMask, mask, __ATOMIC_RELEASE);
        StoreCallback(cb, MavPXCallback, mask, cfg);
        if (locked) MavIUnlockHdl(h);
        MAV_TRC(MAV_TRC_EVENT, "Event handler was set. Notification will activated!\n");
        return MAV_OK;
    }
    if (reg != nullptr) {
        __atomic_store_n(&reg->uiMask, 0u, __ATOMIC_RELEASE);
        StoreHandlers(reg, nullptr, nullptr, nullptr);
    }
    StoreCallback(cb, nullptr, 0, nullptr);
    if (locked) MavIUnlockHdl(h);
    MAV_TRC(MAV_TRC_WARNING, "No event handler were set. Notification will be deactivated!\n");
    return MAV_OK;
}

VS_CALLRC MavPXCallback(void* adapterData, uint32_t message, void* data, void* context) {
    MAV_TRC(MAV_TRC_EVENT, ">> start >> %s(%p,%x,%p,%p)\n", __func__, adapterData, message, data,
            context);
    MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(context);
    if (inst == nullptr || inst->struct_size != MAV_INST_SIZE ||
        inst->uiHeadMark != MAV_INST_HEAD || inst->uiTailMark != MAV_INST_TAIL ||
        __atomic_load_n(&inst->pCfg, __ATOMIC_ACQUIRE) == nullptr) {
        MAV_TRC_E("Cound not get instance configuration\n");
        return 1;
    }
    int slot = SlotOf(message);
    if (slot < 0) {
        MAV_TRC(MAV_TRC_EVENT, "Unknown Message %x received from PEL\n", message);
        return 0;
    }

    MAV_EVENT_HANDLER single = nullptr;
    MAV_EVENT_FN fn = nullptr;
    void* userData = nullptr;
    const MAV_CFG_AUX* aux = __atomic_load_n(&inst->pCfg, __ATOMIC_ACQUIRE)->pAux;
    MAV_EVENT_REG* reg =
        aux != nullptr ? __atomic_load_n(&aux->pEvents, __ATOMIC_ACQUIRE) : nullptr;
    if (reg != nullptr) {
        uint32_t mask = __atomic_load_n(&reg->uiMask, __ATOMIC_ACQUIRE);
        single = Load(&reg->pfnSingle);
        userData = Load(&reg->pvUserData);
        if (single != nullptr) {
            if ((mask & message) == 0) single = nullptr;
        } else {
            fn = Load(&Slots(&reg->sTable)[slot]);
        }
    }

    VS_CALLRC rc = 0;
    if (single != nullptr || fn != nullptr) {
        auto call = [&](void* arg) {
            return single != nullptr ? single(inst, message, arg, userData)
                                     : fn(inst, userData, arg);
        };
        switch (message) {
            case VS_M_VIRUS:
            case VS_M_REPAIRED:
                rc = CallWithRecord<MAV_VIRUSINFO>(data, call);
                break;
            case VS_M_NOTSCANNED:
            case VS_M_NOTREPAIRED:
                rc = CallWithRecord<MAV_SCANERROR>(data, call);
                break;
            case VS_M_OBJECTFOUND:
            case VS_M_ERROR: {
                KORMO_CHAR* text = Convert(static_cast<const char*>(data));
                rc = call(text);
                MavIFree(text);
                break;
            }
            default: {
                // Numbers: unchanged for the single handler, the low 32 bits
                // for a table handler.
                uint32_t low = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(data));
                rc = call(single != nullptr ? data
                                            : reinterpret_cast<void*>(static_cast<uintptr_t>(low)));
                break;
            }
        }
    }
    MAV_TRC(MAV_TRC_EVENT, " << end << %s(VS_CALLRC==%d) \n", __func__, rc);
    return rc;
}

MAV_API MAV_RC MavRegisterEvents(void* hdl, const MAV_EVENTS* events, void* userData) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for instance handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p,%p)\n", __func__, hdl, static_cast<const void*>(events),
                  userData);
    MAV_RC rc = MavPXRegisterCallback(hdl, events, nullptr, 0, userData);
    MAV_TRC(MAV_TRC_FUNCTION, " << end << %s(MAV_RC==%s) \n", __func__, MavErrorName(rc));
    return rc;
}

MAV_API MAV_RC MavRegisterSingleEventHandler(void* hdl, MAV_EVENT_HANDLER handler,
                                             uint32_t messageMask, void* userData) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for instance handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p,%x,%p)\n", __func__, hdl, reinterpret_cast<void*>(handler),
                  messageMask, userData);
    MAV_RC rc = MavPXRegisterCallback(hdl, nullptr, handler, messageMask, userData);
    MAV_TRC(MAV_TRC_FUNCTION, " << end << %s(MAV_RC==%s) \n", __func__, MavErrorName(rc));
    return rc;
}

}  // extern "C"
