// options.h - command line of mavscan.
#ifndef MAVSCAN_OPTIONS_H
#define MAVSCAN_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

namespace mavscan {

struct Options {
    std::vector<std::string> paths;  // files, directories, "-" for standard input
    std::string config;              // --config FILE
    std::string adapter;             // --adapter PATH
    std::string profile;             // --profile NAME
    std::vector<std::pair<std::string, std::string>> sets;  // --set NAME=VALUE
    std::string database;                                   // -d DIR
    std::vector<std::string> exclude;                       // --exclude REGEX
    std::vector<std::string> excludeDir;                    // --exclude-dir REGEX
    std::vector<std::string> include;                       // --include REGEX
    std::string logFile;                                    // -l FILE
    std::string fileList;                                   // -f FILE
    std::string traceFile;                                  // --trace FILE
    int traceLevel = 1;                                     // --trace-level 0..3
    unsigned jobs = 0;                                      // -j N; 0: number of cores
    bool clean = false;
    bool json = false;
    bool quiet = false;  // -q: -i and --no-summary, no progress line
    bool infectedOnly = false;
    bool noSummary = false;
    bool followLinks = false;
    bool info = false;
    bool version = false;
    bool help = false;
};

// Parses argv. On a usage error returns false with a message in *error.
bool parseOptions(int argc, char** argv, Options* out, std::string* error);

// The --help text.
const char* usageText();

// The version lines of -V before the engines'.
std::string versionText();

}  // namespace mavscan

#endif
