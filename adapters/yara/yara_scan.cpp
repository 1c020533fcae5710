/*
 * yara_scan.cpp - the scan of one object with an instance's YR_SCANNER.
 *
 * Every matching rule is an infection, reported to the caller (VS_M_VIRUS)
 * as it matches, so that a handler's stop ends the scan at once. Fail-closed:
 * a scan that libyara ended early (timeout, too many matches of a string,
 * out of memory) or that the size limit kept from running is never clean.
 */
#include <magic.h>
#include <sys/mman.h>
#include <unistd.h>
#include <yara.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "pel_params.h"
#include "pel_scan.h"
#include "yara_instance.h"
#include "yara_md5.h"

namespace yarapel {
namespace {

constexpr size_t kSniffBytes = 8192;  // what libmagic looks at for filetype

// What the scanner's callback needs and collects during one scan.
struct ScanContext {
    ScanResult* result;
    const PEL_CALLBACK* cb;
    void* adapterData;
    bool stopped = false;
    std::string tooMany;  // the string that matched too often
};

std::string RuleName(const YR_RULE* rule) {
    std::string ns = rule->ns != nullptr && rule->ns->name != nullptr ? rule->ns->name : "";
    return ns.empty() || ns == "default" ? rule->identifier : ns + ":" + rule->identifier;
}

// The rule's description meta, then its tags and its other meta.
std::string FreeText(const YR_RULE* rule) {
    std::string description, tags, meta;
    const char* tag = nullptr;
    yr_rule_tags_foreach(rule, tag) {
        tags += (tags.empty() ? "" : " ") + std::string(tag);
    }
    const YR_META* m = nullptr;
    yr_rule_metas_foreach(rule, m) {
        std::string value = m->type == META_TYPE_STRING    ? std::string(m->string)
                            : m->type == META_TYPE_BOOLEAN ? (m->integer ? "true" : "false")
                                                           : std::to_string(m->integer);
        if (m->type == META_TYPE_STRING && description.empty() &&
            std::string(m->identifier) == "description") {
            description = value;
        } else {
            meta += (meta.empty() ? "" : ", ") + std::string(m->identifier) + "=" + value;
        }
    }
    std::string text = description;
    if (!tags.empty()) text += (text.empty() ? "" : "; ") + std::string("tags: ") + tags;
    if (!meta.empty()) text += (text.empty() ? "" : "; ") + std::string("meta: ") + meta;
    return text.empty() ? "YARA rule " + RuleName(rule) : text;
}

int OnScanEvent(YR_SCAN_CONTEXT* context, int message, void* data, void* user) {
    auto* c = static_cast<ScanContext*>(user);
    if (message == CALLBACK_MSG_RULE_MATCHING) {
        const auto* rule = static_cast<const YR_RULE*>(data);
        c->result->AddInfection(RuleName(rule), kDetectSignature, FreeText(rule));
        if (!c->result->ReportNewInfections(c->cb, c->adapterData)) {
            c->stopped = true;
            return CALLBACK_ABORT;
        }
    } else if (message == CALLBACK_MSG_TOO_MANY_MATCHES && c->tooMany.empty()) {
        const auto* s = static_cast<const YR_STRING*>(data);
        c->tooMany = std::string(s->identifier) + " of rule " +
                     RuleName(&context->rules->rules_table[s->rule_idx]);
    }
    return CALLBACK_CONTINUE;  // console.log and module messages: nothing to do
}

std::string YaraErrorText(int rc) {
    switch (rc) {
        case ERROR_INSUFFICIENT_MEMORY:
            return "out of memory";
        case ERROR_EXEC_STACK_OVERFLOW:
            return "a rule's condition overflowed the stack";
        case ERROR_TOO_MANY_RE_FIBERS:
            return "a regular expression needs too many fibers";
        case ERROR_INTERNAL_FATAL_ERROR:
            return "internal error";
        case ERROR_INVALID_MODULE_DATA:
            return "invalid module data";
        case ERROR_BLOCK_NOT_READY:
            return "data block not ready";
        default:
            return "error " + std::to_string(rc);
    }
}

// An object's bytes: a caller's buffer or a read-only mapping of its file.
class Bytes {
  public:
    ~Bytes() {
        if (map_ != nullptr) munmap(map_, size_);
    }
    bool Map(int fd, size_t size) {
        size_ = size;
        if (size == 0) return true;
        void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p == MAP_FAILED) return false;
        map_ = p;
        data_ = static_cast<const unsigned char*>(p);
        return true;
    }
    void Use(const unsigned char* data, size_t size) {
        data_ = data;
        size_ = size;
    }
    const unsigned char* Data() const { return data_; }
    size_t Size() const { return size_; }

