/**
 * @file
 * Who takes events.
 */
#ifndef EVBRIDGE_SINK_H
#define EVBRIDGE_SINK_H

#include "entry.h"
#include "tls.h"

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

    /** Whether an entry is for this receiver at all. */
    virtual bool takes(const Entry& entry) const;

    /** Hands an entry on. Throws SinkAway: then nothing is known of what was sent since the last
     * confirm(). */
    virtual void send(const Entry& entry) = 0;

    /** Returns once what was sent is at the receiver, as far as can be known. Throws SinkAway as
     * send() does. */
    virtual void confirm() = 0;

    /** Between batches: forgets what was sent and not confirmed, and says what is due. Throws
     * SinkAway as send() does.
     * @param isEnd all that waits is due */
    virtual void settle(bool isEnd);

    /** Events left out to spare the receiver, of which it does not know yet. */
    virtual U64_t suppressed() const { return 0; }
};

inline bool Sink::takes(const Entry& /*entry*/) const {
    return true;
}

inline void Sink::settle(bool /*isEnd*/) {}

/** How SNMP notifications go. */
struct SnmpOptions {
    std::string community = "public";
    U32_t rate = 60; ///< a minute, at most; 0: any number
};

/** Who the receiver is, and how it is spoken with. */
struct SinkOptions {
    std::string to; ///< as in the manual
    U32_t enterprise = 32'473;
    evgate::TlsFiles tls{};
    SnmpOptions snmp{};
    std::string tlsName{}; ///< of the receiver's certificate; empty: its address
};

/** Connects with the first event.
 * @param suppressed what suppressed() of an earlier one said
 * Throws std::invalid_argument for a receiver that is none, and
 * std::runtime_error for files that cannot be used. */
std::unique_ptr<Sink> openSink(const SinkOptions& options, U64_t suppressed);

} // namespace evbridge

#endif
