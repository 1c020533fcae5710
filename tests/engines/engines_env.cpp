// engines_env.cpp - shared helpers of the engine tests.
#include "engines_env.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace engines {

std::string TestDb() {
    return KORMO_TESTDB_DIR;
}

std::string Eicar() {
    // Never one string in the sources.
    std::string s = "X5O!P%@AP[4\\PZX54(P^)7CC)7}";
    s += "$EICAR-STANDARD-";
    s += "ANTIVIRUS-TEST-FILE!$H+H*";
    return s;
}

std::string Marker() {
    Bytes b = ReadFile(TestDb() + "/marker.txt");
    return std::string(b.begin(), b.end());
}

Bytes ToBytes(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const Bytes& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
}

namespace {

uint32_t Crc32(const Bytes& data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char b : data) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void Put16(Bytes& o, uint32_t v) {
    o.push_back(static_cast<unsigned char>(v));
    o.push_back(static_cast<unsigned char>(v >> 8));
}
void Put32(Bytes& o, uint32_t v) {
    Put16(o, v & 0xffff);
    Put16(o, v >> 16);
}

}  // namespace

namespace {

Bytes Deflate(const Bytes& in) {
    z_stream z;
    std::memset(&z, 0, sizeof z);
    deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    Bytes out(deflateBound(&z, in.size()));
    z.next_in = const_cast<unsigned char*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

Bytes Zip(const std::vector<std::pair<std::string, Bytes>>& members, bool deflated) {
    Bytes out, central;
    for (const auto& m : members) {
        uint32_t offset = static_cast<uint32_t>(out.size());
        uint32_t crc = Crc32(m.second);
        uint32_t size = static_cast<uint32_t>(m.second.size());
        Bytes data = deflated ? Deflate(m.second) : m.second;
        uint32_t packed = static_cast<uint32_t>(data.size());
        auto header = [&](Bytes& o, bool isCentral) {
            Put32(o, isCentral ? 0x02014b50u : 0x04034b50u);
            if (isCentral) Put16(o, 20);  // made by
            Put16(o, 10);                 // needed
            Put16(o, 0);                  // flags
            Put16(o, deflated ? 8 : 0);   // method
            Put16(o, 0);                  // time
            Put16(o, 0x21);               // date
            Put32(o, crc);
            Put32(o, packed);
            Put32(o, size);
            Put16(o, static_cast<uint32_t>(m.first.size()));
            Put16(o, 0);  // extra
            if (isCentral) {
                Put16(o, 0);  // comment
                Put16(o, 0);  // disk
                Put16(o, 0);  // internal attributes
                Put32(o, 0);  // external attributes
                Put32(o, offset);
            }
            o.insert(o.end(), m.first.begin(), m.first.end());
        };
        header(out, false);
        out.insert(out.end(), data.begin(), data.end());
        header(central, true);
    }
    uint32_t centralOffset = static_cast<uint32_t>(out.size());
    out.insert(out.end(), central.begin(), central.end());
    Put32(out, 0x06054b50u);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, static_cast<uint32_t>(members.size()));
    Put16(out, static_cast<uint32_t>(members.size()));
    Put32(out, static_cast<uint32_t>(central.size()));
    Put32(out, centralOffset);
    Put16(out, 0);
    return out;
}

}  // namespace

Bytes StoredZip(const std::vector<std::pair<std::string, Bytes>>& members) {
    return Zip(members, false);
}

Bytes DeflatedZip(const std::vector<std::pair<std::string, Bytes>>& members) {
    return Zip(members, true);
}

Bytes NestedZip(const Bytes& content, int levels) {
    Bytes b = content;
    std::string name = "inner.txt";
    for (int i = 0; i < levels; ++i) {
        b = DeflatedZip({{name, b}});
        name = "level" + std::to_string(i) + ".zip";
    }
    return b;
}

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kormo-engines-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
        port = ntohs(a.sin_port);
    }
    close(fd);
    return port;
}

