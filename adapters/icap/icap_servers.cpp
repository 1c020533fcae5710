/*
 * icap_servers.cpp - the process-wide record of ICAP servers.
 */
#include "icap_servers.h"

#include <map>
#include <mutex>

namespace icappel {

namespace {

struct State {
    Clock::time_point downUntil{};
    bool haveOptions = false;
    Options options;
    Clock::time_point optionsAt{};
    uint32_t kept = 0;
    uint32_t bound = 0;
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

bool ServerBook::Usable(const std::string& server, uint32_t* secondsLeft) {
    return With(server, [&](State& s) {
        auto now = Clock::now();
        if (s.downUntil <= now) return true;
        *secondsLeft = static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::seconds>(s.downUntil - now).count() + 1);
        return false;
    });
}

void ServerBook::MarkFailed(const std::string& server, uint32_t reconnectSeconds) {
    With(server, [&](State& s) {
        s.downUntil = Clock::now() + std::chrono::seconds(reconnectSeconds);
        s.haveOptions = false;  // asked again when it is back
        return 0;
    });
}

void ServerBook::MarkGood(const std::string& server) {
    With(server, [](State& s) {
        s.downUntil = Clock::time_point{};
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

void ServerBook::Bind(const std::string& server, int delta) {
    With(server, [&](State& s) {
        if (delta > 0 || s.bound > 0) s.bound += static_cast<uint32_t>(delta);
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

std::vector<size_t> ServerBook::Order(const std::vector<ServerUrl>& servers, size_t preferred) {
    Book& b = TheBook();
    std::lock_guard<std::mutex> l(b.lock);
    auto now = Clock::now();
    std::vector<size_t> usable, down;
    size_t best = servers.size();
    uint32_t bestBound = UINT32_MAX;
    for (size_t i = 0; i < servers.size(); ++i) {
        const State& s = b.servers[servers[i].text];
        if (s.downUntil > now) {
            down.push_back(i);
            continue;
        }
        usable.push_back(i);
        // A server's own instance is not counted against it.
        uint32_t bound = s.bound - (i == preferred && s.bound > 0 ? 1 : 0);
        if (bound < bestBound || (bound == bestBound && i == preferred)) {
            best = i;
            bestBound = bound;
        }
    }
    if (usable.empty()) return down;
    std::vector<size_t> order{best};
    for (size_t i : usable)
        if (i != best) order.push_back(i);
    return order;
}

void ServerBook::Clear() {
    Book& b = TheBook();
    std::lock_guard<std::mutex> l(b.lock);
    b.servers.clear();
}

}  // namespace icappel
