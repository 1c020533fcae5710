/*
 * icap_proto.h - the ICAP messages this adapter exchanges (RFC 3507): server
 * URLs, OPTIONS, the head of a RESPMOD, and replies with their encapsulated
 * HTTP header and chunked body, and the findings a reply names.
 */
#ifndef KORMO_ICAP_PROTO_H
#define KORMO_ICAP_PROTO_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "icap_conn.h"

namespace icappel {

// icap://host[:port]/service or icaps://host[:port]/service (port 1344, or
// 11344 for icaps); IPv6 hosts in brackets.
struct ServerUrl {
    std::string text;  // as configured
    std::string host, port;
    std::string uri;  // what goes on the request line: icap://host:port/service
    bool tls = false;
};

// False with a reason for anything but an ICAP URL with a host and a service.
bool ParseUrl(const std::string& text, ServerUrl* out, std::string* error);

// What a server's OPTIONS reply tells.
struct Options {
    std::string istag;    // without quotes
    std::string service;  // Service header (the server's product text)
    std::string methods;
    long preview = -1;            // bytes; -1: the server takes no preview
    bool allow204 = false;        // Allow: 204 offered
    uint32_t maxConnections = 0;  // 0: not said
    uint32_t ttl = 0;             // seconds; 0: not said
};

// A reply: status line, headers (names lower-cased, folded lines kept as
// separate lines of the value, joined by '\n'), the encapsulated HTTP status
// line and body. bodyBytes counts every body byte; body holds at most the
// limit given to ReadReply (bodyCut tells that more came).
struct Reply {
    int status = 0;
    std::string statusLine;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string httpStatusLine;
    int httpStatus = 0;
    bool hasBody = false;
    std::string body;
    size_t bodyBytes = 0;
    bool bodyCut = false;

    // The value of the first header of this (lower-case) name, or null.
    const std::string* Header(const std::string& name) const;
};

// Reads one complete reply (a 100 Continue has no body). False with a reason
// for a malformed, cut or late reply.
bool ReadReply(Connection& conn, size_t bodyLimit, const Limits& limits, Reply* reply,
               std::string* error);

// Fills options from a 200 reply to OPTIONS; false with a reason when the
// service does not offer RESPMOD.
bool ParseOptions(const Reply& reply, Options* options, std::string* error);

// What a reply says it found.
enum class FindingKind { kInfection, kPolicy, kNotScanned };
struct Finding {
    std::string name;
    FindingKind kind = FindingKind::kInfection;
    int resolution = -1;  // 0 not repaired, 1 repaired, 2 blocked; -1 not said
    std::string header;   // where it was named
};

// Every finding of X-Infection-Found, X-Violations-Found, X-Virus-ID and
// X-Virus-Name, each name once.
std::vector<Finding> Findings(const Reply& reply);

// The OPTIONS request for url.
std::string OptionsRequest(const ServerUrl& url);

// The head of a RESPMOD for an object of size bytes named name: ICAP headers
// (Allow: 204, Preview when preview >= 0) and the encapsulated HTTP request
// and response headers; the chunked body follows.
std::string RespmodHead(const ServerUrl& url, const std::string& name, size_t size, long preview);

}  // namespace icappel

#endif
