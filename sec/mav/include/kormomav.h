/*
 * kormomav.h - the C interface of libkormomav.
 *
 * One stable interface in front of virus-scanning engines. A caller starts the
 * library for one adapter with MavInit, takes instances from the handle (or a
 * profile instance from the profile runtime), scans files and buffers, reads
 * what was found, and ends the handle with MavEnd.
 *
 * Conventions:
 *  - Every function that can fail returns a MAV_RC: 0 success, 1..32 a failure
 *    of the call, -1..-6 a scan verdict (the scan ran; fetch its findings).
 *    MavErrorName and MavErrorDescription give a text for every code.
 *  - Where an argument is called "handle" it may be a handle (MAV_HANDLE), an
 *    instance (MAV_INST) or a profile instance; records are told apart by their
 *    size and marks, and a released record is refused with
 *    MAV_E_INVALID_HANDLE.
 *  - KORMO_CHAR is an 8-bit character in the process code page (UTF-8 unless
 *    set otherwise with MavSetProcessCodePage).
 *  - Text outputs are a buffer and the address of its size in KORMO_CHAR units.
 *    A null buffer with a size pointer asks for the size needed
 *    (3 x UTF-8 length + 3); a filled buffer gets the length written; on failure
 *    the buffer is emptied and the size set to 0. A null size pointer skips the
 *    text.
 *  - All functions are thread safe; one instance scans on one thread at a time.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KORMOMAV_H
#define KORMOMAV_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "kormoexport.h"
#include "kormotypes.h"

#ifdef __cplusplus
extern "C" {
#endif


/* ---- Version ---------------------------------------------------------------- */

/* The version of this header. MavGetVersion gives the version of the library
 * actually loaded, which may be newer (same major number: same ABI). */
#define KORMOMAV_VERSION_MAJOR 1
#define KORMOMAV_VERSION_MINOR 1
#define KORMOMAV_VERSION_PATCH 0
#define KORMOMAV_VERSION "1.1.0"
#define KORMOMAV_VERSION_NUM \
    ((KORMOMAV_VERSION_MAJOR << 16) | (KORMOMAV_VERSION_MINOR << 8) | KORMOMAV_VERSION_PATCH)

/* ---- Basic types ------------------------------------------------------------ */

typedef char KORMO_CHAR;
typedef KORMO_CHAR KORMO_UC;

/* Result of every call (see the codes below). */
typedef int32_t MAV_RC;

/* A started adapter; from MavInit, ended with MavEnd. */
typedef void* MAV_HANDLE;
/* A scan instance or a profile instance handle. */
typedef void* MAV_INST;

/* Program results (0 and up). */
#define MAV_OK 0
#define MAV_E_NO_SPACE 1
#define MAV_E_NULL_PARAM 2
#define MAV_E_INVALID_PARAM 3
#define MAV_E_INVALID_HANDLE 4
#define MAV_E_NOT_INITIALISED 5
#define MAV_E_EXPIRED 6
#define MAV_E_LOAD_FAILED 7
#define MAV_E_BAD_EXPRESSION 8
#define MAV_E_DRIVER_FAILED 9
#define MAV_E_NOT_SUPPORTED 10
#define MAV_E_INVALID_SCANOBJECT 11
#define MAV_E_CIO_FAILED 12
#define MAV_E_SCAN_FAILED 13
#define MAV_E_NOT_SCANNED 14
#define MAV_E_END_FAILED 15
#define MAV_E_IN_PROGRESS 16
#define MAV_E_CBC_TERMINATED 17
#define MAV_E_PEL_LOAD_FAILED 18
#define MAV_E_INVALID_PARAM_TYPE 19
#define MAV_E_PARAM_UNSUPPORTED 20
#define MAV_E_SCANPAR_UNSUPPORTED 21
#define MAV_E_OBJPAR_UNSUPPORTED 22
#define MAV_E_CONVERSION_FAILED 23
#define MAV_E_XML_CONFIG_FAILED 24
#define MAV_E_INVALID_ENUM_INDEX 25
#define MAV_E_BUFFER_TOO_SHORT 26
#define MAV_E_NO_SCANINFO 27
#define MAV_E_NO_PROFILE_DEFINED 28
#define MAV_E_PROFILE_NOT_FOUND 29
#define MAV_E_PROFILE_NOT_ACTIVE 30
#define MAV_E_PROFILE_NOT_VALID 31
#define MAV_E_NO_DEFAULT_PROFILE 32
/* Scan verdicts (below 0). */
#define MAV_E_CLEAN_OK (-1)
#define MAV_E_VIRUS_FOUND (-2)
#define MAV_E_MACRO_FOUND (-3)
#define MAV_E_PATTERN_FOUND (-4)
#define MAV_E_CLEAN_FAILED (-5)
#define MAV_E_BLOCKED_BY_POLICY (-6)

