/**
 * @file
 * What the switch counts.
 */
#ifndef MSM_COUNTERS_H
#define MSM_COUNTERS_H

#include "common/endpoint.h"

#include <array>
#include <string>

namespace msm {

/** Traffic of one endpoint, all its connections together. */
struct EndpointCounters {
    U64_t received = 0;    ///< messages that its connections sent
    U64_t delivered = 0;   ///< messages that its connections took; a message counts per connection
    U64_t dropped = 0;     ///< messages for a connection that was too slow or that closed
    U64_t unconnected = 0; ///< messages for the endpoint while it had no connection
};

struct Counters {
    U64_t connections = 0;     ///< connections accepted
    U64_t badLengths = 0;      ///< connections closed for a bad mmsg_length
    U64_t brokenMessages = 0;  ///< connections that ended in the middle of a message
    U64_t messages = 0;        ///< messages received from this blade
    U64_t nobody = 0;          ///< messages that reached nobody
    U64_t linkReceived = 0;    ///< messages received from the other blade
    U64_t linkDelivered = 0;   ///< messages handed to the other blade
    U64_t linkDropped = 0;     ///< messages for the other blade while it was too slow or not there
    U64_t unknownEndpoint = 0; ///< messages with a recipient bit of no endpoint
    U64_t held = 0;            ///< times that a sender had to wait for the event manager
    U64_t heldTooLong = 0;     ///< connections closed because they had waited too long
    U64_t secondManagers = 0;  ///< connections refused because an event manager was connected
    std::array<EndpointCounters, tools::ENDPOINT_COUNT> endpoints{};

    /** The summary: one line for all, one for each endpoint that had traffic. */
    std::string text() const;
};

} // namespace msm

#endif
