// testpel_records.cpp - the records the test adapter hands to the library
// (PEL_CONFIG, PEL_INIT, PEL_SCANINFO, event data), built from the state and
// the script, and the copy of each scan request.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "testpel_state.h"

namespace testpel {
namespace {

char* dupText(const Text& t, std::vector<char*>& owned) {
    if (!t) return nullptr;
    char* p = strdup(t->c_str());
    if (p) owned.push_back(p);
    return p;
}

template <typename T>
T* allocArray(size_t n) {
    return n ? static_cast<T*>(calloc(n, sizeof(T))) : nullptr;
}

size_t sizeFor(size_t scripted, const ScannedObject& obj) {
    return scripted == TPEL_SIZE_OF_OBJECT ? obj.size : scripted;
}

Text extensionOf(const Text& name) {
    if (!name) return std::string();
    size_t slash = name->find_last_of('/');
    std::string base = slash == std::string::npos ? *name : name->substr(slash + 1);
    size_t dot = base.find_last_of('.');
    return dot == std::string::npos ? std::string() : base.substr(dot + 1);
}

void fillVirus(PEL_VIRUSINFO& v, const Infection& in, const ScannedObject& obj,
               std::vector<char*>& owned) {
    std::memset(&v, 0, sizeof v);
    v.struct_size = sizeof(PEL_VIRUSINFO);
    v.bRepairable = in.repairable ? 1 : 0;
    v.uiVirusID = in.virusId;
    v.pszVirusName = dupText(in.virusName, owned);
    v.uiJobID = obj.jobId;
    v.pszObjectName = dupText(in.objectName, owned);
    v.lObjectSize = sizeFor(in.objectSize, obj);
    v.pszFreeTextInfo = dupText(in.freeText, owned);
}

void fillError(PEL_SCANERROR& e, const ScanError& in, const ScannedObject& obj,
               std::vector<char*>& owned) {
    std::memset(&e, 0, sizeof e);
    e.struct_size = sizeof(PEL_SCANERROR);
    e.uiJobID = obj.jobId;
    e.pszObjectName = dupText(in.objectName, owned);
    e.lObjectSize = sizeFor(in.objectSize, obj);
    e.iErrorRC = in.errorRc;
    e.pszErrorText = dupText(in.errorText, owned);
}

void fillContent(PEL_CONTENTINFO& c, const Content& in, const ScannedObject& obj,
                 std::vector<char*>& owned) {
    std::memset(&c, 0, sizeof c);
    c.struct_size = sizeof(PEL_CONTENTINFO);
    c.tObjectType = in.objectType;
    c.pszExtension = dupText(in.fromScan ? extensionOf(obj.name) : in.extension, owned);
    c.pszContentType = dupText(in.contentType, owned);
    c.pszCharSet = dupText(in.charSet, owned);
    c.uiJobID = obj.jobId;
    c.pszObjectName = dupText(in.fromScan ? obj.name : in.objectName, owned);
    c.lObjectSize = sizeFor(in.objectSize, obj);
}

}  // namespace

size_t typeSize(int32_t type) {
    switch (type) {
        case VS_TYPE_BOOL:
        case VS_TYPE_BYTE:
            return 1;
        case VS_TYPE_SHORT:
            return 2;
        case VS_TYPE_INT:
        case VS_TYPE_FLOAT:
            return 4;
        default:
            return 8;
    }
}

bool isTextType(int32_t type) {
    return type == VS_TYPE_CHAR || type == VS_TYPE_OBJECT;
}

size_t readParams(const PEL_PARAMS* p) {
    size_t bytes = 0;
    for (uint16_t i = 0; p && p->pParams && i < p->usNumParams; ++i) {
        const PEL_PARAM& e = p->pParams[i];
        if (isTextType(e.tType) && e.pvValue) bytes += std::strlen(static_cast<const char*>(e.pvValue));
    }
    return bytes;
}

void freeHandedBackConfigs(State& s) {
    auto& v = s.configs;
    for (auto it = v.begin(); it != v.end();) {
        if ((*it)->handedBack) {
            delete *it;
            it = v.erase(it);
        } else {
            ++it;
        }
    }
}


void freeScanBlock(ScanBlock* b) {
    for (char* p : b->strings) free(p);
    free(b->contents);
    free(b->viruses);
    free(b->errors);
    free(b->cleaned);
    delete b;
}

ScanBlock* buildScanInfo(const Script& sc, const ScannedObject& obj) {
    auto* b = new ScanBlock{};
    std::memset(&b->info, 0, sizeof b->info);
    PEL_SCANINFO& si = b->info;
    si.struct_size = sizeof(PEL_SCANINFO);
    si.uiJobID = obj.jobId;
    const uint32_t nc = static_cast<uint32_t>(sc.contentList.size());
    const uint32_t ni = static_cast<uint32_t>(sc.infectionList.size());
    const uint32_t ne = static_cast<uint32_t>(sc.errorList.size());
    if (sc.countsFixed) {
        si.uiScanned = sc.scanned;
        si.uiNotScanned = sc.notScanned;
        si.uiClean = sc.clean;
        si.uiInfections = sc.infections;
        si.uiScanErrors = sc.scanErrors;
    } else {
        si.uiScanned = nc;
        si.uiClean = nc > ni + ne ? nc - ni - ne : 0;
        si.uiInfections = ni;
        si.uiScanErrors = ne;
    }
    if (!sc.nullArrays) {
        b->nContents = nc;
        b->nViruses = ni;
        b->nErrors = ne;
        b->contents = allocArray<PEL_CONTENTINFO>(nc);
        b->viruses = allocArray<PEL_VIRUSINFO>(ni);
        b->errors = allocArray<PEL_SCANERROR>(ne);
        if ((nc && !b->contents) || (ni && !b->viruses) || (ne && !b->errors)) {
            freeScanBlock(b);
            return nullptr;
        }
        for (uint32_t i = 0; i < nc; ++i)
            fillContent(b->contents[i], sc.contentList[i], obj, b->strings);
        for (uint32_t i = 0; i < ni; ++i)
            fillVirus(b->viruses[i], sc.infectionList[i], obj, b->strings);
        for (uint32_t i = 0; i < ne; ++i) fillError(b->errors[i], sc.errorList[i], obj, b->strings);
        si.pContentInfo = b->contents;
        si.pVirusInfo = b->viruses;
        si.pScanError = b->errors;
    }
    if (sc.cleaned) {
        const auto& bytes = *sc.cleaned;
        b->cleaned = static_cast<unsigned char*>(malloc(bytes.size() ? bytes.size() : 1));
        if (!b->cleaned) {
            freeScanBlock(b);
            return nullptr;
        }
        if (!bytes.empty()) std::memcpy(b->cleaned, bytes.data(), bytes.size());
        si.pbBytesCleaned = b->cleaned;
        si.lBytesCleaned = bytes.size();
    }
    return b;
}

// Records the request; reads the file of a file scan outside any lock.
void recordRequest(TPEL_LAST_SCAN& r, const PEL_INIT* pInit, const PEL_CALLBACK* pCallback,
                   const PEL_SCANPARAM* sp, const PEL_OPTPARAMS* pOpt, bool hadInfoPtr) {
    std::memset(&r, 0, sizeof r);
    r.pInit = pInit;
    r.pOptParams = pOpt;
    r.bHadScanInfoPtr = hadInfoPtr;
    if (pCallback) {
        std::memcpy(&r.sCallback, pCallback, sizeof r.sCallback);
    }
    if (!sp) return;
    r.uiScanCode = sp->tScanCode;
    r.uiActionCode = sp->tActionCode;
    r.uiJobID = sp->uiJobID;
    r.lLength = sp->lLength;
    if (sp->pszObjectName) {
        r.bHadObjectName = 1;
        strncpy(r.szObjectName, sp->pszObjectName, sizeof r.szObjectName - 1);
    }
    if (sp->pbByte) {
        r.bHadBytes = 1;
        std::memcpy(r.abBytes, sp->pbByte, std::min(sp->lLength, sizeof r.abBytes));
    }
    if (sp->tScanCode == VS_SC_FILE && sp->pszObjectName) {
        int fd = open(sp->pszObjectName, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            struct stat sb;
            r.bFileExisted = 1;
            if (fstat(fd, &sb) == 0) r.lFileSize = static_cast<size_t>(sb.st_size);
            size_t got = 0;
            while (got < sizeof r.abBytes) {
                ssize_t n = read(fd, r.abBytes + got, sizeof r.abBytes - got);
                if (n <= 0) break;
                got += static_cast<size_t>(n);
            }
            close(fd);
        }
    }
}

// Calls back for one scripted event; false when the event is not sent.
bool sendEvent(const PEL_CALLBACK& cb, const Event& ev, const Script& sc, const ScannedObject& obj,
               int32_t& result) {
    if (!cb.pfnCallback) return false;
    if (!(ev.message & cb.uiMessageMask) && !ev.force) return false;
    std::vector<char*> owned;
    PEL_VIRUSINFO vi;
    PEL_SCANERROR se;
    std::string text;
    void* data = nullptr;
    const bool inRange = ev.index >= 0;
    const size_t idx = static_cast<size_t>(ev.index);
    switch (ev.message) {
        case VS_M_VIRUS:
        case VS_M_REPAIRED:
            if (inRange && idx < sc.infectionList.size()) {
                fillVirus(vi, sc.infectionList[idx], obj, owned);
                data = &vi;
            }
            break;
        case VS_M_NOTSCANNED:
        case VS_M_NOTREPAIRED:
            if (inRange && idx < sc.errorList.size()) {
                fillError(se, sc.errorList[idx], obj, owned);
                data = &se;
            }
            break;
        case VS_M_OBJECTFOUND:
        case VS_M_ERROR:
            if (ev.text) {
                text = *ev.text;
                data = &text[0];
            }
            break;
        default:
            data = reinterpret_cast<void*>(static_cast<uintptr_t>(ev.number));
            break;
    }
    result = cb.pfnCallback(nullptr, ev.message, data, cb.pvContext);
    for (char* p : owned) free(p);
    return true;
}

ConfigBlock* buildConfig(const State& s) {
    auto* b = new ConfigBlock;
    PEL_CONFIG& c = b->cfg;
    c.struct_size = sizeof(PEL_CONFIG);
    {
        PEL_ADAPTERINFO& a = b->info;
        a.struct_size = sizeof(PEL_ADAPTERINFO);
        a.uiAdapterID = s.adapterId;
        a.uiThreadModel = s.threadModel;
        a.usMavVersion = s.mavVersion;
        a.usPelMajorVersion = s.pelMajor;
        a.usPelMinorVersion = s.pelMinor;
        a.pszVendorInfo = b->keep(s.vendorInfo);
        a.pszAdapterName = b->keep(s.adapterName);
        c.pAdapterInfo = &a;
    }
    c.uiPelScanFlag = s.scanFlag;
    c.uiPelActionFlag = s.actionFlag;
    c.uiPelEventFlag = s.eventFlag;
    c.uiPelCIOFlag = s.cioFlag;
    for (int l = 0; l < 2; ++l) {
        std::vector<PEL_PARAM>& out = b->params[l];
        out.resize(s.params[l].size());
        for (size_t i = 0; i < out.size(); ++i) {
            const Param& p = s.params[l][i];
            PEL_PARAM& e = out[i];
            std::memset(&e, 0, sizeof e);
            e.struct_size = sizeof(PEL_PARAM);
            e.tCode = p.code;
            e.tType = p.type;
            e.lLength = p.length;
            if (isTextType(p.type)) {
                e.pvValue = const_cast<char*>(b->keep(p.text));
            } else {
                e.pvValue = reinterpret_cast<void*>(static_cast<intptr_t>(p.number));
            }
        }
        b->lists[l].usNumParams = static_cast<uint16_t>(out.size());
        b->lists[l].pParams = out.empty() ? nullptr : out.data();
    }
    if (!s.nullParamLists) {
        c.pInitParams = &b->lists[1];
        c.pOptParams = &b->lists[0];
    }
    return b;
}

InitBlock* buildInit(const State& s, const Failure& f) {
    auto* b = new InitBlock{};
    PEL_INIT& in = b->init;
    std::memset(&in, 0, sizeof in);
    in.struct_size = sizeof(PEL_INIT);
    in.uiViruses = s.engViruses;
    in.usEngineMajVersion = s.engMajor;
    in.usEngineMinVersion = s.engMinor;
    in.pszEngineVersionText = dupText(s.engText, b->strings);
    in.utcDate = s.engDate;
    b->drivers = allocArray<PEL_DRIVERINFO>(s.drivers.size());
    if (b->drivers) {
        in.usDrivers = static_cast<uint16_t>(s.drivers.size());
        in.pDriver = b->drivers;
        for (size_t i = 0; i < s.drivers.size(); ++i) {
            const Driver& d = s.drivers[i];
            PEL_DRIVERINFO& o = b->drivers[i];
            o.struct_size = sizeof(PEL_DRIVERINFO);
            o.pszName = dupText(d.name, b->strings);
            o.usDrMajVersion = d.major;
            o.usDrMinVersion = d.minor;
            o.utcDate = d.date;
            o.uiViruses = d.viruses;
            o.uiVariants = d.variants;
            o.iDriverRC = d.rc;
        }
    }
    if (f.rc) {
        in.iErrorRC = f.rc;
        in.pszErrorText = dupText(f.vendorText, b->strings);
    }
    return b;
}

void freeInitBlock(InitBlock* b) {
    for (char* p : b->strings) free(p);
    free(b->drivers);
    delete b;
}

}  // namespace testpel
