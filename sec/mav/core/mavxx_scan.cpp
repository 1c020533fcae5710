// mavxx_scan.cpp - the scan calls: one adapter PelScan per call.
//
// This is the hot path. No lock is held (one instance scans on one thread at
// a time), nothing is allocated when the adapter scans memory and the object
// name needs no conversion, and trace text is formatted only when the level
// asks for it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "krncp.h"
#include "krntrc.h"
#include "mavxxi.h"

namespace {

constexpr size_t kSummarySize = 32;
static_assert(sizeof(MAV_SCANINFO) == kSummarySize, "MAV_SCANINFO size");
// Longest object name copied for a temporary file name.
constexpr size_t kMaxTmpName = 255;

// An instance record: size, marks and an engine instance.
inline bool IsInstance(const MAV_INST_REC* r) {
    return r->struct_size == MAV_INST_SIZE && r->uiHeadMark == MAV_INST_HEAD &&
           r->uiTailMark == MAV_INST_TAIL && r->pPelInit != nullptr;
}
inline bool IsProfileInstance(const MAV_INST_REC* r) {
    return r->struct_size == MAV_INST_SIZE && r->uiHeadMark == MAV_PINST_HEAD &&
           r->uiTailMark == MAV_PINST_TAIL;
}

// 1 when text is non-empty ASCII, 0 when it is empty, -1 when it holds a
// byte above 0x7f. The length comes from the C library's strlen; the bytes
// are then tested a word at a time, the last (partial) word as an
// overlapping load, so a typical object name costs a few instructions and
// nothing past the terminator is read.
inline int AsciiState(const char* text) {
    constexpr uint64_t kHigh = 0x8080808080808080ull;
    const size_t len = strlen(text);
    if (len >= sizeof(uint64_t)) {
        uint64_t any = 0, w;
        for (size_t i = 0; i + sizeof w <= len; i += sizeof w) {
            memcpy(&w, text + i, sizeof w);
            any |= w;
        }
        memcpy(&w, text + len - sizeof w, sizeof w);
        return ((any | w) & kHigh) != 0 ? -1 : 1;
    }
    if (len >= sizeof(uint32_t)) {
        uint32_t a, b;
        memcpy(&a, text, sizeof a);
        memcpy(&b, text + len - sizeof b, sizeof b);
        return ((a | b) & static_cast<uint32_t>(kHigh)) != 0 ? -1 : 1;
    }
    if (len == 0) return 0;
    // One to three bytes: the first, the middle and the last cover them.
    unsigned any = static_cast<unsigned char>(text[0]) |
                   static_cast<unsigned char>(text[len / 2]) |
                   static_cast<unsigned char>(text[len - 1]);
    return (any & 0x80u) != 0 ? -1 : 1;
}

// Utf8Name for everything but an ASCII name in a UTF-8 process.
__attribute__((noinline)) const char* Utf8NameSlow(const KORMO_CHAR* name, char** owned,
                                                   bool utf8) {
    if (utf8) {
        // A one-byte output holds no character: a valid, non-empty text gives
        // "too small", an invalid one "invalid input", an empty one length 0.
        char none[1];
        size_t n = static_cast<size_t>(-1);
        return UcsToUtf8s(none, sizeof none, &n, name) == CP_RC_BUFFER_TOO_SMALL ? name : nullptr;
    }
    if (MavIKORMOToChar(owned, name) == 0) return nullptr;
    return *owned;
}

// The object name of a bytes scan in UTF-8: the text itself when it is valid
// UTF-8 already (checked without a copy), else a converted copy in *owned.
// Null when the conversion fails or gives nothing (an empty name).
inline const char* Utf8Name(const KORMO_CHAR* name, char** owned) {
    bool utf8 = KrnCodePageIsUtf8() != 0;
    if (utf8) {
        int ascii = AsciiState(name);
        if (ascii != -1) return ascii == 1 ? name : nullptr;
    }
    return Utf8NameSlow(name, owned, utf8);
}

void Neutralise(char* s) {
    if (s == nullptr) return;
    for (; *s != '\0'; ++s) {
        if (*s == '<' || *s == '>') *s = '_';
    }
}

// Every '<' and '>' in the texts of the first entry of each list becomes '_'.
void NeutraliseFirstEntries(PEL_SCANINFO* si) {
    if (si->uiInfections > 0 && si->pVirusInfo != nullptr) {
        Neutralise(si->pVirusInfo->pszVirusName);
        Neutralise(si->pVirusInfo->pszObjectName);
        Neutralise(si->pVirusInfo->pszFreeTextInfo);
    }
    if (si->uiScanErrors > 0 && si->pScanError != nullptr) {
        Neutralise(si->pScanError->pszObjectName);
        Neutralise(si->pScanError->pszErrorText);
    }
    if (si->uiScanned > 0 && si->pContentInfo != nullptr) {
        Neutralise(si->pContentInfo->pszObjectName);
        Neutralise(si->pContentInfo->pszContentType);
        Neutralise(si->pContentInfo->pszExtension);
        Neutralise(si->pContentInfo->pszCharSet);
    }
}

void TraceVerdict(MAV_RC rc) {
    const char* text;
    switch (rc) {
        case MAV_E_CLEAN_OK:
            text = "*** Detected infection was cleaned, but however a VIRUS might still exist.\n";
            break;
        case MAV_E_MACRO_FOUND:
            text = "*** Macro found during action, where all active content treated as viruses.\n";
            break;
        case MAV_E_PATTERN_FOUND:
            text = "*** Pattern matched! The object contains the searched content.\n";
            break;
        case MAV_E_CLEAN_FAILED:
            text =
                "*** VIRUS alert! The object ***could not be cleaned*** and is still "
                "infected.\n";
            break;
        default:
            text = "*** VIRUS alert! The object contains an infection.\n";
            break;
    }
    MavPPrintTrace(MAV_TRC_VIRUS, __FILE__, "MavIXScan", __LINE__, "%s", text);
}

void TraceFailure(MAV_RC rc, uint32_t action) {
    const char* text;
    switch (rc) {
        case MAV_E_NOT_INITIALISED:
            text = "*** Fatal error, engine not initialized!\n";
            break;
        case MAV_E_EXPIRED:
            text = "*** Engine expired, no scan actions possible.\n";
            break;
        case MAV_E_LOAD_FAILED:
            text = "*** Fatal error, engine not loaded!\n";
            break;
        case MAV_E_NOT_SUPPORTED:
            text = action >= 17 ? "*** Content scan feature is not supported. This PEL supports "
                                  "only virus scanning!\n"
                                : "*** Not supported feature supplied.\n";
            break;
        case MAV_E_INVALID_SCANOBJECT:
            text = "*** Fatal error, scan object type invalid for this action.\n";
            break;
        case MAV_E_NOT_SCANNED:
            text = "*** WARNING => The object was not scanned.\n";
            break;
        default:
            text = "*** The scan was not successful! The object might contain an infection.\n";
            break;
    }
    MavPPrintTrace(MAV_TRC_PEL, __FILE__, "MavIXScan", __LINE__, "%s", text);
}

// What one MavScanClean owns until it returns.
struct ScanScratch {
    char* tmpPath = nullptr;    // temporary file (fallback)
    char* converted = nullptr;  // converted object name

