/*
 * clam_object.cpp - the bytes of one file object as the engine gets them.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_object.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace clampel {

namespace {

// File systems whose sizes say nothing about the contents.
constexpr long kProcMagic = 0x9fa0;
constexpr long kSysfsMagic = 0x62656572;
constexpr long kFuseMagic = 0x65735546;

bool SizeUntrusted(int fd) {
    struct statfs fs;
    if (fstatfs(fd, &fs) != 0) return true;
    const long type = static_cast<long>(fs.f_type);
    return type == kProcMagic || type == kSysfsMagic || type == kFuseMagic;
}

bool WriteAll(int fd, const unsigned char* p, size_t n) {
    while (n != 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

std::string Bytes(uint64_t n) {
    return std::to_string(n) + " bytes";
}

}  // namespace

ObjectSource::~ObjectSource() {
    if (fd_ >= 0 && fd_ != file_) close(fd_);
    if (file_ >= 0) close(file_);
}

int ObjectSource::Open(const std::string& name, const ReadLimits& limits, std::string* text) {
    file_ = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file_ < 0) {
        *text = "Cannot open " + name + ": " + std::strerror(errno);
        return kOpenFailed;
    }
    if (fstat(file_, &opened_) != 0 || !(S_ISREG(opened_.st_mode) || S_ISFIFO(opened_.st_mode))) {
        *text = "Not a regular file: " + name;
        return kOpenFailed;
    }
    if (S_ISREG(opened_.st_mode) && opened_.st_size > 0 && !SizeUntrusted(file_)) {
        fd_ = file_;
        direct_ = true;
        size_ = static_cast<uint64_t>(opened_.st_size);
        return kReady;  // the caller checks the size against its limit
    }
    return ReadToEnd(name, limits, text);
}

int ObjectSource::ReadToEnd(const std::string& name, const ReadLimits& limits, std::string* text) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limits.timeMs);
    std::vector<unsigned char> buffer(64 * 1024);
    for (;;) {
        ssize_t n = read(file_, buffer.data(), buffer.size());
        if (n == 0) return kReady;
        if (n > 0) {
            const size_t got = static_cast<size_t>(n);
            if (size_ + got > limits.bytes) {
                *text = "Not scanned: " + limits.name + " exceeded (object of more than " +
                        Bytes(limits.bytes) + ")";
                return kTooLarge;
            }
            if (fd_ < 0 && memory_.size() + got > kMemoryObject) {
                if (int rc = Spool(limits.tmpDir, text); rc != kReady) return rc;
            }
            if (fd_ < 0) {
                memory_.insert(memory_.end(), buffer.data(), buffer.data() + got);
            } else if (!WriteAll(fd_, buffer.data(), got)) {
                *text = "Cannot keep a copy of " + name + " in " + limits.tmpDir + ": " +
                        std::strerror(errno);
                return kOpenFailed;
            }
            size_ += got;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int wait = kStallMs;
            if (limits.timeMs != 0) {
                auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
                if (left.count() <= 0) {
                    *text = "Not scanned: SCANEXTRACT_TIME exceeded while reading " + name;
                    return kTooLarge;
                }
                if (left.count() < wait) wait = static_cast<int>(left.count());
            }
            struct pollfd p = {file_, POLLIN, 0};
            int ready = poll(&p, 1, wait);
            if (ready == 0 && wait == kStallMs) {
                *text = "Not scanned: no data from " + name + " for " +
                        std::to_string(kStallMs / 1000) + " s";
                return kTooLarge;
            }
            if (ready < 0 && errno != EINTR) {
                *text = "Cannot read " + name + ": " + std::strerror(errno);
                return kOpenFailed;
            }
        } else if (errno != EINTR) {
            *text = "Cannot read " + name + ": " + std::strerror(errno);
            return kOpenFailed;
        }
    }
}

int ObjectSource::Spool(const std::string& tmpDir, std::string* text) {
    fd_ = open(tmpDir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd_ < 0) {
        // File systems without O_TMPFILE: a named file, removed at once.
        std::string path = tmpDir + "/kormo-clamav-XXXXXX";
        fd_ = mkostemp(&path[0], O_CLOEXEC);
        if (fd_ >= 0) unlink(path.c_str());
    }
    if (fd_ < 0 || !WriteAll(fd_, memory_.data(), memory_.size())) {
        *text = "Cannot keep a copy of the object in " + tmpDir + ": " + std::strerror(errno);
        return kOpenFailed;
    }
    memory_.clear();
    memory_.shrink_to_fit();
    return kReady;
}

std::string ObjectSource::Changed() const {
    if (!direct_) return std::string();
    struct stat now;
    if (fstat(file_, &now) != 0) return "Not scanned: the file cannot be checked after the scan";
    if (now.st_size != opened_.st_size || now.st_mtim.tv_sec != opened_.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != opened_.st_mtim.tv_nsec) {
        return "Not scanned: the file changed while it was scanned (" + Bytes(size_) +
               " when opened, " + Bytes(static_cast<uint64_t>(now.st_size)) + " now)";
    }
    unsigned char extra = 0;
    if (pread(file_, &extra, 1, static_cast<off_t>(size_)) > 0) {
        return "Not scanned: the file holds more than the " + Bytes(size_) +
               " its size said when it was opened";
    }
    return std::string();
}

}  // namespace clampel
