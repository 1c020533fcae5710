/*
 * clamdpel.cpp - the seven entry points of the clamd adapter.
 *
 * Thread model 0: every instance gets its own PelInit and so its own
 * connection to one clamd server of INITSERVERS. Objects are streamed with
 * INSTREAM as they are (memory objects straight from memory, files read in
 * chunks); a server that fails is skipped for INITRECONNECTTIME seconds and
 * the scan moves on to the next one.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clamd_client.h"
#include "kormopel.h"
#include "pel_init.h"
#include "pel_params.h"
#include "pel_records.h"
#include "pel_scan.h"

namespace clamdpel {
namespace {

// Result codes, record building and parameter reading (adapters/common).
using namespace pelcommon;

constexpr uint32_t kAdapterId = 0x434c4401u;  // "CLD", 1
constexpr uint32_t kInitMark = 0x43444e49u;
constexpr uint32_t kResultMark = 0x43445253u;  // "CDRS"
const char kDefaultServers[] = "unix:/var/run/clamav/clamd.ctl";
constexpr uint32_t kDefaultTimeout = 30;    // seconds per request
constexpr uint32_t kDefaultReconnect = 10;  // seconds before a failed server is tried again
const char kStreamPrefix[] = "stream: ";
const char kFound[] = " FOUND";
const char kLimitPrefix[] = "Heuristics.Limits.Exceeded.";

bool EndsWith(const std::string& s, const char* tail) {
    size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

class Instance {
  public:
    Instance() { block_.Open(this); }
    ~Instance() { block_.Close(); }

    PEL_INIT* Init() { return &block_.init; }
    static Instance* FromInit(PEL_INIT* init) { return Block::OwnerOf(init); }

    int Start(const PEL_INITPARAMS* params);
    int Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, PEL_SCANINFO** out);

  private:
    // What the library holds: a PEL_INIT with a link back to its instance.
    using Block = InitBlock<Instance, kInitMark>;

    int Fail(int rc, const std::string& text) {
        errorText_ = text;
        block_.init.iErrorRC = rc;
        block_.init.pszErrorText = errorText_.c_str();
        return rc;
    }
    // Makes the connection point at server i; fresh tells whether it is new.
    bool Ensure(size_t i, bool* fresh, std::string* error);
    void TakeVersion(const std::string& version);

    Block block_;
    std::vector<ServerAddress> servers_;
    uint32_t timeoutMs_ = kDefaultTimeout * 1000;
    uint32_t reconnect_ = kDefaultReconnect;
    Connection conn_;
    std::string versionText_;
    std::string errorText_;
};

bool Instance::Ensure(size_t i, bool* fresh, std::string* error) {
    if (conn_.IsOpen() && conn_.Server() == i && conn_.Alive()) {
        *fresh = false;
        return true;
    }
    conn_.Close();
    const ServerAddress& a = servers_[i];
    uint32_t left = 0;
    if (!FailureBook::Usable(a.text, &left)) {
        *error =
            "failed recently, tried again in " + std::to_string(left) + " s (INITRECONNECTTIME)";
        return false;
    }
    if (!conn_.Open(a, i, timeoutMs_, error)) {
        FailureBook::MarkFailed(a.text, reconnect_);
        return false;
    }
    *fresh = true;
    return true;
}

void Instance::TakeVersion(const std::string& version) {
    // "ClamAV 1.4.6/27400/Thu Nov 20 08:37:01 2025"; the database parts are
    // absent when the server has no official database.
    versionText_ = version;
    PEL_INIT& in = block_.init;
    in.pszEngineVersionText = versionText_.c_str();
    unsigned major = 0, minor = 0;
    if (std::sscanf(version.c_str(), "ClamAV %u.%u", &major, &minor) == 2) {
        in.usEngineMajVersion = static_cast<uint16_t>(major);
        in.usEngineMinVersion = static_cast<uint16_t>(minor);
    }
    size_t s1 = version.find('/');
    if (s1 == std::string::npos) return;
    in.uiIntRevision = static_cast<uint32_t>(std::strtoul(version.c_str() + s1 + 1, nullptr, 10));
    size_t s2 = version.find('/', s1 + 1);
    if (s2 == std::string::npos) return;
    std::tm tm;
    std::memset(&tm, 0, sizeof tm);
    if (strptime(version.c_str() + s2 + 1, "%a %b %d %H:%M:%S %Y", &tm) != nullptr) {
        tm.tm_isdst = -1;
        in.utcDate = static_cast<int64_t>(mktime(&tm));
    }
}

int Instance::Start(const PEL_INITPARAMS* params) {
    std::string list = ParamText(params, VS_P_INITSERVERS, kDefaultServers);
    timeoutMs_ = ParamNumber32(params, VS_P_INITTIMEOUT, kDefaultTimeout) * 1000u;
    reconnect_ = ParamNumber32(params, VS_P_INITRECONNECTTIME, kDefaultReconnect);
    std::string error;
    if (!ParseServers(list, &servers_, &error)) return Fail(kInvalidParam, error);

    std::string reasons;
    for (size_t i = 0; i < servers_.size(); ++i) {
        bool fresh = false;
        std::string reply;
        if (Ensure(i, &fresh, &error) &&
            conn_.Command("zVERSION", timeoutMs_, &reply, &error) == Connection::kReply) {
            if (reply.compare(0, 7, "ClamAV ") == 0) {
                FailureBook::MarkGood(servers_[i].text);
                TakeVersion(reply);
                block_.init.hEngine = &conn_;
                return kOk;
            }
            error = "unexpected reply to VERSION: " + reply;
        }
        if (conn_.IsOpen()) {
            conn_.Close();
            FailureBook::MarkFailed(servers_[i].text, reconnect_);
        }
        reasons += (reasons.empty() ? "" : "; ") + servers_[i].text + ": " + error;
    }
    return Fail(kLoadFailed, "No clamd server reachable (INITSERVERS=" + list + "): " + reasons);
}

int Instance::Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    bool memory = false;
    if (int bad = CheckScanParam(param, &memory); bad != kOk) return bad;
    const std::string name = param->pszObjectName != nullptr ? param->pszObjectName : "";

    Source src;
    std::string engineError;
    ObjectFile file;
    if (memory) {
        src.bytes = param->pbByte;
        src.length = param->lLength;
    } else if (file.Open(name, &engineError)) {
        src.fd = file.Fd();
        src.length = file.Size();
    }

    auto result = std::make_unique<ScanResult>(kResultMark, param->uiJobID, name, src.length,
                                               memory ? kObjectMemory : kObjectFile);
    int rc = kOk;
    if (!engineError.empty()) {
        rc = kScanFailed;
        result->AddScanError(kScanFailed, engineError);
    } else {
        result->SetContent(NameExtension(name), "", "");  // no content typing
        std::string reply, reasons, server;
        bool answered = false;
        const size_t n = servers_.size();
        const size_t first = conn_.IsOpen() ? conn_.Server() : 0;
        for (size_t k = 0; k < n && !answered && rc == kOk; ++k) {
            size_t i = (first + k) % n;
            std::string error;
            bool fresh = false;
            Connection::Outcome o = Connection::kFailed;
            if (Ensure(i, &fresh, &error)) {
                o = conn_.Stream(src, timeoutMs_, &reply, &error);
                if (o == Connection::kFailed && !fresh) {
                    // The kept session may have gone stale: one fresh try.
                    conn_.Close();
                    if (Ensure(i, &fresh, &error))
                        o = conn_.Stream(src, timeoutMs_, &reply, &error);
                }
            }
            if (o == Connection::kReply) {
                answered = true;
                server = servers_[i].text;
            } else if (o == Connection::kSourceFailed) {
                rc = kScanFailed;
                engineError = "Cannot read " + name + ": " + error;
            } else {
                if (conn_.IsOpen()) {
                    conn_.Close();
                    FailureBook::MarkFailed(servers_[i].text, reconnect_);
                }
                reasons += (reasons.empty() ? "" : "; ") + servers_[i].text + ": " + error;
            }
        }
        if (rc == kOk && !answered) {
            rc = kScanFailed;
            engineError = "No clamd server could scan the object: " + reasons;
        }
        if (answered) {
            std::string body = reply.compare(0, sizeof kStreamPrefix - 1, kStreamPrefix) == 0
                                   ? reply.substr(sizeof kStreamPrefix - 1)
                                   : reply;
            if (body == "OK") {
                rc = kOk;
            } else if (EndsWith(body, kFound)) {
                std::string virus = body.substr(0, body.size() - (sizeof kFound - 1));
                if (virus.compare(0, sizeof kLimitPrefix - 1, kLimitPrefix) == 0) {
                    rc = kNotScanned;
                    result->AddScanError(kNotScanned, "Not scanned: clamd limit exceeded (" +
                                                          virus + ") on " + server);
                } else {
                    bool heuristic = virus.compare(0, 11, "Heuristics.") == 0;
                    result->AddInfection(virus, heuristic ? kDetectHeuristic : kDetectSignature,
                                         "clamd " + server);
                    rc = (param->tActionCode & VS_A_CLEAN) != 0 ? kCleanFailed : kVirusFound;
                }
            } else if (body.find("size limit exceeded") != std::string::npos) {
                conn_.Close();  // clamd ends the session after refusing a stream
                rc = kNotScanned;
                result->AddScanError(kNotScanned,
                                     "Not scanned: the object exceeds the stream size limit of " +
                                         server + " (StreamMaxLength): " + body);
            } else {
                conn_.Close();
                rc = kScanFailed;
                engineError = "clamd " + server + ": " + body;
            }
        }
        if (rc == kScanFailed) result->AddScanError(kScanFailed, engineError);
    }

    result->Finish(rc);
    if (!result->Report(cb, Init(), {}, engineError)) {
        rc = kCallbackTerminated;
        result->Finish(rc);
    }
    if (out != nullptr) *out = result.release()->Info();
    return rc;
}

// ---- Adapter-wide state ---------------------------------------------------------------

struct Global {
    std::mutex lock;
    PEL_ADAPTERINFO info;
    PEL_PARAM initParams[3];
    PEL_PARAMS initList;
    PEL_CONFIG config;
    bool built = false;
    FailedInits<Instance> failed;
};

Global& G() {
    static Global* g = new Global();
    return *g;
}

void Build() {
    Global& g = G();
    std::lock_guard<std::mutex> l(g.lock);
    if (g.built) return;
    g.info = AdapterInfo(kAdapterId, 0, 1, 0,
                         "libkormomav clamd adapter (clamd protocol over Unix and TCP sockets)",
                         "clamd");
    g.initParams[0] = TextParam(VS_P_INITSERVERS, kDefaultServers);
    g.initParams[1] = NumberParam(VS_P_INITTIMEOUT, VS_TYPE_INT, kDefaultTimeout);
    g.initParams[2] = NumberParam(VS_P_INITRECONNECTTIME, VS_TYPE_INT, kDefaultReconnect);
    g.initList = ParamList(g.initParams, 3);
    g.config = Config(&g.info, PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, VS_A_SCAN,
                      VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR, &g.initList, nullptr);
    g.built = true;
}

}  // namespace
}  // namespace clamdpel

using namespace clamdpel;

extern "C" {

PEL_EXPORT int PelStartup(void) {
    try {
        Build();
        return kOk;
    } catch (...) {
        return kNoSpace;
    }
}

PEL_EXPORT int PelGetConfig(PEL_CONFIG** ppConfig) {
    if (ppConfig == nullptr) return kNullParam;
    int rc = PelStartup();
    *ppConfig = rc == kOk ? &G().config : nullptr;
    return rc;
}

PEL_EXPORT int PelInit(PEL_CALLBACK* /*pCallback*/, PEL_INITPARAMS* pInitParams,
                       PEL_INIT** ppInit) {
    if (ppInit == nullptr) return kNullParam;
    *ppInit = nullptr;
    try {
        auto* inst = new Instance();
        int rc = inst->Start(pInitParams);
        return G().failed.HandOut(inst, rc, ppInit);
    } catch (...) {
        return kNoSpace;
    }
}

PEL_EXPORT int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pScanParam,
                       PEL_OPTPARAMS* /*pOptParams*/, PEL_SCANINFO** ppScanInfo) {
    return ScanOn<Instance>(pInit, ppScanInfo, [&](Instance* inst) {
        return inst->Scan(pCallback, pScanParam, ppScanInfo);
    });
}

PEL_EXPORT int PelReleaseScan(PEL_SCANINFO** ppScanInfo) {
    return ReleaseScan(ppScanInfo, kResultMark);
}

PEL_EXPORT int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** /*ppConfig*/) {
    return G().failed.End(ppInit);
}

PEL_EXPORT int PelCleanup(void) {
    G().failed.Cleanup();
    return kOk;
}

}  // extern "C"
