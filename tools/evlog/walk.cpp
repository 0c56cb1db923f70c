#include "evlog/evlog.h"

#include "emp_evl.h"
#include "evlog/scan_model.h"
#include "evlog/search.h"
#include "mmsg.h"

#include <algorithm>

namespace {

bool isFirstEntry(const EmpEvRecord_t& header) {
    return header.evSource == MMSG_E_EPID_EVENTLOGMP && header.evId == EMP_E_ID_EVENTMGRMP_FIRST;
}

class Walk_t {
  public:
    Walk_t(const EvlogImage_t& image, const EvlogCallbacks_t& callbacks,
           const EvlogIdentity_t* identity)
        : bytes_(image.bytes), fileSize_(image.fileSize), callbacks_(callbacks), finder_(bytes_),
          model_(identity) {}

    EvlogState_t run();

  private:
    bool step();
    void judgeGap(const EvlogSearch_t& search, const EmpEvRecord_t& next);
    bool isOrdinaryGap(const EmpEvRecord_t& next) const;
    void judgeSequence(U32_t offset, const EmpEvRecord_t& header);
    void judgeTail(const EvlogSearch_t& search);
    void judgeBehindDummy(U32_t from);
    void judgeSize();
    void takeRecord(U32_t offset, const EmpEvRecord_t& header, bool taken);
    void report(U64_t offset, U64_t bytes, EVLOG_REASON_e reason);
    bool allZero(U32_t from, U32_t to) const;
    U32_t ringEnd() const;

    std::span<const U8_t> bytes_;
    U64_t fileSize_;
    const EvlogCallbacks_t& callbacks_;
    EvlogFinder_t finder_;
    EvlogScanModel_t model_;

