/*
 * clam_content.cpp - content type of an object (libmagic) and the block policy.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_content.h"

#include <magic.h>

#include <algorithm>

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

std::string ContentType::Extension() const {
    if (extensions.empty() || nameExtension.empty()) {
        return extensions.empty() ? nameExtension : extensions.front();
    }
    if (std::find(extensions.begin(), extensions.end(), nameExtension) != extensions.end()) {
        return nameExtension;
    }
    return extensions.front();
}

std::string NameExtension(const std::string& name) {
    size_t slash = name.find_last_of("/\\");
    std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    size_t dot = base.find_last_of('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == base.size()) return std::string();
    return Lower(base.substr(dot + 1));
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
    magic_t c = magic_open(MAGIC_MIME_TYPE | MAGIC_ERROR);
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
    out->mimeType = Lower(query(MAGIC_MIME_TYPE));
    out->charset = ok ? Lower(query(MAGIC_MIME_ENCODING)) : std::string();
    // Every match, not only the first: the first often knows no extension.
    // The answer looks like "zip/cbz\n- ???".
    std::string ext = ok ? Lower(query(MAGIC_EXTENSION | MAGIC_CONTINUE | MAGIC_RAW)) : std::string();
    out->extensions.clear();
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
    if (out->extensions.empty()) {
        if (const char* usual = UsualExtension(out->mimeType)) out->extensions.push_back(usual);
    }
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
        if (hit) return "Blocked by policy: MIME type " + t.mimeType + " is listed in BLOCKMIMETYPES";
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