/* Summary of one scan; struct_size must be 32. */
typedef struct MAV_SCANINFO {
    size_t struct_size;
    uint32_t uiJobID;
    uint32_t uiScanned;
    uint32_t uiNotScanned;
    uint32_t uiClean;
    uint32_t uiInfections;
    uint32_t uiScanErrors;
} MAV_SCANINFO;

/* Records handed to event handlers: the adapter's layouts, texts converted to
 * KORMO_CHAR and valid for the duration of the handler call. */
typedef PEL_VIRUSINFO MAV_VIRUSINFO;
typedef PEL_SCANERROR MAV_SCANERROR;

/* Single event handler: called for every message in the registered mask. */
typedef VS_CALLRC (*MAV_EVENT_HANDLER)(MAV_INST inst, uint32_t message, void* data,
                                       void* userData);
/* Events-table handler. */
typedef VS_CALLRC (*MAV_EVENT_FN)(MAV_INST inst, void* userData, void* data);

/* Events table: one handler per message; null slots are not called.
 * data: VIRUS/REPAIRED a MAV_VIRUSINFO*; NOTSCANNED/NOTREPAIRED a
 * MAV_SCANERROR* (both routed to OnVirusNotRepaired); OBJECTFOUND/ERROR a
 * KORMO_CHAR text; the others the adapter's value as an unsigned 32-bit number. */
typedef struct MAV_EVENTS {
    MAV_EVENT_FN OnVirusFound;       /* VS_M_VIRUS */
    MAV_EVENT_FN OnClean;            /* VS_M_CLEAN */
    MAV_EVENT_FN OnError;            /* VS_M_ERROR */
    MAV_EVENT_FN OnObjectFound;      /* VS_M_OBJECTFOUND */
    MAV_EVENT_FN AbortScan;          /* VS_M_ABORTSCAN */
    MAV_EVENT_FN OnNotScanned;       /* VS_M_NOTSCANNED (never called) */
    MAV_EVENT_FN OnVirusRepaired;    /* VS_M_REPAIRED */
    MAV_EVENT_FN OnVirusNotRepaired; /* VS_M_NOTREPAIRED and VS_M_NOTSCANNED */
    MAV_EVENT_FN OnMacrosCleaned;    /* VS_M_MACROSCLEANED */
    MAV_EVENT_FN OnMacrosFound;      /* VS_M_CONTAINMACROS */
    MAV_EVENT_FN ScanActions;        /* VS_M_SCANACTIONS */
    MAV_EVENT_FN ScanProgress;       /* VS_M_SCANPROGRESS */
} MAV_EVENTS;

/* Memory hooks: allocate (zero-filled when the low byte of clean is non-zero),
 * reallocate, free. tag names the requester; the library passes "mav". */
typedef void* (*MAV_ALLOC_FN)(size_t size, int clean, const char* tag);
typedef void* (*MAV_REALLOC_FN)(void* ptr, size_t size, const char* tag);
typedef void (*MAV_FREE_FN)(void* ptr);

/* Trace handler: receives every trace line instead of the trace file. */
typedef int (*MAV_TRACE_HANDLER)(const char* sourceFile, const char* functionName, int line,
                                 uint32_t level, const char* text);

/* Trace level bits. */
#define MAV_TRC_ERROR 0x2u
#define MAV_TRC_WARNING 0x4u
#define MAV_TRC_INFO 0x8u
#define MAV_TRC_MEMORY 0x10u
#define MAV_TRC_PEL 0x20u
#define MAV_TRC_FUNCTION 0x40u
#define MAV_TRC_THREAD 0x80u
#define MAV_TRC_PARAM 0x100u
#define MAV_TRC_VIRUS 0x200u
#define MAV_TRC_EVENT 0x400u
#define MAV_TRC_JNI 0x4000u

