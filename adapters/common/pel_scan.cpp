/*
 * pel_scan.cpp - checking a scan request and opening its file object.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#include "pel_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "pel_records.h"

namespace pelcommon {

int CheckScanParam(const PEL_SCANPARAM* param, bool* memory) {
    if (param == nullptr) return kNullParam;
    *memory = param->tScanCode == VS_SC_BYTES;
    if (!*memory && param->tScanCode != VS_SC_FILE) return kScanCodeUnsupported;
    if (*memory && param->pbByte == nullptr && param->lLength != 0) return kNullParam;
    if (!*memory && param->pszObjectName == nullptr) return kNullParam;
    return kOk;
}

ObjectFile::~ObjectFile() {
    if (fd_ >= 0) close(fd_);
}

bool ObjectFile::Open(const std::string& name, std::string* error) {
    int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat st;
    if (fd < 0) {
        *error = "Cannot open " + name + ": " + std::strerror(errno);
        return false;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        *error = "Not a regular file: " + name;
        return false;
    }
    fd_ = fd;
    size_ = static_cast<size_t>(st.st_size);
    mtimeNs_ = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return true;
}

int ObjectFile::ReadSizeless(size_t cap, std::string* error) {
    if (fd_ < 0 || size_ != 0) return kOk;
    for (;;) {
        size_t at = data_.size();
        // One byte beyond the cap shows whether there is more.
        size_t want = std::min<size_t>(size_t(1) << 16, cap + 1 - at);
        data_.resize(at + want);
        ssize_t n;
        do {
            n = pread(fd_, data_.data() + at, want, static_cast<off_t>(at));
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            *error = std::string("Cannot read the file: ") + std::strerror(errno);
            data_.clear();
            return kScanFailed;
        }
        data_.resize(at + static_cast<size_t>(n));
        if (data_.size() > cap) {
            *error = "Not scanned: the file's size reads as 0 but it holds more than " +
                     std::to_string(cap) + " bytes";
            data_.clear();
            return kNotScanned;
        }
        if (n == 0) break;
    }
    size_ = data_.size();
    return kOk;
}

bool ObjectFile::Changed() const {
    if (!data_.empty()) return false;  // scanned from the copy read to its end
    struct stat st;
    if (fd_ < 0 || fstat(fd_, &st) != 0) return true;
    int64_t mtime = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return static_cast<size_t>(st.st_size) != size_ || mtime != mtimeNs_;
}

}  // namespace pelcommon
