// mavxxtrc.cpp - the library's trace: level bits, stream, handler, line format.
//
// Locks (order as in mavxxi.h): trace file section, then trace buffer section,
// then the kernel trace lock (DpLock). Both sections are created once and live
// as long as the process. Callers test the level before they format anything
// (MAV_TRC macros); MavPPrintTrace writes whatever it is given.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "krnflat.h"
#include "krnthr.h"
#include "krntrc.h"
#include "mavxxi.h"

namespace {

constexpr const char kModule[] = "mavxxtrc.cpp";
// Longest text handed to a trace handler (without its terminator).
constexpr size_t kHandlerTextMax = 4095;

THR_CRIT_SEC trcFileCS;  // zero storage: not yet created
THR_CRIT_SEC trcBufferCS;
std::once_flag trcOnce;

// The library's own stream (null: the kernel's trace stream is used). Written
// under the file section; atomic so that readers outside it see a whole value.
std::atomic<FILE*> trcStream{nullptr};
// The stream was opened by MavActivateTrace (guarded by the file section).
bool trcOwnStream = false;
std::atomic<MAV_TRACE_HANDLER> trcHandler{nullptr};
// Set while this thread's trace writer calls the memory hooks.
thread_local bool trcInWriter = false;

const char* const kLabels[16] = {"",      "* E *", "* W *", "* I *", "* M *", "*PEL*",
                                 "*MAV*", "*THR*", "*PAR*", "*VIR*", "*CBC*", "*RFC*",
                                 "*MEM*", "*TAB*", "*JNI*", ""};

void MavICreateSections() {
    std::call_once(trcOnce, [] {
        if (!ThrIsThreaded()) ThrProcInit();
        ThrCSInit2(&trcFileCS);
        ThrCSInit2(&trcBufferCS);
        MavIXRegisterForkHandlers();
    });
}

bool MavILockFile() {
    MavICreateSections();
    return ThrCSLock(&trcFileCS) == THR_RC_OK;
}

bool MavILockBuffer() {
    MavICreateSections();
    return ThrCSLock(&trcBufferCS) == THR_RC_OK;
}

void MavIUnlockFile() {
    ThrCSUnlock(&trcFileCS);
}
void MavIUnlockBuffer() {
    ThrCSUnlock(&trcBufferCS);
}

// Label of the lowest of the sixteen level bits that is set.
const char* MavILabel(uint32_t level) {
    uint32_t bits = level & 0xFFFFu;
    return bits == 0 ? kLabels[0] : kLabels[__builtin_ctz(bits)];
}

const char* MavIBaseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// Closes a stream that stops being the trace stream (file section held). The
// kernel forgets it first; the standard streams are never closed.
void MavICloseStream(FILE* fp) {
    DpLock();
    if (CTrcGetFpTf() == fp) CTrcSetFpTf(nullptr);
    if (fp != stdin && fp != stdout && fp != stderr) fclose(fp);
    DpUnlock();
}

void MavIWriteFile(uint32_t level, const char* file, const char* func, int line, const char* format,
                   va_list args) {
    if (trcStream.load() == nullptr && CTrcGetFpTf() == nullptr) return;
    if (!MavILockFile()) {
        FILE* fp = trcStream.load();
        if (fp == nullptr) fp = CTrcGetFpTf();
        if (fp == nullptr) return;
        DpLock();
        fprintf(fp,
                "[%-10.10s:%12.12s:%4d]: *** ERROR => critical section for trace file could not "
                "be set !!! ",
                kModule, "MavPPrintTrace", __LINE__);
        fputc('\n', fp);
        fflush(fp);
        DpUnlock();
        return;
    }
    FILE* fp = trcStream.load();
    if (fp == nullptr) fp = CTrcGetFpTf();
    if (fp != nullptr) {
        char stamp[96];
        CTrcStamp(stamp, sizeof stamp);
        const char* src = file != nullptr ? MavIBaseName(file) : "unknown";
        if (file == nullptr) line = 0;
        DpLock();
        fprintf(fp, "%s [%-10.10s:%-12.12s:%4d]: %s ", stamp, src, func, line, MavILabel(level));
        vfprintf(fp, format, args);
        fflush(fp);
        DpUnlock();
    }
    MavIUnlockFile();
}

void MavIWriteHandler(MAV_TRACE_HANDLER handler, uint32_t level, const char* file, const char* func,
                      int line, const char* format, va_list args) {
    if (!MavILockBuffer()) {
        handler(kModule, "MavPPrintTrace", 512, MAV_TRC_ERROR,
                "*** ERROR => critical section for trace buffer could not be set !!! \n");
        return;
    }
    // One buffer per call: threads never share it.
    char buffer[kHandlerTextMax + 1];
    int n = vsnprintf(buffer, sizeof buffer, format, args);
    if (n < 0 || static_cast<size_t>(n) > kHandlerTextMax) {
        MavIUnlockBuffer();
        handler(kModule, "MavPPrintTrace", __LINE__, MAV_TRC_ERROR,
                "*** ERROR => vsnprintfU returned with buffer exceed !!!");
        return;
    }
    trcInWriter = true;
    char* text = static_cast<char*>(MavIAlloc(static_cast<size_t>(n) + 1, false));
    trcInWriter = false;
    if (text == nullptr) {
        MavIUnlockBuffer();
        handler(kModule, "MavPPrintTrace", __LINE__, MAV_TRC_ERROR,
                "*** ERROR => memory alloc for trace buffer failed");
        return;
    }
    memcpy(text, buffer, static_cast<size_t>(n) + 1);
    MavIUnlockBuffer();
    handler(file != nullptr ? MavIBaseName(file) : "unknown", func, file != nullptr ? line : 0,
            level, text);
    trcInWriter = true;
    MavIFree(text);
    trcInWriter = false;
}

void MavIVPrintTrace(uint32_t level, const char* file, const char* func, int line,
                     const char* format, va_list args) {
    // A user memory hook that traces from inside the writer would recurse.
    if (trcInWriter || format == nullptr) return;
    if (func == nullptr) func = "unknown";
    MAV_TRACE_HANDLER handler = trcHandler.load();
    if (handler != nullptr) {
        MavIWriteHandler(handler, level, file, func, line, format, args);
    } else {
        MavIWriteFile(level, file, func, line, format, args);
    }
}

}  // namespace