std::string ClamdCommand(const std::string& socketPath, const std::string& command) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", socketPath.c_str());
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
        std::string cmd = command;
        cmd.push_back('\0');
        if (send(fd, cmd.data(), cmd.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(cmd.size())) {
            char buf[512];
            pollfd p{fd, POLLIN, 0};
            while (poll(&p, 1, 5000) == 1) {
                ssize_t n = recv(fd, buf, sizeof buf, 0);
                if (n <= 0) break;
                reply.append(buf, static_cast<size_t>(n));
                if (reply.find('\0') != std::string::npos) break;
            }
        }
    }
    close(fd);
    size_t nul = reply.find('\0');
    return nul == std::string::npos ? reply : reply.substr(0, nul);
}

// ---- Clamd ---------------------------------------------------------------------------------

Clamd::Clamd(const std::string& streamMaxLength) : streamMax_(streamMaxLength) {
    socket_ = dir_.File("clamd.sock");
}

void Clamd::WriteConfig() {
    std::ofstream conf(dir_.File("clamd.conf"), std::ios::trunc);
    conf << "Foreground yes\n"
         << "LocalSocket " << socket_ << "\n"
         << "TCPSocket " << port_ << "\n"
         << "TCPAddr 127.0.0.1\n"
         << "DatabaseDirectory " << TestDb() << "\n"
         << "TemporaryDirectory " << dir_.Path() << "\n"
         << "LogFile " << dir_.File("clamd.log") << "\n"
         << "StreamMaxLength " << streamMax_ << "\n"
         << "MaxRecursion 3\n"
         << "AlertExceedsMax yes\n"
         << "MaxThreads 4\n"
         << "IdleTimeout 30\n"
         << "SelfCheck 0\n"
         << "LogTime yes\n";
}

Clamd::~Clamd() {
    Stop();
}

bool Clamd::Start(std::string* error) {
    // The TCP port is free when picked; another test process may take it
    // before clamd binds it: then try another one. A restart keeps the port.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (StartOnce(error)) return true;
        port_ = 0;
    }
    return false;
}

bool Clamd::StartOnce(std::string* error) {
    if (pid_ > 0) return true;
    if (port_ == 0) port_ = FreePort();
    WriteConfig();
    std::string conf = dir_.File("clamd.conf");
    pid_t pid = fork();
    if (pid < 0) {
        *error = "fork failed";
        return false;
    }
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execl(KORMO_CLAMD_PATH, "clamd", "-c", conf.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            Bytes log = ReadFile(dir_.File("clamd.log"));
            *error = "clamd exited during start-up: " + std::string(log.begin(), log.end());
            return false;
        }
        if (ClamdCommand(socket_, "zPING") == "PONG") return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    *error = "clamd did not answer PING within 60 s";
    Stop();
    return false;
}

void Clamd::Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pid_ = -1;
    unlink(socket_.c_str());
}

// ---- Parameters, adapter, scans ------------------------------------------------------------

ParamList::ParamList(const PEL_PARAMS* defaults) {
    if (defaults != nullptr && defaults->pParams != nullptr) {
        params_.assign(defaults->pParams, defaults->pParams + defaults->usNumParams);
    }
    texts_.reserve(64);
    std::memset(&list_, 0, sizeof list_);
    list_.usNumParams = static_cast<uint16_t>(params_.size());
    list_.pParams = params_.empty() ? nullptr : params_.data();
}

PEL_PARAM* ParamList::Find(int32_t code) {
    for (PEL_PARAM& p : params_) {
        if (p.tCode == code) return &p;
    }
    return nullptr;
}

void ParamList::SetText(int32_t code, const std::string& value) {
    PEL_PARAM* p = Find(code);
    if (p == nullptr || texts_.size() == texts_.capacity()) std::abort();
    texts_.push_back(value);
    p->pvValue = const_cast<char*>(texts_.back().c_str());
    p->lLength = value.size();
}

void ParamList::SetNumber(int32_t code, uint64_t value) {
    PEL_PARAM* p = Find(code);
    if (p == nullptr) std::abort();
    p->pvValue = reinterpret_cast<void*>(static_cast<uintptr_t>(value));
}

