/*
 * clamdpel.cpp - the seven entry points of the clamd adapter.
 *
 * Thread model 0: every instance gets its own PelInit and so its own
 * connection to one clamd server of INITSERVERS, chosen by the server farm
 * (adapters/common/pel_farm.h): the usable server with the fewest instances
 * of this process, or in ordered mode the first usable one. On a local
 * server objects go by descriptor (files as they are, memory objects as a
 * sealed memory file); elsewhere, or when the server refuses descriptors,
 * they are streamed with INSTREAM. A server that fails is skipped for
 * INITRECONNECTTIME seconds and the object is sent to another one.
 */
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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
#include "pel_trace.h"
#include "pel_entry.h"
#include "pel_farm.h"
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
constexpr uint32_t kDefaultTimeout = 30;       // seconds per request
constexpr uint32_t kDefaultReconnect = 10;     // seconds before a failed server is tried again
const char kDefaultMode[] = "spread";          // INITENGINES: spread or ordered
constexpr uint32_t kBackoffMs = 1000;          // all servers down: next try after this
constexpr uint64_t kDefaultLimit = 25u << 20;  // SCANLIMIT, as clamd's StreamMaxLength
const char kStreamPrefix[] = "stream: ";
const char kFound[] = " FOUND";
const char kLimitPrefix[] = "Heuristics.Limits.Exceeded.";

