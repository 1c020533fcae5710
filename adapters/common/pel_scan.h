/*
 * pel_scan.h - the object of one PelScan: checking the request and opening
 * a file object.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_SCAN_H
#define KORMO_PEL_SCAN_H

#include <cstddef>
#include <string>

#include "kormopel.h"

namespace pelcommon {

// Checks a scan request. kNullParam: no request, no bytes for a non-empty
// memory object, or no name for a file; kScanCodeUnsupported: neither
// VS_SC_BYTES nor VS_SC_FILE; else kOk with *memory telling which.
int CheckScanParam(const PEL_SCANPARAM* param, bool* memory);

// A file object opened read-only (close-on-exec) for one scan, closed with
// this object.
class ObjectFile {
  public:
    ObjectFile() = default;
    ~ObjectFile();
    ObjectFile(const ObjectFile&) = delete;
    ObjectFile& operator=(const ObjectFile&) = delete;

    // Opens the regular file name (once). On failure returns false with *error set to
    // "Cannot open NAME: REASON" or "Not a regular file: NAME", and Fd() is -1.
    bool Open(const std::string& name, std::string* error);
    int Fd() const { return fd_; }
    size_t Size() const { return size_; }

  private:
    int fd_ = -1;
    size_t size_ = 0;
};

}  // namespace pelcommon

#endif
