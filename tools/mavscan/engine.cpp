// engine.cpp - the scanning back end of mavscan.
#include "engine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace mavscan {

std::string describeRc(MAV_RC rc) {
    return std::string(MavErrorDescription(rc)) + " (" + MavErrorName(rc) + ")";
}

namespace {

// Fetches one text through the size-query protocol of the C interface.
std::string fetchText(const std::function<MAV_RC(KORMO_CHAR*, size_t*)>& get) {
    size_t need = 0;
    if (get(nullptr, &need) != MAV_OK || need == 0) return std::string();
    std::vector<KORMO_CHAR> buf(need + 1, 0);
    size_t len = buf.size();
    if (get(buf.data(), &len) != MAV_OK) return std::string();
    return std::string(buf.data(), len);
}

std::string adapterErrorText(MAV_HANDLE hdl) {
    if (hdl == nullptr) return std::string();
    char small[1024] = {0};
    KORMO_CHAR* buf = small;
    size_t len = sizeof small - 1;
    std::string text;
    if (MavAdapterErrorText(hdl, &buf, &len) == MAV_OK && len > 0 && buf != nullptr) {
        text.assign(buf, strnlen(buf, len));
    }
    // A longer text came in a buffer from the default memory hooks (malloc).
    if (buf != small) std::free(buf);
    return text;
}

}  // namespace

bool Engine::start(std::string* error) {
    if (!opt_.traceFile.empty()) {
        MavActivateTrace(opt_.traceFile.c_str(), static_cast<uint32_t>(opt_.traceLevel));
    }
    if (!opt_.adapter.empty()) {
        MAV_RC rc = MavInit(opt_.adapter.c_str(), &hdl_);
        if (rc != MAV_OK) {
            std::string why = adapterErrorText(hdl_);
            *error = "cannot start adapter " + opt_.adapter + ": " + describeRc(rc) +
                     (why.empty() ? "" : ": " + why);
            MavEnd(&hdl_);
            hdl_ = nullptr;
            return false;
        }
        return applySets(hdl_, error);
    }
    MAV_RC rc;
    if (!opt_.config.empty()) {
        if (access(opt_.config.c_str(), R_OK) != 0) {
            *error = "cannot read configuration " + opt_.config + ": " + std::strerror(errno);
            return false;
        }
        rc = MavStartRuntime(opt_.config.c_str(), opt_.config.size());
    } else {
        rc = MavStartRuntime(nullptr, 0);
    }
    if (rc != MAV_OK) {
        *error = "cannot start the profile runtime: " + describeRc(rc);
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
}

bool Engine::applySets(void* target, std::string* error) {
    for (const auto& s : opt_.sets) {
        int32_t type = -1;
        KORMO_CHAR value[4096];
        size_t len = sizeof value;
        MAV_RC rc = MavGetParameter(target, s.first.c_str(), &type, value, &len);
        if (rc != MAV_OK || type < 0) {
            *error = "parameter " + s.first + " is not offered by the adapter: " + describeRc(rc);
            return false;
        }
        rc = MavSetParameter(target, s.first.c_str(), type, s.second.c_str());
        if (rc != MAV_OK) {
            *error = "cannot set " + s.first + "=" + s.second + ": " + describeRc(rc);
            return false;
        }
    }
    return true;
}

MAV_INST Engine::acquire(std::string* error) {
    MAV_INST inst = nullptr;
    MAV_RC rc;
    if (hdl_ != nullptr) {
        rc = MavCreateInstance(hdl_, &inst);
        if (rc != MAV_OK) {
            std::string why = adapterErrorText(hdl_);
            *error = "cannot create an instance: " + describeRc(rc) + (why.empty() ? "" : ": " + why);
            if (inst != nullptr) MavFreeInstance(&inst);
            return nullptr;
        }
        return inst;  // parameters were set on the handle
    }
    rc = MavGetProfileInstance(opt_.profile.empty() ? nullptr : opt_.profile.c_str(), &inst);
    if (rc != MAV_OK || inst == nullptr) {
        *error = "cannot get an instance of profile " +
                 (opt_.profile.empty() ? std::string("(default)") : opt_.profile) + ": " +
                 describeRc(rc == MAV_OK ? MAV_E_PROFILE_NOT_VALID : rc);
        return nullptr;
    }
    if (!applySets(inst, error)) {
        MavFreeInstance(&inst);
        return nullptr;
    }
    return inst;
}

void Engine::release(MAV_INST inst) {
    if (inst != nullptr) MavFreeInstance(&inst);
}

void Engine::collect(MAV_INST inst, MAV_RC rc, const MAV_SCANINFO& info, Result* r) {
    r->rc = rc;
    if (rc == MAV_OK) return;
    // Counts from the summary; enumerate until the index is refused as a guard.
    uint32_t maxInf = rc < 0 ? (info.uiInfections > 0 ? info.uiInfections : 10000) : 0;
    for (uint32_t i = 0; i < maxInf; ++i) {
        Infection f;
        MAV_RC e = MAV_OK;
        f.name = fetchText([&](KORMO_CHAR* b, size_t* l) {
            e = MavEnumInfections(inst, i, nullptr, nullptr, b, l, nullptr, nullptr, nullptr,
                                  nullptr, nullptr);
            return e;
        });
        if (e != MAV_OK) break;
        f.object = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumInfections(inst, i, nullptr, nullptr, nullptr, nullptr, b, l, nullptr,
                                     nullptr, nullptr);
        });
        r->infections.push_back(std::move(f));
    }
    uint32_t maxErr = info.uiScanErrors > 0 ? info.uiScanErrors : (rc > 0 ? 64 : 0);
    for (uint32_t i = 0; i < maxErr; ++i) {
        ScanError s;
        MAV_RC e = MavEnumScanErrors(inst, i, &s.code, nullptr, nullptr, nullptr, nullptr, nullptr);
        if (e != MAV_OK) break;
        s.text = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumScanErrors(inst, i, nullptr, b, l, nullptr, nullptr, nullptr);
        });
        s.object = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavEnumScanErrors(inst, i, nullptr, nullptr, nullptr, b, l, nullptr);
        });
        r->errors.push_back(std::move(s));
    }
    if (rc > 0) {
        r->message = !r->errors.empty() && !r->errors[0].text.empty() ? r->errors[0].text
                                                                      : describeRc(rc);
    }
}

