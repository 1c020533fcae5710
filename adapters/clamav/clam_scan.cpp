/*
 * clam_scan.cpp - the scan of one object on the shared engine.
 *
 * Fail-closed: an object is reported clean only when libclamav scanned all of
 * it. libclamav reports a limit it hit as a "Heuristics.Limits.Exceeded.*"
 * match (the scan always asks for those alerts); those become scan errors and
 * MAV_E_NOT_SCANNED, never infections. Archive members larger than SCANLIMIT
 * are also caught from the archive's own size fields, because the engine
 * truncates such members silently.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include <clamav.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "clam_engine.h"
#include "pel_scan.h"

namespace clampel {

namespace {

const char kLimitPrefix[] = "Heuristics.Limits.Exceeded.";
const char kMaxFileSize[] = "Heuristics.Limits.Exceeded.MaxFileSize";
constexpr size_t kMaxObjectsReported = 1000;

// What the engine's callbacks collect during one scan (their context).
struct ScanContext {
    uint64_t maxFileSize = 0;
    bool wantObjects = false;
    std::string topType;
    std::vector<std::string> detections;
    std::vector<std::string> limitHits;
    std::vector<std::string> objects;
};

void AddUnique(std::vector<std::string>& v, const std::string& s) {
    if (std::find(v.begin(), v.end(), s) == v.end()) v.push_back(s);
}

bool IsLimit(const char* name) {
    return std::strncmp(name, kLimitPrefix, sizeof kLimitPrefix - 1) == 0;
}

void OnVirusFound(int /*fd*/, const char* name, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c == nullptr || name == nullptr) return;
    AddUnique(IsLimit(name) ? c->limitHits : c->detections, name);
}

cl_error_t OnInspect(int /*fd*/, const char* type, const char** /*ancestors*/,
                     size_t /*parentSize*/, const char* fileName, size_t fileSize,
                     const char* /*buffer*/, uint32_t level, uint32_t /*attributes*/,
                     void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c == nullptr) return CL_CLEAN;
    if (level == 0) {
        if (c->topType.empty() && type != nullptr) c->topType = type;
        return CL_CLEAN;
    }
    if (c->maxFileSize != 0 && fileSize > c->maxFileSize) AddUnique(c->limitHits, kMaxFileSize);
    if (c->wantObjects && c->objects.size() < kMaxObjectsReported) {
        c->objects.push_back(fileName != nullptr ? fileName : "(unnamed embedded object)");
    }
    return CL_CLEAN;
}

cl_error_t OnArchiveMember(const char* /*containerType*/, unsigned long /*containerSize*/,
                           const char* /*fileName*/, unsigned long realSize, int /*encrypted*/,
                           unsigned int /*position*/, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c != nullptr && c->maxFileSize != 0 && realSize > c->maxFileSize) {
        AddUnique(c->limitHits, kMaxFileSize);
    }
    return CL_CLEAN;
}

std::string LimitText(const std::string& hit) {
    std::string which = hit.substr(sizeof kLimitPrefix - 1);
    const char* param = nullptr;
    if (which == "MaxFileSize") param = "SCANLIMIT";
    if (which == "MaxScanSize") param = "SCANEXTRACT_SIZE";
    if (which == "MaxRecursion") param = "SCANEXTRACT_DEPTH";
    if (which == "MaxScanTime") param = "SCANEXTRACT_TIME";
    if (param != nullptr) return std::string("Not scanned: ") + param + " exceeded (" + hit + ")";
    return "Not scanned: engine limit " + which + " exceeded (" + hit + ")";
}

// Types whose contents only the archive and document parsers reach.
bool IsContainer(const std::string& type) {
    static const char* const kTypes[] = {
        "CL_TYPE_ZIP",     "CL_TYPE_RAR",       "CL_TYPE_7Z",        "CL_TYPE_GZ",
        "CL_TYPE_BZ",      "CL_TYPE_XZ",        "CL_TYPE_POSIX_TAR", "CL_TYPE_OLD_TAR",
        "CL_TYPE_ARJ",     "CL_TYPE_MSCAB",     "CL_TYPE_CAB",       "CL_TYPE_CPIO",
        "CL_TYPE_ISO9660", "CL_TYPE_DMG",       "CL_TYPE_XAR",       "CL_TYPE_EGG",
        "CL_TYPE_MSOLE2",  "CL_TYPE_OOXML",     "CL_TYPE_XML_",      "CL_TYPE_MAIL",
        "CL_TYPE_MHTML",   "CL_TYPE_TNEF",      "CL_TYPE_PDF",       "CL_TYPE_SWF",
        "CL_TYPE_HWP",     "CL_TYPE_ONENOTE",   "CL_TYPE_SIS",       "CL_TYPE_NULSFT",
        "CL_TYPE_AUTOIT",  "CL_TYPE_ISHIELD",   "CL_TYPE_MSCHM",     "CL_TYPE_UDF",
        "CL_TYPE_LHA",     "CL_TYPE_UUENCODED", "CL_TYPE_BINHEX",    "CL_TYPE_SCRENC",
        "CL_TYPE_ARJSFX",  "CL_TYPE_RARSFX",    "CL_TYPE_ZIPSFX",    "CL_TYPE_7ZSFX"};
    for (const char* t : kTypes) {
        if (type.compare(0, std::strlen(t), t) == 0) return true;
    }
    return false;
}

