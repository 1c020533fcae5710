/*
 * icap_verdict.cpp - RESPMOD replies turned into verdicts.
 */
#include "icap_verdict.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace icappel {

const char kBlockedName[] = "ICAP.Blocked";
const char kModifiedName[] = "ICAP.Modified";

namespace {

// 1: the body equals the object; 0: it differs; -1: the object could not be read.
int SameAsOriginal(const Reply& r, const Source& s) {
    if (!r.hasBody) return s.length == 0 ? 1 : 0;  // null-body: nothing came back
    if (r.bodyCut || r.body.size() != s.length) return 0;
    if (s.bytes != nullptr || s.length == 0)
        return s.length == 0 || std::memcmp(r.body.data(), s.bytes, s.length) == 0 ? 1 : 0;
    std::vector<char> buf(std::min<size_t>(s.length, 256 * 1024));
    for (size_t at = 0; at < s.length;) {
        ssize_t n =
            pread(s.fd, buf.data(), std::min(buf.size(), s.length - at), static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        if (std::memcmp(buf.data(), r.body.data() + at, static_cast<size_t>(n)) != 0) return 0;
        at += static_cast<size_t>(n);
    }
    return 1;
}

}  // namespace

Verdict Judge(const Reply& r, const Source& original) {
    Verdict v;
    if (r.status >= 500) {
        v.kind = Verdict::kRetry;
        v.error = "the server failed: " + r.statusLine;
        return v;
    }
    if (r.status != 200 && r.status != 204) {
        v.error = r.status >= 400 ? "the server refused the object: " + r.statusLine
                                  : "unexpected reply: " + r.statusLine;
        return v;
    }
    v.findings = Findings(r);
    bool http2xx = r.httpStatus >= 200 && r.httpStatus < 300;
    int same = r.status == 204 ? 1 : SameAsOriginal(r, original);
    if (same < 0) {
        v.error =
            std::string("cannot read the object to compare the reply: ") + std::strerror(errno);
        return v;
    }
    if (v.findings.empty() && same == 1 && (r.status == 204 || http2xx)) {
        v.kind = Verdict::kClean;
        return v;
    }
    if (v.findings.empty() && r.bodyCut) {
        v.error = "the server returned " + std::to_string(r.bodyBytes) +
                  " bytes, too many to compare with the object (" + r.statusLine + ")";
        return v;
    }
    if (v.findings.empty() && r.status == 200 && r.httpStatus == 0) {
        v.error = "malformed reply: " + r.statusLine + " without an encapsulated HTTP status";
        return v;
    }
    if (v.findings.empty()) {
        Finding f;
        f.name = http2xx ? kModifiedName : kBlockedName;
        f.header = http2xx ? "changed object" : r.httpStatusLine;
        f.resolution = http2xx ? 1 : 2;
        v.findings.push_back(f);
    }
    v.kind = Verdict::kFound;
    v.repaired = r.status == 200 && http2xx && r.hasBody && !r.bodyCut && same == 0 &&
                 std::all_of(v.findings.begin(), v.findings.end(),
                             [](const Finding& f) { return f.resolution == 1; });
    return v;
}

}  // namespace icappel
