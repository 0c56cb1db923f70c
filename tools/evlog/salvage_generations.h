/**
 * @file
 * Which of the logs that a salvage is given are states of one and the same: a log that was cleared
 * or rebuilt begins its ids anew and is another generation.
 */
#ifndef EVLOG_SALVAGE_GENERATIONS_H
#define EVLOG_SALVAGE_GENERATIONS_H

#include "evlog/salvage_events.h"

namespace salvage {

/** Generations, in the order of their first sources; each one sorted, with unique keys. */
class Generations_t {
  public:
    /** @param owner whose logs are taken @param left receives what is not */
    Generations_t(Owner_t owner, Left_t& left) : owner_(std::move(owner)), left_(left) {}

    /** Merges a log into the generation that it belongs to, or begins one with it. */
    void join(Events_t log);

    std::vector<Events_t> take() { return std::move(generations_); }

    /** Events that several logs had alike. */
    U32_t repeated() const { return repeated_; }

  private:
    void mergeInto(Events_t& generation, const Events_t& log);

    Owner_t owner_;
    Left_t& left_;
    std::vector<Events_t> generations_;
    U32_t repeated_ = 0;
};

/** Ids so far apart that marks could never close the hole are of no one log: the most events, of
 * equally many the newest, are kept. @param left receives the others */
Events_t largestChain(const Events_t& events, Left_t& left);

} // namespace salvage

#endif
