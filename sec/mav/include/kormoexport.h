/*
 * kormoexport.h - the one export macro of libkormomav's public headers.
 *
 * The library and the adapters are built with hidden symbols by default; what
 * these macros mark is their binary interface. The library's version script
 * (sec/mav/kormomav.map) and the export check (tests/api/check_exports.sh)
 * state which symbols the shared library exports; docs/ABI.md says what the
 * SONAME promises.
 *
 *   MAV_API     a function of the C interface (kormomav.h)
 *   MAV_CLASS   a class of the profile runtime (mavprofile.h)
 *   PEL_EXPORT  an adapter's entry point (kormopel.h), exported by the adapter
 */
#ifndef KORMOEXPORT_H
#define KORMOEXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define KORMO_EXPORT __attribute__((visibility("default")))
#else
#define KORMO_EXPORT
#endif

#ifndef MAV_API
#define MAV_API KORMO_EXPORT
#endif
#ifndef MAV_CLASS
#define MAV_CLASS KORMO_EXPORT
#endif
#ifndef PEL_EXPORT
#define PEL_EXPORT KORMO_EXPORT
#endif

#endif /* KORMOEXPORT_H */
