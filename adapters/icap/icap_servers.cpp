/*
 * icap_servers.cpp - the process-wide record of ICAP servers.
 */
#include "icap_servers.h"

#include <map>
#include <mutex>

namespace icappel {

namespace {

struct State {
    bool haveOptions = false;
    Options options;
    Clock::time_point optionsAt{};
    uint32_t kept = 0;
    bool selfTested = false;
};

struct Book {
    std::mutex lock;
    std::map<std::string, State> servers;
};

Book& TheBook() {
    static Book* b = new Book();  // never destroyed: instances may outlive statics
    return *b;
}

template <class F>
auto With(const std::string& server, F&& f) {
    Book& b = TheBook();
    std::lock_guard<std::mutex> l(b.lock);
    return f(b.servers[server]);
}

}  // namespace

void ServerBook::Forget(const std::string& server) {
    With(server, [](State& s) {
        s.haveOptions = false;
        return 0;
    });
}

bool ServerBook::FreshOptions(const std::string& server, uint32_t defaultTtl, Options* out) {
    return With(server, [&](State& s) {
        uint32_t ttl = s.options.ttl != 0 ? s.options.ttl : defaultTtl;
        if (!s.haveOptions || Clock::now() - s.optionsAt >= std::chrono::seconds(ttl)) return false;
        *out = s.options;
        return true;
    });
}

void ServerBook::PutOptions(const std::string& server, const Options& options) {
    With(server, [&](State& s) {
        s.options = options;
        s.haveOptions = true;
        s.optionsAt = Clock::now();
        return 0;
    });
}

bool ServerBook::TakeKept(const std::string& server) {
    return With(server, [](State& s) {
        if (s.options.maxConnections != 0 && s.kept >= s.options.maxConnections) return false;
        ++s.kept;
        return true;
    });
}

void ServerBook::ReleaseKept(const std::string& server) {
    With(server, [](State& s) {
        if (s.kept > 0) --s.kept;
        return 0;
    });
}

bool ServerBook::SelfTested(const std::string& server) {
    return With(server, [](State& s) { return s.selfTested; });
}

void ServerBook::SetSelfTested(const std::string& server) {
    With(server, [](State& s) {
        s.selfTested = true;
        return 0;
    });
}

void ServerBook::Clear() {
    Book& b = TheBook();
    std::lock_guard<std::mutex> l(b.lock);
    b.servers.clear();
}

}  // namespace icappel