  private:
    void* map_ = nullptr;
    const unsigned char* data_ = nullptr;
    size_t size_ = 0;
};

std::string Md5OfFile(int fd) {
    Md5 m;
    std::vector<unsigned char> buf(1 << 16);
    off_t at = 0;
    ssize_t n;
    while ((n = pread(fd, buf.data(), buf.size(), at)) > 0) {
        m.Update(buf.data(), static_cast<size_t>(n));
        at += n;
    }
    return m.HexDigest();
}

std::string BaseName(const std::string& name) {
    size_t slash = name.find_last_of('/');
    return slash == std::string::npos ? name : name.substr(slash + 1);
}

}  // namespace

std::string Instance::MimeType(const unsigned char* data, size_t size) {
    if (magic_ == nullptr) {
        magic_ = magic_open(MAGIC_MIME_TYPE | MAGIC_ERROR | MAGIC_NO_CHECK_COMPRESS);
        if (magic_ != nullptr && magic_load(magic_, nullptr) != 0) {
            magic_close(magic_);
            magic_ = nullptr;
        }
        if (magic_ == nullptr) return "";
    }
    const char* type = magic_buffer(magic_, data, std::min(size, kSniffBytes));
    return type != nullptr ? type : "";
}

void Instance::SetExternals(const std::string& name, const unsigned char* data, int fd, size_t size,
                            std::string* mime) {
    const uint32_t used = rules_->Externals();
    auto set = [&](uint32_t bit, const std::string& value) {
        if ((used & bit) != 0) {
            int k = __builtin_ctz(bit);
            yr_scanner_define_string_variable(scanner_, kExternalNames[k], value.c_str());
        }
    };
    set(kFilename, BaseName(name));
    set(kFilepath, name);
    set(kExtension, NameExtension(name));
    if ((used & kFiletype) != 0) {
        std::vector<unsigned char> head(fd >= 0 ? std::min(size, kSniffBytes) : 0);
        ssize_t n = head.empty() ? 0 : pread(fd, head.data(), head.size(), 0);
        *mime = fd >= 0 ? MimeType(head.data(), n > 0 ? static_cast<size_t>(n) : 0)
                        : MimeType(data, size);
    }
    set(kFiletype, *mime);
    if ((used & kMd5) != 0) set(kMd5, fd >= 0 ? Md5OfFile(fd) : Md5Hex(data, size));
}

