#include "counters.h"

#include <sstream>

namespace msm {
namespace {

bool hadTraffic(const EndpointCounters& endpoint) {
    return endpoint.received + endpoint.delivered + endpoint.dropped + endpoint.unconnected > 0;
}

} // namespace

std::string Counters::text() const {
    std::ostringstream lines;
    lines << "summary: connections " << connections << ", messages " << messages
          << ", reached nobody " << nobody << ", unknown recipients " << unknownEndpoint
          << ", bad lengths " << badLengths << ", broken messages " << brokenMessages << "\n"
          << "other blade: received " << linkReceived << ", sent " << linkDelivered << ", dropped "
          << linkDropped << "\n"
          << "event manager: senders held " << held << ", closed after waiting " << heldTooLong
          << ", second ones refused " << secondManagers << "\n";
    for (U32_t number = 0; number < endpoints.size(); ++number) {
        const EndpointCounters& endpoint = endpoints[number];
        if (hadTraffic(endpoint)) {
            lines << tools::endpointSocketName(number) << ": received " << endpoint.received
                  << ", delivered " << endpoint.delivered << ", dropped " << endpoint.dropped
                  << ", unconnected " << endpoint.unconnected << "\n";
        }
    }
    return lines.str();
}

} // namespace msm
