/* krnthr.h - threads and critical sections of the kernel runtime. */
#ifndef KRNTHR_H
#define KRNTHR_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KRN_API
#define KRN_API __attribute__((visibility("default")))
#endif

/* Results of the Thr* functions. */
#define THR_RC_OK 0
#define THR_RC_EXISTS 1       /* ThrCSInit2: the section was already created */
#define THR_RC_NORESOURCES 2  /* the system refused resources */
#define THR_RC_INVALID 3      /* null or not created */

/* A critical section (recursive: the owner may enter again). Zero-initialised
 * storage is "not created". */
typedef struct THR_CRIT_SEC {
    pthread_mutex_t mutex;
    uint32_t uiCreated; /* 0x43534353 once created */
    uint32_t uiReserved;
} THR_CRIT_SEC;

/* Creates a section in caller storage. THR_RC_EXISTS when already created. */
KRN_API int ThrCSInit2(THR_CRIT_SEC* cs);
/* Enters / leaves a created section. */
KRN_API int ThrCSLock(THR_CRIT_SEC* cs);
KRN_API int ThrCSUnlock(THR_CRIT_SEC* cs);
/* Deletes a created section (it must not be held); storage becomes "not created". */
KRN_API int ThrCSDelete(THR_CRIT_SEC* cs);

/* Numeric identifier of the calling thread (the kernel's thread id, 32 bits). */
KRN_API uint32_t ThrGetCurrentId(void);
/* Writes the id as decimal text into buf (size bytes, always terminated);
 * returns buf. */
KRN_API char* ThrId2Str(uint32_t id, char* buf, size_t size);
/* Tells the thread service that it runs inside a shared library. */
KRN_API void ThrSetDllMode(int inSharedLibrary);
/* Starts the thread service for the process; idempotent, 0 on success. */
KRN_API int ThrProcInit(void);
/* 1 once ThrProcInit has succeeded, else 0. */
KRN_API int ThrIsThreaded(void);

#ifdef __cplusplus
}
#endif
#endif
