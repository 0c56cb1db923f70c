/**
 * @file
 * The events of an archive on a PostgreSQL server in the order in which they came.
 *
 * Transactions that file end in another order than they began, and some late: a commit waits for a
 * standby as long as it takes, which no time-out of a statement ends. So nothing is read of a time
 * of which a transaction may still bring something: every transaction draws a number before it
 * files, later than that it reads the clock, and the server tells which numbers are still at work.
 * What has come in front of a look is complete when all numbers drawn before it are done with.
 *
 * That takes a clock which never goes back. What a server's clock is set back, and what the one of
 * the server that takes over is behind, is made good by staying behind the clock by some seconds.
 */
#ifndef EVARCHIVER_PG_ARRIVALS_H
#define EVARCHIVER_PG_ARRIVALS_H

#include "pg_connection.h"

#include <compare>
#include <deque>

namespace evarchive {

/** A place among them: behind one event, in front of the next. */
struct ArrivalPlace {
    S64_t received = INT64_MIN; ///< microseconds since 2000-01-01 UTC, of the server's clock
    SeriesNumber log = INT64_MIN;
    S64_t generation = 0;
    S64_t id = 0;

    auto operator<=>(const ArrivalPlace&) const = default;
};

/** An event of a log of its own, none that is doubtful: it comes when it is no more. */
struct ArrivedEvent {
    SeriesKey key;
    U32_t generation = 0;
    U32_t sequenceId = 0;
    Bytes image;
};

/** One server. Calls throw StoreError; it connects at the first one. */
class PgArrivals {
  public:
    /** @param lag      by which it stays behind the server's clock
     * @param patience that a statement may take; a server that does not answer in that time is
     * away */
    PgArrivals(const std::string& place, std::chrono::microseconds lag,
               std::chrono::milliseconds patience = std::chrono::seconds(15));

    /** The server's clock. */
    S64_t now();

    /** Up to @p most events behind a place, which goes on to behind the last one; or, if nothing
     * more is there, to a time that nothing comes in front of any more. Looks at a stretch of time
     * at once: nothing is all there is only if complete() is not further on. */
    std::vector<ArrivedEvent> take(ArrivalPlace& place, std::size_t most);

    /** Nothing comes in front of that any more, as far as the last take() has seen. */
    S64_t complete() const { return complete_; }

    /** Since when something that may come holds up everything behind it; nothing: nothing does. */
    std::optional<S64_t> waitsSince() const;

  private:
    void look();
    S64_t endOf(const ArrivalPlace& place);

    struct Mark {
        S64_t time;   ///< of the server
        S64_t number; ///< drawn behind it, by a transaction
    };

    PgConnection connection_;
    S64_t lag_;
    std::deque<Mark> marks_; ///< ascending, not complete yet
    S64_t complete_ = INT64_MIN;
    S64_t stretch_;
};

} // namespace evarchive

#endif
