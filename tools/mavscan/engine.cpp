// engine.cpp - the scanning back end of mavscan.
#include "engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>

namespace mavscan {

std::string describeRc(MAV_RC rc) {
    return std::string(MavErrorDescription(rc)) + " (" + MavErrorName(rc) + ")";
}

namespace {

constexpr uint32_t kMaxEntries = 1000;  // listed infections / scan errors per object

// Without --trace the library's error lines are kept here instead of going to
// standard error; they are shown when the start fails.
std::mutex traceMu;
std::deque<std::string> traceLines;

int keepTraceLine(const char*, const char*, int, uint32_t level, const char* text) {
    if ((level & MAV_TRC_ERROR) == 0 || text == nullptr) return 0;
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    std::lock_guard<std::mutex> lock(traceMu);
    traceLines.push_back(line);
    if (traceLines.size() > 8) traceLines.pop_front();
    return 0;
}

// Fetches one text through the size-query rule of the C interface.
std::string fetchText(const std::function<MAV_RC(KORMO_CHAR*, size_t*)>& get) {
    size_t need = 0;
    if (get(nullptr, &need) != MAV_OK || need == 0) return std::string();
    std::vector<KORMO_CHAR> buf(need + 1, 0);
    size_t len = need;
    if (get(buf.data(), &len) != MAV_OK) return std::string();
    return std::string(buf.data(), strnlen(buf.data(), len));
}

std::string adapterErrorText(void* hdl) {
    if (hdl == nullptr) return std::string();
    char small[1024] = {0};
    KORMO_CHAR* buf = small;
    size_t len = sizeof small;
    std::string text;
    if (MavAdapterErrorText(hdl, &buf, &len) == MAV_OK && buf != nullptr) {
        text.assign(buf, strnlen(buf, len));
    }
    // A longer text came in a buffer from the default memory hooks (malloc).
    if (buf != small) std::free(buf);
    return text;
}

// Results of the last scan of inst.
void collect(MAV_INST inst, MAV_RC rc, Result* r) {
    r->rc = rc;
    if (rc == MAV_OK) return;
    for (uint32_t i = 0; rc < 0 && i < kMaxEntries; ++i) {
        Infection f;
        MAV_RC e = MAV_OK;
        f.name = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return e = MavEnumInfections(inst, i, nullptr, nullptr, b, l, nullptr, nullptr, nullptr,
                                         nullptr, nullptr);
        });
        if (e != MAV_OK) break;
        f.object = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumInfections(inst, i, nullptr, nullptr, nullptr, nullptr, b, l, nullptr,
                                     nullptr, nullptr);
        });
        r->infections.push_back(std::move(f));
    }
    for (uint32_t i = 0; i < kMaxEntries; ++i) {
        ScanError s;
        if (MavEnumScanErrors(inst, i, &s.code, nullptr, nullptr, nullptr, nullptr, nullptr) !=
            MAV_OK) {
            break;
        }
        s.text = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumScanErrors(inst, i, nullptr, b, l, nullptr, nullptr, nullptr);
        });
        s.object = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumScanErrors(inst, i, nullptr, nullptr, nullptr, b, l, nullptr);
        });
        r->errors.push_back(std::move(s));
    }
    if (rc > 0) {
        r->message =
            !r->errors.empty() && !r->errors[0].text.empty() ? r->errors[0].text : describeRc(rc);
    }
}

