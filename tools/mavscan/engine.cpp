// engine.cpp - the scanning back end of mavscan.
#include "engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
    // One line per message: the runtime's multi-line texts are joined.
    std::string line;
    for (const char* p = text; *p != '\0'; ++p) {
        bool blank = *p == '\n' || *p == ' ' || *p == '\t';
        if (!blank) {
            line += *p;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    if (!line.empty() && line.back() == ' ') line.pop_back();
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

FdCloser::~FdCloser() {
    if (fd >= 0) close(fd);
}

namespace {

// "/proc/self/fd/N" where the engine finds an open descriptor: the object it
// reads is the one opened and checked here, whatever happens to the name.
std::string fdPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// Replaces from (not followed by a digit) by to in s.
void rename(std::string* s, const std::string& from, const std::string& to) {
    for (size_t at = s->find(from); at != std::string::npos; at = s->find(from, at)) {
        size_t end = at + from.size();
        if (end < s->size() && (*s)[end] >= '0' && (*s)[end] <= '9') {
            at = end;
            continue;
        }
        s->replace(at, from.size(), to);
        at += to.size();
    }
}

void renameResult(Result* r, const std::string& from, const std::string& to) {
    rename(&r->message, from, to);
    for (auto& f : r->infections) rename(&f.object, from, to);
    for (auto& e : r->errors) {
        rename(&e.object, from, to);
        rename(&e.text, from, to);
    }
}

// Stops a running scan at its next event once the run is interrupted.
VS_CALLRC onEvent(MAV_INST, uint32_t, void*, void* stop) {
    return static_cast<const std::atomic<bool>*>(stop)->load() ? VS_CALLRC_STOP
                                                               : VS_CALLRC_CONTINUE;
}

}  // namespace

Scanner::~Scanner() {
    // The pool's instances go back without this run's handler.
    for (MAV_INST inst : insts_) MavRegisterSingleEventHandler(inst, nullptr, 0, nullptr);
    profile_.reset();  // returns the profile's C instances to their pools
    if (own_ != nullptr) MavFreeInstance(&own_);
}

MAV_RC Scanner::scanOne(MAV_INST inst, const std::string& name, uint32_t jobId) {
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    return clean_ ? MavCleanFile(inst, name.c_str(), jobId, &info)
                  : MavScanFile(inst, name.c_str(), jobId, &info);
}

// The profile's linkage rule over the C instances. With 0 every instance must
// find the object clean: the first finding decides, and an instance that could
// not scan (MAV_E_NOT_SCANNED or another error) does not end the walk, so that
// a later engine can still name an infection; without a finding the first
// error decides. With 1 the first instance that finds the object clean
// decides. Unlike the runtime's own walk it remembers which instance decided,
// so that all of that instance's findings can be listed, and it never accepts
// MAV_E_NOT_SCANNED as clean.
Result Scanner::walk(const std::string& name, uint32_t jobId) {
    MAV_RC rc = MAV_OK, firstError = MAV_OK;
    MAV_INST decider = nullptr, errorAt = nullptr;
    for (MAV_INST inst : insts_) {
        rc = scanOne(inst, name, jobId);
        decider = inst;
        if (linkage_ == 1 ? rc == MAV_OK : rc < 0) break;
        if (linkage_ == 0 && rc > 0 && errorAt == nullptr) {
            firstError = rc;
            errorAt = inst;
        }
    }
    if (decider == nullptr) return Result::failure(MAV_E_NOT_SCANNED, "no scan instance");
    if (linkage_ == 0 && rc >= 0 && errorAt != nullptr) {
        rc = firstError;
        decider = errorAt;
    }
    Result r;
    collect(decider, rc, &r);
    if (rc == MAV_E_CBC_TERMINATED) r.message = "interrupted";
    return r;
}

Result Scanner::scanDescriptor(int fd, const std::string& name, uint32_t jobId) {
    std::string proc = fdPath(fd);
    Result r = walk(proc, jobId);
    renameResult(&r, proc, name);
    return r;
}

// The walk saw a regular file with this device and inode; the name is opened
// again without blocking (a FIFO put in its place must not stall the run) and
// without following a link put in its place, and scanned only when it is still
// that file.
Result Scanner::scanFile(const Target& t, uint32_t jobId) {
    int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (t.follow ? 0 : O_NOFOLLOW);
    FdCloser fd{open(t.path.c_str(), flags)};
    struct stat st;
    if (fd.fd < 0 && errno == ELOOP && !t.follow) {
        return Result::failure(MAV_E_INVALID_SCANOBJECT,
                               "replaced by a symbolic link after the walk: not followed");
    }
    if (fd.fd < 0 || fstat(fd.fd, &st) != 0) {
        return Result::failure(MAV_E_INVALID_SCANOBJECT, std::strerror(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        return Result::failure(MAV_E_INVALID_SCANOBJECT,
                               "replaced by something that is not a regular file after the walk");
    }
    if (st.st_dev != t.dev || st.st_ino != t.ino) {
        return Result::failure(MAV_E_INVALID_SCANOBJECT, "replaced by another file after the walk");
    }
    Result r = scanDescriptor(fd.fd, t.path, jobId);
    if (r.rc <= 0) r.size = static_cast<uint64_t>(st.st_size);
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

std::vector<std::string> Scanner::engines(bool drivers) {
    std::vector<std::string> out;
    for (MAV_INST inst : insts_) {
        std::string adapter = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavGetPelInfo(inst, nullptr, nullptr, nullptr, b, l, nullptr, nullptr);
        });
        uint32_t viruses = 0;
        uint64_t date = 0;
        uint16_t count = 0;
        std::string line = adapter + ": ";
        if (MavGetEngineInfo(inst, nullptr, nullptr, nullptr, &date, &viruses, &count) != MAV_OK) {
            out.push_back(line + "no engine information");
            continue;
        }
        line += fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavGetEngineInfo(inst, nullptr, b, l, nullptr, nullptr, nullptr);
        });
        line += ", " + std::to_string(viruses) + " signatures";
        if (date != 0) {
            char when[32];
            time_t t = static_cast<time_t>(date);
            struct tm tm;
            if (gmtime_r(&t, &tm) != nullptr &&
                strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", &tm)) {
                line += std::string(" of ") + when;
            }
        }
        for (uint32_t i = 0; drivers && i < count; ++i) {
            uint32_t v = 0;
            if (MavEnumDriverInfo(inst, i, &v, nullptr, nullptr, nullptr, nullptr) != MAV_OK) break;
            line += (i ? ", " : "; ") + fetchText([&](KORMO_CHAR* b, size_t* l) {
                        return MavEnumDriverInfo(inst, i, nullptr, b, l, nullptr, nullptr);
                    });
            // Signature files without a version (plain databases) give 0.
            if (v >> 16 != 0) line += " version " + std::to_string(v >> 16);
        }
        out.push_back(line);
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

namespace {

bool readFile(const std::string& path, std::string* text, std::string* error) {
    FdCloser fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat st;
    if (fd.fd < 0 || fstat(fd.fd, &st) != 0) {
        *error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = "not a regular file";
        return false;
    }
    char buf[65536];
    ssize_t n;
    while ((n = read(fd.fd, buf, sizeof buf)) > 0) text->append(buf, static_cast<size_t>(n));
    if (n < 0) *error = std::strerror(errno);
    return n == 0;
}

// A configuration value: blanks, separators and bytes from 0x80 as \u00XX.
std::string escapeValue(const std::string& v) {
    std::string out;
    char esc[8];
    for (unsigned char c : v) {
        if (c >= 0x80 || std::strchr(" \t;=\\", c) != nullptr) {
            std::snprintf(esc, sizeof esc, "\\u%04X", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Every signature directory a provider or group of the configuration sets
// becomes dir: -d wins over the configuration as it wins over the environment.
std::string withDatabase(const std::string& text, const std::string& dir) {
    static const std::string kSuffix = ".Parameters.INITDRIVERDIRECTORY.Value";
    std::string out;
    for (size_t pos = 0; pos < text.size();) {
        size_t nl = std::min(text.find('\n', pos), text.size());
        std::string line = text.substr(pos, nl - pos), key;
        for (char c : line.substr(0, line.find('='))) {
            if (c != ' ' && c != '\t') key += c;
        }
        if (key.compare(0, 4, "mav.") == 0 && key.size() > kSuffix.size() &&
            key.compare(key.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0) {
            line = key + "=" + escapeValue(dir);
        }
        out += line + "\n";
        pos = nl + 1;
    }
    return out;
}

}  // namespace

// The configuration text for the runtime: --config (a file that must open),
// else ./mav.properties, else empty (the built-in default). Read here so that
// a mistyped file name never becomes a configuration text.
std::string Engine::configText(std::string* error) {
    std::string text;
    if (!opt_.config.empty()) {
        if (!readFile(opt_.config, &text, error)) {
            *error = "cannot read configuration " + opt_.config + ": " + *error;
        }
        return text;
    }
    if (access("mav.properties", F_OK) == 0 && !readFile("mav.properties", &text, error)) {
        *error = "cannot read configuration mav.properties: " + *error;
    }
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
    // The ClamAV adapter takes its signature directory from this variable
    // when nothing sets INITDRIVERDIRECTORY.
    if (!opt_.database.empty()) setenv("KORMO_CLAMAV_DATABASE", opt_.database.c_str(), 1);
    if (!opt_.adapter.empty()) {
        MAV_RC rc = MavInit(opt_.adapter.c_str(), &hdl_);
        if (rc != MAV_OK) {
            std::string why = adapterErrorText(hdl_);
            *error = "cannot start adapter " + opt_.adapter + ": " + describeRc(rc) +
                     (why.empty() ? traceErrors() : ": " + why);
            if (hdl_ != nullptr) MavEnd(&hdl_);
            return false;
        }
        if (!opt_.database.empty() && MavSetParameter(hdl_, "INITDRIVERDIRECTORY", VS_TYPE_CHAR,
                                                      opt_.database.c_str()) != MAV_OK) {
            *error = "--database: the adapter " + opt_.adapter +
                     " takes no signature directory (INITDRIVERDIRECTORY)";
            return false;
        }
        return applySets({hdl_}, error);
    }
    error->clear();
    configText_ = configText(error);
    if (!error->empty()) return false;
    if (!opt_.database.empty()) configText_ = withDatabase(configText_, opt_.database);
    MAV_RC rc = configText_.empty() ? MavStartRuntime(nullptr, 0)
                                    : MavStartRuntime(configText_.data(), configText_.size());
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

namespace {

struct Param {
    std::string name, value;
    int32_t type;
};

// The scan parameters inst reads now, from its own configuration or its
// handle's.
std::vector<Param> scanParams(MAV_INST inst) {
    std::vector<Param> out;
    uint32_t count = 0;
    MavGetPelInfo(inst, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr);
    for (uint32_t i = 0; i < count + 64; ++i) {
        KORMO_CHAR name[256], value[4096];
        size_t nlen = sizeof name, vlen = sizeof value;
        Param p;
        MAV_RC rc = MavEnumParameters(inst, i, name, &nlen, &p.type, value, &vlen);
        if (rc == MAV_E_INVALID_ENUM_INDEX && i < count) continue;
        if (rc != MAV_OK) break;
        p.name.assign(name, strnlen(name, nlen));
        p.value.assign(value, strnlen(value, vlen));
        int32_t code = MavParamCode(p.name.c_str());
        if (code < VS_P_INITDRIVERS || code >= VS_P_SCANBESTEFFORT) out.push_back(p);
    }
    return out;
}

}  // namespace

// A handler makes the instance's configuration its own, which may start from
// the adapter's defaults: every scan parameter the instance read before is
// set on it again, so that the handler changes nothing but the stop.
bool Engine::watchStop(Scanner& s, std::string* error) {
    if (stop_ == nullptr) return true;
    const uint32_t mask = VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR |
                          VS_M_OBJECTFOUND | VS_M_SCANPROGRESS;
    for (MAV_INST inst : s.insts_) {
        std::vector<Param> before = scanParams(inst);
        // An adapter that sends no events cannot be stopped: its scans end
        // by themselves.
        if (MavRegisterSingleEventHandler(inst, onEvent, mask,
                                          const_cast<std::atomic<bool>*>(stop_)) != MAV_OK) {
            continue;
        }
        for (const Param& p : before) {
            char now[4096] = {0};
            size_t len = sizeof now - 1;
            if (MavGetParameter(inst, p.name.c_str(), nullptr, now, &len) == MAV_OK &&
                p.value == std::string(now, strnlen(now, len))) {
                continue;
            }
            if (MavSetParameter(inst, p.name.c_str(), p.type, p.value.c_str()) != MAV_OK) {
                *error = "cannot keep " + p.name + "=" + p.value + " on a scan instance";
                return false;
            }
        }
    }
    return true;
}

// Why a profile got no C instance: the providers the configuration gives its
// groups, with their adapters, and the adapter's error text of the last one
// that could not be used (the runtime keeps no more than that).
std::string Engine::noAdapter(mav::MavInstance& mi) {
    std::string text;
    if (!configText_.empty()) {
        mav::PropertyReader rd;
        rd.readbuffer(configText_.data(), configText_.size());
        std::string profile =
            opt_.profile.empty() ? rd.get_string("mav.defaults.profile", "") : opt_.profile;
        // The groups of the profile's steps, through sub-profiles (type 1).
        std::vector<std::string> groups, profiles{profile};
        for (size_t n = 0; n < profiles.size() && n < 64; ++n) {
            const std::string sp = "mav.profile." + profiles[n] + ".ProfileSteps";
            for (const std::string& k : rd.getKeys(sp)) {
                std::string type = rd.get_string(sp + "." + k + ".ProfileEntryType", "");
                std::string value = rd.get_string(sp + "." + k + ".ProfileEntryValue", "");
                if (type == "0") groups.push_back(value);
                if (type == "1") profiles.push_back(value);
            }
        }
        const std::string pp = "mav.provider.Pelmark.Adapters";
        for (const std::string& name : rd.getKeys(pp)) {
            std::string group = rd.get_string(pp + "." + name + ".Group", "");
            if (std::find(groups.begin(), groups.end(), group) == groups.end()) continue;
            std::string path = mav::FromHex(rd.get_string(pp + "." + name + ".AdapterPath", ""));
            bool active = rd.get_string(pp + "." + name + ".Active", "") == "true";
            text += "\n  provider " + name + " (group " + group + "), adapter " +
                    (path.empty() ? std::string("the default adapter") : path) +
                    (active ? (MavGetHandleByName(name.c_str(), name.size()) != nullptr
                                   ? ": started"
                                   : ": did not start")
                            : ": not active (Active is not exactly \"true\")");
        }
    }
    MAV_HANDLE last = mi.getMavHandle();
    std::string adapter;
    if (last != nullptr) {
        adapter = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavGetPelInfo(last, nullptr, nullptr, nullptr, b, l, nullptr, nullptr);
        });
    }
    std::string why = adapterErrorText(last);
    if (why.empty()) return text + traceErrors();
    return text + "\n  " + (adapter.empty() ? std::string("adapter") : adapter + " adapter") +
           " error: " + why;
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
        if (!watchStop(*s, error)) return nullptr;
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
        // An instance without C instances scans nothing: refuse it.
        *error = pname + " has no usable adapter" + noAdapter(*mi);
        return nullptr;
    }
    std::unique_ptr<Scanner> s(new Scanner(opt_.clean, mi->getLinkage()));
    s->insts_ = mi->getCInstances();
    s->profile_ = std::move(mi);
    std::vector<void*> targets(s->insts_.begin(), s->insts_.end());
    if (!applySets(targets, error) || !watchStop(*s, error)) return nullptr;
    return s;
}

}  // namespace mavscan
