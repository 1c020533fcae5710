// Adapter choice, start-up failures, error-list texts and trace output.
#include <cstring>

#include "lifecycle_fixture.h"

namespace {

using AdapterChoice = Lifecycle;

TEST_F(AdapterChoice, MissingPathFailsWithLoaderTextAndNoFallback) {
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
}

TEST_F(AdapterChoice, EnvironmentVariableWhenNoPath) {
    setenv("PEL_LIB", pel.path(), 1);
    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(path, &h));
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    EXPECT_EQ(2u, pel.calls(TPEL_STARTUP));
    setenv("PEL_LIB", "/nonexistent/env.so", 1);
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(nullptr, &h));
    EXPECT_NE(std::string::npos, LastError(h).find("env.so"));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST_F(AdapterChoice, DefaultNamesOnlyWithoutPathAndVariable) {
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_PEL);
    // Unset, empty and blank-led values all fall back to the default names,
    // which are not installed here.
    for (const char* env : {static_cast<const char*>(nullptr), "", " ", " x.so"}) {
        SCOPED_TRACE(env ? env : "(unset)");
        if (env != nullptr) {
            setenv("PEL_LIB", env, 1);
        } else {
            unsetenv("PEL_LIB");
        }
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_E_PEL_LOAD_FAILED, MavInit(nullptr, &h));
        EXPECT_EQ(
            "Could not load any library. Neither the adapter path nor an environment variable "
            "was set.",
            LastError(h));
        EXPECT_NE(0, Rec(h)->lastErrorRc);  // the loader's code
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    EXPECT_EQ(0, TraceCapture::Count("Loading adapter"));
    EXPECT_TRUE(TraceCapture::Has("MavILoadLib",
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

TEST_F(AdapterStart, FailingPelStartup) {
    pel.fail(TPEL_STARTUP, 13, nullptr);
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(13, MavInit(pel.path(), &h));
    EXPECT_EQ("Global adapter initialization in PelStartup failed. Please contact PEL vendor.",
              LastError(h));
    EXPECT_EQ(13, Rec(h)->lastErrorRc);
    EXPECT_EQ(0u, pel.calls(TPEL_GETCONFIG));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0u, pel.calls(TPEL_END));  // never started: nothing to end
    EXPECT_EQ(0u, pel.calls(TPEL_CLEANUP));
}

TEST_F(AdapterStart, FailingPelGetConfig) {
    pel.fail(TPEL_GETCONFIG, 9, nullptr);
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(9, MavInit(pel.path(), &h));
    EXPECT_EQ("Adapter function PelGetConfig failed. Please contact PEL vendor.", LastError(h));
    EXPECT_NE(nullptr, Rec(h)->pPelConfig);  // kept whatever the result
    EXPECT_EQ(nullptr, Rec(h)->pCfg);
    // Started but not registered: ended with PelEnd and PelCleanup.
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(1u, pel.calls(TPEL_END));
    EXPECT_EQ(1u, pel.calls(TPEL_CLEANUP));
}

TEST_F(AdapterStart, FailedStartDoesNotCleanUpUnderARegisteredHandle) {
    MAV_HANDLE good = Start();
    pel.set_adapter_info(4711, 0, 3, 1, 0, "Kormo Test", "testpel");
    MAV_HANDLE bad = nullptr;
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavInit(pel.path(), &bad));
    EXPECT_EQ(MAV_OK, MavEnd(&bad));
    EXPECT_EQ(0u, pel.calls(TPEL_CLEANUP));
    EXPECT_EQ(MAV_OK, MavEnd(&good));
    EXPECT_EQ(1u, pel.calls(TPEL_CLEANUP));
}

TEST_F(AdapterStart, InterfaceVersions) {
    for (uint16_t v : {0, 1, 2}) {
        pel.set_adapter_info(77, 0, v, 1, 0, "v", "a");
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h)) << v;
        EXPECT_EQ(77u, Rec(h)->uiAdapterID);
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
    TraceCapture trace(MAV_TRC_ERROR);
    TestPel v3("libtestpel_v3.so");
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavInit(v3.path(), &h));
    EXPECT_EQ("Supported adapter version not compatible to Rondo-MAV 2.00 version", LastError(h));
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, Rec(h)->lastErrorRc);
    EXPECT_TRUE(TraceCapture::Has("MavIStartPel",
                                  "Supported adapter version 3 not compatible to Rondo-MAV "
                                  "version 2.\n"));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0u, MavIXGetHdlSize());
}