void describeInstance(MAV_INST inst, std::string* out) {
    char line[1024];
    uint32_t version = 0, params = 0, events = 0;
    MavGetPelInfo(inst, &version, &params, &events, nullptr, nullptr, nullptr, nullptr);
    std::string name = fetchText([&](KORMO_CHAR* b, size_t* l) {
        return MavGetPelInfo(inst, nullptr, nullptr, nullptr, b, l, nullptr, nullptr);
    });
    std::string vendor = fetchText([&](KORMO_CHAR* b, size_t* l) {
        return MavGetPelInfo(inst, nullptr, nullptr, nullptr, nullptr, nullptr, b, l);
    });
    std::snprintf(line, sizeof line, "Adapter:     %s %u.%u (%s)\n", name.c_str(), version >> 16,
                  version & 0xFFFFu, vendor.c_str());
    *out += line;
    uint32_t id = 0, model = 0, scanF = 0, actF = 0, cioF = 0;
    uint16_t mavV = 0;
    if (MavGetPelTechInfo(inst, &id, &model, &mavV, &scanF, &actF, &cioF) == MAV_OK) {
        std::snprintf(line, sizeof line,
                      "             id 0x%08x, interface %u, thread model %u, scan flags 0x%x, "
                      "action flags 0x%x, events 0x%x\n",
                      id, mavV, model, scanF, actF, events);
        *out += line;
    }
    uint32_t ev = 0, viruses = 0;
    uint64_t date = 0;
    uint16_t drivers = 0;
    if (MavGetEngineInfo(inst, &ev, nullptr, nullptr, &date, &viruses, &drivers) == MAV_OK) {
        std::string text = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavGetEngineInfo(inst, nullptr, b, l, nullptr, nullptr, nullptr);
        });
        std::snprintf(line, sizeof line, "Engine:      %s (%u.%u), %u signatures, %u drivers\n",
                      text.c_str(), ev >> 16, ev & 0xFFFFu, viruses, drivers);
        *out += line;
        for (uint32_t i = 0; i < drivers; ++i) {
            uint32_t dv = 0, dvir = 0;
            uint64_t ddate = 0;
            if (MavEnumDriverInfo(inst, i, &dv, nullptr, nullptr, &ddate, &dvir) != MAV_OK) break;
            std::string dname = fetchText([&](KORMO_CHAR* b, size_t* l) {
                return MavEnumDriverInfo(inst, i, nullptr, b, l, nullptr, nullptr);
            });
            std::snprintf(line, sizeof line, "Driver:      %s (%u.%u), %u signatures\n",
                          dname.c_str(), dv >> 16, dv & 0xFFFFu, dvir);
            *out += line;
        }
    }
    *out += "Parameters:\n";
    for (uint32_t i = 0; i < params + 64; ++i) {
        KORMO_CHAR pname[256], pvalue[4096];
        size_t nlen = sizeof pname, vlen = sizeof pvalue;
        int32_t type = -1;
        MAV_RC rc = MavEnumParameters(inst, i, pname, &nlen, &type, pvalue, &vlen);
        if (rc == MAV_E_INVALID_ENUM_INDEX) {
            if (i < params) continue;  // an entry the library does not list
            break;
        }
        if (rc != MAV_OK) break;
        const char* tname = MavParamTypeName(type);
        std::snprintf(line, sizeof line, "  %-24s %-7s %.*s\n",
                      std::string(pname, strnlen(pname, nlen)).c_str(), tname ? tname : "?",
                      static_cast<int>(strnlen(pvalue, vlen)), pvalue);
        *out += line;
    }
}

}  // namespace

// ---- Scanner -------------------------------------------------------------------

Scanner::~Scanner() {
    profile_.reset();  // returns the profile's C instances to their pools
    if (own_ != nullptr) MavFreeInstance(&own_);
}

MAV_RC Scanner::scanOne(MAV_INST inst, const std::string& name, std::vector<unsigned char>* data,
                        uint32_t jobId) {
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    if (data == nullptr) {
        return clean_ ? MavCleanFile(inst, name.c_str(), jobId, &info)
                      : MavScanFile(inst, name.c_str(), jobId, &info);
    }
    // Bytes in memory are only scanned: a cleaned copy would go nowhere.
    static unsigned char none[1] = {0};
    unsigned char* bytes = data->empty() ? none : data->data();
    return MavScanBytes(inst, name.c_str(), bytes, data->size(), jobId, &info);
}