/* ---- Start-up and shutdown ---------------------------------------------------- */

/* Loads the adapter (adapterPath; null or empty: $PEL_LIB, else the default
 * adapter libkormopel.so, then libkormocsa.so, each looked for beside the
 * library, in its folder kormomav/, then through the loader), starts it and
 * stores a new handle in *phdl; returns MAV_OK. On failure returns
 * MAV_E_NULL_PARAM (phdl null), MAV_E_NO_SPACE, MAV_E_PEL_LOAD_FAILED (the file
 * or an entry point could not be loaded), MAV_E_NOT_SUPPORTED (an interface
 * version above 2) or the adapter's start-up failure code; *phdl may then still
 * hold a handle whose error list tells why (MavAdapterErrorText): end it with
 * MavEnd. The caller owns the handle until MavEnd. Thread safe. */
MAV_API MAV_RC MavInit(const KORMO_CHAR* adapterPath, MAV_HANDLE* phdl);

/* Ends a handle: frees its pooled instances, ends its engine and, for the
 * last handle of an adapter, the adapter; sets *phdl to null and returns
 * MAV_OK (also when *phdl is already null). Returns MAV_E_INVALID_HANDLE for a
 * null phdl or an ended or unknown handle, and MAV_E_IN_PROGRESS while
 * instances are handed out (nothing changes: retry after freeing them). */
MAV_API MAV_RC MavEnd(MAV_HANDLE* phdl);

/* Restarts the engine instances of one handle, or of every handle when hdl
 * is null, so that new signatures take effect; returns MAV_OK. Returns
 * MAV_E_INVALID_HANDLE for an ended or unknown handle, MAV_E_IN_PROGRESS while
 * instances are in use (nothing changes), or the adapter's failure code. */
MAV_API MAV_RC MavReload(MAV_HANDLE hdl);

/* Sets the process code page from a 4-character name ("1208" UTF-8, "0819"
 * ISO-8859-1, "1252"), or from the environment when codePage is null. Returns
 * 1 on success, 0 for an unknown or malformed name (the code page stays). */
MAV_API int MavSetProcessCodePage(const KORMO_CHAR* codePage);

/* Returns the current process code page's name: static, never null, not to be
 * freed. */
MAV_API const KORMO_CHAR* MavGetProcessCodePage(void);

/* ---- Handles, instances and pools --------------------------------------------- */

/* Returns the handle that a handle, instance or profile instance belongs to,
 * or null for anything else (null, ended, unknown). Does not take ownership. */
MAV_API MAV_HANDLE MavGetHandle(void* hdl);

/* Returns the first registered handle whose name begins with the length bytes
 * of name, or null when none does (or name is null). Ownership stays with
 * whoever started the handle. */
MAV_API MAV_HANDLE MavGetHandleByName(const KORMO_CHAR* name, size_t length);

/* Names a handle with the length bytes of name (copied); returns MAV_OK.
 * Returns MAV_E_NULL_PARAM (name null), MAV_E_INVALID_HANDLE (not a live
 * handle) or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetHandleName(MAV_HANDLE hdl, const KORMO_CHAR* name, size_t length);

/* Stores in *pinst a free pooled instance, or a new one (pooled while the pool
 * has room, else listed), with the handle's current parameters; returns
 * MAV_OK. On failure *pinst is null and the result is MAV_E_NULL_PARAM,
 * MAV_E_INVALID_HANDLE, MAV_E_NO_SPACE, MAV_E_NOT_INITIALISED (the adapter's
 * instance start failed: see MavAdapterErrorText) or MAV_E_PEL_LOAD_FAILED.
 * The caller gives the instance back with MavFreeInstance before MavEnd. */
MAV_API MAV_RC MavCreateInstance(MAV_HANDLE hdl, MAV_INST* pinst);

/* Returns the first free pooled instance; while the pool is still growing it
 * also creates one more and returns that instead (the first stays marked in
 * use until the handle ends). Null when nothing is free or on any failure.
 * Give it back with MavFreeInstance. */
