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

struct TestPel {
    // Loads the variant (RTLD_LOCAL: its Pel* names must not shadow another
    // adapter's) and resets it. Aborts with the loader's text on failure, since
    // no test can run without it.
    explicit TestPel(const char* variant = "libtestpel.so") : path_(testpelPath(variant)) {
        dl_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!dl_) die(dlerror());
#define TESTPEL_RESOLVE(name) name = reinterpret_cast<decltype(&::tpel_##name)>(need("tpel_" #name))
        TESTPEL_RESOLVE(reset);
        TESTPEL_RESOLVE(set_adapter_info);
        TESTPEL_RESOLVE(set_no_adapter_info);
        TESTPEL_RESOLVE(set_flags);
        TESTPEL_RESOLVE(clear_params);
        TESTPEL_RESOLVE(set_null_param_lists);
        TESTPEL_RESOLVE(add_param);
        TESTPEL_RESOLVE(set_last_param_length);
        TESTPEL_RESOLVE(fail);
        TESTPEL_RESOLVE(calls);
        TESTPEL_RESOLVE(live_inits);
        TESTPEL_RESOLVE(live_scaninfos);
        TESTPEL_RESOLVE(last_scan);
        TESTPEL_RESOLVE(script_clear);
        TESTPEL_RESOLVE(script_rc);
        TESTPEL_RESOLVE(script_counts);
        TESTPEL_RESOLVE(script_no_scaninfo);
        TESTPEL_RESOLVE(script_null_arrays);
        TESTPEL_RESOLVE(script_infection);
        TESTPEL_RESOLVE(script_scan_error);
        TESTPEL_RESOLVE(script_content);
        TESTPEL_RESOLVE(script_cleaned);
        TESTPEL_RESOLVE(script_event);
        TESTPEL_RESOLVE(event_results);
        TESTPEL_RESOLVE(set_engine);
        TESTPEL_RESOLVE(clear_drivers);
        TESTPEL_RESOLVE(add_driver);
        TESTPEL_RESOLVE(last_param);
        TESTPEL_RESOLVE(bad_releases);
        TESTPEL_RESOLVE(script_delay_ms);
        TESTPEL_RESOLVE(max_concurrent_scans);
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

    decltype(&::tpel_reset) reset;
    decltype(&::tpel_set_adapter_info) set_adapter_info;
    decltype(&::tpel_set_no_adapter_info) set_no_adapter_info;
    decltype(&::tpel_set_flags) set_flags;
    decltype(&::tpel_clear_params) clear_params;
    decltype(&::tpel_set_null_param_lists) set_null_param_lists;
    decltype(&::tpel_add_param) add_param;
    decltype(&::tpel_set_last_param_length) set_last_param_length;
    decltype(&::tpel_fail) fail;
    decltype(&::tpel_calls) calls;
    decltype(&::tpel_live_inits) live_inits;
    decltype(&::tpel_live_scaninfos) live_scaninfos;
    decltype(&::tpel_last_scan) last_scan;
    decltype(&::tpel_script_clear) script_clear;
    decltype(&::tpel_script_rc) script_rc;
    decltype(&::tpel_script_counts) script_counts;
    decltype(&::tpel_script_no_scaninfo) script_no_scaninfo;
    decltype(&::tpel_script_null_arrays) script_null_arrays;
    decltype(&::tpel_script_infection) script_infection;
    decltype(&::tpel_script_scan_error) script_scan_error;
    decltype(&::tpel_script_content) script_content;
    decltype(&::tpel_script_cleaned) script_cleaned;
    decltype(&::tpel_script_event) script_event;
    decltype(&::tpel_event_results) event_results;
    decltype(&::tpel_set_engine) set_engine;
    decltype(&::tpel_clear_drivers) clear_drivers;
    decltype(&::tpel_add_driver) add_driver;
    decltype(&::tpel_last_param) last_param;
    decltype(&::tpel_bad_releases) bad_releases;
    decltype(&::tpel_script_delay_ms) script_delay_ms;
    decltype(&::tpel_max_concurrent_scans) max_concurrent_scans;

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
