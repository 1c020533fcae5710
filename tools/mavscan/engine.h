// engine.h - the scanning back end of mavscan: the profile runtime or one
// adapter, and one scanner per worker thread.
#ifndef MAVSCAN_ENGINE_H
#define MAVSCAN_ENGINE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kormomav.h"
#include "mavprofile.h"
#include "options.h"

namespace mavscan {

struct Infection {
    std::string name;
    std::string object;
};

struct ScanError {
    uint32_t code = 0;
    std::string text;
    std::string object;
};

// Outcome of scanning one object. rc 0 clean, negative found, positive an
// error (message says why).
struct Result {
    MAV_RC rc = MAV_OK;
    uint64_t size = 0;
    std::vector<Infection> infections;
    std::vector<ScanError> errors;
    std::string message;
};

// The C instances one worker scans with: a profile's instances in step order,
// or one instance of the adapter handle. Used by one thread at a time.
class Scanner {
  public:
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;
    ~Scanner();

    Result scanFile(const std::string& path, uint32_t jobId);
    // Scans data in memory under name (never cleaned).
    Result scanBytes(const std::string& name, std::vector<unsigned char>& data, uint32_t jobId);
    // Adapter, engine, drivers and parameters of every C instance.
    std::string describe();

  private:
    friend class Engine;
    Scanner(bool clean, int linkage) : clean_(clean), linkage_(linkage) {}
    MAV_RC scanOne(MAV_INST inst, const std::string& name, std::vector<unsigned char>* data,
                   uint32_t jobId);
    Result walk(const std::string& name, std::vector<unsigned char>* data, uint32_t jobId);

    const bool clean_;
    const int linkage_;
    std::vector<MAV_INST> insts_;                // not owned in profile mode
    std::unique_ptr<mav::MavInstance> profile_;  // owner of insts_ in profile mode
    MAV_INST own_ = nullptr;                     // adapter mode
};

class Engine {
  public:
    explicit Engine(const Options& options) : opt_(options) {}
    ~Engine() { stop(); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Starts the trace and the runtime (or the adapter handle, with the --set
    // parameters).
    bool start(std::string* error);
    void stop();

    // A scanner for one worker; null with *error when none can be had. Call
    // from one thread only: building profile instances is not thread safe.
    std::unique_ptr<Scanner> acquire(std::string* error);

  private:
    bool applySets(const std::vector<void*>& targets, std::string* error);
    std::string traceErrors();

    const Options& opt_;
    MAV_HANDLE hdl_ = nullptr;  // adapter mode
    bool runtime_ = false;      // profile mode
    bool trace_ = false;
};

// "description (NAME)" of a code.
std::string describeRc(MAV_RC rc);

}  // namespace mavscan

#endif
