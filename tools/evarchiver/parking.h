/**
 * @file
 * Work that waits because somebody keeps its log locked, while that of others goes on.
 *
 * What a link or a log has waiting holds up all that follows of the same link or log: the events of
 * a log stay in their order, and nobody is answered before what he sent is filed.
 */
#ifndef EVARCHIVER_PARKING_H
#define EVARCHIVER_PARKING_H

#include "batch.h"

#include <memory>
#include <set>

namespace evarchive {

/** The logs that a request changes. @param archive tells where events belong */
std::vector<SeriesKey> logsOf(const Batch::Request& request, View body, const Archive& archive);

/** The work of one lane that waits. One thread uses it. */
class Parking {
  public:
    bool isEmpty() const { return locked_.empty(); }

    /** The logs that are locked, which all that waits waits for. */
    const std::vector<SeriesKey>& locked() const { return locked_; }

    /** Further logs are. @return whether any of them is new */
    bool lock(const std::vector<SeriesKey>& logs);

    /** Whether a request has to wait. @param archive tells where events belong */
    bool mustWait(const Batch::Request& request, View body, const Archive& archive) const;

    /** Takes a request over, if it has to. */
    bool take(const Batch::Request& request, View body, const Archive& archive);

    /** Only these are locked by now. @return all that has waited; what has to wait further is to be
     * handed over again, before anything that comes later */
    std::unique_ptr<Batch> release(const std::vector<SeriesKey>& stillLocked);

    /** The links that what waits came on and that were not asked for yet. */
    std::vector<LinkNumber> takeLinks();

    bool hasWork() const { return !waiting_->isEmpty(); }

    /** When the first of it came. Only if there is any. */
    std::chrono::steady_clock::time_point since() const { return waiting_->handedOver; }

  private:
    std::vector<SeriesKey> locked_;
    std::set<SeriesKey> logs_; ///< that are locked, or have something waiting
    std::set<LinkNumber> links_;
    std::set<LinkNumber> taken_; ///< of them
    std::unique_ptr<Batch> waiting_ = std::make_unique<Batch>();
};

} // namespace evarchive

#endif