// The profile's linkage rule over the C instances: with 0 the first instance
// that does not find the object clean decides, with 1 the first that does.
// Unlike the runtime's own walk it remembers which instance decided, so that
// all of that instance's findings can be listed, and it never accepts
// MAV_E_NOT_SCANNED as clean.
Result Scanner::walk(const std::string& name, std::vector<unsigned char>* data, uint32_t jobId) {
    Result r;
    MAV_RC rc = MAV_OK;
    MAV_INST decider = nullptr;
    for (MAV_INST inst : insts_) {
        rc = scanOne(inst, name, data, jobId);
        decider = inst;
        if (rc != MAV_OK && linkage_ == 0) break;
        if (rc == MAV_OK && linkage_ == 1) break;
    }
    if (decider == nullptr) {
        r.rc = MAV_E_NOT_SCANNED;
        r.message = "no scan instance";
        return r;
    }
    collect(decider, rc, &r);
    return r;
}

Result Scanner::scanFile(const std::string& path, uint32_t jobId) {
    Result r;
    struct stat st;
    // Opened here first so that every adapter reports a missing or unreadable
    // file alike, with the system's words.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0 || fstat(fd, &st) != 0) {
        r.rc = MAV_E_INVALID_SCANOBJECT;
        r.message = std::strerror(errno);
        if (fd >= 0) close(fd);
        return r;
    }
    close(fd);
    r = walk(path, nullptr, jobId);
    r.size = static_cast<uint64_t>(st.st_size);
    return r;
}

Result Scanner::scanBytes(const std::string& name, std::vector<unsigned char>& data,
                          uint32_t jobId) {
    uint64_t size = data.size();
    Result r = walk(name, &data, jobId);
    r.size = size;
    return r;
}

std::string Scanner::describe() {
    std::string out;
    for (size_t i = 0; i < insts_.size(); ++i) {
        if (insts_.size() > 1) {
            out += (i ? "\n" : "") + std::string("Step ") + std::to_string(i + 1) + ":\n";
        }
        describeInstance(insts_[i], &out);
    }
    return out;
}

// ---- Engine --------------------------------------------------------------------

std::string Engine::traceErrors() {
    std::lock_guard<std::mutex> lock(traceMu);
    std::string text;
    for (const auto& l : traceLines) text += "\n  " + l;
    return text;
}

bool Engine::start(std::string* error) {
    if (!opt_.traceFile.empty()) {
        if (MavActivateTrace(opt_.traceFile.c_str(), static_cast<uint32_t>(opt_.traceLevel)) !=
            MAV_OK) {
            *error = "cannot write the trace file " + opt_.traceFile;
            return false;
        }
    } else {
        MavSetTraceHandler(keepTraceLine);
    }
    trace_ = true;
    if (!opt_.adapter.empty()) {
        MAV_RC rc = MavInit(opt_.adapter.c_str(), &hdl_);
        if (rc != MAV_OK) {
            std::string why = adapterErrorText(hdl_);
            *error = "cannot start adapter " + opt_.adapter + ": " + describeRc(rc) +
                     (why.empty() ? traceErrors() : ": " + why);
            if (hdl_ != nullptr) MavEnd(&hdl_);
            return false;
        }
        return applySets({hdl_}, error);
    }
    MAV_RC rc;
    if (!opt_.config.empty()) {
        // The runtime reads a text that names no readable file as properties:
        // a mistyped file name must not become a configuration.
        if (access(opt_.config.c_str(), R_OK) != 0) {
            *error = "cannot read configuration " + opt_.config + ": " + std::strerror(errno);
            return false;
        }
        rc = MavStartRuntime(opt_.config.c_str(), opt_.config.size());
    } else {
        rc = MavStartRuntime(nullptr, 0);
    }
    if (rc != MAV_OK) {
        *error = "cannot start the profile runtime: " + describeRc(rc) + traceErrors();
        return false;
    }
    runtime_ = true;
    return true;
}