bool EndsWith(const std::string& s, const char* tail) {
    size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// What one request to one server came to.
enum class Verdict { kClean, kFound, kNotScanned, kServerError, kMalformed, kRefused };

// Reads a reply to INSTREAM ("stream: ...") or FILDES ("fd[N]: ..."); *body
// is the reply without that prefix.
Verdict ReadVerdict(const std::string& reply, std::string* body) {
    size_t prefix = 0;
    if (reply.compare(0, sizeof kStreamPrefix - 1, kStreamPrefix) == 0) {
        prefix = sizeof kStreamPrefix - 1;
    } else if (reply.compare(0, 3, "fd[") == 0) {
        size_t close = reply.find("]: ");
        if (close != std::string::npos) prefix = close + 3;
    }
    *body = reply.substr(prefix);
    if (prefix != 0 && *body == "OK") return Verdict::kClean;
    if (prefix != 0 && EndsWith(*body, kFound) && body->size() > sizeof kFound - 1) {
        return body->compare(0, sizeof kLimitPrefix - 1, kLimitPrefix) == 0 ? Verdict::kNotScanned
                                                                            : Verdict::kFound;
    }
    if (body->find("size limit exceeded") != std::string::npos) return Verdict::kNotScanned;
    // A server without descriptor passing, or one that did not get the
    // descriptor, refuses the command itself.
    if (body->find("UNKNOWN COMMAND") != std::string::npos ||
        body->find("FILDES") != std::string::npos ||
        body->find("file descriptor") != std::string::npos)
        return Verdict::kRefused;
    if (EndsWith(*body, " ERROR")) return Verdict::kServerError;
    return Verdict::kMalformed;
}

// A memory object as an anonymous memory file, sealed so that it cannot
// change while clamd reads it. -1 when the system cannot make one.
int SealedMemoryFile(const unsigned char* bytes, size_t length) {
    int fd = memfd_create("kormomav-object", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < length) {
        ssize_t n = write(fd, bytes + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(fd);
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    if (fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string UtcText(int64_t t) {
    std::time_t tt = static_cast<std::time_t>(t);
    std::tm tm;
    char buf[40];
    if (gmtime_r(&tt, &tm) == nullptr ||
        std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm) == 0)
        return std::to_string(t);
    return buf;
}

// The object of one scan as the requests see it.
struct Object {
    bool memory = false;
    Source src;
    int memfd = -1;  // memory object as a sealed memory file, made on demand
    bool memfdTried = false;
    struct stat before;  // a file as it was before the scan
    ~Object() {
        if (memfd >= 0) close(memfd);
    }
};

class Instance : public InitOwner<Instance, kInitMark> {
  public:
    int Start(const PEL_INITPARAMS* params);
    int Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
             PEL_SCANINFO** out);

  private:
    // Connects to the server the farm picks for a new instance, skipping
    // those in tried (which it marks), and binds to it; the server's index,
    // or Farm::kNone with the reasons appended.
    size_t Connect(std::vector<bool>* tried, bool askVersion, std::string* version,
                   std::string* reasons);
    // Asks every server whose version is not known yet (for the engine info).
    void Probe();
    void TakeVersion(const std::string& version);
    void DescribeFarm();
    // One request for obj on c: by descriptor when the server is local and
    // takes them, else INSTREAM.
    Connection::Outcome Send(Connection& c, Object* obj, std::string* reply, std::string* error,
                             bool* byFd);
    // Sends the object to servers of the farm until one gives a verdict.
    int ScanOnFarm(Object* obj, const PEL_SCANPARAM* param, ScanResult* result,
                   std::string* engineError);

    Farm farm_;
    std::vector<bool> noFd_;  // servers that refused a descriptor
    uint32_t timeoutMs_ = kDefaultTimeout * 1000;
    std::vector<std::unique_ptr<Connection>> conns_;  // a session per server, opened on demand
    std::string versionText_;
    std::vector<std::string> serverTexts_;
    std::vector<PEL_DRIVERINFO> servers_;
};

void AddReason(std::string* reasons, const std::string& server, const std::string& text) {
    *reasons += (reasons->empty() ? "" : "; ") + server + ": " + text;
}

size_t Instance::Connect(std::vector<bool>* tried, bool askVersion, std::string* version,
                         std::string* reasons) {
    farm_.Unbind();
    tried->resize(farm_.Size(), false);
    for (;;) {
        std::string why;
        size_t i = farm_.Pick(*tried, &why);
        if (i == Farm::kNone) {
            if (reasons->empty() || why.compare(0, 5, "every") == 0)
                AddReason(reasons, "farm", why);
            return Farm::kNone;
        }
        (*tried)[i] = true;
        const ServerAddress& a = farm_.Address(i);
        Connection& c = *conns_[i];
        std::string error, reply;
        if (c.Open(a, i, timeoutMs_, &error)) {
            if (!askVersion) {
                farm_.Bind(i);
                return i;
            }
            if (c.Command("zVERSION", timeoutMs_, &reply, &error) == Connection::kReply) {
                if (reply.compare(0, 7, "ClamAV ") == 0) {
                    farm_.MarkGood(i);
                    farm_.SetVersion(i, reply);
                    farm_.Bind(i);
                    *version = reply;
                    return i;
                }
                error = "unexpected reply to VERSION: " + reply;
            }
            c.Close();
        }
        farm_.MarkFailed(i);
        AddReason(reasons, a.text, error);
    }
}

void Instance::Probe() {
    std::vector<FarmServerState> states = farm_.Snapshot();
    for (size_t i = 0; i < states.size(); ++i) {
        if (!states[i].up || !states[i].version.empty()) continue;
        Connection c;
        std::string error, reply;
        if (c.Open(farm_.Address(i), i, timeoutMs_, &error) &&
            c.Command("zVERSION", timeoutMs_, &reply, &error) == Connection::kReply &&
            reply.compare(0, 7, "ClamAV ") == 0) {
            farm_.SetVersion(i, reply);
        } else {
            farm_.MarkFailed(i);
        }
    }
}

// Engine numbers out of "ClamAV 1.4.6/27400/Thu Nov 20 08:37:01 2025"; the
// database parts are absent when the server has no official database.
void ParseVersion(const std::string& version, uint16_t* major, uint16_t* minor, uint32_t* revision,
                  int64_t* date) {
    unsigned ma = 0, mi = 0;
    if (std::sscanf(version.c_str(), "ClamAV %u.%u", &ma, &mi) == 2) {
        *major = static_cast<uint16_t>(ma);
        *minor = static_cast<uint16_t>(mi);
    }
    size_t s1 = version.find('/');
    if (s1 == std::string::npos) return;
    if (revision != nullptr)
        *revision = static_cast<uint32_t>(std::strtoul(version.c_str() + s1 + 1, nullptr, 10));
    size_t s2 = version.find('/', s1 + 1);
    if (s2 == std::string::npos) return;
    std::tm tm;
    std::memset(&tm, 0, sizeof tm);
    if (strptime(version.c_str() + s2 + 1, "%a %b %d %H:%M:%S %Y", &tm) != nullptr) {
        tm.tm_isdst = -1;
        *date = static_cast<int64_t>(mktime(&tm));
    }
}

void Instance::TakeVersion(const std::string& version) {
    versionText_ = version;
    PEL_INIT& in = block_.init;
    in.pszEngineVersionText = versionText_.c_str();
    ParseVersion(version, &in.usEngineMajVersion, &in.usEngineMinVersion, &in.uiIntRevision,
                 &in.utcDate);
}

// The farm as drivers of the engine info: one per server, in list order,
// with its state when this instance started and its engine version.
void Instance::DescribeFarm() {
    std::vector<FarmServerState> states = farm_.Snapshot();
    serverTexts_.clear();
    servers_.assign(states.size(), PEL_DRIVERINFO{});
    for (size_t i = 0; i < states.size(); ++i) {
        const FarmServerState& st = states[i];
        std::string text = "server " + st.text + ": ";
        text += st.up ? "up" : "down until " + UtcText(st.downUntil);
        if (!st.version.empty()) text += ", " + st.version;
        if (i == farm_.Bound()) text += " (this instance)";
        serverTexts_.push_back(text);
        PEL_DRIVERINFO& d = servers_[i];
        d.struct_size = sizeof d;
        ParseVersion(st.version, &d.usDrMajVersion, &d.usDrMinVersion, nullptr, &d.utcDate);
        d.iDriverRC = st.up ? kOk : kLoadFailed;
    }
    for (size_t i = 0; i < states.size(); ++i) servers_[i].pszName = serverTexts_[i].c_str();
    block_.init.usDrivers = static_cast<uint16_t>(std::min<size_t>(servers_.size(), UINT16_MAX));
    block_.init.pDriver = servers_.empty() ? nullptr : servers_.data();
}

int Instance::Start(const PEL_INITPARAMS* params) {
    std::string list = ParamText(params, VS_P_INITSERVERS, kDefaultServers);
    timeoutMs_ = ParamNumber32(params, VS_P_INITTIMEOUT, kDefaultTimeout) * 1000u;
    uint32_t reconnect = ParamNumber32(params, VS_P_INITRECONNECTTIME, kDefaultReconnect);
    std::string mode = Lower(ParamText(params, VS_P_INITENGINES, kDefaultMode));
    if (mode != "spread" && mode != "ordered")
        return Fail(kInvalidParam, "INITENGINES: \"" + mode + "\" is neither spread nor ordered");
    std::string error;
    if (!farm_.Configure(list, "INITSERVERS",
                         mode == "ordered" ? FarmMode::kOrdered : FarmMode::kSpread, reconnect,
                         std::min<uint32_t>(kBackoffMs, reconnect * 1000u), &error))
        return Fail(kInvalidParam, error);
    noFd_.assign(farm_.Size(), false);
    conns_.clear();
    for (size_t i = 0; i < farm_.Size(); ++i) conns_.emplace_back(new Connection());

    std::vector<bool> tried;
    std::string version, reasons;
    if (Connect(&tried, true, &version, &reasons) == Farm::kNone)
        return Fail(kLoadFailed,
                    "No clamd server reachable (INITSERVERS=" + list + "): " + reasons);
    TakeVersion(version);
    Probe();
    DescribeFarm();
    block_.init.hEngine = this;
    return kOk;
}

Connection::Outcome Instance::Send(Connection& c, Object* obj, std::string* reply,
                                   std::string* error, bool* byFd) {
    const size_t i = c.Server();
    *byFd = false;
    if (c.Local() && !noFd_[i]) {
        int fd = obj->src.fd;
        if (obj->memory && obj->src.length == 0) {
            fd = -1;  // clamd refuses an empty descriptor; an empty stream is fine
        } else if (obj->memory) {
            if (!obj->memfdTried) {
                obj->memfdTried = true;
                obj->memfd = SealedMemoryFile(obj->src.bytes, obj->src.length);
            }
            fd = obj->memfd;
        } else if (obj->before.st_size == 0) {
            fd = -1;  // a size of 0 is not believed: clamd would read nothing
        }
        if (fd >= 0) {
            *byFd = true;
            return c.Fildes(fd, timeoutMs_, reply, error);
        }
    }
    return c.Stream(obj->src, timeoutMs_, reply, error);
}

int Instance::Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
                   PEL_SCANINFO** out) {
    if (out != nullptr) *out = nullptr;
    Object obj;
    if (int bad = CheckScanParam(param, &obj.memory); bad != kOk) return bad;
    const std::string name = param->pszObjectName != nullptr ? param->pszObjectName : "";
    const uint64_t limit = ParamNumber(options, VS_P_SCANLIMIT, kDefaultLimit);

    std::string engineError;
    ObjectFile file;
    std::memset(&obj.before, 0, sizeof obj.before);
    if (obj.memory) {
        obj.src.bytes = param->pbByte;
        obj.src.length = param->lLength;
    } else if (file.Open(name, &engineError)) {
        obj.src.fd = file.Fd();
        if (fstat(file.Fd(), &obj.before) != 0) obj.before.st_size = 0;
        obj.src.length = static_cast<size_t>(obj.before.st_size);
        obj.src.limit = limit;
    }

    auto result = std::make_unique<ScanResult>(kResultMark, param->uiJobID, name, obj.src.length,
                                               obj.memory ? kObjectMemory : kObjectFile);
    int rc = kOk;
    if (!engineError.empty()) {
        rc = kScanFailed;
    } else if (limit != 0 && obj.src.length > limit) {
        rc = kNotScanned;
        result->AddScanError(kNotScanned,
                             "Not scanned: the object of " + std::to_string(obj.src.length) +
                                 " bytes exceeds SCANLIMIT (" + std::to_string(limit) + ")");
    } else {
        result->SetContent(NameExtension(name), "", "");  // no content typing
        rc = ScanOnFarm(&obj, param, result.get(), &engineError);
    }
    if (rc == kScanFailed) result->AddScanError(kScanFailed, engineError);

    result->Finish(rc);
    if (!result->Report(cb, Init(), {}, engineError)) {
        rc = kCallbackTerminated;
        result->Finish(rc);
    }
    if (out != nullptr) *out = result.release()->Info();
    return rc;
}

// True when the file differs from what it was before clamd read it.
bool Changed(const Object& obj) {
    struct stat now;
    if (fstat(obj.src.fd, &now) != 0) return true;
    return now.st_size != obj.before.st_size || now.st_mtim.tv_sec != obj.before.st_mtim.tv_sec ||
           now.st_mtim.tv_nsec != obj.before.st_mtim.tv_nsec;
}

int Instance::ScanOnFarm(Object* obj, const PEL_SCANPARAM* param, ScanResult* result,
                         std::string* engineError) {
    std::vector<bool> tried(farm_.Size(), false);
    std::string reasons;
    // Leave a bound server that went down, or a crowded one when another
    // came back: the binding decides ties between equally busy servers.
    // (It binds again to the server that gives the next verdict.)
    if (farm_.ShouldMove()) farm_.Unbind();
    for (;;) {
        std::string why;
        const size_t i = farm_.Acquire(tried, &why);
        if (i == Farm::kNone) {
            if (reasons.empty() || why.compare(0, 5, "every") == 0)
                AddReason(&reasons, "farm", why);
            break;
        }
        struct Busy {  // the object counts on server i until this iteration ends
            Farm* farm;
            size_t i;
            ~Busy() { farm->Release(i); }
        } busy{&farm_, i};
        tried[i] = true;
        Connection& c = *conns_[i];
        const std::string server = farm_.Address(i).text;
        std::string reply, error;
        bool fresh = false;
        // A session idle for a while may have been closed by the server
        // (IdleTimeout, restart): looked at before use. Busy sessions are
        // not polled; a failed request on them is tried once more anyway.
        if (c.IsOpen() && c.Idle() > std::chrono::seconds(1) && !c.Alive()) c.Close();
        if (!c.IsOpen()) {
            // A kept session that the server closed while idle (timeout,
            // restart) shows when the request fails: then one fresh try.
            fresh = true;
            if (!c.Open(farm_.Address(i), i, timeoutMs_, &error)) {
                farm_.MarkFailed(i);
                AddReason(&reasons, server, error);
                continue;
            }
        }
        bool byFd = false;
        Connection::Outcome o = Send(c, obj, &reply, &error, &byFd);
        if (o == Connection::kFailed && !fresh) {
            // The kept session may have gone stale: one fresh try.
            if (c.Open(farm_.Address(i), i, timeoutMs_, &error))
                o = Send(c, obj, &reply, &error, &byFd);
        }
        if (o == Connection::kSourceFailed) {
            *engineError = "Cannot read " + std::string(param->pszObjectName) + ": " + error;
            return kScanFailed;
        }
        if (o == Connection::kTooLarge) {
            result->AddScanError(kNotScanned, "Not scanned: " + error + " (SCANLIMIT)");
            return kNotScanned;
        }
        if (o == Connection::kFailed) {
            c.Close();
            farm_.MarkFailed(i);
            AddReason(&reasons, server, error);
            continue;
        }
        std::string body;
        Verdict v = ReadVerdict(reply, &body);
        PEL_TRACE(pel::kTraceInfo, "clamd %s: %s: %s\n", server.c_str(),
                  param->pszObjectName != nullptr ? param->pszObjectName : "(memory)",
                  body.c_str());
        if (farm_.Bound() == Farm::kNone && v != Verdict::kMalformed) farm_.Bind(i);
        if (v == Verdict::kRefused && byFd) {
            // No descriptors on this server: INSTREAM from now on, on a new
            // session (clamd ends one after a refused command).
            noFd_[i] = true;
            c.Close();
            tried[i] = false;
            continue;
        }
        switch (v) {
            case Verdict::kClean:
                if (byFd && !obj->memory && Changed(*obj)) {
                    result->AddScanError(
                        kNotScanned, "Not scanned: the file changed while " + server + " read it");
                    return kNotScanned;
                }
                return kOk;
            case Verdict::kFound: {
                std::string virus = body.substr(0, body.size() - (sizeof kFound - 1));
                bool heuristic = virus.compare(0, 11, "Heuristics.") == 0;
                result->AddInfection(virus, heuristic ? kDetectHeuristic : kDetectSignature,
                                     "clamd " + server);
                return (param->tActionCode & VS_A_CLEAN) != 0 ? kCleanFailed : kVirusFound;
            }
            case Verdict::kNotScanned:
                if (body.find("size limit exceeded") != std::string::npos) {
                    c.Close();  // clamd ends the session after refusing a stream
                    result->AddScanError(
                        kNotScanned, "Not scanned: the object exceeds the stream size limit of " +
                                         server + " (StreamMaxLength): " + body);
                } else {
                    result->AddScanError(kNotScanned, "Not scanned: clamd limit exceeded (" +
                                                          body.substr(0, body.size() - 6) +
                                                          ") on " + server);
                }
                return kNotScanned;
            case Verdict::kServerError:
                // The server could not scan it: another one may.
                AddReason(&reasons, server, body);
                break;
            default:
                farm_.MarkFailed(i);
                AddReason(&reasons, server, "malformed reply \"" + body + "\"");
                break;
        }
        c.Close();
    }
    *engineError = "No clamd server could scan the object: " + reasons;
    return kScanFailed;
}

// ---- Adapter-wide state ---------------------------------------------------------------

using Global = AdapterState<Instance, 4, 1>;
Global& G() { return ProcessState<Global>(); }

int Build(Global& g) {
    g.info = AdapterInfo(kAdapterId, 0, 1, 0,
                         "libkormomav clamd adapter (clamd protocol over Unix and TCP sockets)",
                         "clamd");
    g.initParams[0] = TextParam(VS_P_INITSERVERS, kDefaultServers);
    g.initParams[1] = NumberParam(VS_P_INITTIMEOUT, VS_TYPE_INT, kDefaultTimeout);
    g.initParams[2] = NumberParam(VS_P_INITRECONNECTTIME, VS_TYPE_INT, kDefaultReconnect);
    g.initParams[3] = TextParam(VS_P_INITENGINES, kDefaultMode);
    g.optParams[0] = NumberParam(VS_P_SCANLIMIT, VS_TYPE_SIZE_T, kDefaultLimit);
    g.Publish(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, VS_A_SCAN,
              VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR);
    return kOk;
}

// The entry points, over the common frame (pel_entry.h).
struct Adapter : StateMembers<Global, G> {
    using Owner = Instance;
    static constexpr uint32_t kResultMark = clamdpel::kResultMark;
    static int Start() { return Global::Once(G(), Build); }
    static int Create(const PEL_INITPARAMS* params, Instance** owner) {
        return NewOwner(params, owner);
    }
    static void Stop() {}
};

}  // namespace
}  // namespace clamdpel

PEL_DEFINE_ENTRY_POINTS(clamdpel::Adapter)
