/*
 * icap_conn.cpp - TCP and TLS connections with deadlines.
 */
#include "icap_conn.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#ifdef KORMO_ICAP_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>
#endif

namespace icappel {

namespace {

constexpr size_t kReadSize = 64 * 1024;

std::string Errno(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// Milliseconds poll may wait: the smaller of the I/O timeout and what is
// left of the deadline; 0 when the deadline has passed.
int WaitMs(const Limits& l, bool* overall) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(l.deadline - Clock::now());
    *overall = left <= l.io;
    auto ms = std::min(left, l.io).count();
    return ms <= 0 ? 0 : static_cast<int>(std::min<int64_t>(ms, INT32_MAX));
}

#ifdef KORMO_ICAP_TLS
SSL_CTX* TlsContext(bool verify, std::string* error) {
    static std::mutex lock;
    static SSL_CTX* ctx[2] = {nullptr, nullptr};
    std::lock_guard<std::mutex> l(lock);
    SSL_CTX*& c = ctx[verify ? 1 : 0];
    if (c == nullptr) {
        c = SSL_CTX_new(TLS_client_method());
        if (c == nullptr) {
            *error = "TLS: cannot create a context";
            return nullptr;
        }
        SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION);
        if (verify) {
            SSL_CTX_set_default_verify_paths(c);
            SSL_CTX_set_verify(c, SSL_VERIFY_PEER, nullptr);
        }
    }
    return c;
}

std::string TlsError(const char* what) {
    char text[256] = "";
    unsigned long e = ERR_get_error();
    if (e != 0) ERR_error_string_n(e, text, sizeof text);
    ERR_clear_error();
    return std::string("TLS ") + what + (text[0] != '\0' ? std::string(": ") + text : "");
}
#endif

}  // namespace

bool Connection::WaitFor(short events, const Limits& limits, std::string* error) {
    for (;;) {
        bool overall = false;
        int ms = WaitMs(limits, &overall);
        pollfd p{fd_, events, 0};
        int n = ms == 0 ? 0 : poll(&p, 1, ms);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = Errno("poll");
            return false;
        }
        if (n == 0) {
            *error = overall ? "timed out (INITTIMEOUT, the deadline of the object)"
                             : "timed out (no data within the I/O timeout)";
            return false;
        }
        return true;
    }
}

bool Connection::Open(const std::string& host, const std::string& port, bool tls, bool verify,
                      std::chrono::milliseconds connectMs, const Limits& limits,
                      std::string* error) {
    Close();
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* res = nullptr;
    int gai = getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
    if (gai != 0) {
        *error = "cannot resolve " + host + ": " + gai_strerror(gai);
        return false;
    }
    Limits connectLimits{std::min(limits.deadline, Clock::now() + connectMs), connectMs};
    *error = "no address for " + host;
    for (addrinfo* ai = res; ai != nullptr && fd_ < 0; ai = ai->ai_next) {
        int fd = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            *error = Errno("socket");
            continue;
        }
        fd_ = fd;
        bool ok = connect(fd, ai->ai_addr, ai->ai_addrlen) == 0;
        if (!ok && errno == EINPROGRESS && WaitFor(POLLOUT, connectLimits, error)) {
            int so = 0;
            socklen_t sl = sizeof so;
            ok = getsockopt(fd, SOL_SOCKET, SO_ERROR, &so, &sl) == 0 && so == 0;
            if (!ok) errno = so;
        }
        if (!ok) {
            if (error->compare(0, 9, "timed out") != 0)
                *error = Errno("connect");
            else
                *error = "connect timed out";
            close(fd);
            fd_ = -1;
        }
    }
    freeaddrinfo(res);
    if (fd_ < 0) return false;
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    buf_.clear();
    pos_ = 0;
    if (!tls) return true;
#ifdef KORMO_ICAP_TLS
    SSL_CTX* ctx = TlsContext(verify, error);
    SSL* ssl = ctx != nullptr ? SSL_new(ctx) : nullptr;
    if (ssl == nullptr) {
        if (ctx != nullptr) *error = TlsError("session");
        Close();
        return false;
    }
    ssl_ = ssl;
    SSL_set_fd(ssl, fd_);
    SSL_set_tlsext_host_name(ssl, host.c_str());
    if (verify) SSL_set1_host(ssl, host.c_str());
    for (;;) {
        int r = SSL_connect(ssl);
        if (r == 1) return true;
        int e = SSL_get_error(ssl, r);
        if ((e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) ||
            !WaitFor(e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, connectLimits, error)) {
            if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)
                *error = TlsError("handshake");
            Close();
            return false;
        }
    }
#else
    (void)verify;
    *error = "icaps:// needs TLS, and this adapter was built without OpenSSL";
    Close();
    return false;
#endif
}

void Connection::Close() {
#ifdef KORMO_ICAP_TLS
    if (ssl_ != nullptr) SSL_free(static_cast<SSL*>(ssl_));
#endif
    ssl_ = nullptr;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    buf_.clear();
    pos_ = 0;
}

bool Connection::Idle() {
    if (fd_ < 0) return false;
    if (pos_ < buf_.size()) return false;
    pollfd p{fd_, POLLIN, 0};
    // Anything readable on an idle connection is a close or unasked data.
    return poll(&p, 1, 0) == 0;
}

