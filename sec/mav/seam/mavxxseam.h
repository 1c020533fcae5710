// mavxxseam.h - the one internal seam between the core and the profile runtime.
//
// Not installed. The profile runtime is a client of the public C interface;
// this header holds the little that the public calls cannot carry:
//  - Down (core to profile runtime): a scan, result or free call handed a
//    profile instance handle must reach the profile instance behind it. The
//    runtime registers a table of operations (MAV_PROFILE_OPS) before it hands
//    out a profile instance; the core calls through that table and knows
//    nothing else of the runtime.
//  - Up (profile runtime to core): a profile instance record, an instance's
//    scan policy read without text conversions (the profile scan walk asks it
//    per step), and memory through the caller's hooks.
#ifndef MAVXXSEAM_H
#define MAVXXSEAM_H

#include <cstddef>
#include <cstdint>

#include "kormomav.h"
#include "kormopel.h"

#define MAV_LOCAL __attribute__((visibility("hidden")))

extern "C" {

// Operations of the profile runtime on a profile instance (the void* is the
// runtime's own object, stored in the profile instance record).
struct MAV_PROFILE_OPS {
    // Scans through the profile instance's C instances (the arguments of
    // MavScanClean after its checks); never throws.
    MAV_RC (*pfnScanClean)(void* profileInst, uint32_t scanCode, uint32_t actionCode,
                           const char* objectNameUtf8, const KORMO_CHAR* objectName,
                           unsigned char* bytes, size_t* length, uint32_t jobId,
                           MAV_SCANINFO* scanInfo);
    // Ends the profile instance and its C instances.
    MAV_RC (*pfnFree)(void* profileInst);
    // The C instance that scanned last (its results are the profile
    // instance's); null when there is none.
    MAV_INST (*pfnCurrentInstance)(void* profileInst);
    // The results of a scan that reached no engine; null before such a scan.
    PEL_SCANINFO* (*pfnNoEngineResult)(void* profileInst);
};

// Registers the profile runtime's table (a static table; registering it again
// is harmless). Profile instance handles made before it are refused.
MAV_LOCAL void MavIXRegisterProfileOps(const MAV_PROFILE_OPS* ops);

// A new profile instance handle standing for profileInst, owned by the
// calling thread; null when memory runs out. Freeing the handle
// (MavFreeInstance) ends profileInst through pfnFree.
MAV_LOCAL MAV_INST MavIXNewProfileInst(void* profileInst);

// What a C instance's configuration says about a scan.
struct MAV_INST_POLICY {
    uint32_t uiAction;         // default action bits (VS_A_*)
    uint8_t bNoScanInfo;       // CUST_NO_SCANINFO
    uint8_t bNotScannedAsWarning;  // CUST_NOT_SCANNED_AS_WARNING
};
// Fills *policy for a C instance and returns MAV_OK; MAV_E_INVALID_HANDLE
// (policy zeroed) for anything else.
MAV_LOCAL MAV_RC MavIXGetInstPolicy(MAV_INST inst, MAV_INST_POLICY* policy);

// Memory through the current hooks, tag "mav" (null when memory runs out).
MAV_LOCAL void* MavIAlloc(size_t size, bool clean);
MAV_LOCAL void MavIFree(void* ptr);

}  // extern "C"

#endif
