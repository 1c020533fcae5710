/*
 * pel_scan.h - the object of one PelScan: checking the request and opening
 * a file object.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_SCAN_H
#define KORMO_PEL_SCAN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kormopel.h"

namespace pelcommon {

// Checks a scan request. kNullParam: no request, no bytes for a non-empty
// memory object, or no name for a file; kScanCodeUnsupported: neither
// VS_SC_BYTES nor VS_SC_FILE; else kOk with *memory telling which.
int CheckScanParam(const PEL_SCANPARAM* param, bool* memory);

// A file object opened read-only (close-on-exec) for one scan, closed with
// this object. Its size is read, not believed: a file whose size reads as 0
// but that holds bytes (/proc, /sys, some FUSE file systems) can be read into
// memory (ReadSizeless), and Changed() tells when the file was written while
// it was scanned.
class ObjectFile {
  public:
    ObjectFile() = default;
    ~ObjectFile();
    ObjectFile(const ObjectFile&) = delete;
    ObjectFile& operator=(const ObjectFile&) = delete;

    // Opens the regular file name (once), without blocking: a FIFO or device
    // put there is refused, never waited on. On failure returns false with
    // *error set to "Cannot open NAME: REASON" or "Not a regular file: NAME",
    // and Fd() is -1.
    bool Open(const std::string& name, std::string* error);
    int Fd() const { return fd_; }
    size_t Size() const { return size_; }

    // For a file whose size reads as 0: reads what it holds to its end into
    // memory (Data() and Size() then describe it). kNotScanned when it holds
    // more than cap bytes, kScanFailed when it cannot be read, both with
    // *error; kOk otherwise (also for a file that is really empty).
    int ReadSizeless(size_t cap, std::string* error);
    const unsigned char* Data() const { return data_.empty() ? nullptr : data_.data(); }

    // True when the file's size or modification time is no longer what it
    // was when it was opened (or cannot be read).
    bool Changed() const;

  private:
    int fd_ = -1;
    size_t size_ = 0;
    int64_t mtimeNs_ = 0;
    std::vector<unsigned char> data_;
};

// Bytes read from a file whose size reads as 0 when no SCANLIMIT bounds them.
constexpr size_t kSizelessCap = size_t(64) << 20;

}  // namespace pelcommon

#endif
