// scan_count.cpp - N library scans or N direct adapter calls, for counting
// instructions with callgrind:
//   valgrind --tool=callgrind --toggle-collect=BenchRunLibrary bench_scan_count lib N
//   valgrind --tool=callgrind --toggle-collect=BenchRunDirect bench_scan_count direct N
// Only the loop function is counted, so start-up and shutdown stay out.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_common.h"

namespace {
bench::Env env;
}

extern "C" __attribute__((noinline, used)) long BenchRunLibrary(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::LibraryScan(env, 0) != MAV_OK;
    return bad;
}

extern "C" __attribute__((noinline, used)) long BenchRunDirect(long n) {
    long bad = 0;
    for (long k = 0; k < n; ++k) bad += bench::DirectScan(env, 0) != 0;
    return bad;
}

int main(int argc, char** argv) {
    if (argc != 3 || (std::strcmp(argv[1], "lib") != 0 && std::strcmp(argv[1], "direct") != 0)) {
        std::fprintf(stderr, "usage: %s lib|direct N\n", argv[0]);
        return 2;
    }
    long n = std::strtol(argv[2], nullptr, 10);
    env.open(BENCHPEL_PATH);
    // One warm-up scan outside the counted loop: first-call binding and
    // one-time set-up are not per-scan costs.
    bench::LibraryScan(env, 0);
    bench::DirectScan(env, 0);
    long bad = std::strcmp(argv[1], "lib") == 0 ? BenchRunLibrary(n) : BenchRunDirect(n);
    env.close();
    if (bad != 0) {
        std::fprintf(stderr, "%ld scans failed\n", bad);
        return 1;
    }
    return 0;
}