extern "C" {

std::atomic<uint32_t> mavTraceLevel{0};

MAV_LOCAL bool MavIInTraceWriter(void) {
    return trcInWriter;
}

MAV_LOCAL int MavIKernelLevel(void) {
    return CTrcGetTraceLevel();
}

MAV_API void MavPPrintTrace(uint32_t level, const char* sourceFile, const char* functionName,
                            int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MavIVPrintTrace(level, sourceFile, functionName, line, format, args);
    va_end(args);
}

MAV_LOCAL void MavIPrintTraceAlways(const char* file, const char* func, int line,
                                    const char* format, ...) {
    va_list args;
    va_start(args, format);
    MavIVPrintTrace(1, file, func, line, format, args);
    va_end(args);
}

MAV_API MAV_RC MavSetTraceLevel(uint32_t level) {
    if (!MavILockFile()) return MAV_E_NO_SPACE;
    if (!MavILockBuffer()) {
        MavIUnlockFile();
        return MAV_E_NO_SPACE;
    }
    mavTraceLevel.store(level);
    MavIUnlockBuffer();
    MavIUnlockFile();
    return MAV_OK;
}

MAV_API uint32_t MavGetTraceLevel(void) {
    return mavTraceLevel.load();
}

MAV_API MAV_RC MavSetBasisTraceLevel(uint32_t basis) {
    static const uint32_t kLibLevels[4] = {0x2u, 0x206u, 0x26Eu, 0x7FFEu};
    uint32_t library = basis < 4 ? kLibLevels[basis] : 0x2u;
    int kernel = basis < 4 ? static_cast<int>(basis) : 0;
    MAV_RC rc = MavSetTraceLevel(library);
    CTrcSetTraceLevelFct(kernel);
    return rc;
}

MAV_API MAV_RC MavSetTraceFile(FILE* stream) {
    if (stream == nullptr) return MAV_OK;
    if (!MavILockFile()) return MAV_E_NO_SPACE;
    FILE* old = trcStream.load();
    // A stream the library opened itself is closed when it is replaced.
    if (old != nullptr && old != stream && trcOwnStream) MavICloseStream(old);
    trcOwnStream = false;
    trcStream.store(stream);
    CTrcSetFpTf(stream);
    MavIUnlockFile();
    return MAV_OK;
}

MAV_API FILE* MavGetTraceFile(void) {
    FILE* fp = trcStream.load();
    return fp != nullptr ? fp : CTrcGetFpTf();
}

MAV_API MAV_RC MavSetTraceHandler(MAV_TRACE_HANDLER handler) {
    if (!MavILockBuffer()) return MAV_E_NO_SPACE;
    trcHandler.store(handler);
    MavIUnlockBuffer();
    return MAV_OK;
}

MAV_API MAV_RC MavDeactivateTrace(void) {
    if (!MavILockFile()) return MAV_E_NO_SPACE;
    FILE* fp = trcStream.load();
    if (fp != nullptr) {
        MavICloseStream(fp);
        trcStream.store(nullptr);
        trcOwnStream = false;
        MavSetBasisTraceLevel(0);
        MavSetTraceLevel(0);
    }
    MavIUnlockFile();
    return MAV_OK;
}

MAV_API MAV_RC MavActivateTrace(const KORMO_CHAR* fileName, uint32_t basis) {
    if (!MavILockFile()) return MAV_E_NO_SPACE;
    if (!MavILockBuffer()) {
        MavIUnlockFile();
        return MAV_E_NO_SPACE;
    }
    MAV_RC rc = MAV_OK;
    if (fileName == nullptr || fileName[0] == 0) {
        MavDeactivateTrace();
    } else {
        FILE* cur = trcStream.load();
        if (cur != nullptr) {
            MavICloseStream(cur);
            trcStream.store(nullptr);
            trcOwnStream = false;
        }
        char oldName[4092];
        snprintf(oldName, sizeof oldName, "%s.old", fileName);
        if (oldName[0] != 0) {
            if (access(oldName, W_OK) == 0) unlink(oldName);
            rename(fileName, oldName);
            FILE* fp = fopen(fileName, "w");
            if (fp == nullptr) {
                rc = MAV_E_INVALID_PARAM;
            } else {
                MavSetTraceFile(fp);
                trcOwnStream = true;
                MavSetBasisTraceLevel(basis);
            }
        }
    }
    MavIUnlockBuffer();
    MavIUnlockFile();
    return rc;
}

// The library writes nothing unless asked: without a stream, file or handler
// set by the application, the operator may ask through the environment.
// KORMO_TRACE is "stderr" or a file to append to; KORMO_TRACE_LEVEL is a
// library level (decimal or 0x hex). Read once per process, by the first
// MavInit; anything else leaves the trace off.
MAV_LOCAL void MavIOpenDefaultTrace(void) {
    static std::once_flag envOnce;
    std::call_once(envOnce, [] {
        const char* dest = getenv("KORMO_TRACE");
        if (dest == nullptr || dest[0] == 0) return;
        const char* levelText = getenv("KORMO_TRACE_LEVEL");
        if (levelText != nullptr && levelText[0] != 0) {
            char* end = nullptr;
            unsigned long level = strtoul(levelText, &end, 0);
            if (end != nullptr && *end == 0 && level <= 0xFFFFFFFFul)
                MavSetTraceLevel(static_cast<uint32_t>(level));
        }
        if (!MavILockFile()) return;
        if (trcStream.load() == nullptr && CTrcGetFpTf() == nullptr) {
            if (strcmp(dest, "stderr") == 0) {
                MavSetTraceFile(stderr);
            } else if (FILE* fp = fopen(dest, "ae")) {
                MavSetTraceFile(fp);
                trcOwnStream = true;
            }
        }
        MavIUnlockFile();
    });
}

}  // extern "C"

// Fork handlers (mavxxi_fork.cpp): both sections, in the global order.
void MavITraceForkLock(void) {
    MavILockFile();
    MavILockBuffer();
}
void MavITraceForkUnlock(void) {
    MavIUnlockBuffer();
    MavIUnlockFile();
}
void MavITraceForkChild(void) {
    MavIXForkRenewCS(&trcBufferCS);
    MavIXForkRenewCS(&trcFileCS);
}