MAV_API MAV_INST MavGetInstance(MAV_HANDLE hdl);

/* Gives an instance back: a pooled one returns to its pool (*pinst is left as
 * it is), a listed one is ended (*pinst becomes null), a profile instance is
 * freed. Returns MAV_OK, also for a null *pinst; MAV_E_NULL_PARAM for a null
 * pinst; MAV_E_INVALID_HANDLE for a record already given back; or the
 * adapter's failure code from releasing the last results. */
MAV_API MAV_RC MavFreeInstance(MAV_INST* pinst);

/* MavFreeInstance on a copy of the pointer: same results; null gives MAV_OK. */
MAV_API MAV_RC MavFreeInstancePointer(MAV_INST inst);

/* Sets a handle's pool size (growing reserves room; shrinking only lowers the
 * size, instances beyond it are ended as they come back); returns MAV_OK.
 * Returns MAV_E_INVALID_HANDLE or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetPoolSize(MAV_HANDLE hdl, size_t size);

/* Returns a handle's configured pool size, 0 for anything else. */
MAV_API size_t MavGetPoolSize(MAV_HANDLE hdl);

/* Sets the pool size to size (not smaller than the current one) and fills
 * the pool with free instances, each starting from the handle's current
 * parameters (setDefaults 1: from the adapter's defaults); returns MAV_OK.
 * Returns MAV_E_INVALID_PARAM (size 0 or smaller than the pool),
 * MAV_E_INVALID_HANDLE, MAV_E_NO_SPACE or the adapter's instance start
 * failure (the instances made so far stay pooled). */
MAV_API MAV_RC MavLoadPool(MAV_HANDLE hdl, size_t size, uint32_t setDefaults);

/* Ends every pooled instance and empties the pool; returns MAV_OK. Returns
 * MAV_E_INVALID_HANDLE, or MAV_E_IN_PROGRESS while a pooled instance is handed
 * out (nothing changes). */
MAV_API MAV_RC MavFreePool(MAV_HANDLE hdl);

/* ---- Parameters --------------------------------------------------------------- */

/* Returns the code of a parameter name (matched without regard to case), -1
 * for an unknown name, -100 for an unknown name beginning with "CUST". */
MAV_API int32_t MavParamCode(const KORMO_CHAR* name);

/* Returns the name of a parameter code, "UNKNOWN" for other codes. Static. */
MAV_API const KORMO_CHAR* MavParamCodeName(int32_t code);

/* Returns the type of a type name ("BOOL" .. "OBJECT", without regard to
 * case), -1 for an unknown name. */
MAV_API int32_t MavParamType(const KORMO_CHAR* typeName);

/* Returns the name of a type 0..10, null for other values. Static. */
MAV_API const KORMO_CHAR* MavParamTypeName(int32_t type);

/* Stores a parameter of a handle or instance as text in value (caller buffer
 * rules above) and its type in *type when type is not null; returns MAV_OK.
 * Returns MAV_E_NULL_PARAM, MAV_E_INVALID_HANDLE, MAV_E_PARAM_UNSUPPORTED (the
 * adapter has no such parameter; the handle's error text names it),
 * MAV_E_BUFFER_TOO_SHORT or MAV_E_CONVERSION_FAILED; value is then emptied. */
MAV_API MAV_RC MavGetParameter(void* hdl, const KORMO_CHAR* name, int32_t* type,
                               KORMO_CHAR* value, size_t* valueLength);

/* Sets a parameter from its text (type must be the adapter's type for it);
 * null text resets it to the adapter's default; returns MAV_OK. On an
 * instance the first change gives the instance its own copy of the handle's
 * current parameters, and the handle stays untouched. Returns
 * MAV_E_NULL_PARAM, MAV_E_INVALID_HANDLE, MAV_E_PARAM_UNSUPPORTED (unknown
 * name; the handle's error text names it), MAV_E_INVALID_PARAM_TYPE,
 * MAV_E_INVALID_PARAM (a value the type cannot hold), MAV_E_NO_SPACE or
 * MAV_E_CONVERSION_FAILED; the parameter then keeps its value. */
