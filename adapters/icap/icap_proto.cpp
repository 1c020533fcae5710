/*
 * icap_proto.cpp - ICAP requests and replies.
 */
#include "icap_proto.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace icappel {

namespace {

constexpr size_t kMaxLine = 16 * 1024;
constexpr size_t kMaxHeaders = 256;
constexpr size_t kMaxEncapsulatedHead = 64 * 1024;

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

std::string LowerAscii(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// A decimal number made of digits only, at most max; false otherwise.
bool Number(const std::string& s, unsigned long long max, unsigned long long* out) {
    if (s.empty() || s.size() > 19 || s.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *out = std::strtoull(s.c_str(), nullptr, 10);
    return *out <= max;
}

// "ICAP/1.0 204 No Content" or "HTTP/1.1 403 Forbidden" -> the code; 0 when
// the line is not a status line of that protocol.
int StatusCode(const std::string& line, const char* protocol) {
    size_t n = std::strlen(protocol);
    if (line.compare(0, n, protocol) != 0 || line.size() < n + 8) return 0;
    size_t sp = line.find(' ');
    if (sp == std::string::npos || sp + 4 > line.size()) return 0;
    std::string code = line.substr(sp + 1, 3);
    unsigned long long v = 0;
    if (!Number(code, 999, &v) || v < 100) return 0;
    if (sp + 4 < line.size() && line[sp + 4] != ' ') return 0;
    return static_cast<int>(v);
}

// Percent-encodes what may not stand in a request target.
std::string PathOf(const std::string& name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out = "/";
    for (unsigned char c : name) {
        if (std::isalnum(c) || std::strchr("-._~/", c) != nullptr) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

bool ReadHeaders(Connection& conn, const Limits& limits, Reply* r, std::string* error) {
    std::string line;
    for (;;) {
        if (!conn.ReadLine(&line, kMaxLine, limits, error)) return false;
        if (line.empty()) return true;
        if (line[0] == ' ' || line[0] == '\t') {
            if (r->headers.empty()) {
                *error = "malformed reply: a continuation line before any header";
                return false;
            }
            r->headers.back().second += "\n" + Trim(line);
            continue;
        }
        size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0) {
            *error = "malformed reply header: \"" + line.substr(0, 80) + "\"";
            return false;
        }
        if (r->headers.size() >= kMaxHeaders) {
            *error = "malformed reply: more than " + std::to_string(kMaxHeaders) + " headers";
            return false;
        }
        r->headers.emplace_back(LowerAscii(Trim(line.substr(0, colon))),
                                Trim(line.substr(colon + 1)));
    }
}

// Encapsulated: "req-hdr=0, res-hdr=45, res-body=120": the length of the
// header sections and whether a body follows.
bool ParseEncapsulated(const std::string& value, size_t* headLength, bool* body,
                       std::string* error) {
    *headLength = 0;
    *body = false;
    size_t start = 0, last = 0;
    bool any = false;
    while (start <= value.size()) {
        size_t comma = value.find(',', start);
        std::string item =
            Trim(value.substr(start, comma == std::string::npos ? comma : comma - start));
        start = comma == std::string::npos ? value.size() + 1 : comma + 1;
        size_t eq = item.find('=');
        unsigned long long off = 0;
        if (eq == std::string::npos ||
            !Number(Trim(item.substr(eq + 1)), kMaxEncapsulatedHead, &off) || off < last) {
            *error = "malformed Encapsulated header: \"" + value + "\"";
            return false;
        }
        last = static_cast<size_t>(off);
        std::string key = LowerAscii(Trim(item.substr(0, eq)));
        if (key == "res-body" || key == "req-body" || key == "opt-body" || key == "null-body") {
            *headLength = last;
            *body = key != "null-body";
            return comma == std::string::npos ||
                   (*error = "malformed Encapsulated header: body before the end", false);
        }
        if (key != "req-hdr" && key != "res-hdr") {
            *error = "malformed Encapsulated header: unknown part \"" + key + "\"";
            return false;
        }
        any = true;
    }
    *error = any ? "malformed Encapsulated header: no body part" : "empty Encapsulated header";
    return false;
}

bool ReadChunked(Connection& conn, size_t limit, const Limits& limits, Reply* r,
                 std::string* error) {
    std::string line;
    for (;;) {
        if (!conn.ReadLine(&line, kMaxLine, limits, error)) return false;
        std::string size = Trim(line.substr(0, line.find(';')));
        if (size.empty() || size.size() > 15 ||
            size.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            *error = "malformed chunk size line: \"" + line.substr(0, 80) + "\"";
            return false;
        }
        size_t n = static_cast<size_t>(std::strtoull(size.c_str(), nullptr, 16));
        if (n == 0) break;
        size_t keep = r->body.size() < limit ? std::min(n, limit - r->body.size()) : 0;
        if (!conn.ReadExact(keep, &r->body, limits, error) ||
            !conn.ReadExact(n - keep, nullptr, limits, error) ||
            !conn.ReadLine(&line, kMaxLine, limits, error))
            return false;
        if (!line.empty()) {
            *error = "malformed chunk: no line end after its data";
            return false;
        }
        r->bodyBytes += n;
        r->bodyCut = r->bodyCut || keep < n;
    }
    do {  // trailer lines up to the empty one
        if (!conn.ReadLine(&line, kMaxLine, limits, error)) return false;
    } while (!line.empty());
    return true;
}

// Splits "Type=0; Resolution=2; Threat=Name;" into its fields.
std::string Field(const std::string& value, const char* key) {
    std::string lower = LowerAscii(value);
    std::string k = LowerAscii(key) + "=";
    size_t at = 0;
    while ((at = lower.find(k, at)) != std::string::npos) {
        if (at == 0 || lower[at - 1] == ';' || lower[at - 1] == ' ' || lower[at - 1] == '\t') {
            size_t b = at + k.size();
            size_t e = value.find(';', b);
            return Trim(value.substr(b, e == std::string::npos ? e : e - b));
        }
        at += k.size();
    }
    return std::string();
}

std::vector<std::string> Lines(const std::string& value) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= value.size()) {
        size_t nl = value.find('\n', start);
        out.push_back(Trim(value.substr(start, nl == std::string::npos ? nl : nl - start)));
        start = nl == std::string::npos ? value.size() + 1 : nl + 1;
    }
    return out;
}

}  // namespace

const std::string* Reply::Header(const std::string& name) const {
    for (const auto& h : headers)
        if (h.first == name) return &h.second;
    return nullptr;
}

bool ParseUrl(const std::string& text, ServerUrl* out, std::string* error) {
    *out = ServerUrl();
    out->text = text;
    std::string lower = LowerAscii(text);
    size_t rest = 0;
    if (lower.compare(0, 7, "icap://") == 0) {
        rest = 7;
    } else if (lower.compare(0, 8, "icaps://") == 0) {
        rest = 8;
        out->tls = true;
    } else {
        *error = "INITSERVERS: \"" + text + "\" is not an icap:// or icaps:// URL";
        return false;
    }
    size_t slash = text.find('/', rest);
    std::string authority = text.substr(rest, slash == std::string::npos ? slash : slash - rest);
    std::string service = slash == std::string::npos ? "" : text.substr(slash + 1);
    if (authority.empty() || service.empty() ||
        text.find_first_of(" \t\r\n") != std::string::npos) {
        *error =
            "INITSERVERS: \"" + text + "\" needs a host and a service (icap://host:port/service)";
        return false;
    }
    out->port = out->tls ? "11344" : "1344";
    if (authority[0] == '[') {
        size_t close = authority.find(']');
        if (close == std::string::npos || close == 1) {
            *error = "INITSERVERS: bad IPv6 address in \"" + text + "\"";
            return false;
        }
        out->host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                *error = "INITSERVERS: bad address in \"" + text + "\"";
                return false;
            }
            out->port = authority.substr(close + 2);
        }
    } else {
        size_t colon = authority.find(':');
        out->host = authority.substr(0, colon);
        if (colon != std::string::npos) out->port = authority.substr(colon + 1);
    }
    unsigned long long port = 0;
    if (out->host.empty() || !Number(out->port, 65535, &port) || port == 0) {
        *error = "INITSERVERS: bad host or port in \"" + text + "\"";
        return false;
    }
    out->uri = std::string(out->tls ? "icaps://" : "icap://") + authority + "/" + service;
    return true;
}

