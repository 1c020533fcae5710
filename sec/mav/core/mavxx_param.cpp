// mavxx_param.cpp - the public parameter calls: read, set, reset and enumerate
// the parameters of a handle or instance by name, values as text.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "krnflat.h"
#include "mavxxi.h"

namespace {

const char* Str(const char* s) {
    return s != nullptr ? s : "(null)";
}

// Looks a parameter name up: custom names first, then init or optional
// names. Unknown names are traced by the parsers.
MAV_RC CodeOfName(const KORMO_CHAR* name, int32_t* code) {
    int32_t cust = MavIXParseCustParam(name);
    if (cust != 0) {
        *code = cust;
        return MAV_OK;
    }
    if (strncmpiU(name, "INIT", 4) == 0) return MavIXParseInitParams(name, code);
    return MavIXParseOptParams(name, code);
}

// Brings the handle's temporary directory in line with INITTEMP_PATH after a
// successful change.
MAV_RC SyncTmpPath(void* hdlOrInst) {
    MAV_HDL_REC* hdl = MavIGetHandle(hdlOrInst);
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    MAV_RC rc = MAV_OK;
    int locked = MavILockHdl(hdl);
    PEL_PARAM* entry = nullptr;
    if (MavIGetPelParameter(hdlOrInst, "INITTEMP_PATH", 0, &entry) != MAV_OK) {
        if (locked) MavIUnlockHdl(hdl);
        return MAV_OK;
    }
    const char* value = static_cast<const char*>(entry->pvValue);
    if (value == nullptr || *value == '\0') {
        MAV_TRC_E("Error in getting the temp path \n");
        MavIFree(hdl->pszTmpPath);
        hdl->pszTmpPath = nullptr;
    } else {
        struct stat st;
        if (stat(value, &st) != 0 || !S_ISDIR(st.st_mode) || access(value, R_OK | W_OK) != 0) {
            MAV_TRC_E("Invalid path %s. \n", value);
            MavIFree(hdl->pszTmpPath);
            hdl->pszTmpPath = nullptr;
            rc = MAV_E_INVALID_PARAM;
        } else if (hdl->pszTmpPath == nullptr || strcmp(hdl->pszTmpPath, value) != 0) {
            size_t len = strlen(value);
            char* copy = static_cast<char*>(MavIAlloc(len + 1, true));
            if (copy == nullptr) {
                MAV_TRC_E("Error in malloc of TEMP path \n");
                rc = MAV_E_NO_SPACE;
            } else {
                memcpy(copy, value, len);
                MavIFree(hdl->pszTmpPath);
                hdl->pszTmpPath = copy;
            }
        }
    }
    if (locked) MavIUnlockHdl(hdl);
    return rc;
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavGetParameter(void* hdl, const KORMO_CHAR* name, int32_t* type, KORMO_CHAR* value,
                               size_t* valueLength) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%s,%p,%p,%p)\n", __func__, hdl, Str(name),
                  static_cast<void*>(type), static_cast<void*>(value),
                  static_cast<void*>(valueLength));
    MAV_RC rc = MAV_E_NULL_PARAM;
    PEL_PARAM* entry = nullptr;
    // Read under the handle's lock: a change on another thread may replace
    // the value's text meanwhile.
    MAV_HDL_REC* owner = MavIGetHandle(hdl);
    int locked = owner != nullptr ? MavILockHdl(owner) : 0;
    if (name != nullptr) rc = MavIGetPelParameter(hdl, name, 0, &entry);
    if (rc == MAV_OK) {
        if (type != nullptr) *type = entry->tType;
        rc = MavIGetConfigValue(entry, value, valueLength);
    }
    if (locked) MavIUnlockHdl(owner);
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavSetParameter(void* hdl, const KORMO_CHAR* name, int32_t type,
                               const KORMO_CHAR* value) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%s,%d,%s)\n", __func__, hdl, Str(name), type, Str(value));
    MAV_RC rc = MAV_E_NULL_PARAM;
    MAV_PARAM_ID id = {sizeof(MAV_PARAM_ID), 0, type};
    if (name != nullptr) rc = CodeOfName(name, &id.tCode);
    if (rc == MAV_E_PARAM_UNSUPPORTED) MavIXNoteUnknownName(hdl, name, rc);
    if (rc == MAV_OK) {
        if (MavIGetHandle(hdl) == nullptr || MavIGetCfg(hdl) == nullptr)
            rc = MAV_E_INVALID_HANDLE;
        else if (value == nullptr)
            rc = MavISetDefaultValue(hdl, &id);
        else
            rc = MavISetConfigValue(hdl, &id, value);
    }
    if (rc == MAV_OK && id.tCode == VS_P_INITTEMP_PATH) rc = SyncTmpPath(hdl);
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavEnumParameters(void* hdl, uint32_t index, KORMO_CHAR* name, size_t* nameLength,
                                 int32_t* type, KORMO_CHAR* value, size_t* valueLength) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%u,%p,%p,%p,%p,%p)\n", __func__, hdl, index,
                  static_cast<void*>(name), static_cast<void*>(nameLength),
                  static_cast<void*>(type), static_cast<void*>(value),
                  static_cast<void*>(valueLength));
    PEL_PARAM* entry = nullptr;
    MAV_HDL_REC* owner = MavIGetHandle(hdl);  // read under its lock, as above
    int locked = owner != nullptr ? MavILockHdl(owner) : 0;
    MAV_RC rc = MavIGetPelParameterByIndex(hdl, index, &entry);
    if (rc == MAV_OK) {
        if (nameLength != nullptr) {
            const char* text = MavIXGetPelParamName(entry->tCode);
            size_t needed = strlen(text) + 1;
            if (name == nullptr) {
                *nameLength = needed;
            } else if (*nameLength < needed) {
                MAV_TRC_E("Buffer for parameter too small (passed length=%d, needed length=%d)\n",
                          static_cast<int>(*nameLength), static_cast<int>(needed));
                if (*nameLength > 0) name[0] = '\0';
                *nameLength = 0;
                rc = MAV_E_BUFFER_TOO_SHORT;
            } else {
                memcpy(name, text, needed);
                *nameLength = needed - 1;
            }
        }
        if (type != nullptr) *type = entry->tType;
        if (valueLength != nullptr) {
            MAV_RC vrc = MavIGetConfigValue(entry, value, valueLength);
            if (rc == MAV_OK) rc = vrc;
        }
    }
    if (locked) MavIUnlockHdl(owner);
    MAV_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_RC MavSetDefaultConfig(void* hdl) {
    if (hdl == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p)\n", __func__, hdl);
    MAV_RC rc = MavISetDefaultConfig(hdl);
    MAV_TRC_EXIT(rc);
    return rc;
}

}  // extern "C"
