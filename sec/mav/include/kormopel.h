/*
 * kormopel.h - the adapter interface of libkormomav.
 *
 * An adapter is a shared library that exports the seven entry points declared
 * below and exchanges the records below with libkormomav. Library and adapter
 * are built separately, so every record here is a binary interface for LP64
 * Linux: field order, width, signedness and padding are fixed and checked at
 * compile time at the end of this file. Strings are NUL-terminated UTF-8.
 *
 * Ownership:
 *  - PEL_CONFIG and all it points to belong to the adapter from PelGetConfig
 *    until PelCleanup.
 *  - PEL_INIT and all it points to belong to the adapter from PelInit until
 *    PelEnd for that record.
 *  - PEL_SCANINFO and all it points to belong to the adapter from PelScan until
 *    PelReleaseScan; the library may edit its strings in place.
 *  - PEL_SCANPARAM, PEL_CALLBACK and the parameter lists passed to PelInit and
 *    PelScan belong to the library; the adapter reads them during the call.
 *  - Whoever allocates a record sets its struct_size and zeroes its padding.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KORMOPEL_H
#define KORMOPEL_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kormoexport.h"
#include "kormotypes.h"

#ifdef __cplusplus
extern "C" {
#endif


/* Interface version implemented by this header; adapters report at most 2. */
#define PEL_MAV_VERSION 2

/* VS_CALLRC, VS_M_*, VS_PARAMTYPE_T, the parameter codes, VS_SC_*, VS_A_*,
 * PEL_VIRUSINFO and PEL_SCANERROR: kormotypes.h. */

/* Capability bits of PEL_CONFIG.uiPelScanFlag. */
#define PEL_SCANFLAG_FILE 0x1u
#define PEL_SCANFLAG_MEMORY 0x2u /* the adapter scans objects held in memory */

/* ---- Records --------------------------------------------------------------- */

typedef struct PEL_ADAPTERINFO {
    size_t struct_size;          /* 56 */
    uint32_t uiAdapterID;        /* vendor's adapter identifier */
    uint32_t uiThreadModel;      /* 1 or 2: one PEL_INIT per handle, shared */
    uint16_t usMavVersion;       /* interface version, at most 2 */
    uint16_t usPelMajorVersion;
    uint16_t usPelMinorVersion;
    uint16_t usPad1;
    const char* pszVendorInfo;   /* may be null */
    const char* pszAdapterName;  /* may be null */
    uint8_t bReserved1;
    uint8_t abPad2[7];
    void* pvReserved2;
} PEL_ADAPTERINFO;

typedef struct PEL_PARAM {
    size_t struct_size; /* 32 */
    int32_t tCode;      /* a VS_PARAMETER_T */
    int32_t tType;      /* a VS_PARAMTYPE_T */
    size_t lLength;     /* CHAR: string length in bytes; others: size of the type */
    void* pvValue;      /* CHAR/OBJECT: UTF-8 string; others: the value itself */
} PEL_PARAM;

typedef struct PEL_PARAMS {
    uint16_t usNumParams;
    uint16_t ausPad[3];
    PEL_PARAM* pParams; /* usNumParams entries, stride 32 */
} PEL_PARAMS;
typedef PEL_PARAMS PEL_INITPARAMS;
typedef PEL_PARAMS PEL_OPTPARAMS;

typedef struct PEL_CONFIG {
    size_t struct_size;             /* 64 */
    PEL_ADAPTERINFO* pAdapterInfo;  /* may be null */
    uint32_t uiPelScanFlag;         /* PEL_SCANFLAG_* */
    uint32_t uiPelActionFlag;       /* VS_A_* bits the adapter supports */
    uint32_t uiPelEventFlag;        /* VS_M_* messages the adapter sends */
    uint32_t uiPelCIOFlag;          /* client-I/O capabilities */
    PEL_PARAMS* pInitParams;        /* may be null */
    PEL_PARAMS* pOptParams;         /* may be null */
    uint8_t bReserved1;
    uint8_t abPad[7];
    void* pvReserved2;
} PEL_CONFIG;
typedef PEL_CONFIG PEL_CFG;

/* The event callback handed to the adapter. adapterData is ignored by the
 * library; context must be passed back as found in PEL_CALLBACK.pvContext. */
typedef VS_CALLRC (*PEL_CALLBACK_FN)(void* adapterData, uint32_t message, void* data,
                                     void* context);

typedef struct PEL_CALLBACK {
    size_t struct_size;           /* 56 */
    PEL_CALLBACK_FN pfnCallback;  /* null: no events wanted */
    uint32_t uiMessageMask;       /* VS_M_* messages the library wants */
    uint32_t uiReserved;
    void* pvContext;              /* pass back on every call */
    void* pvReserved1;
    void* pvReserved2;
    void* pvReserved3;
} PEL_CALLBACK;

