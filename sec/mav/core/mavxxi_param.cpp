// mavxxi_param.cpp - parameter tables, name lookups and the MAV_CFG copies of
// an adapter's parameter lists.
//
// The set of names and codes is the library's; which parameters an adapter
// offers, with which type and default, comes from its PEL_CONFIG lists. A
// MAV_CFG holds a copy of both lists and four index tables from code to list
// position (-1: not offered).
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "krnflat.h"
#include "mavxxi.h"

namespace {

constexpr int32_t kInitBase = 0;
constexpr int32_t kScanBase = 100;
constexpr int32_t kCleanBase = 200;
constexpr int32_t kBlockBase = 300;
constexpr int32_t kCustBase = -100;

constexpr int kInitIndexCount = 16;  // codes 0-15
constexpr int kScanIndexCount = 21;  // codes 100-120
constexpr int kCleanIndexCount = 6;  // codes 200-205
constexpr int kBlockIndexCount = 2;  // codes 300-301

const char* const kInitNames[] = {
    "INITDRIVERS",        "INITEXTRADRIVERS",    "INITDRIVERDIRECTORY", "INITEXTRADRIVERDIRECTORY",
    "INITSERVERS",        "INITTIMEOUT",         "INITRECONNECTTIME",   "INITCONTENTPATTERN",
    "INITREPLACEPATTERN", "INITREGEXFLAGS",      "INITTEMP_PATH",       "INITDIRECTORY",
    "INITENGINES",        "INITENGINEDIRECTORY", "INITUPDATE_URI",
};
const char* const kScanNames[] = {
    "SCANBESTEFFORT",    "SCANALLFILES",        "SCANALLMACROS",     "SCANALLEMBEDDED",
    "SCANEXTENSIONS",    "SCANHEURISTICLEVEL",  "SCANONLYHEURISTIC", "SCANLIMIT",
    "SCANEXTRACT",       "SCANEXTRACT_PATH",    "SCANEXTRACT_SIZE",  "SCANEXTRACT_TIME",
    "SCANEXTRACT_DEPTH", "SCANEXTRACT_RATIO",   "SCANLOGPATH",       "SCANDIREXCLUDELIST",
    "SCANSUBDIRLEVEL",   "SCANACCESSFILELOCAL", "SCANMIMETYPES",     "SCANEXCLUDEMIMETYPES",
    "SCANREGEXFLAGS",
};
const char* const kCleanNames[] = {
    "CLEANRENAME",
    "CLEANDELETE",
    "CLEANQUARANTINE",
    "CLEANNODELETEINARCHIVE",
    "CLEANNODELETEINEMBEDDED",
    "CLEANNODELETEJOKES",
};
const char* const kBlockNames[] = {"BLOCKMIMETYPES", "BLOCKEXTENSIONS"};
// Custom codes run downwards: -100 is the first name.
const char* const kCustNames[] = {
    "CUST_ACTIVE_CONTENT", "CUST_CHECK_MIME_TYPE", "CUST_NOT_SCANNED_AS_WARNING",
    "CUST_NO_SCANINFO",    "CUST_CLEAN",           "CUST_MIME_TYPES_ARE_BLACKLIST",
};
const char* const kTypeNames[] = {"BOOL",   "BYTE", "SHORT",  "INT",    "LONG",  "FLOAT",
                                  "DOUBLE", "CHAR", "TIME_T", "SIZE_T", "OBJECT"};

template <size_t N>
int FindName(const char* const (&table)[N], const char* name) {
    for (size_t i = 0; i < N; ++i) {
        if (strcmpiU(table[i], name) == 0) return static_cast<int>(i);
    }
    return -1;
}

bool HasPrefix(const char* name, const char* prefix) {
    return strncmpiU(name, prefix, strlen(prefix)) == 0;
}

// Values of CHAR and OBJECT entries are strings owned by the MAV_CFG.
bool IsTextType(int32_t type) {
    return type == VS_TYPE_CHAR || type == VS_TYPE_OBJECT;
}

const char* TypeNameOrNull(int32_t type) {
    const char* n = MavParamTypeName(type);
    return n != nullptr ? n : "(null)";
}

void TraceUnknownName(const char* name) {
    MAV_TRC_E("The parameter >>>%s<<< is unknown or not supported.\n",
              name != nullptr ? name : "(null)");
}

// Texts replaced in a live configuration are not freed at once: an adapter
// may be reading them inside PelScan on another instance of the handle. They
// are kept on the configuration's retired list (first reserved word) until
// MavIXFreeCFG.
struct RetiredText {
    RetiredText* pNext;
    void* pvText;
};

// A buffer of size bytes for a text that replaces *old in cfg (null cfg: the
// configuration is not yet shared, so the old buffer is simply reused).
char* NewTextBuffer(MAV_CFG* cfg, void* old, size_t size) {
    if (cfg == nullptr || old == nullptr) return static_cast<char*>(MavIRealloc(old, size));
    RetiredText* node = static_cast<RetiredText*>(MavIAlloc(sizeof(RetiredText), true));
    if (node == nullptr) return nullptr;
    char* buf = static_cast<char*>(MavIAlloc(size, false));
    if (buf == nullptr) {
        MavIFree(node);
        return nullptr;
    }
    node->pvText = old;
    node->pNext = reinterpret_cast<RetiredText*>(cfg->aReserved[0]);
    cfg->aReserved[0] = reinterpret_cast<size_t>(node);
    return buf;
}

// Replaces an entry's value with a copy of len bytes of text (owned).
MAV_RC StoreText(MAV_CFG* cfg, PEL_PARAM* dest, const char* text, size_t len) {
    void* old = IsTextType(dest->tType) ? dest->pvValue : nullptr;
    char* buf = NewTextBuffer(cfg, old, len + 1);
    if (buf == nullptr) return MAV_E_NO_SPACE;
    if (len > 0) memcpy(buf, text, len);
    buf[len] = '\0';
    __atomic_store_n(&dest->pvValue, static_cast<void*>(buf), __ATOMIC_RELEASE);
    return MAV_OK;
}

}  // namespace

