// engines_env.h - what the engine tests share: the generated signature database,
// test objects built at run time (the EICAR string from pieces, ZIP archives),
// clamd daemons the tests start and stop, a loopback server for fake engines,
// and an adapter driven through its seven entry points as the library drives it.
#ifndef KORMO_TESTS_ENGINES_ENV_H
#define KORMO_TESTS_ENGINES_ENV_H

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kormopel.h"

namespace engines {

using Bytes = std::vector<unsigned char>;

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The database made by scripts/make-testdb.sh (a ctest fixture).
inline std::string TestDb() {
    return KORMO_TESTDB_DIR;
}

inline std::string Eicar() {
    // Never one string in the sources.
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}") + "$EICAR-STANDARD-" +
           "ANTIVIRUS-TEST-FILE!$H+H*";
}

// The marker string of the database's "Kormo.Test.Marker" signature.
inline std::string Marker() {
    return ReadText(TestDb() + "/marker.txt");
}

inline Bytes ToBytes(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

// v joined with commas; Contains: true when one of v contains part.
inline std::string Joined(const std::vector<std::string>& v) {
    std::string s;
    for (const std::string& x : v) s += (s.empty() ? "" : ",") + x;
    return s;
}

inline bool Contains(const std::vector<std::string>& v, const std::string& part) {
    return Joined(v).find(part) != std::string::npos;
}

// Little-endian fields of a ZIP header: (value, byte count) pairs.
inline void Put(Bytes& o, std::initializer_list<std::pair<uint64_t, int>> fields) {
    for (const auto& f : fields)
        for (int i = 0; i < f.second; ++i)
            o.push_back(static_cast<unsigned char>(f.first >> 8 * i));
}

// Raw deflate data: zlib's stream without its 2-byte header and 4-byte check.
inline Bytes Deflate(const Bytes& in) {
    uLongf n = compressBound(in.size());
    Bytes out(n);
    compress2(out.data(), &n, in.data(), in.size(), 1);
    return Bytes(out.begin() + 2, out.begin() + static_cast<long>(n) - 4);
}

// A ZIP archive of (name, content) members, stored or deflated, with the given
// general purpose flags (1: encrypted, the contents left as they are);
// NestedZip wraps content in `levels` deflated archives, so nothing of it
// shows outside.
inline Bytes Zip(const std::vector<std::pair<std::string, Bytes>>& members, bool deflated = false,
                 uint16_t flags = 0) {
    Bytes out, central;
    for (const auto& [name, content] : members) {
        const uint64_t offset = out.size(), crc = crc32(0, content.data(), content.size());
        const Bytes data = deflated ? Deflate(content) : content;
        for (Bytes* o : {&out, &central}) {
            const bool c = o == &central;
            // signature, made by (central), needed, flags, method, time, date, crc,
            // sizes, name and extra length; central: comment length, disk, and
            // internal and external attributes, offset
            // clang-format off
            Put(*o, {{c ? 0x02014b50u : 0x04034b50u, 4}, {20, c ? 2 : 0}, {10, 2}, {flags, 2},
                     {deflated ? 8u : 0u, 2}, {0, 2}, {0x21, 2}, {crc, 4}, {data.size(), 4},
                     {content.size(), 4}, {name.size(), 2}, {0, 2}, {0, c ? 6 : 0},
                     {0, c ? 4 : 0}, {offset, c ? 4 : 0}});
            // clang-format on
            o->insert(o->end(), name.begin(), name.end());
            if (!c) o->insert(o->end(), data.begin(), data.end());
        }
    }
    const uint64_t centralOffset = out.size(), n = members.size();
    out.insert(out.end(), central.begin(), central.end());
    // clang-format off
    Put(out, {{0x06054b50u, 4}, {0, 4}, {n, 2}, {n, 2}, {central.size(), 4}, {centralOffset, 4},
              {0, 2}});
    // clang-format on
    return out;
}

inline Bytes NestedZip(const Bytes& content, int levels) {
    Bytes b = content;
    std::string name = "inner.txt";
    for (int i = 0; i < levels; ++i) {
        b = Zip({{name, b}}, true);
        name = "level" + std::to_string(i) + ".zip";
    }
    return b;
}

// A fresh directory, removed with its contents.
class TempDir {
  public:
    TempDir() { mkdtemp(&path_[0]); }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_ = (std::filesystem::temp_directory_path() / "kormo-engines-XXXXXX").string();
};

// A server for fake engines on 127.0.0.1 (its port kept over a restart) or a
// Unix socket: each connection is served on its own thread by serve(fd), and
// shut down when serve returns or the server stops.
class FakeServer {
  public:
    explicit FakeServer(std::function<void(int)> serve, std::string unixPath = "")
        : serve_(std::move(serve)), path_(std::move(unixPath)) {}
    ~FakeServer() { Stop(); }
    int Port() const { return port_; }
    // "unix:PATH" or "127.0.0.1:PORT".
    std::string Address() const {
        return path_.empty() ? "127.0.0.1:" + std::to_string(port_) : "unix:" + path_;
    }
    bool Start() {
        sockaddr_in in{AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
        sockaddr_un un{AF_UNIX, {}};
        std::snprintf(un.sun_path, sizeof un.sun_path, "%s", path_.c_str());
        const bool tcp = path_.empty();
        auto* sa = tcp ? reinterpret_cast<sockaddr*>(&in) : reinterpret_cast<sockaddr*>(&un);
        socklen_t len = tcp ? sizeof in : sizeof un;
        if (!tcp) unlink(path_.c_str());
        listen_ = socket(sa->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(listen_, sa, len) != 0 || listen(listen_, 64) != 0) {
            close(listen_);
            listen_ = -1;
            return false;
        }
        if (tcp && getsockname(listen_, sa, &len) == 0) port_ = ntohs(in.sin_port);
        acceptor_ = std::thread([this] {
            for (int c; (c = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                std::lock_guard<std::mutex> g(lock_);
                conns_.push_back(c);
                // Shut down, not closed, when served: Stop closes it, so no
                // descriptor number is reused under a connection still listed.
                workers_.emplace_back([this, c] {
                    serve_(c);
                    shutdown(c, SHUT_RDWR);
                });
            }
        });
        return true;
    }
    void Stop() {
        if (listen_ < 0) return;
        shutdown(listen_, SHUT_RDWR);
        acceptor_.join();
        close(listen_);
        listen_ = -1;
        std::lock_guard<std::mutex> g(lock_);
        for (int c : conns_) shutdown(c, SHUT_RDWR);
        for (std::thread& t : workers_) t.join();
        for (int c : conns_) close(c);
        conns_.clear();
        workers_.clear();
    }

  private:
    std::function<void(int)> serve_;
    std::string path_;
    int port_ = 0, listen_ = -1;
    std::thread acceptor_;
    std::mutex lock_;
    std::vector<int> conns_;
    std::vector<std::thread> workers_;
};

// A free TCP port on 127.0.0.1 (free when asked; taken soon after).
inline int FreePort() {
    FakeServer probe([](int) {});
    return probe.Start() ? probe.Port() : 0;
}

// A clamd of its own: a local socket, a TCP socket on a free loopback port, the
// test database, archive depth 3, streams up to 1 MiB and alerts for limits
// reached.
class Clamd {
  public:
    ~Clamd() { Stop(); }
    std::string UnixAddress() const { return "unix:" + socket_; }
    std::string TcpAddress() const { return "127.0.0.1:" + std::to_string(port_); }
    const std::string& SocketPath() const { return socket_; }
    // Starts it and waits until it answers PING; false with a reason. The TCP
    // port is free when picked; another process may take it before clamd binds
    // it: then another one is tried.
    bool Start(std::string* error) {
        for (int attempt = 0; attempt < 3 && pid_ <= 0; ++attempt) {
            port_ = FreePort();
            const std::string conf = dir_.File("clamd.conf"), log = dir_.File("clamd.log");
            std::ofstream(conf, std::ios::trunc)
                << "Foreground yes\nLocalSocket " << socket_ << "\nTCPSocket " << port_
                << "\nTCPAddr 127.0.0.1\nDatabaseDirectory " << TestDb() << "\nTemporaryDirectory "
                << dir_.Path() << "\nLogFile " << log
                << "\nStreamMaxLength 1M\nMaxRecursion 3\nAlertExceedsMax yes\nMaxThreads 4\n"
                << "IdleTimeout 30\nSelfCheck 0\nLogTime yes\n";
            if ((pid_ = fork()) == 0) {
                int devnull = open("/dev/null", O_RDWR);
                for (int fd = 0; fd < 3; ++fd) dup2(devnull, fd);
                execl(KORMO_CLAMD_PATH, "clamd", "-c", conf.c_str(), static_cast<char*>(nullptr));
                _exit(127);
            }
            *error = "fork failed";
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (pid_ > 0 && !Pong()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                    pid_ = -1;
                    *error = "clamd exited during start-up: " + ReadText(log);
                } else if (std::chrono::steady_clock::now() > deadline) {
                    *error = "clamd did not answer PING within 60 s";
                    Stop();
                }
            }
        }
        return pid_ > 0;
    }
    void Stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);  // a server that goes away
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        unlink(socket_.c_str());
    }

  private:
    // True when it answers PING on its local socket within a second.
    bool Pong() const {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{AF_UNIX, {}};
        std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", socket_.c_str());
        char reply[8] = {};
        pollfd p{fd, POLLIN, 0};
        bool up = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
                  send(fd, "zPING", 6, MSG_NOSIGNAL) == 6 && poll(&p, 1, 1000) == 1 &&
                  recv(fd, reply, sizeof reply - 1, 0) == 5 && std::string(reply) == "PONG";
        close(fd);
        return up;
    }
    TempDir dir_;
    std::string socket_ = dir_.File("clamd.sock");
    int port_ = 0;
    pid_t pid_ = -1;
};

