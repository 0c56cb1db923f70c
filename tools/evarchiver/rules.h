/**
 * @file
 * The rules of the archive: what becomes of an event, and what a blade is told that the archive
 * has. They decide on what they are given; storage, sockets and clocks are the callers' business.
 *
 * An event is *certain* once the border behind it has been seen, or nothing has come behind it for
 * long. Until then it is *doubtful*: a stalled blade can send a byte twice, and that shows only
 * behind the message. A doubtful event is kept, but never claimed, never a reason to open a
 * generation, and it makes room for the true one.
 */
#ifndef EVARCHIVER_RULES_H
#define EVARCHIVER_RULES_H

#include "protocol.h"

#include <optional>

namespace evarchive {

/** How sure it is that an event is what its blade sent. */
enum class Certainty : U8_t {
    CERTAIN, ///< the border behind it was seen, or nothing came behind it for long
    SILENT,  ///< nothing has come behind it for a moment
    ENDED,   ///< nothing will come behind it: the stream has ended
};

/** An event that has come. */
struct Arrival {
    View image; ///< EmpEvLogMsg_t, whole
    Certainty certainty = Certainty::CERTAIN;
    /** Whether it may begin a generation: it bears the identity of the log that it is filed in. */
    bool mayOpen = true;
    /** Whether the blade has opened a later link than the one that it came on. */
    bool isSuperseded = false;
    /** Whether the newest generation is known to be another log's than the one that it comes from:
     * the log was rebuilt since. */
    bool isOfAnotherLog = false;
};

/** What the archive has under an event's id, in the newest generation of its log. */
struct Place {
    std::optional<View> image; ///< the event held there, if one is
    bool isDoubtful = false;   ///< of the event held
    /** Set when an event was held there until retention took it: evTime of the oldest event that
     * the generation still has. */
    std::optional<U32_t> expiredBefore;
};

/** What becomes of an event. */
enum class Fate : U8_t {
    STORE,           ///< the place is free
    DUPLICATE,       ///< held with the same bytes, or was until retention took it: drop and count
    CONFIRM,         ///< held with the same bytes and doubtful: from now on certain
    REPLACE,         ///< what is held is doubtful and has other bytes: it is set aside for this one
    OPEN_GENERATION, ///< the log was rebuilt and gives out its ids again: store it in a new one
    SET_ASIDE,       ///< cannot be filed; kept for people to look at
    LEAVE,           ///< nothing yet: it comes again with more certainty
};

/** Decides about an event. */
Fate fateOf(const Arrival& arrival, const Place& place);

/** Ids without a hole, both ends included. */
struct IdRun {
    U32_t first = 0;
    U32_t last = 0;

    bool contains(U32_t id) const { return first <= id && id <= last; }
    bool operator==(const IdRun&) const = default;
};

/** The ids that were skipped when @p id comes behind @p highestId, if any were. */
std::optional<IdRun> gapBefore(std::optional<U32_t> highestId, U32_t id);

/** What a status request is answered. */
struct StatusVerdict {
    U32_t sequenceIdLast = 0;
    U32_t controlFlag = 0; ///< bits of EMP_ARCHIVER_CONTROL_FLAG_e

    bool operator==(const StatusVerdict&) const = default;
};

constexpr StatusVerdict NOTHING_HELD{0, EMP_E_ARCHIVER_CONTROL_NO_DATA};

/**
 * Whether the log that a status request tells of can be the one that the archive has: its oldest
 * event is held, certain, and has the same length and first data bytes; or retention has taken it.
 */
bool isSameLog(const EmpGetEvArchiverStatusMsg_t& request, const Place& oldest);

/**
 * Whether a log is surely not the one that the archive has: a log's oldest id never falls.
 * @param first the oldest id that the blade has
 * @param firstThen the one that it had of the log that the archive has, if known
 * @param isSame see isSameLog()
 */
bool isAnotherLog(U32_t first, std::optional<U32_t> firstThen, bool isSame);

/**
 * The answer for a log that is the same, so far as one can tell. It names the event before the
 * last: the blade sends the last one again, and its bytes tell whether the log really is the same.
 * @param run from the request's oldest event to the last one held without a hole
 */
StatusVerdict claimOf(const IdRun& run);

/** Which entries blades are asked to drop from their own logs, each blade's log once. */
enum class Clear : U8_t {
    NOTHING,
    /** All that the archive holds but the newest one: a blade whose log is empty to its last id
     * goes round its loop without rest until the next event. */
    ALL_BUT_NEWEST,
    ALL,
};

/** The answer that asks a blade to drop the entries of @p run, if any are to be dropped. */
std::optional<StatusVerdict> clearOf(const IdRun& run, Clear clear);

/** Whether a stored event is one that can be sent: the file may have been damaged since. */
bool isWholeEvent(View image);

} // namespace evarchive

#endif
