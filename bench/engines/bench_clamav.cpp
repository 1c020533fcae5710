// bench_clamav.cpp - the ClamAV adapter through MavScanBytes against libclamav's
// memory scan called directly on the same compiled engine, same corpus, same
// scan options. Links libclamav: GPL-2.0, like the adapter.
//
//   bench_clamav ADAPTER DBDIR [OBJECTS [ROUNDS [cache]]]
//
// Prints objects/s and MB/s of each way and their ratio (median of ROUNDS
// passes, the ways interleaved), on 1 and 2 threads. libclamav's clean-object
// cache is off unless "cache" is given, so every pass really scans.
#include <clamav.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
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

// Seconds for one pass over corpus split across `threads` threads; pass(t, i)
// scans object i on thread t and returns false on a wrong result.
double Pass(const std::vector<Object>& corpus, int threads,
            const std::function<bool(int, const Object&)>& scan) {
    auto start = Clock::now();
    std::vector<std::thread> pool;
    bool ok[2] = {true, true};
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (size_t i = static_cast<size_t>(t); i < corpus.size(); i += threads) {
                if (!scan(t, corpus[i])) ok[t] = false;
            }
        });
    }
    for (auto& th : pool) th.join();
    if (!ok[0] || !ok[1]) Die("a scan result", 0);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

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
    const bool cache = argc > 5 && std::strcmp(argv[5], "cache") == 0;

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
        cl_error_t r = cl_scanmap_callback(map, o.name.c_str(), &virname, &scanned, engine, &opt,
                                           nullptr);
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

    std::printf("corpus: %zu objects, %.1f MiB; libclamav %s; clean cache %s; %d rounds\n",
                corpus.size(), mb, cl_retver(), cache ? "on" : "off", rounds);
    std::printf("%-8s %-34s %12s %10s %8s\n", "threads", "way", "objects/s", "MiB/s", "ratio");
    for (int threads : {1, 2}) {
        const char* names[3] = {"libclamav direct (cl_scanmap)", "MavScanBytes (no results)",
                                "MavScanBytes (results+types)"};
        std::function<bool(int, const Object&)> ways[3] = {direct, library, withResults};
        std::vector<double> times[3];
        for (int w = 0; w < 3; ++w) Pass(corpus, threads, ways[w]);  // warm-up
        for (int r = 0; r < rounds; ++r) {
            for (int k = 0; k < 3; ++k) {
                int w = (r + k) % 3;  // interleaved, rotating order
                times[w].push_back(Pass(corpus, threads, ways[w]));
            }
        }
        double base = Median(times[0]);
        for (int w = 0; w < 3; ++w) {
            double t = Median(times[w]);
            std::printf("%-8d %-34s %12.1f %10.1f %8.3f\n", threads, names[w],
                        static_cast<double>(corpus.size()) / t, mb / t, base / t);
        }
    }
    for (auto& i : inst) MavFreeInstance(&i);
    MavEnd(&h);
    return 0;
}
