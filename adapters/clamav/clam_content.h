/*
 * clam_content.h - content type of an object (libmagic) and the block policy.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#ifndef KORMO_CLAM_CONTENT_H
#define KORMO_CLAM_CONTENT_H

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "clam_common.h"

namespace clampel {

struct ContentType {
    std::string mimeType;                 // "text/plain"; "" when unknown
    std::string charset;                  // "us-ascii"; "" when unknown
    std::vector<std::string> extensions;  // what libmagic knows for the type, lower case
    std::string nameExtension;            // from the object's name, lower case
    // The extension reported: the name's when libmagic lists it or knows none,
    // else libmagic's first.
    std::string Extension() const;
};

// libmagic cookies are not thread safe: a pool hands one to each scan.
class MagicPool {
  public:
    MagicPool() = default;
    ~MagicPool();
    MagicPool(const MagicPool&) = delete;
    MagicPool& operator=(const MagicPool&) = delete;

    // Types the first bytes of an object (at most kSniffBytes are looked at).
    // False with a reason when libmagic cannot be used.
    bool Detect(const unsigned char* data, size_t length, ContentType* out, std::string* error);

    static constexpr size_t kSniffBytes = 64 * 1024;

  private:
    void* Acquire(std::string* error);
    void Release(void* cookie);

    std::mutex lock_;
    std::vector<void*> free_;
};

// The MIME type (and, for text, the character set) of libclamav's own type
// of an object ("CL_TYPE_ZIP" -> "application/zip"); "" when unknown.
std::string MimeOfEngineType(const std::string& engineType, std::string* charset);

// The usual extension of a MIME type, or "".
std::string UsualExtensionOf(const std::string& mimeType);

// The reason an object is blocked, or "" when the policy lets it through.
// MIME entries match exactly or as "type/*"; extensions match the name's
// extension or any extension libmagic gives for the content.
std::string BlockReason(const ScanSettings& settings, const ContentType& type);

}  // namespace clampel

#endif