    ~ScanScratch() {
        if (tmpPath != nullptr) {
            if (tmpPath[0] != '\0') unlink(tmpPath);
            MavIFree(tmpPath);
        }
        if (converted != nullptr) MavIFree(converted);
    }
};

// Copies the handle's temporary directory (it may change under the lock).
// No allocation: a C entry point must not meet std::bad_alloc, least of all
// with the handle locked. The directory passed stat() when it was set, so it
// fits PATH_MAX.
bool HandleTmpDir(MAV_HDL_REC* hdl, char* out, size_t size) {
    bool have = false;
    int locked = MavILockHdl(hdl);
    if (hdl->pszTmpPath != nullptr) {
        have = static_cast<size_t>(snprintf(out, size, "%s", hdl->pszTmpPath)) < size;
    }
    if (locked) MavIUnlockHdl(hdl);
    return have;
}

// Writes the bytes to a temporary file and points the scan request at it.
__attribute__((noinline)) MAV_RC PrepareTempFile(MAV_INST_REC* inst, const char* nameUtf8,
                                                 const KORMO_CHAR* name, unsigned char* bytes,
                                                 size_t length, ScanScratch* scratch) {
    PEL_SCANPARAM* sp = inst->pScanParam;
    MAV_TRC_FN(MAV_TRC_INFO, "MavScanClean",
               "This PEL does not support scanning bytes - copy bytes to file and scan this\n");
    sp->tScanCode = VS_SC_FILE;

    // The name base is changed ('/' and '\' to '~'): work on a copy, the
    // caller's text stays as it is.
    char base[kMaxTmpName + 1];
    const char* src = "mavlib.bin";
    if (nameUtf8 != nullptr && *nameUtf8 != '\0') {
        src = nameUtf8;
    } else if (name != nullptr) {
        src = Utf8Name(name, &scratch->converted);
        if (src == nullptr) return MAV_E_CONVERSION_FAILED;
    }
    snprintf(base, sizeof base, "%s", src);

    char dir[PATH_MAX];
    bool own = HandleTmpDir(inst->pHdl, dir, sizeof dir);
    MAV_RC rc = MavPXBytesToTempFile(bytes, length, own ? dir : nullptr, base, &scratch->tmpPath);
    if (rc != MAV_OK) return rc;
    if (CTrcGetTraceLevel() >= 3) {
        CTrcSaveLocation(__FILE__, __LINE__);
        DpTrcA7("Scan local file >>>%s<<< \n", scratch->tmpPath);
    }
    sp->pszObjectName = scratch->tmpPath;
    sp->lLength = strlen(scratch->tmpPath);
    sp->pbByte = nullptr;
    return MAV_OK;
}

// Step 8 of a bytes scan that came back MAV_E_CLEAN_OK.
__attribute__((noinline)) void AfterCleanBytes(MAV_INST_REC* inst, const PEL_CONFIG* pelCfg,
                                               const char* tmpPath, unsigned char* bytes,
                                               size_t* length) {
    PEL_SCANPARAM* sp = inst->pScanParam;
    if (bytes == nullptr || length == nullptr) return;
    if (sp->tScanCode == VS_SC_BYTES && (pelCfg->uiPelScanFlag & PEL_SCANFLAG_MEMORY) == 0 &&
        tmpPath != nullptr && tmpPath[0] != '\0') {
        FILE* fp = fopen(tmpPath, "rb");
        if (fp != nullptr) {
            struct stat st;
            if (fstat(fileno(fp), &st) == 0 && static_cast<size_t>(st.st_size) < sp->lLength) {
                size_t want = sp->lLength < *length ? sp->lLength : *length;
                sp->lLength = fread(bytes, 1, want, fp);
            }
            fclose(fp);
        }
    }
    if (*length > sp->lLength) memset(bytes + sp->lLength, 0, *length - sp->lLength);
}

__attribute__((noinline, cold)) void TraceBeforeScan(MAV_INST_REC* inst, PEL_OPTPARAMS* opt,
                                                     PEL_SCANINFO** result) {
    if (result != nullptr)
        MavPPrintTrace(MAV_TRC_PEL, __FILE__, "MavIXScan", __LINE__,
                       ">> PelScan(%p,%p,%p,%p,%p) >> \n", static_cast<void*>(inst->pPelInit),
                       static_cast<void*>(&inst->sCallback), static_cast<void*>(inst->pScanParam),
                       static_cast<void*>(opt), static_cast<void*>(result));
    else
        MavPPrintTrace(MAV_TRC_PEL, __FILE__, "MavIXScan", __LINE__,
                       ">> PelScan(%p,%p,%p,%p,NULL) >> \n", static_cast<void*>(inst->pPelInit),
                       static_cast<void*>(&inst->sCallback), static_cast<void*>(inst->pScanParam),
                       static_cast<void*>(opt));
}

// Everything traced after PelScan: the call's line, the result dump, the
// verdict or failure text. Called only when the adapter-call or verdict bit
// is on, or the kernel level is 2 or more (the error bit alone is usual).
__attribute__((noinline, cold)) void TraceAfterScan(MAV_INST_REC* inst, PEL_OPTPARAMS* opt,
                                                    PEL_SCANINFO** result, MAV_RC rc) {
    MAV_TRC_FN(MAV_TRC_PEL, "MavIXScan", "<< PelScan(%p,%p,%p,%p,%p) = %d << \n",
               static_cast<void*>(inst->pPelInit), static_cast<void*>(&inst->sCallback),
               static_cast<void*>(inst->pScanParam), static_cast<void*>(opt),
               static_cast<void*>(result), rc);
    PEL_SCANINFO* si = inst->pScanInfo;
    uint32_t level = MavITraceLevel();
    int kernel = MavIKernelLevel();
    if (kernel >= 2 || (level & MAV_TRC_PEL) != 0) {
        if (si != nullptr) {
            MAV_RC drc = MavIXTracePELScanInfo(inst);
            if (drc != MAV_OK)
                MAV_TRC_FN(MAV_TRC_ERROR, "MavIXScan", "Error rc = %s in MavIXTracePELScanInfo\n",
                           MavErrorName(drc));
        } else {
            MAV_TRC_FN(MAV_TRC_PEL, "MavIXScan", "No PEL_SCANINFO passed\n");
        }
    }
    if (rc < 0) {
        if ((level & MAV_TRC_VIRUS) != 0) TraceVerdict(rc);
    } else if (rc > 0) {
        if (((level & MAV_TRC_PEL) != 0 && (level & MAV_TRC_WARNING) != 0) || kernel >= 2)
            TraceFailure(rc, inst->pScanParam->tActionCode);
    }
}

// The adapter call of one scan (MavIXScan); inlined into the scan call.
// adapterChecked: the caller has made sure of the handle and its PelScan.
__attribute__((always_inline)) inline MAV_RC ScanInstance(MAV_INST_REC* inst,
                                                          MAV_SCANINFO* scanInfo,
                                                          bool adapterChecked) {
    MAV_HDL_REC* hdl = inst->pHdl;
    if (!adapterChecked &&
        (hdl == nullptr || hdl->pFunctions == nullptr || hdl->pFunctions->pfnScan == nullptr))
        return MAV_E_NOT_INITIALISED;
    if (scanInfo != nullptr && scanInfo->struct_size != kSummarySize) return MAV_E_INVALID_HANDLE;
    const PEL_FUNCTIONS* fns = hdl->pFunctions;

    if (inst->pScanInfo != nullptr) {
        if (fns->pfnReleaseScan == nullptr) return MAV_E_NOT_INITIALISED;
        MAV_TRC_FN(MAV_TRC_PEL, "MavIXScan", ">> PelReleaseScan(%p) >> \n",
                   static_cast<void*>(inst->pScanInfo));
        int rrc = fns->pfnReleaseScan(&inst->pScanInfo);
        MAV_TRC_FN(MAV_TRC_PEL, "MavIXScan", "<< PelReleaseScan(%p) = %d << \n",
                   static_cast<void*>(inst->pScanInfo), rrc);
        if (rrc != 0) return rrc;
        inst->pScanInfo = nullptr;
    }

    const MAV_CFG* cfg = __atomic_load_n(&inst->pCfg, __ATOMIC_ACQUIRE);
    MavIXFillScanCallback(inst, cfg);
    PEL_OPTPARAMS* opt = cfg != nullptr ? __atomic_load_n(&cfg->pOptParams, __ATOMIC_ACQUIRE)
                                        : nullptr;
    PEL_SCANINFO** result = scanInfo != nullptr ? &inst->pScanInfo : nullptr;
    if (__builtin_expect(MavITraceOn(MAV_TRC_PEL), 0)) TraceBeforeScan(inst, opt, result);
    MAV_RC rc = fns->pfnScan(inst->pPelInit, &inst->sCallback, inst->pScanParam, opt, result);

    PEL_SCANINFO* si = inst->pScanInfo;
    if (si != nullptr) NeutraliseFirstEntries(si);
    if (__builtin_expect(
            (MavITraceLevel() & (MAV_TRC_PEL | MAV_TRC_VIRUS)) != 0 || MavIKernelLevel() >= 2, 0))
        TraceAfterScan(inst, opt, result, rc);

    if (si != nullptr && scanInfo != nullptr) {
        scanInfo->uiJobID = si->uiJobID;
        scanInfo->uiScanned = si->uiScanned;
        scanInfo->uiNotScanned = si->uiNotScanned;
        scanInfo->uiClean = si->uiClean;
        scanInfo->uiInfections = si->uiInfections;
        scanInfo->uiScanErrors = si->uiScanErrors;
        MAV_TRC_FN(MAV_TRC_INFO, "MavIXScan",
                   "Scan report:JobID=%u::Scanned=%u::NotScanned=%u::Clean=%u::Infections=%u::"
                   "ScanErrors=%u\n",
                   si->uiJobID, si->uiScanned, si->uiNotScanned, si->uiClean, si->uiInfections,
                   si->uiScanErrors);
    }
    return rc;
}

}  // namespace

