/*
 * clamd_client.cpp - clamd's protocol over Unix and TCP sockets.
 */
#include "clamd_client.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace clamdpel {

namespace {

constexpr size_t kChunk = 256 * 1024;
constexpr size_t kMaxReply = 64 * 1024;  // replies are one line: a name or a message

// Milliseconds left until deadline for poll: -1 without limit, 0 when past.
int Remaining(Clock::time_point deadline, bool limited) {
    if (!limited) return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX));
}

Clock::time_point Deadline(uint32_t timeoutMs) {
    return Clock::now() + std::chrono::milliseconds(timeoutMs);
}

std::string Errno(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// Waits for events on fd; false on timeout (error set) or poll failure.
bool Wait(int fd, short events, Clock::time_point deadline, bool limited, short* revents,
          std::string* error) {
    for (;;) {
        pollfd p{fd, events, 0};
        int ms = Remaining(deadline, limited);
        if (limited && ms == 0) {
            *error = "timed out (INITTIMEOUT)";
            return false;
        }
        int n = poll(&p, 1, ms);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = Errno("poll");
            return false;
        }
        if (n == 0) continue;  // re-check the deadline
        *revents = p.revents;
        return true;
    }
}

bool ConnectOne(int fd, const sockaddr* addr, socklen_t len, Clock::time_point deadline,
                bool limited, std::string* error) {
    if (connect(fd, addr, len) == 0) return true;
    if (errno != EINPROGRESS && errno != EAGAIN) {
        *error = Errno("connect");
        return false;
    }
    short revents = 0;
    if (!Wait(fd, POLLOUT, deadline, limited, &revents, error)) {
        *error = "connect " + *error;
        return false;
    }
    int so = 0;
    socklen_t sl = sizeof so;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &so, &sl) != 0 || so != 0) {
        errno = so != 0 ? so : errno;
        *error = Errno("connect");
        return false;
    }
    return true;
}

}  // namespace

// ---- Connection ------------------------------------------------------------------------

bool Connection::Open(const ServerAddress& a, size_t index, uint32_t timeoutMs,
                      std::string* error) {
    Close();
    const bool limited = timeoutMs != 0;
    const auto deadline = Deadline(timeoutMs);
    int fd = -1;
    if (a.local) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            *error = Errno("socket");
            return false;
        }
        sockaddr_un sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sun_family = AF_UNIX;
        std::memcpy(sa.sun_path, a.path.c_str(), a.path.size());
        if (!ConnectOne(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa, deadline, limited,
                        error)) {
            close(fd);
            return false;
        }
    } else {
        addrinfo hints;
        std::memset(&hints, 0, sizeof hints);
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* res = nullptr;
        int gai = getaddrinfo(a.host.c_str(), a.port.c_str(), &hints, &res);
        if (gai != 0) {
            *error = std::string("cannot resolve ") + a.host + ": " + gai_strerror(gai);
            return false;
        }
        for (addrinfo* ai = res; ai != nullptr && fd < 0; ai = ai->ai_next) {
            fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                        ai->ai_protocol);
            if (fd < 0) {
                *error = Errno("socket");
                continue;
            }
            if (!ConnectOne(fd, ai->ai_addr, ai->ai_addrlen, deadline, limited, error)) {
                close(fd);
                fd = -1;
            }
        }
        freeaddrinfo(res);
        if (fd < 0) return false;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    fd_ = fd;
    local_ = a.local;
    server_ = index;
    nextId_ = 1;
    pending_.clear();
    static const char kSession[] = "zIDSESSION";
    bool replied = false;
    if (!SendAll(kSession, sizeof kSession, deadline, limited, &replied, error) || replied) {
        if (replied) *error = "unexpected reply to IDSESSION: " + pending_;
        Close();
        return false;
    }
    return true;
}

void Connection::Close() {
    if (fd_ < 0) return;
    static const char kEnd[] = "zEND";
    (void)!send(fd_, kEnd, sizeof kEnd, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd_);
    fd_ = -1;
    pending_.clear();
}

