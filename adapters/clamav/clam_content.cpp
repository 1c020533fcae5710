/*
 * clam_content.cpp - content type of an object (libmagic) and the block policy.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_content.h"

#include <magic.h>

#include <algorithm>
#include <cstring>

namespace clampel {

namespace {

// libmagic knows extensions for few types; for common ones whose answer is
// "???" the usual extension of the MIME type stands in.
const char* UsualExtension(const std::string& mime) {
    static const struct {
        const char* mime;
        const char* ext;
    } kTable[] = {
        {"application/zip", "zip"},
        {"application/x-dosexec", "exe"},
        {"application/vnd.microsoft.portable-executable", "exe"},
        {"application/x-msi", "msi"},
        {"application/x-ms-shortcut", "lnk"},
        {"application/pdf", "pdf"},
        {"application/x-rar", "rar"},
        {"application/vnd.rar", "rar"},
        {"application/x-7z-compressed", "7z"},
        {"application/gzip", "gz"},
        {"application/x-bzip2", "bz2"},
        {"application/x-xz", "xz"},
        {"application/x-tar", "tar"},
        {"application/java-archive", "jar"},
        {"application/vnd.ms-cab-compressed", "cab"},
        {"application/x-iso9660-image", "iso"},
        {"application/x-sharedlib", "so"},
        {"application/msword", "doc"},
        {"application/vnd.ms-excel", "xls"},
        {"application/vnd.ms-powerpoint", "ppt"},
        {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
        {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", "xlsx"},
        {"application/vnd.openxmlformats-officedocument.presentationml.presentation", "pptx"},
        {"application/rtf", "rtf"},
        {"text/rtf", "rtf"},
        {"application/javascript", "js"},
        {"text/javascript", "js"},
        {"text/x-shellscript", "sh"},
        {"text/html", "html"},
        {"text/plain", "txt"},
        {"image/jpeg", "jpg"},
        {"image/png", "png"},
        {"image/gif", "gif"},
    };
    for (const auto& e : kTable) {
        if (mime == e.mime) return e.ext;
    }
    return nullptr;
}

}  // namespace

std::string UsualExtensionOf(const std::string& mimeType) {
    const char* e = UsualExtension(mimeType);
    return e != nullptr ? e : "";
}

std::string MimeOfEngineType(const std::string& t, std::string* charset) {
    static const struct {
        const char* type;
        const char* mime;
        const char* charset;
    } kTable[] = {
        {"CL_TYPE_TEXT_ASCII", "text/plain", "us-ascii"},
        {"CL_TYPE_TEXT_UTF8", "text/plain", "utf-8"},
        {"CL_TYPE_TEXT_UTF16LE", "text/plain", "utf-16le"},
        {"CL_TYPE_TEXT_UTF16BE", "text/plain", "utf-16be"},
        {"CL_TYPE_HTML_UTF16", "text/html", "utf-16le"},
        {"CL_TYPE_HTML", "text/html", ""},
        {"CL_TYPE_RTF", "text/rtf", ""},
        {"CL_TYPE_MAIL", "message/rfc822", ""},
        {"CL_TYPE_ZIPSFX", "application/x-dosexec", ""},
        {"CL_TYPE_ZIP", "application/zip", ""},
        {"CL_TYPE_RARSFX", "application/x-dosexec", ""},
        {"CL_TYPE_RAR", "application/x-rar", ""},
        {"CL_TYPE_7ZSFX", "application/x-dosexec", ""},
        {"CL_TYPE_7Z", "application/x-7z-compressed", ""},
        {"CL_TYPE_GZ", "application/gzip", ""},
        {"CL_TYPE_BZ", "application/x-bzip2", ""},
        {"CL_TYPE_XZ", "application/x-xz", ""},
        {"CL_TYPE_POSIX_TAR", "application/x-tar", ""},
        {"CL_TYPE_OLD_TAR", "application/x-tar", ""},
        {"CL_TYPE_ARJ", "application/x-arj", ""},
        {"CL_TYPE_MSCAB", "application/vnd.ms-cab-compressed", ""},
        {"CL_TYPE_CPIO", "application/x-cpio", ""},
        {"CL_TYPE_ISO9660", "application/x-iso9660-image", ""},
        {"CL_TYPE_MSCHM", "application/vnd.ms-htmlhelp", ""},
        {"CL_TYPE_MSEXE", "application/x-dosexec", ""},
        {"CL_TYPE_ELF", "application/x-executable", ""},
        {"CL_TYPE_MACHO", "application/x-mach-binary", ""},
        {"CL_TYPE_JAVA", "application/x-java-applet", ""},
        {"CL_TYPE_PDF", "application/pdf", ""},
        {"CL_TYPE_SWF", "application/x-shockwave-flash", ""},
        {"CL_TYPE_MSOLE2", "application/x-ole-storage", ""},
        {"CL_TYPE_OOXML_WORD",
         "application/vnd.openxmlformats-officedocument.wordprocessingml.document", ""},
        {"CL_TYPE_OOXML_XL", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet",
         ""},
        {"CL_TYPE_OOXML_PPT",
         "application/vnd.openxmlformats-officedocument.presentationml.presentation", ""},
        {"CL_TYPE_GIF", "image/gif", ""},
        {"CL_TYPE_PNG", "image/png", ""},
        {"CL_TYPE_JPEG", "image/jpeg", ""},
        {"CL_TYPE_TIFF", "image/tiff", ""},
        {"CL_TYPE_BINARY_DATA", "application/octet-stream", ""},
    };
    for (const auto& e : kTable) {
        if (t.compare(0, std::strlen(e.type), e.type) == 0) {
            *charset = e.charset;
            return e.mime;
        }
    }
    charset->clear();
    return t.empty() ? "" : "application/octet-stream";
}

std::string ContentType::Extension() const {
    if (extensions.empty() || nameExtension.empty()) {
        return extensions.empty() ? nameExtension : extensions.front();
    }
    if (std::find(extensions.begin(), extensions.end(), nameExtension) != extensions.end()) {
        return nameExtension;
    }
    return extensions.front();
}

MagicPool::~MagicPool() {
    for (void* c : free_) magic_close(static_cast<magic_t>(c));
}

void* MagicPool::Acquire(std::string* error) {
    {
        std::lock_guard<std::mutex> g(lock_);
        if (!free_.empty()) {
            void* c = free_.back();
            free_.pop_back();
            return c;
        }
    }
    magic_t c = magic_open(MAGIC_MIME | MAGIC_ERROR);
    if (c == nullptr) {
        *error = "libmagic: magic_open failed";
        return nullptr;
    }
    if (magic_load(c, nullptr) != 0) {
        const char* e = magic_error(c);
        *error = std::string("libmagic: cannot load the magic database: ") + (e ? e : "");
        magic_close(c);
        return nullptr;
    }
    size_t bytes = kSniffBytes;
    magic_setparam(c, MAGIC_PARAM_BYTES_MAX, &bytes);
    return c;
}

void MagicPool::Release(void* cookie) {
    std::lock_guard<std::mutex> g(lock_);
    free_.push_back(cookie);
}

bool MagicPool::Detect(const unsigned char* data, size_t length, ContentType* out,
                       std::string* error) {
    auto* c = static_cast<magic_t>(Acquire(error));
    if (c == nullptr) return false;
    size_t n = std::min(length, kSniffBytes);
    static const unsigned char kEmpty[1] = {0};
    const void* p = n != 0 ? static_cast<const void*>(data) : kEmpty;
    bool ok = true;
    auto query = [&](int flags) -> std::string {
        magic_setflags(c, flags | MAGIC_ERROR);
        const char* r = magic_buffer(c, p, n);
        if (r == nullptr) {
            const char* e = magic_error(c);
            *error = std::string("libmagic: ") + (e ? e : "no answer");
            ok = false;
            return std::string();
        }
        return r;
    };
    // One answer for both: "text/plain; charset=us-ascii".
    std::string mime = Lower(query(MAGIC_MIME));
    size_t semi = mime.find(';');
    out->mimeType = mime.substr(0, semi);
    out->charset.clear();
    size_t cs = mime.find("charset=", semi == std::string::npos ? mime.size() : semi);
    if (cs != std::string::npos) out->charset = mime.substr(cs + 8);
    // The usual extension of a common type; else what libmagic's database
    // knows (often nothing: "???"). Each libmagic query costs a full pass.
    out->extensions.clear();
    const char* usual = UsualExtension(out->mimeType);
    std::string ext = usual != nullptr ? usual
                      : ok             ? Lower(query(MAGIC_EXTENSION | MAGIC_RAW))
                                       : std::string();
    std::string one;
    auto take = [&]() {
        if (!one.empty() && one != "???" &&
            std::find(out->extensions.begin(), out->extensions.end(), one) ==
                out->extensions.end()) {
            out->extensions.push_back(one);
        }
        one.clear();
    };
    for (char ch : ext) {
        if (ch == '/' || ch == '\n') {
            take();
        } else if (!(one.empty() && (ch == '-' || ch == ' '))) {
            one += ch;
        }
    }
    take();
    Release(c);
    return ok;
}

std::string BlockReason(const ScanSettings& s, const ContentType& t) {
    for (const std::string& m : s.blockMime) {
        bool hit = false;
        if (m.size() >= 2 && m.compare(m.size() - 2, 2, "/*") == 0) {
            hit = t.mimeType.compare(0, m.size() - 1, m, 0, m.size() - 1) == 0 &&
                  t.mimeType.size() >= m.size() - 1;
        } else {
            hit = t.mimeType == m;
        }
        if (hit)
            return "Blocked by policy: MIME type " + t.mimeType + " is listed in BLOCKMIMETYPES";
    }
    for (const std::string& e : s.blockExt) {
        if (e == t.nameExtension) {
            return "Blocked by policy: extension " + e + " is listed in BLOCKEXTENSIONS";
        }
        if (std::find(t.extensions.begin(), t.extensions.end(), e) != t.extensions.end()) {
            return "Blocked by policy: content of type " + t.mimeType + " (extension " + e +
                   ") is listed in BLOCKEXTENSIONS";
        }
    }
    return std::string();
}

}  // namespace clampel
