// mavxxi_err.cpp - a handle's error list and the adapter's error texts.
//
// The list lives in the handle record (errors, errorCount, lastErrorRc). Entry
// texts are C-library duplicates (free), the array goes through the memory
// hooks. Writers hold the handle's lock; MavAdapterErrorText takes it to read.
#include <cstdlib>
#include <cstring>

#include "mavxxi.h"

namespace {

// The engine record a handle, instance or profile instance reads: an
// instance's own, else its handle's shared one.
PEL_INIT* MavIErrInit(void* p) {
    if (MAV_INST_REC* inst = MavIGetInst(p)) return inst->pPelInit;
    if (MAV_HDL_REC* hdl = MavIGetHandle(p)) return hdl->pSharedInit;
    return nullptr;
}

// Gives the caller a new zero-filled buffer of L + 2 bytes when L exceeds its
// size (its old buffer stays the caller's); *textLength becomes L + 1.
MAV_RC MavIErrEnsureBuffer(KORMO_CHAR** textBuffer, size_t* textLength, size_t len) {
    if (len <= *textLength) return MAV_OK;
    KORMO_CHAR* buf = static_cast<KORMO_CHAR*>(MavIAlloc(len + 2, true));
    if (buf == nullptr) return MAV_E_NO_SPACE;
    *textBuffer = buf;
    *textLength = len + 1;
    return MAV_OK;
}

// From the adapter's PEL_INIT: UTF-8, converted into the caller's buffer.
MAV_RC MavIErrTextFromInit(const PEL_INIT* init, KORMO_CHAR** textBuffer, size_t* textLength) {
    const char* text = init->pszErrorText;
    if (textBuffer == nullptr) {
        *textLength = text != nullptr ? strlen(text) : 0;
        return MAV_OK;
    }
    if (text == nullptr) {
        *textLength = 0;
        return MAV_OK;
    }
    size_t len = strlen(text);
    MAV_RC rc = MavIErrEnsureBuffer(textBuffer, textLength, len);
    if (rc != MAV_OK) return rc;
    size_t n = len;
    rc = MavIUtf8sToUcs(*textBuffer, *textLength, &n, text);
    if (rc != MAV_OK) {
        if (*textLength != 0 && *textBuffer != nullptr) (*textBuffer)[0] = 0;
        *textLength = 0;
        return rc;
    }
    *textLength = n;
    return MAV_OK;
}

// From the last entry of the list: copied as it is, without terminator.
MAV_RC MavIErrTextFromList(const MAV_HDL_REC* hdl, KORMO_CHAR** textBuffer, size_t* textLength) {
    if (hdl->errors == nullptr || hdl->errorCount == 0) return MAV_OK;
    const MAV_ERROR_ENTRY& last = hdl->errors[hdl->errorCount - 1];
    size_t len = last.lLength;
    const char* text = last.pszText;
    if (len == 0) {
        text = nullptr;
        *textLength = 0;
    } else if (text == nullptr) {
        // The duplicate failed: a stand-in of its own length.
        text = MavErrorDescription(MAV_E_INVALID_PARAM);
        len = strlen(text);
    }
    if (textBuffer == nullptr) {
        *textLength = len;
        return MAV_OK;
    }
    MAV_RC rc = MavIErrEnsureBuffer(textBuffer, textLength, len);
    if (rc != MAV_OK) return rc;
    if (len == 0) return MAV_OK;
    if (*textBuffer == nullptr) return MAV_E_NULL_PARAM;
    memcpy(*textBuffer, text, len);
    return MAV_OK;
}

}  // namespace

extern "C" {

MAV_LOCAL void MavPAddError(MAV_HDL_REC* hdl, const char* text, MAV_RC rc) {
    if (hdl == nullptr || text == nullptr || text[0] == 0) return;
    void* list;
    if (hdl->errors != nullptr) {
        list = MavIRealloc(hdl->errors, (size_t(hdl->errorCount) + 1) * sizeof(MAV_ERROR_ENTRY));
    } else {
        hdl->errorCount = 0;
        list = MavIAlloc(sizeof(MAV_ERROR_ENTRY), true);
    }
    if (list == nullptr) return;  // lost silently; the old list stays intact
    hdl->errors = static_cast<MAV_ERROR_ENTRY*>(list);
    MAV_ERROR_ENTRY& entry = hdl->errors[hdl->errorCount];
    entry.pszText = strdup(text);
    entry.lLength = strlen(text);
    hdl->errorCount++;
    hdl->lastErrorRc = rc;
}

MAV_LOCAL void MavPFreeError(MAV_ERROR_ENTRY** list, uint32_t count) {
    if (list == nullptr || *list == nullptr) return;
    for (uint32_t i = 0; i < count; i++) free((*list)[i].pszText);
    MavIFree(*list);
    *list = nullptr;
}

MAV_API uint32_t MavAdapterErrorCode(void* hdl) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return 0xFFFFFFFFu;
    }
    MAV_HDL_REC* owner = MavILockOwner(hdl);
    const PEL_INIT* init = owner != nullptr ? MavIErrInit(hdl) : nullptr;
    uint32_t code = init != nullptr ? static_cast<uint32_t>(init->iErrorRC) : 0xFFFFFFFFu;
    if (owner != nullptr) MavIUnlockHdl(owner);
    if (init == nullptr) MAV_TRC_E("Invalid NULL handle for PEL (PEL_INIT)\n");
    return code;
}

MAV_API MAV_RC MavAdapterErrorText(void* hdl, KORMO_CHAR** textBuffer, size_t* textLength) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p,%p)\n", __func__, hdl, static_cast<void*>(textBuffer),
                  static_cast<void*>(textLength));
    MAV_RC rc = MAV_OK;
    // The engine record and the list are read under the handle lock (a
    // reload ends the engine record under it).
    MAV_HDL_REC* owner = textLength != nullptr ? MavILockOwner(hdl) : nullptr;
    if (textLength == nullptr) {
        // Nothing asked for.
    } else if (const PEL_INIT* init = owner != nullptr ? MavIErrInit(hdl) : nullptr) {
        rc = MavIErrTextFromInit(init, textBuffer, textLength);
    } else if (owner != nullptr && MavIGetHandle(hdl) == owner) {
        rc = MavIErrTextFromList(owner, textBuffer, textLength);
    } else {
        MAV_TRC_E("Invalid NULL handle for PEL (PEL_INIT)\n");
        rc = MAV_E_INVALID_HANDLE;
    }
    if (owner != nullptr) MavIUnlockHdl(owner);
    MAV_TRC_EXIT(rc);
    return rc;
}

}  // extern "C"
