// mavprofile_i.h - internals of the profile runtime (not installed).
//
// The runtime state below is built by MavStartRuntime and torn down by
// MavStopRuntime, both called by one thread while nothing else uses profiles;
// lookups read it without locks.
#ifndef MAVPROFILE_I_H
#define MAVPROFILE_I_H

#include <map>
#include <string>

#include "kormomav.h"
#include "mavprofile.h"
#include "mavxxseam.h"

// ---- Trace ------------------------------------------------------------------------
// True when a line of this level bit is written (error lines whenever the
// level is non-zero), as the library's trace writer decides it.
inline bool MavPTraceOn(uint32_t bit) {
    uint32_t l = MavGetTraceLevel();
    return (l & bit) != 0 || ((bit & MAV_TRC_ERROR) != 0 && l != 0);
}
#define MAVP_TRC(bit, ...)                                                               \
    do {                                                                                 \
        if (MavPTraceOn(bit)) MavPPrintTrace((bit), __FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
#define MAVP_TRC_E(...) MAVP_TRC(MAV_TRC_ERROR, __VA_ARGS__)
#define MAVP_TRC_W(...) MAVP_TRC(MAV_TRC_WARNING, __VA_ARGS__)
#define MAVP_TRC_ENTRY(...) MAVP_TRC(MAV_TRC_FUNCTION, __VA_ARGS__)
#define MAVP_TRC_EXIT(rc) \
    MAVP_TRC(MAV_TRC_FUNCTION, "<<  end  << %s(MAV_RC==%s) \n", __func__, MavErrorName(rc))

// ---- Escapes (mavprofile_hex.cpp) -------------------------------------------------
// Bytes of 0x80 and above as "\u00XX"; null or empty gives "".
MAV_LOCAL std::string convertToHexString(const char* text);
// Decodes \u escapes into a new C string (allocation hook, free with MavIFree);
// null for empty input or when memory runs out.
MAV_LOCAL char* convertFromHexString(const std::string& text);
// As convertFromHexString, also decoding "\:" to ':' and "\\" to '\'.
MAV_LOCAL char* convertFromHexPath(const std::string& text);

namespace mav {

// ---- Runtime state (mavprofile_runtime.cpp) ---------------------------------------
extern MAV_LOCAL PropertyReader mav_properties;
extern MAV_LOCAL std::map<std::string, MavProvider*> mav_providers;
extern MAV_LOCAL std::map<std::string, MavGroup*> mav_groups;
extern MAV_LOCAL std::map<std::string, MavProfile*> mav_profiles;
extern MAV_LOCAL std::string mav_standard_group;
extern MAV_LOCAL std::string mav_standard_provider;
extern MAV_LOCAL std::string mav_standard_profile;
extern MAV_LOCAL bool bRuntimeInit;

// The built-in configuration read when neither a configuration nor the file
// "mav.properties" is there.
extern MAV_LOCAL const char mav_default_config[];
extern MAV_LOCAL const size_t mav_default_config_length;

// Finds the profile a caller names (null or empty: the standard profile), with
// the lookup codes in their order: 31 runtime stopped, 28 no profiles, 32 no
// standard profile, 29 unknown, 30 inactive, 31 failed. *profile is set on 0.
MAV_LOCAL MAV_RC MavIXFindProfile(const char* profileName, MavProfile** profile);

// True when the last MavProfile::getInstance() on this thread stopped at a
// profile that refers to itself.
MAV_LOCAL bool MavIXLastBuildCyclic();

// Traces at warning level, naming the configuration, every key of
// mav_properties the runtime does not know and every value it ignores (such
// as Active=True). Does nothing while the warning level is off.
MAV_LOCAL void MavIXCheckConfiguration(const char* configName);

// What the core calls on a profile instance (the functions at the end).
extern MAV_LOCAL const MAV_PROFILE_OPS kProfileOps;

// Sets every parameter on one C instance (MavSetParameter).
MAV_LOCAL void MavIXApplyParameters(MAV_INST inst, const std::vector<MavParameter*>& params);

}  // namespace mav

extern "C" {
// Worker of MavGetProfileInstance / MavGetProfileInstancePointer.
MAV_LOCAL MAV_RC MavIXGetProfileInst(const char* profileName, MAV_INST* out);

// The operations the core calls on a profile instance (MAV_PROFILE_OPS of
// mavxxseam.h); mavInstance is the instance's mav::MavInstance.
// Scan through a profile instance's C instances (linkage rules); never throws.
MAV_LOCAL MAV_RC MavIXScanClean(void* mavInstance, uint32_t scanCode, uint32_t actionCode,
                                const char* objectNameUtf8, const KORMO_CHAR* objectName,
                                unsigned char* bytes, size_t* length, uint32_t jobId,
                                MAV_SCANINFO* scanInfo);
MAV_LOCAL MAV_RC MavIXFreeProfileInst(void* mavInstance);
// The C instance that scanned last; null when there is none.
MAV_LOCAL MAV_INST MavIXGetInstanceHandleFromProfile(void* mavInstance);
// The results of a profile instance that reached no engine: one scan error
// naming the profile (null before such a scan).
MAV_LOCAL PEL_SCANINFO* MavIXProfileScanInfo(void* mavInstance);
}

#endif
