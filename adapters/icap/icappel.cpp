/*
 * icappel.cpp - the seven entry points of the ICAP adapter.
 *
 * Thread model 0: every instance gets its own PelInit and so its own kept
 * connection to one ICAP server of INITSERVERS. An object goes to the usable
 * server with the fewest instances of the process bound to it, as the
 * encapsulated body of a RESPMOD; a server that fails is skipped for
 * INITRECONNECTTIME seconds and the object moves on to the next one, all
 * within the object's deadline (INITTIMEOUT).
 */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "icap_client.h"
#include "icap_proto.h"
#include "icap_servers.h"
#include "icap_verdict.h"
#include "kormopel.h"
#include "pel_entry.h"
#include "pel_trace.h"
#include "pel_farm.h"
#include "pel_init.h"
#include "pel_params.h"
#include "pel_records.h"
#include "pel_scan.h"

namespace icappel {
namespace {

using namespace pelcommon;

constexpr int kCleanOk = -1;
constexpr uint32_t kAdapterId = 0x49434101u;  // "ICA", 1
constexpr uint32_t kInitMark = 0x49434e49u;
constexpr uint32_t kResultMark = 0x49435253u;
const char kDefaultServers[] = "icap://127.0.0.1:1344/avscan";
constexpr uint32_t kDefaultTimeout = 60;    // seconds per object
constexpr uint32_t kDefaultReconnect = 10;  // seconds before a failed server is tried again
constexpr uint32_t kDefaultOptionsTtl = 3600;
constexpr uint32_t kBackoffMs = 1000;  // retry of a farm that is all down
constexpr size_t kBodySlack = 64 * 1024;
constexpr size_t kMaxBody = 256u * 1024 * 1024;

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return std::string();
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// INITSERVERS: ICAP URLs and settings (connect=S, io=S, selftest=on|off,
// verify=on|off), separated by commas.
struct ServerList {
    std::vector<ServerUrl> servers;
    Timeouts timeouts;
    bool selfTest = false;
};

bool Seconds(const std::string& v, std::chrono::milliseconds* out) {
    char* end = nullptr;
    double s = std::strtod(v.c_str(), &end);
    if (v.empty() || *end != '\0' || !(s > 0) || s > 86400) return false;
    *out = std::chrono::milliseconds(static_cast<int64_t>(s * 1000));
    return true;
}

bool ParseList(const std::string& list, ServerList* out, std::string* error) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        std::string item =
            Trim(list.substr(start, comma == std::string::npos ? comma : comma - start));
        start = comma == std::string::npos ? list.size() + 1 : comma + 1;
        if (item.empty()) continue;
        size_t eq = item.find('=');
        if (item.find("://") == std::string::npos && eq != std::string::npos) {
            std::string key = Lower(Trim(item.substr(0, eq))),
                        value = Lower(Trim(item.substr(eq + 1)));
            bool on = value == "on" || value == "yes" || value == "true" || value == "1";
            bool off = value == "off" || value == "no" || value == "false" || value == "0";
            bool ok = key == "connect"    ? Seconds(value, &out->timeouts.connect)
                      : key == "io"       ? Seconds(value, &out->timeouts.io)
                      : key == "selftest" ? (out->selfTest = on, on || off)
                      : key == "verify"   ? (out->timeouts.verifyTls = on, on || off)
                                          : false;
            if (!ok) {
                *error = "INITSERVERS: bad setting \"" + item +
                         "\" (connect=SECONDS, io=SECONDS, selftest=on|off, verify=on|off)";
                return false;
            }
            continue;
        }
        ServerUrl url;
        if (!ParseUrl(item, &url, error)) return false;
        out->servers.push_back(url);
    }
    if (out->servers.empty()) *error = "INITSERVERS names no ICAP server";
    return !out->servers.empty();
}

class Instance : public InitOwner<Instance, kInitMark> {
  public:
    int Start(const PEL_INITPARAMS* params);
    int Scan(const PEL_CALLBACK* cb, PEL_SCANPARAM* param, PEL_OPTPARAMS* options,
             PEL_SCANINFO** out);

  private:
    // The server's options, fetched when their TTL has ended, and its
    // self-test when asked for and not passed yet. False with a reason; a
    // failed self-test sets *selfTestFailed.
    bool Ready(size_t i, Clock::time_point deadline, Options* o, bool* selfTestFailed,
               std::string* error);
    // 1: the server reported EICAR; 0: it answered without a finding; -1: it failed.
    int SelfTest(size_t i, const Options& o, Clock::time_point deadline, std::string* error);
    // One object on the servers in turn; the verdict of the first that answers.
    Verdict Ask(const std::string& name, const Source& src, Reply* reply, std::string* server);
    // Server i failed: skipped for INITRECONNECTTIME, its options asked again.
    void Failed(size_t i) {
        farm_.MarkFailed(i);
        ServerBook::Forget(list_.servers[i].text);
        client_->Drop();
    }
    void Describe(size_t bound, const std::vector<std::string>& states);
    static int WriteBack(PEL_SCANPARAM* param, bool memory, const Reply& reply, PEL_SCANINFO* info,
                         std::string* error);

