// bench_common.h - one handle on the bench adapter with an instance per thread,
// and the same adapter's entry points for direct calls.
#ifndef BENCH_COMMON_H
#define BENCH_COMMON_H

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kormomav.h"
#include "kormopel.h"

namespace bench {

constexpr int kMaxThreads = 2;
constexpr size_t kBufferSize = 4096;

// What one thread of the direct baseline passes to the adapter, prepared the
// way the library prepares it.
struct alignas(64) DirectSlot {
    PEL_INIT* init;
    PEL_CALLBACK callback;
    PEL_SCANPARAM param;
    PEL_SCANINFO* result;
};

struct alignas(64) Buffer {
    unsigned char bytes[kBufferSize];
};

struct Env {
    MAV_HANDLE hdl = nullptr;
    MAV_INST inst[kMaxThreads] = {};
    MAV_INST profileInst[kMaxThreads] = {};
    PEL_SCAN_FN scan = nullptr;
    PEL_RELEASESCAN_FN release = nullptr;
    DirectSlot direct[kMaxThreads];
    Buffer buffer[kMaxThreads];

    [[noreturn]] static void die(const char* what, int rc) {
        std::fprintf(stderr, "bench: %s failed (%d)\n", what, rc);
        std::exit(1);
    }

    void open(const char* adapter) {
        MAV_RC rc = MavInit(adapter, &hdl);
        if (rc != MAV_OK) die("MavInit", rc);
        for (int i = 0; i < kMaxThreads; ++i) {
            rc = MavCreateInstance(hdl, &inst[i]);
            if (rc != MAV_OK) die("MavCreateInstance", rc);
            std::memset(buffer[i].bytes, 'A' + i, kBufferSize);
        }
        // The library opened the same file: dlopen hands back that handle.
        void* dl = dlopen(adapter, RTLD_NOW | RTLD_LOCAL);
        if (dl == nullptr) die(dlerror(), 0);
        scan = reinterpret_cast<PEL_SCAN_FN>(dlsym(dl, "PelScan"));
        release = reinterpret_cast<PEL_RELEASESCAN_FN>(dlsym(dl, "PelReleaseScan"));
        auto init = reinterpret_cast<PEL_INIT_FN>(dlsym(dl, "PelInit"));
        if (scan == nullptr || release == nullptr || init == nullptr) die("dlsym", 0);
        for (int i = 0; i < kMaxThreads; ++i) {
            DirectSlot& d = direct[i];
            std::memset(&d, 0, sizeof d);
            d.callback.struct_size = sizeof(PEL_CALLBACK);
            rc = init(&d.callback, nullptr, &d.init);
            if (rc != 0) die("PelInit", rc);
            d.param.struct_size = sizeof(PEL_SCANPARAM);
            d.param.tScanCode = VS_SC_BYTES;
            d.param.tActionCode = VS_A_SCAN;
            d.param.pszObjectName = "bench.bin";
            d.param.pbByte = buffer[i].bytes;
            d.param.lLength = kBufferSize;
        }
    }

    // Profile instances of a profile with one step over one provider of the
    // same adapter, for the profile runtime's cost.
    void openProfiles(const char* adapter) {
        std::string config =
            "mav.defaults.profile=P\nmav.profile.P=P\nmav.profile.P.Active=true\n"
            "mav.profile.P.ProfileLinkage=0\nmav.profile.P.ProfileSteps.0=0\n"
            "mav.profile.P.ProfileSteps.0.ProfileEntryType=0\n"
            "mav.profile.P.ProfileSteps.0.ProfileEntryValue=G\nmav.group.G=G\n"
            "mav.provider.Pelmark.Adapters.A=A\nmav.provider.Pelmark.Adapters.A.Group=G\n"
            "mav.provider.Pelmark.Adapters.A.Active=true\n"
            "mav.provider.Pelmark.Adapters.A.PoolMaxInstances=2\n"
            "mav.provider.Pelmark.Adapters.A.AdapterPath=";
        config += adapter;
        config += "\n";
        MAV_RC rc = MavStartRuntime(config.c_str(), config.size());
        if (rc != MAV_OK) die("MavStartRuntime", rc);
        for (int i = 0; i < kMaxThreads; ++i) {
            rc = MavGetProfileInstance("P", &profileInst[i]);
            if (rc != MAV_OK) die("MavGetProfileInstance", rc);
        }
    }
    void close() {
        for (int i = 0; i < kMaxThreads; ++i) {
            if (profileInst[i] != nullptr) MavFreeInstance(&profileInst[i]);
        }
        if (profileInst[0] != nullptr || profileInst[1] != nullptr) MavStopRuntime();
        for (int i = 0; i < kMaxThreads; ++i) MavFreeInstance(&inst[i]);
        MavEnd(&hdl);
    }
};

// One library scan of thread i's buffer.
inline MAV_RC LibraryScan(Env& env, int i) {
    return MavScanBytes(env.inst[i], "bench.bin", env.buffer[i].bytes, kBufferSize, 0, nullptr);
}

// The same with a summary record and a short name, as applications usually
// call it.
inline MAV_RC LibraryScanSummary(Env& env, int i) {
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    return MavScanBytes(env.inst[i], "a.txt", env.buffer[i].bytes, kBufferSize, 0, &info);
}

// The same on a profile instance.
inline MAV_RC ProfileScanSummary(Env& env, int i) {
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    return MavScanBytes(env.profileInst[i], "a.txt", env.buffer[i].bytes, kBufferSize, 0, &info);
}

// The same scan calling the adapter directly.
inline int DirectScan(Env& env, int i) {
    DirectSlot& d = env.direct[i];
    int rc = env.scan(d.init, &d.callback, &d.param, nullptr, &d.result);
    env.release(&d.result);
    return rc;
}

}  // namespace bench

#endif
