/*
 * testpel_ctl.h - control interface of the scriptable test adapter.
 *
 * libtestpel.so is an ordinary adapter (the seven entry points of kormopel.h)
 * whose behaviour tests script through the functions below. Tests reach them by
 * dlopen-ing the same file the library loads (dlopen returns the same handle,
 * so both share one state); tests/support/testpel_client.h wraps that.
 *
 * State persists across handles until tpel_reset. All functions are thread safe;
 * PelScan itself reads the script under a lock and copies what it needs.
 */
#ifndef TESTPEL_CTL_H
#define TESTPEL_CTL_H

#include <stddef.h>
#include <stdint.h>

#include "kormopel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Entry points, for failure injection and counters. */
enum TPEL_ENTRY {
    TPEL_STARTUP = 0,
    TPEL_GETCONFIG,
    TPEL_INIT,
    TPEL_SCAN,
    TPEL_RELEASESCAN,
    TPEL_END,
    TPEL_CLEANUP,
    TPEL_ENTRY_COUNT
};

/* Records the adapter made and nobody has released yet (PEL_INIT, PEL_SCANINFO)
 * survive tpel_reset and still count in tpel_live_*: they belong to whoever holds
 * them. The adapter stays loaded until the process ends (linked -z nodelete), so
 * the state survives MavEnd closing the file. */

/* Back to the defaults: adapter id 4711, thread model 0 (PelInit per
 * instance), interface version 2, adapter version 1.0, vendor "Kormo Test",
 * name "testpel"; scan flags 0x3 (file and memory), action flags 0x19, event
 * flags: every VS_M_* message, CIO flags 0; no parameters; no failures; all
 * counters zero; scan result: clean (rc 0) with uiScanned 1, uiClean 1 and one
 * content entry; no events; engine 3.1 "testpel engine 3.1" with one driver. */
void tpel_reset(void);

/* ---- Configuration reported by PelGetConfig (read at each PelGetConfig) ---- */
void tpel_set_adapter_info(uint32_t adapterId, uint32_t threadModel, uint16_t mavVersion,
                           uint16_t pelMajor, uint16_t pelMinor, const char* vendorInfo,
                           const char* adapterName);
void tpel_set_flags(uint32_t scanFlag, uint32_t actionFlag, uint32_t eventFlag,
                    uint32_t cioFlag);
/* Removes every parameter; both lists become empty (usNumParams 0). */
void tpel_clear_params(void);
/* 1: pInitParams and pOptParams are null pointers. */
void tpel_set_null_param_lists(int on);
/* Appends a parameter to the init list (initList 1) or the optional list.
 * value: the text of a CHAR/OBJECT value, else a decimal number stored in the
 * value slot (null: 0). Any code and type are accepted (unknown ones too). */
void tpel_add_param(int initList, int32_t code, int32_t type, const char* value);
/* Overrides the length the adapter reports for the last parameter added to
 * that list (a hostile adapter: the length need not match the value). */
void tpel_set_last_param_length(int initList, size_t length);

/* ---- Failure injection ------------------------------------------------------- */
/* From now on the entry point returns rc (0 turns the failure off). For
 * TPEL_INIT the returned PEL_INIT carries iErrorRC = rc and pszErrorText =
 * vendorText (null: no PEL_INIT is returned). For TPEL_GETCONFIG the config
 * pointer is still set. vendorText may be null. */
void tpel_fail(int entry, int rc, const char* vendorText);

/* ---- Counters ---------------------------------------------------------------- */
uint32_t tpel_calls(int entry);
/* PEL_INIT records currently alive (made by PelInit, not yet ended). */
int tpel_live_inits(void);
/* PEL_SCANINFO records currently alive (made by PelScan, not yet released). */
int tpel_live_scaninfos(void);

/* ---- The last scan request seen by PelScan ---------------------------------- */
typedef struct TPEL_LAST_SCAN {
    uint32_t uiScanCode;
    uint32_t uiActionCode;
    uint32_t uiJobID;
    int bHadObjectName;
    char szObjectName[4096];      /* copy of pszObjectName */
    int bHadBytes;                /* pbByte was not null */
    size_t lLength;
    unsigned char abBytes[256];   /* first bytes of pbByte, or of the file */
    int bFileExisted;             /* for a file scan: the file could be opened */
    size_t lFileSize;
    int bHadScanInfoPtr;          /* ppScanInfo was not null */
    PEL_CALLBACK sCallback;       /* copy of *pCallback (zero when null) */
    const void* pInit;            /* the PEL_INIT passed */
    const void* pOptParams;       /* the PEL_OPTPARAMS passed */
} TPEL_LAST_SCAN;
/* Copies the last request into *out; 0 when no scan happened yet. */
int tpel_last_scan(TPEL_LAST_SCAN* out);

