/**
 * @file
 * The log of a simulated blade. No event is kept: each one follows from the seed, the blade, how
 * often its log was rebuilt, and the id, so that a sender needs no memory for it and a check can
 * say byte for byte what an archive must hold.
 */
#ifndef EVFLEET_SIMULATED_LOG_H
#define EVFLEET_SIMULATED_LOG_H

#include "emp_mesgs.h"

#include <cstddef>
#include <string>
#include <vector>

namespace evfleet {

using Bytes = std::vector<U8_t>;

/** What all logs of a fleet have in common. */
struct LogShape {
    U64_t seed = 1;
    std::string enclosure = "FLEET"; ///< the enclosure of all blades, at most 63 bytes
    U32_t smallest = 100;            ///< bytes of event data, at least; the log's oldest has more
    U32_t largest = 100;             ///< and at most, 0 to 3848
    U32_t ring = 6000;               ///< events that a log holds; the oldest is overwritten
    U32_t epoch = 0;                 ///< evTime of id 1, seconds since 1970-01-01 UTC
    U32_t clockError = 0;            ///< blades' clocks are wrong by up to so many seconds
    U32_t clockJumps = 0;            ///< events after which a blade's clock jumps; 0: never
    bool beginsAlike = false;        ///< a log that was lost begins with the same event as before
};

/** One blade's log: the ids that it holds now. */
class SimulatedLog {
  public:
    /** @param blade number of the blade in the fleet, from 0 */
    SimulatedLog(const LogShape& shape, U32_t blade) : shape_(&shape), blade_(blade) {}

    U32_t blade() const { return blade_; }
    U32_t first() const { return first_; }     ///< oldest id held
    U32_t next() const { return next_; }       ///< id that the next event receives
    U32_t rebuilt() const { return rebuilt_; } ///< times that the log began anew

    /** Ids that an archiver claimed to hold, both included. */
    struct Claim {
        U32_t first;
        U32_t last;
    };

    /** What was claimed of the present log, ascending, also of what it has overwritten since. */
    const std::vector<Claim>& claims() const { return claims_; }

    /** Events that were claimed and that claims() does not have: of logs that were lost, and of
     * more than MOST_CLAIMS runs. */
    U64_t claimsForgotten() const { return claimsForgotten_; }

    /** An archiver claims to hold the events from the oldest up to and including @p last. */
    void noteClaim(U32_t last);

    /** Logs @p count further events. */
    void log(U32_t count);

    /** The log is lost and counts from 1 again, with one event. */
    void rebuild();

    /** Drops the events up to and including @p last, but for the newest. */
    void clear(U32_t last);

    /** Appends the body of an event (152 bytes and its data) to @p bytes. Any id from 1 on can be
     * asked for, of this log as it was before @p rebuilt rebuildings as well. */
    void appendEvent(Bytes& bytes, U32_t id, U32_t rebuilt) const;

    /** The same with the 16 bytes of the message header before it. */
    void appendEventMessage(Bytes& bytes, U32_t id) const;

    /** Appends a status request, 196 bytes. */
    void appendStatusRequest(Bytes& bytes, U32_t handle) const;

    /** Whether this event is the same one in all the blade's logs. */
    bool isAlike(U32_t id) const { return shape_->beginsAlike && id == 1; }

    /** The blade's name: "SIM-" and its number. */
    std::string bladeName() const;

    static constexpr U32_t INSTANCE = 1;

    /** Runs of claimed events that are kept. There is a further one when the log has gone round
     * since the claim before, so they are few. */
    static constexpr std::size_t MOST_CLAIMS = 16;

  private:
    U32_t sizeOf(U32_t id, U32_t rebuilt) const;
    U64_t randomOf(U32_t id, U32_t rebuilt) const;
    U32_t timeOf(U32_t id) const;
    void forgetClaim();

    const LogShape* shape_;
    U32_t blade_;
    U32_t first_ = 1;
    U32_t next_ = 2;
    U32_t rebuilt_ = 0;
    std::vector<Claim> claims_;
    U64_t claimsForgotten_ = 0;
};

/** The number in a blade's name. @return -1 when it is no name of a simulated blade */
int bladeNumberOf(const std::string& name);

} // namespace evfleet

#endif