Adapter::Adapter(const std::string& path) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* e = dlerror();
        error_ = e != nullptr ? e : "dlopen failed";
        return;
    }
    auto get = [&](const char* name) {
        void* f = dlsym(handle_, name);
        if (f == nullptr) error_ += std::string(name) + " missing; ";
        return f;
    };
    Startup = reinterpret_cast<PEL_STARTUP_FN>(get("PelStartup"));
    GetConfig = reinterpret_cast<PEL_GETCONFIG_FN>(get("PelGetConfig"));
    Init = reinterpret_cast<PEL_INIT_FN>(get("PelInit"));
    Scan = reinterpret_cast<PEL_SCAN_FN>(get("PelScan"));
    ReleaseScan = reinterpret_cast<PEL_RELEASESCAN_FN>(get("PelReleaseScan"));
    End = reinterpret_cast<PEL_END_FN>(get("PelEnd"));
    Cleanup = reinterpret_cast<PEL_CLEANUP_FN>(get("PelCleanup"));
    if (!error_.empty()) {
        dlclose(handle_);
        handle_ = nullptr;
    }
}

Adapter::~Adapter() {
    if (handle_ != nullptr) dlclose(handle_);
}

namespace {

VS_CALLRC Record(void* /*adapterData*/, uint32_t message, void* data, void* context) {
    auto* e = static_cast<Events*>(context);
    switch (message) {
        case VS_M_VIRUS: {
            auto* v = static_cast<PEL_VIRUSINFO*>(data);
            e->viruses.push_back(v->pszVirusName);
            if (e->stopAfterViruses >= 0 &&
                static_cast<int>(e->viruses.size()) >= e->stopAfterViruses) {
                return VS_CALLRC_STOP;
            }
            break;
        }
        case VS_M_NOTSCANNED:
            e->notScanned.push_back(static_cast<PEL_SCANERROR*>(data)->pszErrorText);
            break;
        case VS_M_ERROR:
            e->errors.push_back(static_cast<const char*>(data));
            break;
        case VS_M_OBJECTFOUND:
            e->objects.push_back(static_cast<const char*>(data));
            break;
        case VS_M_CLEAN:
            ++e->clean;
            break;
        default:
            break;
    }
    return VS_CALLRC_CONTINUE;
}

}  // namespace

PEL_CALLBACK Recorder(Events* events, uint32_t mask) {
    PEL_CALLBACK cb;
    std::memset(&cb, 0, sizeof cb);
    cb.struct_size = sizeof cb;
    cb.pfnCallback = Record;
    cb.uiMessageMask = mask;
    cb.pvContext = events;
    return cb;
}

int Scanner::Bytes(const engines::Bytes& data, const std::string& name, PEL_OPTPARAMS* options,
                   PEL_CALLBACK* callback, uint32_t action) {
    Release();
    PEL_SCANPARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tScanCode = VS_SC_BYTES;
    p.tActionCode = action;
    p.pszObjectName = name.c_str();
    p.pbByte = const_cast<unsigned char*>(data.data());
    p.lLength = data.size();
    p.uiJobID = 7;
    return adapter_.Scan(init_, callback, &p, options, &info_);
}

int Scanner::File(const std::string& path, PEL_OPTPARAMS* options, PEL_CALLBACK* callback) {
    Release();
    PEL_SCANPARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tScanCode = VS_SC_FILE;
    p.tActionCode = VS_A_SCAN;
    p.pszObjectName = path.c_str();
    p.lLength = path.size();
    p.uiJobID = 8;
    return adapter_.Scan(init_, callback, &p, options, &info_);
}

std::vector<std::string> Scanner::Infections() const {
    std::vector<std::string> v;
    if (info_ == nullptr) return v;
    for (uint32_t i = 0; i < info_->uiInfections; ++i)
        v.push_back(info_->pVirusInfo[i].pszVirusName);
    return v;
}

std::vector<std::string> Scanner::ScanErrors() const {
    std::vector<std::string> v;
    if (info_ == nullptr) return v;
    for (uint32_t i = 0; i < info_->uiScanErrors; ++i)
        v.push_back(info_->pScanError[i].pszErrorText);
    return v;
}

void Scanner::Release() {
    if (info_ != nullptr) adapter_.ReleaseScan(&info_);
}

}  // namespace engines
