// scan_count.cpp - N library scans or N direct adapter calls, for counting
// instructions with callgrind:
//   valgrind --tool=callgrind --toggle-collect=BenchRunLibrary bench_scan_count lib N
//   valgrind --tool=callgrind --toggle-collect=BenchRunDirect bench_scan_count direct N
// "summary" and "profile" pass a summary record and a short ASCII name, on a
// plain instance and on a profile instance (BenchRunSummary, BenchRunProfile).
// Only the loop function is counted, so start-up and shutdown stay out.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_common.h"

namespace {
bench::Env env;
}

extern "C" __attribute__((noinline, used)) long BenchRunLibrary(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::LibraryScan(env, 0) != MAV_OK;
    return bad;
}

extern "C" __attribute__((noinline, used)) long BenchRunSummary(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::LibraryScanSummary(env, 0) != MAV_OK;
    return bad;
}

extern "C" __attribute__((noinline, used)) long BenchRunProfile(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::ProfileScanSummary(env, 0) != MAV_OK;
    return bad;
}

extern "C" __attribute__((noinline, used)) long BenchRunDirect(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::DirectScan(env, 0) != 0;
    return bad;
}

int main(int argc, char** argv) {
    const std::string mode = argc == 3 ? argv[1] : "";
    if (mode != "lib" && mode != "summary" && mode != "profile" && mode != "direct") {
        std::fprintf(stderr, "usage: %s lib|summary|profile|direct N\n", argv[0]);
        return 2;
    }
    long n = std::strtol(argv[2], nullptr, 10);
    env.open(BENCHPEL_PATH);
    if (mode == "profile") env.openProfiles(BENCHPEL_PATH);
    // One warm-up scan outside the counted loop: first-call binding and
    // one-time set-up are not per-scan costs.
    bench::LibraryScan(env, 0);
    bench::LibraryScanSummary(env, 0);
    if (mode == "profile") bench::ProfileScanSummary(env, 0);
    bench::DirectScan(env, 0);
    long bad = mode == "lib"       ? BenchRunLibrary(n)
               : mode == "summary" ? BenchRunSummary(n)
               : mode == "profile" ? BenchRunProfile(n)
                                   : BenchRunDirect(n);
    env.close();
    if (bad != 0) {
        std::fprintf(stderr, "%ld scans failed\n", bad);
        return 1;
    }
    return 0;
}