    U32_t readPosition_ = 0;
    bool any_ = false;                  // a record, not a dummy entry, has been met
    bool startsWithFirstEntry_ = false; // the log has never gone round its end
    bool wrapped_ = false;              // the oldest records have begun
    U32_t topId_ = 0;                   // sequence id of the first record
    U32_t expectedId_ = 0;              // that follows the last record
};

EvlogState_t Walk_t::run() {
    while (step()) {
    }
    judgeSize();
    return model_.state();
}

/** One search and what follows from it. @return whether to go on */
bool Walk_t::step() {
    if (readPosition_ > EMP_LOG_FILE_SIZE) {
        if (!model_.ended()) {
            model_.takeNothing(readPosition_);
        }
        return false;
    }
    EvlogSearch_t search = finder_.next(readPosition_);
    const EmpEvRecord_t* header = search.found ? evlogHeaderAt(bytes_, *search.found) : nullptr;
    bool taken = !model_.ended() && model_.take(readPosition_, search, header);
    if (header == nullptr) {
        judgeTail(search);
        return false;
    }
    if (*search.found != readPosition_) {
        judgeGap(search, *header);
    } else {
        judgeSequence(*search.found, *header);
    }
    takeRecord(*search.found, *header, taken);
    if (evlogIsDummy(*header)) {
        judgeBehindDummy(*search.found + EMP_RECORD_SIZE);
        return false;
    }
    return readPosition_ != EMP_LOG_FILE_SIZE;
}

void Walk_t::takeRecord(U32_t offset, const EmpEvRecord_t& header, bool taken) {
    bool dummy = evlogIsDummy(header);
    U32_t id = header.evSequenceId;
    if (!dummy && !any_) {
        any_ = true;
        topId_ = id;
        startsWithFirstEntry_ = offset == 0 && isFirstEntry(header);
    } else if (!dummy && id < topId_) {
        wrapped_ = true;
    }
    EVLOG_ROLE_e role = wrapped_ ? EVLOG_E_ROLE_OLDEST : EVLOG_E_ROLE_NEWEST;
    U32_t bodyLength = evlogBodyLength(header);
    if (callbacks_.onRecord) {
        callbacks_.onRecord({.offset = offset,
                             .header = &header,
                             .body = bytes_.subspan(offset + EMP_RECORD_SIZE, bodyLength),
                             .role = dummy ? EVLOG_E_ROLE_DUMMY : role,
                             .taken = taken});
    }
    if (!dummy) {
        expectedId_ = id + 1;
        readPosition_ = offset + EMP_RECORD_SIZE + bodyLength;
        if (offset < EMP_LOG_FILE_SIZE && readPosition_ > EMP_LOG_FILE_SIZE) {
            report(offset, readPosition_ - offset, EVLOG_E_REASON_CROSSES_END);
        }
    }
}

/**
 * The gap that a log in use has: behind the newest record, before the oldest one. When the oldest
 * records have all been overwritten, the dummy entry at the bottom stands in their place.
 */
bool Walk_t::isOrdinaryGap(const EmpEvRecord_t& next) const {
    if (!any_ || wrapped_) {
        return false;
    }
    return evlogIsDummy(next) ? !startsWithFirstEntry_ : next.evSequenceId < topId_;
}

void Walk_t::judgeGap(const EvlogSearch_t& search, const EmpEvRecord_t& next) {
    U32_t length = *search.found - readPosition_;
    if (search.badSource) {
        report(readPosition_, length, EVLOG_E_REASON_BAD_SOURCE);
    } else if (!isOrdinaryGap(next)) {
        report(readPosition_, length, finder_.judge(readPosition_));
    }
}

void Walk_t::judgeSequence(U32_t offset, const EmpEvRecord_t& header) {
    U32_t id = header.evSequenceId;
    if (!any_ || evlogIsDummy(header) || id == expectedId_ || (!wrapped_ && id < topId_)) {
        return;
    }
    report(offset, EMP_RECORD_SIZE + U64_t{header.evStructLength}, EVLOG_E_REASON_SEQUENCE);
}

/** What lies behind the last record when no dummy entry does. */
void Walk_t::judgeTail(const EvlogSearch_t& search) {
    U32_t end = ringEnd();
    if (readPosition_ >= end) {
        return;
    }
    U32_t length = end - readPosition_;
    if (search.badSource) {
        report(readPosition_, length, EVLOG_E_REASON_BAD_SOURCE);
    } else if (!any_) {
        report(readPosition_, length, EVLOG_E_REASON_NO_RECORD);
    } else if (!allZero(readPosition_, end)) {
        report(readPosition_, length, finder_.judge(readPosition_));
    } else if (EMP_LOG_FILE_SIZE - readPosition_ >= EMP_RECORD_SIZE) {
        // Nearer to the end no dummy entry fits, and zeros are all there should be.
        report(readPosition_, length, EVLOG_E_REASON_NO_DUMMY);
    }
}

void Walk_t::judgeBehindDummy(U32_t from) {
    U32_t end = ringEnd();
    if (from >= end) {
        return;
    }
    auto begin = bytes_.begin() + from;
    auto stop = bytes_.begin() + end;
    auto isSet = [](U8_t byte) { return byte != 0; };
    auto first = std::find_if(begin, stop, isSet);
    if (first == stop) {
        return;
    }
    auto last =
        std::find_if(std::make_reverse_iterator(stop), std::make_reverse_iterator(first), isSet);
    report(static_cast<U64_t>(first - bytes_.begin()), static_cast<U64_t>(last.base() - first),
           EVLOG_E_REASON_BEHIND_DUMMY);
}

void Walk_t::judgeSize() {
    if (fileSize_ < EMP_LOG_FILE_SIZE) {
        report(fileSize_, EMP_LOG_FILE_SIZE - fileSize_, EVLOG_E_REASON_SHORT_FILE);
    } else if (fileSize_ > EMP_LOG_FILE_SIZE) {
        report(EMP_LOG_FILE_SIZE, fileSize_ - EMP_LOG_FILE_SIZE, EVLOG_E_REASON_LONG_FILE);
    }
}

void Walk_t::report(U64_t offset, U64_t bytes, EVLOG_REASON_e reason) {
    if (callbacks_.onFinding) {
        callbacks_.onFinding({.offset = offset, .bytes = bytes, .reason = reason});
    }
}

bool Walk_t::allZero(U32_t from, U32_t to) const {
    return std::all_of(bytes_.begin() + from, bytes_.begin() + to,
                       [](U8_t byte) { return byte == 0; });
}

U32_t Walk_t::ringEnd() const {
    return static_cast<U32_t>(std::min<size_t>(bytes_.size(), EMP_LOG_FILE_SIZE));
}

} // namespace

EvlogState_t evlogWalk(const EvlogImage_t& image, const EvlogCallbacks_t& callbacks,
                       const EvlogIdentity_t* identity) {
    return Walk_t(image, callbacks, identity).run();
}