extern "C" {

MAV_RC MavIXScan(MAV_INST_REC* inst, MAV_SCANINFO* scanInfo) {
    return ScanInstance(inst, scanInfo, false);
}

MAV_API MAV_RC MavScanClean(void* hdl, uint32_t scanCode, uint32_t actionCode,
                            const char* objectNameUtf8, const KORMO_CHAR* objectName,
                            unsigned char* bytes, size_t* length, uint32_t jobId,
                            MAV_SCANINFO* scanInfo) {
    if (hdl == nullptr) {
        MAV_TRC_E("%s: Invalid NULL parameter for instance handle\n", __func__);
        return MAV_E_INVALID_HANDLE;
    }
    MAV_INST_REC* inst = static_cast<MAV_INST_REC*>(hdl);
    // Nothing is read from a pointer that is no record block of the library.
    if (!MavIXRecOwned(inst)) return MAV_E_INVALID_HANDLE;
    // A plain instance first: the common case pays for one record check.
    if (__builtin_expect(!IsInstance(inst), 0)) {
        if (IsProfileInstance(inst)) {
            if (inst->pProfileInst == nullptr) return MAV_E_INVALID_HANDLE;
            return MavIXProfileOps()->pfnScanClean(inst->pProfileInst, scanCode, actionCode,
                                                   objectNameUtf8, objectName, bytes, length,
                                                   jobId, scanInfo);
        }
        MAV_TRC_E("%s: Invalid NULL parameter for instance handle\n", __func__);
        return MAV_E_INVALID_HANDLE;
    }
    MAV_HDL_REC* h = inst->pHdl;
    if (h == nullptr || h->pFunctions == nullptr || h->pFunctions->pfnScan == nullptr ||
        h->pPelConfig == nullptr) {
        MAV_TRC_E("%s: NULL parameter for MAV handle, not initialized\n", __func__);
        return MAV_E_NOT_INITIALISED;
    }
    MAV_TRC_ENTRY(
        ">> start >> %s(%p,ScanCode=%d,ActionCode=%d,%p,%s,%p,%ld,JobID=%ul,"
        "Infoptr=%p)\n",
        __func__, hdl, static_cast<int>(scanCode), static_cast<int>(actionCode),
        static_cast<const void*>(objectNameUtf8), objectName != nullptr ? objectName : "null",
        static_cast<void*>(bytes), length != nullptr ? static_cast<long>(*length) : 0L, jobId,
        static_cast<void*>(scanInfo));

    MAV_RC rc;
    {
        ScanScratch scratch;
        const PEL_CONFIG* pelCfg = h->pPelConfig;
        PEL_SCANPARAM* sp = inst->pScanParam;
        sp->struct_size = sizeof(PEL_SCANPARAM);
        sp->tScanCode = scanCode;
        const MAV_CFG* cfg = __atomic_load_n(&inst->pCfg, __ATOMIC_ACQUIRE);
        sp->tActionCode = actionCode != 0 ? actionCode
                          : cfg != nullptr ? MavICfgAction(cfg)
                                           : MAV_DEFAULT_ACTION;
        sp->uiJobID = jobId;
        sp->pszObjectName = nullptr;
        sp->pbByte = nullptr;
        sp->lLength = 0;

        bool hasUtf8 = objectNameUtf8 != nullptr && *objectNameUtf8 != '\0';
        if (scanCode == VS_SC_BYTES) {
            if (length == nullptr || (bytes == nullptr && *length != 0)) {
                rc = MAV_E_NULL_PARAM;
            } else if ((pelCfg->uiPelScanFlag & PEL_SCANFLAG_MEMORY) == 0) {
                rc = PrepareTempFile(inst, objectNameUtf8, objectName, bytes, *length, &scratch);
            } else {
                sp->pbByte = bytes;
                sp->lLength = *length;
                rc = MAV_OK;
                if (hasUtf8) {
                    sp->pszObjectName = objectNameUtf8;
                } else if (objectName != nullptr) {
                    sp->pszObjectName = Utf8Name(objectName, &scratch.converted);
                    if (sp->pszObjectName == nullptr) rc = MAV_E_CONVERSION_FAILED;
                }
            }
        } else if (scanCode == VS_SC_FILE) {
            // A file name is handed on as it stands (the file system's bytes),
            // not converted.
            rc = MAV_OK;
            if (hasUtf8) {
                sp->pszObjectName = objectNameUtf8;
            } else if (objectName != nullptr) {
                sp->pszObjectName = objectName;
            } else {
                MAV_TRC_E("No file name supplied to scan file method.\n");
                rc = MAV_E_NULL_PARAM;
            }
            if (rc == MAV_OK) sp->lLength = strlen(sp->pszObjectName);
        } else {
            MAV_TRC_E("This scan code >>>%d<<< is invalid or not supported.\n",
                      static_cast<int>(scanCode));
            rc = MAV_E_SCANPAR_UNSUPPORTED;
        }

        if (rc == MAV_OK) {
            rc = ScanInstance(inst, scanInfo, true);
            if (rc == MAV_E_CLEAN_OK && scanCode == VS_SC_BYTES)
                AfterCleanBytes(inst, pelCfg, scratch.tmpPath, bytes, length);
        }
        // The scan request must not keep pointers to what is freed now.
        if (scratch.tmpPath != nullptr || scratch.converted != nullptr) sp->pszObjectName = nullptr;
    }
    MAV_TRC_EXIT(rc);
    return rc;
}

// Hidden name of MavScanClean: the calls below reach it without going
// through the dynamic linker.
MAV_LOCAL MAV_RC MavIScanClean(void* hdl, uint32_t scanCode, uint32_t actionCode,
                               const char* objectNameUtf8, const KORMO_CHAR* objectName,
                               unsigned char* bytes, size_t* length, uint32_t jobId,
                               MAV_SCANINFO* scanInfo) __attribute__((alias("MavScanClean")));

}  // extern "C"

