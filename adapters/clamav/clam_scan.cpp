/*
 * clam_scan.cpp - the scan of one object on the shared engine.
 *
 * Fail-closed: an object is reported clean only when libclamav scanned all of
 * it and everything in it that the settings promise to open. The engine's
 * callbacks report each object it meets (the object itself and each embedded
 * one, with its type) and whether it scanned it; from them the scan knows
 *   - limits libclamav hit ("Heuristics.Limits.Exceeded.*" alerts, always
 *     asked for) and archive members over SCANLIMIT (from the archive's own
 *     size fields: the engine truncates such members silently);
 *   - encrypted members and documents (member flags, and the
 *     "Heuristics.Encrypted.*" alerts, always asked for);
 *   - archives of which no member was opened (cut or missing directories);
 *   - with SCANALLEMBEDDED off, objects of a type that holds content the
 *     narrowed parsers do not open, at any depth.
 * Each of these makes the object "not scanned", never an infection. Errors
 * libclamav returns or only logs make it a scan error.
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
#include "clam_object.h"
#include "pel_scan.h"

namespace clampel {

namespace {

const char kLimitPrefix[] = "Heuristics.Limits.Exceeded.";
const char kEncryptedPrefix[] = "Heuristics.Encrypted.";
const char kMaxFileSize[] = "Heuristics.Limits.Exceeded.MaxFileSize";
constexpr size_t kMaxObjectsReported = 1000;

bool StartsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool OneOf(const std::string& type, std::initializer_list<const char*> types) {
    for (const char* t : types) {
        if (type == t) return true;
    }
    return false;
}

// Types that may be called clean while embedded objects are not opened: they
// hold nothing to extract, or only what the parsers kept on with
// SCANALLEMBEDDED off open (HTML scripts, image checks). Every other type -
// archives, documents, mail, executables (which may carry an archive),
// unknown binary data - may hide content that is then not looked at.
bool CleanWithoutExtraction(const std::string& type) {
    return OneOf(type, {"CL_TYPE_TEXT_ASCII", "CL_TYPE_TEXT_UTF8", "CL_TYPE_TEXT_UTF16LE",
                        "CL_TYPE_TEXT_UTF16BE", "CL_TYPE_HTML", "CL_TYPE_HTML_UTF16", "CL_TYPE_GIF",
                        "CL_TYPE_PNG", "CL_TYPE_JPEG", "CL_TYPE_TIFF", "CL_TYPE_GRAPHICS"});
}

// Types that exist to hold members: one of which libclamav opened no member
// was not looked into (a cut or missing directory, a format it cannot read).
bool IsArchive(const std::string& type) {
    return OneOf(type,
                 {"CL_TYPE_ZIP",        "CL_TYPE_RAR",      "CL_TYPE_7Z",        "CL_TYPE_GZ",
                  "CL_TYPE_BZ",         "CL_TYPE_XZ",       "CL_TYPE_POSIX_TAR", "CL_TYPE_OLD_TAR",
                  "CL_TYPE_ARJ",        "CL_TYPE_MSCAB",    "CL_TYPE_CPIO_OLD",  "CL_TYPE_CPIO_ODC",
                  "CL_TYPE_CPIO_NEWC",  "CL_TYPE_CPIO_CRC", "CL_TYPE_ISO9660",   "CL_TYPE_DMG",
                  "CL_TYPE_XAR",        "CL_TYPE_EGG",      "CL_TYPE_LHA_LZH",   "CL_TYPE_UDF",
                  "CL_TYPE_OOXML_WORD", "CL_TYPE_OOXML_XL", "CL_TYPE_OOXML_PPT"});
}

// One object of the chain libclamav is in: the object itself (level 0), an
// object embedded in it, and so on.
struct Layer {
    std::string type;
    bool normalized = false;  // the parser's own rewrite of content it opened (HTML scripts)
    bool scanned = false;     // false: the engine's cache of clean objects answered
    uint32_t opened = 0;      // embedded objects the engine opened in it
    uint32_t listed = 0;      // members its directory lists
    uint32_t sizable = 0;     // of those, members large enough to be scanned
};

// libclamav does not scan objects this small (not even to report them).
constexpr unsigned long kTinyObject = 5;

// What the engine's callbacks collect during one scan (their context).
struct ScanContext {
    uint64_t maxFileSize = 0;
    bool wantObjects = false;
    bool allEmbedded = true;
    std::string topType;
    std::vector<Layer> layers;
    std::vector<std::string> detections;
    std::vector<std::string> limitHits;
    std::vector<std::string> notOpened;  // scan error texts: encrypted, not extracted
    std::vector<std::string> objects;

    // Judges the layers deeper than depth, innermost first.
    void Leave(size_t depth);
    // Judges the innermost layer the engine finished; true when it was not
    // looked into in full.
    bool Finished();

  private:
    bool Judge(const Layer& l);
};

void AddUnique(std::vector<std::string>& v, const std::string& s) {
    if (std::find(v.begin(), v.end(), s) == v.end()) v.push_back(s);
}

bool ScanContext::Judge(const Layer& l) {
    if (!l.scanned) return false;  // found clean before, with everything opened
    const char* what = layers.empty() ? "this" : "an embedded";
    if (!allEmbedded && !l.normalized && !CleanWithoutExtraction(l.type)) {
        AddUnique(notOpened, std::string("Not scanned: the contents of ") + what + " " + l.type +
                                 " object were not extracted (SCANALLEMBEDDED is off)");
        return true;
    }
    if (allEmbedded && IsArchive(l.type) && l.opened == 0 && (l.listed == 0 || l.sizable != 0)) {
        AddUnique(notOpened, std::string("Not scanned: no member of ") + what + " " + l.type +
                                 " archive could be opened");
        return true;
    }
    return false;
}

void ScanContext::Leave(size_t depth) {
    while (layers.size() > depth) {
        const Layer l = layers.back();
        layers.pop_back();
        Judge(l);
    }
}

bool ScanContext::Finished() {
    while (!layers.empty() && !layers.back().scanned) layers.pop_back();  // cache answers
    if (layers.empty()) return false;
    const Layer l = layers.back();
    layers.pop_back();
    return Judge(l);
}

bool IsLimit(const char* name) {
    return std::strncmp(name, kLimitPrefix, sizeof kLimitPrefix - 1) == 0;
}

// Callbacks answer CL_VIRUS for an object not looked into in full: libclamav
// then reports it under this name and, above all, does not add it to its
// cache of clean objects (a later scan of the same bytes would be answered
// "clean" from there). The reason is already recorded, so the name is dropped.
const char kOwnAlert[] = "Detected.By.Callback";

void OnVirusFound(int /*fd*/, const char* name, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c == nullptr || name == nullptr || StartsWith(name, kOwnAlert)) return;
    AddUnique(IsLimit(name) ? c->limitHits : c->detections, name);
}

