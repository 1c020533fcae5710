/*
 * clam_engine.cpp - loading and compiling the libclamav engine of a handle.
 *
 * Copyright the libkormomav authors. Licensed under the GNU General Public
 * License version 2 (see LICENSE in this folder).
 */
#include "clam_engine.h"

#include <clamav.h>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace clampel {

void InstallScanCallbacks(cl_engine* engine);  // clam_scan.cpp

namespace {

thread_local MessageSink* tlsMessages = nullptr;

// libclamav reports some failures only here (a temporary directory it cannot
// create, a file it cannot write) and still returns a verdict: errors are
// flagged so the scan can refuse to call the object clean.
void OnMessage(enum cl_msg severity, const char* /*fullmsg*/, const char* msg, void* /*ctx*/) {
    if (tlsMessages == nullptr || msg == nullptr || severity < CL_MSG_WARN) return;
    std::string line(msg);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    if (line.empty()) return;
    std::string& text = severity >= CL_MSG_ERROR ? tlsMessages->errors : tlsMessages->text;
    if (!text.empty()) text += "; ";
    text += line;
}

// Collects libclamav's messages on this thread for the lifetime of the object.
class MessageCapture {
  public:
    MessageCapture() : previous_(tlsMessages) { tlsMessages = &sink_; }
    ~MessageCapture() { tlsMessages = previous_; }
    std::string Text() const {
        if (sink_.errors.empty() || sink_.text.empty()) return sink_.errors + sink_.text;
        return sink_.errors + "; " + sink_.text;
    }

  private:
    MessageSink* previous_;
    MessageSink sink_;
};

bool IsDatabaseFile(const std::string& name) {
    static const char* const kExt[] = {".cvd",  ".cld", ".cud",  ".db",   ".hdb", ".hdu",  ".hsb",
                                       ".hsu",  ".mdb", ".mdu",  ".msb",  ".msu", ".ndb",  ".ndu",
                                       ".ldb",  ".ldu", ".cdb",  ".idb",  ".fp",  ".sfp",  ".ign",
                                       ".ign2", ".pdb", ".gdb",  ".wdb",  ".ftm", ".cfg",  ".crb",
                                       ".cat",  ".yar", ".yara", ".pwdb", ".cbc", ".info", ".imp"};
    for (const char* e : kExt) {
        size_t n = std::strlen(e);
        if (name.size() > n && name.compare(name.size() - n, n, e) == 0) return true;
    }
    return false;
}

bool EndsWith(const std::string& s, const char* tail) {
    size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

}  // namespace

void InstallMessageHandler() {
    cl_set_clcb_msg(OnMessage);
}

MessageSink* SwapMessageSink(MessageSink* sink) {
    MessageSink* previous = tlsMessages;
    tlsMessages = sink;
    return previous;
}

// ---- LimitsGate -------------------------------------------------------------------

void LimitsGate::Enter(cl_engine* engine, const Limits& want) {
    std::unique_lock<std::mutex> l(lock_);
    auto fits = [&] { return active_ == 0 || (applied_ && current_ == want); };
    bool queued = false;
    if (!(queue_.empty() && fits())) {
        uint64_t me = nextTicket_++;
        queue_.push_back(me);
        changed_.wait(l, [&] { return queue_.front() == me && fits(); });
        queue_.pop_front();
        queued = true;
    }
    if (!applied_ || current_ != want) {
        // active_ is 0 here: no scan runs on the engine.
        cl_engine_set_num(engine, CL_ENGINE_MAX_FILESIZE, static_cast<long long>(want.maxFileSize));
        cl_engine_set_num(engine, CL_ENGINE_MAX_SCANSIZE, static_cast<long long>(want.maxScanSize));
        cl_engine_set_num(engine, CL_ENGINE_MAX_RECURSION, want.maxDepth);
        cl_engine_set_num(engine, CL_ENGINE_MAX_SCANTIME, want.maxTimeMs);
        current_ = want;
        applied_ = true;
    }
    ++active_;
    if (queued && !queue_.empty()) changed_.notify_all();  // the next may share these limits
}

void LimitsGate::Leave() {
    std::lock_guard<std::mutex> g(lock_);
    --active_;
    if (active_ == 0 && !queue_.empty()) changed_.notify_all();
}

// ---- Engine --------------------------------------------------------------------------

Engine::~Engine() {
    if (engine_ != nullptr) cl_engine_free(engine_);
}

int Engine::Create(const PEL_INITPARAMS* params, const EngineDefaults& defaults, Engine** out) {
    auto* e = new Engine();
    e->defaults_ = defaults;
    *out = e;
    return e->Load(params);
}

void Engine::ListDrivers(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* ent = readdir(d)) {
            std::string n = ent->d_name;
            if (n[0] != '.' && IsDatabaseFile(n)) names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) {
        std::string path = dir + "/" + n;
        PEL_DRIVERINFO di;
        std::memset(&di, 0, sizeof di);
        di.struct_size = sizeof di;
        driverNames_.push_back(n);
        di.pszName = driverNames_.back().c_str();
        if (EndsWith(n, ".cvd") || EndsWith(n, ".cld") || EndsWith(n, ".cud")) {
            if (cl_cvd* head = cl_cvdhead(path.c_str())) {
                di.usDrMajVersion =
                    static_cast<uint16_t>(head->version > 0xffff ? 0xffff : head->version);
                di.utcDate = head->stime;
                di.uiViruses = head->sigs;
                cl_cvdfree(head);
            } else {
                di.iDriverRC = CL_ECVD;
            }
        } else {
            unsigned int sigs = 0;
            cl_error_t rc = cl_countsigs(path.c_str(), CL_COUNTSIGS_ALL, &sigs);
            di.uiViruses = sigs;
            di.iDriverRC = rc;
            struct stat st;
            if (stat(path.c_str(), &st) == 0) di.utcDate = st.st_mtime;
        }
        drivers_.push_back(di);
    }
}

