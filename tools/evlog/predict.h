/**
 * @file
 * What the event manager's next start will do with a log file, and what the events after it.
 */
#ifndef EVLOG_PREDICT_H
#define EVLOG_PREDICT_H

#include "evlog/evlog.h"

#include <optional>

/** A bug-check to come. */
struct EvlogBugcheck_t {
    const char* message = ""; ///< its text, or the beginning of it
    U32_t events = 0;         ///< events that are stored before it
    U32_t dataLength = 0;     ///< bytes of data in each of them
};

/** What will happen. */
struct EvlogPrediction_t {
    EvlogState_t state;                      ///< right after the start's walk
    U32_t taken = 0;                         ///< events that the start takes
    U32_t lost = 0;                          ///< readable ones that it does not take
    U32_t damaged = 0;                       ///< findings: what stood there is lost already
    std::optional<EvlogBugcheck_t> bugcheck; ///< the first one after a start that went well
    const char* inquiryBugcheck = nullptr; ///< that of the first inquiry, when no event came before
                                           ///< it: its text, or the beginning; nullptr: none

    /** The event manager does not come up, or cannot store a single event, until the file is
     * replaced. */
    bool isFatal() const {
        return evlogIsFatal(state.verdict) || (bugcheck && bugcheck->events == 0);
    }
};

/**
 * Predicts a start and the events after it, until the log has gone round its end: once for each
 * length of their data. What alternate event files hold is not
 * known here; they come first.
 * @param identity as for evlogWalk()
 */
EvlogPrediction_t evlogPredict(const EvlogImage_t& image, const EvlogIdentity_t* identity,
                               const std::vector<U32_t>& dataLengths = {40, EMP_MAX_STRUCT});

#endif