cl_scan_options Options(const ScanSettings& s) {
    cl_scan_options o;
    std::memset(&o, 0, sizeof o);
    o.general = CL_SCAN_GENERAL_ALLMATCHES;
    if (s.heuristicLevel >= 1) o.general |= CL_SCAN_GENERAL_HEURISTICS;
    if (s.heuristicLevel >= 3) o.general |= CL_SCAN_GENERAL_HEURISTIC_PRECEDENCE;
    o.parse = s.allEmbedded
                  ? ~0u
                  : CL_SCAN_PARSE_ELF | CL_SCAN_PARSE_PE | CL_SCAN_PARSE_HTML | CL_SCAN_PARSE_IMAGE;
    o.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;  // always: the fail-closed rule needs it
    if (s.heuristicLevel >= 2) {
        o.heuristic |= CL_SCAN_HEURISTIC_BROKEN | CL_SCAN_HEURISTIC_MACROS |
                       CL_SCAN_HEURISTIC_PHISHING_SSL_MISMATCH | CL_SCAN_HEURISTIC_PHISHING_CLOAK |
                       CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE | CL_SCAN_HEURISTIC_ENCRYPTED_DOC |
                       CL_SCAN_HEURISTIC_PARTITION_INTXN | CL_SCAN_HEURISTIC_BROKEN_MEDIA;
    }
    return o;
}

// Closes a descriptor on every path out.
}  // namespace

void InstallScanCallbacks(cl_engine* engine) {
    cl_engine_set_clcb_virus_found(engine, OnVirusFound);
    cl_engine_set_clcb_file_inspection(engine, OnInspect);
    cl_engine_set_clcb_meta(engine, OnArchiveMember);
}

