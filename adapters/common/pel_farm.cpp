/*
 * pel_farm.cpp - a list of scanning servers shared by every instance of an
 * adapter in this process.
 */
#include "pel_farm.h"

#include <sys/un.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>

namespace pelcommon {

struct Farm::Shared {
    Clock::time_point downUntil{};  // in the past (or epoch) while up
    Clock::time_point failedAt{};   // last failure, or last retry handed out
    bool down = false;
    uint32_t bound = 0;
    uint64_t picks = 0;
    uint32_t busy = 0;
    std::string version;
};

namespace {

struct Registry {
    std::mutex lock;
    // Never erased: farms keep pointers to the entries.
    std::map<std::string, std::unique_ptr<Farm::Shared>> byAddress;
};

Registry& Reg() {
    static Registry* r = new Registry();  // outlives static destructors of callers
    return *r;
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

// Down now? Clears the mark of a server whose time has passed.
bool DownNow(Farm::Shared* s, Farm::Clock::time_point now) {
    if (s->down && s->downUntil <= now) s->down = false;
    return s->down;
}

}  // namespace

bool ParseServerList(const std::string& list, const char* paramName,
                     std::vector<ServerAddress>* out, std::string* error) {
    out->clear();
    const std::string what = paramName != nullptr ? paramName : "server list";
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        std::string item = Trim(
            list.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        start = comma == std::string::npos ? list.size() + 1 : comma + 1;
        if (item.empty()) continue;
        ServerAddress a;
        a.text = item;
        if (item.compare(0, 5, "unix:") == 0) {
            a.local = true;
            a.path = item.substr(5);
            if (a.path.empty() || a.path.size() >= sizeof(sockaddr_un{}.sun_path)) {
                *error = what + ": bad local socket path in \"" + item + "\"";
                return false;
            }
        } else {
            size_t colon = item.rfind(':');
            if (colon == std::string::npos || colon == 0 || colon + 1 == item.size()) {
                *error = what + ": \"" + item + "\" is neither unix:/path nor host:port";
                return false;
            }
            a.host = item.substr(0, colon);
            a.port = item.substr(colon + 1);
            if (a.host.size() > 2 && a.host.front() == '[' && a.host.back() == ']') {
                a.host = a.host.substr(1, a.host.size() - 2);
            }
            if (a.port.find_first_not_of("0123456789") != std::string::npos) {
                *error = what + ": bad port in \"" + item + "\"";
                return false;
            }
        }
        out->push_back(a);
    }
    if (out->empty()) {
        *error = what +
                 " is empty: give a comma-separated list of servers "
                 "(unix:/path/to/server.sock or host:port)";
        return false;
    }
    return true;
}

Farm::~Farm() {
    Unbind();
}

bool Farm::Configure(const std::string& list, const char* paramName, FarmMode mode,
                     uint32_t reconnectSeconds, uint32_t backoffMs, std::string* error) {
    std::vector<ServerAddress> servers;
    if (!ParseServerList(list, paramName, &servers, error)) return false;
    Unbind();
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    servers_ = std::move(servers);
    shared_.clear();
    for (const ServerAddress& a : servers_) {
        std::unique_ptr<Shared>& s = r.byAddress[a.text];
        if (!s) s.reset(new Shared());
        shared_.push_back(s.get());
    }
    mode_ = mode;
    reconnectSeconds_ = reconnectSeconds;
    backoffMs_ = backoffMs;
    return true;
}

size_t Farm::Pick(const std::vector<bool>& tried, std::string* why) {
    return Choose(tried, false, why);
}

size_t Farm::Acquire(const std::vector<bool>& tried, std::string* why) {
    return Choose(tried, true, why);
}

void Farm::Release(size_t i) {
    if (i >= shared_.size()) return;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    if (shared_[i]->busy > 0) --shared_[i]->busy;
}

size_t Farm::Choose(const std::vector<bool>& tried, bool byBusy, std::string* why) {
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    const Clock::time_point now = Clock::now();
    size_t best = kNone;
    size_t retry = kNone;  // the down server whose time ends first
    size_t untried = 0;
    // Spread mode, for an instance: the fewest bound instances (its own
    // binding does not count against its server). For an object (byBusy):
    // among the servers at most one object busier than the least busy, the
    // one that got the fewest objects so far, so shares stay even when one
    // server is a little faster, and a stuck server is left alone; then the
    // bound server. Ties in list order.
    uint32_t leastBusy = UINT32_MAX;
    for (size_t i = 0; byBusy && i < shared_.size(); ++i) {
        if ((i < tried.size() && tried[i]) || DownNow(shared_[i], now)) continue;
        if (shared_[i]->busy < leastBusy) leastBusy = shared_[i]->busy;
    }
    auto key = [&](size_t i) {
        const Shared* s = shared_[i];
        if (!byBusy) return uint64_t(s->bound - (i == bound_ ? 1u : 0u));
        uint64_t crowded = s->busy > leastBusy + 1 ? 1 : 0;
        uint64_t picks = s->picks < (uint64_t(1) << 61) ? s->picks : (uint64_t(1) << 61) - 1;
        return (crowded << 62) | (picks << 1) | uint64_t(i != bound_);
    };
    for (size_t i = 0; i < shared_.size(); ++i) {
        if (i < tried.size() && tried[i]) continue;
        ++untried;
        Shared* s = shared_[i];
        if (DownNow(s, now)) {
            if (retry == kNone || s->downUntil < shared_[retry]->downUntil) retry = i;
            continue;
        }
        if (best == kNone || (mode_ == FarmMode::kSpread && key(i) < key(best))) best = i;
        if (mode_ == FarmMode::kOrdered) break;
    }
    if (best == kNone && retry != kNone) {
        Shared* s = shared_[retry];
        auto since = now - s->failedAt;
        if (since >= std::chrono::milliseconds(backoffMs_)) {
            s->failedAt = now;  // one retry per backoff, whoever asks
            best = retry;
        } else if (why != nullptr) {
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::milliseconds(backoffMs_) - since)
                          .count();
            *why = "every server is down; next try in " + std::to_string(ms) + " ms";
        }
    } else if (best == kNone && why != nullptr) {
        *why = untried == 0 ? "every server was tried" : "no usable server";
    }
    if (best != kNone) {
        ++shared_[best]->picks;
        if (byBusy) ++shared_[best]->busy;
    }
    return best;
}

void Farm::Bind(size_t i) {
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    if (i == bound_) return;
    if (bound_ != kNone && shared_[bound_]->bound > 0) --shared_[bound_]->bound;
    bound_ = i < shared_.size() ? i : kNone;
    if (bound_ != kNone) ++shared_[bound_]->bound;
}

void Farm::MarkFailed(size_t i) {
    if (i >= shared_.size()) return;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    Shared* s = shared_[i];
    const Clock::time_point now = Clock::now();
    s->down = true;
    s->failedAt = now;
    s->downUntil = now + std::chrono::seconds(reconnectSeconds_);
}

void Farm::MarkGood(size_t i) {
    if (i >= shared_.size()) return;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    shared_[i]->down = false;
}

bool Farm::ShouldMove() const {
    if (bound_ == kNone) return false;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    const Clock::time_point now = Clock::now();
    if (DownNow(shared_[bound_], now)) return true;
    const uint32_t mine = shared_[bound_]->bound;
    for (size_t i = 0; i < shared_.size(); ++i) {
        if (i == bound_ || DownNow(shared_[i], now)) continue;
        if (mode_ == FarmMode::kOrdered) return i < bound_;
        if (shared_[i]->bound + 1 < mine) return true;
    }
    return false;
}

bool Farm::IsUp(size_t i) const {
    if (i >= shared_.size()) return false;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    return !DownNow(shared_[i], Clock::now());
}

void Farm::SetVersion(size_t i, const std::string& version) {
    if (i >= shared_.size()) return;
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    shared_[i]->version = version;
}

std::vector<FarmServerState> Farm::Snapshot() const {
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    const Clock::time_point now = Clock::now();
    const std::time_t wallNow = std::time(nullptr);
    std::vector<FarmServerState> out;
    for (size_t i = 0; i < shared_.size(); ++i) {
        Shared* s = shared_[i];
        FarmServerState st;
        st.text = servers_[i].text;
        st.up = !DownNow(s, now);
        if (!st.up) {
            auto left = std::chrono::duration_cast<std::chrono::seconds>(s->downUntil - now);
            st.downUntil = static_cast<int64_t>(wallNow) + left.count() + 1;
        }
        st.bound = s->bound;
        st.picks = s->picks;
        st.busy = s->busy;
        st.version = s->version;
        out.push_back(st);
    }
    return out;
}

void Farm::ResetAll() {
    Registry& r = Reg();
    std::lock_guard<std::mutex> g(r.lock);
    for (auto& e : r.byAddress) {
        e.second->down = false;
        e.second->failedAt = Clock::time_point{};
        e.second->picks = 0;
        e.second->version.clear();
        // bound counts belong to live farms and stay.
    }
}

}  // namespace pelcommon