MAV_API MAV_RC MavSetParameter(void* hdl, const KORMO_CHAR* name, int32_t type,
                               const KORMO_CHAR* value);

/* Stores the name, type and value of the parameter at index (init parameters
 * first, then the optional ones) in the caller's buffers; returns MAV_OK.
 * Returns MAV_E_INVALID_ENUM_INDEX past the last one, MAV_E_NULL_PARAM,
 * MAV_E_INVALID_HANDLE, MAV_E_BUFFER_TOO_SHORT or MAV_E_CONVERSION_FAILED. */
MAV_API MAV_RC MavEnumParameters(void* hdl, uint32_t index, KORMO_CHAR* name,
                                 size_t* nameLength, int32_t* type, KORMO_CHAR* value,
                                 size_t* valueLength);

/* Copies every adapter default back into the handle's or instance's
 * parameters; returns MAV_OK, or MAV_E_NULL_PARAM, MAV_E_INVALID_HANDLE,
 * MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetDefaultConfig(void* hdl);

/* ---- Events ------------------------------------------------------------------- */

/* Registers an events table (copied) for a handle or instance; the message
 * mask follows its non-null slots, and a table without handlers switches
 * events off. Returns MAV_OK, or MAV_E_NULL_PARAM, MAV_E_INVALID_HANDLE,
 * MAV_E_NOT_INITIALISED, MAV_E_NOT_SUPPORTED (the adapter sends none of the
 * messages), MAV_E_NO_SPACE. Handlers run on the scanning thread during the
 * scan; a non-zero return stops the scan (MAV_E_CBC_TERMINATED). */
MAV_API MAV_RC MavRegisterEvents(void* hdl, const MAV_EVENTS* events, void* userData);

/* Registers one handler for the messages in messageMask (VS_M_*); a mask of 0
 * switches events off. Results as MavRegisterEvents. */
MAV_API MAV_RC MavRegisterSingleEventHandler(void* hdl, MAV_EVENT_HANDLER handler,
                                             uint32_t messageMask, void* userData);

/* ---- Scans ------------------------------------------------------------------------ */

/* Scans a file with the instance's default actions. Returns MAV_OK when the
 * engine scanned it and found nothing, a verdict below 0 when it found
 * something (MavEnumInfections tells what), or a failure above 0 when it
 * could not scan it (never MAV_OK then): MAV_E_NULL_PARAM,
 * MAV_E_INVALID_HANDLE, MAV_E_NOT_INITIALISED, MAV_E_NOT_SCANNED (a limit, an
 * object the settings do not open, no engine reached), MAV_E_SCAN_FAILED,
 * MAV_E_CBC_TERMINATED (stopped by a handler) and the adapter's other codes.
 * scanInfo, when not null, must have struct_size 32 (else
 * MAV_E_INVALID_HANDLE) and receives the summary. The results stay with the
 * instance until its next scan or release. */
MAV_API MAV_RC MavScanFile(void* hdl, const KORMO_CHAR* fileName, uint32_t jobId,
                           MAV_SCANINFO* scanInfo);

/* As MavScanFile with VS_A_CLEAN added to the default actions: the engine
 * repairs the file where it can (MAV_E_CLEAN_OK, or MAV_E_CLEAN_FAILED). */
MAV_API MAV_RC MavCleanFile(void* hdl, const KORMO_CHAR* fileName, uint32_t jobId,
                            MAV_SCANINFO* scanInfo);

/* Scans length bytes in memory (read only), named objectName in the results;
 * results as MavScanFile. Adapters that cannot scan memory get a private
 * temporary file that is removed on every outcome. */
MAV_API MAV_RC MavScanBytes(void* hdl, const KORMO_CHAR* objectName, unsigned char* bytes,
                            size_t length, uint32_t jobId, MAV_SCANINFO* scanInfo);

/* Scans and cleans bytes in place; on MAV_E_CLEAN_OK *length holds the
 * cleaned length (never more than before). Results as MavScanFile. */
MAV_API MAV_RC MavCleanBytes(void* hdl, const KORMO_CHAR* objectName, unsigned char* bytes,
                             size_t* length, uint32_t jobId, MAV_SCANINFO* scanInfo);

