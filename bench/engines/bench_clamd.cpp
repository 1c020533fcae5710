// bench_clamd.cpp - the clamd adapter against `clamdscan --stream` on the same
// files and the same daemon: files per second for both.
//
//   bench_clamd ADAPTER SOCKET CLAMD_CONF [OBJECTS [ROUNDS]]
//
// SOCKET is the daemon's local socket, CLAMD_CONF its configuration (what
// clamdscan reads). The adapter scans the files with MavScanFile on one
// instance (one kept session) and the same objects from memory with
// MavScanBytes; clamdscan gets all files in one run.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "corpus.h"
#include "kormomav.h"

extern char** environ;

using namespace benchengines;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void Die(const char* what, int rc) {
    std::fprintf(stderr, "bench_clamd: %s failed (%d)\n", what, rc);
    std::exit(1);
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double Clamdscan(const std::string& conf, const std::vector<std::string>& files) {
    std::vector<std::string> args = {"clamdscan", "--stream", "--no-summary", "--quiet",
                                     "--config-file=" + conf};
    args.insert(args.end(), files.begin(), files.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, "clamdscan", nullptr, nullptr, argv.data(), environ) != 0) {
        Die("posix_spawnp clamdscan", errno);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    double t = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("clamdscan (not clean?)", status);
    return t;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s ADAPTER SOCKET CLAMD_CONF [OBJECTS [ROUNDS]]\n", argv[0]);
        return 2;
    }
    const size_t objects = argc > 4 ? std::strtoul(argv[4], nullptr, 10) : 200;
    const int rounds = argc > 5 ? std::atoi(argv[5]) : 5;
    const std::string conf = argv[3];

    char tmpl[] = "/tmp/kormo-bench-clamd-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) Die("mkdtemp", errno);
    const std::vector<Object> corpus = MakeCorpus(objects, 2);
    const std::vector<std::string> files = WriteCorpus(corpus, tmpl);
    const double mb = static_cast<double>(TotalBytes(corpus)) / (1024.0 * 1024.0);

    MAV_HANDLE h = nullptr;
    MAV_RC rc = MavInit(argv[1], &h);
    if (rc != MAV_OK) Die("MavInit", rc);
    std::string server = std::string("unix:") + argv[2];
    rc = MavSetParameter(h, "INITSERVERS", VS_TYPE_CHAR, server.c_str());
    if (rc != MAV_OK) Die("MavSetParameter", rc);
    MAV_INST inst = nullptr;
    rc = MavCreateInstance(h, &inst);
    if (rc != MAV_OK) Die("MavCreateInstance", rc);

    auto adapterFiles = [&] {
        auto start = Clock::now();
        for (const std::string& f : files) {
            if (MavScanFile(inst, f.c_str(), 0, nullptr) != MAV_OK) Die("MavScanFile", 0);
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    auto adapterBytes = [&] {
        auto start = Clock::now();
        for (const Object& o : corpus) {
            if (MavScanBytes(inst, o.name.c_str(), const_cast<unsigned char*>(o.bytes.data()),
                             o.bytes.size(), 0, nullptr) != MAV_OK) {
                Die("MavScanBytes", 0);
            }
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    auto tool = [&] { return Clamdscan(conf, files); };

    const char* names[3] = {"clamdscan --stream (files)", "MavScanFile (clamd adapter)",
                            "MavScanBytes (clamd adapter)"};
    std::vector<double> times[3];
    tool();
    adapterFiles();
    adapterBytes();
    for (int r = 0; r < rounds; ++r) {
        for (int k = 0; k < 3; ++k) {
            int w = (r + k) % 3;
            times[w].push_back(w == 0 ? tool() : w == 1 ? adapterFiles() : adapterBytes());
        }
    }
    std::printf("corpus: %zu files, %.1f MiB; one clamd, local socket; %d rounds\n", corpus.size(),
                mb, rounds);
    std::printf("%-32s %10s %10s %8s\n", "way", "files/s", "MiB/s", "ratio");
    double base = Median(times[0]);
    for (int w = 0; w < 3; ++w) {
        double t = Median(times[w]);
        std::printf("%-32s %10.1f %10.1f %8.3f\n", names[w], static_cast<double>(corpus.size()) / t,
                    mb / t, base / t);
    }
    MavFreeInstance(&inst);
    MavEnd(&h);
    std::filesystem::remove_all(tmpl);
    return 0;
}
