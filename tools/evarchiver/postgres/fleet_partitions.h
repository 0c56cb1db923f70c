/**
 * @file
 * The partitions of an archive's events by their names, and the clocks that they go by.
 */
#ifndef EVARCHIVER_FLEET_PARTITIONS_H
#define EVARCHIVER_FLEET_PARTITIONS_H

#include "fleet_owner.h"

namespace evarchive {

constexpr S64_t DAY_SECONDS = 86'400;

/** Days, from 1970-01-01 on: the first, and the one behind the last. */
struct Days {
    S64_t first = 0;
    S64_t end = 0;

    S64_t count() const { return end - first; }
    bool operator==(const Days&) const = default;
};

/** Of a partition, in days, where events are kept for so many. */
S64_t widthOf(S64_t retention);

/** "events_20261122_3": from that day on, three days. */
std::string nameOf(const Days& days);

/** Of a partition's name; nothing for that of the default one. */
std::optional<Days> daysOf(const std::string& name);

/** A day's beginning as the server reads it, to the second. */
std::string boundOf(S64_t day);

/** Names, and whether they are frozen. */
constexpr PgStatement PARTITIONS{
    "partitions", "SELECT c.relname::text, coalesce(obj_description(c.oid, 'pg_class') = 'frozen', "
                  "false) FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
                  "WHERE i.inhparent = 'events'::regclass ORDER BY 1"};

constexpr char NO_RETENTION[] =
    "how long events are kept is not written down; \"evarchiver db maintain --retention-days\" does";

/** Days that events are kept; 0: it is not written down. */
S64_t retentionOf(FleetOwner& owner);

/** So many seconds, for people. */
std::string secondsText(S64_t seconds);

/** How far the clock is ahead of the server's, if that is more than clocks may differ; else 0. */
S64_t clockError(FleetOwner& owner, S64_t now);
std::string clockText(S64_t error);

} // namespace evarchive

#endif
