// mavxx_info.cpp - the adapter's identity, capabilities, engine and drivers.
//
// Versions are one 32-bit number, major << 16 | minor. When the record asked
// for is missing (no PEL_ADAPTERINFO, no PEL_INIT) the call returns
// MAV_E_INVALID_HANDLE and leaves the outputs untouched.
#include "mavxxi.h"

namespace {

uint32_t Version(uint16_t major, uint16_t minor) {
    return (static_cast<uint32_t>(major) << 16) | minor;
}

// The handle behind hdl with its PEL_CONFIG; traces (under the caller's
// name) and sets *rc when none.
MAV_HDL_REC* ConfiguredHandle(void* hdl, MAV_RC* rc, const char* func) {
    MAV_HDL_REC* h = MavIGetHandle(hdl);
    if (h == nullptr || h->pPelConfig == nullptr) {
        MAV_TRC_FN(MAV_TRC_ERROR, func, "Invalid NULL handle for PEL config\n");
        *rc = MAV_E_INVALID_HANDLE;
        return nullptr;
    }
    return h;
}

// The engine record: an instance's own, else the handle's shared one.
const PEL_INIT* EngineOf(void* hdl, MAV_HDL_REC* h) {
    MAV_INST_REC* inst = MavIGetInst(hdl);
    if (inst != nullptr && inst->pPelInit != nullptr) return inst->pPelInit;
    return h->pSharedInit;
}

void Text(const char* utf8, KORMO_CHAR* buf, size_t* length, MAV_RC* rc) {
    MAV_RC trc = MavIPutText(utf8, buf, length);
    if (trc != MAV_OK && *rc == MAV_OK) *rc = trc;
}

// The frame of the four calls, traced under the call's name func: a null
// handle is refused before the entry trace (no exit trace); the entry trace
// shows index when the call takes one (index not null); then the checks of
// ConfiguredHandle, read(h, &rc) on the handle found, and the exit trace.
template <typename Read>
MAV_RC OnConfiguredHandle(void* hdl, const char* func, const uint32_t* index, Read&& read) {
    if (hdl == nullptr) {
        MAV_TRC_FN(MAV_TRC_ERROR, func, "Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    if (index != nullptr) {
        MAV_TRC_FN(MAV_TRC_FUNCTION, func, ">> start >> %s(%p,%d,...)\n", func, hdl,
                   static_cast<int>(*index));
    } else {
        MAV_TRC_FN(MAV_TRC_FUNCTION, func, ">> start >> %s(%p,...)\n", func, hdl);
    }
    MAV_RC rc = MAV_OK;
    MAV_HDL_REC* h = ConfiguredHandle(hdl, &rc, func);
    if (h != nullptr) read(h, &rc);
    MAV_TRC_FN(MAV_TRC_FUNCTION, func, "<<  end  << %s(MAV_RC==%s) \n", func, MavErrorName(rc));
    return rc;
}

// OnConfiguredHandle for the adapter information: read(cfg, &rc) on a
// PEL_CONFIG with a PEL_ADAPTERINFO, else MAV_E_INVALID_HANDLE.
template <typename Read>
MAV_RC OnAdapterInfo(void* hdl, const char* func, Read&& read) {
    return OnConfiguredHandle(hdl, func, nullptr, [&](MAV_HDL_REC* h, MAV_RC* rc) {
        const PEL_CONFIG* cfg = h->pPelConfig;
        if (cfg->pAdapterInfo == nullptr) {
            *rc = MAV_E_INVALID_HANDLE;
        } else {
            read(cfg, rc);
        }
    });
}

// OnConfiguredHandle for the engine record: read(init, &rc), or
// MAV_E_INVALID_HANDLE when there is no PEL_INIT.
template <typename Read>
MAV_RC OnEngine(void* hdl, const char* func, const uint32_t* index, Read&& read) {
    return OnConfiguredHandle(hdl, func, index, [&](MAV_HDL_REC* h, MAV_RC* rc) {
        // Copied out under the handle lock: a reload on another thread ends
        // the engine record under it.
        if (!MavILockHdl(h)) {
            *rc = MAV_E_INVALID_HANDLE;
            return;
        }
        const PEL_INIT* init = MavIGetHandle(hdl) == h ? EngineOf(hdl, h) : nullptr;
        if (init == nullptr) {
            *rc = MAV_E_INVALID_HANDLE;
        } else {
            read(init, rc);
        }
        MavIUnlockHdl(h);
    });
}

// Count of one list of an engine record or scan result, and the job id and
// object size of its entry at index; MAV_E_NO_SCANINFO when the list is absent.
template <typename Rec>
MAV_RC ListOf(const Rec* recs, uint32_t n, uint32_t index, uint32_t* count, uint32_t* jobId,
              uint64_t* objectSize) {
    if (recs == nullptr) return MAV_E_NO_SCANINFO;
    if (count != nullptr) *count = n;
    if (index < n) {
        if (jobId != nullptr) *jobId = recs[index].uiJobID;
        if (objectSize != nullptr) *objectSize = recs[index].lObjectSize;
    }
    return MAV_OK;
}

// MavGetListInfo with hdl's handle h locked.
MAV_RC ListInfo(void* hdl, MAV_HDL_REC* h, uint32_t list, uint32_t index, uint32_t* count,
                uint32_t* jobId, uint64_t* objectSize) {
    const PEL_INIT* init = MavIGetHandle(hdl) == h ? EngineOf(hdl, h) : nullptr;
    if (init == nullptr) return MAV_E_INVALID_HANDLE;
    MAV_INST_REC* inst = MavIGetInst(hdl);
    const PEL_SCANINFO* si = inst != nullptr ? inst->pScanInfo : nullptr;
    switch (list) {
        case MAV_LIST_DRIVERS:
            if (init->hEngine == nullptr) return MAV_E_INVALID_HANDLE;
            if (init->pDriver == nullptr) return MAV_E_NO_SCANINFO;
            if (count != nullptr) *count = init->usDrivers;
            return MAV_OK;
        case MAV_LIST_INFECTIONS:
            if (si == nullptr) return MAV_E_NO_SCANINFO;
            return ListOf(si->pVirusInfo, si->uiInfections, index, count, jobId, objectSize);
        case MAV_LIST_SCAN_ERRORS:
            if (si == nullptr) return MAV_E_NO_SCANINFO;
            return ListOf(si->pScanError, si->uiScanErrors, index, count, jobId, objectSize);
        case MAV_LIST_CONTENT:
            if (si == nullptr) return MAV_E_NO_SCANINFO;
            return ListOf(si->pContentInfo, si->uiScanned, index, count, jobId, objectSize);
        default:
            return MAV_E_INVALID_PARAM;
    }
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavGetListInfo(void* hdl, uint32_t list, uint32_t index, uint32_t* count,
                              uint32_t* jobId, uint64_t* objectSize) {
    if (count != nullptr) *count = 0;
    if (jobId != nullptr) *jobId = 0;
    if (objectSize != nullptr) *objectSize = 0;
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%u,%u,...)\n", __func__, hdl, list, index);
    MAV_RC rc = MAV_E_INVALID_HANDLE;
    // Read under the handle lock: a reload on another thread ends the engine
    // record under it.
    if (MAV_HDL_REC* h = MavILockOwner(hdl)) {
        rc = ListInfo(hdl, h, list, index, count, jobId, objectSize);
        MavIUnlockHdl(h);
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavEnumDriverInfo(void* hdl, uint32_t index, uint32_t* version, KORMO_CHAR* name,
                                 size_t* nameLength, uint64_t* date, uint32_t* viruses) {
    return OnEngine(hdl, __func__, &index, [&](const PEL_INIT* init, MAV_RC* rc) {
        if (init->pDriver == nullptr || index >= init->usDrivers) {
            *rc = MAV_E_INVALID_ENUM_INDEX;
            return;
        }
        const PEL_DRIVERINFO* d = &init->pDriver[index];
        if (version != nullptr) *version = Version(d->usDrMajVersion, d->usDrMinVersion);
        if (date != nullptr) *date = static_cast<uint64_t>(d->utcDate);
        if (viruses != nullptr) *viruses = d->uiViruses;
        Text(d->pszName, name, nameLength, rc);
    });
}

MAV_API MAV_RC MavGetPelInfo(void* hdl, uint32_t* version, uint32_t* parameters,
                             uint32_t* eventFlags, KORMO_CHAR* adapterName,
                             size_t* adapterNameLength, KORMO_CHAR* vendorInfo,
                             size_t* vendorInfoLength) {
    return OnAdapterInfo(hdl, __func__, [&](const PEL_CONFIG* cfg, MAV_RC* rc) {
        const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo;
        if (version != nullptr) *version = Version(ai->usPelMajorVersion, ai->usPelMinorVersion);
        if (parameters != nullptr) *parameters = MavIXGetParamNum(hdl);
        if (eventFlags != nullptr) *eventFlags = cfg->uiPelEventFlag;
        Text(ai->pszAdapterName, adapterName, adapterNameLength, rc);
        Text(ai->pszVendorInfo, vendorInfo, vendorInfoLength, rc);
    });
}

MAV_API MAV_RC MavGetPelTechInfo(void* hdl, uint32_t* adapterId, uint32_t* threadModel,
                                 uint16_t* mavVersion, uint32_t* scanFlags, uint32_t* actionFlags,
                                 uint32_t* cioFlags) {
    return OnAdapterInfo(hdl, __func__, [&](const PEL_CONFIG* cfg, MAV_RC* /*rc*/) {
        const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo;
        if (adapterId != nullptr) *adapterId = ai->uiAdapterID;
        if (threadModel != nullptr) *threadModel = ai->uiThreadModel;
        if (mavVersion != nullptr) *mavVersion = ai->usMavVersion;
        if (scanFlags != nullptr) *scanFlags = cfg->uiPelScanFlag;
        if (actionFlags != nullptr) *actionFlags = cfg->uiPelActionFlag;
        if (cioFlags != nullptr) *cioFlags = cfg->uiPelCIOFlag;
    });
}

MAV_API MAV_RC MavGetEngineInfo(void* hdl, uint32_t* version, KORMO_CHAR* versionText,
                                size_t* versionTextLength, uint64_t* date, uint32_t* viruses,
                                uint16_t* drivers) {
    return OnEngine(hdl, __func__, nullptr, [&](const PEL_INIT* init, MAV_RC* rc) {
        if (version != nullptr)
            *version = Version(init->usEngineMajVersion, init->usEngineMinVersion);
        if (date != nullptr) *date = static_cast<uint64_t>(init->utcDate);
        if (viruses != nullptr) *viruses = init->uiViruses;
        if (drivers != nullptr) *drivers = init->usDrivers;
        Text(init->pszEngineVersionText, versionText, versionTextLength, rc);
    });
}

}  // extern "C"
