// engines_env.h - what the engine tests share: the generated signature database,
// test objects built at run time (the EICAR string from pieces, ZIP archives),
// clamd daemons the tests start and stop, a loopback server for fake engines,
// and an adapter driven through its seven entry points as the library drives it.
#ifndef KORMO_TESTS_ENGINES_ENV_H
#define KORMO_TESTS_ENGINES_ENV_H

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kormopel.h"

namespace engines {

using Bytes = std::vector<unsigned char>;

// The database made by scripts/make-testdb.sh (a ctest fixture).
std::string TestDb();
// The EICAR test string, assembled from pieces.
std::string Eicar();
// The marker string of the database's "Kormo.Test.Marker" signature.
std::string Marker();
Bytes ToBytes(const std::string& s);
// True when one of v contains part; v joined with commas.
bool Contains(const std::vector<std::string>& v, const std::string& part);
std::string Joined(const std::vector<std::string>& v);

// A ZIP archive of (name, content) members, stored or deflated; NestedZip wraps
// content in `levels` deflated archives, so nothing of it shows outside.
Bytes Zip(const std::vector<std::pair<std::string, Bytes>>& members, bool deflated = false);
Bytes NestedZip(const Bytes& content, int levels);

// A fresh directory, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A free TCP port on 127.0.0.1 (free when asked; taken soon after).
int FreePort();

// A clamd of its own: a local socket, a TCP socket on a free loopback port, the
// test database, archive depth 3, streams up to 1 MiB and alerts for limits
// reached.
class Clamd {
  public:
    Clamd() : socket_(dir_.File("clamd.sock")) {}
    ~Clamd() { Stop(); }
    // Starts it and waits until it answers PING; false with a reason.
    bool Start(std::string* error);
    void Stop();
    std::string UnixAddress() const { return "unix:" + socket_; }
    std::string TcpAddress() const { return "127.0.0.1:" + std::to_string(port_); }
    const std::string& SocketPath() const { return socket_; }

  private:
    bool StartOnce(std::string* error);
    TempDir dir_;
    std::string socket_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// A server for fake engines on 127.0.0.1 (its port kept over a restart) or a
// Unix socket: each connection is served on its own thread by serve(fd), and
// shut down when serve returns or the server stops.
class FakeServer {
  public:
    explicit FakeServer(std::function<void(int)> serve, std::string unixPath = "")
        : serve_(std::move(serve)), path_(std::move(unixPath)) {}
    ~FakeServer() { Stop(); }
    bool Start();
    void Stop();
    // "unix:PATH" or "127.0.0.1:PORT".
    std::string Address() const;
    int Port() const { return port_; }

  private:
    std::function<void(int)> serve_;
    std::string path_;
    int port_ = 0, listen_ = -1;
    std::thread acceptor_;
    std::mutex lock_;
    std::vector<int> conns_;
    std::vector<std::thread> workers_;
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

// An adapter file opened with dlopen, its entry points resolved, started and
// its configuration read; cleaned up and closed at the end.
class Adapter {
  public:
    explicit Adapter(const std::string& path);
    ~Adapter();
    bool Loaded() const { return config_ != nullptr; }
    const std::string& Error() const { return error_; }
    PEL_CONFIG* Config() const { return config_; }
    // PelInit with the defaults, some replaced; the instance is ended with the
    // adapter unless handed to End first.
    int Init(const std::vector<Set>& values, PEL_INIT** out);
    void End(PEL_INIT** in);

    PEL_SCAN_FN Scan = nullptr;
    PEL_RELEASESCAN_FN ReleaseScan = nullptr;

  private:
    PEL_INIT_FN init_ = nullptr;
    PEL_END_FN end_ = nullptr;
    PEL_CLEANUP_FN cleanup_ = nullptr;
    void* handle_ = nullptr;
    PEL_CONFIG* config_ = nullptr;
    std::vector<PEL_INIT*> opened_;
    std::string error_;
};

// What the event callback cb saw during a scan: virus names (VS_M_VIRUS),
// "not scanned" and error texts, clean objects; it answers stop at the
// stopAfterViruses-th virus.
struct Events {
    explicit Events(int stopAfterViruses = -1);
    Events(const Events&) = delete;
    std::vector<std::string> viruses, notScanned, errors;
    int clean = 0, stopAfter;
    PEL_CALLBACK cb;
};

// PelScan of a memory object or a file, results kept until the next scan.
class Scanner {
  public:
    Scanner(Adapter& adapter, PEL_INIT* init) : adapter_(adapter), init_(init) {}
    ~Scanner() { Release(); }
    // options: replaced values of the adapter's option defaults (none: no list).
    int Bytes(const engines::Bytes& data, const std::string& name, const std::vector<Set>& options = {},
              PEL_CALLBACK* callback = nullptr, uint32_t action = VS_A_SCAN);
    int File(const std::string& path, const std::vector<Set>& options = {}, PEL_CALLBACK* callback = nullptr);
    PEL_SCANINFO* Info() const { return info_; }
    std::vector<std::string> Infections() const;
    // True when a scan error text contains part.
    bool ScanErrorHas(const std::string& part) const;
    void Release();

  private:
    int Scan(PEL_SCANPARAM& p, const std::vector<Set>& options, PEL_CALLBACK* callback);
    Adapter& adapter_;
    PEL_INIT* init_;
    PEL_SCANINFO* info_ = nullptr;
};

}  // namespace engines

#endif
