// Names and descriptions of the MAV_RC codes: spot checks of rows, the table's
// shape, and the fallback for codes without a row.
#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <string>

#include "kormomav.h"

namespace {

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
