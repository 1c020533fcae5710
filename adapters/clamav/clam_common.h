/*
 * clam_common.h - scan settings and parameter helpers of the ClamAV adapter.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder): the adapter links libclamav.
 */
#ifndef KORMO_CLAM_COMMON_H
#define KORMO_CLAM_COMMON_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kormopel.h"
#include "pel_params.h"
#include "pel_records.h"

namespace clampel {

// Result codes, record building and parameter reading shared with the clamd
// adapter (adapters/common, under the project's licence).
using namespace pelcommon;

// Mark of this adapter's scan results (ScanResult).
constexpr uint32_t kResultMark = 0x434c5253u;  // "CLRS"

// Per-scan settings, read from the optional parameter list of each PelScan.
struct Limits {
    uint64_t maxFileSize = 0;  // SCANLIMIT, bytes; 0: no limit
    uint64_t maxScanSize = 0;  // SCANEXTRACT_SIZE, bytes; 0: no limit
    uint32_t maxDepth = 0;     // SCANEXTRACT_DEPTH, archive levels; 0: no limit
    uint32_t maxTimeMs = 0;    // SCANEXTRACT_TIME, milliseconds; 0: no limit
    bool operator==(const Limits& o) const {
        return maxFileSize == o.maxFileSize && maxScanSize == o.maxScanSize &&
               maxDepth == o.maxDepth && maxTimeMs == o.maxTimeMs;
    }
    bool operator!=(const Limits& o) const { return !(*this == o); }
};

struct ScanSettings {
    Limits limits;
    bool allEmbedded = true;             // SCANALLEMBEDDED
    int32_t heuristicLevel = 1;          // SCANHEURISTICLEVEL, 0..3
    std::vector<std::string> blockMime;  // BLOCKMIMETYPES, lower case
    std::vector<std::string> blockExt;   // BLOCKEXTENSIONS, lower case, no dot
};

// Engine defaults, taken from a fresh libclamav engine at start-up; they are
// the defaults the adapter reports for its parameters.
struct EngineDefaults {
    Limits limits;
};

// Reads the settings from a parameter list; entries the adapter does not know
// are ignored, absent ones keep the defaults.
ScanSettings ReadScanSettings(const PEL_OPTPARAMS* params, const EngineDefaults& defaults);

// The signature directory when INITDRIVERDIRECTORY is not set: the environment
// variable KORMO_CLAMAV_DATABASE when it is set and not empty, else
// /var/lib/clamav.
std::string DefaultDbDir();

// Splits a comma-separated list, trims blanks, lower-cases; empty items dropped.
std::vector<std::string> SplitList(const char* text, bool stripDot);

}  // namespace clampel

#endif