/* The general scan: scanCode VS_SC_BYTES or VS_SC_FILE, actionCode VS_A_*
 * bits (0: the configured default), the object named in UTF-8
 * (objectNameUtf8) or in KORMO_CHAR; bytes and *length for VS_SC_BYTES.
 * Results as MavScanFile, plus MAV_E_SCANPAR_UNSUPPORTED for a scan code the
 * adapter does not offer and MAV_E_CONVERSION_FAILED for a name that is not
 * valid in the process code page. */
MAV_API MAV_RC MavScanClean(void* hdl, uint32_t scanCode, uint32_t actionCode,
                            const char* objectNameUtf8, const KORMO_CHAR* objectName,
                            unsigned char* bytes, size_t* length, uint32_t jobId,
                            MAV_SCANINFO* scanInfo);

/* Reads up to *length bytes of a file into buffer and stores the count in
 * *length; returns MAV_OK, or MAV_E_NULL_PARAM, MAV_E_CIO_FAILED. */
MAV_API MAV_RC MavPXBytesFromTempFile(const char* path, unsigned char* buffer, size_t* length);

/* ---- Results and adapter information ------------------------------------------------ */

/* Stores the infection at index of the instance's last scan in the outputs
 * (any may be null; texts follow the caller buffer rules); returns MAV_OK.
 * Returns MAV_E_INVALID_ENUM_INDEX past the last one, MAV_E_NO_SCANINFO when
 * no results are held (no scan yet, or CUST_NO_SCANINFO), MAV_E_INVALID_HANDLE
 * or MAV_E_NOT_INITIALISED. */
MAV_API MAV_RC MavEnumInfections(void* hdl, uint32_t index, uint8_t* repairable,
                                 uint32_t* virusId, KORMO_CHAR* virusName,
                                 size_t* virusNameLength, KORMO_CHAR* objectName,
                                 size_t* objectNameLength, uint64_t* objectSize,
                                 KORMO_CHAR* freeText, size_t* freeTextLength);

/* Stores the scan error at index of the last scan; results as
 * MavEnumInfections. */
MAV_API MAV_RC MavEnumScanErrors(void* hdl, uint32_t index, uint32_t* errorCode,
                                 KORMO_CHAR* errorText, size_t* errorTextLength,
                                 KORMO_CHAR* objectName, size_t* objectNameLength,
                                 uint64_t* objectSize);

/* Stores the content information at index of the last scan; results as
 * MavEnumInfections. Without any content list in the result every output is
 * cleared and MAV_OK returned; reserved is only cleared. */
MAV_API MAV_RC MavEnumContentInfo(void* hdl, uint32_t index, uint32_t* objectType,
                                  KORMO_CHAR* extension, size_t* extensionLength,
                                  KORMO_CHAR* contentType, size_t* contentTypeLength,
                                  KORMO_CHAR* objectName, size_t* objectNameLength,
                                  uint64_t* reserved);

/* Stores the engine driver at index (version major << 16 | minor); returns
 * MAV_OK, MAV_E_INVALID_ENUM_INDEX past the last one, or MAV_E_INVALID_HANDLE
 * when the handle has no running engine. Safe against a concurrent reload. */
MAV_API MAV_RC MavEnumDriverInfo(void* hdl, uint32_t index, uint32_t* version,
                                 KORMO_CHAR* name, size_t* nameLength, uint64_t* date,
                                 uint32_t* viruses);

/* Stores the adapter's version (major << 16 | minor), parameter count, the
 * event messages it sends, its name and vendor text; returns MAV_OK, or
 * MAV_E_INVALID_HANDLE. */
MAV_API MAV_RC MavGetPelInfo(void* hdl, uint32_t* version, uint32_t* parameters,
                             uint32_t* eventFlags, KORMO_CHAR* adapterName,
                             size_t* adapterNameLength, KORMO_CHAR* vendorInfo,
                             size_t* vendorInfoLength);

/* Stores the adapter's identity, thread model, interface version and
 * capability flags; returns MAV_OK, or MAV_E_INVALID_HANDLE. */
