/*
 * clamd_client.h - clamd's protocol over Unix and TCP sockets.
 *
 * One connection per adapter instance, kept open as an IDSESSION and reused
 * for every request; commands are z-prefixed and NUL-terminated, replies come
 * back as "<id>: <reply>". A server that fails is left alone for
 * INITRECONNECTTIME seconds by every instance of the process.
 */
#ifndef KORMO_CLAMD_CLIENT_H
#define KORMO_CLAMD_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace clamdpel {

struct ServerAddress {
    std::string text;  // as configured: "unix:/path" or "host:port"
    bool local = false;
    std::string path;  // local socket
    std::string host;  // TCP
    std::string port;
};

// Parses "unix:/a.sock, 127.0.0.1:3310, [::1]:3310". False with a reason for
// an empty list or a malformed entry.
bool ParseServers(const std::string& list, std::vector<ServerAddress>* out, std::string* error);

// Process-wide record of failed servers, by address text.
class FailureBook {
  public:
    static void MarkFailed(const std::string& server, uint32_t reconnectSeconds);
    static void MarkGood(const std::string& server);
    // True when the server may be tried now; else the seconds left.
    static bool Usable(const std::string& server, uint32_t* secondsLeft);
    static void Clear();
};

using Clock = std::chrono::steady_clock;

// Where the bytes of an INSTREAM come from: memory, or a file read with pread
// (so a retry can stream it again).
struct Source {
    const unsigned char* bytes = nullptr;
    int fd = -1;
    size_t length = 0;
};

class Connection {
  public:
    // kFailed: the server or the connection failed; kSourceFailed: the
    // object could not be read (not the server's fault).
    enum Outcome { kReply, kFailed, kSourceFailed };

    Connection() = default;
    ~Connection() { Close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    size_t Server() const { return server_; }
    // Connects and starts the session; timeoutMs 0 waits without limit.
    bool Open(const ServerAddress& address, size_t index, uint32_t timeoutMs, std::string* error);
    // Ends the session (best effort) and closes.
    void Close();
    // False when the server has closed the idle session.
    bool Alive();

    // One command of the session; the reply comes back without its id.
    Outcome Command(const char* command, uint32_t timeoutMs, std::string* reply,
                    std::string* error);
    // INSTREAM of source in chunks with 4-byte big-endian lengths.
    Outcome Stream(const Source& source, uint32_t timeoutMs, std::string* reply,
                   std::string* error);

  private:
    bool SendAll(const void* data, size_t length, Clock::time_point deadline, bool limited,
                 bool* replied, std::string* error);
    bool ReadReply(Clock::time_point deadline, bool limited, std::string* reply,
                   std::string* error);
    bool HaveReply() const;
    Outcome Finish(uint32_t id, Clock::time_point deadline, bool limited, std::string* reply,
                   std::string* error);

    int fd_ = -1;
    size_t server_ = 0;
    uint32_t nextId_ = 1;
    std::string pending_;  // received bytes not yet taken as a reply
};

}  // namespace clamdpel

#endif
