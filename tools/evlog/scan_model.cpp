#include "evlog/scan_model.h"

#include "emp_evl.h"

#include <cstring>

namespace {

constexpr U32_t FIRST_ENTRY_SIZE = EMP_RECORD_SIZE + sizeof(EmpEventData_t);

/** Length of the dummy entry that closes a log without one. */
U16_t closingDummyLength(U32_t readPosition) {
    // KEEP: 16-bit arithmetic and 3844, not 3848: what remains modulo 65,536 decides.
    constexpr U16_t longest = 3844;
    auto length = static_cast<U16_t>(EMP_LOG_LAST_HEADER - readPosition);
    return length > longest ? static_cast<U16_t>(EMP_DUMMY_TO_END) : length;
}

} // namespace

void EvlogScanModel_t::stop(EVLOG_END_e end) {
    state_.end = end;
    ended_ = true;
}

/** The log is kept as it is. */
void EvlogScanModel_t::accept(EVLOG_END_e end) {
    state_.verdict = state_.wrapOver ? EVLOG_E_VERDICT_WRAPPED : EVLOG_E_VERDICT_UNWRAPPED;
    stop(end);
}

void EvlogScanModel_t::bugcheck(EVLOG_VERDICT_e verdict, U32_t offset) {
    state_.verdict = verdict;
    state_.stopOffset = offset;
    stop(EVLOG_E_END_BUGCHECK);
}

/** A new log in the place of the old: the first entry and a dummy entry to the end. */
void EvlogScanModel_t::startAgain(EVLOG_VERDICT_e verdict) {
    state_.verdict = verdict;
    state_.empWrite = FIRST_ENTRY_SIZE;
    state_.empStart = EMP_LOG_FILE_SIZE;
    state_.empStartSequenceId = 0;
    state_.empSequenceId = 1;
    state_.empEventInLogFile = 1;
    state_.empEventAddToLogFile = 1;
    state_.wrapOver = false;
    state_.dummyOffset = FIRST_ENTRY_SIZE;
    state_.dummyLength = static_cast<U16_t>(EMP_DUMMY_TO_END);
}

void EvlogScanModel_t::takeNothing(U32_t readPosition) {
    if (first_) {
        startAgain(EVLOG_E_VERDICT_FRESH);
        stop(EVLOG_E_END_NOT_FOUND);
        return;
    }
    state_.dummyOffset = readPosition;
    state_.dummyLength = closingDummyLength(readPosition);
    accept(EVLOG_E_END_NOT_FOUND);
}

bool EvlogScanModel_t::take(U32_t readPosition, const EvlogSearch_t& search,
                            const EmpEvRecord_t* header) {
    if (search.badSource && (!search.cut || *search.badSource < *search.cut)) {
        state_.badSource = search.badSourceValue;
        bugcheck(EVLOG_E_VERDICT_BAD_SOURCE, *search.badSource);
        return false;
    }
    // A body cut off by the end of the file ends the search, whatever may follow.
    if (search.cut || !search.found) {
        takeNothing(readPosition);
        return false;
    }
    U32_t gap = *search.found - readPosition;
    if (gap != 0 && state_.foundGap) {
        state_.stopOffset = *search.found;
        startAgain(EVLOG_E_VERDICT_REBUILT);
        state_.foundGap = false;
        stop(EVLOG_E_END_CLEARED);
        return false;
    }
    state_.foundGap = state_.foundGap || gap != 0;
    return takeRecord(readPosition, gap, *header);
}

bool EvlogScanModel_t::takeRecord(U32_t readPosition, U32_t gap, const EmpEvRecord_t& header) {
    U32_t offset = readPosition + gap;
    if (evlogIsDummy(header) || evlogBeyondEnd(state_.empStart, EMP_RECORD_SIZE)) {
        takeDummy(offset, header);
        return false;
    }
    if (first_ && isForeign(header)) {
        state_.empInstanceNumber = header.evInstanceNumber + 1;
        startAgain(EVLOG_E_VERDICT_FOREIGN);
        stop(EVLOG_E_END_CLEARED);
        return false;
    }
    if (first_) {
        takeFirst(gap, header);
    } else if (header.evSequenceId == state_.empSequenceId) {
        takeContinuous(gap, offset, header);
    } else {
        takeJump(readPosition, gap, header);
    }
    if (ended_) {
        return false;
    }
    state_.empEventInLogFile++;
    if (offset + evlogRecordLength(header) == EMP_LOG_FILE_SIZE) {
        accept(EVLOG_E_END_FULL);
    }
    return true;
}

void EvlogScanModel_t::takeDummy(U32_t offset, const EmpEvRecord_t& header) {
    bool dummy = evlogIsDummy(header);
    if (first_ || !state_.wrapOver) {
        state_.empStart = EMP_LOG_FILE_SIZE;
    }
    if (dummy) {
        state_.dummyOffset = offset;
        state_.dummyLength = header.evStructLength;
    }
    accept(dummy ? EVLOG_E_END_DUMMY : EVLOG_E_END_NO_ROOM);
}

bool EvlogScanModel_t::isForeign(const EmpEvRecord_t& header) const {
    if (identity_ == nullptr) {
        return false;
    }
    return strncmp(reinterpret_cast<const char*>(header.evEnclosureId),
                   reinterpret_cast<const char*>(identity_->enclosureId), EMP_ID_TEXT_SIZE) != 0 ||
           header.evSlotId != identity_->slotId;
}

void EvlogScanModel_t::advanceWrite(U32_t gap, const EmpEvRecord_t& header) {
    if (!state_.wrapOver) {
        state_.empWrite += evlogRecordLength(header) + gap;
        state_.empStart = state_.empWrite;
    }
}

void EvlogScanModel_t::takeFirst(U32_t gap, const EmpEvRecord_t& header) {
    state_.empInstanceNumber = header.evInstanceNumber;
    advanceWrite(gap, header);
    state_.empStartSequenceId = header.evSequenceId;
    state_.empSequenceId = header.evSequenceId + 1;
    first_ = false;
}

void EvlogScanModel_t::takeContinuous(U32_t gap, U32_t offset, const EmpEvRecord_t& header) {
    advanceWrite(gap, header);
    state_.empSequenceId++;
    if (gap != 0) {
        bugcheck(EVLOG_E_VERDICT_CONTINUOUS_WITH_GAP, offset);
    }
}

void EvlogScanModel_t::takeJump(U32_t readPosition, U32_t gap, const EmpEvRecord_t& header) {
    U32_t id = header.evSequenceId;
    if (state_.empStartSequenceId > id) {
        state_.wrapOver = true;
        state_.empWrite = readPosition;
        state_.empStart = readPosition;
        state_.empStartSequenceId = id;
    }
    if (id < state_.empSequenceId && !state_.wrapOver) {
        bugcheck(EVLOG_E_VERDICT_INVALID_SEQUENCE, readPosition + gap);
        return;
    }
    // KEEP: empSequenceId stays, so that every older record comes this way too.
    state_.empStart += gap;
}
