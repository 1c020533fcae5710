// Names and descriptions of the MAV_RC codes: spot checks of rows, the table's
// shape, and the fallback for codes without a row.
#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <string>

#include "kormomav.h"

namespace {

TEST(Codes, SpotChecksOfBothTables) {
    const struct {
        MAV_RC code;
        const char* name;
        const char* description;
    } rows[] = {
        {0, "MAV_OK", "NO ERROR - MAV_OK."},
        {2, "MAV_E_NULL_PARAM", "An empty (null) parameter was passed where its not allowed"},
        {13, "MAV_E_SCAN_FAILED", "The failed of unknown problem during the action"},
        {23, "MAV_E_CONVERSION_FAILED",
         "The Kormo basis conversion function (KORMO_UC-UTF8) failed."},
        {32, "MAV_E_NO_DEFAULT_PROFILE", "There is no profile defined as default profile."},
        {-1, "MAV_E_CLEAN_OK", "The infected object could be cleaned."},
        {-6, "MAV_E_BLOCKED_BY_POLICY", "The object was blocked due to policy settings."},
    };
    for (const auto& r : rows) {
        EXPECT_STREQ(r.name, MavErrorName(r.code)) << r.code;
        EXPECT_STREQ(r.description, MavErrorDescription(r.code)) << r.code;
    }
}

TEST(Codes, EveryCodeFromMinus6To32HasItsOwnRow) {
    std::set<std::string> names, descriptions;
    for (MAV_RC rc = MAV_E_BLOCKED_BY_POLICY; rc <= MAV_E_NO_DEFAULT_PROFILE; ++rc) {
        std::string name = MavErrorName(rc), description = MavErrorDescription(rc);
        EXPECT_EQ(0u, name.rfind("MAV_", 0)) << rc;
        EXPECT_NE("Unknown ERROR", description) << rc;
        names.insert(name);
        descriptions.insert(description);
    }
    EXPECT_EQ(39u, names.size());
    EXPECT_EQ(39u, descriptions.size());
    EXPECT_STREQ("MAV_E_BUFFER_TOO_SHORT", MavErrorName(MAV_E_BUFFER_TOO_SHORT));
    EXPECT_STREQ("MAV_E_VIRUS_FOUND", MavErrorName(MAV_E_VIRUS_FOUND));
}

TEST(Codes, CodesWithoutARowAreUnknownAndResultsConstant) {
    for (MAV_RC rc : {33, 1000, INT_MAX, -7, -8, -33, -34, INT_MIN, INT_MIN + 1}) {
        EXPECT_STREQ("Unknown ERROR", MavErrorName(rc)) << rc;
        EXPECT_STREQ("Unknown ERROR", MavErrorDescription(rc)) << rc;
    }
    // The same pointer each time: constant data, nothing for the caller to free.
    EXPECT_EQ(MavErrorName(-2), MavErrorName(-2));
    EXPECT_EQ(MavErrorDescription(99), MavErrorDescription(-99));
}

}  // namespace