typedef struct PEL_DRIVERINFO {
    size_t struct_size; /* 48 */
    const char* pszName;
    uint16_t usDrMajVersion;
    uint16_t usDrMinVersion;
    uint32_t uiPad1;
    int64_t utcDate;
    uint32_t uiViruses;
    uint32_t uiVariants;
    int32_t iDriverRC;
    uint32_t uiPad2;
} PEL_DRIVERINFO;

typedef struct PEL_INIT {
    size_t struct_size;  /* 88 */
    void* hEngine;       /* vendor's engine handle */
    uint32_t uiViruses;
    uint32_t uiExtensions;
    uint32_t uiIntRevision;
    uint32_t uiSignatures;
    uint16_t usDrivers;
    uint16_t ausPad1[3];
    PEL_DRIVERINFO* pDriver; /* usDrivers entries, stride 48; may be null */
    uint16_t usEngineMajVersion;
    uint16_t usEngineMinVersion;
    uint32_t uiPad2;
    const char* pszEngineVersionText;
    int64_t utcDate;
    int32_t iErrorRC;           /* vendor's code when PelInit fails */
    uint32_t uiPad3;
    const char* pszErrorText;   /* vendor's reason when PelInit fails */
} PEL_INIT;

typedef struct PEL_SCANPARAM {
    size_t struct_size;      /* always 48 */
    uint32_t tScanCode;      /* VS_SC_BYTES or VS_SC_FILE */
    uint32_t tActionCode;    /* VS_A_* bits */
    const char* pszObjectName;
    unsigned char* pbByte;   /* in-memory object, else null */
    size_t lLength;          /* object length in bytes */
    uint32_t uiJobID;
    uint32_t uiPad;
} PEL_SCANPARAM;

typedef struct PEL_CONTENTINFO {
    size_t struct_size; /* 80 */
    uint32_t tObjectType;
    uint32_t uiPad1;
    char* pszExtension;
    char* pszContentType;
    char* pszCharSet;
    uint32_t uiJobID;
    uint32_t uiPad2;
    char* pszObjectName;
    size_t lObjectSize;
    size_t match_so;
    size_t match_eo;
} PEL_CONTENTINFO;



typedef struct PEL_SCANINFO {
    size_t struct_size; /* 80 */
    uint32_t uiJobID;
    uint32_t uiScanned;     /* also the number of pContentInfo entries */
    uint32_t uiNotScanned;
    uint32_t uiClean;
    uint32_t uiInfections;  /* entries in pVirusInfo */
    uint32_t uiScanErrors;  /* entries in pScanError */
    PEL_CONTENTINFO* pContentInfo;
    PEL_VIRUSINFO* pVirusInfo;
    PEL_SCANERROR* pScanError;
    unsigned char* pbBytesCleaned;
    size_t lBytesCleaned;
    void* pvReserved1;
} PEL_SCANINFO;

/* ---- Entry points, in slot order ------------------------------------------
 * All return 0 for success, else the adapter's code, which the library passes
 * on as its own result (negative codes are scan verdicts). */

typedef int (*PEL_STARTUP_FN)(void);
typedef int (*PEL_GETCONFIG_FN)(PEL_CONFIG** ppConfig);
typedef int (*PEL_INIT_FN)(PEL_CALLBACK* pCallback, PEL_INITPARAMS* pInitParams,
                           PEL_INIT** ppInit);
/* ppScanInfo is null when the caller wants no results. */
typedef int (*PEL_SCAN_FN)(PEL_INIT* pInit, PEL_CALLBACK* pCallback,
                           PEL_SCANPARAM* pScanParam, PEL_OPTPARAMS* pOptParams,
                           PEL_SCANINFO** ppScanInfo);
/* Frees the results and sets *ppScanInfo to null. */
typedef int (*PEL_RELEASESCAN_FN)(PEL_SCANINFO** ppScanInfo);
/* ppConfig may point to a null pointer (reload: configuration not handed back). */
typedef int (*PEL_END_FN)(PEL_INIT** ppInit, PEL_CONFIG** ppConfig);
typedef int (*PEL_CLEANUP_FN)(void);

PEL_EXPORT int PelStartup(void);
PEL_EXPORT int PelGetConfig(PEL_CONFIG** ppConfig);
PEL_EXPORT int PelInit(PEL_CALLBACK* pCallback, PEL_INITPARAMS* pInitParams, PEL_INIT** ppInit);
PEL_EXPORT int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pScanParam,
                       PEL_OPTPARAMS* pOptParams, PEL_SCANINFO** ppScanInfo);
PEL_EXPORT int PelReleaseScan(PEL_SCANINFO** ppScanInfo);
PEL_EXPORT int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** ppConfig);
PEL_EXPORT int PelCleanup(void);