// One parameter value: a text or a number.
struct Set {
    Set(int32_t c, const std::string& t) : code(c), text(t), isText(true) {}
    Set(int32_t c, uint64_t n) : code(c), number(n) {}
    int32_t code;
    std::string text;
    uint64_t number = 0;
    bool isText = false;
};

// Parameter lists as the library hands them to an adapter: a copy of the
// adapter's defaults with some values replaced (texts point into values).
struct ParamList {
    ParamList(const PEL_PARAMS* defaults, const std::vector<Set>& values)
        : params(defaults->pParams, defaults->pParams + defaults->usNumParams) {
        for (const Set& v : values) {
            auto p = std::find_if(params.begin(), params.end(),
                                  [&](const PEL_PARAM& q) { return q.tCode == v.code; });
            if (p == params.end()) std::abort();  // the adapter does not offer it: a broken test
            p->pvValue = v.isText ? const_cast<char*>(v.text.c_str())
                                  : reinterpret_cast<void*>(static_cast<uintptr_t>(v.number));
            if (v.isText) p->lLength = v.text.size();
        }
        list.usNumParams = static_cast<uint16_t>(params.size());
        list.pParams = params.data();
    }
    std::vector<PEL_PARAM> params;
    PEL_PARAMS list{};
};

// An adapter file opened with dlopen, its entry points resolved, started and
// its configuration read; cleaned up and closed at the end.
class Adapter {
  public:
    explicit Adapter(const std::string& path)
        : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            error_ = dlerror();  // set after a failed dlopen
            return;
        }
        auto get = [&](auto& fn, const char* name) {
            fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(handle_, name));
            if (fn == nullptr) error_ += std::string(name) + " missing; ";
        };
        PEL_STARTUP_FN startup = nullptr;
        PEL_GETCONFIG_FN getConfig = nullptr;
        get(startup, "PelStartup");
        get(getConfig, "PelGetConfig");
        get(init_, "PelInit");
        get(Scan, "PelScan");
        get(ReleaseScan, "PelReleaseScan");
        get(end_, "PelEnd");
        get(cleanup_, "PelCleanup");
        if (error_.empty() && (startup() != 0 || getConfig(&config_) != 0)) error_ = "start failed";
    }
    ~Adapter() {
        for (PEL_INIT* in : opened_) End(&in);
        if (Loaded()) cleanup_();
        if (handle_ != nullptr) dlclose(handle_);
    }
    bool Loaded() const { return config_ != nullptr; }
    const std::string& Error() const { return error_; }
    PEL_CONFIG* Config() const { return config_; }
    // PelInit with the defaults, some replaced; the instance is ended with the
    // adapter unless handed to End first.
    int Init(const std::vector<Set>& values, PEL_INIT** out) {
        ParamList init(config_->pInitParams, values);
        int rc = init_(nullptr, &init.list, out);
        if (*out != nullptr) opened_.push_back(*out);
        return rc;
    }
    void End(PEL_INIT** in) {
        for (PEL_INIT*& o : opened_)
            if (o == *in) o = nullptr;
        PEL_CONFIG* none = nullptr;
        if (*in != nullptr && end_(in, &none) != 0) ADD_FAILURE() << "PelEnd failed";
    }

    PEL_SCAN_FN Scan = nullptr;
    PEL_RELEASESCAN_FN ReleaseScan = nullptr;

  private:
    void* handle_;
    PEL_INIT_FN init_ = nullptr;
    PEL_END_FN end_ = nullptr;
    PEL_CLEANUP_FN cleanup_ = nullptr;
    PEL_CONFIG* config_ = nullptr;
    std::vector<PEL_INIT*> opened_;
    std::string error_;
};

