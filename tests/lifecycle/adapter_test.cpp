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
    EXPECT_TRUE(trace.HasFrom("MavILoadLib",
                              "Neither the adapter path nor the environment variable PEL_LIB "
                              "was set. \nCould not load an adapter library...\n"));
}

TEST_F(AdapterChoice, LibraryWithoutAllEntryPointsIsRefused) {
    TestPel partial("libtestpel_nocleanup.so");
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(partial.path(), &h));
    ASSERT_NE(nullptr, h);
    std::string expected = std::string("No PEL functions available in library ") + partial.path() +
                           ". This library is no Rondo-MAV adapter";
    EXPECT_EQ(0u, LastError(h).compare(0, expected.size(), expected)) << LastError(h);
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, Rec(h)->lastErrorRc);
    const PEL_FUNCTIONS* f = Rec(h)->pFunctions;
    ASSERT_NE(nullptr, f);
    EXPECT_TRUE(f->pfnStartup && f->pfnGetConfig && f->pfnInit && f->pfnScan && f->pfnReleaseScan &&
                f->pfnEnd);
    EXPECT_EQ(nullptr, f->pfnCleanup);
    EXPECT_EQ(0u, partial.calls(TPEL_STARTUP));
    EXPECT_EQ(MAV_OK, MavEnd(&h));

    setenv("PEL_LIB", partial.path(), 1);
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(nullptr, &h));
    EXPECT_EQ("No PEL functions available. This library is no Rondo-MAV adapter.", LastError(h));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

using AdapterStart = Lifecycle;

TEST_F(AdapterStart, InterfaceVersionsAndMissingAdapterInfo) {
    MAV_HANDLE good = Start();
    for (uint16_t v : {0, 1, 2}) {
        pel.set_adapter_info(77, 0, v, 1, 0, "v", "a");
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h)) << v;
        EXPECT_EQ(77u, Rec(h)->uiAdapterID);
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    pel.set_no_adapter_info(1);
    MAV_HANDLE h = Start();
    EXPECT_EQ(0u, Rec(h)->uiAdapterID);
    MAV_INST i = nullptr;
    EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i));  // PelInit per instance
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(MAV_OK, MavEnd(&h));

    EXPECT_EQ(4u, pel.calls(TPEL_CLEANUP));  // other adapter ids: each the last of its own

    // Version 3 is refused; a failed start under a registered handle of the
    // same adapter does not clean the adapter up.
    TraceCapture trace(MAV_TRC_ERROR);
    pel.set_no_adapter_info(0);
    pel.set_adapter_info(4711, 0, 3, 1, 0, "Kormo Test", "testpel");
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavInit(pel.path(), &h));
    EXPECT_EQ("Supported adapter version not compatible to Rondo-MAV 2.00 version", LastError(h));
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, Rec(h)->lastErrorRc);
    EXPECT_TRUE(trace.HasFrom(
        "MavIStartPel", "Supported adapter version 3 not compatible to Rondo-MAV version 2.\n"));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(4u, pel.calls(TPEL_CLEANUP));
    EXPECT_EQ(MAV_OK, MavEnd(&good));
    EXPECT_EQ(5u, pel.calls(TPEL_CLEANUP));
    // The version-3 build alone: refused, nothing left registered.
    TestPel v3("libtestpel_v3.so");
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavInit(v3.path(), &h));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0u, MavIXGetHdlSize());
}

using AdapterTrace = Lifecycle;

}  // namespace
