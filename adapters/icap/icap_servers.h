/*
 * icap_servers.h - what the process knows about each ICAP service (by URL),
 * shared by every instance: the OPTIONS it last answered (until its
 * Options-TTL ends), how many kept connections it has, whether it passed the
 * self-test. Health and spreading are the server farm's (pel_farm.h).
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
    // The options fetched less than their Options-TTL ago (defaultTtl
    // seconds when the server gave none); false when they must be fetched.
    static bool FreshOptions(const std::string& server, uint32_t defaultTtl, Options* out);
    static void PutOptions(const std::string& server, const Options& options);
    // The server failed: its options are asked for again when it is back.
    static void Forget(const std::string& server);

    // Counts a kept connection unless the server's Max-Connections are taken.
    static bool TakeKept(const std::string& server);
    static void ReleaseKept(const std::string& server);

    static bool SelfTested(const std::string& server);
    static void SetSelfTested(const std::string& server);

    static void Clear();
};

}  // namespace icappel

#endif