// What the event callback cb saw during a scan: virus names (VS_M_VIRUS),
// "not scanned" and error texts, clean objects; it answers stop at the
// stopAfter-th virus.
struct Events {
    explicit Events(int stopAfterViruses = -1) : stopAfter(stopAfterViruses) {}
    Events(const Events&) = delete;
    static VS_CALLRC Record(void* /*adapterData*/, uint32_t message, void* data, void* context) {
        auto* e = static_cast<Events*>(context);
        if (message == VS_M_VIRUS)
            e->viruses.push_back(static_cast<PEL_VIRUSINFO*>(data)->pszVirusName);
        if (message == VS_M_NOTSCANNED)
            e->notScanned.push_back(static_cast<PEL_SCANERROR*>(data)->pszErrorText);
        if (message == VS_M_ERROR) e->errors.push_back(static_cast<const char*>(data));
        e->clean += message == VS_M_CLEAN ? 1 : 0;
        const bool stop =
            message == VS_M_VIRUS && static_cast<int>(e->viruses.size()) == e->stopAfter;
        return stop ? VS_CALLRC_STOP : VS_CALLRC_CONTINUE;
    }
    std::vector<std::string> viruses, notScanned, errors;
    int clean = 0, stopAfter;
    PEL_CALLBACK cb{sizeof(PEL_CALLBACK), Record, VS_M_ALL, 0, this, nullptr, nullptr, nullptr};
};

