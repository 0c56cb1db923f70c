/**
 * @file
 * Bug-checks in an event log: which of its records belong to one.
 *
 * A bug-check leaves 24 events, ids 11 to 34 of the event manager, each in a file of its own. The
 * next start takes them into the log in the order of their times; those of one second come in any
 * order, mixed with those of another bug-check of that second. Until then they wait in their files.
 */
#ifndef EVCTL_CRASH_H
#define EVCTL_CRASH_H

#include "emp_evl.h"
#include "evlog/evlog.h"

#include <array>
#include <bitset>
#include <span>
#include <vector>

namespace evctl {

constexpr U32_t CRASH_FIRST_ID = EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG;
constexpr U32_t CRASH_INDEX_ID = EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE;
constexpr size_t CRASH_RECORDS = EMP_E_ID_EVENTMGRMP_NEXT_ID - CRASH_FIRST_ID;
static_assert(CRASH_RECORDS == 24);

/** The records of one bug-check; the pointers lead to records given to findCrashes(). */
struct Crash {
    std::array<const EvlogRecord_t*, CRASH_RECORDS> records{}; ///< by id from 11 on; null: missing
    std::bitset<CRASH_RECORDS> waiting{}; ///< those that are not in the log yet, and have no ids

    const EvlogRecord_t* record(U32_t id) const { return records.at(id - CRASH_FIRST_ID); }
};

/** Bytes of data of the event with an id from 11 to 34. */
U32_t crashDataLength(U32_t id);

/**
 * Puts the records of bug-checks together; at least one record makes one.
 *
 * What cannot be told apart is given out in the order of the sequence ids: which of several events
 * of one id and one second belongs to which bug-check.
 * @param records of a log, oldest first, others among them; must outlive the result
 * @param waiting those of files that the next start will take, in the order of their replay; of a
 * bug-check that is in the log, too, they are passed over: a copy of a directory may hold both
 * @return oldest first
 */
std::vector<Crash> findCrashes(std::span<const EvlogRecord_t> records,
                               std::span<const EvlogRecord_t> waiting = {});

} // namespace evctl

#endif
