// krnthr.cpp - critical sections and thread identifiers of the kernel runtime.
#include "krnthr.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace {

constexpr uint32_t kCsCreated = 0x43534353u;  // "CSCS"

std::atomic<int> thrThreaded{0};
std::atomic<int> thrDllMode{0};
std::once_flag thrInitOnce;

bool IsCreated(const THR_CRIT_SEC* cs) {
    return cs != nullptr && cs->uiCreated == kCsCreated;
}

int MapErrno(int err) {
    return (err == EAGAIN || err == ENOMEM) ? THR_RC_NORESOURCES : THR_RC_INVALID;
}

}  // namespace

extern "C" {

int ThrCSInit2(THR_CRIT_SEC* cs) {
    if (cs == nullptr) return THR_RC_INVALID;
    if (cs->uiCreated == kCsCreated) return THR_RC_EXISTS;
    pthread_mutexattr_t attr;
    int err = pthread_mutexattr_init(&attr);
    if (err != 0) return MapErrno(err);
    err = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (err == 0) err = pthread_mutex_init(&cs->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (err != 0) return MapErrno(err);
    cs->uiReserved = 0;
    cs->uiCreated = kCsCreated;
    return THR_RC_OK;
}

int ThrCSLock(THR_CRIT_SEC* cs) {
    if (!IsCreated(cs)) return THR_RC_INVALID;
    int err = pthread_mutex_lock(&cs->mutex);
    return err == 0 ? THR_RC_OK : MapErrno(err);
}

int ThrCSUnlock(THR_CRIT_SEC* cs) {
    if (!IsCreated(cs)) return THR_RC_INVALID;
    // EPERM: the caller does not own the section.
    int err = pthread_mutex_unlock(&cs->mutex);
    return err == 0 ? THR_RC_OK : THR_RC_INVALID;
}

int ThrCSDelete(THR_CRIT_SEC* cs) {
    if (!IsCreated(cs)) return THR_RC_INVALID;
    // EBUSY while held: the section stays created.
    if (pthread_mutex_destroy(&cs->mutex) != 0) return THR_RC_INVALID;
    memset(&cs->mutex, 0, sizeof cs->mutex);
    cs->uiCreated = 0;
    return THR_RC_OK;
}

uint32_t ThrGetCurrentId(void) {
    // Not cached: a cached id would be wrong in a forked child.
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

char* ThrId2Str(uint32_t id, char* buf, size_t size) {
    if (buf != nullptr && size > 0) snprintf(buf, size, "%u", id);
    return buf;
}

void ThrSetDllMode(int inSharedLibrary) {
    thrDllMode.store(inSharedLibrary != 0 ? 1 : 0, std::memory_order_relaxed);
}

int ThrProcInit(void) {
    std::call_once(thrInitOnce, [] { thrThreaded.store(1, std::memory_order_release); });
    return 0;
}

int ThrIsThreaded(void) {
    return thrThreaded.load(std::memory_order_acquire);
}

}  // extern "C"
