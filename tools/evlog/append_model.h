/**
 * @file
 * What the event manager makes of the events that follow its start: its appends, on a log in
 * memory, up to the bug-check in which one of them ends.
 */
#ifndef EVLOG_APPEND_MODEL_H
#define EVLOG_APPEND_MODEL_H

#include "evlog/evlog.h"

#include <optional>
#include <vector>

/** A log after the event manager's scan. Every bug-check that an append can end in because of what
 * stands in the file is modelled, failing system calls are not. */
class EvlogAppendModel_t {
  public:
    /**
     * @param image   the file
     * @param state   what evlogWalk() gave; the event manager has come up with the file
     * @param records what evlogWalk() gave, those that are taken among them
     */
    EvlogAppendModel_t(const EvlogImage_t& image, const EvlogState_t& state,
                       const std::vector<EvlogRecord_t>& records);

    /**
     * Appends an event of source 28 and id 0.
     * @param dataLength at most 3848
     * @return nothing; or the message of the bug-check in which it ends. No further event may
     * follow then.
     */
    const char* append(U32_t dataLength);

    /** @return the message, or its beginning, of the bug-check in which an inquiry for the first or
     * the last event ends, or nothing */
    const char* inquiryBugcheck() const;

    U32_t nextSequenceId() const { return sequenceId_; }
    U32_t wraps() const { return wraps_; } ///< how often the log has gone round its end

    /** Crafted files make every search long: nobody need wait for what follows. */
    bool isTiring() const { return looked_ > LOOKED_MAX; }

  private:
    static constexpr U64_t LOOKED_MAX = 64U << 20;

    struct Slot_t {
        bool valid = false;
        U32_t offset = 0;
    };

    const char* makeRoomInGap();
    const char* discardInGap(U32_t position);
    const char* makeRoomAtStart();
    const char* wrapToTop(U32_t newId);
    void discardFromTop(U32_t newId);
    const char* discard(const EmpEvRecord_t& header);
    void forgetOldest(U32_t slot);
    std::optional<U32_t> findFrom(U32_t start, const char** bugcheck);
    const EmpEvRecord_t* headerAt(U32_t offset) const;
    void writeRecord(U32_t id, U32_t dataLength);
    void writeDummy(U32_t offset, U32_t length, bool fill);
    void writeBytes(U32_t offset, std::span<const U8_t> bytes);
    void writeZeros(U32_t offset, U32_t length);

    std::vector<U8_t> bytes_;
    std::vector<Slot_t> index_;
    U32_t write_;
    U32_t start_;
    U32_t startId_;
    U32_t sequenceId_;
    bool wrapOver_;
    U32_t wraps_ = 0;
    U64_t looked_ = 0; ///< bytes of records that were none
    U16_t need_ = 0;   ///< of the event that is appended, modulo 65,536
};

#endif