bool Connection::Alive() {
    if (fd_ < 0) return false;
    pollfd p{fd_, POLLIN, 0};
    int n = poll(&p, 1, 0);
    // Nothing is outstanding between requests: anything readable is the
    // server closing the session (idle timeout, shutdown).
    return n == 0;
}

bool Connection::HaveReply() const {
    return pending_.find('\0') != std::string::npos;
}

bool Connection::SendAll(const void* data, size_t length, Clock::time_point deadline, bool limited,
                         bool* replied, std::string* error) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        short revents = 0;
        if (!Wait(fd_, POLLOUT | POLLIN, deadline, limited, &revents, error)) return false;
        if (revents & POLLIN) {
            // clamd answers early when it refuses the stream (size limit):
            // take the reply and stop sending.
            char buf[4096];
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n > 0) {
                pending_.append(buf, static_cast<size_t>(n));
                if (HaveReply()) {
                    *replied = true;
                    return true;
                }
                if (pending_.size() > kMaxReply) {
                    *error = "reply longer than " + std::to_string(kMaxReply) + " bytes";
                    return false;
                }
                continue;
            }
            if (n == 0) {
                *error = "connection closed by the server";
                return false;
            }
            if (errno != EAGAIN && errno != EINTR) {
                *error = Errno("recv");
                return false;
            }
        }
        if (revents & (POLLERR | POLLHUP | POLLNVAL)) {
            if (!(revents & POLLOUT)) {
                *error = "connection closed by the server";
                return false;
            }
        }
        if (revents & POLLOUT) {
            ssize_t n = send(fd_, p, length, MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EAGAIN || errno == EINTR) continue;
                *error = Errno("send");
                return false;
            }
            p += n;
            length -= static_cast<size_t>(n);
        }
    }
    return true;
}

bool Connection::ReadReply(Clock::time_point deadline, bool limited, std::string* reply,
                           std::string* error) {
    for (;;) {
        size_t nul = pending_.find('\0');
        if (nul != std::string::npos) {
            *reply = pending_.substr(0, nul);
            pending_.erase(0, nul + 1);
            return true;
        }
        if (pending_.size() > kMaxReply) {
            // No clamd reply is that long: a server that sends without end
            // must not take the process's memory.
            *error = "reply longer than " + std::to_string(kMaxReply) + " bytes";
            return false;
        }
        short revents = 0;
        if (!Wait(fd_, POLLIN, deadline, limited, &revents, error)) return false;
        char buf[4096];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n > 0) {
            pending_.append(buf, static_cast<size_t>(n));
        } else if (n == 0) {
            *error = "connection closed by the server";
            return false;
        } else if (errno != EAGAIN && errno != EINTR) {
            *error = Errno("recv");
            return false;
        }
    }
}

Connection::Outcome Connection::Finish(uint32_t id, Clock::time_point deadline, bool limited,
                                       std::string* reply, std::string* error) {
    const std::string prefix = std::to_string(id) + ": ";
    for (;;) {
        std::string line;
        if (!ReadReply(deadline, limited, &line, error)) return kFailed;
        lastUsed_ = Clock::now();
        if (line.compare(0, prefix.size(), prefix) == 0) {
            *reply = line.substr(prefix.size());
            return kReply;
        }
        size_t digits = line.find_first_not_of("0123456789");
        if (digits == 0 || digits == std::string::npos || line.compare(digits, 2, ": ") != 0) {
            // A reply without id: clamd refused the session or the command.
            *reply = line;
            return kReply;
        }
        // A late reply to an earlier request of this session: skip it.
    }
}

Connection::Outcome Connection::Command(const char* command, uint32_t timeoutMs, std::string* reply,
                                        std::string* error) {
    if (fd_ < 0) {
        *error = "not connected";
        return kFailed;
    }
    const bool limited = timeoutMs != 0;
    const auto deadline = Deadline(timeoutMs);
    uint32_t id = nextId_++;
    bool replied = false;
    if (!SendAll(command, std::strlen(command) + 1, deadline, limited, &replied, error)) {
        return kFailed;
    }
    return Finish(id, deadline, limited, reply, error);
}