MAV_API MAV_RC MavGetPelTechInfo(void* hdl, uint32_t* adapterId, uint32_t* threadModel,
                                 uint16_t* mavVersion, uint32_t* scanFlags,
                                 uint32_t* actionFlags, uint32_t* cioFlags);

/* Stores the engine's version (major << 16 | minor), version text, date,
 * signature count and driver count; returns MAV_OK, or MAV_E_INVALID_HANDLE
 * when the handle has no running engine. Safe against a concurrent reload. */
MAV_API MAV_RC MavGetEngineInfo(void* hdl, uint32_t* version, KORMO_CHAR* versionText,
                                size_t* versionTextLength, uint64_t* date, uint32_t* viruses,
                                uint16_t* drivers);

/* The lists MavGetListInfo reads (the bit values of the Java bridge's kinds). */
#define MAV_LIST_DRIVERS 1u     /* the engine's drivers (MavEnumDriverInfo) */
#define MAV_LIST_INFECTIONS 2u  /* the last scan's infections (MavEnumInfections) */
#define MAV_LIST_SCAN_ERRORS 4u /* the last scan's scan errors (MavEnumScanErrors) */
#define MAV_LIST_CONTENT 8u     /* the last scan's content information (MavEnumContentInfo) */

/* Stores the number of entries of one list of an instance, profile instance
 * or handle in *count and, when index is below it, the job id and object size
 * of the entry at index in *jobId and *objectSize (a driver has neither: 0);
 * any output may be null and is set to 0 first. Returns MAV_OK. Returns
 * MAV_E_INVALID_HANDLE when no engine stands behind hdl (for MAV_LIST_DRIVERS
 * also when the engine record names no engine); MAV_E_NO_SCANINFO when the
 * list is absent: no scan results held, or the adapter gave no such list (for
 * MAV_LIST_DRIVERS: no driver list); MAV_E_INVALID_PARAM for another list;
 * MAV_E_NULL_PARAM for a null hdl. The entries are read under the handle's
 * lock, so the call is safe against a concurrent reload; results of one
 * instance are read by the thread that scans with it. */
MAV_API MAV_RC MavGetListInfo(void* hdl, uint32_t list, uint32_t index, uint32_t* count,
                              uint32_t* jobId, uint64_t* objectSize);

/* Frees a two-level allocation the library handed out and sets *ptr to null;
 * null ptr or *ptr does nothing. */
MAV_API void MavPFreeInfo(void** ptr);

/* Frees a buffer the library allocated for the caller (MavAdapterErrorText's
 * replacement buffer) through the memory hooks; null does nothing. */
MAV_API void MavFreeBuffer(void* buffer);

/* ---- Codes and error texts ------------------------------------------------------------- */

/* Returns the symbolic name of a code ("MAV_E_NOT_SCANNED"), "Unknown ERROR"
 * for a code without one. Static, never null. */
MAV_API const char* MavErrorName(MAV_RC rc);

/* Returns the loaded library's version as text ("1.1.0"): static storage,
 * never null, never to be freed. Stores the version as KORMOMAV_VERSION_NUM
 * would give it in *num when num is not null. Needs no MavInit; any thread. */
MAV_API const char* MavGetVersion(uint32_t* num);

/* Returns a one-line description of a code, "Unknown ERROR" for a code
 * without one. Static, never null. */
MAV_API const char* MavErrorDescription(MAV_RC rc);

/* Returns the engine's own error code of the handle's latest failure,
 * 0xFFFFFFFF when there is none. */
MAV_API uint32_t MavAdapterErrorCode(void* hdl);

/* Stores the handle's latest failure text (the adapter's message, or the
 * library's) in *textBuffer, the caller's buffer of *textLength bytes; a
 * buffer too small is replaced by a new one of the text's length + 2 bytes,
 * allocated through the memory hooks and owned by the caller (the caller's
 * old buffer is not freed). Returns MAV_OK, or MAV_E_NULL_PARAM,
 * MAV_E_INVALID_HANDLE, MAV_E_NO_SPACE. */
MAV_API MAV_RC MavAdapterErrorText(void* hdl, KORMO_CHAR** textBuffer, size_t* textLength);

/* ---- Memory hooks ------------------------------------------------------------------- */

