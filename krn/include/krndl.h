/* krndl.h - dynamic loading and the last-error store of the kernel runtime. */
#ifndef KRNDL_H
#define KRNDL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KRN_API
#define KRN_API __attribute__((visibility("default")))
#endif

#define DL_RC_OK 0
#define DL_RC_LOAD_FAILED 1   /* the loader refused the file; text in ErrGetLastText */
#define DL_RC_NOT_FOUND 2     /* symbol not found */
#define DL_RC_INVALID 3       /* bad handle or argument */
#define DL_RC_NO_SPACE 4      /* no free slot in the handle table */

/* Opens a shared library; *handle receives a small non-negative number.
 * On failure *handle is -1 and the loader's text is kept in the calling
 * thread's last-error store. */
KRN_API int DlLoadLib(const char* fileName, int* handle);
/* Resolves symbol in an open library into *fn (null on failure). */
KRN_API int DlLoadFunc(int handle, const char* symbol, void** fn);
/* Closes the library and sets *handle to -1. */
KRN_API int DlUnloadLib(int* handle);

/* The calling thread's last error text ("" when none); valid until the next
 * kernel call on this thread. */
KRN_API const char* ErrGetLastText(void);
/* Clears the calling thread's last error. */
KRN_API void ErrClear(void);

#ifdef __cplusplus
}
#endif
#endif