bool ReadReply(Connection& conn, size_t bodyLimit, const Limits& limits, Reply* r,
               std::string* error) {
    *r = Reply();
    if (!conn.ReadLine(&r->statusLine, kMaxLine, limits, error)) return false;
    r->status = StatusCode(r->statusLine, "ICAP/1.");
    if (r->status == 0) {
        *error = "malformed reply: \"" + r->statusLine.substr(0, 80) + "\" is no ICAP status line";
        return false;
    }
    if (!ReadHeaders(conn, limits, r, error)) return false;
    const std::string* enc = r->Header("encapsulated");
    if (r->status == 100 || enc == nullptr) {
        if (r->status == 200) {
            *error = "malformed reply: " + r->statusLine + " without an Encapsulated header";
            return false;
        }
        return true;  // 100, 204 and failures may come without one
    }
    size_t headLength = 0;
    if (!ParseEncapsulated(*enc, &headLength, &r->hasBody, error)) return false;
    std::string head;
    if (!conn.ReadExact(headLength, &head, limits, error)) return false;
    size_t http = head.find("HTTP/");
    while (http != std::string::npos && http != 0 && head[http - 1] != '\n')
        http = head.find("HTTP/", http + 1);
    if (http != std::string::npos) {
        r->httpStatusLine = head.substr(http, head.find_first_of("\r\n", http) - http);
        r->httpStatus = StatusCode(r->httpStatusLine, "HTTP/1.");
    }
    return !r->hasBody || ReadChunked(conn, bodyLimit, limits, r, error);
}

