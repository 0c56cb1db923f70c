/**
 * @file
 * Many real event managers that log at a steady rate. One thread plays the message switches of all.
 */
#ifndef FLEET_CROWD_H
#define FLEET_CROWD_H

#include "blade.h"
#include "store.h"

#include <chrono>
#include <deque>

namespace fleet {

/** How a crowd fared for a while. */
struct Intake {
    double perSecond = 0; ///< events that one took, the mean of those with an archiver
    double alone = 0;     ///< the same of those without one, beside them
    std::chrono::milliseconds worst{0}; ///< from an event's sending to its copy, of those with one
};

class Crowd {
  public:
    using Clock = std::chrono::steady_clock;

    /** Starts so many, and some more that are never told of an archiver: what slows these too is
     * the machine, not what lies behind the others. @param rate events a second of each */
    Crowd(U32_t size, U32_t alone, double rate);
    ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /** Names the archiver to those that have one, as the management interface does: they connect at
     * once. */
    void connectTo(const std::string& address, U16_t port);

    /** Logs until the time is over and, if there is a condition, that has come true too. Ends when
     * every event sent has been taken. */
    Intake log(Clock::duration atLeast, const std::function<bool()>& until = {});

    /** Lets the loops of all go round some times. Each time an event that waits is forwarded. */
    void pass();

    /** How many have not died. */
    std::size_t countAlive();

    /** How many of those with an archiver have all that stands in their logs in the archive, byte
     * for byte. Nothing must be under way. */
    std::size_t countArchived(evarchive::StoreReader& archive);

  private:
    struct One;

    void ask(const support::Bytes& request);
    void send(Clock::time_point begin, Clock::time_point now);
    void read(int milliseconds);
    void take(One& one);
    double perSecond(std::size_t first, std::size_t behind, Clock::duration time) const;

    std::size_t size_; ///< of the first ones, which have an archiver
    double rate_;
    std::deque<One> all_;
    Clock::duration worst_{};
};

} // namespace fleet

#endif