/* ---- Layout checks ---------------------------------------------------------- */

#if defined(__cplusplus)
#define PEL_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define PEL_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define PEL_CHECK_OFF(t, f, o) PEL_STATIC_ASSERT(offsetof(t, f) == (o), #t "." #f " offset")
#define PEL_CHECK_SIZE(t, s) PEL_STATIC_ASSERT(sizeof(t) == (s), #t " size")

PEL_CHECK_SIZE(PEL_CONFIG, 64);
PEL_CHECK_OFF(PEL_CONFIG, pAdapterInfo, 8);
PEL_CHECK_OFF(PEL_CONFIG, uiPelScanFlag, 16);
PEL_CHECK_OFF(PEL_CONFIG, uiPelActionFlag, 20);
PEL_CHECK_OFF(PEL_CONFIG, uiPelEventFlag, 24);
PEL_CHECK_OFF(PEL_CONFIG, uiPelCIOFlag, 28);
PEL_CHECK_OFF(PEL_CONFIG, pInitParams, 32);
PEL_CHECK_OFF(PEL_CONFIG, pOptParams, 40);
PEL_CHECK_OFF(PEL_CONFIG, bReserved1, 48);
PEL_CHECK_OFF(PEL_CONFIG, pvReserved2, 56);

PEL_CHECK_SIZE(PEL_ADAPTERINFO, 56);
PEL_CHECK_OFF(PEL_ADAPTERINFO, uiAdapterID, 8);
PEL_CHECK_OFF(PEL_ADAPTERINFO, uiThreadModel, 12);
PEL_CHECK_OFF(PEL_ADAPTERINFO, usMavVersion, 16);
PEL_CHECK_OFF(PEL_ADAPTERINFO, usPelMajorVersion, 18);
PEL_CHECK_OFF(PEL_ADAPTERINFO, usPelMinorVersion, 20);
PEL_CHECK_OFF(PEL_ADAPTERINFO, pszVendorInfo, 24);
PEL_CHECK_OFF(PEL_ADAPTERINFO, pszAdapterName, 32);
PEL_CHECK_OFF(PEL_ADAPTERINFO, bReserved1, 40);
PEL_CHECK_OFF(PEL_ADAPTERINFO, pvReserved2, 48);

PEL_CHECK_SIZE(PEL_PARAMS, 16);
PEL_CHECK_OFF(PEL_PARAMS, pParams, 8);

PEL_CHECK_SIZE(PEL_PARAM, 32);
PEL_CHECK_OFF(PEL_PARAM, tCode, 8);
PEL_CHECK_OFF(PEL_PARAM, tType, 12);
PEL_CHECK_OFF(PEL_PARAM, lLength, 16);
PEL_CHECK_OFF(PEL_PARAM, pvValue, 24);

PEL_CHECK_SIZE(PEL_CALLBACK, 56);
PEL_CHECK_OFF(PEL_CALLBACK, pfnCallback, 8);
PEL_CHECK_OFF(PEL_CALLBACK, uiMessageMask, 16);
PEL_CHECK_OFF(PEL_CALLBACK, pvContext, 24);
PEL_CHECK_OFF(PEL_CALLBACK, pvReserved1, 32);
PEL_CHECK_OFF(PEL_CALLBACK, pvReserved3, 48);

PEL_CHECK_SIZE(PEL_INIT, 88);
PEL_CHECK_OFF(PEL_INIT, hEngine, 8);
PEL_CHECK_OFF(PEL_INIT, uiViruses, 16);
PEL_CHECK_OFF(PEL_INIT, uiExtensions, 20);
PEL_CHECK_OFF(PEL_INIT, uiIntRevision, 24);
PEL_CHECK_OFF(PEL_INIT, uiSignatures, 28);
PEL_CHECK_OFF(PEL_INIT, usDrivers, 32);
PEL_CHECK_OFF(PEL_INIT, pDriver, 40);
PEL_CHECK_OFF(PEL_INIT, usEngineMajVersion, 48);
PEL_CHECK_OFF(PEL_INIT, usEngineMinVersion, 50);
PEL_CHECK_OFF(PEL_INIT, pszEngineVersionText, 56);
PEL_CHECK_OFF(PEL_INIT, utcDate, 64);
PEL_CHECK_OFF(PEL_INIT, iErrorRC, 72);
PEL_CHECK_OFF(PEL_INIT, pszErrorText, 80);

PEL_CHECK_SIZE(PEL_DRIVERINFO, 48);
PEL_CHECK_OFF(PEL_DRIVERINFO, pszName, 8);
PEL_CHECK_OFF(PEL_DRIVERINFO, usDrMajVersion, 16);
PEL_CHECK_OFF(PEL_DRIVERINFO, usDrMinVersion, 18);
PEL_CHECK_OFF(PEL_DRIVERINFO, utcDate, 24);
PEL_CHECK_OFF(PEL_DRIVERINFO, uiViruses, 32);
PEL_CHECK_OFF(PEL_DRIVERINFO, uiVariants, 36);
PEL_CHECK_OFF(PEL_DRIVERINFO, iDriverRC, 40);