/* ---- Scripted scan outcome (applies to every following scan) ----------------- */
/* Empties the script: rc 0, no records, counters all zero (and following the
 * lists again), no events, no cleaned bytes, no_scaninfo/null_arrays off. */
void tpel_script_clear(void);
void tpel_script_rc(int rc);
/* Counters of the PEL_SCANINFO; by default they follow the scripted lists
 * (uiScanned = content entries, uiInfections, uiScanErrors, uiNotScanned 0,
 * uiClean = content entries - infections - errors, at least 0). Calling this fixes
 * them, so a count can be larger than its array (hostile adapter). */
void tpel_script_counts(uint32_t scanned, uint32_t notScanned, uint32_t clean,
                        uint32_t infections, uint32_t scanErrors);
/* 1: PelScan sets *ppScanInfo to null (no result record). */
void tpel_script_no_scaninfo(int on);
/* 1: the lists are returned as null pointers even when counts are non-zero. */
void tpel_script_null_arrays(int on);
void tpel_script_infection(const char* virusName, const char* objectName, uint32_t virusId,
                           int repairable, size_t objectSize, const char* freeText);
void tpel_script_scan_error(const char* objectName, int errorRc, const char* errorText,
                            size_t objectSize);
void tpel_script_content(const char* objectName, const char* extension,
                         const char* contentType, const char* charSet, uint32_t objectType,
                         size_t objectSize);
/* Cleaned bytes returned in pbBytesCleaned/lBytesCleaned; for a bytes scan with
 * the clean bit they are also copied over pbByte (at most lLength bytes). */
void tpel_script_cleaned(const void* bytes, size_t length);

/* The default content entry (tpel_reset) names the scanned object: its name,
 * the extension after the last '.' of the name's last component, content type
 * "application/octet-stream", character set "", type 0, the scanned size. */

/* Events sent through the callback during PelScan, in order, when the callback
 * is set and the message is in its mask (unless force is 1: sent regardless).
 * Data by message: VIRUS/REPAIRED the PEL_VIRUSINFO of scripted infection
 * `index`; NOTSCANNED/NOTREPAIRED the PEL_SCANERROR of scripted error `index`;
 * OBJECTFOUND/ERROR the text; others (void*)(uintptr_t)number. An index with
 * no scripted record, or a null text, gives null data. The records live for the
 * call only. When the callback returns non-zero no further event is sent and
 * the scan ends at once with MAV_E_CBC_TERMINATED (17), no result record and no
 * cleaned bytes. */
void tpel_script_event(uint32_t message, int index, const char* text, uint64_t number,
                       int force);
/* Codes the callbacks returned during the last scan, in order; returns count. */
int tpel_event_results(int32_t* out, int max);

/* Engine record returned by PelInit. */
void tpel_set_engine(uint16_t major, uint16_t minor, const char* versionText, int64_t date,
                     uint32_t viruses);
void tpel_add_driver(const char* name, uint16_t major, uint16_t minor, int64_t date,
                     uint32_t viruses, uint32_t variants, int32_t driverRc);

/* ---- Further scripting and inspection -------------------------------------- */
/* Object size placeholder for tpel_script_infection/scan_error/content: the
 * size of the scanned object (the file's size for a file scan, else lLength). */
#define TPEL_SIZE_OF_OBJECT ((size_t)-1)

/* PelEnd / PelReleaseScan calls with a record this adapter does not hold alive
 * (double release, foreign pointer). Such calls return MAV_E_INVALID_PARAM (3)
 * and touch nothing. Reset by tpel_reset. */
uint32_t tpel_bad_releases(void);

/* Highest number of PelScan calls running at the same time since tpel_reset. */
uint32_t tpel_max_concurrent_scans(void);

/* Failure injection, per entry point: PelStartup, PelGetConfig (pointer still
 * set), PelCleanup, PelScan (request recorded, no events, *ppScanInfo null)
 * just return the code; PelReleaseScan and PelEnd return it and free nothing. */

#ifdef __cplusplus
}
#endif

#endif