/* Replaces the memory hooks; all three are required (else
 * MAV_E_NULL_PARAM). Set once, before any handle exists: every record is
 * freed through the hook that allocated it. */
MAV_API MAV_RC MavRegisterMmCallbacks(MAV_ALLOC_FN allocFn, MAV_REALLOC_FN reallocFn,
                                      MAV_FREE_FN freeFn);

/* ---- Trace ---------------------------------------------------------------------------- */

/* Writes one trace line (printf format; the message brings its line end) to
 * the trace handler or stream, if any. Callers test the level first. */
MAV_API void MavPPrintTrace(uint32_t level, const char* sourceFile, const char* functionName,
                            int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* Sets the trace level bit mask (0: off); returns MAV_OK, or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetTraceLevel(uint32_t level);

/* Returns the trace level bit mask. */
MAV_API uint32_t MavGetTraceLevel(void);

/* Maps a basis level 0..3 onto the library's and the kernel's trace levels;
 * returns MAV_OK, or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetBasisTraceLevel(uint32_t basis);

/* A non-null stream becomes the trace stream and the kernel trace stream
 * (null changes nothing). The library takes it over: MavDeactivateTrace and
 * MavActivateTrace close it (never stdin, stdout or stderr). A stream that
 * MavActivateTrace opened is closed when replaced. Without any stream the
 * library writes nothing, unless the environment asks: KORMO_TRACE=stderr or
 * KORMO_TRACE=/path/file (appended to), with KORMO_TRACE_LEVEL=<level bits>,
 * read by the first MavInit of the process. Returns MAV_OK once no line is
 * being written to the stream it replaced (the caller may then close a stream
 * of its own that it replaced), or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetTraceFile(FILE* stream);

/* Returns the library's trace stream, else the kernel trace stream, else null. */
MAV_API FILE* MavGetTraceFile(void);

/* Routes trace lines to handler instead of the stream (null: back to the
 * stream); returns MAV_OK, or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavSetTraceHandler(MAV_TRACE_HANDLER handler);

/* Opens fileName afresh for the trace (an existing file is kept as
 * fileName.old) with a basis level; null or empty deactivates the trace.
 * MAV_E_INVALID_PARAM when the file cannot be opened (the trace then has no
 * library stream). */
MAV_API MAV_RC MavActivateTrace(const KORMO_CHAR* fileName, uint32_t basis);

/* Closes the library's trace stream and switches the trace off; returns
 * MAV_OK, or MAV_E_NO_SPACE. */
MAV_API MAV_RC MavDeactivateTrace(void);

/* ---- Profile runtime ---------------------------------------------------------------- */

/* Starts the profile runtime from config: null or length 0 reads
 * "mav.properties" in the working directory, else the built-in default; a
 * text that names a readable file reads that file; any other text is read as
 * properties (docs/configuration.md). Returns MAV_OK (also when already
 * started), MAV_E_NOT_INITIALISED when nothing could be read, or
 * MAV_E_NO_SPACE. Called by one thread while nothing else uses profiles. */
MAV_API MAV_RC MavStartRuntime(const char* config, size_t length);

/* Stops the runtime, ending every provider's handle; always MAV_OK. Profile
 * instances must have been freed. */
MAV_API MAV_RC MavStopRuntime(void);

/* Stores in *pinst a profile instance handle for the named profile (null or
 * empty: the default profile); scan, result and free calls accept it like an
 * instance. Returns MAV_OK, or MAV_E_NULL_PARAM, MAV_E_NO_PROFILE_DEFINED,
 * MAV_E_PROFILE_NOT_FOUND, MAV_E_PROFILE_NOT_ACTIVE, MAV_E_PROFILE_NOT_VALID
 * (no instance could be built, or the profile refers to itself),
 * MAV_E_NO_DEFAULT_PROFILE, MAV_E_NO_SPACE; *pinst is then null. Free it with
 * MavFreeInstance. */
MAV_API MAV_RC MavGetProfileInstance(const char* profileName, MAV_INST* pinst);

/* As MavGetProfileInstance, returning the handle (null on any failure). */
MAV_API MAV_INST MavGetProfileInstancePointer(const char* profileName);

#ifdef __cplusplus
}
#endif

#endif /* KORMOMAV_H */
