/*
 * icap_client.cpp - OPTIONS and RESPMOD exchanges on a kept connection.
 */
#include "icap_client.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "icap_servers.h"

namespace icappel {

namespace {

constexpr size_t kChunk = 256 * 1024;
const char kEnd[] = "0\r\n\r\n";
const char kEndIeof[] = "0; ieof\r\n\r\n";

bool WantsClose(const Reply& r) {
    const std::string* c = r.Header("connection");
    return c != nullptr && c->find("close") != std::string::npos;
}

}  // namespace

void Client::Drop() {
    conn_.Close();
    if (!server_.empty() && counted_) ServerBook::ReleaseKept(server_);
    server_.clear();
    counted_ = false;
}

bool Client::Ensure(const ServerUrl& server, const Limits& limits, bool* fresh,
                    std::string* error) {
    if (conn_.IsOpen() && server_ == server.text && conn_.Idle()) {
        *fresh = false;
        return true;
    }
    Drop();
    *fresh = true;
    if (!conn_.Open(server.host, server.port, server.tls, t_.verifyTls, t_.connect, limits, error))
        return false;
    server_ = server.text;
    counted_ = ServerBook::TakeKept(server_);
    return true;
}

void Client::Finish(const Reply& reply) {
    // Past Max-Connections the connection serves one request only.
    if (!counted_ || WantsClose(reply)) Drop();
}

Client::Outcome Client::FetchOptions(const ServerUrl& server, Clock::time_point deadline,
                                     Options* options, std::string* error) {
    Limits limits{deadline, t_.io};
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool fresh = false;
        if (!Ensure(server, limits, &fresh, error)) return kFailed;
        conn_.ResetGotAny();
        Reply r;
        if (conn_.Send(OptionsRequest(server), limits, error) &&
            ReadReply(conn_, 0, limits, &r, error)) {
            Finish(r);
            return ParseOptions(r, options, error) ? kReply : kFailed;
        }
        bool retry = !fresh && !conn_.GotAny();
        Drop();
        if (!retry) break;
    }
    return kFailed;
}

Client::Outcome Client::Respmod(const ServerUrl& server, const Options& options,
                                const std::string& name, const Source& source, size_t bodyLimit,
                                Clock::time_point deadline, Reply* reply, std::string* error) {
    Limits limits{deadline, t_.io};
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool fresh = false;
        if (!Ensure(server, limits, &fresh, error)) return kFailed;
        Outcome o = Exchange(server, options, name, source, bodyLimit, limits, reply, error);
        if (o == kReply) {
            Finish(*reply);
            return o;
        }
        // A kept connection the server dropped while idle: once more, fresh.
        bool retry = o == kFailed && !fresh && !conn_.GotAny();
        Drop();
        if (!retry) return o;
    }
    return kFailed;
}

Client::Outcome Client::Exchange(const ServerUrl& server, const Options& options,
                                 const std::string& name, const Source& source, size_t bodyLimit,
                                 const Limits& limits, Reply* reply, std::string* error) {
    conn_.ResetGotAny();
    const size_t size = source.length;
    long preview =
        options.preview >= 0
            ? static_cast<long>(std::min<size_t>(static_cast<size_t>(options.preview), size))
            : -1;
    std::string head = RespmodHead(server, name, size, preview);
    bool all = preview < 0 || static_cast<size_t>(preview) == size;
    Outcome o = SendChunks(head, source, 0, all ? size : static_cast<size_t>(preview),
                           preview >= 0 && all ? kEndIeof : kEnd, limits, error);
    if (o != kReply) return o;
    if (!ReadReply(conn_, bodyLimit, limits, reply, error)) return kFailed;
    if (reply->status == 100) {
        // After ieof a 100 Continue is ignored; else the rest of the object follows.
        if (!all) {
            o = SendChunks(std::string(), source, static_cast<size_t>(preview), size, kEnd, limits,
                           error);
            if (o != kReply) return o;
        }
        if (!ReadReply(conn_, bodyLimit, limits, reply, error)) return kFailed;
        if (reply->status == 100) {
            *error = "malformed reply: a second 100 Continue";
            return kFailed;
        }
    }
    return kReply;
}

Client::Outcome Client::SendChunks(const std::string& head, const Source& source, size_t from,
                                   size_t to, const char* last, const Limits& limits,
                                   std::string* error) {
    std::vector<unsigned char> buffer;
    if (source.bytes == nullptr && to > from) buffer.resize(std::min(kChunk, to - from));
    bool first = true;
    size_t at = from;
    do {
        size_t n = std::min(kChunk, to - at);
        const unsigned char* data = source.bytes != nullptr ? source.bytes + at : buffer.data();
        if (source.bytes == nullptr && n > 0) {
            size_t got = 0;
            while (got < n) {
                ssize_t r =
                    pread(source.fd, buffer.data() + got, n - got, static_cast<off_t>(at + got));
                if (r < 0 && errno == EINTR) continue;
                if (r <= 0) {
                    *error = r < 0 ? std::strerror(errno) : "the file became shorter while read";
                    return kSourceFailed;
                }
                got += static_cast<size_t>(r);
            }
        }
        char size[24];
        std::snprintf(size, sizeof size, "%zx\r\n", n);
        bool final = at + n == to;
        std::string tail = n > 0 ? std::string("\r\n") : std::string();
        if (final) tail += last;
        struct iovec v[4];
        int count = 0;
        if (first && !head.empty()) v[count++] = {const_cast<char*>(head.data()), head.size()};
        if (n > 0) {
            v[count++] = {size, std::strlen(size)};
            v[count++] = {const_cast<unsigned char*>(data), n};
        }
        if (!tail.empty()) v[count++] = {const_cast<char*>(tail.data()), tail.size()};
        if (!conn_.Send(v, count, limits, error)) return kFailed;
        first = false;
        at += n;
    } while (at < to);
    return kReply;
}

}  // namespace icappel