TEST_F(AdapterStart, NoAdapterInfoIsAccepted) {
    pel.set_no_adapter_info(1);
    MAV_HANDLE h = nullptr;
    EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h));
    EXPECT_EQ(0u, Rec(h)->uiAdapterID);
    MAV_INST i = nullptr;
    EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i));  // PelInit per instance
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(1u, pel.calls(TPEL_CLEANUP));
}

TEST_F(AdapterStart, FailingPelInitTakesVendorText) {
    TraceCapture trace(MAV_TRC_ERROR);
    MAV_HANDLE h = Start();
    pel.fail(TPEL_INIT, 9, "engine files missing");
    MAV_INST i = nullptr;
    EXPECT_EQ(9, MavCreateInstance(h, &i));
    EXPECT_EQ(nullptr, i);
    EXPECT_EQ("engine files missing", LastError(h));
    EXPECT_EQ(9, Rec(h)->lastErrorRc);
    EXPECT_TRUE(TraceCapture::Has("MavICreateInstance",
                                  "PelInit failed with \n                vendor internal rc = "
                                  "[9]\n                vendor reason = [engine files missing]\n"));
    EXPECT_EQ(0u, Rec(h)->uiInstances);
    EXPECT_EQ(0, pel.live_inits());  // the failed record went back to the adapter
    // Through the public call: no engine record, so the list's latest text.
    char* buf = nullptr;
    size_t len = 0;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(h, &buf, &len));
    EXPECT_EQ(std::string("engine files missing"),
              std::string(buf, strlen("engine files missing")));
    MavIFree(buf);

    pel.fail(TPEL_INIT, 0, nullptr);
    ASSERT_EQ(MAV_OK, MavSetPoolSize(h, 1));
    pel.fail(TPEL_INIT, 5, nullptr);  // no record handed back
    EXPECT_EQ(5, MavLoadPool(h, 1, 0));
    EXPECT_EQ(0u, Rec(h)->uiPooled);
    pel.fail(TPEL_INIT, 0, nullptr);
    EXPECT_EQ(MAV_OK, MavLoadPool(h, 1, 0));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0, pel.live_inits());
}

TEST_F(AdapterStart, FailingPelEndKeepsTheHandle) {
    MAV_HANDLE h = Start();
    pel.fail(TPEL_END, 15, nullptr);
    EXPECT_EQ(15, MavEnd(&h));
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(1u, MavIXGetHdlSize());
    MAV_INST i = nullptr;
    EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i));  // still usable
    pel.fail(TPEL_END, 0, nullptr);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0u, MavIXGetHdlSize());
}

TEST_F(AdapterStart, FailingPelCleanupKeepsTheHandle) {
    MAV_HANDLE h = Start();
    pel.fail(TPEL_CLEANUP, 15, nullptr);
    EXPECT_EQ(15, MavEnd(&h));
    ASSERT_NE(nullptr, h);
    pel.fail(TPEL_CLEANUP, 0, nullptr);
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(2u, pel.calls(TPEL_CLEANUP));
}

using AdapterTrace = Lifecycle;

