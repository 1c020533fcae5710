// mavxx_result.cpp - reading the last scan's results by index: infections,
// scan errors and content information.
//
// Texts go to the caller by the buffer rule of MavIPutText; a failed text
// empties its buffer and becomes the call's result, and later texts of the
// same call are still filled.
#include "mavxxi.h"

namespace {

// The instance whose results a call reads; a profile instance stands for its
// current C instance. On failure *rc holds the call's result.
MAV_INST_REC* ResultInstance(void* hdl, MAV_RC* rc) {
    switch (MavIXRecKind(hdl)) {
        case MAV_REC_INSTANCE:
            return static_cast<MAV_INST_REC*>(hdl);
        case MAV_REC_PROFILE: {
            MAV_INST_REC* inst = MavIGetInst(hdl);
            if (inst == nullptr)
                *rc = MAV_E_NO_SCANINFO;
            else if (MavIXRecKind(inst) != MAV_REC_INSTANCE)
                *rc = MAV_E_INVALID_HANDLE;
            else
                return inst;
            return nullptr;
        }
        case MAV_REC_HANDLE:
            // A handle holds no scan results.
            *rc = MAV_E_NO_SCANINFO;
            return nullptr;
        default:
            *rc = MAV_E_INVALID_HANDLE;
            return nullptr;
    }
}

// Common checks of the three enumerators; returns the result record. Traces
// under the enumerator's name.
PEL_SCANINFO* ScanInfoOf(void* hdl, MAV_RC* rc, const char* func) {
    if (MavIXRecKind(hdl) == MAV_REC_PROFILE && MavIGetInst(hdl) == nullptr) {
        // A profile instance that reached no engine: its own "not scanned".
        PEL_SCANINFO* si =
            MavIXProfileOps()->pfnNoEngineResult(static_cast<MAV_INST_REC*>(hdl)->pProfileInst);
        if (si == nullptr) *rc = MAV_E_NO_SCANINFO;
        return si;
    }
    MAV_INST_REC* inst = ResultInstance(hdl, rc);
    if (inst == nullptr) return nullptr;
    if (inst->pScanInfo == nullptr) {
        *rc = MAV_E_NO_SCANINFO;
        return nullptr;
    }
    if (inst->pHdl == nullptr || inst->pHdl->pFunctions == nullptr) {
        MAV_TRC_FN(MAV_TRC_ERROR, func, "Invalid NULL parameter for mav handle\n");
        *rc = MAV_E_NOT_INITIALISED;
        return nullptr;
    }
    return inst->pScanInfo;
}

// The frame of the three enumerators, traced under the enumerator's name func:
// entry trace; a null handle is refused without an exit trace; then the checks
// of ScanInfoOf, read(si, &rc) on the results they found, and the exit trace.
template <typename Read>
MAV_RC Enumerate(void* hdl, uint32_t index, const char* func, Read&& read) {
    MAV_TRC_FN(MAV_TRC_FUNCTION, func, ">> start >> %s(%p,%d,...)\n", func, hdl,
               static_cast<int>(index));
    if (hdl == nullptr) {
        MAV_TRC_FN(MAV_TRC_ERROR, func, "Invalid NULL parameter for handle\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_RC rc = MAV_OK;
    PEL_SCANINFO* si = ScanInfoOf(hdl, &rc, func);
    if (si != nullptr) read(si, &rc);
    MAV_TRC_FN(MAV_TRC_FUNCTION, func, "<<  end  << %s(MAV_RC==%s) \n", func, MavErrorName(rc));
    return rc;
}

// Keeps the first failure of a call's texts.
void Text(const char* utf8, KORMO_CHAR* buf, size_t* length, MAV_RC* rc) {
    MAV_RC trc = MavIPutText(utf8, buf, length);
    if (trc != MAV_OK && *rc == MAV_OK) *rc = trc;
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavEnumInfections(void* hdl, uint32_t index, uint8_t* repairable, uint32_t* virusId,
                                 KORMO_CHAR* virusName, size_t* virusNameLength,
                                 KORMO_CHAR* objectName, size_t* objectNameLength,
                                 uint64_t* objectSize, KORMO_CHAR* freeText,
                                 size_t* freeTextLength) {
    return Enumerate(hdl, index, __func__, [&](PEL_SCANINFO* si, MAV_RC* rc) {
        uint32_t count = si->pVirusInfo != nullptr ? si->uiInfections : 0;
        if (index >= count) {
            *rc = MAV_E_INVALID_ENUM_INDEX;
            return;
        }
        const PEL_VIRUSINFO* v = &si->pVirusInfo[index];
        if (repairable != nullptr) *repairable = v->bRepairable == 1 ? 1 : 0;
        if (virusId != nullptr) *virusId = v->uiVirusID;
        if (objectSize != nullptr) *objectSize = v->lObjectSize;
        Text(v->pszVirusName, virusName, virusNameLength, rc);
        Text(v->pszObjectName, objectName, objectNameLength, rc);
        Text(v->pszFreeTextInfo, freeText, freeTextLength, rc);
    });
}

MAV_API MAV_RC MavEnumScanErrors(void* hdl, uint32_t index, uint32_t* errorCode,
                                 KORMO_CHAR* errorText, size_t* errorTextLength,
                                 KORMO_CHAR* objectName, size_t* objectNameLength,
                                 uint64_t* objectSize) {
    return Enumerate(hdl, index, __func__, [&](PEL_SCANINFO* si, MAV_RC* rc) {
        uint32_t count = si->pScanError != nullptr ? si->uiScanErrors : 0;
        if (index >= count) {
            *rc = MAV_E_INVALID_ENUM_INDEX;
            return;
        }
        const PEL_SCANERROR* e = &si->pScanError[index];
        if (errorCode != nullptr) *errorCode = static_cast<uint32_t>(e->iErrorRC);
        if (objectSize != nullptr) *objectSize = e->lObjectSize;
        Text(e->pszErrorText, errorText, errorTextLength, rc);
        Text(e->pszObjectName, objectName, objectNameLength, rc);
    });
}

MAV_API MAV_RC MavEnumContentInfo(void* hdl, uint32_t index, uint32_t* objectType,
                                  KORMO_CHAR* extension, size_t* extensionLength,
                                  KORMO_CHAR* contentType, size_t* contentTypeLength,
                                  KORMO_CHAR* objectName, size_t* objectNameLength,
                                  uint64_t* reserved) {
    return Enumerate(hdl, index, __func__, [&](PEL_SCANINFO* si, MAV_RC* rc) {
        if (si->pContentInfo == nullptr) {
            // No content list at all: every output cleared, MAV_OK for any index.
            if (objectType != nullptr) *objectType = 0;
            KORMO_CHAR* bufs[] = {extension, contentType, objectName};
            size_t* lens[] = {extensionLength, contentTypeLength, objectNameLength};
            for (int i = 0; i < 3; ++i) {
                if (bufs[i] != nullptr && (lens[i] == nullptr || *lens[i] != 0)) bufs[i][0] = 0;
                if (lens[i] != nullptr) *lens[i] = 0;
            }
            if (reserved != nullptr) *reserved = 0;
            return;
        }
        if (index >= si->uiScanned) {
            *rc = MAV_E_INVALID_ENUM_INDEX;
            return;
        }
        const PEL_CONTENTINFO* c = &si->pContentInfo[index];
        if (objectType != nullptr) *objectType = c->tObjectType;
        Text(c->pszExtension, extension, extensionLength, rc);
        Text(c->pszContentType, contentType, contentTypeLength, rc);
        Text(c->pszObjectName, objectName, objectNameLength, rc);
    });
}

MAV_API void MavPFreeInfo(void** ptr) {
    if (ptr == nullptr || *ptr == nullptr) return;
    MavIFree(*static_cast<void**>(*ptr));
    MavIFree(*ptr);
    *ptr = nullptr;
}

MAV_API void MavFreeBuffer(void* buffer) {
    MavIFree(buffer);
}

}  // extern "C"
