/**
 * @file
 * The copies of new events that the event manager sends to the management interface, kept while
 * older events are still being asked for.
 */
#ifndef EVCTL_COPIES_H
#define EVCTL_COPIES_H

#include "evctl/wire/inquiry.h"

#include <deque>
#include <map>

namespace evctl {

/** How far the events of a log have been shown. */
struct LogPosition {
    LogIdentity log;
    U32_t sequenceId = 0;              ///< the last one shown
    std::map<U32_t, U32_t> shown = {}; ///< of this instance: ids, and their events' times

    /** @return whether an event is one of this log, or of its next instance, not yet shown: also
     * of an id that was, when the log has begun again */
    bool isBefore(const EmpEvLogHeader_t& header) const;

    /** An event of the log has been shown. */
    void moveTo(const EmpEvLogHeader_t& header);
};

/** Listens as the management interface from its construction on. */
class Copies {
  public:
    /** Throws SessionError. */
    explicit Copies(const std::string& directory);

    /** Takes in what has come, without waiting, and forgets what has been shown meanwhile. */
    void takeIn(const LogPosition& shown);

    /** The next event that has not been shown; waits for it, or for the deadline: nothing. Throws
     * SessionError. */
    std::optional<Bytes> next(const LogPosition& shown, Deadline deadline = std::nullopt);

  private:
    void keep(Bytes message);
    void forget(const LogPosition& shown);

    Session session_;
    std::deque<Bytes> kept_; // whole event messages
};

} // namespace evctl

#endif