bool ParseOptions(const Reply& r, Options* o, std::string* error) {
    *o = Options();
    if (r.status != 200) {
        *error = "OPTIONS refused: " + r.statusLine;
        return false;
    }
    if (const std::string* v = r.Header("istag")) {
        o->istag = *v;
        if (o->istag.size() >= 2 && o->istag.front() == '"' && o->istag.back() == '"')
            o->istag = o->istag.substr(1, o->istag.size() - 2);
    }
    if (const std::string* v = r.Header("service")) o->service = *v;
    if (const std::string* v = r.Header("methods")) o->methods = *v;
    unsigned long long n = 0;
    if (const std::string* v = r.Header("preview"); v != nullptr && Number(*v, 1u << 30, &n))
        o->preview = static_cast<long>(n);
    if (const std::string* v = r.Header("allow")) o->allow204 = v->find("204") != std::string::npos;
    if (const std::string* v = r.Header("max-connections");
        v != nullptr && Number(*v, UINT32_MAX, &n))
        o->maxConnections = static_cast<uint32_t>(n);
    if (const std::string* v = r.Header("options-ttl"); v != nullptr && Number(*v, UINT32_MAX, &n))
        o->ttl = static_cast<uint32_t>(n);
    if (LowerAscii(o->methods).find("respmod") == std::string::npos) {
        *error = "the service does not offer RESPMOD (Methods: " + o->methods + ")";
        return false;
    }
    return true;
}

std::vector<Finding> Findings(const Reply& r) {
    std::vector<Finding> out;
    auto add = [&out](Finding f) {
        if (f.name.empty()) return;
        for (Finding& g : out) {
            if (g.name == f.name) {
                if (g.resolution < 0) g.resolution = f.resolution;
                return;
            }
        }
        out.push_back(std::move(f));
    };
    for (const auto& h : r.headers) {
        if (h.first == "x-infection-found") {
            Finding f;
            f.header = "X-Infection-Found";
            f.name = Field(h.second, "Threat");
            std::string type = Field(h.second, "Type"), res = Field(h.second, "Resolution");
            f.kind = type == "1"   ? FindingKind::kPolicy
                     : type == "2" ? FindingKind::kNotScanned
                                   : FindingKind::kInfection;
            if (res.size() == 1 && res[0] >= '0' && res[0] <= '2') f.resolution = res[0] - '0';
            if (f.name.empty()) f.name = "ICAP.Infection.Unnamed";
            add(f);
        } else if (h.first == "x-violations-found") {
            // A count, then per violation: file name, threat, problem id, resolution.
            std::vector<std::string> lines = Lines(h.second);
            for (size_t i = 1; i + 1 < lines.size(); i += 4) {
                Finding f;
                f.header = "X-Violations-Found";
                f.name = lines[i + 1];
                if (i + 3 < lines.size() && lines[i + 3].size() == 1 && lines[i + 3][0] >= '0' &&
                    lines[i + 3][0] <= '2')
                    f.resolution = lines[i + 3][0] - '0';
                add(f);
            }
        } else if (h.first == "x-virus-id" || h.first == "x-virus-name") {
            Finding f;
            f.header = h.first == "x-virus-id" ? "X-Virus-ID" : "X-Virus-Name";
            f.name = Trim(h.second.substr(0, h.second.find('\n')));
            add(f);
        }
    }
    return out;
}

std::string OptionsRequest(const ServerUrl& url) {
    return "OPTIONS " + url.uri + " ICAP/1.0\r\nHost: " + url.host +
           "\r\nUser-Agent: libkormomav\r\nEncapsulated: null-body=0\r\n\r\n";
}

std::string RespmodHead(const ServerUrl& url, const std::string& name, size_t size, long preview) {
    std::string req = "GET " + PathOf(name) + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    std::string res =
        "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: " +
        std::to_string(size) + "\r\n\r\n";
    std::string head = "RESPMOD " + url.uri + " ICAP/1.0\r\nHost: " + url.host +
                       "\r\nUser-Agent: libkormomav\r\nAllow: 204\r\n";
    if (preview >= 0) head += "Preview: " + std::to_string(preview) + "\r\n";
    head += "Encapsulated: req-hdr=0, res-hdr=" + std::to_string(req.size()) +
            ", res-body=" + std::to_string(req.size() + res.size()) + "\r\n\r\n";
    return head + req + res;
}

}  // namespace icappel