cl_error_t OnInspect(int /*fd*/, const char* type, const char** /*ancestors*/,
                     size_t /*parentSize*/, const char* fileName, size_t fileSize,
                     const char* /*buffer*/, uint32_t level, uint32_t attributes, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c == nullptr) return CL_CLEAN;
    c->Leave(level);
    if (!c->layers.empty()) ++c->layers.back().opened;
    Layer layer;
    layer.type = type != nullptr ? type : "CL_TYPE_ANY";
    layer.normalized = (attributes & LAYER_ATTRIBUTES_NORMALIZED) != 0;
    c->layers.push_back(layer);
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

// Called only for objects the engine scans (not for those its cache answers).
cl_error_t OnPreScan(int /*fd*/, const char* /*type*/, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c != nullptr && !c->layers.empty()) c->layers.back().scanned = true;
    return CL_CLEAN;
}

cl_error_t OnPostScan(int /*fd*/, int /*result*/, const char* /*virname*/, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    return c != nullptr && c->Finished() ? CL_VIRUS : CL_CLEAN;
}

cl_error_t OnArchiveMember(const char* containerType, unsigned long /*containerSize*/,
                           const char* fileName, unsigned long realSize, int encrypted,
                           unsigned int /*position*/, void* context) {
    auto* c = static_cast<ScanContext*>(context);
    if (c == nullptr) return CL_CLEAN;
    cl_error_t answer = CL_CLEAN;
    if (c->maxFileSize != 0 && realSize > c->maxFileSize) {
        AddUnique(c->limitHits, kMaxFileSize);
        answer = CL_VIRUS;  // libclamav truncates the member silently: keep it out of the cache
    }
    for (auto l = c->layers.rbegin(); containerType != nullptr && l != c->layers.rend(); ++l) {
        if (l->type != containerType) continue;
        ++l->listed;
        if (realSize > kTinyObject) ++l->sizable;
        break;
    }
    if (encrypted != 0) {
        AddUnique(c->notOpened, std::string("Not scanned: encrypted member ") +
                                    (fileName != nullptr ? fileName : "(unnamed)") + " of " +
                                    (containerType != nullptr ? containerType : "an archive"));
        answer = CL_VIRUS;
    }
    return answer;
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

cl_scan_options Options(const ScanSettings& s) {
    cl_scan_options o;
    std::memset(&o, 0, sizeof o);
    o.general = CL_SCAN_GENERAL_ALLMATCHES;
    if (s.heuristicLevel >= 1) o.general |= CL_SCAN_GENERAL_HEURISTICS;
    if (s.heuristicLevel >= 3) o.general |= CL_SCAN_GENERAL_HEURISTIC_PRECEDENCE;
    o.parse = s.allEmbedded
                  ? ~0u
                  : CL_SCAN_PARSE_ELF | CL_SCAN_PARSE_PE | CL_SCAN_PARSE_HTML | CL_SCAN_PARSE_IMAGE;
    // libclamav's cache of clean objects does not know the options it was
    // filled under. A narrowed scan must not fill it (a later full scan would
    // take "clean" from it without opening anything), and a scan with the
    // extra heuristics of level 2 must not read it (the verdict may come from
    // a scan without them). Collecting metadata keeps a scan off the cache.
    if (!s.allEmbedded || s.heuristicLevel >= 2) o.general |= CL_SCAN_GENERAL_COLLECT_METADATA;
    // Always: limits and encryption become "not scanned" (never infections).
    o.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX | CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE |
                  CL_SCAN_HEURISTIC_ENCRYPTED_DOC;
    if (s.heuristicLevel >= 2) {
        o.heuristic |= CL_SCAN_HEURISTIC_BROKEN | CL_SCAN_HEURISTIC_MACROS |
                       CL_SCAN_HEURISTIC_PHISHING_SSL_MISMATCH | CL_SCAN_HEURISTIC_PHISHING_CLOAK |
                       CL_SCAN_HEURISTIC_PARTITION_INTXN | CL_SCAN_HEURISTIC_BROKEN_MEDIA;
    }
    return o;
}

std::string ToText(uint64_t n) {
    return std::to_string(n);
}

const unsigned char* ObjectBytes(const PEL_SCANPARAM* param) {
    return param->pbByte;
}

uint64_t SizeOf(bool memory, const PEL_SCANPARAM* param, const ObjectSource& source) {
    return memory ? param->lLength : source.Size();
}

}  // namespace