    ServerList list_;
    Farm farm_;
    std::unique_ptr<Client> client_;
    size_t bound_ = 0;
    uint32_t reconnect_ = kDefaultReconnect;
    std::string versionText_;
    std::vector<std::string> driverNames_;
    std::vector<PEL_DRIVERINFO> drivers_;
};

int Instance::SelfTest(size_t i, const Options& o, Clock::time_point deadline, std::string* error) {
    const ServerUrl& s = list_.servers[i];
    std::string eicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}") + "$EICAR-STANDARD-" +
                        "ANTIVIRUS-TEST-FILE!$H+H*";
    Source src;
    src.bytes = reinterpret_cast<const unsigned char*>(eicar.data());
    src.length = eicar.size();
    Reply r;
    if (client_->Respmod(s, o, "eicar.com", src, kBodySlack, deadline, &r, error) != Client::kReply)
        return -1;
    if (Judge(r, src).kind == Verdict::kFound) {
        ServerBook::SetSelfTested(s.text);
        return 1;
    }
    *error = "self-test failed: the server did not report the EICAR test string (" + r.statusLine +
             "); a server that passes everything would make every scan clean - check its "
             "service name and engine";
    return 0;
}

bool Instance::Ready(size_t i, Clock::time_point deadline, Options* o, bool* selfTestFailed,
                     std::string* error) {
    const ServerUrl& s = list_.servers[i];
    if (!ServerBook::FreshOptions(s.text, kDefaultOptionsTtl, o)) {
        if (client_->FetchOptions(s, deadline, o, error) != Client::kReply) return false;
        ServerBook::PutOptions(s.text, *o);
    }
    if (!list_.selfTest || ServerBook::SelfTested(s.text)) return true;
    int passed = SelfTest(i, *o, deadline, error);
    *selfTestFailed = passed == 0;
    return passed == 1;
}

void Instance::Describe(size_t bound, const std::vector<std::string>& states) {
    // One driver per server: its URL and state, the ISTag as its signature version.
    driverNames_ = states;
    drivers_.assign(states.size(), PEL_DRIVERINFO{});
    for (size_t i = 0; i < states.size(); ++i) {
        drivers_[i].struct_size = sizeof(PEL_DRIVERINFO);
        drivers_[i].pszName = driverNames_[i].c_str();
        drivers_[i].iDriverRC = states[i].find("ISTag") != std::string::npos ? kOk : kLoadFailed;
    }
    PEL_INIT& in = block_.init;
    in.usDrivers = static_cast<uint16_t>(drivers_.size());
    in.pDriver = drivers_.data();
    Options o;
    ServerBook::FreshOptions(list_.servers[bound].text, kDefaultOptionsTtl, &o);
    versionText_ = (o.service.empty() ? std::string("ICAP server") : o.service) + " at " +
                   list_.servers[bound].text + ", ISTag \"" + o.istag + "\"";
    in.pszEngineVersionText = versionText_.c_str();
    in.usEngineMajVersion = 1;  // ICAP/1.0
    in.usEngineMinVersion = 0;
}

