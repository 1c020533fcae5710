/* krntrc.h - the process trace facility of the kernel runtime. */
#ifndef KRNTRC_H
#define KRNTRC_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KRN_API
#define KRN_API __attribute__((visibility("default")))
#endif

/* Sets the process trace stream (null: none). */
KRN_API void CTrcSetFpTf(FILE* fp);
/* The process trace stream, or null. */
KRN_API FILE* CTrcGetFpTf(void);
/* Sets / reads the kernel trace level, 0..3 (0 = off). */
KRN_API void CTrcSetTraceLevelFct(int level);
KRN_API int CTrcGetTraceLevel(void);
/* Process-wide trace lock around multi-part writes (recursive). */
// The start of a trace line: local date and time with milliseconds, process
// and thread ("YYYY-MM-DDTHH:MM:SS.mmm pNNNNNN tTTTT"), always terminated.
KRN_API void CTrcStamp(char* out, size_t size);

KRN_API void DpLock(void);
KRN_API void DpUnlock(void);
/* Remembers the source location for the next DpTrc* line of this thread. */
KRN_API void CTrcSaveLocation(const char* file, int line);
/* Write one line (printf format; a line end is added when missing) at level 1
 * or more: plain, warning ("*** WARNING => "), error ("*** ERROR => "). Each
 * takes the trace lock itself. Nothing is written without a stream. */
KRN_API void DpTrcA7(const char* format, ...) __attribute__((format(printf, 1, 2)));
KRN_API void DpTrcWarnA7(const char* format, ...) __attribute__((format(printf, 1, 2)));
KRN_API void DpTrcErrA7(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
#endif
