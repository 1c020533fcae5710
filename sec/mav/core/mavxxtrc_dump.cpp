// mavxxtrc_dump.cpp - field-by-field dumps of the adapter's records.
//
// Written at level 32 when that bit is on or the kernel trace level is 2 or
// more. The scan-result dump writes under the engine dump's function name, as
// support tooling expects.
#include <cstring>
#include <ctime>

#include "mavxxi.h"

namespace {

constexpr const char kEngineFn[] = "MavIXTracePELEngine";
constexpr const char kConfigFn[] = "MavIXTracePELConfig";

#define MAV_DUMP(fn, ...) MavPPrintTrace(MAV_TRC_PEL, __FILE__, (fn), __LINE__, __VA_ARGS__)

bool MavIDumpOff() {
    return MavIKernelLevel() < 2 && (MavITraceLevel() & MAV_TRC_PEL) == 0;
}

// An adapter text converted for output; a null text prints as "(null)", one
// that does not convert as it is.
class MavIDumpText {
  public:
    explicit MavIDumpText(const char* utf8) : text_(utf8 != nullptr ? utf8 : "(null)") {
        if (utf8 != nullptr && utf8[0] != 0 && MavICharToKORMO(&buf_, utf8) > 0) text_ = buf_;
    }
    ~MavIDumpText() { MavIFree(buf_); }
    MavIDumpText(const MavIDumpText&) = delete;
    MavIDumpText& operator=(const MavIDumpText&) = delete;
    const char* c_str() const { return text_; }

