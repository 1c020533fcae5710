// bench_icap.cpp - mavscan through the ICAP adapter against a reference ICAP
// client with kept connections, on the same ICAP server and the same files.
//
//   bench_icap MAVSCAN ADAPTER HOST PORT SERVICE [OBJECTS [ROUNDS]]
//
// The reference client is as lean as the protocol allows: N threads, one kept
// connection each, every file read whole and sent as a RESPMOD with the
// server's preview (100 Continue, then the rest), the reply read to its end.
// mavscan runs as a user would run it (-j N -q --adapter ADAPTER), process
// start included. The ways run interleaved; figures are medians.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "corpus.h"

extern char** environ;

using namespace benchengines;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_icap: %s\n", what.c_str());
    std::exit(1);
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// One kept connection of the reference client.
class RefConn {
  public:
    RefConn(const std::string& host, const std::string& port, const std::string& service)
        : uri_("icap://" + host + ":" + port + "/" + service), host_(host) {
        addrinfo hints{}, *res = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0) Die("resolve");
        fd_ = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd_, res->ai_addr, res->ai_addrlen) != 0) Die("connect");
        freeaddrinfo(res);
        int one = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        Send("OPTIONS " + uri_ + " ICAP/1.0\r\nHost: " + host_ +
             "\r\nEncapsulated: null-body=0\r\n\r\n");
        std::string h = Head();
        const char* p = std::strstr(h.c_str(), "\nPreview:");
        preview_ = p != nullptr ? std::strtol(p + 9, nullptr, 10) : -1;
    }
    ~RefConn() { close(fd_); }

    // RESPMOD of data; true when the reply names a finding.
    bool Respmod(const std::string& data) {
        std::string req = "GET /f HTTP/1.1\r\nHost: localhost\r\n\r\n";
        std::string res =
            "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(data.size()) + "\r\n\r\n";
        size_t pv = preview_ < 0 ? data.size() : std::min<size_t>(preview_, data.size());
        bool all = pv == data.size();
        std::string m = "RESPMOD " + uri_ + " ICAP/1.0\r\nHost: " + host_ + "\r\nAllow: 204\r\n" +
                        (preview_ >= 0 ? "Preview: " + std::to_string(pv) + "\r\n" : "") +
                        "Encapsulated: req-hdr=0, res-hdr=" + std::to_string(req.size()) +
                        ", res-body=" + std::to_string(req.size() + res.size()) + "\r\n\r\n" + req +
                        res;
        Chunk(m, data.data(), pv, preview_ >= 0 && all ? "0; ieof\r\n\r\n" : "0\r\n\r\n");
        std::string h = Head();
        if (h.compare(0, 12, "ICAP/1.0 100") == 0) {
            if (!all) Chunk(std::string(), data.data() + pv, data.size() - pv, "0\r\n\r\n");
            h = Head();
        }
        const char* enc = std::strstr(h.c_str(), "\nEncapsulated:");
        if (enc != nullptr && std::strstr(enc, "res-body=") != nullptr) {
            Take(std::strtoul(std::strstr(enc, "res-body=") + 9, nullptr, 10));
            for (size_t n; (n = std::strtoul(Line().c_str(), nullptr, 16)) != 0;) Take(n + 2);
            while (!Line().empty()) {
            }
        }
        return h.find("X-Infection-Found") != std::string::npos;
    }

  private:
    // head, then the n bytes at d as one chunk, then end: one gathered write.
    void Chunk(const std::string& head, const char* d, size_t n, const char* end) {
        char size[24];
        std::snprintf(size, sizeof size, "%zx\r\n", n);
        std::string tail = std::string(n > 0 ? "\r\n" : "") + end;
        iovec v[4] = {{const_cast<char*>(head.data()), head.size()},
                      {size, n > 0 ? std::strlen(size) : 0},
                      {const_cast<char*>(d), n},
                      {tail.data(), tail.size()}};
        msghdr msg{};
        msg.msg_iov = v;
        msg.msg_iovlen = 4;
        for (;;) {
            ssize_t w = sendmsg(fd_, &msg, MSG_NOSIGNAL);
            if (w <= 0) Die("send");
            while (msg.msg_iovlen > 0 && static_cast<size_t>(w) >= msg.msg_iov->iov_len) {
                w -= static_cast<ssize_t>(msg.msg_iov->iov_len);
                ++msg.msg_iov;
                --msg.msg_iovlen;
            }
            if (msg.msg_iovlen == 0) return;
            msg.msg_iov->iov_base = static_cast<char*>(msg.msg_iov->iov_base) + w;
            msg.msg_iov->iov_len -= static_cast<size_t>(w);
        }
    }
    void Send(const std::string& s) { Chunk(s, nullptr, 0, ""); }
    void Fill() {
        if (pos_ == buf_.size()) buf_.clear(), pos_ = 0;
        char tmp[65536];
        ssize_t n = recv(fd_, tmp, sizeof tmp, 0);
        if (n <= 0) Die("recv");
        buf_.append(tmp, static_cast<size_t>(n));
    }
    std::string Line() {
        size_t nl;
        while ((nl = buf_.find("\r\n", pos_)) == std::string::npos) Fill();
        std::string l = buf_.substr(pos_, nl - pos_);
        pos_ = nl + 2;
        return l;
    }
    std::string Head() {
        std::string h;
        for (std::string l; !(l = Line()).empty();) h += l + "\n";
        return h;
    }
    void Take(size_t n) {
        while (buf_.size() - pos_ < n) Fill();
        pos_ += n;
    }

    std::string uri_, host_;
    int fd_ = -1;
    long preview_ = -1;
    std::string buf_;
    size_t pos_ = 0;
};

