/**
 * @file
 * Logs that the storage refuses for what they are, while it takes all others.
 *
 * What comes of such a log is not kept: its links are closed, and their blades keep what they have
 * and come again. So that blades who come at once are no burden, the storage is not asked about the
 * log again for a while.
 */
#ifndef EVARCHIVER_REFUSALS_H
#define EVARCHIVER_REFUSALS_H

#include "batch.h"

#include <map>
#include <set>

namespace evarchive {

/** Those of one lane. One thread uses it. */
class Refusals {
  public:
    /** @param pause how long the storage is not asked again */
    explicit Refusals(std::chrono::milliseconds pause) : pause_(pause) {}

    /** The storage has refused a log. @return false: that was known */
    bool add(const SeriesKey& log);

    /** Whether a request is of a link that brought something of such a log, or brings it.
     * @param archive tells where events belong */
    bool concerns(const Batch::Request& request, View body, const Archive& archive) const;

    /** Notes the link of such a request. @return whether it is new: it is to be closed */
    bool addLink(LinkNumber link) { return links_.insert(link).second; }

    /** It has ended, and its number may be another one's. */
    void endLink(LinkNumber link) { links_.erase(link); }

  private:
    using Clock = std::chrono::steady_clock;

    std::chrono::milliseconds pause_;
    std::map<SeriesKey, Clock::time_point> logs_; ///< until when
    std::set<LinkNumber> links_;
};

} // namespace evarchive

#endif