int Instance::Start(const PEL_INITPARAMS* params) {
    std::string text = ParamText(params, VS_P_INITSERVERS, kDefaultServers);
    uint32_t timeout = ParamNumber32(params, VS_P_INITTIMEOUT, kDefaultTimeout);
    reconnect_ = ParamNumber32(params, VS_P_INITRECONNECTTIME, kDefaultReconnect);
    std::string error;
    if (!ParseList(text, &list_, &error)) return Fail(kInvalidParam, error);
    list_.timeouts.overall =
        std::chrono::milliseconds(static_cast<int64_t>(timeout == 0 ? 86400u : timeout) * 1000);
    client_ = std::make_unique<Client>(list_.timeouts);
    // Health and spreading go by the servers' addresses.
    std::string addresses;
    for (const ServerUrl& u : list_.servers) {
        bool v6 = u.host.find(':') != std::string::npos;
        addresses +=
            (addresses.empty() ? "" : ", ") + (v6 ? "[" + u.host + "]" : u.host) + ":" + u.port;
    }
    uint32_t backoffMs = std::min<uint32_t>(kBackoffMs, reconnect_ * 1000u);
    if (!farm_.Configure(addresses, "INITSERVERS", FarmMode::kSpread, reconnect_, backoffMs,
                         &error))
        return Fail(kInvalidParam, error);

    std::vector<std::string> states(list_.servers.size());
    std::string reasons, selfTestReasons;
    bool any = false;
    for (size_t i = 0; i < list_.servers.size(); ++i) {
        const ServerUrl& s = list_.servers[i];
        Options o;
        bool selfTestFailed = false;
        auto deadline = Clock::now() + list_.timeouts.overall;
        if (!farm_.IsUp(i)) {
            error = "failed recently (INITRECONNECTTIME)";
        } else if (Ready(i, deadline, &o, &selfTestFailed, &error)) {
            farm_.MarkGood(i);
            farm_.SetVersion(i, o.istag);
            states[i] = s.text + " ISTag \"" + o.istag + "\"";
            if (!any) bound_ = i;
            any = true;
            continue;
        } else {
            Failed(i);
        }
        states[i] = s.text + " down: " + error;
        (selfTestFailed ? selfTestReasons : reasons) += "; " + s.text + ": " + error;
    }
    if (!selfTestReasons.empty())
        return Fail(kLoadFailed, "ICAP self-test failed" + selfTestReasons);
    if (!any)
        return Fail(kLoadFailed, "No ICAP server reachable (INITSERVERS=" + text + ")" + reasons);
    farm_.Bind(bound_);
    Describe(bound_, states);
    block_.init.hEngine = client_.get();
    return kOk;
}

Verdict Instance::Ask(const std::string& name, const Source& src, Reply* reply,
                      std::string* server) {
    auto deadline = Clock::now() + list_.timeouts.overall;
    size_t bodyLimit = std::min(kMaxBody, src.length + kBodySlack);
    std::string reasons;
    Verdict v;
    std::vector<bool> tried(list_.servers.size());
    for (;;) {
        std::string why;
        size_t i = farm_.Pick(tried, &why);
        if (i == Farm::kNone) {
            if (reasons.empty()) reasons = "; " + why;
            break;
        }
        tried[i] = true;
        farm_.Bind(i);
        const ServerUrl& s = list_.servers[i];
        std::string error;
        Options o;
        bool selfTestFailed = false;
        Client::Outcome out = Client::kFailed;
        if (Ready(i, deadline, &o, &selfTestFailed, &error))
            out = client_->Respmod(s, o, name, src, bodyLimit, deadline, reply, &error);
        if (out == Client::kSourceFailed) {
            v.kind = Verdict::kFailed;
            v.error = "Cannot read " + name + ": " + error;
            return v;
        }
        if (out == Client::kReply) {
            v = Judge(*reply, src);
            if (v.kind != Verdict::kRetry) {
                farm_.MarkGood(i);
                bound_ = i;
                *server = s.text;
                return v;
            }
            error = v.error;
        }
        Failed(i);
        reasons += "; " + s.text + ": " + error;
        if (Clock::now() >= deadline) break;
    }
    v.kind = Verdict::kFailed;
    v.error = "No ICAP server could scan the object" + reasons;
    return v;
}

