/*
 * pel_records.h - the result codes of an adapter's entry points and the scan
 * results it hands to libkormomav (PEL_SCANINFO and all it points to).
 *
 * adapters/common is under the project's licence, not the GPL: the clamd
 * adapter is built from it, and so is the GPL-2.0 ClamAV adapter. It needs
 * nothing but kormopel.h.
 */
#ifndef KORMO_PEL_RECORDS_H
#define KORMO_PEL_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kormopel.h"

namespace pelcommon {

// Result codes of the entry points. The library passes them on unchanged as
// its own result, so they take the values of the interface's result codes.
enum Rc : int {
    kOk = 0,
    kNoSpace = 1,
    kNullParam = 2,
    kInvalidParam = 3,
    kNotInitialised = 5,
    kLoadFailed = 7,
    kDriverFailed = 9,
    kScanFailed = 13,
    kNotScanned = 14,
    kCallbackTerminated = 17,
    kScanCodeUnsupported = 21,
    kVirusFound = -2,
    kCleanFailed = -5,
    kBlockedByPolicy = -6,
};

// Detection kinds (PEL_VIRUSINFO.tDetectType) and object kinds (tObjectType).
enum : uint32_t { kDetectSignature = 1, kDetectHeuristic = 2 };
enum : uint32_t { kObjectFile = 1, kObjectMemory = 2 };

// Owns one PEL_SCANINFO and everything it points to. The record handed to the
// library is the first member, so the pointer converts back in PelReleaseScan;
// mark is the adapter's own value that tells its results from anything else.
// Strings live in a deque (stable addresses) and may be edited in place.
class ScanResult {
  public:
    ScanResult(uint32_t mark, uint32_t jobId, const std::string& objectName, size_t objectSize,
               uint32_t objectType);

    void SetContent(const std::string& extension, const std::string& contentType,
                    const std::string& charset);
    void AddInfection(const std::string& virusName, uint32_t detectType,
                      const std::string& freeText);
    void AddScanError(int32_t code, const std::string& text);
    // Fills the counters and array pointers from the scan's result rc; call
    // after the last Add* (again when rc changes).
    void Finish(int rc);

    PEL_SCANINFO* Info() { return &info_; }
    // The result behind info when it carries mark, else null.
    static ScanResult* FromInfo(PEL_SCANINFO* info, uint32_t mark);

    // Sends the events of this result through the library's callback, in the
    // order embedded objects (VS_M_OBJECTFOUND), infections, the engine error
    // text (VS_M_ERROR, when not empty), scan errors, then clean; returns false
    // when a handler asked to stop (no further events are sent).
    bool Report(const PEL_CALLBACK* callback, void* adapterData,
                const std::vector<std::string>& objects, const std::string& engineError);
    // Sends VS_M_VIRUS for the infections added since the last call, while
    // the scan still runs; Report then leaves them out. Returns false when a
    // handler asked to stop.
    bool ReportNewInfections(const PEL_CALLBACK* callback, void* adapterData);

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
    size_t infectionsReported_ = 0;  // infections whose event was sent
    std::vector<PEL_SCANERROR> errors_;
    std::deque<std::string> strings_;
};

// PelReleaseScan: frees the result *ppScanInfo (made with mark) and nulls the
// pointer; a null result is kOk, one that is not the adapter's kInvalidParam.
int ReleaseScan(PEL_SCANINFO** ppScanInfo, uint32_t mark);

// Lower-case copy (ASCII).
std::string Lower(std::string s);

// The lower-cased extension of an object name's last path part, without the
// dot; empty when there is none (no dot, a leading dot only, or a final dot).
std::string NameExtension(const std::string& name);

}  // namespace pelcommon

#endif
