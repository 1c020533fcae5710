/*
 * clam_common.cpp - parameter helpers of the ClamAV adapter.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_common.h"

#include <cstdlib>

namespace clampel {

std::string DefaultDbDir() {
    const char* env = std::getenv("KORMO_CLAMAV_DATABASE");
    return env != nullptr && env[0] != '\0' ? std::string(env) : std::string("/var/lib/clamav");
}

std::vector<std::string> SplitList(const char* text, bool stripDot) {
    std::vector<std::string> out;
    if (text == nullptr) return out;
    std::string item;
    auto flush = [&]() {
        size_t b = item.find_first_not_of(" \t");
        size_t e = item.find_last_not_of(" \t");
        std::string t = b == std::string::npos ? std::string() : item.substr(b, e - b + 1);
        if (stripDot) {
            while (!t.empty() && t[0] == '.') t.erase(0, 1);
        }
        if (!t.empty()) out.push_back(Lower(t));
        item.clear();
    };
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == ',' || *p == ';') {
            flush();
        } else {
            item += *p;
        }
    }
    flush();
    return out;
}

ScanSettings ReadScanSettings(const PEL_OPTPARAMS* params, const EngineDefaults& defaults) {
    ScanSettings s;
    s.limits = defaults.limits;
    s.limits.maxFileSize = ParamNumber(params, VS_P_SCANLIMIT, s.limits.maxFileSize);
    s.limits.maxScanSize = ParamNumber(params, VS_P_SCANEXTRACT_SIZE, s.limits.maxScanSize);
    s.limits.maxDepth = ParamNumber32(params, VS_P_SCANEXTRACT_DEPTH, s.limits.maxDepth);
    s.limits.maxTimeMs = ParamNumber32(params, VS_P_SCANEXTRACT_TIME, s.limits.maxTimeMs);
    s.allEmbedded = ParamNumber(params, VS_P_SCANALLEMBEDDED, 1) != 0;
    uint64_t level = ParamNumber(params, VS_P_SCANHEURISTICLEVEL, 1);
    s.heuristicLevel = static_cast<int32_t>(level > 3 ? 3 : level);
    const PEL_PARAM* mime = FindParam(params, VS_P_BLOCKMIMETYPES);
    if (mime != nullptr && mime->tType == VS_TYPE_CHAR) {
        s.blockMime = SplitList(static_cast<const char*>(mime->pvValue), false);
    }
    const PEL_PARAM* ext = FindParam(params, VS_P_BLOCKEXTENSIONS);
    if (ext != nullptr && ext->tType == VS_TYPE_CHAR) {
        s.blockExt = SplitList(static_cast<const char*>(ext->pvValue), true);
    }
    return s;
}

}  // namespace clampel
