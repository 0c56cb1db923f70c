/**
 * @file
 * Events of an archive on a PostgreSQL server.
 *
 * Those of all logs are listed by their arrival, then by log, generation and id. The index of
 * arrivals is one of stretches of a table: so a search goes back in stretches that grow, and narrow
 * where too many events came at once.
 */
#ifndef EVWEB_PG_EVENTS_H
#define EVWEB_PG_EVENTS_H

#include "pg_question.h"

namespace evweb {

Page searchEvents(PgConnection& connection, const Search& search, Clock::time_point deadline);

/** What @p search, which is of one generation, finds around an id. */
Page eventsAround(PgConnection& connection, Search search, U32_t id, Clock::time_point deadline);

std::optional<FoundEvent> oneEvent(PgConnection& connection, S64_t log, U32_t generation, U32_t id);

/** What came behind a place; without one the last few. */
Tail eventsSince(PgConnection& connection, const Search& search,
                 const std::optional<Position>& after, Clock::time_point deadline);

/** Counts into the timeline's buckets, newest first. @param isAllOrNothing ends as soon as there
 * is hardly time for all. @return whether all are counted */
bool countEvents(PgConnection& connection, const Search& search, Timeline& timeline,
                 Clock::time_point deadline, bool isAllOrNothing);

} // namespace evweb

#endif