// PelScan of a memory object or a file, results kept until the next scan;
// options: replaced values of the adapter's option defaults (none: no list).
class Scanner {
  public:
    Scanner(Adapter& adapter, PEL_INIT* init) : adapter_(adapter), init_(init) {}
    ~Scanner() { Release(); }
    int Bytes(const engines::Bytes& data, const std::string& name,
              const std::vector<Set>& options = {}, PEL_CALLBACK* callback = nullptr,
              uint32_t action = VS_A_SCAN) {
        auto* bytes = const_cast<unsigned char*>(data.data());
        PEL_SCANPARAM p{0, VS_SC_BYTES, action, name.c_str(), bytes, data.size(), 7, 0};
        return Scan(p, options, callback);
    }
    int File(const std::string& path, const std::vector<Set>& options = {},
             PEL_CALLBACK* callback = nullptr) {
        PEL_SCANPARAM p{0, VS_SC_FILE, VS_A_SCAN, path.c_str(), nullptr, path.size(), 8, 0};
        return Scan(p, options, callback);
    }
    PEL_SCANINFO* Info() const { return info_; }
    std::vector<std::string> Infections() const {
        std::vector<std::string> v;
        for (uint32_t i = 0; info_ != nullptr && i < info_->uiInfections; ++i)
            v.push_back(info_->pVirusInfo[i].pszVirusName);
        return v;
    }
    // True when a scan error text contains part.
    bool ScanErrorHas(const std::string& part) const {
        for (uint32_t i = 0; info_ != nullptr && i < info_->uiScanErrors; ++i)
            if (std::string(info_->pScanError[i].pszErrorText).find(part) != std::string::npos)
                return true;
        return false;
    }

  private:
    void Release() {
        if (info_ != nullptr) adapter_.ReleaseScan(&info_);
    }
    int Scan(PEL_SCANPARAM& p, const std::vector<Set>& options, PEL_CALLBACK* callback) {
        Release();
        p.struct_size = sizeof p;
        if (options.empty()) return adapter_.Scan(init_, callback, &p, nullptr, &info_);
        ParamList list(adapter_.Config()->pOptParams, options);
        return adapter_.Scan(init_, callback, &p, &list.list, &info_);
    }
    Adapter& adapter_;
    PEL_INIT* init_;
    PEL_SCANINFO* info_ = nullptr;
};

}  // namespace engines

#endif