namespace {

// The wrappers trace their entry and exit out of line, so that the common
// call stays a plain forward.
__attribute__((noinline, cold)) MAV_RC TracedScan(const char* func, void* hdl, uint32_t scanCode,
                                                  uint32_t actionCode, const KORMO_CHAR* name,
                                                  unsigned char* bytes, size_t* length,
                                                  uint32_t jobId, MAV_SCANINFO* scanInfo) {
    MAV_TRC_FN(MAV_TRC_FUNCTION, func, ">> start >> %s(%p,%s,%p,%ld,%u,%p)\n", func, hdl,
               name != nullptr ? name : "null", static_cast<void*>(bytes),
               length != nullptr ? static_cast<long>(*length) : 0L, jobId,
               static_cast<void*>(scanInfo));
    MAV_RC rc =
        MavIScanClean(hdl, scanCode, actionCode, nullptr, name, bytes, length, jobId, scanInfo);
    MAV_TRC_FN(MAV_TRC_FUNCTION, func, "<<  end  << %s(MAV_RC==%s) \n", func, MavErrorName(rc));
    return rc;
}

// uiDefaultAction of the object's configuration with the clean bit.
uint32_t CleanAction(void* hdl) {
    MAV_CFG* cfg = MavIGetCfg(hdl);
    return (cfg != nullptr ? MavICfgAction(cfg) : 0) | VS_A_CLEAN;
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavScanFile(void* hdl, const KORMO_CHAR* fileName, uint32_t jobId,
                           MAV_SCANINFO* scanInfo) {
    if (__builtin_expect(MavITraceOn(MAV_TRC_FUNCTION), 0))
        return TracedScan(__func__, hdl, VS_SC_FILE, 0, fileName, nullptr, nullptr, jobId,
                          scanInfo);
    return MavIScanClean(hdl, VS_SC_FILE, 0, nullptr, fileName, nullptr, nullptr, jobId, scanInfo);
}

MAV_API MAV_RC MavCleanFile(void* hdl, const KORMO_CHAR* fileName, uint32_t jobId,
                            MAV_SCANINFO* scanInfo) {
    uint32_t action = CleanAction(hdl);
    if (__builtin_expect(MavITraceOn(MAV_TRC_FUNCTION), 0))
        return TracedScan(__func__, hdl, VS_SC_FILE, action, fileName, nullptr, nullptr, jobId,
                          scanInfo);
    return MavIScanClean(hdl, VS_SC_FILE, action, nullptr, fileName, nullptr, nullptr, jobId,
                         scanInfo);
}

MAV_API MAV_RC MavScanBytes(void* hdl, const KORMO_CHAR* objectName, unsigned char* bytes,
                            size_t length, uint32_t jobId, MAV_SCANINFO* scanInfo) {
    if (__builtin_expect(MavITraceOn(MAV_TRC_FUNCTION), 0))
        return TracedScan(__func__, hdl, VS_SC_BYTES, 0, objectName, bytes, &length, jobId,
                          scanInfo);
    return MavIScanClean(hdl, VS_SC_BYTES, 0, nullptr, objectName, bytes, &length, jobId, scanInfo);
}

MAV_API MAV_RC MavCleanBytes(void* hdl, const KORMO_CHAR* objectName, unsigned char* bytes,
                             size_t* length, uint32_t jobId, MAV_SCANINFO* scanInfo) {
    uint32_t action = CleanAction(hdl);
    if (__builtin_expect(MavITraceOn(MAV_TRC_FUNCTION), 0))
        return TracedScan(__func__, hdl, VS_SC_BYTES, action, objectName, bytes, length, jobId,
                          scanInfo);
    return MavIScanClean(hdl, VS_SC_BYTES, action, nullptr, objectName, bytes, length, jobId,
                         scanInfo);
}

}  // extern "C"
