/*
 * clam_common.cpp - parameter helpers of the ClamAV adapter.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_common.h"

#include <cctype>
#include <cstdlib>

namespace clampel {

std::string DefaultDbDir() {
    const char* env = std::getenv("KORMO_CLAMAV_DATABASE");
    return env != nullptr && env[0] != '\0' ? std::string(env) : std::string("/var/lib/clamav");
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
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

namespace {

const PEL_PARAM* Find(const PEL_PARAMS* params, int32_t code) {
    if (params == nullptr || params->pParams == nullptr) return nullptr;
    for (uint16_t i = 0; i < params->usNumParams; ++i) {
        if (params->pParams[i].tCode == code) return &params->pParams[i];
    }
    return nullptr;
}

// Numeric slot value; negative values count as 0 (no limit).
uint64_t Number(const PEL_PARAM* p, uint64_t fallback) {
    if (p == nullptr || p->tType == VS_TYPE_CHAR || p->tType == VS_TYPE_OBJECT) return fallback;
    auto v = static_cast<int64_t>(reinterpret_cast<intptr_t>(p->pvValue));
    return v < 0 ? 0 : static_cast<uint64_t>(v);
}

}  // namespace

std::string ParamText(const PEL_PARAMS* params, int32_t code, const std::string& fallback) {
    const PEL_PARAM* p = Find(params, code);
    if (p == nullptr || (p->tType != VS_TYPE_CHAR && p->tType != VS_TYPE_OBJECT)) return fallback;
    return p->pvValue != nullptr ? std::string(static_cast<const char*>(p->pvValue))
                                 : std::string();
}

ScanSettings ReadScanSettings(const PEL_OPTPARAMS* params, const EngineDefaults& defaults) {
    ScanSettings s;
    s.limits = defaults.limits;
    s.limits.maxFileSize = Number(Find(params, VS_P_SCANLIMIT), s.limits.maxFileSize);
    s.limits.maxScanSize = Number(Find(params, VS_P_SCANEXTRACT_SIZE), s.limits.maxScanSize);
    uint64_t depth = Number(Find(params, VS_P_SCANEXTRACT_DEPTH), s.limits.maxDepth);
    s.limits.maxDepth = static_cast<uint32_t>(depth > UINT32_MAX ? UINT32_MAX : depth);
    uint64_t ms = Number(Find(params, VS_P_SCANEXTRACT_TIME), s.limits.maxTimeMs);
    s.limits.maxTimeMs = static_cast<uint32_t>(ms > UINT32_MAX ? UINT32_MAX : ms);
    s.allEmbedded = Number(Find(params, VS_P_SCANALLEMBEDDED), 1) != 0;
    uint64_t level = Number(Find(params, VS_P_SCANHEURISTICLEVEL), 1);
    s.heuristicLevel = static_cast<int32_t>(level > 3 ? 3 : level);
    const PEL_PARAM* mime = Find(params, VS_P_BLOCKMIMETYPES);
    if (mime != nullptr && mime->tType == VS_TYPE_CHAR) {
        s.blockMime = SplitList(static_cast<const char*>(mime->pvValue), false);
    }
    const PEL_PARAM* ext = Find(params, VS_P_BLOCKEXTENSIONS);
    if (ext != nullptr && ext->tType == VS_TYPE_CHAR) {
        s.blockExt = SplitList(static_cast<const char*>(ext->pvValue), true);
    }
    return s;
}

}  // namespace clampel