// The scan of one object, step by step: open, type, policy, size, engine,
// verdict, report. Each step runs only while the result is still kOk.
class ScanJob {
  public:
    ScanJob(Engine& engine, const PEL_CALLBACK* cb, const PEL_SCANPARAM* param,
            const ScanSettings& settings, bool memory, bool wantInfo)
        : e_(engine),
          cb_(cb),
          param_(param),
          s_(settings),
          memory_(memory),
          wantInfo_(wantInfo),
          name_(param->pszObjectName != nullptr ? param->pszObjectName : "") {
        // libclamav scans nothing larger than kEngineMaxObject; SCANLIMIT 0 means that.
        limit_.bytes = kEngineMaxObject;
        limit_.name = "libclamav's object size limit";
        if (s_.limits.maxFileSize != 0 && s_.limits.maxFileSize <= kEngineMaxObject) {
            limit_.bytes = s_.limits.maxFileSize;
            limit_.name = "SCANLIMIT";
        }
        limit_.timeMs = s_.limits.maxTimeMs;
        limit_.tmpDir = e_.tmpDir_;
    }

    void Open();
    void TypeAndPolicy();
    void CheckSize();
    void Run();
    int Finish(PEL_SCANINFO** out);

  private:
    void Fail(int rc, const std::string& text);
    cl_error_t CallEngine(ScanContext* ctx, const char** virname, MessageSink* log);
    void Judge(const ScanContext& ctx, cl_error_t r, const MessageSink& log);
    void ReportEngineType(const std::string& engineType);

    Engine& e_;
    const PEL_CALLBACK* cb_;
    const PEL_SCANPARAM* param_;
    const ScanSettings& s_;
    const bool memory_;
    const bool wantInfo_;
    const std::string name_;
    ReadLimits limit_;
    ObjectSource source_;
    std::unique_ptr<ScanResult> result_;
    int rc_ = kOk;
    bool opened_ = false;
    bool typed_ = false;
    bool infected_ = false;
    std::string engineError_;
    ContentType type_;
    std::vector<std::string> objects_;
};

