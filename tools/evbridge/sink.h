/**
 * @file
 * Who takes events.
 */
#ifndef EVBRIDGE_SINK_H
#define EVBRIDGE_SINK_H

#include "evctl/event_view.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace evbridge {

/** The receiver is away, or has not taken all. */
struct SinkAway : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Sink {
  public:
    virtual ~Sink() = default;

    /** Hands an event on. Throws SinkAway. */
    virtual void send(const evctl::EventView& event) = 0;

    /** Returns once what was sent is at the receiver, as far as can be known. Throws SinkAway: then
     * nothing is known of what was sent since the last confirm(). */
    virtual void confirm() = 0;
};

/**
 * @param to "syslog:unix:PATH", "syslog:udp:ADDRESS:PORT", "syslog:tcp:ADDRESS:PORT", "journal" or
 * "journal:PATH"
 * Connects with the first event. Throws std::invalid_argument for another text.
 */
std::unique_ptr<Sink> openSink(const std::string& to);

} // namespace evbridge

#endif
