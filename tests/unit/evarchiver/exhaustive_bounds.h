/**
 * @file
 * What can happen in a world, and how often.
 */
#ifndef EXHAUSTIVE_BOUNDS_H
#define EXHAUSTIVE_BOUNDS_H

#include "store.h"

#include <ostream>

namespace exhaustive {

using namespace evarchive;

struct Bounds {
    U32_t processes = 1; ///< 2: they share the storage
    U32_t log = 3;       ///< events in the blade's log
    U32_t rebuilds = 1;
    U32_t connects = 3;
    U32_t failures = 1;        ///< commits that fail, and deaths of an archiver
    unsigned depth = 9;        ///< actions
    bool isUnderWay = false;   ///< the blade has sent two events when it begins
    bool isSlow = false;       ///< nothing is seen behind an event before the next one comes
    U32_t damaged = 0;         ///< events that come damaged, where the blade is slow
    U32_t missed = 0;          ///< events that the log's ring has gone round over when it begins
    U32_t overwritten = 0;     ///< events that the log's ring goes round over
    U32_t expired = 0;         ///< how often retention takes the oldest event
    U32_t sheddings = 0;       ///< links that are closed because their next event finds no room
    U32_t locks = 0;           ///< how often somebody keeps the blade's log locked
    U32_t lateCommits = 0;     ///< commits of a lost connection that are made later
    bool hasNeighbour = false; ///< another blade, on the first process, whose events go with it
};

[[maybe_unused]] void PrintTo(const Bounds& bounds, std::ostream* out) {
    *out << bounds.processes << " processes, depth " << bounds.depth;
}

enum BladeAction : unsigned {
    LOG,
    REBUILD,
    SEND,
    SEND_AND_CUT,
    CUT,
    SEND_DAMAGED,
    TAKE_BACK,
    EXPIRE,
    SEND_OF_NEIGHBOUR,
    SHED,
    LOCK,
    LET_GO,
    MAKE_LATE_COMMIT,
    OVERWRITE,
    BLADE_ACTIONS
};
enum ProcessAction : unsigned {
    CONNECT,
    WORK,
    COMMIT,
    FAIL,
    FAIL_UNHEARD, ///< what seems to have failed is safe
    FAIL_LATE,    ///< or will be
    DIE,
    PROCESS_ACTIONS
};

} // namespace exhaustive

#endif
