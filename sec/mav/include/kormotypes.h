/*
 * kormotypes.h - what the C interface (kormomav.h) and the adapter interface
 * (kormopel.h) share: the event callback's result, the event messages, the
 * parameter types and codes, the scan and action codes, and the two records
 * that events carry (PEL_VIRUSINFO, PEL_SCANERROR; kormomav.h calls them
 * MAV_VIRUSINFO and MAV_SCANERROR). A caller that only scans needs no other
 * adapter record. Part of the binary interface: see kormopel.h.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KORMOTYPES_H
#define KORMOTYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of an event callback: 0 asks the adapter to go on, anything else to
 * stop the scan (the adapter then returns MAV_E_CBC_TERMINATED, 17). */
typedef int32_t VS_CALLRC;
#define VS_CALLRC_CONTINUE 0
#define VS_CALLRC_STOP 1

/* Event messages: bit values, so that a set of them fits one u32. */
#define VS_M_VIRUS 0x00010000u
#define VS_M_CLEAN 0x00020000u
#define VS_M_ERROR 0x01000000u
#define VS_M_OBJECTFOUND 0x00200000u
#define VS_M_ABORTSCAN 0x02000000u
#define VS_M_NOTSCANNED 0x00040000u
#define VS_M_REPAIRED 0x00080000u
#define VS_M_NOTREPAIRED 0x00100000u
#define VS_M_MACROSCLEANED 0x00400000u
#define VS_M_CONTAINMACROS 0x00800000u
#define VS_M_SCANACTIONS 0x00000001u
#define VS_M_SCANPROGRESS 0x00000002u
#define VS_M_ALL 0xFFFFFFFFu

/* Value types of parameters. */
typedef enum VS_PARAMTYPE_T {
    VS_TYPE_UNKNOWN = -1,
    VS_TYPE_BOOL = 0,
    VS_TYPE_BYTE = 1,
    VS_TYPE_SHORT = 2,
    VS_TYPE_INT = 3,
    VS_TYPE_LONG = 4,
    VS_TYPE_FLOAT = 5,
    VS_TYPE_DOUBLE = 6,
    VS_TYPE_CHAR = 7,
    VS_TYPE_TIME_T = 8,
    VS_TYPE_SIZE_T = 9,
    VS_TYPE_OBJECT = 10
} VS_PARAMTYPE_T;

/* Parameter codes (PEL_PARAM.tCode). Init 0-15, scan 100-120, clean 200-205,
 * block 300-301; the custom codes are the library's own. */
typedef enum __vs_parameter_union {
    VS_P_UNKNOWN = -1,
    VS_P_INITDRIVERS = 0,
    VS_P_INITEXTRADRIVERS = 1,
    VS_P_INITDRIVERDIRECTORY = 2,
    VS_P_INITEXTRADRIVERDIRECTORY = 3,
    VS_P_INITSERVERS = 4,
    VS_P_INITTIMEOUT = 5,
    VS_P_INITRECONNECTTIME = 6,
    VS_P_INITCONTENTPATTERN = 7,
    VS_P_INITREPLACEPATTERN = 8,
    VS_P_INITREGEXFLAGS = 9,
    VS_P_INITTEMP_PATH = 10,
    VS_P_INITDIRECTORY = 11,
    VS_P_INITENGINES = 12,
    VS_P_INITENGINEDIRECTORY = 13,
    VS_P_INITUPDATE_URI = 14,
    VS_P_SCANBESTEFFORT = 100,
    VS_P_SCANALLFILES = 101,
    VS_P_SCANALLMACROS = 102,
    VS_P_SCANALLEMBEDDED = 103,
    VS_P_SCANEXTENSIONS = 104,
    VS_P_SCANHEURISTICLEVEL = 105,
    VS_P_SCANONLYHEURISTIC = 106,
    VS_P_SCANLIMIT = 107,
    VS_P_SCANEXTRACT = 108,
    VS_P_SCANEXTRACT_PATH = 109,
    VS_P_SCANEXTRACT_SIZE = 110,
    VS_P_SCANEXTRACT_TIME = 111,
    VS_P_SCANEXTRACT_DEPTH = 112,
    VS_P_SCANEXTRACT_RATIO = 113,
    VS_P_SCANLOGPATH = 114,
    VS_P_SCANDIREXCLUDELIST = 115,
    VS_P_SCANSUBDIRLEVEL = 116,
    VS_P_SCANACCESSFILELOCAL = 117,
    VS_P_SCANMIMETYPES = 118,
    VS_P_SCANEXCLUDEMIMETYPES = 119,
    VS_P_SCANREGEXFLAGS = 120,
    VS_P_CLEANRENAME = 200,
    VS_P_CLEANDELETE = 201,
    VS_P_CLEANQUARANTINE = 202,
    VS_P_CLEANNODELETEINARCHIVE = 203,
    VS_P_CLEANNODELETEINEMBEDDED = 204,
    VS_P_CLEANNODELETEJOKES = 205,
    VS_P_BLOCKMIMETYPES = 300,
    VS_P_BLOCKEXTENSIONS = 301,
    VS_P_CUST_ACTIVE_CONTENT = -100,
    VS_P_CUST_CHECK_MIME_TYPE = -101,
    VS_P_CUST_NOT_SCANNED_AS_WARNING = -102,
    VS_P_CUST_NO_SCANINFO = -103,
    VS_P_CUST_CLEAN = -104,
    VS_P_CUST_MIME_TYPES_ARE_BLACKLIST = -105
} VS_PARAMETER_T;

/* Scan codes (PEL_SCANPARAM.tScanCode) and action bits (tActionCode). */
#define VS_SC_BYTES 2u
#define VS_SC_FILE 4u
#define VS_A_CHECK_MIME 0x1u
#define VS_A_SCAN 0x2u
#define VS_A_CLEAN 0x8u
#define VS_A_ACTIVE_CONTENT 0x10u

/* ---- Records carried by events ----------------------------------------------- */

typedef struct PEL_VIRUSINFO {
    size_t struct_size; /* 72 */
    uint8_t bRepairable;
    uint8_t abPad1[3];
    uint32_t tDetectType;
    uint32_t tVirusType;
    uint32_t tObjectType;
    uint32_t tActionType;
    uint32_t uiVirusID;
    char* pszVirusName;
    uint32_t uiJobID;
    uint32_t uiPad2;
    char* pszObjectName;
    size_t lObjectSize;
    char* pszFreeTextInfo;
} PEL_VIRUSINFO;

typedef struct PEL_SCANERROR {
    size_t struct_size; /* 48 */
    uint32_t uiJobID;
    uint32_t uiPad1;
    char* pszObjectName;
    size_t lObjectSize;
    int32_t iErrorRC;
    uint32_t uiPad2;
    char* pszErrorText;
} PEL_SCANERROR;

#ifdef __cplusplus
}
#endif

#endif /* KORMOTYPES_H */
