// krnflat.cpp - bounded string, file and time helpers of the kernel runtime.
#include "krnflat.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

namespace {

inline unsigned char Lower(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

}  // namespace

extern "C" {

int strcmpiU(const char* a, const char* b) {
    return strncmpiU(a, b, static_cast<size_t>(-1));
}

int strncmpiU(const char* a, const char* b, size_t n) {
    if (a == nullptr || b == nullptr) return a == b ? 0 : (a == nullptr ? -1 : 1);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(a);
    const unsigned char* q = reinterpret_cast<const unsigned char*>(b);
    for (; n > 0; --n, ++p, ++q) {
        int d = Lower(*p) - Lower(*q);
        if (d != 0 || *p == '\0') return d;
    }
    return 0;
}

size_t strlcpyU(char* dest, const char* src, size_t size) {
    if (src == nullptr) src = "";
    size_t len = strlen(src);
    if (dest != nullptr && size > 0) {
        size_t n = len < size ? len : size - 1;
        memcpy(dest, src, n);
        dest[n] = '\0';
    }
    return len;
}

int mkstempsU(char* templ, int suffixLength) {
    if (templ == nullptr || suffixLength < 0) {
        errno = EINVAL;
        return -1;
    }
    // glibc creates with O_CREAT|O_EXCL and mode 0600, names from [A-Za-z0-9],
    // and retries on collisions. Close-on-exec keeps the file out of children.
    return mkostemps(templ, suffixLength, O_CLOEXEC);
}

struct tm* localtimeU(const time_t* t, struct tm* out) {
    if (t == nullptr || out == nullptr) return nullptr;
    return localtime_r(t, out);
}

void timeOfDayU(time_t* seconds, int* milliseconds) {
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) {
        ts.tv_sec = time(nullptr);
        ts.tv_nsec = 0;
    }
    if (seconds != nullptr) *seconds = ts.tv_sec;
    if (milliseconds != nullptr) *milliseconds = static_cast<int>(ts.tv_nsec / 1000000);
}

}  // extern "C"
