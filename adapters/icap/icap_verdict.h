/*
 * icap_verdict.h - what an ICAP reply to a RESPMOD means for the object.
 *
 * Clean only on a 204, or a 200 that hands the object back unmodified and
 * names nothing. Every finding header names a finding; an encapsulated HTTP
 * status other than 2xx with no finding header is a block with a generic
 * name, and so is a changed object with none; every other reply is a failure
 * carrying the server's status line.
 */
#ifndef KORMO_ICAP_VERDICT_H
#define KORMO_ICAP_VERDICT_H

#include <string>
#include <vector>

#include "icap_client.h"
#include "icap_proto.h"

namespace icappel {

// Names given when the server blocks or changes the object without saying why.
extern const char kBlockedName[];
extern const char kModifiedName[];

struct Verdict {
    enum Kind { kClean, kFound, kFailed, kRetry };  // kRetry: a 5xx, another server may do
    Kind kind = kFailed;
    std::vector<Finding> findings;
    // The reply body is the whole object as the server changed it and every
    // finding was repaired: it can be handed back as the cleaned object.
    bool repaired = false;
    std::string error;
};

// Judges reply to a RESPMOD of original; failures of reading original are
// failures of the scan.
Verdict Judge(const Reply& reply, const Source& original);

}  // namespace icappel

#endif
