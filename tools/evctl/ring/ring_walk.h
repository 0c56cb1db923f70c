/**
 * @file
 * A walk along the log of a running blade that asks for nothing but what is there.
 */
#ifndef EVCTL_RING_WALK_H
#define EVCTL_RING_WALK_H

#include "evctl/wire/inquiry.h"

#include <optional>

namespace evctl {

/**
 * What an event manager cannot answer from its own log it asks the archiver for, which it allows
 * itself only some times in its life. So first its newest and oldest event are asked for, and then
 * only the ones between; near the oldest one, which may go at any time, it is asked for each time.
 * Every function throws SessionError.
 */
class RingWalk {
  public:
    /** @param log the blade's own; its instance is found out */
    RingWalk(Requester& requester, const LogIdentity& log) : requester_(requester), log_(log) {}

    /** The newest event. Before the others, and again to see what has come since. */
    InquiryAnswer newest();

    /** The oldest event. */
    InquiryAnswer oldest();

    /** The event behind the one with @p id, which is older than the newest one; the oldest one when
     * that has gone meanwhile. Nothing when the event manager refuses it, or goes back. */
    std::optional<InquiryAnswer> behind(U32_t id);

    /** The log with the instance that newest() found. */
    const LogIdentity& log() const { return log_; }

  private:
    Requester& requester_;
    LogIdentity log_;
    U32_t oldestId_ = 0;
};

} // namespace evctl

#endif
