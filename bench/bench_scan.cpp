// bench_scan.cpp - MavScanBytes on a 4 KiB buffer against calling the bench
// adapter's PelScan and PelReleaseScan directly, on one and on two threads.
// After the usual table it prints the time per scan of both, their ratio and
// difference, and how two threads scale against one.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

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

// Pure computation on each thread: how the machine itself scales right now
// (other load on a shared machine shows here first).
void BM_Calibrate(benchmark::State& state) {
    uint64_t x = static_cast<uint64_t>(state.thread_index()) + 1;
    for (auto _ : state) {
        for (int i = 0; i < 16; ++i) {
            x = x * 6364136223846793005ull + 1442695040888963407ull;
            benchmark::DoNotOptimize(x);
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Library)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Direct)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Calibrate)->Threads(1)->Threads(2)->UseRealTime();

// Scan rate (items per second, all threads together, wall clock) and CPU
// time per scan of a run.
struct Sample {
    double rate = 0;
    double cpuNs = 0;
};

// Keeps every repetition of each run; the summary uses the median.
class Collector : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            auto it = r.counters.find("items_per_second");
            if (it == r.counters.end()) continue;
            Sample sample{it->second.value, r.GetAdjustedCPUTime()};
            std::string name = r.run_name.str();
            if (r.run_type == Run::RT_Iteration)
                samples[name].push_back(sample);
            else if (r.aggregate_name == "median")
                medians[name] = sample;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    Sample Get(const std::string& name) const {
        auto m = medians.find(name);
        if (m != medians.end()) return m->second;
        auto it = samples.find(name);
        if (it == samples.end() || it->second.empty()) return Sample{};
        std::vector<Sample> v = it->second;
        std::sort(v.begin(), v.end(),
                  [](const Sample& a, const Sample& b) { return a.rate < b.rate; });
        return v[v.size() / 2];
    }

  private:
    std::map<std::string, std::vector<Sample>> samples;
    std::map<std::string, Sample> medians;  // with --benchmark_repetitions
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    env.open(BENCHPEL_PATH);
    Collector reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    env.close();

    Sample lib1 = reporter.Get("BM_Library/real_time/threads:1");
    Sample dir1 = reporter.Get("BM_Direct/real_time/threads:1");
    Sample lib2 = reporter.Get("BM_Library/real_time/threads:2");
    Sample dir2 = reporter.Get("BM_Direct/real_time/threads:2");
    Sample cal1 = reporter.Get("BM_Calibrate/real_time/threads:1");
    Sample cal2 = reporter.Get("BM_Calibrate/real_time/threads:2");
    if (lib1.rate <= 0 || dir1.rate <= 0) return 0;  // filtered out
    double libNs = 1e9 / lib1.rate;
    double dirNs = 1e9 / dir1.rate;
    std::printf("\nscan of 4 KiB, one thread (median of the repetitions):\n");
    std::printf("  library (MavScanBytes)        %8.1f ns/scan  %12.0f scans/s\n", libNs,
                lib1.rate);
    std::printf("  direct (PelScan+ReleaseScan)  %8.1f ns/scan  %12.0f scans/s\n", dirNs,
                dir1.rate);
    std::printf("  ratio library/direct          %8.2f\n", libNs / dirNs);
    std::printf("  library overhead              %8.1f ns/scan\n", libNs - dirNs);
    if (lib2.rate > 0 && dir2.rate > 0) {
        // Wall clock: what two threads did against one. CPU: the same from
        // the CPU time per scan, which time taken by other processes does not
        // inflate; only contention between the two threads raises it.
        std::printf("two threads against one:\n");
        std::printf("  library  wall clock %.2f x   CPU time %.2f x   (%.0f scans/s)\n",
                    lib2.rate / lib1.rate, 2 * lib1.cpuNs / lib2.cpuNs, lib2.rate);
        std::printf("  direct   wall clock %.2f x   CPU time %.2f x   (%.0f scans/s)\n",
                    dir2.rate / dir1.rate, 2 * dir1.cpuNs / dir2.cpuNs, dir2.rate);
        if (cal1.rate > 0 && cal2.rate > 0)
            std::printf("  machine  wall clock %.2f x   CPU time %.2f x   (pure computation)\n",
                        cal2.rate / cal1.rate, 2 * cal1.cpuNs / cal2.cpuNs);
    }
    return 0;
}
