// testpel_client.h - test-side access to the scriptable test adapter.
//
//   TestPel pel;                       // loads libtestpel.so, calls tpel_reset()
//   pel.script_rc(MAV_E_VIRUS_FOUND);
//   MavInit(pel.path(), &hdl);         // the library opens the same file: one state
//   EXPECT_EQ(pel.calls(TPEL_SCAN), 1u);
//
// Members carry the control functions' names without the tpel_ prefix. The
// adapter never unloads (linked -z nodelete), so its state survives MavEnd.
#ifndef TESTPEL_CLIENT_H
#define TESTPEL_CLIENT_H

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "testpel_ctl.h"

// Full path of a build of the test adapter: "libtestpel.so",
// "libtestpel_nocleanup.so" (no PelCleanup) or "libtestpel_v3.so" (version 3).
// The environment variable TESTPEL_DIR overrides the build directory.
inline std::string testpelPath(const char* variant = "libtestpel.so") {
    const char* dir = std::getenv("TESTPEL_DIR");
#ifdef TESTPEL_DIR
    if (!dir || !*dir) dir = TESTPEL_DIR;
#endif
    return std::string(dir ? dir : ".") + "/" + variant;
}

// The control functions, resolved into members of the same names.
#define TESTPEL_CONTROLS(X) \
    X(reset) X(set_adapter_info) X(set_flags) X(clear_params) \
    X(set_null_param_lists) X(add_param) X(set_last_param_length) X(fail) X(calls) X(live_inits) \
    X(live_scaninfos) X(last_scan) X(script_clear) X(script_rc) X(script_counts) \
    X(script_no_scaninfo) X(script_null_arrays) X(script_infection) X(script_scan_error) \
    X(script_content) X(script_cleaned) X(script_event) X(event_results) X(set_engine) \
    X(add_driver) X(bad_releases) \
    X(max_concurrent_scans)

struct TestPel {
    // Loads the variant (RTLD_LOCAL: its Pel* names must not shadow another
    // adapter's) and resets it. Aborts with the loader's text on failure, since
    // no test can run without it.
    explicit TestPel(const char* variant = "libtestpel.so") : path_(testpelPath(variant)) {
        dl_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!dl_) die(dlerror());
#define TESTPEL_RESOLVE(name) name = reinterpret_cast<decltype(&::tpel_##name)>(need("tpel_" #name));
        TESTPEL_CONTROLS(TESTPEL_RESOLVE)
#undef TESTPEL_RESOLVE
        reset();
    }
    ~TestPel() {
        dlclose(dl_);
    }
    TestPel(const TestPel&) = delete;
    TestPel& operator=(const TestPel&) = delete;

    // The file loaded, to pass to MavInit.
    const char* path() const {
        return path_.c_str();
    }
    // The loader handle, e.g. to resolve the Pel* entry points directly.
    void* handle() const {
        return dl_;
    }
    // A symbol of the adapter, or null.
    template <typename F>
    F sym(const char* name) const {
        return reinterpret_cast<F>(dlsym(dl_, name));
    }

#define TESTPEL_MEMBER(name) decltype(&::tpel_##name) name = nullptr;
    TESTPEL_CONTROLS(TESTPEL_MEMBER)
#undef TESTPEL_MEMBER

    // The last scan request (zeroed when there was none).
    TPEL_LAST_SCAN lastScan() const {
        TPEL_LAST_SCAN r;
        last_scan(&r);
        return r;
    }

  private:
    void* need(const char* name) {
        void* p = dlsym(dl_, name);
        if (!p) die(dlerror());
        return p;
    }
    [[noreturn]] void die(const char* why) const {
        std::fprintf(stderr, "TestPel: cannot use %s: %s\n", path_.c_str(), why ? why : "?");
        std::abort();
    }

    std::string path_;
    void* dl_ = nullptr;
};

#endif
