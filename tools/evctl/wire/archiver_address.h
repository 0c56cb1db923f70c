/**
 * @file
 * Where the event archiver is, on the command line and in messages.
 */
#ifndef EVCTL_ARCHIVER_ADDRESS_H
#define EVCTL_ARCHIVER_ADDRESS_H

#include "evctl/wire/session.h"

#include <string>

namespace evctl {

/** An IPv4 address and a TCP port; all zero: no archiver. */
struct ArchiverAddress {
    IpAddr_t host{};
    U16_t port = 0;
};

/** "HOST:PORT", HOST being an IPv4 address or a name to be resolved to one, PORT 1 to 65535; or
 * "off". Throws std::runtime_error for anything else. */
ArchiverAddress parseArchiver(const std::string& text);

/** A request that sets the archiver. @param requestor the sender's endpoint */
Bytes makeSetArchiver(U32_t requestor, const ArchiverAddress& archiver);

} // namespace evctl

#endif
