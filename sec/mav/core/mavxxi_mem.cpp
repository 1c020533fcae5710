// mavxxi_mem.cpp - memory hooks and text conversion.
//
// Every allocation that the library hands across its boundary goes through the
// hook table (allocate, reallocate, free), tag "mav". The table starts with the
// library's own defaults and is meant to be replaced once, before any handle
// exists; its slots are atomic so that a late replacement is no data race.
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "krncp.h"
#include "krntrc.h"
#include "mavxxi.h"

namespace {

constexpr const char kTag[] = "mav";

struct MavMmHooks {
    std::atomic<MAV_ALLOC_FN> alloc{MavPXAlloc};
    std::atomic<MAV_REALLOC_FN> realloc{MavPXRealloc};
    std::atomic<MAV_FREE_FN> free{MavPXFree};
};

MavMmHooks mavMmCb;

// The default hooks trace themselves at bit 16, except while the trace writer
// of this thread calls them.
inline bool MavIMemTraceOn() {
    return MavITraceOn(MAV_TRC_MEMORY) && !MavIInTraceWriter();
}
inline bool MavIErrTraceOn() {
    return MavITraceOn(MAV_TRC_ERROR) && !MavIInTraceWriter();
}

// printf precision for a source of n bytes ((size_t)-1: NUL-terminated).
inline int MavIPrecision(size_t n) {
    return n > static_cast<size_t>(INT_MAX) ? -1 : int(n);
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavRegisterMmCallbacks(MAV_ALLOC_FN allocFn, MAV_REALLOC_FN reallocFn,
                                      MAV_FREE_FN freeFn) {
    if (allocFn == nullptr || reallocFn == nullptr || freeFn == nullptr) {
        MAV_TRC_E("Invalid NULL parameter for memory management callback\n");
        return MAV_E_NULL_PARAM;
    }
    MAV_TRC_ENTRY(">> start >> %s(%p,%p,%p)\n", __func__, reinterpret_cast<void*>(allocFn),
                  reinterpret_cast<void*>(reallocFn), reinterpret_cast<void*>(freeFn));
    mavMmCb.alloc.store(allocFn);
    mavMmCb.realloc.store(reallocFn);
    mavMmCb.free.store(freeFn);
    MAV_TRC_ENTRY(" << end << %s(MAV_RC==%s) \n", __func__, MavErrorName(MAV_OK));
    return MAV_OK;
}

MAV_LOCAL void* MavPXAlloc(size_t size, int clean, const char* tag) {
    void* p = (clean & 0xFF) != 0 ? calloc(1, size) : malloc(size);
    if (p == nullptr) {
        if (CTrcGetTraceLevel() > 0) {
            CTrcSaveLocation(__FILE__, __LINE__);
            DpTrcErrA7("MavPXAlloc failed for callerId='%s'", tag != nullptr ? tag : "");
        }
        if (MavIErrTraceOn()) {
            MavPPrintTrace(MAV_TRC_ERROR, __FILE__, __func__, __LINE__,
                           "MavPXAlloc(size=%lu, clean=%d) returned NULL !\n",
                           static_cast<unsigned long>(size), clean);
        }
        return nullptr;
    }
    if (MavIMemTraceOn()) {
        MavPPrintTrace(MAV_TRC_MEMORY, __FILE__, __func__, __LINE__,
                       "MavPXAlloc alloc (ptr=%p,size=%ld,clean=%d)\n", p, static_cast<long>(size),
                       clean);
    }
    return p;
}

MAV_LOCAL void* MavPXRealloc(void* ptr, size_t size, const char* tag) {
    void* p = realloc(ptr, size);
    if (p == nullptr) {
        if (CTrcGetTraceLevel() > 0) {
            CTrcSaveLocation(__FILE__, __LINE__);
            DpTrcErrA7("MavPXRealloc failed for callerId='%s'", tag != nullptr ? tag : "");
        }
        if (MavIErrTraceOn()) {
            MavPPrintTrace(MAV_TRC_ERROR, __FILE__, __func__, __LINE__,
                           "MavPXRealloc(size=%lu) returned NULL !\n",
                           static_cast<unsigned long>(size));
        }
        return nullptr;
    }
    if (MavIMemTraceOn()) {
        MavPPrintTrace(MAV_TRC_MEMORY, __FILE__, __func__, __LINE__,
                       "MavPXRealloc (ptr=%p,size=%ld)\n", p, static_cast<long>(size));
    }
    return p;
}

MAV_LOCAL void MavPXFree(void* ptr) {
    if (ptr == nullptr) return;
    if (MavIMemTraceOn()) {
        MavPPrintTrace(MAV_TRC_MEMORY, __FILE__, __func__, __LINE__, "memy free (ptr=%p)\n", ptr);
    }
    free(ptr);
}

MAV_LOCAL void* MavIAlloc(size_t size, bool clean) {
    return mavMmCb.alloc.load()(size, clean ? 1 : 0, kTag);
}

MAV_LOCAL void* MavIRealloc(void* ptr, size_t size) {
    return mavMmCb.realloc.load()(ptr, size, kTag);
}

MAV_LOCAL void MavIFree(void* ptr) {
    if (ptr != nullptr) mavMmCb.free.load()(ptr);
}

// *length: in, the source's byte count ((size_t)-1: NUL-terminated); out, the
// converted length. dest gets a terminating zero.
MAV_LOCAL MAV_RC MavIUtf8sToUcs(KORMO_CHAR* dest, size_t destSize, size_t* length,
                                const char* utf8) {
    if (dest == nullptr || utf8 == nullptr || length == nullptr) return MAV_E_NULL_PARAM;
    size_t n = *length;
    int rc = Utf8sToUcs(dest, destSize, &n, utf8);
    if (rc == CP_RC_OK) {
        dest[n] = 0;
        *length = n;
        return MAV_OK;
    }
    MAV_TRC_E("Utf8sToUcs returns error: %d, in %.*s , len %d \n", rc, MavIPrecision(*length), utf8,
              static_cast<int>(*length));
    return rc == CP_RC_BUFFER_TOO_SMALL ? MAV_E_BUFFER_TOO_SHORT : MAV_E_CONVERSION_FAILED;
}

MAV_LOCAL MAV_RC MavIUcsToUtf8s(char* dest, size_t destSize, size_t* length,
                                const KORMO_CHAR* text) {
    if (dest == nullptr || text == nullptr || length == nullptr) return MAV_E_NULL_PARAM;
    size_t n = *length;
    int rc = UcsToUtf8s(dest, destSize, &n, text);
    if (rc == CP_RC_OK) {
        dest[n] = 0;
        *length = n;
        return MAV_OK;
    }
    MAV_TRC_E("UcsToUtf8s of >>>%.*s<<< returns error: %d\n", MavIPrecision(*length), text, rc);
    return rc == CP_RC_BUFFER_TOO_SMALL ? MAV_E_BUFFER_TOO_SHORT : MAV_E_CONVERSION_FAILED;
}

// Grows (or allocates) *dest to size bytes; false when memory runs out, *dest
// then unchanged.
static bool MavIGrow(char** dest, size_t size) {
    void* p = *dest != nullptr ? MavIRealloc(*dest, size) : MavIAlloc(size, false);
    if (p == nullptr) return false;
    *dest = static_cast<char*>(p);
    return true;
}

MAV_LOCAL size_t MavICharToKORMO(KORMO_CHAR** dest, const char* utf8) {
    if (dest == nullptr || utf8 == nullptr) return 0;
    size_t len = strlen(utf8);
    if (!MavIGrow(dest, len + 1)) return 0;
    size_t n = len;
    int rc = Utf8sToUcs(*dest, len + 1, &n, utf8);
    if (rc != CP_RC_OK) {
        MAV_TRC_FN(MAV_TRC_ERROR, "MavPCharToKORMO", "Utf8sToUcs returns error: %d\n", rc);
        MavIFree(*dest);
        *dest = nullptr;
        return 0;
    }
    (*dest)[n] = 0;
    return n;
}

MAV_LOCAL size_t MavIKORMOToChar(char** dest, const KORMO_CHAR* text) {
    if (dest == nullptr || text == nullptr) return 0;
    size_t len = strlen(text);
    size_t limit = (len + 1) * 3;
    if (!MavIGrow(dest, limit + 1)) return 0;
    size_t n = len;
    int rc = UcsToUtf8s(*dest, limit, &n, text);
    if (rc != CP_RC_OK) {
        MAV_TRC_FN(MAV_TRC_ERROR, "MavPKORMOToChar", "UcsToUtf8s of >>>%s<<< returns error: %d\n",
                   text, rc);
        MavIFree(*dest);
        *dest = nullptr;
        return 0;
    }
    (*dest)[n] = 0;
    return n;
}

MAV_LOCAL MAV_RC MavIKORMO_CHAR2RAW(char** dest, const KORMO_CHAR* text, size_t length) {
    if (dest == nullptr || text == nullptr) return MAV_E_NULL_PARAM;
    if (!MavIGrow(dest, length + 1)) return MAV_E_NO_SPACE;
    size_t n = strnlen(text, length);
    memcpy(*dest, text, n);
    (*dest)[n] = 0;
    return MAV_OK;
}

MAV_LOCAL MAV_RC MavIPutText(const char* utf8, KORMO_CHAR* buf, size_t* length) {
    if (length == nullptr) return MAV_OK;
    if (buf == nullptr) {
        *length = utf8 != nullptr ? 3 * strlen(utf8) + 3 : 0;
        return MAV_OK;
    }
    if (utf8 == nullptr) {
        if (*length != 0) buf[0] = 0;
        *length = 0;
        return MAV_OK;
    }
    size_t n = strlen(utf8);
    MAV_RC rc = MavIUtf8sToUcs(buf, *length, &n, utf8);
    if (rc != MAV_OK) {
        if (*length != 0) buf[0] = 0;
        *length = 0;
        return rc;
    }
    *length = n;
    return MAV_OK;
}

}  // extern "C"
