// bench_yara.cpp - the YARA adapter through mavscan against libyara called
// directly, on the same rules and the same files: whole runs, wall time.
//
//   bench_yara MAVSCAN ADAPTER [OBJECTS [ROUNDS [RULES]]]
//   bench_yara direct RULES_DIR FILE...     (the reference way, run by the above)
//
// The rules (RULES of them, in files of 25, one namespace per file, text,
// hex and regular-expression strings and a "pe" module condition) and the
// corpus are generated, the same on every run, and nothing in the corpus
// matches, so every file is scanned to the end. Each round runs both ways as
// processes, in rotating order: `mavscan --adapter ADAPTER -j1 CORPUS` (the
// rules directory named by KORMO_YARA_RULES) and this program's "direct"
// way, which compiles the same files into the same namespaces and scans each
// file with yr_rules_scan_file on one thread. Both include start-up and the
// rules' compilation. The medians of wall time and of the processes' CPU
// time (user + system, less disturbed by other load) are reported with their
// ratios.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yara.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "corpus.h"

extern char** environ;

using namespace benchengines;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

[[noreturn]] void Die(const std::string& what, int rc) {
    std::fprintf(stderr, "bench_yara: %s failed (%d)\n", what.c_str(), rc);
    std::exit(1);
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Rule i: three strings of tokens that the corpus never holds.
std::string Rule(unsigned i) {
    char buf[512];
    unsigned a = i * 2654435761u;
    std::snprintf(buf, sizeof buf,
                  "rule R%04u : bench {\n"
                  "  meta: description = \"benchmark rule %u\"\n"
                  "  strings:\n"
                  "    $t = \"kq%08xzv\" nocase\n"
                  "    $h = { 4D 5A ?? %02X %02X [2-8] %02X %02X }\n"
                  "    $r = /zz%04x[0-9]{3}qq/\n"
                  "  condition: any of them or (pe.is_pe == 1 and pe.number_of_sections == %u)\n"
                  "}\n",
                  i, i, a, a & 0xff, (a >> 8) & 0xff, (a >> 16) & 0xff, a >> 24, i & 0xffff,
                  1000 + i);
    return buf;
}

void WriteRules(const std::string& dir, unsigned count) {
    fs::create_directories(dir);
    for (unsigned f = 0; f * 25 < count; ++f) {
        std::ofstream out(dir + "/set" + std::to_string(f) + ".yar");
        out << "import \"pe\"\n";
        for (unsigned i = f * 25; i < std::min(count, f * 25 + 25); ++i) out << Rule(i);
    }
}

int CountMatch(YR_SCAN_CONTEXT*, int message, void*, void* user) {
    if (message == CALLBACK_MSG_RULE_MATCHING) ++*static_cast<int*>(user);
    return CALLBACK_CONTINUE;
}

// The reference: compile every .yar file (own namespace) and scan the files.
int Direct(const std::string& rulesDir, int count, char** files) {
    yr_initialize();
    YR_COMPILER* c = nullptr;
    yr_compiler_create(&c);
    std::vector<fs::path> sources;
    for (const auto& e : fs::directory_iterator(rulesDir)) sources.push_back(e.path());
    std::sort(sources.begin(), sources.end());
    for (const fs::path& p : sources) {
        FILE* f = std::fopen(p.c_str(), "r");
        if (f == nullptr || yr_compiler_add_file(c, f, p.stem().c_str(), p.c_str()) != 0) return 3;
        std::fclose(f);
    }
    YR_RULES* rules = nullptr;
    if (yr_compiler_get_rules(c, &rules) != ERROR_SUCCESS) return 3;
    yr_compiler_destroy(c);
    int matches = 0;
    for (int i = 0; i < count; ++i) {
        if (yr_rules_scan_file(rules, files[i], 0, CountMatch, &matches, 60) != ERROR_SUCCESS) {
            return 4;
        }
    }
    yr_rules_destroy(rules);
    yr_finalize();
    return matches == 0 ? 0 : 1;
}

struct Times {
    double wall, cpu;  // seconds; cpu: user + system time of the process
};

Times Run(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) Die(args[0], errno);
    int status = 0;
    struct rusage ru;
    wait4(pid, &status, 0, &ru);
    double wall = std::chrono::duration<double>(Clock::now() - start).count();
    posix_spawn_file_actions_destroy(&fa);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die(args[0] + " (not clean?)", status);
    auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return {wall, seconds(ru.ru_utime) + seconds(ru.ru_stime)};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::string(argv[1]) == "direct") return Direct(argv[2], argc - 3, argv + 3);
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s MAVSCAN ADAPTER [OBJECTS [ROUNDS [RULES]]]\n", argv[0]);
        return 2;
    }
    const size_t objects = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 400;
    const int rounds = argc > 4 ? std::atoi(argv[4]) : 7;
    const unsigned ruleCount = argc > 5 ? static_cast<unsigned>(std::atoi(argv[5])) : 500;

    char tmpl[] = "/tmp/kormo-bench-yara-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) Die("mkdtemp", errno);
    const std::string work = tmpl, rules = work + "/rules", corpusDir = work + "/corpus";
    WriteRules(rules, ruleCount);
    fs::create_directories(corpusDir);
    const std::vector<Object> corpus = MakeCorpus(objects, 3);
    const std::vector<std::string> files = WriteCorpus(corpus, corpusDir);
    const double mb = static_cast<double>(TotalBytes(corpus)) / (1024.0 * 1024.0);
    setenv("KORMO_YARA_RULES", rules.c_str(), 1);
    unsetenv("PEL_LIB");

    std::vector<std::string> direct = {fs::canonical("/proc/self/exe").string(), "direct", rules};
    direct.insert(direct.end(), files.begin(), files.end());
    const std::vector<std::string> mavscan = {argv[1], "--adapter", argv[2],  "-j",
                                              "1",     "-q",        corpusDir};
    std::vector<double> wall[2], cpu[2];
    for (int r = 0; r < rounds; ++r) {
        for (int k = 0; k < 2; ++k) {
            int way = (r + k) % 2;
            Times t = Run(way == 0 ? direct : mavscan);
            wall[way].push_back(t.wall);
            cpu[way].push_back(t.cpu);
        }
    }
    std::printf("%zu files (%.1f MiB), %u rules in %u files, median of %d rounds\n", files.size(),
                mb, ruleCount, (ruleCount + 24) / 25, rounds);
    std::printf("%-36s %8s %8s %10s %8s %10s\n", "way", "wall s", "MiB/s", "wall ratio", "CPU s",
                "CPU ratio");
    const char* names[2] = {"libyara direct (yr_rules_scan_file)", "mavscan -j1 (YARA adapter)"};
    const double baseWall = Median(wall[0]), baseCpu = Median(cpu[0]);
    for (int way = 0; way < 2; ++way) {
        double w = Median(wall[way]), c = Median(cpu[way]);
        std::printf("%-36s %8.3f %8.1f %10.3f %8.3f %10.3f\n", names[way], w, mb / w, baseWall / w,
                    c, baseCpu / c);
    }
    fs::remove_all(work);
    return 0;
}
