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

}  // namespace

extern "C" {

MAV_API MAV_RC MavEnumDriverInfo(void* hdl, uint32_t index, uint32_t* version, KORMO_CHAR* name,
                                 size_t* nameLength, uint64_t* date, uint32_t* viruses) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%d,...)\n", __func__, hdl, static_cast<int>(index));
    MAV_RC rc = MAV_OK;
    MAV_HDL_REC* h = ConfiguredHandle(hdl, &rc, __func__);
    if (h != nullptr) {
        const PEL_INIT* init = EngineOf(hdl, h);
        if (init == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
        } else if (init->pDriver == nullptr || index >= init->usDrivers) {
            rc = MAV_E_INVALID_ENUM_INDEX;
        } else {
            const PEL_DRIVERINFO* d = &init->pDriver[index];
            if (version != nullptr) *version = Version(d->usDrMajVersion, d->usDrMinVersion);
            if (date != nullptr) *date = static_cast<uint64_t>(d->utcDate);
            if (viruses != nullptr) *viruses = d->uiViruses;
            Text(d->pszName, name, nameLength, &rc);
        }
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavGetPelInfo(void* hdl, uint32_t* version, uint32_t* parameters,
                             uint32_t* eventFlags, KORMO_CHAR* adapterName,
                             size_t* adapterNameLength, KORMO_CHAR* vendorInfo,
                             size_t* vendorInfoLength) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,...)\n", __func__, hdl);
    MAV_RC rc = MAV_OK;
    MAV_HDL_REC* h = ConfiguredHandle(hdl, &rc, __func__);
    if (h != nullptr) {
        const PEL_CONFIG* cfg = h->pPelConfig;
        const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo;
        if (ai == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
        } else {
            if (version != nullptr)
                *version = Version(ai->usPelMajorVersion, ai->usPelMinorVersion);
            if (parameters != nullptr) *parameters = MavIXGetParamNum(hdl);
            if (eventFlags != nullptr) *eventFlags = cfg->uiPelEventFlag;
            Text(ai->pszAdapterName, adapterName, adapterNameLength, &rc);
            Text(ai->pszVendorInfo, vendorInfo, vendorInfoLength, &rc);
        }
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavGetPelTechInfo(void* hdl, uint32_t* adapterId, uint32_t* threadModel,
                                 uint16_t* mavVersion, uint32_t* scanFlags, uint32_t* actionFlags,
                                 uint32_t* cioFlags) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,...)\n", __func__, hdl);
    MAV_RC rc = MAV_OK;
    MAV_HDL_REC* h = ConfiguredHandle(hdl, &rc, __func__);
    if (h != nullptr) {
        const PEL_CONFIG* cfg = h->pPelConfig;
        const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo;
        if (ai == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
        } else {
            if (adapterId != nullptr) *adapterId = ai->uiAdapterID;
            if (threadModel != nullptr) *threadModel = ai->uiThreadModel;
            if (mavVersion != nullptr) *mavVersion = ai->usMavVersion;
            if (scanFlags != nullptr) *scanFlags = cfg->uiPelScanFlag;
            if (actionFlags != nullptr) *actionFlags = cfg->uiPelActionFlag;
            if (cioFlags != nullptr) *cioFlags = cfg->uiPelCIOFlag;
        }
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavGetEngineInfo(void* hdl, uint32_t* version, KORMO_CHAR* versionText,
                                size_t* versionTextLength, uint64_t* date, uint32_t* viruses,
                                uint16_t* drivers) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,...)\n", __func__, hdl);
    MAV_RC rc = MAV_OK;
    MAV_HDL_REC* h = ConfiguredHandle(hdl, &rc, __func__);
    if (h != nullptr) {
        const PEL_INIT* init = EngineOf(hdl, h);
        if (init == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
        } else {
            if (version != nullptr)
                *version = Version(init->usEngineMajVersion, init->usEngineMinVersion);
            if (date != nullptr) *date = static_cast<uint64_t>(init->utcDate);
            if (viruses != nullptr) *viruses = init->uiViruses;
            if (drivers != nullptr) *drivers = init->usDrivers;
            Text(init->pszEngineVersionText, versionText, versionTextLength, &rc);
        }
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

}  // extern "C"
