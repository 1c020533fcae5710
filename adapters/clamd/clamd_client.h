/*
 * clamd_client.h - clamd's protocol over Unix and TCP sockets.
 *
 * One connection per adapter instance, kept open as an IDSESSION and reused
 * for every request; commands are z-prefixed and NUL-terminated, replies come
 * back as "<id>: <reply>". Objects go as an INSTREAM (any socket) or, on a
 * Unix socket, as a descriptor (FILDES with SCM_RIGHTS) that clamd reads in
 * place.
 */
#ifndef KORMO_CLAMD_CLIENT_H
#define KORMO_CLAMD_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "pel_farm.h"

namespace clamdpel {

using pelcommon::ServerAddress;

using Clock = std::chrono::steady_clock;

// Where the bytes of an INSTREAM come from: memory (length bytes), or a file
// (fd not -1)
// read with pread from offset 0 to its end, whatever its size said (so a
// retry can stream it again, and files whose size reads as 0 are read too).
// limit: at most this many bytes are sent (0: no limit); a file longer than
// that ends the request with kTooLarge.
struct Source {
    const unsigned char* bytes = nullptr;
    int fd = -1;
    size_t length = 0;
    uint64_t limit = 0;
};

class Connection {
  public:
    // kFailed: the server or the connection failed; kSourceFailed: the
    // object could not be read (not the server's fault); kTooLarge: a file
    // went past Source::limit while it was read (the connection is closed).
    enum Outcome { kReply, kFailed, kSourceFailed, kTooLarge };

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
    // How long ago the last reply came.
    Clock::duration Idle() const { return Clock::now() - lastUsed_; }

    // One command of the session; the reply comes back without its id.
    Outcome Command(const char* command, uint32_t timeoutMs, std::string* reply,
                    std::string* error);
    // INSTREAM of source in chunks with 4-byte big-endian lengths.
    Outcome Stream(const Source& source, uint32_t timeoutMs, std::string* reply,
                   std::string* error);
    // FILDES: passes fd (SCM_RIGHTS) for clamd to read in place. Unix
    // sockets only.
    Outcome Fildes(int fd, uint32_t timeoutMs, std::string* reply, std::string* error);
    bool Local() const { return local_; }

  private:
    bool SendAll(const void* data, size_t length, Clock::time_point deadline, bool limited,
                 bool* replied, std::string* error);
    bool ReadReply(Clock::time_point deadline, bool limited, std::string* reply,
                   std::string* error);
    bool HaveReply() const;
    Outcome Finish(uint32_t id, Clock::time_point deadline, bool limited, std::string* reply,
                   std::string* error);

    int fd_ = -1;
    bool local_ = false;
    size_t server_ = 0;
    uint32_t nextId_ = 1;
    std::string pending_;  // received bytes not yet taken as a reply
    Clock::time_point lastUsed_{};
};

}  // namespace clamdpel

#endif
