/*
 * clam_object.h - the bytes of one file object as the engine gets them.
 *
 * A file's size is read, not believed. A regular file on an ordinary file
 * system is scanned through its own descriptor (libclamav maps what it
 * needs) and checked afterwards for bytes added or changed while it was
 * scanned. Anything whose size cannot be trusted - a FIFO, a file whose size
 * reads 0, any file on /proc, /sys or a FUSE file system - is read to its end
 * first, within the size limit: small objects into memory, larger ones into an
 * unlinked temporary file. No path holds more than kMemoryObject bytes of an
 * object in memory.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#ifndef KORMO_CLAM_OBJECT_H
#define KORMO_CLAM_OBJECT_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace clampel {

// The largest object libclamav scans (its own ceiling, 2 GiB - 3 bytes);
// larger objects are not scanned even when SCANLIMIT is 0.
constexpr uint64_t kEngineMaxObject = 2147483645u;

// How far an object is read when its size cannot be trusted.
struct ReadLimits {
    uint64_t bytes = kEngineMaxObject;  // most bytes the object may have
    std::string name;                   // what that limit is called in texts
    uint32_t timeMs = 0;                // time a read may take; 0: kStallMs per wait
    std::string tmpDir;                 // where a large object is kept while scanned
};

class ObjectSource {
  public:
    enum : int { kReady = 0, kOpenFailed = 1, kTooLarge = 2 };
    // Objects read to their end are kept in memory up to this size.
    static constexpr size_t kMemoryObject = 1024 * 1024;
    // A FIFO that gives no data for this long is not scanned.
    static constexpr int kStallMs = 10000;

    ObjectSource() = default;
    ~ObjectSource();
    ObjectSource(const ObjectSource&) = delete;
    ObjectSource& operator=(const ObjectSource&) = delete;

    // Opens the file name without blocking and without taking a terminal,
    // and reads it to its end when its size cannot be trusted (a file scanned
    // directly is not checked against limits.bytes here). Returns
    // kReady; kOpenFailed when it cannot be opened, read or kept; kTooLarge
    // when it holds more than the limit or a read stalls. *text says why.
    int Open(const std::string& name, const ReadLimits& limits, std::string* text);

    // The descriptor to scan, or -1 when the object is held in memory.
    int Fd() const { return fd_; }
    const unsigned char* Data() const { return memory_.data(); }
    uint64_t Size() const { return size_; }
    // True when the engine reads the caller's file itself (not a copy).
    bool Direct() const { return direct_; }

    // For a direct object: "" when the file is still as it was opened, else
    // what changed (it grew, shrank or was written while it was scanned).
    std::string Changed() const;

  private:
    int ReadToEnd(const std::string& name, const ReadLimits& limits, std::string* text);
    int Spool(const std::string& tmpDir, std::string* text);

    int file_ = -1;  // the caller's file
    int fd_ = -1;    // what the engine scans: file_, or a temporary copy
    bool direct_ = false;
    uint64_t size_ = 0;
    struct stat opened_ {};
    std::vector<unsigned char> memory_;
};

}  // namespace clampel

#endif
