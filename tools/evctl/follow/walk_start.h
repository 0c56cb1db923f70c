/**
 * @file
 * Where a walk along the blade's log begins that goes on behind a cursor.
 */
#ifndef EVCTL_WALK_START_H
#define EVCTL_WALK_START_H

#include "evctl/filters/cursor.h"
#include "evctl/wire/inquiry.h"

#include <optional>

namespace evctl {

/** What is next behind it has not been read yet. */
struct WalkStart {
    U32_t sequenceId = 0;
    std::optional<InquiryAnswer> event; ///< of that id, while it is there
};

/** Asks the event manager for the event of the cursor, or for the place of one that is gone.
 * @return nothing when the log is not in the cursor, or has begun again: all of it is new. Throws
 * SessionError */
std::optional<WalkStart> startBehind(Requester& requester, const LogIdentity& log,
                                     const Cursor& cursor);

} // namespace evctl

#endif
