// engine.h - the scanning back end of mavscan: the profile runtime or one
// adapter, and one scanner per worker thread.
#ifndef MAVSCAN_ENGINE_H
#define MAVSCAN_ENGINE_H

#include <sys/types.h>

#include <atomic>
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

// A file the walk found: opened again for the scan only when it is still the
// same regular file (device and inode); follow allows a symbolic link as the
// last name component. Or standard input ("-").
struct Target {
    std::string path;
    dev_t dev = 0;
    ino_t ino = 0;
    bool follow = false;
    bool standardInput = false;
};

// Outcome of scanning one object. rc 0 clean, negative found, positive an
// error (message says why). size counts the bytes handed to the engine.
struct Result {
    MAV_RC rc = MAV_OK;
    uint64_t size = 0;
    std::vector<Infection> infections;
    std::vector<ScanError> errors;
    std::string message;

    static Result failure(MAV_RC rc, const std::string& message) {
        Result r;
        r.rc = rc;
        r.message = message;
        return r;
    }
};

// Closes a descriptor on every path out.
struct FdCloser {
    int fd;
    ~FdCloser();
};

// The C instances one worker scans with: a profile's instances in step order,
// or one instance of the adapter handle. Used by one thread at a time.
class Scanner {
  public:
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;
    ~Scanner();

    Result scanFile(const Target& target, uint32_t jobId);
    // Scans what can be read from in under name (never cleaned): a regular
    // file through its descriptor, anything else copied to an unnamed
    // temporary file, at most the instances' SCANLIMIT bytes; stop ends the
    // copy.
    Result scanStream(int in, const std::string& name, uint32_t jobId,
                      const std::atomic<bool>& stop);
    // Adapter, engine, drivers and parameters of every C instance.
    std::string describe();
    // One line per C instance: engine version and signatures; with drivers
    // also each signature file's version.
    std::vector<std::string> engines(bool drivers);

  private:
    friend class Engine;
    Scanner(bool clean, int linkage) : clean_(clean), linkage_(linkage) {}
    MAV_RC scanOne(MAV_INST inst, const std::string& name, uint32_t jobId);
    Result walk(const std::string& name, uint32_t jobId);
    // Scans the open descriptor fd through its /proc name; results name it.
    Result scanDescriptor(int fd, const std::string& name, uint32_t jobId);
    uint64_t sizeLimit();

    const bool clean_;
    const int linkage_;
    std::vector<MAV_INST> insts_;                // not owned in profile mode
    std::unique_ptr<mav::MavInstance> profile_;  // owner of insts_ in profile mode
    MAV_INST own_ = nullptr;                     // adapter mode
};

class Engine {
  public:
    // stop, when set, makes the event handler of every scan instance answer
    // stop: running scans end as interrupted.
    Engine(const Options& options, const std::atomic<bool>* stop) : opt_(options), stop_(stop) {}
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
    std::string configText(std::string* error);
    std::string noAdapter(mav::MavInstance& mi);
    bool watchStop(Scanner& s, std::string* error);

    const Options& opt_;
    const std::atomic<bool>* stop_;
    std::string configText_;    // the configuration as given to the runtime
    MAV_HANDLE hdl_ = nullptr;  // adapter mode
    bool runtime_ = false;      // profile mode
    bool trace_ = false;
};

// "description (NAME)" of a code.
std::string describeRc(MAV_RC rc);

}  // namespace mavscan

#endif