double Reference(const char* const* a, const std::vector<std::string>& files, int threads) {
    auto start = Clock::now();
    std::atomic<size_t> next{0};
    std::atomic<int> found{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&] {
            RefConn c(a[3], a[4], a[5]);
            for (size_t i; (i = next++) < files.size();) {
                std::string data(std::filesystem::file_size(files[i]), '\0');
                int fd = open(files[i].c_str(), O_RDONLY | O_CLOEXEC);
                if (fd < 0 ||
                    read(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
                    Die("read " + files[i]);
                close(fd);
                found += c.Respmod(data) ? 1 : 0;
            }
        });
    }
    for (auto& t : pool) t.join();
    if (found != 0) Die("the reference client found something in the clean corpus");
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double Mavscan(const char* const* a, const std::string& dir, int threads) {
    std::vector<std::string> args = {
        a[1],        "-q",
        "-j",        std::to_string(threads),
        "--adapter", a[2],
        "--set",     std::string("INITSERVERS=icap://") + a[3] + ":" + a[4] + "/" + a[5],
        dir};
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(s.data());
    argv.push_back(nullptr);
    auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, a[1], nullptr, nullptr, argv.data(), environ) != 0) Die("spawn mavscan");
    int status = 0;
    waitpid(pid, &status, 0);
    double t = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("mavscan did not report all clean");
    return t;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) Die("usage: bench_icap MAVSCAN ADAPTER HOST PORT SERVICE [OBJECTS [ROUNDS]]");
    size_t objects = argc > 6 ? std::strtoul(argv[6], nullptr, 10) : 200;
    int rounds = argc > 7 ? std::atoi(argv[7]) : 5;
    std::vector<Object> corpus = MakeCorpus(objects, 7);
    std::string dir =
        std::filesystem::temp_directory_path() / ("kormo-bench-icap-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::vector<std::string> files = WriteCorpus(corpus, dir);
    double mib = static_cast<double>(TotalBytes(corpus)) / (1024.0 * 1024.0);
    std::printf("%zu files, %.1f MiB, %d rounds, medians\n\n", files.size(), mib, rounds);
    std::printf("| Threads | Way | files/s | MiB/s | ratio |\n|---|---|---|---|---|\n");
    for (int threads : {1, 4}) {
        std::vector<double> ref, mav;
        for (int r = 0; r < rounds; ++r) {
            if (r % 2 == 0) {
                ref.push_back(Reference(argv, files, threads));
                mav.push_back(Mavscan(argv, dir, threads));
            } else {
                mav.push_back(Mavscan(argv, dir, threads));
                ref.push_back(Reference(argv, files, threads));
            }
        }
        double tr = Median(ref), tm = Median(mav);
        std::printf("| %d | reference client, kept connections | %.1f | %.1f | 1.000 |\n", threads,
                    files.size() / tr, mib / tr);
        std::printf("| %d | mavscan -j%d (ICAP adapter) | %.1f | %.1f | %.3f |\n", threads, threads,
                    files.size() / tm, mib / tm, tr / tm);
    }
    std::filesystem::remove_all(dir);
    return 0;
}
