/**
 * @file
 * The database of a shared archive as its owner sees it: made, brought up to date, kept in shape.
 */
#ifndef EVARCHIVER_FLEET_DATABASE_H
#define EVARCHIVER_FLEET_DATABASE_H

#include "fixed_width.h"

#include <ostream>
#include <string>
#include <vector>

namespace evarchive {

/** Days that events are kept where nothing else was said. */
constexpr U32_t USUAL_RETENTION_DAYS = 30;
constexpr U32_t LONGEST_RETENTION_DAYS = 36'500;

/** What an owner's idea of the time is worth: what retention takes by a wrong clock is gone. */
enum class Clock {
    AS_TOLD,  ///< it is the time, whatever the server's clock says
    COMPARED, ///< not if the server's differs; and nothing goes when much time has passed since the
              ///< last round of upkeep, or less than none
    RIGHT,    ///< not if the server's differs; somebody says that so much time has passed
};

/** Brings an archive of an earlier layout up to date, and its views and roles in any case. @return
 * the layout that it had */
S64_t upgradeFleet(const std::string& place);

/** What a round of maintenance did. */
struct FleetUpkeep {
    std::vector<std::string> made;    ///< partitions
    std::vector<std::string> dropped; ///< partitions, with all their events
    std::vector<std::string> recut;   ///< partitions ahead, too wide or too far: no event went
    U64_t moved = 0;                  ///< events from the default partition into one of their time
    U64_t frozen = 0;                 ///< partitions that nothing comes into any more
    U64_t removed = 0;                ///< events of the default partition, past retention
    U64_t removedAside = 0;           ///< events that had been set aside, past retention
    std::vector<std::string> failed;  ///< what could not be done, and why: the next round tries

    FleetUpkeep& operator+=(const FleetUpkeep& other);
};

/** Makes tables, views, roles and the first partitions in an empty database. Throws StoreError,
 * also when there is an archive already, or when the server's clock is another one. @return the
 * first round of maintenance */
FleetUpkeep createFleet(const std::string& place, U32_t retentionDays, S64_t now,
                        Clock clock = Clock::AS_TOLD);

/**
 * Makes partitions ahead, drops those past retention. One at a time: another one that runs lets
 * this one fail with a passing StoreError. Archivers go on meanwhile; it waits for them, but keeps
 * them waiting for moments only. Of a hub: that of each of its servers.
 * @param retentionDays kept from now on; 0: as before
 * @param now           seconds since 1970-01-01 UTC
 */
FleetUpkeep maintainFleet(const std::string& place, U32_t retentionDays, S64_t now,
                          Clock clock = Clock::AS_TOLD);

/** What an owner should know beside the events: how many lie in no partition of their time, whether
 * commits wait for a standby, whether partitions are there for the days to come, whether clocks
 * differ. @return findings
 */
U64_t describeFleet(const std::string& place, S64_t now, std::ostream& out,
                    Clock clock = Clock::AS_TOLD);

} // namespace evarchive

#endif
