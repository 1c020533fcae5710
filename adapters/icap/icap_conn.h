/*
 * icap_conn.h - one connection to an ICAP server: TCP (with TCP_NODELAY) or
 * TLS over TCP for icaps://, non-blocking underneath so that every step keeps
 * to a deadline, with a read buffer for the line and chunk reading of replies.
 */
#ifndef KORMO_ICAP_CONN_H
#define KORMO_ICAP_CONN_H

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace icappel {

using Clock = std::chrono::steady_clock;

// Where a request may run until: the object's overall deadline and the
// longest silence allowed on the connection (the I/O timeout).
struct Limits {
    Clock::time_point deadline;
    std::chrono::milliseconds io{30000};
};

class Connection {
  public:
    Connection() = default;
    ~Connection() { Close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Connects to host:port within connectMs (and the deadline); tls starts a
    // TLS session (server name host, peer certificate not verified unless
    // verify). False with a reason.
    bool Open(const std::string& host, const std::string& port, bool tls, bool verify,
              std::chrono::milliseconds connectMs, const Limits& limits, std::string* error);
    void Close();
    bool IsOpen() const { return fd_ >= 0; }
    // False when the peer has closed the idle connection or sent unasked bytes.
    bool Idle();

    // Writes all pieces (one system call where the socket takes them).
    bool Send(const struct iovec* pieces, int count, const Limits& limits, std::string* error);
    bool Send(const std::string& data, const Limits& limits, std::string* error);
    // One line without its CRLF (or LF); a line longer than maxLength fails.
    bool ReadLine(std::string* line, size_t maxLength, const Limits& limits, std::string* error);
    // Exactly n bytes appended to out (out may be null: the bytes are dropped).
    bool ReadExact(size_t n, std::string* out, const Limits& limits, std::string* error);
    // True once any byte of a reply has arrived since the last Reset.
    bool GotAny() const { return gotAny_; }
    void ResetGotAny() { gotAny_ = false; }
    // True when reply bytes wait in the buffer or on the socket (no wait).
    bool Readable();

  private:
    bool Fill(const Limits& limits, std::string* error);
    bool WaitFor(short events, const Limits& limits, std::string* error);
    long RawWrite(const void* data, size_t n, short* waitFor, std::string* error);

    int fd_ = -1;
    void* ssl_ = nullptr;  // SSL*, when TLS
    bool gotAny_ = false;
    std::string buf_;
    size_t pos_ = 0;
};

}  // namespace icappel

#endif