int Engine::Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
                 PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    bool memory = false;
    if (int bad = CheckScanParam(param, &memory); bad != kOk) return bad;

    const ScanSettings s = ReadScanSettings(options, defaults_);
    const std::string name = param->pszObjectName != nullptr ? param->pszObjectName : "";
    const bool cleanAsked = (param->tActionCode & VS_A_CLEAN) != 0;

    ObjectFile file;
    size_t size = memory ? param->lLength : 0;
    std::string openError;
    if (!memory && file.Open(name, &openError)) size = file.Size();

    auto result = std::make_unique<ScanResult>(kResultMark, param->uiJobID, name, size,
                                               memory ? kObjectMemory : kObjectFile);
    int rc = kOk;
    std::string engineError;
    bool infected = false;
    std::vector<std::string> objects;

    if (!openError.empty()) {
        rc = kScanFailed;
        engineError = openError;
        result->AddScanError(kScanFailed, openError);
    }

    // Content type. libmagic types the object before the scan when the block
    // policy needs it or the caller asks for MIME checks (VS_A_CHECK_MIME);
    // otherwise the results take the type libclamav found while scanning,
    // which costs nothing extra (libmagic costs milliseconds per text object).
    ContentType type;
    type.nameExtension = NameExtension(name);
    const bool policy = !s.blockMime.empty() || !s.blockExt.empty();
    const bool magic = policy || (out != nullptr && (param->tActionCode & VS_A_CHECK_MIME) != 0);
    bool typed = false;
    if (rc == kOk && magic) {
        std::vector<unsigned char> head;
        const unsigned char* sniff = param->pbByte;
        size_t sniffLength = std::min(size, MagicPool::kSniffBytes);
        if (!memory) {
            head.resize(sniffLength);
            ssize_t n = sniffLength != 0 ? pread(file.Fd(), head.data(), sniffLength, 0) : 0;
            sniffLength = n > 0 ? static_cast<size_t>(n) : 0;
            sniff = head.data();
        }
        std::string magicError;
        if (!magic_.Detect(sniff, sniffLength, &type, &magicError) && policy) {
            rc = kScanFailed;  // the policy cannot be applied without the type
            engineError = magicError;
            result->AddScanError(kScanFailed, magicError);
        }
        result->SetContent(type.Extension(), type.mimeType, type.charset);
        typed = true;
    }

    if (rc == kOk && policy) {
        std::string reason = BlockReason(s, type);
        if (!reason.empty()) {
            rc = kBlockedByPolicy;
            result->AddScanError(kBlockedByPolicy, reason);
        }
    }
    if (rc == kOk && s.limits.maxFileSize != 0 && size > s.limits.maxFileSize) {
        rc = kNotScanned;
        result->AddScanError(kNotScanned, "Not scanned: SCANLIMIT exceeded (object of " +
                                              std::to_string(size) + " bytes, limit " +
                                              std::to_string(s.limits.maxFileSize) + " bytes)");
    }

    if (rc == kOk && size != 0) {
        ScanContext ctx;
        ctx.maxFileSize = s.limits.maxFileSize;
        ctx.wantObjects = cb != nullptr && cb->pfnCallback != nullptr &&
                          (cb->uiMessageMask & VS_M_OBJECTFOUND) != 0;
        cl_scan_options o = Options(s);
        const char* virname = nullptr;
        unsigned long scanned = 0;
        cl_error_t r;
        std::string log;
        {
            std::string* previous = SwapMessageSink(&log);
            gate_.Enter(engine_, s.limits);
            if (memory) {
                cl_fmap_t* map = cl_fmap_open_memory(param->pbByte, size);
                if (map == nullptr) {
                    r = CL_EMEM;
                } else {
                    r = cl_scanmap_callback(map, name.c_str(), &virname, &scanned, engine_, &o,
                                            &ctx);
                    cl_fmap_close(map);
                }
            } else {
                r = cl_scandesc_callback(file.Fd(), name.c_str(), &virname, &scanned, engine_, &o,
                                         &ctx);
            }
            gate_.Leave();
            SwapMessageSink(previous);
        }
        if (r == CL_VIRUS && ctx.detections.empty() && ctx.limitHits.empty() &&
            virname != nullptr) {
            OnVirusFound(-1, virname, &ctx);
        }
        if (r == CL_ETIMEOUT) AddUnique(ctx.limitHits, std::string(kLimitPrefix) + "MaxScanTime");

        for (const std::string& d : ctx.detections) {
            bool heuristic = d.compare(0, 11, "Heuristics.") == 0;
            result->AddInfection(d, heuristic ? kDetectHeuristic : kDetectSignature,
                                 heuristic ? "ClamAV heuristic alert" : "ClamAV signature match");
            infected = true;
        }
        for (const std::string& hit : ctx.limitHits) {
            result->AddScanError(kNotScanned, LimitText(hit));
            rc = kNotScanned;
        }
        if (r != CL_CLEAN && r != CL_VIRUS && r != CL_ETIMEOUT) {
            engineError = "ClamAV engine error " + std::to_string(static_cast<int>(r)) + ": " +
                          cl_strerror(r);
            if (!log.empty()) engineError += " (" + log + ")";
            result->AddScanError(kScanFailed, engineError);
            rc = kScanFailed;
        } else if (rc == kOk && !s.allEmbedded && IsContainer(ctx.topType)) {
            rc = kNotScanned;
            result->AddScanError(kNotScanned,
                                 "Not scanned: the contents of this " + ctx.topType +
                                     " object were not extracted (SCANALLEMBEDDED is off)");
        }
        if (infected) rc = cleanAsked ? kCleanFailed : kVirusFound;
        objects.swap(ctx.objects);
        if (!typed && out != nullptr) {
            type.mimeType = MimeOfEngineType(ctx.topType, &type.charset);
            std::string usual = UsualExtensionOf(type.mimeType);
            if (!usual.empty()) type.extensions.push_back(usual);
            result->SetContent(type.Extension(), type.mimeType, type.charset);
            typed = true;
        }
    }
    if (!typed && out != nullptr && openError.empty()) {
        result->SetContent(type.nameExtension, "", "");  // not scanned, not typed
    }

    result->Finish(rc);
    if (!result->Report(cb, Init(), objects, engineError)) {
        rc = kCallbackTerminated;
        result->Finish(rc);
    }
    if (out != nullptr) *out = result.release()->Info();
    return rc;
}

}  // namespace clampel