int Instance::Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
                   PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    bool memory = false;
    if (int bad = CheckScanParam(param, &memory); bad != kOk) return bad;
    const std::string name = param->pszObjectName != nullptr ? param->pszObjectName : "";
    const uint64_t limit = ParamNumber(options, VS_P_SCANLIMIT, 0);
    const uint64_t timeMs = ParamNumber(options, VS_P_SCANEXTRACT_TIME, 0);
    const uint64_t timeoutS = timeMs != 0 ? (timeMs + 999) / 1000 : timeoutS_;

    ObjectFile file;
    Bytes bytes;
    std::string engineError, sizeless;
    int sizelessRc = kOk;
    if (memory) {
        bytes.Use(param->pbByte, param->lLength);
    } else if (file.Open(name, &engineError)) {
        sizelessRc = file.ReadSizeless(limit != 0 ? limit : kSizelessCap, &sizeless);
        if (sizelessRc == kScanFailed) {
            engineError = sizeless + " (" + name + ")";
        } else if (file.Data() != nullptr) {
            bytes.Use(file.Data(), file.Size());
        } else if (!bytes.Map(file.Fd(), file.Size())) {
            engineError = "Cannot map " + name + ": " + std::strerror(errno);
        }
    }
    const bool viaFd = !memory && file.Data() == nullptr;
    const size_t size = memory ? param->lLength : file.Size();
    auto result = std::make_unique<ScanResult>(kResultMark, param->uiJobID, name, size,
                                               memory ? kObjectMemory : kObjectFile);
    int rc = kOk;
    std::string mime;
    if (!engineError.empty()) {
        rc = kScanFailed;
        result->AddScanError(kScanFailed, engineError);
    } else if (sizelessRc == kNotScanned) {
        rc = kNotScanned;
        result->AddScanError(kNotScanned, sizeless);
    } else if (limit != 0 && size > limit) {
        rc = kNotScanned;
        result->AddScanError(kNotScanned, "Not scanned: SCANLIMIT exceeded (object of " +
                                              std::to_string(size) + " bytes, limit " +
                                              std::to_string(limit) + " bytes)");
    } else {
        SetExternals(name, bytes.Data(), viaFd ? file.Fd() : -1, bytes.Size(), &mime);
        ScanContext ctx{result.get(), cb, Init(), false, std::string()};
        yr_scanner_set_callback(scanner_, OnScanEvent, &ctx);
        yr_scanner_set_timeout(scanner_, static_cast<int>(std::min<uint64_t>(timeoutS, INT32_MAX)));
        static const uint8_t kNothing = 0;
        int r = yr_scanner_scan_mem(scanner_, bytes.Size() != 0 ? bytes.Data() : &kNothing,
                                    bytes.Size());
        if (ctx.stopped) {
            rc = kCallbackTerminated;
        } else if (r == ERROR_SCAN_TIMEOUT) {
            rc = kNotScanned;
            result->AddScanError(kNotScanned, "Not scanned: the YARA scan timed out after " +
                                                  std::to_string(timeoutS) +
                                                  " s (SCANEXTRACT_TIME, INITTIMEOUT)");
        } else if (r == ERROR_TOO_MANY_MATCHES || !ctx.tooMany.empty()) {
            rc = kNotScanned;
            result->AddScanError(
                kNotScanned,
                "Not scanned completely: too many matches" +
                    (ctx.tooMany.empty() ? std::string() : " of string " + ctx.tooMany));
        } else if (r != ERROR_SUCCESS) {
            rc = kScanFailed;
            engineError = "YARA scan of " + name + " failed: " + YaraErrorText(r);
            result->AddScanError(kScanFailed, engineError);
        } else if (!memory && file.Changed()) {
            // Bytes written after the file was mapped were never looked at.
            rc = kNotScanned;
            result->AddScanError(kNotScanned, "Not scanned: the file changed while it was scanned");
        }
    }
    if (out != nullptr && engineError.empty()) result->SetContent(NameExtension(name), mime, "");
    result->Finish(rc);
    if (rc != kCallbackTerminated) {
        // Matches stand even when the scan did not finish; the scan errors stay listed.
        if (result->Info()->uiInfections != 0) {
            rc = (param->tActionCode & VS_A_CLEAN) != 0 ? kCleanFailed : kVirusFound;
            result->Finish(rc);
        }
        if (!result->Report(cb, Init(), {}, engineError)) {
            rc = kCallbackTerminated;
            result->Finish(rc);
        }
    }
    if (out != nullptr) *out = result.release()->Info();
    return rc;
}

}  // namespace yarapel