Result Engine::scanFile(MAV_INST inst, const std::string& path, uint32_t jobId) {
    Result r;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        r.rc = MAV_E_INVALID_SCANOBJECT;
        r.message = std::strerror(errno);
        return r;
    }
    r.size = static_cast<uint64_t>(st.st_size);
    // Read access is checked here so that every adapter reports it alike.
    if (access(path.c_str(), R_OK) != 0) {
        r.rc = MAV_E_INVALID_SCANOBJECT;
        r.message = std::strerror(errno);
        return r;
    }
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    MAV_RC rc = opt_.clean ? MavCleanFile(inst, path.c_str(), jobId, &info)
                           : MavScanFile(inst, path.c_str(), jobId, &info);
    collect(inst, rc, info, &r);
    return r;
}

Result Engine::scanBytes(MAV_INST inst, const std::string& name, std::vector<unsigned char>& data,
                         uint32_t jobId) {
    Result r;
    r.size = data.size();
    MAV_SCANINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    static unsigned char empty[1] = {0};
    unsigned char* bytes = data.empty() ? empty : data.data();
    MAV_RC rc;
    if (opt_.clean) {
        size_t len = data.size();
        rc = MavCleanBytes(inst, name.c_str(), bytes, &len, jobId, &info);
        if (rc == MAV_E_CLEAN_OK && len < data.size()) data.resize(len);
    } else {
        rc = MavScanBytes(inst, name.c_str(), bytes, data.size(), jobId, &info);
    }
    collect(inst, rc, info, &r);
    return r;
}

