/*
 * clamd_result.h - the PEL_SCANINFO of one scan and the events reported from it.
 */
#ifndef KORMO_CLAMD_RESULT_H
#define KORMO_CLAMD_RESULT_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kormopel.h"

namespace clamdpel {

// Result codes of the entry points: the values of the interface's result
// codes, which the library passes on unchanged.
enum Rc : int {
    kOk = 0,
    kNoSpace = 1,
    kNullParam = 2,
    kInvalidParam = 3,
    kNotInitialised = 5,
    kLoadFailed = 7,
    kScanFailed = 13,
    kNotScanned = 14,
    kCallbackTerminated = 17,
    kScanCodeUnsupported = 21,
    kVirusFound = -2,
    kCleanFailed = -5,
};

enum : uint32_t { kDetectSignature = 1, kDetectHeuristic = 2 };
enum : uint32_t { kObjectFile = 1, kObjectMemory = 2 };

// Owns one PEL_SCANINFO and all it points to; the record is the first member,
// so the pointer handed out converts back in PelReleaseScan.
class ScanResult {
  public:
    ScanResult(uint32_t jobId, const std::string& objectName, size_t objectSize,
               uint32_t objectType);

    void SetContent(const std::string& extension);
    void AddInfection(const std::string& virusName, uint32_t detectType,
                      const std::string& freeText);
    void AddScanError(int32_t code, const std::string& text);
    void Finish(int rc);

    PEL_SCANINFO* Info() { return &info_; }
    static ScanResult* FromInfo(PEL_SCANINFO* info);

    // Infections, then the engine error text, then scan errors, then clean;
    // false when a handler asked to stop.
    bool Report(const PEL_CALLBACK* callback, void* adapterData, const std::string& engineError);

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

}  // namespace clamdpel

#endif
