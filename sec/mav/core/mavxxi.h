// mavxxi.h - internal records and functions of libkormomav.
//
// Not installed. The records here are the library's own; their sizes and marks
// are what the public calls check (a handle is 216 bytes with marks 0xfeed00 /
// 0xfffeedff, an instance 136 bytes with 0xabba00 / 0xffabbaff, a profile
// instance 136 bytes with 0xabcdabcd / 0xdcbadcba).
//
// Global lock order (never taken the other way round):
//   registry -> handle -> record pool -> trace file -> trace buffer -> kernel trace
//   (the kernel's loader table is a leaf). The fork handlers take them all in
//   this order (mavxxi_fork.cpp).
// Adapter entry points are called with at most the registry and handle locks
// held; PelScan is called with no lock held.
#ifndef MAVXXI_H
#define MAVXXI_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kormomav.h"
#include "kormopel.h"
#include "krnthr.h"
#include "mavxxseam.h"  // MAV_LOCAL, the profile runtime's table, MavIAlloc/MavIFree

extern "C" {

// ---- Marks and sizes ----------------------------------------------------------

constexpr size_t MAV_HDL_SIZE = 216;
constexpr uint32_t MAV_HDL_HEAD = 0xfeed00u;
constexpr uint32_t MAV_HDL_TAIL = 0xfffeedffu;
constexpr size_t MAV_INST_SIZE = 136;
constexpr uint32_t MAV_INST_HEAD = 0xabba00u;
constexpr uint32_t MAV_INST_TAIL = 0xffabbaffu;
constexpr uint32_t MAV_PINST_HEAD = 0xabcdabcdu;
constexpr uint32_t MAV_PINST_TAIL = 0xdcbadcbau;
constexpr size_t MAV_CFG_SIZE = 160;
constexpr uint32_t MAV_THREAD_NONE = 0xFFFFFFFFu;
constexpr uint32_t MAV_DEFAULT_ACTION = 2;
constexpr int MAV_INTERFACE_VERSION = 2;

struct MAV_INST_REC;
struct MAV_HDL_REC;

// The seven adapter entry points in slot order.
struct PEL_FUNCTIONS {
    PEL_STARTUP_FN pfnStartup;         // 0
    PEL_GETCONFIG_FN pfnGetConfig;     // 1
    PEL_INIT_FN pfnInit;               // 2
    PEL_SCAN_FN pfnScan;               // 3
    PEL_RELEASESCAN_FN pfnReleaseScan; // 4
    PEL_END_FN pfnEnd;                 // 5
    PEL_CLEANUP_FN pfnCleanup;         // 6
};

// Event registration of a configuration (held by MAV_CFG_AUX).
struct MAV_EVENT_REG {
    MAV_EVENT_HANDLER pfnSingle; // takes precedence over the table
    uint32_t uiMask;             // messages asked of the adapter
    uint32_t uiHasTable;         // 1 when sTable holds a registered table
    MAV_EVENTS sTable;           // copy of the caller's table
    void* pvUserData;
};

// Two-word auxiliary record of a MAV_CFG. The first word is kept for layout
// only: the instance about to scan is per instance (MAV_INST_REC.sCallback).
struct MAV_CFG_AUX {
    void* pvScanInst;
    MAV_EVENT_REG* pEvents; // null while no handler is registered
};

// The library's copy of an adapter's configuration (one per handle, plus one
// per instance that changed a parameter).
struct MAV_CFG {
    size_t struct_size; // 160
    size_t aReserved[2];
    MAV_CFG_AUX* pAux;
    PEL_CALLBACK* pCallback; // handed to PelInit
    int16_t asInitIndex[16];
    int16_t asScanIndex[21];
    int16_t asCleanIndex[6];
    int16_t asBlockIndex[2];
    uint16_t usActionCount;
    uint32_t uiDefaultAction;
    uint8_t bNoScanInfo;          // CUST_NO_SCANINFO
    uint8_t bNotScannedAsWarning; // CUST_NOT_SCANNED_AS_WARNING
    uint8_t abPad[6];
    PEL_PARAMS* pInitParams;
    PEL_PARAMS* pOptParams;
};
static_assert(sizeof(MAV_CFG) == 160, "MAV_CFG size");
static_assert(offsetof(MAV_CFG, pAux) == 24, "MAV_CFG.pAux");
static_assert(offsetof(MAV_CFG, asInitIndex) == 40, "MAV_CFG.asInitIndex");
static_assert(offsetof(MAV_CFG, usActionCount) == 130, "MAV_CFG.usActionCount");
static_assert(offsetof(MAV_CFG, uiDefaultAction) == 132, "MAV_CFG.uiDefaultAction");
static_assert(offsetof(MAV_CFG, bNoScanInfo) == 136, "MAV_CFG.bNoScanInfo");
static_assert(offsetof(MAV_CFG, pInitParams) == 144, "MAV_CFG.pInitParams");

// The default action and the two custom flags of a configuration are written
// under the handle lock and read by scans without it: relaxed atomics.
inline uint32_t MavICfgAction(const MAV_CFG* cfg) {
    return __atomic_load_n(&cfg->uiDefaultAction, __ATOMIC_RELAXED);
}
inline void MavICfgSetAction(MAV_CFG* cfg, uint32_t action) {
    __atomic_store_n(&cfg->uiDefaultAction, action, __ATOMIC_RELAXED);
}
inline uint8_t MavICfgFlag(const uint8_t* flag) {
    return __atomic_load_n(flag, __ATOMIC_RELAXED);
}
inline void MavICfgSetFlag(uint8_t* flag, bool on) {
    __atomic_store_n(flag, static_cast<uint8_t>(on ? 1 : 0), __ATOMIC_RELAXED);
}

// A handle's name.
struct MAV_HDL_NAME {
    char* pszName;
    size_t lLength;
};

// One entry of a handle's error list.
struct MAV_ERROR_ENTRY {
    char* pszText;
    size_t lLength;
};

// Node of a handle's list of instances beyond the pool.
struct MAV_INST_NODE {
    MAV_INST_REC* pInst;
    MAV_INST_NODE* pNext;
};

// MAV_HANDLE: one loaded adapter.
struct MAV_HDL_REC {
    size_t struct_size;  // 216
    uint32_t uiHeadMark; // MAV_HDL_HEAD
    uint32_t uiVersion;  // 2
    uint32_t uiReserved;
    int32_t iDlHandle; // -1: no library open
    PEL_FUNCTIONS* pFunctions;
    THR_CRIT_SEC* pCS; // guards pool, counts, list, error list
    uint32_t uiInstances; // live instances, pooled and listed
    uint32_t uiAdapterID;
    PEL_CONFIG* pPelConfig;
    PEL_INIT* pSharedInit; // thread models 1 and 2
    MAV_CFG* pCfg;
    MAV_HDL_NAME* pName;
    char* pszTmpPath; // INITTEMP_PATH when set and usable, else null
    MAV_ERROR_ENTRY* errors;
    uint32_t errorCount;
    int32_t lastErrorRc;
    uint32_t uiFlag1; // 0
    uint32_t uiFlag2; // 1
    uint32_t uiPoolSize;
    uint32_t uiPooled;
    uint32_t uiPoolFree;
    uint32_t uiPad;
    MAV_INST_REC** pPool; // uiPoolSize slots
    MAV_INST_NODE* pInstList;
    size_t aReserved[8]; // [0] start-up state bits, [1] pPool slots (mavxx_init/_inst)
    uint32_t uiTailMark; // MAV_HDL_TAIL
};
// MAV_HDL_REC.aReserved[0] bits and the pool array's slot count.
constexpr size_t MAV_HDL_STARTED = 0x1; // PelStartup succeeded
#define MAV_HDL_STATE(h) ((h)->aReserved[0])
#define MAV_HDL_POOL_SLOTS(h) ((h)->aReserved[1])
static_assert(sizeof(MAV_HDL_REC) == MAV_HDL_SIZE, "MAV_HANDLE size");
static_assert(offsetof(MAV_HDL_REC, uiHeadMark) == 8, "MAV_HANDLE head");
static_assert(offsetof(MAV_HDL_REC, uiTailMark) == 208, "MAV_HANDLE tail");

// MAV_INST: what a scan runs on.
struct MAV_INST_REC {
    size_t struct_size;  // 136
    uint32_t uiHeadMark; // MAV_INST_HEAD (MAV_PINST_HEAD: profile instance)
    uint8_t bInUse;
    uint8_t bPooled;
    uint16_t usReserved;
    uint32_t uiThreadId; // owner; MAV_THREAD_NONE when back in the pool
    uint32_t uiReserved;
    MAV_HDL_REC* pHdl;
    PEL_INIT* pPelInit;
    PEL_SCANPARAM* pScanParam; // lives in the same allocation as the record
    MAV_CFG* pCfg;             // the handle's until the instance changes one
    PEL_SCANINFO* pScanInfo;   // result of the last scan
    PEL_CALLBACK sCallback;    // handed to PelScan; pvContext = this instance
    void* pProfileInst;        // profile instance: its mav::MavInstance
    uint32_t uiTailMark;       // MAV_INST_TAIL (MAV_PINST_TAIL)
};
static_assert(sizeof(MAV_INST_REC) == MAV_INST_SIZE, "MAV_INST size");
static_assert(offsetof(MAV_INST_REC, uiThreadId) == 16, "MAV_INST thread");
static_assert(offsetof(MAV_INST_REC, pPelInit) == 32, "MAV_INST init");
static_assert(offsetof(MAV_INST_REC, sCallback) == 64, "MAV_INST callback");
static_assert(offsetof(MAV_INST_REC, pProfileInst) == 120, "MAV_INST profile link");
static_assert(offsetof(MAV_INST_REC, uiTailMark) == 128, "MAV_INST tail");

// Parameter reference handed to MavISetConfigValue.
struct MAV_PARAM_ID {
    size_t struct_size; // 8
    int32_t tCode;
    int32_t tType;
};

// ---- Records (mavxxi_rec.cpp) --------------------------------------------------
// Handle and instance records live in fixed-size blocks carved from slabs. An
// ended record's block is wiped and quarantined before reuse; the slabs go
// back through the free hook when the last record ends. A pointer is read only
// after MavIXRecOwned found it to be a block of a current slab.

// Alignment of record blocks: two records never share a cache line nor an
// adjacent-line prefetch pair, so scans on different instances do not contend.
constexpr size_t MAV_REC_LINE = 128;
// Size of a record block (a multiple of MAV_REC_LINE, a power of two).
constexpr size_t MAV_REC_BLOCK = 512;
constexpr size_t MAV_REC_MAX_SLABS = 32;

struct MAV_REC_SLAB {
    std::atomic<uintptr_t> base;  // first block (0: none)
    std::atomic<size_t> bytes;    // blocks x MAV_REC_BLOCK
};
extern MAV_LOCAL MAV_REC_SLAB mavRecSlabs[MAV_REC_MAX_SLABS];
extern MAV_LOCAL std::atomic<uint32_t> mavRecSlabCount;

// True when p is the start of a block of a current slab (no lock: the scan
// path asks it). Slabs are only given back when no record is live, so a
// caller holding a live record never races with that.
// The first slab is checked inline (it holds the first records of a process);
// the others out of line.
MAV_LOCAL bool MavIXRecOwnedSlow(const void* p);
inline bool MavIXRecOwned(const void* p) {
    uintptr_t off = reinterpret_cast<uintptr_t>(p) -
                    mavRecSlabs[0].base.load(std::memory_order_relaxed);
    if (__builtin_expect(off < mavRecSlabs[0].bytes.load(std::memory_order_acquire), 1))
        return (off & (MAV_REC_BLOCK - 1)) == 0;
    return MavIXRecOwnedSlow(p);
}
// Gives the slabs back through the free hook when no record is live and no
// thread is pinned (called after the last MavEnd or record release).
MAV_LOCAL void MavIXRecTrim(void);
// A thread about to wait on a handle's critical section pins the slabs (the
// section lives in one); the last unpin trims.
MAV_LOCAL void MavIXRecPin(void);
MAV_LOCAL void MavIXRecUnpin(void);

enum MAV_REC_KIND { MAV_REC_NONE = 0, MAV_REC_HANDLE, MAV_REC_INSTANCE, MAV_REC_PROFILE };

// A zeroed handle record with size and marks set and pCS pointing to storage
// in the same block (created with ThrCSInit2 on first use - THR_RC_EXISTS on a
// recycled block - and never deleted); null when memory runs out.
MAV_LOCAL MAV_HDL_REC* MavIXAllocHdlRec(void);
// A zeroed instance record with size and marks (profile: the profile marks)
// set and pScanParam pointing to its zeroed PEL_SCANPARAM (struct_size 48;
// a profile record keeps pScanParam null).
MAV_LOCAL MAV_INST_REC* MavIXAllocInstRec(bool profile);
// Wipes the marks and recycles the block.
MAV_LOCAL void MavIXFreeRec(void* rec);
// Kind of a pointer by its size and marks (an instance also needs pPelInit,
// a profile instance pProfileInst). Null gives MAV_REC_NONE.
MAV_LOCAL MAV_REC_KIND MavIXRecKind(const void* p);
// Kind by size and marks alone (an instance whose PelInit gave no record is
// still an instance here, so that it can be freed).
MAV_LOCAL MAV_REC_KIND MavIXRecKindByMarks(const void* p);

// ---- fork (mavxxi_fork.cpp and the lock owners) --------------------------------
// Every library lock is taken before fork() and released after it in parent
// and child, in the global order, so a child forked while another thread was
// inside the library finds no lock held by a thread it does not have.
// Registers the handlers once (first MavInit, first trace section use).
MAV_LOCAL void MavIXRegisterForkHandlers(void);
MAV_LOCAL void MavIXRecForkLock(void);
MAV_LOCAL void MavIXRecForkUnlock(void);
MAV_LOCAL void MavITraceForkLock(void);
MAV_LOCAL void MavITraceForkUnlock(void);
MAV_LOCAL void KrnDlForkLock(void);
// In a child: the recursive locks held across fork() belong to a thread id
// the child does not have; they are created anew instead of unlocked.
MAV_LOCAL void MavIXForkRenewCS(THR_CRIT_SEC* cs);
MAV_LOCAL void MavIXRegForkChild(void);
MAV_LOCAL void MavITraceForkChild(void);
MAV_LOCAL void KrnTrcForkChild(void);
MAV_LOCAL void KrnDlForkUnlock(void);

// ---- Codes (mavxxi_codes.cpp) ------------------------------------------------
// MavErrorName / MavErrorDescription are public.

// ---- Memory hooks and conversions (mavxxi_mem.cpp) -------------------------------
MAV_LOCAL void* MavPXAlloc(size_t size, int clean, const char* tag);
MAV_LOCAL void* MavPXRealloc(void* ptr, size_t size, const char* tag);
MAV_LOCAL void MavPXFree(void* ptr);
// Through the current hooks, tag "mav" (MavIAlloc and MavIFree: mavxxseam.h).
MAV_LOCAL void* MavIRealloc(void* ptr, size_t size);
// *length: in, the source's byte count ((size_t)-1: up to its NUL); out, the
// converted length. MAV_E_BUFFER_TOO_SHORT when the text and its terminator do
// not fit destSize, MAV_E_CONVERSION_FAILED for any other failure.
MAV_LOCAL MAV_RC MavIUtf8sToUcs(KORMO_CHAR* dest, size_t destSize, size_t* length,
                                const char* utf8);
MAV_LOCAL MAV_RC MavIUcsToUtf8s(char* dest, size_t destSize, size_t* length,
                                const KORMO_CHAR* text);
MAV_LOCAL size_t MavICharToKORMO(KORMO_CHAR** dest, const char* utf8);
MAV_LOCAL size_t MavIKORMOToChar(char** dest, const KORMO_CHAR* text);
MAV_LOCAL MAV_RC MavIKORMO_CHAR2RAW(char** dest, const KORMO_CHAR* text, size_t length);
// Text output by the caller-buffer rule: null length skips; null buffer asks
// for 3 x len + 3 (0 for null text); else converts, emptying on failure.
MAV_LOCAL MAV_RC MavIPutText(const char* utf8, KORMO_CHAR* buf, size_t* length);

// ---- Trace (mavxxtrc.cpp) --------------------------------------------------------
extern MAV_LOCAL std::atomic<uint32_t> mavTraceLevel;
inline uint32_t MavITraceLevel() { return mavTraceLevel.load(std::memory_order_relaxed); }
// True when a line of this level bit is written (error lines whenever the
// level is non-zero).
inline bool MavITraceOn(uint32_t bit) {
    uint32_t l = MavITraceLevel();
    return (l & bit) != 0 || ((bit & MAV_TRC_ERROR) != 0 && l != 0);
}
// True on this thread while the trace writer calls the memory hooks: the
// default hooks then skip their own level-16 line (no recursion, and other
// threads keep their lines).
MAV_LOCAL bool MavIInTraceWriter(void);
// The kernel trace level (0..3).
MAV_LOCAL int MavIKernelLevel(void);
// Opens the default trace file when no stream is set (MavInit step 2).
MAV_LOCAL void MavIOpenDefaultTrace(void);
// Writes a line whatever the level (MavInit's start-up lines).
MAV_LOCAL void MavIPrintTraceAlways(const char* file, const char* func, int line,
                                    const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#define MAV_TRC(bit, ...)                                                       \
    do {                                                                        \
        if (MavITraceOn(bit)) MavPPrintTrace((bit), __FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
#define MAV_TRC_FN(bit, fn, ...)                                                \
    do {                                                                        \
        if (MavITraceOn(bit)) MavPPrintTrace((bit), __FILE__, (fn), __LINE__, __VA_ARGS__); \
    } while (0)
#define MAV_TRC_E(...) MAV_TRC(MAV_TRC_ERROR, __VA_ARGS__)
#define MAV_TRC_W(...) MAV_TRC(MAV_TRC_WARNING, __VA_ARGS__)
#define MAV_TRC_ENTRY(...) MAV_TRC(MAV_TRC_FUNCTION, __VA_ARGS__)
#define MAV_TRC_EXIT(rc)                                                        \
    MAV_TRC(MAV_TRC_FUNCTION, "<<  end  << %s(MAV_RC==%s) \n", __func__, MavErrorName(rc))

// ---- Record dumps (mavxxtrc_dump.cpp) ---------------------------------------------
MAV_LOCAL MAV_RC MavIXTracePELScanInfo(void* hdl);
MAV_LOCAL MAV_RC MavIXTracePELEngine(void* hdl);
MAV_LOCAL MAV_RC MavIXTracePELConfig(void* hdl);

// ---- Error list (mavxxi_err.cpp) -----------------------------------------------------
MAV_LOCAL void MavPAddError(MAV_HDL_REC* hdl, const char* text, MAV_RC rc);
MAV_LOCAL void MavPFreeError(MAV_ERROR_ENTRY** list, uint32_t count);

// ---- Adapter loading (mavxxdl.cpp) ----------------------------------------------------
MAV_LOCAL MAV_RC MavILoadLib(const KORMO_CHAR* path, MAV_HDL_REC* hdl);
MAV_LOCAL MAV_RC MavILoadFucs(int dlHandle, PEL_FUNCTIONS** table);
MAV_LOCAL MAV_RC MavIUnLoadLib(int* dlHandle, PEL_FUNCTIONS* table);
MAV_LOCAL MAV_RC MavIXCleanupPel(MAV_HDL_REC* hdl);
// PelStartup, PelGetConfig and the version check (adapter start steps 1-5).
MAV_LOCAL MAV_RC MavIStartPel(MAV_HDL_REC* hdl, const KORMO_CHAR* path, MAV_RC resolveRc);

// ---- Start-up and shutdown (mavxx_init.cpp) -------------------------------------------
MAV_LOCAL MAV_RC MavIReload(MAV_HDL_REC* hdl);
MAV_LOCAL MAV_RC MavIReloadAll(void);
MAV_LOCAL MAV_RC MavIXAllocCFG(const PEL_CONFIG* pelCfg, MAV_CFG** cfg);
MAV_LOCAL MAV_RC MavIXFreeCFG(MAV_CFG** cfg);
MAV_LOCAL PEL_PARAMS* MavIXGetCfgInitParams(MAV_CFG* cfg);
MAV_LOCAL PEL_PARAMS* MavIXGetCfgOptParams(MAV_CFG* cfg);
MAV_LOCAL PEL_CALLBACK* MavIXGetCfgCallback(MAV_CFG* cfg);

// ---- Registry and instances (mavxxi_reg.cpp, mavxx_inst.cpp) ----------------------------
MAV_LOCAL MAV_RC MavIXAddHdl(MAV_HDL_REC* hdl);
MAV_LOCAL MAV_RC MavIXRemoveHdl(MAV_HDL_REC* hdl);
MAV_LOCAL MAV_HDL_REC* MavIXGetHdl(uint32_t flagMask);
MAV_LOCAL uint32_t MavIXGetHdlSize(void);
MAV_LOCAL uint32_t MavIXGetHdlSizeByName(const KORMO_CHAR* name, size_t length, uint32_t limit);
// True when hdl is in the registry (takes the registry lock).
MAV_LOCAL bool MavIXIsRegistered(MAV_HDL_REC* hdl);
// Calls fn for each registered handle in order, under the registry lock, until
// fn returns false.
MAV_LOCAL void MavIXForEachHdl(bool (*fn)(MAV_HDL_REC* hdl, void* ctx), void* ctx);
// The registry lock (outermost lock of the library).
MAV_LOCAL int MavILockRegistry(void);
MAV_LOCAL void MavIUnlockRegistry(void);
MAV_LOCAL int MavILockHdl(void* hdlOrInst);
// Locks the handle behind a handle, instance or profile instance and returns
// it (null: nothing locked). Engine records (pSharedInit, an instance's
// PEL_INIT) are read only so: a reload or MavFreePool ends them under it.
MAV_LOCAL MAV_HDL_REC* MavILockOwner(void* p);
MAV_LOCAL void MavIUnlockHdl(void* hdlOrInst);
// Handle of a handle, instance or profile instance (its scan instance's).
MAV_LOCAL MAV_HDL_REC* MavIGetHandle(void* p);
// The C instance a handle stands for: an instance itself, a profile instance's
// current C instance; null for a handle or anything else.
MAV_LOCAL MAV_INST_REC* MavIGetInst(void* p);
MAV_LOCAL MAV_RC MavICreateInstance(MAV_HDL_REC* hdl, MAV_INST_REC** inst);
MAV_LOCAL MAV_RC MavIReleaseInstance(MAV_INST_REC** inst);
MAV_LOCAL MAV_RC MavIXFreeInst(MAV_INST_REC** inst);
MAV_LOCAL MAV_RC MavIXAddInst2List(MAV_HDL_REC* hdl, MAV_INST_REC* inst);
MAV_LOCAL MAV_RC MavIXRemoveInst(MAV_INST_REC* inst);
MAV_LOCAL MAV_RC MavIXAssignHdlToCFG(void* hdlOrInst, MAV_CFG** cfg);
// Frees a new instance that never joined its handle (engine ended unless shared).
MAV_LOCAL void MavIXDiscardInst(MAV_INST_REC** inst);
// With the handle locked: releases a pooled or listed instance, takes it out of
// the pool array or list, frees it and lowers the counts. A failed release
// changes nothing; MAV_E_NOT_INITIALISED (no adapter table) still frees it.
MAV_LOCAL MAV_RC MavIXEndInst(MAV_HDL_REC* hdl, MAV_INST_REC* inst);
// With the handle locked: ends every pooled instance (from the last slot down
// when lastFirst); stops at the first failure.
MAV_LOCAL MAV_RC MavIXEndPooled(MAV_HDL_REC* hdl, bool lastFirst);
// With the handle locked: creates free pooled instances until uiPooled reaches
// uiPoolSize; with ownConfig each gets its own copy of the handle's current
// configuration, else reads the handle's.
MAV_LOCAL MAV_RC MavIXFillPool(MAV_HDL_REC* hdl, bool ownConfig);
// With the handle locked: the configuration a change of hdlOrInst writes to.
// An instance gets its own (MavIXAssignHdlToCFG). A handle whose configuration
// a handed-out instance may be scanning with gets a private copy (*publish
// true): written, then published with MavIXPublishCfg, or freed on failure.
// Nothing writes to a parameter list an adapter may be reading.
MAV_LOCAL MAV_RC MavIXCfgForChange(void* hdlOrInst, MAV_CFG** cfg, bool* publish);
// With the handle locked: the handle's configuration (same record) takes the
// copy's parameter lists and flags; the old lists are retired on its chain
// (second reserved word) and freed with it, since a scan may still read them.
MAV_LOCAL void MavIXPublishCfg(MAV_HDL_REC* hdl, MAV_CFG* shadow);
// The configuration a handle or instance reads (no copy made).
MAV_LOCAL MAV_CFG* MavIGetCfg(void* hdlOrInst);

// ---- Parameters (mavxxi_param.cpp) -----------------------------------------------------
MAV_LOCAL const char* MavIXGetPelParamName(int32_t code);
MAV_LOCAL MAV_RC MavIXParseInitParams(const KORMO_CHAR* name, int32_t* code);
MAV_LOCAL MAV_RC MavIXParseOptParams(const KORMO_CHAR* name, int32_t* code);
MAV_LOCAL MAV_RC MavIGetConfig(const PEL_CONFIG* pelCfg, MAV_CFG** cfg);
MAV_LOCAL MAV_RC MavIXSetDefaultConfig(const PEL_CONFIG* pelCfg, MAV_CFG* cfg);
MAV_LOCAL MAV_RC MavISetDefaultConfig(void* hdlOrInst);
// Copies one adapter entry over dest. A text dest replaces is kept on
// retireTo's retired list (freed with it) when retireTo is given, else freed.
MAV_LOCAL MAV_RC MavIXCopyParameter(PEL_PARAM* dest, int32_t code, const PEL_PARAM* src,
                                    bool initList, MAV_CFG* retireTo);
// Frees the texts retired from cfg's parameter lists.
MAV_LOCAL void MavIXFreeRetired(MAV_CFG* cfg);
MAV_LOCAL MAV_RC MavIGetConfigValue(const PEL_PARAM* param, KORMO_CHAR* buf, size_t* length);
MAV_LOCAL MAV_RC MavISetConfigValue(void* hdlOrInst, const MAV_PARAM_ID* param,
                                    const KORMO_CHAR* text);
MAV_LOCAL MAV_RC MavISetDefaultValue(void* hdlOrInst, const MAV_PARAM_ID* param);
// Number of adapter parameters (init + optional) of a handle or instance.
MAV_LOCAL uint32_t MavIXGetParamNum(void* hdlOrInst);
// The entry at index (init first, then optional) of the object's MAV_CFG.
MAV_LOCAL MAV_RC MavIGetPelParameterByIndex(void* hdlOrInst, uint32_t index, PEL_PARAM** entry);
// The entry for a parameter name of the object's MAV_CFG. set 0 reads the
// configuration in use; non-zero takes the one a change goes to (an instance
// gets its own copy, MavIXAssignHdlToCFG).
MAV_LOCAL MAV_RC MavIGetPelParameter(void* hdlOrInst, const KORMO_CHAR* name, int set,
                                     PEL_PARAM** entry);
// Adds "The parameter >>>name<<< is unknown or not supported." with rc to the
// error list of the handle behind hdlOrInst (the caller sees which name).
MAV_LOCAL void MavIXNoteUnknownName(void* hdlOrInst, const KORMO_CHAR* name, MAV_RC rc);
// Custom code (-100..-105) of an exact custom name, else 0.
MAV_LOCAL int32_t MavIXParseCustParam(const KORMO_CHAR* name);
// Position of an adapter parameter code in cfg's lists (*initList: which
// list), -1 when not offered.
MAV_LOCAL int MavIXParamIndex(const MAV_CFG* cfg, int32_t code, bool* initList);

// ---- Events (mavxx_event.cpp) -----------------------------------------------------------
MAV_LOCAL MAV_RC MavPXRegisterCallback(void* hdl, const MAV_EVENTS* events,
                                       MAV_EVENT_HANDLER handler, uint32_t mask, void* userData);
MAV_LOCAL VS_CALLRC MavPXCallback(void* adapterData, uint32_t message, void* data,
                                  void* context);
// Fills inst->sCallback from its configuration's registration (function,
// mask, context = the instance); the scan calls it just before PelScan.
// cfg: the instance's configuration as the scan read it.
inline void MavIXFillScanCallback(MAV_INST_REC* inst, const MAV_CFG* cfg) {
    PEL_CALLBACK* cb = &inst->sCallback;
    const MAV_EVENT_REG* reg = nullptr;
    if (cfg != nullptr && cfg->pAux != nullptr)
        reg = __atomic_load_n(&cfg->pAux->pEvents, __ATOMIC_ACQUIRE);
    uint32_t mask = reg != nullptr ? __atomic_load_n(&reg->uiMask, __ATOMIC_ACQUIRE) : 0;
    cb->struct_size = sizeof(PEL_CALLBACK);
    cb->pfnCallback = mask != 0 ? MavPXCallback : nullptr;
    cb->uiMessageMask = mask;
    cb->pvContext = inst;
}

// ---- Scan (mavxx_scan.cpp, mavxxi_tmp.cpp) ----------------------------------------------
MAV_LOCAL MAV_RC MavIXScan(MAV_INST_REC* inst, MAV_SCANINFO* scanInfo);
MAV_LOCAL MAV_RC MavPXBytesToTempFile(const unsigned char* bytes, size_t length,
                                      const char* directory, char* name, char** pathOut);
MAV_LOCAL const char* MavPXGetDefaultTmpPath(void);

// ---- Profile instances (mavxxi_seam.cpp) -----------------------------------------------
// The profile runtime's table (mavxxseam.h); null until it registered one. A
// profile instance record exists only after that.
extern MAV_LOCAL std::atomic<const MAV_PROFILE_OPS*> mavProfileOps;
inline const MAV_PROFILE_OPS* MavIXProfileOps() {
    return mavProfileOps.load(std::memory_order_acquire);
}

} // extern "C"

#endif
