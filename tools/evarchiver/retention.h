/**
 * @file
 * What an archive keeps at most: it goes by age, by bytes and by events a blade, oldest first.
 *
 * The newest event of a generation always stays: what follows it is told from what came before by
 * it. What goes was proven to be part of a run first, so that a blade whose log still begins there
 * is claimed as before.
 */
#ifndef EVARCHIVER_RETENTION_H
#define EVARCHIVER_RETENTION_H

#include "say.h"
#include "store.h"

namespace evarchive {

/** What an operator sets; 0: no bound. */
struct RetentionSettings {
    U32_t keepDays = 0;   ///< since an event was received
    U64_t maxBytes = 0;   ///< of the archive's file, so far as it is in use
    U64_t bladeQuota = 0; ///< events of one log

    bool isBound() const { return keepDays > 0 || maxBytes > 0 || bladeQuota > 0; }
};

/** Removes what is past its bound, a little at a time. */
class Retention {
  public:
    Retention(Store& store, const RetentionSettings& settings)
        : store_(store), settings_(settings) {}

    /** Begins a round over the whole archive. */
    void beginRound(S64_t now);

    bool isInRound() const { return isInRound_; }

    /** Goes on by one short transaction. Throws StoreError; the round is then over. */
    void step();

    U64_t removed() const { return removed_; }

  private:
    /** A generation by the time when its oldest event was received. */
    using ByAge = std::pair<S64_t, std::size_t>;

    bool work();
    bool removeByAge();
    bool removeByQuota();
    bool removeByBytes();
    U64_t remove(std::size_t index, S64_t before, U64_t most);
    U64_t eventsOf(const GenerationInfo& generation);
    void prove(GenerationInfo& generation);

    Store& store_;
    RetentionSettings settings_;
    std::vector<GenerationInfo> round_; ///< the generations of this round
    std::size_t at_ = 0;                ///< where in it, for age and quota
    std::vector<ByAge> ages_;           ///< a heap, the oldest on top, for bytes
    bool areAgesKnown_ = false;
    bool isInRound_ = false;
    S64_t now_ = 0;
    U64_t removed_ = 0;
};

} // namespace evarchive

#endif
