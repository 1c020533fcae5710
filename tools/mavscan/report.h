// report.h - output of mavscan: text lines, JSON lines, progress and summary.
#ifndef MAVSCAN_REPORT_H
#define MAVSCAN_REPORT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "engine.h"

namespace mavscan {

struct ReportOptions {
    bool json = false;
    bool infectedOnly = false;  // no OK lines
    bool noSummary = false;
    bool progress = false;  // progress line on standard error
    FILE* log = nullptr;    // a copy of every line written to standard output
};

class Report {
  public:
    explicit Report(const ReportOptions& options);

    // Records and prints the outcome for one object (thread safe).
    void object(const std::string& path, const Result& r);
    // Prints an error that belongs to no scanned object.
    void error(const std::string& path, const std::string& message);
    // Rewrites the progress line on standard error (when enabled).
    void progress();
    // Prints the closing summary; engines are the lines of Scanner::engines.
    void summary(const std::vector<std::string>& engines, bool interrupted);

    // 0 all clean, 1 something found, 2 any error.
    int exitStatus() const;

  private:
    void emit(const std::string& line);

    const ReportOptions opt_;
    std::mutex mu_;
    std::string progressText_;  // the progress line as last drawn
    std::atomic<uint64_t> files_{0}, found_{0}, errors_{0}, bytes_{0};
    const std::chrono::steady_clock::time_point start_;
};

// JSON string literal of arbitrary bytes; bytes that are not UTF-8 become
// U+FFFD (jsonName keeps them).
std::string jsonString(const std::string& s);
// "key":"text" and, when s is not valid UTF-8, "key_bytes":"base64 of s".
std::string jsonName(const std::string& key, const std::string& s);
// s for a terminal: control characters, backslash and bytes that are not
// UTF-8 as C escapes (\n, \t, \\, \xHH).
std::string textSafe(const std::string& s);

}  // namespace mavscan

#endif