  private:
    char* buf_ = nullptr;
    const char* text_;
};

void MavIDumpNum(const char* fn, const char* label, long long value) {
    MAV_DUMP(fn, "           %-15.15s: %d\n", label, static_cast<int>(value));
}

void MavIDumpText2(const char* fn, const char* label, const char* utf8) {
    MavIDumpText t(utf8);
    MAV_DUMP(fn, "           %-15.15s: %s\n", label, t.c_str());
}

void MavIDumpPtr(const char* fn, const char* label, const void* p) {
    MAV_DUMP(fn, "           %-15.15s: %p\n", label, p);
}

void MavIDumpBool(const char* fn, const char* label, uint8_t flag) {
    MAV_DUMP(fn, "           %-15.15s: %s\n", label, flag == 1 ? "true" : "false");
}

// ctime text of a date (it brings its own line end).
const char* MavICTime(int64_t date, char* buf) {
    time_t t = static_cast<time_t>(date);
    return ctime_r(&t, buf) != nullptr ? buf : "\n";
}

void MavIDumpDate(const char* fn, const char* label, int64_t date) {
    char buf[64];
    MAV_DUMP(fn, "           %-15.15s: %s", label, MavICTime(date, buf));
}

// The engine record of a handle, instance or profile instance.
PEL_INIT* MavIDumpInit(void* p) {
    if (MAV_INST_REC* inst = MavIGetInst(p)) return inst->pPelInit;
    if (MAV_HDL_REC* hdl = MavIGetHandle(p)) return hdl->pSharedInit;
    return nullptr;
}

void MavIDumpContent(const PEL_CONTENTINFO& c, int i) {
    const char* fn = kEngineFn;
    MAV_DUMP(fn, "-----PEL_CONTENTINFO(%d)-------------------------------------------------\n", i);
    MavIDumpNum(fn, "struct_size", static_cast<long long>(c.struct_size));
    MavIDumpNum(fn, "Object Type", c.tObjectType);
    if (c.pszExtension != nullptr) MavIDumpText2(fn, "Extension", c.pszExtension);
    if (c.pszContentType != nullptr) MavIDumpText2(fn, "Content Type", c.pszContentType);
    if (c.pszCharSet != nullptr) MavIDumpText2(fn, "Content Charset", c.pszCharSet);
    MavIDumpNum(fn, "uiJobID", c.uiJobID);
    MavIDumpText2(fn, "Object Name", c.pszObjectName);
    MavIDumpNum(fn, "Object Size", static_cast<long long>(c.lObjectSize));
    MavIDumpNum(fn, "match_so", static_cast<long long>(c.match_so));
    MavIDumpNum(fn, "match_eo", static_cast<long long>(c.match_eo));
    MAV_DUMP(fn, "------------------------------------------------------(%d)PEL_CONTENTINFO\n", i);
}

void MavIDumpVirus(const PEL_VIRUSINFO& v, int i) {
    const char* fn = kEngineFn;
    MAV_DUMP(fn, "-----PEL_VIRUSINFO(%d)---------------------------------------------------\n", i);
    MavIDumpNum(fn, "struct_size", static_cast<long long>(v.struct_size));
    MavIDumpBool(fn, "Repairable", v.bRepairable);
    MavIDumpNum(fn, "Detect Type", v.tDetectType);
    MavIDumpNum(fn, "Virus Type", v.tVirusType);
    MavIDumpNum(fn, "Object Type", v.tObjectType);
    MavIDumpNum(fn, "Action Type", v.tActionType);
    MavIDumpNum(fn, "Virus ID", v.uiVirusID);
    MavIDumpText2(fn, "Virus Name", v.pszVirusName);
    MavIDumpNum(fn, "Job ID", v.uiJobID);
    MavIDumpText2(fn, "Object Name", v.pszObjectName);
    MavIDumpNum(fn, "Object Size", static_cast<long long>(v.lObjectSize));
    MavIDumpText2(fn, "Free text info", v.pszFreeTextInfo);
    MAV_DUMP(fn, "--------------------------------------------------------(%d)PEL_VIRUSINFO\n", i);
}

void MavIDumpScanError(const PEL_SCANERROR& e, int i) {
    const char* fn = kEngineFn;
    MAV_DUMP(fn, "-----PEL_SCANERROR(%d)---------------------------------------------------\n", i);
    MavIDumpNum(fn, "struct_size", static_cast<long long>(e.struct_size));
    MavIDumpNum(fn, "Job ID", e.uiJobID);
    MavIDumpText2(fn, "Object Name", e.pszObjectName);
    MavIDumpNum(fn, "Object Size", static_cast<long long>(e.lObjectSize));
    MavIDumpNum(fn, "Error RC", e.iErrorRC);
    MavIDumpText2(fn, "Error text", e.pszErrorText);
    MAV_DUMP(fn, "--------------------------------------------------------(%d)PEL_SCANERROR\n", i);
}

void MavIDumpDriver(const PEL_DRIVERINFO& d, int i) {
    const char* fn = kEngineFn;
    char date[64];
    MAV_DUMP(fn, "PEL_DRIVERINFO(%d)-------------------------------------------------------\n", i);
    MAV_DUMP(fn, "           struct_size    : %d\n", static_cast<int>(d.struct_size));
    MAV_DUMP(fn, "           Major Version  : %d\n", d.usDrMajVersion);
    MAV_DUMP(fn, "           Minor Version  : %d\n", d.usDrMinVersion);
    MavIDumpText name(d.pszName);
    MAV_DUMP(fn, "           Driver Name    : %s\n", name.c_str());
    MAV_DUMP(fn, "           Driver Date    : %s", MavICTime(d.utcDate, date));
    MAV_DUMP(fn, "           Num Viruses    : %d\n", static_cast<int>(d.uiViruses));
    MAV_DUMP(fn, "           Num Variants   : %d\n", static_cast<int>(d.uiVariants));
    MAV_DUMP(fn, "           Driver Code    : %d\n", d.iDriverRC);
    MAV_DUMP(fn, "-------------------------------------------------------(%d)PEL_DRIVERINFO\n", i);
}

void MavIDumpParams(bool initList, const PEL_PARAMS* list) {
    unsigned count = list != nullptr && list->pParams != nullptr ? list->usNumParams : 0;
    int heading = list != nullptr ? list->usNumParams : 0;
    if (initList) {
        MAV_DUMP(kConfigFn, "PEL_INITPARAMS(%d):\n", heading);
    } else {
        MAV_DUMP(kConfigFn, "PEL_OPTPARAMS(%d):\n", heading);
    }
    for (unsigned i = 0; i < count; i++) {
        const PEL_PARAM& param = list->pParams[i];
        // The adapter's length is not trusted: one that would wrap the
        // buffer size dumps no value.
        bool sane = param.lLength <= (PTRDIFF_MAX - 64) / 3;
        size_t size = sane ? 3 * param.lLength + 64 : 0;
        char* value = sane ? static_cast<char*>(MavIAlloc(size, true)) : nullptr;
        size_t length = size;
        if (value != nullptr && MavIGetConfigValue(&param, value, &length) == MAV_OK &&
            length < size) {
            value[length] = 0;
        } else if (value != nullptr) {
            value[0] = 0;
        }
        MAV_DUMP(kConfigFn, "           %-25.25s: %s\n", MavIXGetPelParamName(param.tCode),
                 value != nullptr ? value : "");
        MavIFree(value);
    }
}

MAV_RC MavIDumpEngine(const PEL_INIT* init) {
    const char* fn = kEngineFn;
    if (init == nullptr) {
        MAV_DUMP(fn, "PEL_INIT structure is initial\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_DUMP(fn, "PEL_INIT---------------------------------------------------------------\n");
    MavIDumpNum(fn, "struct_size", static_cast<long long>(init->struct_size));
    MavIDumpPtr(fn, "Engine Handle", init->hEngine);
    MavIDumpNum(fn, "Num Viruses", init->uiViruses);
    MavIDumpNum(fn, "Num Extensions", init->uiExtensions);
    MavIDumpNum(fn, "Num IntRevision", init->uiIntRevision);
    MavIDumpNum(fn, "Num Signatures", init->uiSignatures);
    MavIDumpNum(fn, "Num Drivers", init->usDrivers);
    MavIDumpNum(fn, "Major Version", init->usEngineMajVersion);
    MavIDumpNum(fn, "Minor Version", init->usEngineMinVersion);
    MavIDumpText2(fn, "Engine Version", init->pszEngineVersionText);
    MavIDumpDate(fn, "Engine Date", init->utcDate);
    MavIDumpNum(fn, "Error Code", init->iErrorRC);
    MavIDumpText2(fn, "Error Text", init->pszErrorText);
    MAV_DUMP(fn, "---------------------------------------------------------------PEL_INIT\n");
    if (init->pDriver != nullptr) {
        for (unsigned i = 0; i < init->usDrivers; i++) MavIDumpDriver(init->pDriver[i], int(i));
    }
    return MAV_OK;
}

}  // namespace

extern "C" {

MAV_LOCAL MAV_RC MavIXTracePELScanInfo(void* hdl) {
    if (hdl == nullptr) return MAV_E_INVALID_PARAM;
    if (MavIDumpOff()) return MAV_OK;
    MAV_INST_REC* inst = MavIGetInst(hdl);
    const PEL_SCANINFO* si = inst != nullptr ? inst->pScanInfo : nullptr;
    if (si == nullptr) {
        MAV_DUMP(kEngineFn, "PEL_SCANINFO structure is initial\n");
        return MAV_E_INVALID_HANDLE;
    }
    const char* fn = kEngineFn;
    MAV_DUMP(fn, "PEL_SCANINFO-----------------------------------------------------------\n");
    MavIDumpNum(fn, "struct_size", static_cast<long long>(si->struct_size));
    MavIDumpNum(fn, "uiJobID", si->uiJobID);
    MavIDumpNum(fn, "uiScanned", si->uiScanned);
    MavIDumpNum(fn, "uiNotScanned", si->uiNotScanned);
    MavIDumpNum(fn, "uiClean", si->uiClean);
    MavIDumpNum(fn, "uiInfections", si->uiInfections);
    MavIDumpNum(fn, "uiScanErrors", si->uiScanErrors);
    if (si->pContentInfo != nullptr) {
        for (uint32_t i = 0; i < si->uiScanned; i++) MavIDumpContent(si->pContentInfo[i], int(i));
    }
    if (si->pVirusInfo != nullptr) {
        for (uint32_t i = 0; i < si->uiInfections; i++) MavIDumpVirus(si->pVirusInfo[i], int(i));
    }
    if (si->pScanError != nullptr) {
        for (uint32_t i = 0; i < si->uiScanErrors; i++) {
            MavIDumpScanError(si->pScanError[i], int(i));
        }
    }
    MavIDumpPtr(fn, "pbBytesCleaned", si->pbBytesCleaned);
    MavIDumpNum(fn, "lBytesCleaned", static_cast<long long>(si->lBytesCleaned));
    MavIDumpPtr(fn, "pvReserved1", si->pvReserved1);
    MAV_DUMP(fn, "-----------------------------------------------------------PEL_SCANINFO\n");
    return MAV_OK;
}

MAV_LOCAL MAV_RC MavIXTracePELEngine(void* hdl) {
    if (hdl == nullptr) return MAV_E_INVALID_PARAM;
    if (MavIDumpOff()) return MAV_OK;
    // Dumped under the handle lock: a reload ends the shared engine under it.
    MAV_HDL_REC* owner = MavILockOwner(hdl);
    MAV_RC rc = MavIDumpEngine(owner != nullptr ? MavIDumpInit(hdl) : nullptr);
    if (owner != nullptr) MavIUnlockHdl(owner);
    return rc;
}

MAV_LOCAL MAV_RC MavIXTracePELConfig(void* hdl) {
    if (hdl == nullptr) return MAV_E_INVALID_PARAM;
    if (MavIDumpOff()) return MAV_OK;
    const MAV_HDL_REC* rec = MavIGetHandle(hdl);
    const PEL_CONFIG* cfg = rec != nullptr ? rec->pPelConfig : nullptr;
    const char* fn = kConfigFn;
    if (cfg == nullptr) {
        MAV_DUMP(fn, "PEL_CONFIG structure is initial\n");
        return MAV_E_INVALID_HANDLE;
    }
    MAV_DUMP(fn, "PEL_CONFIG-------------------------------------------------------------\n");
    MavIDumpNum(fn, "struct_size", static_cast<long long>(cfg->struct_size));
    if (const PEL_ADAPTERINFO* ai = cfg->pAdapterInfo) {
        MavIDumpNum(fn, "Adapter ID", ai->uiAdapterID);
        MavIDumpNum(fn, "Thread Model", ai->uiThreadModel);
        MavIDumpNum(fn, "Mav Version", ai->usMavVersion);
        MavIDumpNum(fn, "PelMajorVersion", ai->usPelMajorVersion);
        MavIDumpNum(fn, "PelMinorVersion", ai->usPelMinorVersion);
        MavIDumpText2(fn, "Vendor Info", ai->pszVendorInfo);
        MavIDumpText2(fn, "Adapter Name", ai->pszAdapterName);
        MavIDumpBool(fn, "Reserved1", ai->bReserved1);
        MavIDumpPtr(fn, "Reserved2", ai->pvReserved2);
    }
    MavIDumpNum(fn, "Pel Scan Flag", cfg->uiPelScanFlag);
    MavIDumpNum(fn, "Pel Action Flag", cfg->uiPelActionFlag);
    MavIDumpNum(fn, "Pel Event Flag", cfg->uiPelEventFlag);
    MavIDumpNum(fn, "Pel CIO Flag", cfg->uiPelCIOFlag);
    MavIDumpBool(fn, "Reserved1", cfg->bReserved1);
    MavIDumpPtr(fn, "Reserved2", cfg->pvReserved2);
    MavIDumpParams(true, cfg->pInitParams);
    MavIDumpParams(false, cfg->pOptParams);
    MAV_DUMP(fn, "-------------------------------------------------------------PEL_CONFIG\n");
    return MAV_OK;
}

}  // extern "C"