Connection::Outcome Connection::Stream(const Source& src, uint32_t timeoutMs, std::string* reply,
                                       std::string* error) {
    if (fd_ < 0) {
        *error = "not connected";
        return kFailed;
    }
    const bool limited = timeoutMs != 0;
    const auto deadline = Deadline(timeoutMs);
    uint32_t id = nextId_++;
    bool replied = false;
    static const char kInstream[] = "zINSTREAM";
    if (!SendAll(kInstream, sizeof kInstream, deadline, limited, &replied, error)) return kFailed;
    const bool file = src.fd >= 0;
    std::vector<unsigned char> buffer(file ? kChunk + 4 : 4);
    // A file is read to its end, not to the size taken before: bytes
    // appended since are sent too, and files whose size reads as 0 (/proc,
    // /sys, some FUSE file systems) are read at all.
    uint64_t offset = 0;
    while (!replied && (file || offset < src.length)) {
        size_t n = file ? kChunk : std::min<size_t>(kChunk, src.length - offset);
        const unsigned char* data = nullptr;
        if (!file) {
            data = src.bytes + offset;
        } else {
            ssize_t got;
            do {
                got = pread(src.fd, buffer.data() + 4, n, static_cast<off_t>(offset));
            } while (got < 0 && errno == EINTR);
            if (got < 0) {
                *error = Errno("read");
                Close();  // the stream cannot be ended cleanly
                return kSourceFailed;
            }
            if (got == 0) break;  // end of the file
            n = static_cast<size_t>(got);
            if (src.limit != 0 && offset + n > src.limit) {
                *error = "the file is longer than " + std::to_string(src.limit) + " bytes";
                Close();
                return kTooLarge;
            }
            data = buffer.data() + 4;
        }
        unsigned char head[4] = {static_cast<unsigned char>(n >> 24),
                                 static_cast<unsigned char>(n >> 16),
                                 static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
        if (file) {
            std::memcpy(buffer.data(), head, 4);
            if (!SendAll(buffer.data(), n + 4, deadline, limited, &replied, error)) return kFailed;
        } else {
            if (!SendAll(head, 4, deadline, limited, &replied, error)) return kFailed;
            if (!replied && !SendAll(data, n, deadline, limited, &replied, error)) return kFailed;
        }
        offset += n;
    }
    if (!replied) {
        static const unsigned char kEndOfStream[4] = {0, 0, 0, 0};
        if (!SendAll(kEndOfStream, 4, deadline, limited, &replied, error)) return kFailed;
    }
    return Finish(id, deadline, limited, reply, error);
}

Connection::Outcome Connection::Fildes(int fd, uint32_t timeoutMs, std::string* reply,
                                       std::string* error) {
    if (fd_ < 0 || !local_) {
        *error = fd_ < 0 ? "not connected" : "descriptors pass only over a local socket";
        return kFailed;
    }
    const bool limited = timeoutMs != 0;
    const auto deadline = Deadline(timeoutMs);
    uint32_t id = nextId_++;
    bool replied = false;
    static const char kFildes[] = "zFILDES";
    if (!SendAll(kFildes, sizeof kFildes, deadline, limited, &replied, error)) return kFailed;
    if (!replied) {
        // The descriptor travels with one dummy byte of data.
        char dummy = 0;
        iovec iov{&dummy, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        std::memset(control, 0, sizeof control);
        msghdr msg;
        std::memset(&msg, 0, sizeof msg);
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &fd, sizeof(int));
        for (;;) {
            short revents = 0;
            if (!Wait(fd_, POLLOUT, deadline, limited, &revents, error)) return kFailed;
            ssize_t n = sendmsg(fd_, &msg, MSG_NOSIGNAL);
            if (n == 1) break;
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            *error = n < 0 ? Errno("sendmsg") : "sendmsg sent nothing";
            return kFailed;
        }
    }
    return Finish(id, deadline, limited, reply, error);
}

}  // namespace clamdpel
