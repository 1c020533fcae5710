/*
 * clam_engine.h - one compiled libclamav engine, shared by the instances of a
 * handle (thread model 2), and the scan of one object on it.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#ifndef KORMO_CLAM_ENGINE_H
#define KORMO_CLAM_ENGINE_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "clam_common.h"
#include "clam_content.h"
#include "pel_init.h"

struct cl_engine;

namespace clampel {

// libclamav keeps its size, depth and time limits in the engine, and changing
// them while a scan runs is not safe. The gate lets scans that want the
// engine's current limits run together; a scan that wants other limits waits
// until the engine is idle, sets them and runs. Waiters are served in arrival
// order, so neither set of limits can starve the other.
class LimitsGate {
  public:
    void Enter(cl_engine* engine, const Limits& want);
    void Leave();

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    Limits current_;
    bool applied_ = false;
    uint32_t active_ = 0;
    std::deque<uint64_t> queue_;
    uint64_t nextTicket_ = 0;
};

class Engine : public pelcommon::InitOwner<Engine, 0x434c494eu> {  // "CLIN"
  public:
    // Loads and compiles the databases named by the init parameters. Always
    // returns an engine; when the result is not kOk it carries the reason in
    // its PEL_INIT (iErrorRC, pszErrorText) and can only be deleted.
    static int Create(const PEL_INITPARAMS* params, const EngineDefaults& defaults, Engine** out);
    ~Engine();

    // PelScan for one object.
    int Scan(const PEL_CALLBACK* callback, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
             PEL_SCANINFO** result);

  private:
    Engine() = default;
    int Load(const PEL_INITPARAMS* params);
    void ListDrivers(const std::string& dir);

    friend class ScanJob;  // clam_scan.cpp: the scan of one object

    cl_engine* engine_ = nullptr;
    std::string tmpDir_;  // INITTEMP_PATH, else $TMPDIR, else /tmp
    EngineDefaults defaults_;
    LimitsGate gate_;
    MagicPool magic_;
    std::string versionText_;
    std::vector<PEL_DRIVERINFO> drivers_;
    std::deque<std::string> driverNames_;
};

// Routes libclamav's log lines to the calling thread's sink while one is set
// (database load, scans); lines outside are dropped. Installed once.
void InstallMessageHandler();

// libclamav's log lines of one thread: errors apart from warnings.
struct MessageSink {
    std::string errors;
    std::string text;
};

// Sets the calling thread's sink for libclamav's log lines (null: none) and
// returns the previous one.
MessageSink* SwapMessageSink(MessageSink* sink);

}  // namespace clampel

#endif