int Instance::WriteBack(PEL_SCANPARAM* param, bool memory, const Reply& reply, PEL_SCANINFO* info,
                        std::string* error) {
    const std::string& body = reply.body;
    if (memory) {
        if (body.size() > param->lLength) {
            *error = "the repaired object (" + std::to_string(body.size()) +
                     " bytes) is larger than the buffer";
            return kCleanFailed;
        }
        if (!body.empty()) std::memcpy(param->pbByte, body.data(), body.size());
        param->lLength = body.size();
        info->pbBytesCleaned = param->pbByte;
        info->lBytesCleaned = body.size();
        return kCleanOk;
    }
    int fd = open(param->pszObjectName, O_WRONLY | O_TRUNC | O_CLOEXEC);
    size_t done = 0;
    while (fd >= 0 && done < body.size()) {
        ssize_t n = write(fd, body.data() + done, body.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    bool ok = fd >= 0 && done == body.size();
    if (!ok) *error = std::string("cannot write the repaired object: ") + std::strerror(errno);
    if (fd >= 0 && close(fd) != 0 && ok) {
        ok = false;
        *error = std::string("cannot write the repaired object: ") + std::strerror(errno);
    }
    return ok ? kCleanOk : kCleanFailed;
}

int Instance::Scan(const PEL_CALLBACK* cb, PEL_SCANPARAM* param, PEL_OPTPARAMS* /*options*/,
                   PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    bool memory = false;
    if (int bad = CheckScanParam(param, &memory); bad != kOk) return bad;
    const std::string name = param->pszObjectName != nullptr ? param->pszObjectName : "";

    Source src;
    std::string engineError, sizeless;
    int sizelessRc = kOk;
    ObjectFile file;
    if (memory) {
        src.bytes = param->pbByte;
        src.length = param->lLength;
    } else if (file.Open(name, &engineError)) {
        sizelessRc = file.ReadSizeless(kSizelessCap, &sizeless);
        if (sizelessRc == kScanFailed) engineError = sizeless + " (" + name + ")";
        src.bytes = file.Data();  // a file whose size reads as 0, read to its end
        src.fd = file.Data() != nullptr ? -1 : file.Fd();
        src.length = file.Size();
    }
    auto result = std::make_unique<ScanResult>(kResultMark, param->uiJobID, name, src.length,
                                               memory ? kObjectMemory : kObjectFile);
    int rc = kScanFailed;
    Reply reply;
    std::string server;
    if (engineError.empty() && sizelessRc == kNotScanned) {
        rc = kNotScanned;
        result->AddScanError(kNotScanned, sizeless);
    } else if (engineError.empty()) {
        result->SetContent(NameExtension(name), "", "");
        Verdict v = Ask(name, src, &reply, &server);
        PEL_TRACE(pel::kTraceInfo, "icap %s: %s: %s\n", server.empty() ? "-" : server.c_str(),
                  name.empty() ? "(memory)" : name.c_str(),
                  v.kind == Verdict::kFailed ? v.error.c_str() : reply.statusLine.c_str());
        if (v.kind == Verdict::kClean && !memory && file.Changed()) {
            // Bytes written after the size was taken were never sent.
            rc = kNotScanned;
            result->AddScanError(kNotScanned, "Not scanned: the file changed while " +
                                                  server + " read it");
        } else if (v.kind == Verdict::kClean) {
            rc = kOk;
        } else if (v.kind != Verdict::kFound) {
            engineError = v.error;
        } else {
            bool infection = false, policy = false;
            for (const Finding& f : v.findings) {
                if (f.kind == FindingKind::kNotScanned) {
                    result->AddScanError(kNotScanned, "Not scanned by " + server + ": " + f.name);
                    continue;
                }
                (f.kind == FindingKind::kPolicy ? policy : infection) = true;
                result->AddInfection(f.name, kDetectSignature,
                                     "ICAP " + server + " (" + f.header + ")");
            }
            rc = infection ? kVirusFound : policy ? kBlockedByPolicy : kNotScanned;
            if (rc == kVirusFound && (param->tActionCode & VS_A_CLEAN) != 0) {
                rc = v.repaired ? kCleanOk : kCleanFailed;
            }
        }
    }
    if (rc == kScanFailed) result->AddScanError(kScanFailed, engineError);
    result->Finish(rc);
    if (rc == kCleanOk) {
        std::string error;
        rc = WriteBack(param, memory, reply, result->Info(), &error);
        if (rc != kCleanOk) result->AddScanError(kCleanFailed, error);
        result->Finish(rc);
        for (uint32_t i = 0; rc == kCleanOk && i < result->Info()->uiInfections; ++i)
            result->Info()->pVirusInfo[i].bRepairable = 1;
    }
    if (!result->Report(cb, Init(), {}, engineError)) {
        rc = kCallbackTerminated;
        result->Finish(rc);
    }
    if (out != nullptr) *out = result.release()->Info();
    return rc;
}

// ---- Adapter-wide state ---------------------------------------------------------------

using Global = AdapterState<Instance, 3, 0>;
Global& G() { return ProcessState<Global>(); }

int Build(Global& g) {
    g.info = AdapterInfo(kAdapterId, 0, 1, 0,
                         "libkormomav ICAP adapter (RESPMOD over icap:// and icaps://)", "icap");
    g.initParams[0] = TextParam(VS_P_INITSERVERS, kDefaultServers);
    g.initParams[1] = NumberParam(VS_P_INITTIMEOUT, VS_TYPE_INT, kDefaultTimeout);
    g.initParams[2] = NumberParam(VS_P_INITRECONNECTTIME, VS_TYPE_INT, kDefaultReconnect);
    g.Publish(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, VS_A_SCAN | VS_A_CLEAN,
              VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR);
    return kOk;
}

// The entry points, over the common frame (pel_entry.h).
struct Adapter : StateMembers<Global, G> {
    using Owner = Instance;
    static constexpr uint32_t kResultMark = icappel::kResultMark;
    static int Start() { return Global::Once(G(), Build); }
    static int Create(const PEL_INITPARAMS* params, Instance** owner) {
        return NewOwner(params, owner);
    }
    static void Stop() {
        ServerBook::Clear();
        Farm::ResetAll();
    }
};

}  // namespace
}  // namespace icappel

PEL_DEFINE_ENTRY_POINTS(icappel::Adapter)
