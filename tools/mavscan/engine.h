// engine.h - the scanning back end of mavscan: the profile runtime or one
// adapter, handing one instance to each worker.
#ifndef MAVSCAN_ENGINE_H
#define MAVSCAN_ENGINE_H

#include <cstdint>
#include <string>
#include <vector>

#include "kormomav.h"
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

// Outcome of scanning one object.
struct Result {
    MAV_RC rc = MAV_OK;
    uint64_t size = 0;
    std::vector<Infection> infections;
    std::vector<ScanError> errors;
    std::string message;  // why it could not be scanned (rc > 0)
};

class Engine {
public:
    explicit Engine(const Options& options) : opt_(options) {}
    ~Engine() { stop(); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Starts the library (trace, runtime or adapter, parameters).
    bool start(std::string* error);
    void stop();

    // A scan instance for one worker, with the --set parameters applied.
    MAV_INST acquire(std::string* error);
    void release(MAV_INST inst);

    // Scans a file or a buffer on inst.
    Result scanFile(MAV_INST inst, const std::string& path, uint32_t jobId);
    Result scanBytes(MAV_INST inst, const std::string& name, std::vector<unsigned char>& data,
                     uint32_t jobId);

    // Writes adapter, engine, drivers and parameters of inst to out.
    void describe(MAV_INST inst, std::string* out);

private:
    bool applySets(void* target, std::string* error);
    void collect(MAV_INST inst, MAV_RC rc, const MAV_SCANINFO& info, Result* r);

    const Options& opt_;
    MAV_HANDLE hdl_ = nullptr;  // adapter mode
    bool runtime_ = false;      // profile mode
};

// Text of a MAV_RC for messages: "description (NAME)".
std::string describeRc(MAV_RC rc);

}  // namespace mavscan

#endif
