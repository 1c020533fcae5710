// mavxxi_codes.cpp - names and descriptions of the MAV_RC codes.
//
// Two constant tables: program results (0 and up) and scan verdicts (0 and
// down, indexed by magnitude). Any code without a row gets "Unknown ERROR";
// nothing is ever read outside the tables.
#include <cstdint>

#include "mavxxi.h"

namespace {

struct MavCodeRow {
    int32_t code;
    const char* name;
    const char* description;
};

constexpr const char kUnknown[] = "Unknown ERROR";

constexpr MavCodeRow kResults[] = {
    {0, "MAV_OK", "NO ERROR - MAV_OK."},
    {1, "MAV_E_NO_SPACE", "No OS resources available - allocation failed."},
    {2, "MAV_E_NULL_PARAM", "An empty (null) parameter was passed where its not allowed"},
    {3, "MAV_E_INVALID_PARAM", "At least one parameter is invalid."},
    {4, "MAV_E_INVALID_HANDLE", "Invalid handle of the scan engine or PEL."},
    {5, "MAV_E_NOT_INITIALISED", "The PEL initialization was not successful, see PEL error."},
    {6, "MAV_E_EXPIRED", "Engine or drivers are expired, check the date of engine and drive(s)."},
    {7, "MAV_E_LOAD_FAILED", "The instance could not be loaded."},
    {8, "MAV_E_BAD_EXPRESSION", "The passed regular expression contains a bad expression."},
    {9, "MAV_E_DRIVER_FAILED", "At least one driver could not be loaded into the AV engine"},
    {10, "MAV_E_NOT_SUPPORTED", "The current action or parameter is not supported for this PEL"},
    {11, "MAV_E_INVALID_SCANOBJECT",
     "Invalid request or parameter for this object type was supplied"},
    {12, "MAV_E_CIO_FAILED", "Client I/O callback failed. Scan could not be performed."},
    {13, "MAV_E_SCAN_FAILED", "The failed of unknown problem during the action"},
    {14, "MAV_E_NOT_SCANNED", "Due to the parameter settings, the object was not scanned."},
    {15, "MAV_E_END_FAILED", "The instance could not be terminated"},
    {16, "MAV_E_IN_PROGRESS", "The PEL cleanup was not successful. Any tasks still in progress"},
    {17, "MAV_E_CBC_TERMINATED", "The action was terminated by caller"},
    {18, "MAV_E_PEL_LOAD_FAILED", "The Pelmark load failed."},
    {19, "MAV_E_INVALID_PARAM_TYPE", "This parameter type is invalid for the requested parameter"},
    {20, "MAV_E_PARAM_UNSUPPORTED", "This parameter is unknown or not supported by actual PEL"},
    {21, "MAV_E_SCANPAR_UNSUPPORTED", "This scan parameter is not supported by actual PEL"},
    {22, "MAV_E_OBJPAR_UNSUPPORTED", "This object type is not supported by actual PEL"},
    {23, "MAV_E_CONVERSION_FAILED", "The Kormo basis conversion function (KORMO_UC-UTF8) failed."},
    {24, "MAV_E_XML_CONFIG_FAILED", "An error occurred during the XML based configuration action."},
    {25, "MAV_E_INVALID_ENUM_INDEX", "The passed index is out of range for the current action."},
    {26, "MAV_E_BUFFER_TOO_SHORT", "The provided buffer to the function is too short"},
    {27, "MAV_E_NO_SCANINFO", "There is no extra scan information available."},
    {28, "MAV_E_NO_PROFILE_DEFINED", "There is no profile defined for MAV runtime."},
    {29, "MAV_E_PROFILE_NOT_FOUND", "The requested profile is not found."},
    {30, "MAV_E_PROFILE_NOT_ACTIVE", "The requested profile is not active."},
    {31, "MAV_E_PROFILE_NOT_VALID", "This profile is not valid, start failed."},
    {32, "MAV_E_NO_DEFAULT_PROFILE", "There is no profile defined as default profile."},
};

constexpr MavCodeRow kVerdicts[] = {
    {0, "MAV_OK", "No ERROR - OK."},
    {-1, "MAV_E_CLEAN_OK", "The infected object could be cleaned."},
    {-2, "MAV_E_VIRUS_FOUND", "Virus alert! At least one infection was found."},
    {-3, "MAV_E_MACRO_FOUND", "MACRO alert! At least one active object was found."},
    {-4, "MAV_E_PATTERN_FOUND", "Found pattern on content scan."},
    {-5, "MAV_E_CLEAN_FAILED", "The clean action for an infection failed!!!"},
    {-6, "MAV_E_BLOCKED_BY_POLICY", "The object was blocked due to policy settings."},
};

constexpr int64_t kResultRows = sizeof(kResults) / sizeof(kResults[0]);
constexpr int64_t kVerdictRows = sizeof(kVerdicts) / sizeof(kVerdicts[0]);
static_assert(kResultRows == 33, "program result table");
static_assert(kVerdictRows == 7, "scan verdict table");

// The row of rc, or null. 0 always comes from the program results; the
// magnitude is taken in 64 bits so that INT32_MIN stays out of range.
const MavCodeRow* MavIFindRow(MAV_RC rc) {
    if (rc >= 0) return rc < kResultRows ? &kResults[rc] : nullptr;
    int64_t m = -static_cast<int64_t>(rc);
    return m < kVerdictRows ? &kVerdicts[m] : nullptr;
}

}  // namespace

extern "C" {

MAV_API const char* MavErrorName(MAV_RC rc) {
    const MavCodeRow* row = MavIFindRow(rc);
    return row != nullptr ? row->name : kUnknown;
}

MAV_API const char* MavErrorDescription(MAV_RC rc) {
    const MavCodeRow* row = MavIFindRow(rc);
    return row != nullptr ? row->description : kUnknown;
}

}  // extern "C"

// ---- Library version ------------------------------------------------------------

namespace {
constexpr bool SameText(const char* a, const char* b) {
    return *a == *b && (*a == '\0' || SameText(a + 1, b + 1));
}
#ifdef KORMO_BUILD_VERSION
static_assert(SameText(KORMOMAV_VERSION, KORMO_BUILD_VERSION),
              "kormomav.h and the project version in CMakeLists.txt differ");
#endif
}  // namespace

extern "C" MAV_API const char* MavGetVersion(uint32_t* num) {
    if (num != nullptr) *num = KORMOMAV_VERSION_NUM;
    return KORMOMAV_VERSION;
}
