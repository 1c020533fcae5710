// Names and descriptions of every MAV_RC, and the fallback for codes without a row.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "kormomav.h"

namespace {

struct Row {
    MAV_RC code;
    const char* name;
    const char* description;
};

const Row kRows[] = {
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
    {-1, "MAV_E_CLEAN_OK", "The infected object could be cleaned."},
    {-2, "MAV_E_VIRUS_FOUND", "Virus alert! At least one infection was found."},
    {-3, "MAV_E_MACRO_FOUND", "MACRO alert! At least one active object was found."},
    {-4, "MAV_E_PATTERN_FOUND", "Found pattern on content scan."},
    {-5, "MAV_E_CLEAN_FAILED", "The clean action for an infection failed!!!"},
    {-6, "MAV_E_BLOCKED_BY_POLICY", "The object was blocked due to policy settings."},
};

TEST(Codes, EveryRowHasItsExactNameAndDescription) {
    for (const Row& r : kRows) {
        EXPECT_STREQ(r.name, MavErrorName(r.code)) << r.code;
        EXPECT_STREQ(r.description, MavErrorDescription(r.code)) << r.code;
    }
    // The constants of the header agree with the rows.
    EXPECT_STREQ("MAV_E_NO_DEFAULT_PROFILE", MavErrorName(MAV_E_NO_DEFAULT_PROFILE));
    EXPECT_STREQ("MAV_E_BLOCKED_BY_POLICY", MavErrorName(MAV_E_BLOCKED_BY_POLICY));
}

TEST(Codes, ZeroAlwaysComesFromTheProgramResults) {
    EXPECT_STREQ("NO ERROR - MAV_OK.", MavErrorDescription(0));
    EXPECT_STREQ("MAV_OK", MavErrorName(0));
}

TEST(Codes, CodesWithoutARowAreUnknown) {
    for (MAV_RC rc : {33, 34, 1000, INT_MAX, -7, -8, -33, -34, -40, INT_MIN, INT_MIN + 1}) {
        EXPECT_STREQ("Unknown ERROR", MavErrorName(rc)) << rc;
        EXPECT_STREQ("Unknown ERROR", MavErrorDescription(rc)) << rc;
    }
}

TEST(Codes, ResultsAreConstantAndStable) {
    // The same pointer each time: constant data, nothing for the caller to free.
    EXPECT_EQ(MavErrorName(-2), MavErrorName(-2));
    EXPECT_EQ(MavErrorDescription(99), MavErrorDescription(-99));
}

}  // namespace
