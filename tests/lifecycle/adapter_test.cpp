// Adapter choice, start-up failures, error-list texts and trace output.
#include <cstring>

#include "lifecycle_fixture.h"

namespace {

using AdapterChoice = Lifecycle;

TEST_F(AdapterChoice, PathThenEnvironmentThenNothing) {
    setenv("PEL_LIB", pel.path(), 1);  // must not be used when a path is given
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit("/nonexistent/libnothere.so", &h));
    ASSERT_NE(nullptr, h);  // the record stays with the caller
    EXPECT_NE(std::string::npos, LastError(h).find("libnothere.so")) << LastError(h);
    EXPECT_EQ(0, Rec(h)->lastErrorRc);
    EXPECT_EQ(nullptr, Rec(h)->pCfg);
    EXPECT_EQ(0u, MavIXGetHdlSize());
    EXPECT_EQ(0u, pel.calls(TPEL_STARTUP));
    MAV_INST i = nullptr;
    EXPECT_EQ(MAV_E_NOT_INITIALISED, MavCreateInstance(h, &i));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(nullptr, h);

    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(MAV_OK, MavInit(path, &h));
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    EXPECT_EQ(2u, pel.calls(TPEL_STARTUP));
    setenv("PEL_LIB", "/nonexistent/env.so", 1);
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(nullptr, &h));
    EXPECT_NE(std::string::npos, LastError(h).find("env.so"));
    EXPECT_EQ(MAV_OK, MavEnd(&h));

    // Unset, empty and blank-led values all fall back to the default names,
    // which are not installed here.
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_PEL);
    for (const char* env : {static_cast<const char*>(nullptr), "", " ", " x.so"}) {
        SCOPED_TRACE(env ? env : "(unset)");
        if (env != nullptr) {
            setenv("PEL_LIB", env, 1);
        } else {
            unsetenv("PEL_LIB");
        }
        EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(nullptr, &h));
        EXPECT_EQ(
            "Could not load any library. Neither the adapter path nor an environment variable "
            "was set.",
            LastError(h));
        EXPECT_NE(0, Rec(h)->lastErrorRc);  // the loader's code
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    EXPECT_EQ(0, trace.CountContaining("Loading adapter"));
    EXPECT_TRUE(trace.Has("Neither the adapter path nor the environment variable PEL_LIB "
                              "was set. \nCould not load an adapter library...\n"));
}



}  // namespace
