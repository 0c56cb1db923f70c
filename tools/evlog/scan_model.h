/**
 * @file
 * What the event manager makes of each step of the walk: its decisions and its positions, without
 * its file.
 */
#ifndef EVLOG_SCAN_MODEL_H
#define EVLOG_SCAN_MODEL_H

#include "evlog/evlog.h"
#include "evlog/search.h"

/** Fed with one search after the other until it has ended. */
class EvlogScanModel_t {
  public:
    explicit EvlogScanModel_t(const EvlogIdentity_t* identity) : identity_(identity) {}

    bool ended() const { return ended_; }
    const EvlogState_t& state() const { return state_; }

    /**
     * Takes the result of the search from @p readPosition.
     * @param header the record found, if one was
     * @return whether the event manager takes that record into its index
     */
    bool take(U32_t readPosition, const EvlogSearch_t& search, const EmpEvRecord_t* header);

    /** No search is made: the position is behind the end of the ring. */
    void takeNothing(U32_t readPosition);

  private:
    void stop(EVLOG_END_e end);
    void accept(EVLOG_END_e end);
    void bugcheck(EVLOG_VERDICT_e verdict, U32_t offset);
    bool takeRecord(U32_t readPosition, U32_t gap, const EmpEvRecord_t& header);
    void takeDummy(U32_t offset, const EmpEvRecord_t& header);
    void takeFirst(U32_t gap, const EmpEvRecord_t& header);
    void takeContinuous(U32_t gap, U32_t offset, const EmpEvRecord_t& header);
    void takeJump(U32_t readPosition, U32_t gap, const EmpEvRecord_t& header);
    void advanceWrite(U32_t gap, const EmpEvRecord_t& header);
    bool isForeign(const EmpEvRecord_t& header) const;
    void startAgain(EVLOG_VERDICT_e verdict);

    const EvlogIdentity_t* identity_;
    EvlogState_t state_;
    bool first_ = true;
    bool ended_ = false;
};

#endif
