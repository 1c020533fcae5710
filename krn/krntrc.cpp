// krntrc.cpp - the process trace facility of the kernel runtime.
//
// The process lock (DpLock) is the innermost lock of the library: nothing
// else is taken while it is held.
#include "krntrc.h"

#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "krnflat.h"
#include "krnthr.h"

namespace {

std::atomic<FILE*> trcStream{nullptr};
std::atomic<int> trcLevel{0};
// Constant-initialised, so usable from any static constructor.
pthread_mutex_t trcLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

thread_local const char* trcFile = nullptr;
thread_local int trcLine = 0;

const char* BaseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

void WriteLine(const char* prefix, const char* format, va_list args) {
    const char* file = trcFile != nullptr ? BaseName(trcFile) : "unknown";
    int line = trcFile != nullptr ? trcLine : 0;
    trcFile = nullptr;
    trcLine = 0;
    if (trcLevel.load(std::memory_order_relaxed) <= 0 ||
        trcStream.load(std::memory_order_acquire) == nullptr) {
        return;
    }

    // Format outside the lock; long messages go to the heap.
    char small[1024];
    std::vector<char> big;
    const char* text = small;
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) return;
    if (static_cast<size_t>(n) >= sizeof small) {
        try {
            big.resize(static_cast<size_t>(n) + 1);
        } catch (...) {
            return;
        }
        vsnprintf(big.data(), big.size(), format, args);
        text = big.data();
    }
    bool hasEnd = n > 0 && text[n - 1] == '\n';

    char stamp[96];
    CTrcStamp(stamp, sizeof stamp);

    DpLock();
    FILE* fp = trcStream.load(std::memory_order_acquire);
    if (fp != nullptr) {
        fprintf(fp, "%s [%-10.10s:%4d]: %s%s%s", stamp, file, line, prefix, text,
                hasEnd ? "" : "\n");
        fflush(fp);
    }
    DpUnlock();
}

}  // namespace

extern "C" {

void CTrcSetFpTf(FILE* fp) {
    DpLock();  // no line is half written to a stream that is being replaced
    trcStream.store(fp, std::memory_order_release);
    DpUnlock();
}

FILE* CTrcGetFpTf(void) {
    return trcStream.load(std::memory_order_acquire);
}

void CTrcSetTraceLevelFct(int level) {
    trcLevel.store(level < 0 ? 0 : (level > 3 ? 3 : level), std::memory_order_relaxed);
}

int CTrcGetTraceLevel(void) {
    return trcLevel.load(std::memory_order_relaxed);
}

void CTrcStamp(char* out, size_t size) {
    time_t seconds = 0;
    int millis = 0;
    timeOfDayU(&seconds, &millis);
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    localtimeU(&seconds, &tmv);
    char tid[24];
    ThrId2Str(ThrGetCurrentId(), tid, sizeof tid);
    snprintf(out, size, "%04d-%02d-%02dT%02d:%02d:%02d.%03d p%06ld t%4s", tmv.tm_year + 1900,
             tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, millis,
             static_cast<long>(getpid()), tid);
}

void DpLock(void) {
    pthread_mutex_lock(&trcLock);
}

void DpUnlock(void) {
    pthread_mutex_unlock(&trcLock);
}

void CTrcSaveLocation(const char* file, int line) {
    trcFile = file;
    trcLine = line;
}

void DpTrcA7(const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteLine("", format, args);
    va_end(args);
}

void DpTrcWarnA7(const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteLine("*** WARNING => ", format, args);
    va_end(args);
}

void DpTrcErrA7(const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteLine("*** ERROR => ", format, args);
    va_end(args);
}

}  // extern "C"

// The library's fork handler in a child: the lock was held across fork() by
// the parent's thread, whose id the child's thread does not have (a recursive
// mutex refuses an unlock from another id), so it is created anew.
extern "C" __attribute__((visibility("hidden"))) void KrnTrcForkChild(void) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&trcLock, &attr);
    pthread_mutexattr_destroy(&attr);
}
