/*
 * clam_result.h - the PEL_SCANINFO of one scan and the events reported from it.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#ifndef KORMO_CLAM_RESULT_H
#define KORMO_CLAM_RESULT_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kormopel.h"

namespace clampel {

// Detection kinds (PEL_VIRUSINFO.tDetectType) and object kinds (tObjectType).
enum : uint32_t { kDetectSignature = 1, kDetectHeuristic = 2 };
enum : uint32_t { kObjectFile = 1, kObjectMemory = 2 };

// Owns one PEL_SCANINFO and everything it points to. The record handed to the
// library is the first member, so the pointer converts back in PelReleaseScan.
// Strings live in a deque (stable addresses) and may be edited in place.
class ScanResult {
  public:
    ScanResult(uint32_t jobId, const std::string& objectName, size_t objectSize,
               uint32_t objectType);

    void SetContent(const std::string& extension, const std::string& contentType,
                    const std::string& charset);
    void AddInfection(const std::string& virusName, uint32_t detectType,
                      const std::string& freeText);
    void AddScanError(int32_t code, const std::string& text);
    // Fills the counters and array pointers; call once, after the last Add*.
    void Finish(int rc);

    PEL_SCANINFO* Info() { return &info_; }
    static ScanResult* FromInfo(PEL_SCANINFO* info);

    // Sends the events of this result through the library's callback, in the
    // order infections, scan errors, then clean; returns false when a handler
    // asked to stop (no further events are sent). objects are the embedded
    // objects met during the scan (VS_M_OBJECTFOUND).
    bool Report(const PEL_CALLBACK* callback, void* adapterData,
                const std::vector<std::string>& objects, const std::string& engineError);

  private:
    char* Keep(const std::string& s);

    PEL_SCANINFO info_;  // must stay the first member
    uint32_t mark_;
    uint32_t objectType_;
    std::string objectName_;
    size_t objectSize_;
    bool hasContent_ = false;
    PEL_CONTENTINFO content_;
    std::vector<PEL_VIRUSINFO> infections_;
    std::vector<PEL_SCANERROR> errors_;
    std::deque<std::string> strings_;
};

}  // namespace clampel

#endif
