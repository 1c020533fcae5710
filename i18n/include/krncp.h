/* krncp.h - process code page and UTF-8 conversion of the kernel runtime.
 *
 * KORMO_CHAR text is 8-bit text in the process code page. Code pages are named
 * by 4 characters: "1208" UTF-8, "0819" ISO-8859-1. */
#ifndef KRNCP_H
#define KRNCP_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KRN_API
#define KRN_API __attribute__((visibility("default")))
#endif

#define CP_RC_OK 0
#define CP_RC_INVALID_INPUT 1     /* malformed or unmappable input */
#define CP_RC_UNKNOWN_CODEPAGE 2
#define CP_RC_NULL_PARAM 3
#define CP_RC_BUFFER_TOO_SMALL 32 /* output does not fit */

/* Starts the code-page library; defaultCp -1 takes the default from the
 * locale (UTF-8 when in doubt). Idempotent; 0 on success. */
KRN_API int rscpInit(int defaultCp);
/* The current process code page name (4 characters); never null. */
KRN_API const char* GetProcessCodePageU(void);
/* Nonzero when the process code page is UTF-8: one relaxed load once the
 * code page is known. Internal to the library (the scan path asks on every
 * object name). */
__attribute__((visibility("hidden"))) int KrnCodePageIsUtf8(void);
/* Sets the process code page: a known 4-character name, or null to take it
 * from the environment (LC_ALL, LC_CTYPE, LANG). 0 on success. */
KRN_API int SetProcessCodePageFromEnv(const char* codePage);

/* UTF-8 -> process code page. src holds *length bytes (or is NUL-terminated
 * when *length is (size_t)-1). The output and a terminating NUL must fit in
 * destSize bytes, else CP_RC_BUFFER_TOO_SMALL. The decoder is strict:
 * overlong forms, surrogates, values above U+10FFFF and truncated sequences are
 * CP_RC_INVALID_INPUT, as are characters the code page cannot hold. On success
 * *length is the number of bytes written (without the NUL). */
KRN_API int Utf8sToUcs(char* dest, size_t destSize, size_t* length, const char* src);
/* Process code page -> UTF-8, same rules (validating when the page is UTF-8). */
KRN_API int UcsToUtf8s(char* dest, size_t destSize, size_t* length, const char* src);

#ifdef __cplusplus
}
#endif
#endif
