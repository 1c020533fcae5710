/*
 * icap_client.h - one instance's ICAP exchanges: a kept connection to one
 * server at a time, OPTIONS, and RESPMOD of an object with preview and
 * chunked transfer.
 */
#ifndef KORMO_ICAP_CLIENT_H
#define KORMO_ICAP_CLIENT_H

#include <chrono>
#include <cstddef>
#include <string>

#include "icap_conn.h"
#include "icap_proto.h"

namespace icappel {

// Where the bytes of an object come from: memory, or a file read with pread
// (so that a retry can send it again).
struct Source {
    const unsigned char* bytes = nullptr;
    int fd = -1;
    size_t length = 0;
};

struct Timeouts {
    std::chrono::milliseconds connect{5000};
    std::chrono::milliseconds io{30000};
    std::chrono::milliseconds overall{60000};  // per object (INITTIMEOUT)
    bool verifyTls = false;
};

class Client {
  public:
    // kFailed: the server or the connection failed (another server may do);
    // kSourceFailed: the object could not be read.
    enum Outcome { kReply, kFailed, kSourceFailed };

    explicit Client(const Timeouts& t) : t_(t) {}
    ~Client() { Drop(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // OPTIONS on server (the connection is kept when allowed), by deadline.
    Outcome FetchOptions(const ServerUrl& server, Clock::time_point deadline, Options* options,
                         std::string* error);
    // RESPMOD of the object by deadline; a kept connection that fails before
    // any reply byte is retried once on a fresh one. bodyLimit caps the reply
    // body kept.
    Outcome Respmod(const ServerUrl& server, const Options& options, const std::string& name,
                    const Source& source, size_t bodyLimit, Clock::time_point deadline,
                    Reply* reply, std::string* error);

    // The server the kept connection goes to ("" when none).
    const std::string& Bound() const { return server_; }
    // Closes the kept connection.
    void Drop();

  private:
    bool Ensure(const ServerUrl& server, const Limits& limits, bool* fresh, std::string* error);
    Outcome Exchange(const ServerUrl& server, const Options& options, const std::string& name,
                     const Source& source, size_t bodyLimit, const Limits& limits, Reply* reply,
                     std::string* error);
    // Sends [from, to) of the object as chunks, head first when given.
    Outcome SendChunks(const std::string& head, const Source& source, size_t from, size_t to,
                       const char* last, const Limits& limits, std::string* error);
    void Finish(const Reply& reply);

    Timeouts t_;
    Connection conn_;
    std::string server_;
    bool counted_ = false;  // counted against the server's Max-Connections
};

}  // namespace icappel

#endif