extern "C" {

// ---- Names and codes ---------------------------------------------------------------

const char* MavIXGetPelParamName(int32_t code) {
    if (code >= kInitBase && code < kInitBase + kInitIndexCount) {
        // Code 15 is reserved in the init range and has no name.
        if (code - kInitBase < static_cast<int32_t>(sizeof kInitNames / sizeof *kInitNames))
            return kInitNames[code - kInitBase];
        return "UNKNOWN";
    }
    if (code >= kScanBase && code < kScanBase + kScanIndexCount)
        return kScanNames[code - kScanBase];
    if (code >= kCleanBase && code < kCleanBase + kCleanIndexCount)
        return kCleanNames[code - kCleanBase];
    if (code >= kBlockBase && code < kBlockBase + kBlockIndexCount)
        return kBlockNames[code - kBlockBase];
    if (code <= kCustBase && code > kCustBase - 6) return kCustNames[kCustBase - code];
    return "UNKNOWN";
}

MAV_API const KORMO_CHAR* MavParamCodeName(int32_t code) {
    return MavIXGetPelParamName(code);
}

MAV_API int32_t MavParamCode(const KORMO_CHAR* name) {
    if (name == nullptr) return -1;
    int i;
    if (HasPrefix(name, "INIT")) {
        i = FindName(kInitNames, name);
        return i >= 0 ? kInitBase + i : -1;
    }
    if (HasPrefix(name, "SCAN")) {
        i = FindName(kScanNames, name);
        return i >= 0 ? kScanBase + i : -1;
    }
    if (HasPrefix(name, "BLOCK")) {
        i = FindName(kBlockNames, name);
        return i >= 0 ? kBlockBase + i : -1;
    }
    if (HasPrefix(name, "CLEAN")) {
        i = FindName(kCleanNames, name);
        return i >= 0 ? kCleanBase + i : -1;
    }
    if (HasPrefix(name, "CUST")) {
        // An unknown custom name falls back to the first custom code.
        i = FindName(kCustNames, name);
        return i >= 0 ? kCustBase - i : kCustBase;
    }
    return -1;
}

MAV_API int32_t MavParamType(const KORMO_CHAR* typeName) {
    if (typeName == nullptr) return -1;
    return FindName(kTypeNames, typeName);
}

MAV_API const KORMO_CHAR* MavParamTypeName(int32_t type) {
    if (type < 0 || type > VS_TYPE_OBJECT) return nullptr;
    return kTypeNames[type];
}

MAV_RC MavIXParseInitParams(const KORMO_CHAR* name, int32_t* code) {
    if (name == nullptr || code == nullptr) return MAV_E_NULL_PARAM;
    int i = FindName(kInitNames, name);
    if (i < 0) {
        TraceUnknownName(name);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    *code = kInitBase + i;
    return MAV_OK;
}

MAV_RC MavIXParseOptParams(const KORMO_CHAR* name, int32_t* code) {
    if (name == nullptr || code == nullptr) return MAV_E_NULL_PARAM;
    int i;
    int32_t base;
    if (HasPrefix(name, "SCAN")) {
        i = FindName(kScanNames, name);
        base = kScanBase;
    } else if (HasPrefix(name, "BLOCK")) {
        i = FindName(kBlockNames, name);
        base = kBlockBase;
    } else {
        i = FindName(kCleanNames, name);
        base = kCleanBase;
    }
    if (i < 0) {
        TraceUnknownName(name);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    *code = base + i;
    return MAV_OK;
}

// Custom code of a name (-100..-105), or 0 when it is none of them.
MAV_LOCAL int32_t MavIXParseCustParam(const KORMO_CHAR* name) {
    if (name == nullptr) return 0;
    int i = FindName(kCustNames, name);
    return i >= 0 ? kCustBase - i : 0;
}

// Position of a code in the MAV_CFG's lists: *initList tells which list; -1
// when the adapter does not offer it or the code is not an adapter code.
MAV_LOCAL int MavIXParamIndex(const MAV_CFG* cfg, int32_t code, bool* initList) {
    *initList = false;
    int idx = -1;
    const PEL_PARAMS* list = nullptr;
    if (code >= kInitBase && code < kInitBase + kInitIndexCount) {
        idx = cfg->asInitIndex[code - kInitBase];
        list = cfg->pInitParams;
        *initList = true;
    } else if (code >= kScanBase && code < kScanBase + kScanIndexCount) {
        idx = cfg->asScanIndex[code - kScanBase];
        list = cfg->pOptParams;
    } else if (code >= kCleanBase && code < kCleanBase + kCleanIndexCount) {
        idx = cfg->asCleanIndex[code - kCleanBase];
        list = cfg->pOptParams;
    } else if (code >= kBlockBase && code < kBlockBase + kBlockIndexCount) {
        idx = cfg->asBlockIndex[code - kBlockBase];
        list = cfg->pOptParams;
    }
    if (idx < 0 || list == nullptr || list->pParams == nullptr || idx >= list->usNumParams)
        return -1;
    return idx;
}

// ---- Building a MAV_CFG --------------------------------------------------------------

MAV_RC MavIXCopyParameter(PEL_PARAM* dest, int32_t code, const PEL_PARAM* src, bool initList,
                          MAV_CFG* retireTo) {
    if (dest == nullptr || src == nullptr) return MAV_E_NULL_PARAM;
    if (src->tType < VS_TYPE_BOOL || src->tType > VS_TYPE_OBJECT) {
        if (initList)
            MAV_TRC_E("Invalid INIT Type %d passed for MavIXCopyParameter\n", src->tType);
        else
            MAV_TRC_E("Invalid OPT Type %d passed for MavIXCopyParameter\n", src->tType);
        return MAV_E_INVALID_PARAM_TYPE;
    }
    if (IsTextType(src->tType)) {
        // The adapter's length may overstate its string: copy no further than
        // its terminator.
        // The length is the adapter's word: a value whose buffer (length + 1)
        // would wrap or cannot exist is refused, not allocated.
        if (src->lLength >= PTRDIFF_MAX) {
            MAV_TRC_E("Parameter %d: length %zu from the adapter refused\n", code, src->lLength);
            return MAV_E_INVALID_PARAM;
        }
        const char* text = static_cast<const char*>(src->pvValue);
        size_t len = text != nullptr ? strnlen(text, src->lLength) : 0;
        void* old = IsTextType(dest->tType) ? dest->pvValue : nullptr;
        char* buf = NewTextBuffer(retireTo, old, src->lLength + 1);
        if (buf == nullptr) return MAV_E_NO_SPACE;
        if (len > 0) memcpy(buf, text, len);
        memset(buf + len, 0, src->lLength + 1 - len);
        dest->pvValue = buf;
    } else {
        void* old = IsTextType(dest->tType) ? dest->pvValue : nullptr;
        dest->pvValue = src->pvValue;
        if (old != nullptr) {
            if (retireTo == nullptr) {
                MavIFree(old);
            } else {
                RetiredText* node = static_cast<RetiredText*>(MavIAlloc(sizeof(RetiredText), true));
                if (node == nullptr) {
                    dest->pvValue = old;
                    return MAV_E_NO_SPACE;
                }
                node->pvText = old;
                node->pNext = reinterpret_cast<RetiredText*>(retireTo->aReserved[0]);
                retireTo->aReserved[0] = reinterpret_cast<size_t>(node);
            }
        }
    }
    dest->struct_size = sizeof(PEL_PARAM);
    dest->tCode = code;
    dest->tType = src->tType;
    dest->lLength = src->lLength;
    return MAV_OK;
}

MAV_RC MavIXSetDefaultConfig(const PEL_CONFIG* pelCfg, MAV_CFG* cfg) {
    if (pelCfg == nullptr || cfg == nullptr) return MAV_E_NULL_PARAM;
    memset(cfg->asInitIndex, 0xff, sizeof cfg->asInitIndex);
    memset(cfg->asScanIndex, 0xff, sizeof cfg->asScanIndex);
    memset(cfg->asCleanIndex, 0xff, sizeof cfg->asCleanIndex);
    memset(cfg->asBlockIndex, 0xff, sizeof cfg->asBlockIndex);

    const PEL_PARAMS* src = pelCfg->pInitParams;
    PEL_PARAMS* dst = cfg->pInitParams;
    if (src != nullptr && src->pParams != nullptr && dst != nullptr && dst->pParams != nullptr) {
        uint16_t n = src->usNumParams < dst->usNumParams ? src->usNumParams : dst->usNumParams;
        for (uint16_t i = 0; i < n; ++i) {
            const PEL_PARAM* p = &src->pParams[i];
            MAV_RC rc = MavIXCopyParameter(&dst->pParams[i], p->tCode, p, true, cfg);
            if (rc != MAV_OK) {
                MAV_TRC_E("Error rc = %s in MavIXSetDefaultConfig\n", MavErrorName(rc));
                return rc;
            }
            if (p->tCode >= kInitBase && p->tCode < kInitBase + kInitIndexCount)
                cfg->asInitIndex[p->tCode - kInitBase] = static_cast<int16_t>(i);
            else
                MAV_TRC_W("Warning: Parameter with tCode(%d) is unknown\n", p->tCode);
        }
    }

    src = pelCfg->pOptParams;
    dst = cfg->pOptParams;
    if (src != nullptr && src->pParams != nullptr && dst != nullptr && dst->pParams != nullptr) {
        uint16_t n = src->usNumParams < dst->usNumParams ? src->usNumParams : dst->usNumParams;
        for (uint16_t i = 0; i < n; ++i) {
            const PEL_PARAM* p = &src->pParams[i];
            MAV_RC rc = MavIXCopyParameter(&dst->pParams[i], p->tCode, p, false, cfg);
            if (rc != MAV_OK) {
                MAV_TRC_E("Error rc = %s in MavIXSetDefaultConfig\n", MavErrorName(rc));
                return rc;
            }
            int32_t c = p->tCode;
            int16_t pos = static_cast<int16_t>(i);
            if (c >= kScanBase && c < kScanBase + kScanIndexCount)
                cfg->asScanIndex[c - kScanBase] = pos;
            else if (c >= kCleanBase && c < kCleanBase + kCleanIndexCount)
                cfg->asCleanIndex[c - kCleanBase] = pos;
            else if (c >= kBlockBase && c < kBlockBase + kBlockIndexCount)
                cfg->asBlockIndex[c - kBlockBase] = pos;
            else
                MAV_TRC_W("Warning: Parameter with tCode(%d) is unknown\n", c);
        }
    }
    return MAV_OK;
}

MAV_RC MavIGetConfig(const PEL_CONFIG* pelCfg, MAV_CFG** cfg) {
    if (pelCfg == nullptr || cfg == nullptr) {
        MAV_TRC_E("Null parameter supplied. MAV_CFG(%p) or PEL_CFG(%p)\n", static_cast<void*>(cfg),
                  static_cast<const void*>(pelCfg));
        return MAV_E_NULL_PARAM;
    }
    MAV_RC rc = MavIXAllocCFG(pelCfg, cfg);
    if (rc != MAV_OK) {
        MAV_TRC_E("Error in MavAllocCFG occured (rc = %s)\n", MavErrorName(rc));
        return rc;
    }
    rc = MavIXSetDefaultConfig(pelCfg, *cfg);
    if (rc != MAV_OK) {
        MAV_TRC_E("Error in MavSetDefaultConfig occured (rc = %s)\n", MavErrorName(rc));
        MavIXFreeCFG(cfg);
        return rc;
    }
    return MAV_OK;
}

namespace {

// Ends a change begun with MavIXCfgForChange: a private copy is published
// when the change succeeded, else freed.
MAV_RC FinishChange(MAV_HDL_REC* hdl, MAV_CFG* cfg, bool publish, MAV_RC rc) {
    if (publish) {
        if (rc == MAV_OK) {
            MavIXPublishCfg(hdl, cfg);
        } else {
            MavIXFreeCFG(&cfg);
        }
    }
    return rc;
}

}  // namespace

MAV_RC MavISetDefaultConfig(void* hdlOrInst) {
    MAV_HDL_REC* hdl = MavIGetHandle(hdlOrInst);
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    if (hdl->pPelConfig == nullptr) return MAV_E_NOT_INITIALISED;
    MAV_CFG* cfg = nullptr;
    int locked = MavILockHdl(hdl);
    bool publish = false;
    MAV_RC rc = MavIXCfgForChange(hdlOrInst, &cfg, &publish);
    if (rc == MAV_OK) rc = MavIXSetDefaultConfig(hdl->pPelConfig, cfg);
    rc = FinishChange(hdl, cfg, publish, rc);
    if (locked) MavIUnlockHdl(hdl);
    return rc;
}

// ---- Values ------------------------------------------------------------------------

MAV_RC MavIGetConfigValue(const PEL_PARAM* param, KORMO_CHAR* buf, size_t* length) {
    if (param == nullptr || buf == nullptr || length == nullptr || *length < param->lLength ||
        param->tType < VS_TYPE_BOOL || param->tType > VS_TYPE_SIZE_T) {
        if (length != nullptr) *length = 0;
        return param == nullptr ? MAV_E_NULL_PARAM : MAV_OK;
    }
    switch (param->tType) {
        case VS_TYPE_BOOL:
            if (*length < 2) {
                *length = 0;
                return MAV_OK;
            }
            buf[0] = param->pvValue != nullptr ? '1' : '0';
            buf[1] = '\0';
            *length = 1;
            return MAV_OK;
        case VS_TYPE_BYTE:
            if (*length > 0) buf[0] = '\0';
            *length = 0;
            return MAV_OK;
        case VS_TYPE_CHAR: {
            const char* text = static_cast<const char*>(param->pvValue);
            size_t size = *length;
            if (text == nullptr) {
                if (size > 0) buf[0] = '\0';
                *length = 0;
                return MAV_OK;
            }
            size_t out = strlen(text);
            MAV_RC rc = MavIUtf8sToUcs(buf, size, &out, text);
            if (rc != MAV_OK) {
                if (size > 0) buf[0] = '\0';
                *length = 0;
                return rc;
            }
            *length = out;
            return MAV_OK;
        }
        default: {
            // SHORT, INT, LONG, FLOAT, DOUBLE, TIME_T, SIZE_T: the slot as a
            // signed integer (FLOAT and DOUBLE included).
            char scratch[128];
            int n = snprintf(scratch, sizeof scratch, "%ld",
                             static_cast<long>(reinterpret_cast<intptr_t>(param->pvValue)));
            size_t len = n > 0 ? static_cast<size_t>(n) : 0;
            if (*length > len) {
                memcpy(buf, scratch, len + 1);
                *length = len;
            } else {
                *length = 0;
            }
            return MAV_OK;
        }
    }
}

namespace {

// Parses decimal text into a slot of the given type.
bool ParseSlot(int32_t type, const char* text, void** slot) {
    while (*text == ' ' || *text == '\t') ++text;
    if (type == VS_TYPE_BOOL) {
        if (strcmpiU(text, "TRUE") == 0) {
            *slot = reinterpret_cast<void*>(intptr_t{1});
            return true;
        }
        if (strcmpiU(text, "FALSE") == 0) {
            *slot = nullptr;
            return true;
        }
    }
    if (*text == '\0') return false;
    errno = 0;
    char* end = nullptr;
    long long v;
    if (type == VS_TYPE_SIZE_T) {
        if (*text == '-') return false;
        unsigned long long u = strtoull(text, &end, 10);
        if (errno != 0) return false;
        v = static_cast<long long>(u);
    } else {
        v = strtoll(text, &end, 10);
        if (errno != 0) return false;
    }
    while (*end == ' ' || *end == '\t') ++end;
    if (*end != '\0') return false;
    switch (type) {
        case VS_TYPE_BOOL:
            v = v != 0 ? 1 : 0;
            break;
        case VS_TYPE_SHORT:
            if (v < SHRT_MIN || v > SHRT_MAX) return false;
            break;
        case VS_TYPE_INT:
            if (v < INT_MIN || v > INT_MAX) return false;
            break;
        default:
            break;
    }
    *slot = reinterpret_cast<void*>(static_cast<intptr_t>(v));
    return true;
}

bool IsTrueText(const char* text) {
    return text != nullptr && (strcmp(text, "1") == 0 || strcmpiU(text, "TRUE") == 0);
}

MAV_RC SetCustom(MAV_CFG* cfg, int32_t code, const char* text) {
    bool on = IsTrueText(text);
    auto setBit = [cfg, on](uint32_t bit) {
        uint32_t a = MavICfgAction(cfg);
        MavICfgSetAction(cfg, on ? (a | bit) : (a & ~bit));
    };
    switch (code) {
        case VS_P_CUST_ACTIVE_CONTENT:
            setBit(VS_A_ACTIVE_CONTENT);
            break;
        case VS_P_CUST_CHECK_MIME_TYPE:
            setBit(VS_A_CHECK_MIME);
            break;
        case VS_P_CUST_NOT_SCANNED_AS_WARNING:
            MavICfgSetFlag(&cfg->bNotScannedAsWarning, on);
            break;
        case VS_P_CUST_NO_SCANINFO:
            MavICfgSetFlag(&cfg->bNoScanInfo, on);
            break;
        case VS_P_CUST_CLEAN:
            setBit(VS_A_CLEAN);
            break;
        default:  // CUST_MIME_TYPES_ARE_BLACKLIST: accepted, nothing stored
            break;
    }
    return MAV_OK;
}

bool IsCustCode(int32_t code) {
    return code <= kCustBase && code > kCustBase - 6;
}

}  // namespace

namespace {

MAV_RC SetConfigValue(void* hdlOrInst, const MAV_PARAM_ID* param, const KORMO_CHAR* text) {
    if (param == nullptr) return MAV_E_NULL_PARAM;
    MAV_HDL_REC* hdl = MavIGetHandle(hdlOrInst);
    MAV_CFG* readCfg = MavIGetCfg(hdlOrInst);
    if (hdl == nullptr || readCfg == nullptr) return MAV_E_INVALID_HANDLE;
    const char* name = MavIXGetPelParamName(param->tCode);

    if (IsCustCode(param->tCode)) {
        int locked = MavILockHdl(hdl);
        MAV_CFG* cfg = nullptr;
        bool publish = false;
        MAV_RC rc = MavIXCfgForChange(hdlOrInst, &cfg, &publish);
        if (rc == MAV_OK) rc = SetCustom(cfg, param->tCode, text);
        rc = FinishChange(hdl, cfg, publish, rc);
        if (locked) MavIUnlockHdl(hdl);
        if (rc == MAV_OK)
            MAV_TRC(MAV_TRC_PARAM, "Parameter %s was set with value %s\n", name,
                    text != nullptr ? text : "(null)");
        return rc;
    }

    // Everything is checked against the configuration read so far, so that a
    // refused change makes no instance copy.
    bool initList = false;
    int idx = MavIXParamIndex(readCfg, param->tCode, &initList);
    if (idx < 0) {
        MAV_TRC_E("Parameter %s is not supported by this PEL\n", name);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    const PEL_PARAMS* readList = initList ? readCfg->pInitParams : readCfg->pOptParams;
    int32_t pelType = readList->pParams[idx].tType;
    if (param->tType != pelType) {
        MAV_TRC_E(
            "The PEL knows parameter %s with different TYPE, therefore it can not be set "
            "(MAVLIB:%s!=PEL:%s)\n",
            name, TypeNameOrNull(param->tType), TypeNameOrNull(pelType));
        return MAV_E_INVALID_PARAM_TYPE;
    }
    if (text == nullptr) return MAV_E_NULL_PARAM;

    void* slot = nullptr;
    char* utf8 = nullptr;
    size_t utf8Len = 0;
    switch (pelType) {
        case VS_TYPE_BOOL:
        case VS_TYPE_SHORT:
        case VS_TYPE_INT:
        case VS_TYPE_LONG:
        case VS_TYPE_TIME_T:
        case VS_TYPE_SIZE_T:
            if (!ParseSlot(pelType, text, &slot)) {
                MAV_TRC_E("Invalid value %s for parameter %s\n", text, name);
                return MAV_E_INVALID_PARAM;
            }
            break;
        case VS_TYPE_CHAR:
        case VS_TYPE_OBJECT:
            if (*text != '\0') {
                utf8Len = MavIKORMOToChar(&utf8, text);
                if (utf8Len == 0) {
                    MavIFree(utf8);
                    return MAV_E_CONVERSION_FAILED;
                }
            }
            break;
        default:
            return MAV_E_INVALID_PARAM_TYPE;
    }

    int locked = MavILockHdl(hdl);
    MAV_CFG* cfg = nullptr;
    bool publish = false;
    MAV_RC rc = MavIXCfgForChange(hdlOrInst, &cfg, &publish);
    if (rc == MAV_OK) {
        int widx = MavIXParamIndex(cfg, param->tCode, &initList);
        PEL_PARAMS* list = initList ? cfg->pInitParams : cfg->pOptParams;
        if (widx < 0 || list->pParams[widx].tType != pelType) {
            rc = MAV_E_PARAM_UNSUPPORTED;
        } else {
            PEL_PARAM* entry = &list->pParams[widx];
            if (IsTextType(pelType)) {
                rc = StoreText(cfg, entry, utf8 != nullptr ? utf8 : "", utf8Len);
                if (rc == MAV_OK) entry->lLength = utf8Len;
            } else {
                // Scans on other instances of the handle may be reading it.
                __atomic_store_n(&entry->pvValue, slot, __ATOMIC_RELAXED);
            }
        }
        rc = FinishChange(hdl, cfg, publish, rc);
    }
    if (locked) MavIUnlockHdl(hdl);
    MavIFree(utf8);
    if (rc == MAV_OK) MAV_TRC(MAV_TRC_PARAM, "Parameter %s was set with value %s\n", name, text);
    return rc;
}

}  // namespace

// The whole change runs under the handle lock: the checks read the lists a
// concurrent change may replace.
MAV_RC MavISetConfigValue(void* hdlOrInst, const MAV_PARAM_ID* param, const KORMO_CHAR* text) {
    MAV_HDL_REC* hdl = MavIGetHandle(hdlOrInst);
    int locked = hdl != nullptr ? MavILockHdl(hdl) : 0;
    MAV_RC rc = SetConfigValue(hdlOrInst, param, text);
    if (locked) MavIUnlockHdl(hdl);
    return rc;
}

namespace {

// MavISetDefaultValue's change of one entry of cfg (handle locked).
MAV_RC SetDefaultIn(const PEL_CONFIG* pelCfg, MAV_CFG* cfg, int32_t code) {
    const char* name = MavIXGetPelParamName(code);
    if (IsCustCode(code)) {
        MavICfgSetAction(cfg, MAV_DEFAULT_ACTION);
        return MAV_OK;
    }
    bool initList = false;
    if (code >= kInitBase && code < kInitBase + kInitIndexCount) {
        MAV_TRC(MAV_TRC_PARAM, "Initial parameter %s will be set with its default value\n", name);
    } else if (code >= kScanBase && code < kScanBase + kScanIndexCount) {
        MAV_TRC(MAV_TRC_PARAM, "Optional scan parameter %s will be set with its default value\n",
                name);
    } else if (code >= kCleanBase && code < kCleanBase + kCleanIndexCount) {
        MAV_TRC(MAV_TRC_PARAM, "Optional clean parameter %s will be set with its default value\n",
                name);
    } else if (code >= kBlockBase && code < kBlockBase + kBlockIndexCount) {
        MAV_TRC(MAV_TRC_PARAM, "Optional block parameter %s will be set with its default value\n",
                name);
    } else {
        MAV_TRC_W("Warning: Parameter with tCode(%d) is unknown\n", code);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    int idx = MavIXParamIndex(cfg, code, &initList);
    const PEL_PARAMS* src = initList ? pelCfg->pInitParams : pelCfg->pOptParams;
    PEL_PARAMS* dst = initList ? cfg->pInitParams : cfg->pOptParams;
    if (idx < 0 || src == nullptr || src->pParams == nullptr || idx >= src->usNumParams) {
        MAV_TRC_E("Parameter %s is not supported by this PEL\n", name);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    return MavIXCopyParameter(&dst->pParams[idx], code, &src->pParams[idx], initList, cfg);
}

}  // namespace

MAV_RC MavISetDefaultValue(void* hdlOrInst, const MAV_PARAM_ID* param) {
    if (param == nullptr) {
        MAV_TRC_E("Null parameter for TCODE in SetDefaultValue passed");
        return MAV_E_NULL_PARAM;
    }
    MAV_HDL_REC* hdl = MavIGetHandle(hdlOrInst);
    if (hdl == nullptr) return MAV_E_INVALID_HANDLE;
    const PEL_CONFIG* pelCfg = hdl->pPelConfig;
    if (pelCfg == nullptr) return MAV_E_NOT_INITIALISED;

    int locked = MavILockHdl(hdl);
    MAV_CFG* cfg = nullptr;
    bool publish = false;
    MAV_RC rc = MavIXCfgForChange(hdlOrInst, &cfg, &publish);
    if (rc == MAV_OK) rc = FinishChange(hdl, cfg, publish, SetDefaultIn(pelCfg, cfg, param->tCode));
    if (locked) MavIUnlockHdl(hdl);
    return rc;
}

void MavIXFreeRetired(MAV_CFG* cfg) {
    if (cfg == nullptr) return;
    RetiredText* node = reinterpret_cast<RetiredText*>(cfg->aReserved[0]);
    while (node != nullptr) {
        RetiredText* next = node->pNext;
        MavIFree(node->pvText);
        MavIFree(node);
        node = next;
    }
    cfg->aReserved[0] = 0;
}

// ---- Lookups on a handle or instance ---------------------------------------------------

uint32_t MavIXGetParamNum(void* hdlOrInst) {
    // Under the handle lock: a change may replace the lists.
    MAV_HDL_REC* owner = MavILockOwner(hdlOrInst);
    MAV_CFG* cfg = owner != nullptr ? MavIGetCfg(hdlOrInst) : nullptr;
    uint32_t n = 0;
    if (cfg != nullptr && cfg->pInitParams != nullptr && cfg->pInitParams->pParams != nullptr)
        n += cfg->pInitParams->usNumParams;
    if (cfg != nullptr && cfg->pOptParams != nullptr && cfg->pOptParams->pParams != nullptr)
        n += cfg->pOptParams->usNumParams;
    if (owner != nullptr) MavIUnlockHdl(owner);
    return n;
}

MAV_RC MavIGetPelParameterByIndex(void* hdlOrInst, uint32_t index, PEL_PARAM** entry) {
    if (entry == nullptr) return MAV_E_NULL_PARAM;
    MAV_CFG* cfg = MavIGetCfg(hdlOrInst);
    if (cfg == nullptr) {
        MAV_TRC_E("The passed handle does not have a valid configuration structure\n");
        return MAV_E_INVALID_HANDLE;
    }
    uint32_t nInit = 0;
    if (cfg->pInitParams != nullptr && cfg->pInitParams->pParams != nullptr)
        nInit = cfg->pInitParams->usNumParams;
    uint32_t nOpt = 0;
    if (cfg->pOptParams != nullptr && cfg->pOptParams->pParams != nullptr)
        nOpt = cfg->pOptParams->usNumParams;
    if (index >= nInit + nOpt) {
        MAV_TRC_E("The passed index >%d< is not valid for the requested information\n",
                  static_cast<int>(index));
        return MAV_E_INVALID_ENUM_INDEX;
    }
    PEL_PARAM* p = index < nInit ? &cfg->pInitParams->pParams[index]
                                 : &cfg->pOptParams->pParams[index - nInit];
    if (strcmp(MavIXGetPelParamName(p->tCode), "UNKNOWN") == 0) {
        MAV_TRC_E("Parameter with index >>>%d<<< is unknown to this PEL!\n",
                  static_cast<int>(index));
        return MAV_E_INVALID_ENUM_INDEX;
    }
    *entry = p;
    return MAV_OK;
}

void MavIXNoteUnknownName(void* hdlOrInst, const KORMO_CHAR* name, MAV_RC rc) {
    MAV_HDL_REC* hdl = MavILockOwner(hdlOrInst);
    if (hdl == nullptr) return;
    char text[320];
    snprintf(text, sizeof text, "The parameter >>>%.256s<<< is unknown or not supported.",
             name != nullptr ? name : "(null)");
    MavPAddError(hdl, text, rc);
    MavIUnlockHdl(hdl);
}

MAV_RC MavIGetPelParameter(void* hdlOrInst, const KORMO_CHAR* name, int set, PEL_PARAM** entry) {
    if (name == nullptr || entry == nullptr) return MAV_E_NULL_PARAM;
    int32_t code = 0;
    MAV_RC rc = HasPrefix(name, "INIT") ? MavIXParseInitParams(name, &code)
                                        : MavIXParseOptParams(name, &code);
    if (rc != MAV_OK) {
        MavIXNoteUnknownName(hdlOrInst, name, rc);
        return rc;
    }
    MAV_CFG* cfg = nullptr;
    if (set != 0) {
        rc = MavIXAssignHdlToCFG(hdlOrInst, &cfg);
        if (rc != MAV_OK) return rc;
    } else {
        cfg = MavIGetCfg(hdlOrInst);
        if (cfg == nullptr) return MAV_E_INVALID_HANDLE;
    }
    bool initList = false;
    int idx = MavIXParamIndex(cfg, code, &initList);
    if (idx < 0) {
        MAV_TRC_E("Parameter %s is not supported by this PEL\n", name);
        return MAV_E_PARAM_UNSUPPORTED;
    }
    *entry = initList ? &cfg->pInitParams->pParams[idx] : &cfg->pOptParams->pParams[idx];
    return MAV_OK;
}

}  // extern "C"
