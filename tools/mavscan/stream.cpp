// stream.cpp - standard input for mavscan: scanned through its descriptor
// when it is a regular file, else copied to an unnamed temporary file within
// the scan instances' size limit.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "engine.h"

namespace mavscan {

namespace {

// An unnamed file in $TMPDIR (else /tmp) for standard input; nothing of it is
// left behind however the process ends.
int spoolFile() {
    const char* env = std::getenv("TMPDIR");
    std::string dir = env != nullptr && env[0] != '\0' ? env : "/tmp";
    int fd = open(dir.c_str(), O_RDWR | O_TMPFILE | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR)) return fd;
    std::string name = dir + "/mavscan.XXXXXX";
    fd = mkostemp(&name[0], O_CLOEXEC);
    if (fd >= 0) unlink(name.c_str());
    return fd;
}

// Copies in to out, at most limit bytes when limit is not 0 (*over tells that
// there was more); checks stop between reads.
bool copyLimited(int in, int out, uint64_t limit, const std::atomic<bool>& stop, uint64_t* total,
                 bool* over, std::string* error) {
    std::vector<char> buf(1 << 16);
    for (;;) {
        if (stop.load()) {
            *error = "interrupted";
            return false;
        }
        struct pollfd p = {in, POLLIN, 0};
        int ready = poll(&p, 1, 200);
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        ssize_t n = read(in, buf.data(), buf.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0) break;
        if (n == 0) return true;
        size_t take = static_cast<size_t>(n);
        if (limit != 0 && *total + take > limit) {
            take = static_cast<size_t>(limit - *total);
            *over = true;
        }
        for (size_t done = 0; done < take;) {
            ssize_t w = write(out, buf.data() + done, take - done);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                *error = std::string("cannot write the temporary copy: ") + std::strerror(errno);
                return false;
            }
            done += static_cast<size_t>(w);
        }
        *total += take;
        if (*over) return true;
    }
    *error = std::string("cannot read: ") + std::strerror(errno);
    return false;
}

}  // namespace

// The largest SCANLIMIT of the instances; 0 (none) when one has no limit.
uint64_t Scanner::sizeLimit() {
    uint64_t limit = 0;
    for (MAV_INST inst : insts_) {
        char value[64] = {0};
        size_t len = sizeof value - 1;
        if (MavGetParameter(inst, "SCANLIMIT", nullptr, value, &len) != MAV_OK) return 0;
        unsigned long long v = std::strtoull(value, nullptr, 10);
        if (v == 0) return 0;
        limit = std::max<uint64_t>(limit, v);
    }
    return limit;
}

Result Scanner::scanStream(int in, const std::string& name, uint32_t jobId,
                           const std::atomic<bool>& stop) {
    struct stat st;
    if (fstat(in, &st) == 0 && S_ISREG(st.st_mode)) {
        Result r = scanDescriptor(in, name, jobId);
        if (r.rc <= 0) r.size = static_cast<uint64_t>(st.st_size);
        return r;
    }
    FdCloser tmp{spoolFile()};
    if (tmp.fd < 0) {
        return Result::failure(MAV_E_CIO_FAILED, std::string("cannot create a temporary file: ") +
                                                     std::strerror(errno));
    }
    uint64_t limit = sizeLimit(), total = 0;
    bool over = false;
    std::string error;
    if (!copyLimited(in, tmp.fd, limit, stop, &total, &over, &error)) {
        return Result::failure(stop.load() ? MAV_E_CBC_TERMINATED : MAV_E_CIO_FAILED, error);
    }
    if (over) {
        return Result::failure(MAV_E_NOT_SCANNED, "Not scanned: larger than SCANLIMIT (" +
                                                      std::to_string(limit) + " bytes)");
    }
    Result r = scanDescriptor(tmp.fd, name, jobId);
    if (r.rc <= 0) r.size = total;
    return r;
}

}  // namespace mavscan
