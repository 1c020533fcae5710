/*
 * icap_servers.h - what the process knows about each ICAP server, shared by
 * every instance: down until when, the OPTIONS it last answered (until its
 * Options-TTL ends), how many kept connections and bound instances it has,
 * whether it passed the self-test; and the order in which one object tries
 * the servers of a list.
 *
 * Kept small and behind this interface so that a shared server-list module
 * can take its place.
 */
#ifndef KORMO_ICAP_SERVERS_H
#define KORMO_ICAP_SERVERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "icap_proto.h"

namespace icappel {

class ServerBook {
  public:
    // True when the server may be tried now; else the seconds left.
    static bool Usable(const std::string& server, uint32_t* secondsLeft);
    static void MarkFailed(const std::string& server, uint32_t reconnectSeconds);
    static void MarkGood(const std::string& server);

    // The options fetched less than their Options-TTL ago (defaultTtl
    // seconds when the server gave none); false when they must be fetched.
    static bool FreshOptions(const std::string& server, uint32_t defaultTtl, Options* out);
    static void PutOptions(const std::string& server, const Options& options);

    // Counts a kept connection unless the server's Max-Connections are taken.
    static bool TakeKept(const std::string& server);
    static void ReleaseKept(const std::string& server);

    // Instances bound to a server (the one their kept connection goes to).
    static void Bind(const std::string& server, int delta);

    static bool SelfTested(const std::string& server);
    static void SetSelfTested(const std::string& server);

    // The order for one object: the usable servers, the one with the fewest
    // bound instances first (ties in list order, preferred wins a tie), then
    // the rest in list order; when none is usable, all of them (a retry
    // after the backoff rather than a failure until INITRECONNECTTIME ends).
    static std::vector<size_t> Order(const std::vector<ServerUrl>& servers, size_t preferred);

    static void Clear();
};

}  // namespace icappel

#endif
