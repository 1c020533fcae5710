// report.h - output of mavscan: text lines, JSON lines, progress and summary.
#ifndef MAVSCAN_REPORT_H
#define MAVSCAN_REPORT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "engine.h"

namespace mavscan {

class Report {
  public:
    Report(bool json, bool quiet, bool progress);

    // Records and prints the outcome for one object (thread safe).
    void object(const std::string& path, const Result& r);
    // Prints an error that belongs to no scanned object.
    void error(const std::string& path, const std::string& message);
    // Rewrites the progress line on standard error (when enabled).
    void progress();
    // Prints the closing summary.
    void summary();

    // 0 all clean, 1 something found, 2 any error.
    int exitStatus() const;

  private:
    void emit(const std::string& line);

    const bool json_, quiet_, progress_;
    std::mutex mu_;
    std::string progressText_;  // the progress line as last drawn
    std::atomic<uint64_t> files_{0}, found_{0}, errors_{0}, bytes_{0};
    const std::chrono::steady_clock::time_point start_;
};

// JSON string literal of arbitrary bytes (invalid UTF-8 bytes as \u00XX).
std::string jsonString(const std::string& s);

}  // namespace mavscan

#endif
