/*
 * pel_farm.h - a list of scanning servers shared by every instance of an
 * adapter in this process: which are up, which are down until when, and how
 * many instances are bound to each, so that new work spreads over them.
 *
 * The list is read from a parameter text ("unix:/a.sock, 127.0.0.1:3310,
 * [::1]:3310"). State is kept per server address for the whole process, so
 * two farms naming the same server share its health and its count of bound
 * instances. Protocol-free: the adapter connects, scans and reports back with
 * MarkFailed / MarkGood.
 *
 * Use: Configure once per instance; at the instance's start Pick a server,
 * connect, and Bind to it (MarkFailed and Pick again when it does not
 * answer); per object Acquire a server (skipping those already tried for
 * it), send, Release, and MarkFailed on a server failure before trying the
 * next; ShouldMove tells when the binding is stale; Snapshot feeds the
 * engine information.
 *
 * Thread-safe: one process-wide lock, taken last (nothing else is locked
 * while it is held), so it fits under any lock an adapter holds.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_FARM_H
#define KORMO_PEL_FARM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace pelcommon {

struct ServerAddress {
    std::string text;  // as configured: "unix:/path" or "host:port"
    bool local = false;
    std::string path;  // local socket
    std::string host;  // TCP, without brackets for IPv6
    std::string port;
};

// Parses a comma-separated list of "unix:/path" and "host:port" entries
// ("[::1]:3310" for IPv6); blanks around entries are ignored. False with a
// reason naming paramName for an empty list or a malformed entry.
bool ParseServerList(const std::string& list, const char* paramName,
                     std::vector<ServerAddress>* out, std::string* error);

// How a farm picks a server for new work.
enum class FarmMode {
    kSpread,   // the usable server with the fewest bound instances, ties in list order
    kOrdered,  // the first usable server of the list; the others are backups
};

// One server as a snapshot reports it.
struct FarmServerState {
    std::string text;
    bool up = true;
    int64_t downUntil = 0;  // wall-clock seconds (time_t) while down, else 0
    uint32_t bound = 0;     // instances of this process bound to it
    uint64_t picks = 0;     // times it was chosen for work
    uint32_t busy = 0;      // objects of this process on it now (Acquire)
    std::string version;    // last version text the adapter reported, may be empty
};

class Farm {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kNone = static_cast<size_t>(-1);

    Farm() = default;
    ~Farm();  // unbinds what is still bound
    Farm(const Farm&) = delete;
    Farm& operator=(const Farm&) = delete;

    // Reads the list; reconnectSeconds is how long a failed server is
    // skipped, backoffMs how long after a round that found every server down
    // the next Pick tries them again anyway.
    bool Configure(const std::string& list, const char* paramName, FarmMode mode,
                   uint32_t reconnectSeconds, uint32_t backoffMs, std::string* error);

    size_t Size() const { return servers_.size(); }
    const ServerAddress& Address(size_t i) const { return servers_[i]; }
    FarmMode Mode() const { return mode_; }

    // The server for new work, skipping those with tried[i] set (tried may
    // be empty or shorter than the list). kNone when nothing may be tried:
    // every untried server is down and the backoff has not passed; *why then
    // says how long. When every untried server is down but the backoff has
    // passed, the one whose down time ends first is returned (a retry).
    size_t Pick(const std::vector<bool>& tried, std::string* why);

    // The server for one object: like Pick, but in spread mode, among the
    // usable servers at most one object busier than the least busy one (so
    // a stuck server is left alone), the one that got the fewest objects of
    // this process so far; ties to the bound server, then in list order. The
    // shares stay even when one server is a little faster. Counts the object
    // on the server until Release(i).
    size_t Acquire(const std::vector<bool>& tried, std::string* why);
    void Release(size_t i);

    // Counts this farm's instance as bound to server i (kNone: to none);
    // moves the count when already bound elsewhere. One binding per Farm.
    void Bind(size_t i);
    void Unbind() { Bind(kNone); }
    size_t Bound() const { return bound_; }

    // The server failed: skipped by every farm of the process for
    // reconnectSeconds. MarkGood: it answered, so it is up again.
    void MarkFailed(size_t i);
    void MarkGood(size_t i);
    // True when the bound server should be left for another: it is down, or
    // (spread) another usable server has at least two fewer instances bound,
    // or (ordered) a server before it in the list is usable again. Lets
    // instances come back to a server that was down.
    bool ShouldMove() const;
    // True when server i is not marked down now.
    bool IsUp(size_t i) const;
    void SetVersion(size_t i, const std::string& version);

    // The servers of this farm in list order, with their process-wide state.
    std::vector<FarmServerState> Snapshot() const;

    // Forgets every server's state (tests).
    static void ResetAll();

    struct Shared;  // process-wide state of one address (internal)

  private:
    size_t Choose(const std::vector<bool>& tried, bool byBusy, std::string* why);
    std::vector<ServerAddress> servers_;
    std::vector<Shared*> shared_;
    FarmMode mode_ = FarmMode::kSpread;
    uint32_t reconnectSeconds_ = 10;
    uint32_t backoffMs_ = 1000;
    size_t bound_ = kNone;
};

}  // namespace pelcommon

#endif
