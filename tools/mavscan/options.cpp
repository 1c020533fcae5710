// options.cpp - command line of mavscan.
#include "options.h"

#include <cstdlib>
#include <cstring>
#include <thread>

#include "kormomav.h"

namespace mavscan {

const char* usageText() {
    return "Usage: mavscan [OPTIONS] PATH...\n"
           "Scan files, directories (recursively) and standard input (\"-\") for malware.\n"
           "\n"
           "  -j N                 worker threads, each with its own instance (default: cores)\n"
           "  -d, --database DIR   signature directory of the ClamAV engine (also under profiles)\n"
           "  -f, --file-list FILE scan the paths listed in FILE, one per line\n"
           "      --exclude REGEX  do not scan files whose path matches REGEX\n"
           "      --exclude-dir REGEX  do not enter directories whose path matches REGEX\n"
           "      --include REGEX  scan only files whose path matches REGEX\n"
           "      --config FILE    profile configuration (default: ./mav.properties, else the\n"
           "                       built-in default configuration)\n"
           "      --profile NAME   profile to scan with (default: the configuration's default)\n"
           "      --adapter PATH   scan through this adapter directly instead of profiles\n"
           "      --set NAME=VALUE set an adapter parameter (typed as the adapter reports it)\n"
           "      --clean          clean infected files where the engine can\n"
           "      --json           one JSON object per scanned object\n"
           "  -i, --infected       print only findings and errors (no OK lines)\n"
           "      --no-summary     print no summary\n"
           "  -q, --quiet          -i and --no-summary, and no progress line\n"
           "  -l, --log FILE       append the report to FILE as well\n"
           "  -L, --follow-symlinks  follow symbolic links while walking directories\n"
           "      --trace FILE     write the library trace to FILE\n"
           "      --trace-level N  trace detail 0..3 (default 1)\n"
           "      --info           show adapter, engine, drivers and parameters, then exit\n"
           "  -V, --version        show the versions of mavscan, the library, engines and\n"
           "                       signatures, then exit\n"
           "  -h, --help           show this help and exit\n"
           "\n"
           "Exit status: 0 all clean, 1 something found, 2 an error (an object that could\n"
           "not be scanned is an error, never clean; an error outranks a finding).\n";
}

std::string versionText() {
    return std::string("mavscan ") + KORMOMAV_VERSION + "\nlibkormomav " + MavGetVersion(nullptr) +
           "\n";
}

namespace {

bool parseUnsigned(const char* text, unsigned long max, unsigned long* out) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 10);
    if (*end != '\0' || v > max || text[0] == '-') return false;
    *out = v;
    return true;
}

}  // namespace

bool parseOptions(int argc, char** argv, Options* o, std::string* error) {
    bool onlyPaths = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* name, std::string* dst) -> bool {
            std::string prefix = std::string(name) + "=";
            if (a.compare(0, prefix.size(), prefix) == 0) {
                *dst = a.substr(prefix.size());
                return true;
            }
            if (i + 1 >= argc) {
                *error = std::string("option ") + name + " needs a value";
                return false;
            }
            *dst = argv[++i];
            return true;
        };
        auto is = [&](const char* name) {
            size_t n = std::strlen(name);
            return a == name || (a.compare(0, n + 1, std::string(name) + "=") == 0);
        };
        if (onlyPaths || a == "-" || a.empty() || a[0] != '-') {
            o->paths.push_back(a);
        } else if (a == "--") {
            onlyPaths = true;
        } else if (a == "-h" || a == "--help") {
            o->help = true;
        } else if (a == "-V" || a == "--version") {
            o->version = true;
        } else if (a == "--info") {
            o->info = true;
        } else if (a == "--clean") {
            o->clean = true;
        } else if (a == "--json") {
            o->json = true;
        } else if (a == "-q" || a == "--quiet") {
            o->quiet = o->infectedOnly = o->noSummary = true;
        } else if (a == "-i" || a == "--infected") {
            o->infectedOnly = true;
        } else if (a == "--no-summary") {
            o->noSummary = true;
        } else if (a == "-L" || a == "--follow-symlinks") {
            o->followLinks = true;
        } else if (a.compare(0, 2, "-j") == 0 && a.size() > 2) {
            unsigned long n = 0;
            if (!parseUnsigned(a.c_str() + 2, 1024, &n) || n == 0) {
                *error = "-j needs a number from 1 to 1024";
                return false;
            }
            o->jobs = static_cast<unsigned>(n);
        } else if (a == "-j" || is("--jobs")) {
            std::string v;
            if (!value(a == "-j" ? "-j" : "--jobs", &v)) return false;
            unsigned long n = 0;
            if (!parseUnsigned(v.c_str(), 1024, &n) || n == 0) {
                *error = "-j needs a number from 1 to 1024";
                return false;
            }
            o->jobs = static_cast<unsigned>(n);
        } else if (a == "-d" || is("--database")) {
            if (!value(a == "-d" ? "-d" : "--database", &o->database)) return false;
        } else if (a == "-l" || is("--log")) {
            if (!value(a == "-l" ? "-l" : "--log", &o->logFile)) return false;
        } else if (a == "-f" || is("--file-list")) {
            if (!value(a == "-f" ? "-f" : "--file-list", &o->fileList)) return false;
        } else if (is("--exclude") || is("--exclude-dir") || is("--include")) {
            std::string name = a.substr(0, a.find('='));
            auto* list = name == "--exclude"   ? &o->exclude
                         : name == "--include" ? &o->include
                                               : &o->excludeDir;
            list->emplace_back();
            if (!value(name.c_str(), &list->back())) return false;
        } else if (is("--config")) {
            if (!value("--config", &o->config)) return false;
        } else if (is("--adapter")) {
            if (!value("--adapter", &o->adapter)) return false;
        } else if (is("--profile")) {
            if (!value("--profile", &o->profile)) return false;
        } else if (is("--trace")) {
            if (!value("--trace", &o->traceFile)) return false;
        } else if (is("--trace-level")) {
            std::string v;
            if (!value("--trace-level", &v)) return false;
            unsigned long n = 0;
            if (!parseUnsigned(v.c_str(), 3, &n)) {
                *error = "--trace-level needs a number from 0 to 3";
                return false;
            }
            o->traceLevel = static_cast<int>(n);
        } else if (is("--set")) {
            std::string v;
            if (!value("--set", &v)) return false;
            size_t eq = v.find('=');
            if (eq == std::string::npos || eq == 0) {
                *error = "--set needs NAME=VALUE";
                return false;
            }
            o->sets.emplace_back(v.substr(0, eq), v.substr(eq + 1));
        } else {
            *error = "unknown option " + a;
            return false;
        }
    }
    if (!o->adapter.empty() && (!o->config.empty() || !o->profile.empty())) {
        *error = "--adapter cannot be combined with --config or --profile";
        return false;
    }
    if (o->jobs == 0) {
        unsigned n = std::thread::hardware_concurrency();
        o->jobs = n == 0 ? 1 : n;
    }
    if (!o->help && !o->version && !o->info && o->paths.empty() && o->fileList.empty()) {
        *error = "no path given";
        return false;
    }
    return true;
}

}  // namespace mavscan