void ScanJob::Fail(int rc, const std::string& text) {
    rc_ = rc;
    if (rc == kScanFailed) engineError_ = text;
    result_->AddScanError(rc, text);
}

void ScanJob::Open() {
    std::string text;
    int state = ObjectSource::kReady;
    if (!memory_) state = source_.Open(name_, limit_, &text);
    const uint64_t size = memory_ ? param_->lLength : source_.Size();
    result_ =
        std::make_unique<ScanResult>(kResultMark, param_->uiJobID, name_, static_cast<size_t>(size),
                                     memory_ ? kObjectMemory : kObjectFile);
    opened_ = state != ObjectSource::kOpenFailed;
    if (state == ObjectSource::kOpenFailed) Fail(kScanFailed, text);
    if (state == ObjectSource::kTooLarge) Fail(kNotScanned, text);
}

// libmagic types the object before the scan when the block policy needs it
// or the caller asks for MIME checks (VS_A_CHECK_MIME); otherwise the results
// take the type libclamav found while scanning, which costs nothing extra
// (libmagic costs milliseconds per text object).
void ScanJob::TypeAndPolicy() {
    type_.nameExtension = NameExtension(name_);
    const bool policy = !s_.blockMime.empty() || !s_.blockExt.empty();
    const bool magic = policy || (wantInfo_ && (param_->tActionCode & VS_A_CHECK_MIME) != 0);
    if (rc_ != kOk || !magic) return;
    const uint64_t size = SizeOf(memory_, param_, source_);
    size_t sniffLength = static_cast<size_t>(std::min<uint64_t>(size, MagicPool::kSniffBytes));
    const unsigned char* sniff = memory_ ? ObjectBytes(param_) : source_.Data();
    std::vector<unsigned char> head;
    if (!memory_ && source_.Fd() >= 0) {
        head.resize(sniffLength);
        ssize_t n = sniffLength != 0 ? pread(source_.Fd(), head.data(), sniffLength, 0) : 0;
        sniffLength = n > 0 ? static_cast<size_t>(n) : 0;
        sniff = head.data();
    }
    std::string magicError;
    if (!e_.magic_.Detect(sniff, sniffLength, &type_, &magicError) && policy) {
        Fail(kScanFailed, magicError);  // the policy cannot be applied without the type
    }
    result_->SetContent(type_.Extension(), type_.mimeType, type_.charset);
    typed_ = true;
    if (rc_ == kOk && policy) {
        std::string reason = BlockReason(s_, type_);
        if (!reason.empty()) Fail(kBlockedByPolicy, reason);
    }
}

void ScanJob::CheckSize() {
    const uint64_t size = SizeOf(memory_, param_, source_);
    if (rc_ == kOk && size > limit_.bytes) {
        Fail(kNotScanned, "Not scanned: " + limit_.name + " exceeded (object of " + ToText(size) +
                              " bytes, limit " + ToText(limit_.bytes) + " bytes)");
    }
}

cl_error_t ScanJob::CallEngine(ScanContext* ctx, const char** virname, MessageSink* log) {
    cl_scan_options o = Options(s_);
    unsigned long scanned = 0;
    Limits limits = s_.limits;
    limits.maxFileSize = limit_.bytes;
    cl_error_t r = CL_EMEM;
    MessageSink* previous = SwapMessageSink(log);
    e_.gate_.Enter(e_.engine_, limits);
    if (source_.Fd() >= 0) {
        r = cl_scandesc_callback(source_.Fd(), name_.c_str(), virname, &scanned, e_.engine_, &o,
                                 ctx);
    } else {
        const unsigned char* data = memory_ ? ObjectBytes(param_) : source_.Data();
        const size_t size = static_cast<size_t>(SizeOf(memory_, param_, source_));
        if (cl_fmap_t* map = cl_fmap_open_memory(data, size)) {
            r = cl_scanmap_callback(map, name_.c_str(), virname, &scanned, e_.engine_, &o, ctx);
            cl_fmap_close(map);
        }
    }
    e_.gate_.Leave();
    SwapMessageSink(previous);
    ctx->Leave(0);
    return r;
}

