// bench_clamav.cpp - the ClamAV adapter through MavScanBytes against libclamav's
// memory scan called directly on the same compiled engine, same corpus, same
// scan options. Links libclamav: GPL-2.0, like the adapter.
//
//   bench_clamav ADAPTER DBDIR [OBJECTS [ROUNDS [MODE]]]
//
// Prints objects/s and MiB/s of each way and their ratio (median of ROUNDS
// passes, the ways interleaved), on 1 and 2 threads, by wall time and by the
// CPU time of the scanning threads (steadier on a shared machine).
// libclamav's clean-object cache is off unless MODE is "cache", so every pass
// really scans. MODE "count-direct", "count-library" or "count-results" makes
// one pass of that way inside CountedPass() and nothing else, for callgrind
// (--toggle-collect=CountedPass).
#include <clamav.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "corpus.h"
#include "kormomav.h"
#include "mavxxi.h"

using namespace benchengines;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void Die(const char* what, int rc) {
    std::fprintf(stderr, "bench_clamav: %s failed (%d)\n", what, rc);
    std::exit(1);
}

cl_scan_options AdapterDefaults() {
    // What the adapter passes with its default parameters.
    cl_scan_options o;
    std::memset(&o, 0, sizeof o);
    o.general = CL_SCAN_GENERAL_ALLMATCHES | CL_SCAN_GENERAL_HEURISTICS;
    o.parse = ~0u;
    o.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;
    return o;
}

double ThreadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Timing {
    double wall;
    double cpu;  // of the scanning threads, summed
};

// One pass over corpus split across `threads` threads; scan(t, object) scans
// on thread t and returns false on a wrong result.
Timing Pass(const std::vector<Object>& corpus, int threads,
            const std::function<bool(int, const Object&)>& scan) {
    auto start = Clock::now();
    std::vector<std::thread> pool;
    bool ok[2] = {true, true};
    double cpu[2] = {0, 0};
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            double c0 = ThreadCpu();
            for (size_t i = static_cast<size_t>(t); i < corpus.size(); i += threads) {
                if (!scan(t, corpus[i])) ok[t] = false;
            }
            cpu[t] = ThreadCpu() - c0;
        });
    }
    for (auto& th : pool) th.join();
    if (!ok[0] || !ok[1]) Die("a scan result", 0);
    return {std::chrono::duration<double>(Clock::now() - start).count(), cpu[0] + cpu[1]};
}

}  // namespace

// The pass callgrind counts (not inlined, C name).
extern "C" __attribute__((noinline)) void CountedPass(
    const std::vector<Object>& corpus, const std::function<bool(int, const Object&)>& scan) {
    for (const Object& o : corpus) {
        if (!scan(0, o)) Die("a scan result", 0);
    }
}

namespace {

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s ADAPTER DBDIR [OBJECTS [ROUNDS [cache]]]\n", argv[0]);
        return 2;
    }
    const size_t objects = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 200;
    const int rounds = argc > 4 ? std::atoi(argv[4]) : 7;
    const std::string mode = argc > 5 ? argv[5] : "";
    const bool cache = mode == "cache";

    MAV_HANDLE h = nullptr;
    MAV_RC rc = MavInit(argv[1], &h);
    if (rc != MAV_OK) Die("MavInit", rc);
    rc = MavSetParameter(h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, argv[2]);
    if (rc != MAV_OK) Die("MavSetParameter", rc);
    MAV_INST inst[2] = {};
    for (auto& i : inst) {
        rc = MavCreateInstance(h, &i);
        if (rc != MAV_OK) Die("MavCreateInstance", rc);
    }
    // The engine the adapter compiled: the instance's PEL_INIT names it.
    PEL_INIT* init = static_cast<MAV_INST_REC*>(inst[0])->pPelInit;
    auto* engine = static_cast<cl_engine*>(init->hEngine);
    if (!cache) cl_engine_set_num(engine, CL_ENGINE_DISABLE_CACHE, 1);

    const std::vector<Object> corpus = MakeCorpus(objects, 1);
    const double mb = static_cast<double>(TotalBytes(corpus)) / (1024.0 * 1024.0);
    const cl_scan_options options = AdapterDefaults();

    auto direct = [&](int, const Object& o) {
        cl_fmap_t* map = cl_fmap_open_memory(o.bytes.data(), o.bytes.size());
        const char* virname = nullptr;
        unsigned long scanned = 0;
        cl_scan_options opt = options;
        cl_error_t r =
            cl_scanmap_callback(map, o.name.c_str(), &virname, &scanned, engine, &opt, nullptr);
        cl_fmap_close(map);
        return r == CL_CLEAN;
    };
    auto library = [&](int t, const Object& o) {
        return MavScanBytes(inst[t], o.name.c_str(), const_cast<unsigned char*>(o.bytes.data()),
                            o.bytes.size(), 0, nullptr) == MAV_OK;
    };
    auto withResults = [&](int t, const Object& o) {
        MAV_SCANINFO si{};
        si.struct_size = 32;
        return MavScanBytes(inst[t], o.name.c_str(), const_cast<unsigned char*>(o.bytes.data()),
                            o.bytes.size(), 0, &si) == MAV_OK &&
               si.uiScanned == 1;
    };

    if (mode.compare(0, 6, "count-") == 0) {
        const std::string way = mode.substr(6);
        std::function<bool(int, const Object&)> scan = withResults;
        if (way == "direct") scan = direct;
        if (way == "library") scan = library;
        Pass(corpus, 1, scan);  // warm-up, not counted
        CountedPass(corpus, scan);
        for (auto& i : inst) MavFreeInstance(&i);
        MavEnd(&h);
        return 0;
    }

    std::printf("corpus: %zu objects, %.1f MiB; libclamav %s; clean cache %s; %d rounds\n",
                corpus.size(), mb, cl_retver(), cache ? "on" : "off", rounds);
    std::printf("%-8s %-30s %10s %8s %7s %10s %7s\n", "threads", "way", "objects/s", "MiB/s",
                "ratio", "CPU ms/obj", "ratio");
    for (int threads : {1, 2}) {
        const char* names[3] = {"libclamav direct (cl_scanmap)", "MavScanBytes, no results",
                                "MavScanBytes, with results"};
        std::function<bool(int, const Object&)> ways[3] = {direct, library, withResults};
        std::vector<double> wall[3], cpu[3];
        for (int w = 0; w < 3; ++w) Pass(corpus, threads, ways[w]);  // warm-up
        for (int r = 0; r < rounds; ++r) {
            for (int k = 0; k < 3; ++k) {
                int w = (r + k) % 3;  // interleaved, rotating order
                Timing t = Pass(corpus, threads, ways[w]);
                wall[w].push_back(t.wall);
                cpu[w].push_back(t.cpu);
            }
        }
        const double n = static_cast<double>(corpus.size());
        const double baseWall = Median(wall[0]), baseCpu = Median(cpu[0]);
        for (int w = 0; w < 3; ++w) {
            double tw = Median(wall[w]), tc = Median(cpu[w]);
            std::printf("%-8d %-30s %10.1f %8.1f %7.3f %10.3f %7.3f\n", threads, names[w], n / tw,
                        mb / tw, baseWall / tw, tc * 1000.0 / n, baseCpu / tc);
        }
    }
    for (auto& i : inst) MavFreeInstance(&i);
    MavEnd(&h);
    return 0;
}