void Engine::stop() {
    if (hdl_ != nullptr) {
        MavEnd(&hdl_);
        hdl_ = nullptr;
    }
    if (runtime_) {
        MavStopRuntime();
        runtime_ = false;
    }
    if (trace_) {
        if (opt_.traceFile.empty()) MavSetTraceHandler(nullptr);
        MavDeactivateTrace();
        trace_ = false;
    }
}

// Each parameter is set where an adapter offers it, with the type the adapter
// reports; a parameter that no target offers is an error. Start parameters
// (INIT*) only act before the engine starts: on a handle, not on the running
// instances a profile hands out.
bool Engine::applySets(const std::vector<void*>& targets, std::string* error) {
    for (const auto& s : opt_.sets) {
        int32_t code = MavParamCode(s.first.c_str());
        if (runtime_ && code >= VS_P_INITDRIVERS && code < VS_P_SCANBESTEFFORT) {
            *error = s.first +
                     " is a start parameter of the engine: set it in the configuration "
                     "(the provider's Parameters) or scan with --adapter";
            return false;
        }
        bool offered = false;
        for (void* t : targets) {
            int32_t type = -1;
            size_t len = 0;
            if (MavGetParameter(t, s.first.c_str(), &type, nullptr, &len) != MAV_OK || type < 0) {
                continue;
            }
            offered = true;
            MAV_RC rc = MavSetParameter(t, s.first.c_str(), type, s.second.c_str());
            if (rc != MAV_OK) {
                const char* tname = MavParamTypeName(type);
                *error = "cannot set " + s.first + "=" + s.second + " (" + (tname ? tname : "?") +
                         "): " + describeRc(rc);
                return false;
            }
        }
        if (!offered) {
            *error = "parameter " + s.first + " is not offered by the adapter";
            return false;
        }
    }
    return true;
}

std::unique_ptr<Scanner> Engine::acquire(std::string* error) {
    if (hdl_ != nullptr) {
        std::unique_ptr<Scanner> s(new Scanner(opt_.clean, 0));
        MAV_RC rc = MavCreateInstance(hdl_, &s->own_);
        if (rc != MAV_OK || s->own_ == nullptr) {
            std::string why = adapterErrorText(hdl_);
            *error = "cannot create a scan instance: " + describeRc(rc) +
                     (why.empty() ? traceErrors() : ": " + why);
            return nullptr;
        }
        s->insts_.push_back(s->own_);  // parameters were set on the handle
        return s;
    }
    std::string pname =
        opt_.profile.empty() ? std::string("the default profile") : "profile " + opt_.profile;
    std::unique_ptr<mav::MavInstance> mi =
        mav::MavInstance::createInstance(opt_.profile.empty() ? nullptr : opt_.profile.c_str());
    if (!mi) {
        // The C lookup tells why.
        MAV_INST probe = nullptr;
        MAV_RC rc =
            MavGetProfileInstance(opt_.profile.empty() ? nullptr : opt_.profile.c_str(), &probe);
        if (probe != nullptr) MavFreeInstance(&probe);
        *error = pname + " is not usable" + (rc != MAV_OK ? ": " + describeRc(rc) : std::string());
        return nullptr;
    }
    if (mi->getCInstances().empty()) {
        // An empty instance scans everything as clean: refuse it.
        std::string why = adapterErrorText(mi->getMavHandle());
        *error = pname + " has no usable adapter" + (why.empty() ? traceErrors() : ": " + why);
        return nullptr;
    }
    std::unique_ptr<Scanner> s(new Scanner(opt_.clean, mi->getLinkage()));
    s->insts_ = mi->getCInstances();
    s->profile_ = std::move(mi);
    std::vector<void*> targets(s->insts_.begin(), s->insts_.end());
    if (!applySets(targets, error)) return nullptr;
    return s;
}

}  // namespace mavscan