bool Connection::Readable() {
    if (pos_ < buf_.size()) return true;
    pollfd p{fd_, POLLIN, 0};
    return fd_ >= 0 && poll(&p, 1, 0) == 1;
}

long Connection::RawWrite(const void* data, size_t n, short* waitFor, std::string* error) {
#ifdef KORMO_ICAP_TLS
    if (ssl_ != nullptr) {
        int r = SSL_write(static_cast<SSL*>(ssl_), data,
                          static_cast<int>(std::min<size_t>(n, 1 << 30)));
        if (r > 0) return r;
        int e = SSL_get_error(static_cast<SSL*>(ssl_), r);
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            *waitFor = e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
            return 0;
        }
        *error = TlsError("write");
        return -1;
    }
#endif
    ssize_t w = send(fd_, data, n, MSG_NOSIGNAL);
    if (w >= 0) return static_cast<long>(w);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        *waitFor = POLLOUT;
        return 0;
    }
    *error = Errno("send");
    return -1;
}

bool Connection::Send(const struct iovec* pieces, int count, const Limits& limits,
                      std::string* error) {
    if (fd_ < 0) {
        *error = "not connected";
        return false;
    }
    if (ssl_ != nullptr) {
        // TLS has no gather write: one record group from one buffer.
        std::string all;
        for (int i = 0; i < count; ++i)
            all.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
        size_t done = 0;
        while (done < all.size()) {
            short waitFor = 0;
            long w = RawWrite(all.data() + done, all.size() - done, &waitFor, error);
            if (w < 0) return false;
            if (w == 0 && !WaitFor(waitFor, limits, error)) return false;
            done += static_cast<size_t>(w);
        }
        return true;
    }
    struct iovec v[8];
    int n = std::min(count, 8);
    std::copy(pieces, pieces + n, v);
    int first = 0;
    while (first < n) {
        msghdr m{};
        m.msg_iov = v + first;
        m.msg_iovlen = static_cast<size_t>(n - first);
        ssize_t w = sendmsg(fd_, &m, MSG_NOSIGNAL);
        if (w < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                *error = Errno("send");
                return false;
            }
            if (!WaitFor(POLLOUT, limits, error)) return false;
            continue;
        }
        size_t left = static_cast<size_t>(w);
        while (first < n && left >= v[first].iov_len) left -= v[first++].iov_len;
        if (first < n) {
            v[first].iov_base = static_cast<char*>(v[first].iov_base) + left;
            v[first].iov_len -= left;
        }
    }
    return count <= 8 || Send(pieces + 8, count - 8, limits, error);
}

bool Connection::Send(const std::string& data, const Limits& limits, std::string* error) {
    struct iovec v {
        const_cast<char*>(data.data()), data.size()
    };
    return Send(&v, 1, limits, error);
}

bool Connection::Fill(const Limits& limits, std::string* error) {
    if (pos_ > 0 && pos_ == buf_.size()) {
        buf_.clear();
        pos_ = 0;
    }
    char tmp[kReadSize];
    for (;;) {
        long n = 0;
        short waitFor = POLLIN;
#ifdef KORMO_ICAP_TLS
        if (ssl_ != nullptr) {
            int r = SSL_read(static_cast<SSL*>(ssl_), tmp, sizeof tmp);
            if (r <= 0) {
                int e = SSL_get_error(static_cast<SSL*>(ssl_), r);
                if (e == SSL_ERROR_ZERO_RETURN) {
                    *error = "the server closed the connection";
                    return false;
                }
                if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) {
                    *error = TlsError("read");
                    return false;
                }
                if (e == SSL_ERROR_WANT_WRITE) waitFor = POLLOUT;
                if (!WaitFor(waitFor, limits, error)) return false;
                continue;
            }
            n = r;
        }
#endif
        if (ssl_ == nullptr) {
            ssize_t r = recv(fd_, tmp, sizeof tmp, 0);
            if (r == 0) {
                *error = "the server closed the connection";
                return false;
            }
            if (r < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                    *error = Errno("recv");
                    return false;
                }
                if (!WaitFor(POLLIN, limits, error)) return false;
                continue;
            }
            n = r;
        }
        gotAny_ = true;
        buf_.append(tmp, static_cast<size_t>(n));
        return true;
    }
}

bool Connection::ReadLine(std::string* line, size_t maxLength, const Limits& limits,
                          std::string* error) {
    for (;;) {
        size_t nl = buf_.find('\n', pos_);
        if (nl != std::string::npos) {
            size_t end = nl > pos_ && buf_[nl - 1] == '\r' ? nl - 1 : nl;
            line->assign(buf_, pos_, end - pos_);
            pos_ = nl + 1;
            return true;
        }
        if (buf_.size() - pos_ > maxLength) {
            *error = "a reply line is longer than " + std::to_string(maxLength) + " bytes";
            return false;
        }
        if (!Fill(limits, error)) return false;
    }
}

bool Connection::ReadExact(size_t n, std::string* out, const Limits& limits, std::string* error) {
    while (n > 0) {
        if (pos_ == buf_.size() && !Fill(limits, error)) return false;
        size_t take = std::min(n, buf_.size() - pos_);
        if (out != nullptr) out->append(buf_, pos_, take);
        pos_ += take;
        n -= take;
    }
    return true;
}

}  // namespace icappel
