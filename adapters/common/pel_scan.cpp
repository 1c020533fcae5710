/*
 * pel_scan.cpp - checking a scan request and opening its file object.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#include "pel_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
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
    return true;
}

}  // namespace pelcommon
