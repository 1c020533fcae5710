// delay_clamd.cpp - a latency-bound stand-in for clamd: it speaks the session
// protocol (IDSESSION, VERSION, INSTREAM, FILDES, END) on a local socket and
// answers every scan "OK" after a fixed service time, one scan at a time, so
// one server does 1000/DELAY_MS objects per second however many clients it
// has. Used by scripts/bench-farm.sh to show what spreading over two servers
// gains when the servers, not the client, are the limit.
//
//   delay_clamd SOCKET DELAY_MS
//
// Runs until killed. Every connection is served by its own thread.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex service;  // one scan at a time
int delayMs = 10;

// Reads into buf until it holds n bytes; descriptors passed along are closed.
bool Fill(int fd, std::string* buf, size_t n) {
    while (buf->size() < n) {
        char data[65536];
        alignas(cmsghdr) char ctl[CMSG_SPACE(4 * sizeof(int))];
        iovec iov{data, sizeof data};
        msghdr m{};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        m.msg_control = ctl;
        m.msg_controllen = sizeof ctl;
        ssize_t got = recvmsg(fd, &m, MSG_CMSG_CLOEXEC);
        if (got <= 0) return false;
        for (cmsghdr* c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
            if (c->cmsg_type != SCM_RIGHTS) continue;
            for (size_t k = 0; k < (c->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++k) {
                int f;
                std::memcpy(&f, CMSG_DATA(c) + k * sizeof(int), sizeof f);
                close(f);
            }
        }
        buf->append(data, static_cast<size_t>(got));
    }
    return true;
}

std::string Take(std::string* buf, size_t n) {
    std::string out = buf->substr(0, n);
    buf->erase(0, n);
    return out;
}

void Serve(int fd) {
    std::string buf;
    int id = 0;
    for (;;) {
        size_t nul;
        while ((nul = buf.find('\0')) == std::string::npos) {
            if (!Fill(fd, &buf, buf.size() + 1)) {
                close(fd);
                return;
            }
        }
        std::string cmd = Take(&buf, nul + 1);
        cmd.pop_back();
        if (cmd == "zIDSESSION") continue;
        if (cmd == "zEND") break;
        std::string reply = std::to_string(++id) + ": ";
        if (cmd == "zVERSION") {
            reply += "ClamAV 1.4.9/1/Thu Nov 20 08:37:01 2025";
        } else if (cmd == "zINSTREAM" || cmd == "zFILDES") {
            if (cmd == "zFILDES") {
                if (!Fill(fd, &buf, 1)) break;
                Take(&buf, 1);
                reply += "fd[3]: OK";
            } else {
                for (;;) {
                    if (!Fill(fd, &buf, 4)) break;
                    uint32_t len;
                    std::memcpy(&len, Take(&buf, 4).data(), 4);
                    len = ntohl(len);
                    if (len == 0) break;
                    if (!Fill(fd, &buf, len)) break;
                    Take(&buf, len);
                }
                reply += "stream: OK";
            }
            std::lock_guard<std::mutex> g(service);
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        } else {
            reply += "UNKNOWN COMMAND";
        }
        if (send(fd, reply.c_str(), reply.size() + 1, MSG_NOSIGNAL) < 0) break;
    }
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SOCKET DELAY_MS\n", argv[0]);
        return 2;
    }
    delayMs = std::atoi(argv[2]);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", argv[1]);
    unlink(argv[1]);
    int l = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (l < 0 || bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(l, 64) != 0) {
        std::perror("delay_clamd");
        return 1;
    }
    for (int c; (c = accept(l, nullptr, nullptr)) >= 0;) std::thread(Serve, c).detach();
    return 0;
}