void ScanJob::Run() {
    if (rc_ != kOk || SizeOf(memory_, param_, source_) == 0) return;
    ScanContext ctx;
    ctx.maxFileSize = limit_.bytes;
    ctx.allEmbedded = s_.allEmbedded;
    ctx.wantObjects = cb_ != nullptr && cb_->pfnCallback != nullptr &&
                      (cb_->uiMessageMask & VS_M_OBJECTFOUND) != 0;
    const char* virname = nullptr;
    MessageSink log;
    cl_error_t r = CallEngine(&ctx, &virname, &log);
    if (r == CL_VIRUS && ctx.detections.empty() && ctx.limitHits.empty() && virname != nullptr) {
        OnVirusFound(-1, virname, &ctx);
    }
    if (r == CL_ETIMEOUT) AddUnique(ctx.limitHits, std::string(kLimitPrefix) + "MaxScanTime");
    Judge(ctx, r, log);
    objects_.swap(ctx.objects);
    if (!typed_ && wantInfo_) ReportEngineType(ctx.topType);
}

// The verdict from what the engine reported: an infection wins; an engine
// error (returned or only logged) makes a scan error; anything not looked at
// makes "not scanned".
void ScanJob::Judge(const ScanContext& ctx, cl_error_t r, const MessageSink& log) {
    for (const std::string& d : ctx.detections) {
        if (StartsWith(d, kEncryptedPrefix)) {
            Fail(kNotScanned, "Not scanned: encrypted content (" + d + ")");
            continue;
        }
        bool heuristic = StartsWith(d, "Heuristics.");
        result_->AddInfection(d, heuristic ? kDetectHeuristic : kDetectSignature,
                              heuristic ? "ClamAV heuristic alert" : "ClamAV signature match");
        infected_ = true;
    }
    for (const std::string& hit : ctx.limitHits) Fail(kNotScanned, LimitText(hit));
    for (const std::string& text : ctx.notOpened) Fail(kNotScanned, text);
    if (source_.Direct()) {
        std::string changed = source_.Changed();
        if (!changed.empty()) Fail(kNotScanned, changed);
    }
    const bool failed = r != CL_CLEAN && r != CL_VIRUS && r != CL_ETIMEOUT;
    if (failed || !log.errors.empty()) {
        std::string text = failed ? "ClamAV engine error " + std::to_string(static_cast<int>(r)) +
                                        ": " + cl_strerror(r)
                                  : std::string("ClamAV engine error");
        std::string detail = log.errors;
        if (!log.text.empty()) detail += (detail.empty() ? "" : "; ") + log.text;
        if (!detail.empty()) text += failed ? " (" + detail + ")" : ": " + detail;
        Fail(kScanFailed, text);
    }
    if (infected_) rc_ = (param_->tActionCode & VS_A_CLEAN) != 0 ? kCleanFailed : kVirusFound;
}

void ScanJob::ReportEngineType(const std::string& engineType) {
    type_.mimeType = MimeOfEngineType(engineType, &type_.charset);
    std::string usual = UsualExtensionOf(type_.mimeType);
    if (!usual.empty()) type_.extensions.push_back(usual);
    result_->SetContent(type_.Extension(), type_.mimeType, type_.charset);
    typed_ = true;
}

int ScanJob::Finish(PEL_SCANINFO** out) {
    if (!typed_ && wantInfo_ && opened_) {
        result_->SetContent(type_.nameExtension, "", "");  // not scanned, not typed
    }
    result_->Finish(rc_);
    if (!result_->Report(cb_, e_.Init(), objects_, engineError_)) {
        rc_ = kCallbackTerminated;
        result_->Finish(rc_);
    }
    if (out != nullptr) *out = result_.release()->Info();
    return rc_;
}

void InstallScanCallbacks(cl_engine* engine) {
    cl_engine_set_clcb_virus_found(engine, OnVirusFound);
    cl_engine_set_clcb_file_inspection(engine, OnInspect);
    cl_engine_set_clcb_pre_scan(engine, OnPreScan);
    cl_engine_set_clcb_post_scan(engine, OnPostScan);
    cl_engine_set_clcb_meta(engine, OnArchiveMember);
}

int Engine::Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
                 PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    bool memory = false;
    if (int bad = CheckScanParam(param, &memory); bad != kOk) return bad;
    const ScanSettings settings = ReadScanSettings(options, defaults_);
    ScanJob job(*this, cb, param, settings, memory, out != nullptr);
    job.Open();
    job.TypeAndPolicy();
    job.CheckSize();
    job.Run();
    return job.Finish(out);
}

}  // namespace clampel