void Engine::describe(MAV_INST inst, std::string* out) {
    char line[1024];
    uint32_t version = 0, params = 0, events = 0;
    std::string name, vendor;
    MavGetPelInfo(inst, &version, &params, &events, nullptr, nullptr, nullptr, nullptr);
    name = fetchText([&](KORMO_CHAR* b, size_t* l) {
        return MavGetPelInfo(inst, nullptr, nullptr, nullptr, b, l, nullptr, nullptr);
    });
    vendor = fetchText([&](KORMO_CHAR* b, size_t* l) {
        return MavGetPelInfo(inst, nullptr, nullptr, nullptr, nullptr, nullptr, b, l);
    });
    std::snprintf(line, sizeof line, "Adapter:      %s %u.%u (%s)\n", name.c_str(), version >> 16,
                  version & 0xFFFFu, vendor.c_str());
    *out += line;
    uint32_t id = 0, model = 0, scanF = 0, actF = 0, cioF = 0;
    uint16_t mavV = 0;
    if (MavGetPelTechInfo(inst, &id, &model, &mavV, &scanF, &actF, &cioF) == MAV_OK) {
        std::snprintf(line, sizeof line,
                      "              id %u, interface %u, thread model %u, scan flags 0x%x, "
                      "action flags 0x%x, event flags 0x%x, client I/O flags 0x%x\n",
                      id, mavV, model, scanF, actF, events, cioF);
        *out += line;
    }
    uint32_t ev = 0, viruses = 0;
    uint64_t date = 0;
    uint16_t drivers = 0;
    if (MavGetEngineInfo(inst, &ev, nullptr, nullptr, &date, &viruses, &drivers) == MAV_OK) {
        std::string text = fetchText([&](KORMO_CHAR* b, size_t* l) {
            return MavGetEngineInfo(inst, nullptr, b, l, nullptr, nullptr, nullptr);
        });
        std::snprintf(line, sizeof line, "Engine:       %s %u.%u, %u signatures, %u drivers, date %llu\n",
                      text.c_str(), ev >> 16, ev & 0xFFFFu, viruses, drivers,
                      static_cast<unsigned long long>(date));
        *out += line;
        for (uint32_t i = 0; i < drivers; ++i) {
            uint32_t dv = 0, dvir = 0;
            uint64_t ddate = 0;
            if (MavEnumDriverInfo(inst, i, &dv, nullptr, nullptr, &ddate, &dvir) != MAV_OK) break;
            std::string dname = fetchText([&](KORMO_CHAR* b, size_t* l) {
                return MavEnumDriverInfo(inst, i, nullptr, b, l, nullptr, nullptr);
            });
            std::snprintf(line, sizeof line, "Driver %-5u  %s %u.%u, %u signatures, date %llu\n", i,
                          dname.c_str(), dv >> 16, dv & 0xFFFFu, dvir,
                          static_cast<unsigned long long>(ddate));
            *out += line;
        }
    }
    *out += "Parameters:\n";
    for (uint32_t i = 0;; ++i) {
        KORMO_CHAR pname[256], pvalue[4096];
        size_t nlen = sizeof pname, vlen = sizeof pvalue;
        int32_t type = -1;
        MAV_RC rc = MavEnumParameters(inst, i, pname, &nlen, &type, pvalue, &vlen);
        if (rc == MAV_E_INVALID_ENUM_INDEX) {
            // An entry the library does not know ends nothing: try the next one.
            if (i < params) continue;
            break;
        }
        if (rc != MAV_OK) break;
        const char* tname = MavParamTypeName(type);
        std::snprintf(line, sizeof line, "  %-26s %-7s %.*s\n", std::string(pname, nlen).c_str(),
                      tname ? tname : "?", static_cast<int>(vlen), pvalue);
        *out += line;
    }
}

}  // namespace mavscan