PEL_CHECK_SIZE(PEL_SCANPARAM, 48);
PEL_CHECK_OFF(PEL_SCANPARAM, tScanCode, 8);
PEL_CHECK_OFF(PEL_SCANPARAM, tActionCode, 12);
PEL_CHECK_OFF(PEL_SCANPARAM, pszObjectName, 16);
PEL_CHECK_OFF(PEL_SCANPARAM, pbByte, 24);
PEL_CHECK_OFF(PEL_SCANPARAM, lLength, 32);
PEL_CHECK_OFF(PEL_SCANPARAM, uiJobID, 40);

PEL_CHECK_SIZE(PEL_SCANINFO, 80);
PEL_CHECK_OFF(PEL_SCANINFO, uiJobID, 8);
PEL_CHECK_OFF(PEL_SCANINFO, uiScanned, 12);
PEL_CHECK_OFF(PEL_SCANINFO, uiNotScanned, 16);
PEL_CHECK_OFF(PEL_SCANINFO, uiClean, 20);
PEL_CHECK_OFF(PEL_SCANINFO, uiInfections, 24);
PEL_CHECK_OFF(PEL_SCANINFO, uiScanErrors, 28);
PEL_CHECK_OFF(PEL_SCANINFO, pContentInfo, 32);
PEL_CHECK_OFF(PEL_SCANINFO, pVirusInfo, 40);
PEL_CHECK_OFF(PEL_SCANINFO, pScanError, 48);
PEL_CHECK_OFF(PEL_SCANINFO, pbBytesCleaned, 56);
PEL_CHECK_OFF(PEL_SCANINFO, lBytesCleaned, 64);
PEL_CHECK_OFF(PEL_SCANINFO, pvReserved1, 72);

PEL_CHECK_SIZE(PEL_CONTENTINFO, 80);
PEL_CHECK_OFF(PEL_CONTENTINFO, tObjectType, 8);
PEL_CHECK_OFF(PEL_CONTENTINFO, pszExtension, 16);
PEL_CHECK_OFF(PEL_CONTENTINFO, pszContentType, 24);
PEL_CHECK_OFF(PEL_CONTENTINFO, pszCharSet, 32);
PEL_CHECK_OFF(PEL_CONTENTINFO, uiJobID, 40);
PEL_CHECK_OFF(PEL_CONTENTINFO, pszObjectName, 48);
PEL_CHECK_OFF(PEL_CONTENTINFO, lObjectSize, 56);
PEL_CHECK_OFF(PEL_CONTENTINFO, match_so, 64);
PEL_CHECK_OFF(PEL_CONTENTINFO, match_eo, 72);

PEL_CHECK_SIZE(PEL_VIRUSINFO, 72);
PEL_CHECK_OFF(PEL_VIRUSINFO, bRepairable, 8);
PEL_CHECK_OFF(PEL_VIRUSINFO, tDetectType, 12);
PEL_CHECK_OFF(PEL_VIRUSINFO, tVirusType, 16);
PEL_CHECK_OFF(PEL_VIRUSINFO, tObjectType, 20);
PEL_CHECK_OFF(PEL_VIRUSINFO, tActionType, 24);
PEL_CHECK_OFF(PEL_VIRUSINFO, uiVirusID, 28);
PEL_CHECK_OFF(PEL_VIRUSINFO, pszVirusName, 32);
PEL_CHECK_OFF(PEL_VIRUSINFO, uiJobID, 40);
PEL_CHECK_OFF(PEL_VIRUSINFO, pszObjectName, 48);
PEL_CHECK_OFF(PEL_VIRUSINFO, lObjectSize, 56);
PEL_CHECK_OFF(PEL_VIRUSINFO, pszFreeTextInfo, 64);

PEL_CHECK_SIZE(PEL_SCANERROR, 48);
PEL_CHECK_OFF(PEL_SCANERROR, uiJobID, 8);
PEL_CHECK_OFF(PEL_SCANERROR, pszObjectName, 16);
PEL_CHECK_OFF(PEL_SCANERROR, lObjectSize, 24);
PEL_CHECK_OFF(PEL_SCANERROR, iErrorRC, 32);
PEL_CHECK_OFF(PEL_SCANERROR, pszErrorText, 40);

PEL_STATIC_ASSERT(sizeof(time_t) == 8 && sizeof(void*) == 8, "LP64 target required");

#ifdef __cplusplus
}
#endif

#endif /* KORMOPEL_H */