TEST_F(AdapterTrace, StartUpLinesAdapterCallsAndDumps) {
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_PEL | MAV_TRC_FUNCTION);
    MAV_HANDLE h = nullptr;
    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &h));
    EXPECT_TRUE(TraceCapture::Has(
        "MavInit", ">> start >> MavInit(" + std::string(pel.path()) + "," + [&] {
            char b[32];
            snprintf(b, sizeof b, "%p)\n", static_cast<void*>(&h));
            return std::string(b);
        }()));
    EXPECT_TRUE(TraceCapture::Has("MavInit",
                                  "MavInit(): Initializing the native Mavgate library (MAVLIB)\n"));
    EXPECT_TRUE(TraceCapture::Has("MavInit",
                                  "           AMD/Intel x86_64 with Linux (mt,ascii,KORMO_CHAR/"
                                  "size_t/void* = 8/64/64)\n"));
    EXPECT_TRUE(
        TraceCapture::Has("MavInit", "MavInit(): PEL_LIB = \"" + std::string(pel.path()) + "\"\n"));
    EXPECT_TRUE(
        TraceCapture::Has("MavILoadLib", "Loading adapter: \"" + std::string(pel.path()) + "\"\n"));
    EXPECT_TRUE(TraceCapture::Has("MavILoadFucs",
                                  "The loading of function \"PelCleanup\" in adapter was "
                                  "successful.\n"));
    EXPECT_TRUE(TraceCapture::Has("MavILoadFucs",
                                  "All functions in the adapter were loaded successfully.\n"));
    EXPECT_TRUE(TraceCapture::Has("MavIStartPel", ">> PelStartup() >> \n"));
    EXPECT_TRUE(TraceCapture::Has("MavIStartPel", "<< PelStartup() = 0 << \n"));
    EXPECT_EQ(1, TraceCapture::Count("PEL_CONFIG------"));
    EXPECT_TRUE(TraceCapture::Has("MavInit", "<<  end  << MavInit(MAV_RC==MAV_OK) \n"));

    MAV_INST i = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
    EXPECT_EQ(1, TraceCapture::Count(">> PelInit("));
    EXPECT_EQ(1, TraceCapture::Count("PEL_INIT------"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(1, TraceCapture::Count("<< PelEnd("));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(2, TraceCapture::Count("<< PelEnd("));
    EXPECT_TRUE(TraceCapture::Has("MavIXCleanupPel", "<< PelCleanup() = 0 << \n"));
    EXPECT_TRUE(TraceCapture::Has("MavIUnLoadLib", "Unloading adapter ...\n"));
    EXPECT_EQ(1, TraceCapture::Count("<<  end  << MavEnd(mav_hdl="));
}

TEST_F(AdapterTrace, NoDumpsWhenTheLevelDoesNotAsk) {
    TraceCapture trace(MAV_TRC_ERROR);
    MAV_HANDLE h = Start();
    MAV_INST i = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
    EXPECT_EQ(0, TraceCapture::Count("PEL_CONFIG------"));
    EXPECT_EQ(0, TraceCapture::Count("PEL_INIT------"));
    EXPECT_EQ(0, TraceCapture::Count(">> PelInit("));
    // Start-up lines are written whatever the level.
    EXPECT_EQ(1, TraceCapture::Count("MavInit(): Initializing"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST_F(AdapterTrace, ArgumentChecksComeBeforeTheEntryLine) {
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_FUNCTION);
    MAV_HANDLE none = nullptr;
    MAV_INST noInst = nullptr;
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(nullptr));
    EXPECT_EQ(MAV_OK, MavEnd(&none));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavCreateInstance(nullptr, &noInst));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstance(nullptr));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&noInst));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavSetHandleName(nullptr, "x", 1));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavSetPoolSize(nullptr, 1));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavLoadPool(nullptr, 1, 0));
    EXPECT_EQ(MAV_OK, MavFreePool(nullptr));
    EXPECT_EQ(0, TraceCapture::Count(">> start >> "));
    EXPECT_EQ(0, TraceCapture::Count("<<  end  << "));
    EXPECT_TRUE(TraceCapture::Has("MavEnd", "Invalid NULL parameter for handle \n"));
    EXPECT_TRUE(TraceCapture::Has("MavCreateInstance", "Invalid NULL parameter for handle\n"));
    EXPECT_TRUE(TraceCapture::Has("MavFreeInstance", "Invalid NULL parameter for handle\n"));
    EXPECT_TRUE(TraceCapture::Has("MavSetHandleName", "Invalid NULL parameter for handle\n"));

    // The size is looked at before the handle.
    MAV_HANDLE h = Start();
    MAV_INST i = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavLoadPool(i, 0, 0));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavLoadPool(i, 1, 0));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));

    // Once entered, MavEnd leaves with its own exit line on every path.
    MAV_HANDLE stale = h;
    ASSERT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(&stale));
    char exit[96];
    snprintf(exit, sizeof exit, "<<  end  << MavEnd(mav_hdl=%p)(MAV_RC=MAV_E_INVALID_HANDLE) \n",
             stale);
    EXPECT_TRUE(TraceCapture::Has("MavEnd", exit));
    EXPECT_EQ(0, TraceCapture::Count("<<  end  << MavEnd(MAV_RC=="));
}

TEST_F(AdapterTrace, InitWithNullAddressTraces) {
    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavInit(nullptr, nullptr));
    EXPECT_EQ(1, ThrIsThreaded());  // started before the arguments are looked at
    EXPECT_TRUE(TraceCapture::Has("MavInit",
                                  "NULL HANDLE passed to function. No initialization possible\n"));
    EXPECT_EQ(0, TraceCapture::Count("MavInit(): Initializing"));
}

}  // namespace
