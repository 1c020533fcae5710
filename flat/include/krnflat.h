/* krnflat.h - bounded string, file and time helpers of the kernel runtime. */
#ifndef KRNFLAT_H
#define KRNFLAT_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KRN_API
#define KRN_API __attribute__((visibility("default")))
#endif

/* Case-blind comparison of ASCII letters; <0, 0, >0 like strcmp. Null sorts
 * before any text. */
KRN_API int strcmpiU(const char* a, const char* b);
KRN_API int strncmpiU(const char* a, const char* b, size_t n);
/* Copies at most size-1 bytes and always terminates (size > 0); returns the
 * length of src. */
KRN_API size_t strlcpyU(char* dest, const char* src, size_t size);
/* Creates a unique file from templ, whose six 'X' stand suffixLength bytes
 * before its end (mkstemps), exclusively and with mode 0600; returns the open
 * descriptor or -1. templ is changed in place. */
KRN_API int mkstempsU(char* templ, int suffixLength);
/* Local time of t, thread safe; returns out. */
KRN_API struct tm* localtimeU(const time_t* t, struct tm* out);
/* Wall clock as seconds and milliseconds. */
KRN_API void timeOfDayU(time_t* seconds, int* milliseconds);

#ifdef __cplusplus
}
#endif
#endif