int Engine::Load(const PEL_INITPARAMS* params) {
    std::string dir = ParamText(params, VS_P_INITDRIVERDIRECTORY, DefaultDbDir());
    if (dir.empty()) dir = DefaultDbDir();
    std::string tmp = ParamText(params, VS_P_INITTEMP_PATH, "");
    tmpDir_ = tmp;
    if (tmpDir_.empty()) {
        const char* env = std::getenv("TMPDIR");
        tmpDir_ = env != nullptr && env[0] == '/' ? env : "/tmp";
    }
    const std::string hint =
        " Run freshclam to download the ClamAV databases, or set INITDRIVERDIRECTORY to a "
        "directory that holds signature files (.cvd, .cld, .hdb, .ndb, .ldb, ...).";

    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return Fail(kDriverFailed, CL_EOPEN,
                    "The signature database directory " + dir + " does not exist." + hint);
    }
    ListDrivers(dir);
    if (drivers_.empty()) {
        return Fail(kDriverFailed, CL_EOPEN,
                    "No ClamAV signature database found in " + dir + "." + hint);
    }
    if (!tmp.empty() && (stat(tmp.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
        return Fail(kInvalidParam, CL_ETMPDIR,
                    "The temporary directory " + tmp + " (INITTEMP_PATH) does not exist.");
    }

    engine_ = cl_engine_new();
    if (engine_ == nullptr) return Fail(kNoSpace, CL_EMEM, "libclamav: cl_engine_new failed");
    if (!tmp.empty()) cl_engine_set_str(engine_, CL_ENGINE_TMPDIR, tmp.c_str());

    unsigned int sigs = 0;
    MessageCapture log;
    cl_error_t rc = cl_load(dir.c_str(), engine_, &sigs, CL_DB_STDOPT);
    if (rc != CL_SUCCESS) {
        std::string text =
            "Loading the ClamAV signature databases from " + dir + " failed: " + cl_strerror(rc);
        if (!log.Text().empty()) text += " (" + log.Text() + ")";
        return Fail(kDriverFailed, rc, text + "." + hint);
    }
    if (sigs == 0) {
        return Fail(kDriverFailed, CL_EMALFDB,
                    "The databases in " + dir + " hold no signatures." + hint);
    }
    rc = cl_engine_compile(engine_);
    if (rc != CL_SUCCESS) {
        std::string text = std::string("Compiling the ClamAV engine failed: ") + cl_strerror(rc);
        if (!log.Text().empty()) text += " (" + log.Text() + ")";
        return Fail(kDriverFailed, rc, text);
    }
    InstallScanCallbacks(engine_);

    PEL_INIT& in = block_.init;
    in.hEngine = engine_;
    in.uiViruses = sigs;
    in.uiSignatures = sigs;
    in.uiIntRevision =
        static_cast<uint32_t>(cl_engine_get_num(engine_, CL_ENGINE_DB_VERSION, nullptr));
    in.usDrivers = static_cast<uint16_t>(std::min<size_t>(drivers_.size(), 0xffff));
    in.pDriver = drivers_.data();
    unsigned major = 0, minor = 0;
    const char* ver = cl_retver();
    std::sscanf(ver, "%u.%u", &major, &minor);
    in.usEngineMajVersion = static_cast<uint16_t>(major);
    in.usEngineMinVersion = static_cast<uint16_t>(minor);
    versionText_ = std::string("ClamAV ") + ver;
    in.pszEngineVersionText = versionText_.c_str();
    int64_t date = cl_engine_get_num(engine_, CL_ENGINE_DB_TIME, nullptr);
    for (const PEL_DRIVERINFO& d : drivers_) date = std::max<int64_t>(date, d.utcDate);
    in.utcDate = date;
    return kOk;
}

}  // namespace clampel
