/**
 * @file
 * How far a blade's log has been handed on, which goes round.
 */
#ifndef EVBRIDGE_RING_PLACE_H
#define EVBRIDGE_RING_PLACE_H

#include "entry.h"
#include "evctl/filters/cursor.h"

namespace evbridge {

/** The last event of the log, whosever identity it bears, that was handed on. */
class RingPlace {
  public:
    /** "r1:INSTANCE.ID.TIME", hexadecimal; or "" before the first one. */
    std::string text() const;

    /** @return nothing for a text that is none */
    static std::optional<RingPlace> parse(const std::string& text);

    /** Adds the next event of the log, and in front of it that others between are gone. */
    void take(const sources::EventView& event, Entries& entries);

    const std::optional<evctl::LogMark>& last() const { return last_; }

  private:
    std::optional<evctl::LogMark> last_;
};

} // namespace evbridge

#endif
