// bench_scan.cpp - MavScanBytes on a 4 KiB buffer against calling the bench
// adapter's PelScan and PelReleaseScan directly, on one and on two threads.
// After the usual table it prints the time per scan of both, their ratio and
// difference, and how two threads scale against one.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_common.h"

namespace {

bench::Env env;

void BM_Library(benchmark::State& state) {
    int i = state.thread_index();
    for (auto _ : state) {
        MAV_RC rc = bench::LibraryScan(env, i);
        benchmark::DoNotOptimize(rc);
        if (rc != MAV_OK) state.SkipWithError("MavScanBytes failed");
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Direct(benchmark::State& state) {
    int i = state.thread_index();
    for (auto _ : state) {
        int rc = bench::DirectScan(env, i);
        benchmark::DoNotOptimize(rc);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Library)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Direct)->Threads(1)->Threads(2)->UseRealTime();

// Keeps the scan rate (items per second, all threads together) of each run.
class Collector : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
            auto it = r.counters.find("items_per_second");
            if (it != r.counters.end()) rates[r.benchmark_name()] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

double Rate(const Collector& c, const char* name) {
    auto it = c.rates.find(name);
    return it != c.rates.end() ? it->second : 0.0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    env.open(BENCHPEL_PATH);
    Collector reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    env.close();

    double lib1 = Rate(reporter, "BM_Library/real_time/threads:1");
    double dir1 = Rate(reporter, "BM_Direct/real_time/threads:1");
    double lib2 = Rate(reporter, "BM_Library/real_time/threads:2");
    double dir2 = Rate(reporter, "BM_Direct/real_time/threads:2");
    if (lib1 <= 0 || dir1 <= 0) return 0;  // filtered out
    double libNs = 1e9 / lib1;
    double dirNs = 1e9 / dir1;
    std::printf("\nscan of 4 KiB, one thread:\n");
    std::printf("  library (MavScanBytes)        %8.1f ns/scan  %12.0f scans/s\n", libNs, lib1);
    std::printf("  direct (PelScan+ReleaseScan)  %8.1f ns/scan  %12.0f scans/s\n", dirNs, dir1);
    std::printf("  ratio library/direct          %8.2f\n", libNs / dirNs);
    std::printf("  library overhead              %8.1f ns/scan\n", libNs - dirNs);
    if (lib2 > 0 && dir2 > 0) {
        std::printf("two threads:\n");
        std::printf("  library %12.0f scans/s  = %.2f x one thread\n", lib2, lib2 / lib1);
        std::printf("  direct  %12.0f scans/s  = %.2f x one thread\n", dir2, dir2 / dir1);
        std::printf("  ratio library/direct (time per scan) %.2f\n", dir2 / lib2);
    }
    return 0;
}
