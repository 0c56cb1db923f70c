/**
 * @file
 * The silent reader of event log files: tools and tests use it, it never prints and never writes.
 *
 * It walks the bytes of a log file as the event manager does at its start: the same test of what is
 * a record, the same search byte by byte behind damage. Records and damage go to callbacks. Where
 * the event manager would stop (two gaps, a contradiction) the walk goes on, so that a damaged file
 * or its debugging copy can be shown to its end; the verdict says what the event manager would do.
 *
 * Any bytes may be given: empty, short, over-long, garbage. The work is linear in the size.
 * Everything is in host byte order but the record headers, which are images.
 */
#ifndef EVLOG_EVLOG_H
#define EVLOG_EVLOG_H

#include "emp_mesgs.h"
#include "fixed_width.h"

#include <functional>
#include <span>
#include <string>
#include <vector>

// --- The bytes -----------------------------------------------------------------------------------

/** A log file in memory. Of a longer file only what the event manager could reach is kept. */
struct EvlogImage_t {
    std::vector<U8_t> bytes; ///< from the start of the file; at most EVLOG_REACHABLE
    U64_t fileSize = 0;      ///< bytes of the file itself
};

/** No byte from here on is looked at: a header may be found at the file's nominal end, with the
 * longest body behind it. */
constexpr U32_t EVLOG_REACHABLE = EMP_LOG_FILE_SIZE + EMP_RECORD_SIZE + 65'535;

/**
 * Reads a file, without changing it.
 * @param image receives the bytes; as it was on failure
 * @return 0, or an errno value; EINVAL when @p path is not a regular file
 */
int evlogLoadFile(const char* path, EvlogImage_t* image);

/** The same of an open file, from its first byte on. */
int evlogLoadDescriptor(int descriptor, EvlogImage_t* image);

/** An image of bytes that are already in memory. */
EvlogImage_t evlogImageOf(std::span<const U8_t> bytes);

// --- Records -------------------------------------------------------------------------------------

/** Which part of the ring a record belongs to. */
enum EVLOG_ROLE_e : U8_t {
    EVLOG_E_ROLE_NEWEST, ///< from the top of the file up to the write position
    EVLOG_E_ROLE_OLDEST, ///< behind the place where the ring closes
    EVLOG_E_ROLE_DUMMY,  ///< a dummy entry: no event, the walk ends here
};

/** A valid record; the pointers lead into the image. */
struct EvlogRecord_t {
    U32_t offset = 0;                      ///< of its header, from the start of the file
    const EmpEvRecord_t* header = nullptr; ///< its 160 bytes
    std::span<const U8_t> body;            ///< its event data; empty for a dummy entry
    EVLOG_ROLE_e role = EVLOG_E_ROLE_NEWEST;
    bool taken = false; ///< the event manager's own walk comes this far and indexes it
};

/** Whether a record is a dummy entry: source 27 and id 1, nothing else. */
bool evlogIsDummy(const EmpEvRecord_t& header);

// --- Findings ------------------------------------------------------------------------------------

/** What is wrong with a stretch of bytes. */
enum EVLOG_REASON_e : U8_t {
    EVLOG_E_REASON_NONE,         ///< nothing
    EVLOG_E_REASON_NO_HEADER,    ///< no signature where a record should begin
    EVLOG_E_REASON_VERSION,      ///< a header of an unknown version
    EVLOG_E_REASON_SOURCE,       ///< a header with a source above 34
    EVLOG_E_REASON_LENGTH,       ///< a header with a body length above 3848
    EVLOG_E_REASON_CHECKSUM,     ///< a header, but the checksum does not match
    EVLOG_E_REASON_CUT,          ///< a header whose body the end of the file cuts off
    EVLOG_E_REASON_BAD_SOURCE,   ///< holds a header that the event manager bug-checks on
    EVLOG_E_REASON_NO_RECORD,    ///< not one valid record in the file
    EVLOG_E_REASON_NO_DUMMY,     ///< zeros without a dummy entry before them
    EVLOG_E_REASON_BEHIND_DUMMY, ///< bytes behind the dummy entry that are not zero
    EVLOG_E_REASON_SEQUENCE,     ///< a record whose sequence id does not follow the one before
    EVLOG_E_REASON_CROSSES_END,  ///< a record that runs across the end of the ring
    EVLOG_E_REASON_SHORT_FILE,   ///< the file ends before 1,600,000 bytes
    EVLOG_E_REASON_LONG_FILE,    ///< bytes behind 1,600,000, never read as records
    EVLOG_E_REASONS,             ///< number of reasons
};

/** One line of English for a reason, without a full stop. */
const char* evlogReasonText(EVLOG_REASON_e reason);

/** A damaged stretch. The one gap between newest and oldest records, the dummy entry and the zeros
 * behind it are none. */
struct EvlogFinding_t {
    U64_t offset = 0; ///< first byte
    U64_t bytes = 0;  ///< at least 1
    EVLOG_REASON_e reason = EVLOG_E_REASON_NONE;
};

// --- The verdict ---------------------------------------------------------------------------------

/** What the event manager makes of the file at its start. */
enum EVLOG_VERDICT_e : U8_t {
    EVLOG_E_VERDICT_FRESH,               ///< no valid record: it starts a new log in the file
    EVLOG_E_VERDICT_UNWRAPPED,           ///< a log that has not gone round its end
    EVLOG_E_VERDICT_WRAPPED,             ///< a log that has
    EVLOG_E_VERDICT_FOREIGN,             ///< a log of another slot or enclosure: it is cleared
    EVLOG_E_VERDICT_REBUILT,             ///< a second gap: the file is moved aside, a new one made
    EVLOG_E_VERDICT_BAD_SOURCE,          ///< bug-check "Bad Event Source ..."
    EVLOG_E_VERDICT_CONTINUOUS_WITH_GAP, ///< bug-check "Continuous SequenceId with Gap? ..."
    EVLOG_E_VERDICT_INVALID_SEQUENCE,    ///< bug-check "Invalid Sequence ID? ..."
    EVLOG_E_VERDICTS,                    ///< number of verdicts
};

/** A short name of a verdict, for tables and JSON. */
const char* evlogVerdictName(EVLOG_VERDICT_e verdict);

/** One line of English for a verdict, without a full stop. */
const char* evlogVerdictText(EVLOG_VERDICT_e verdict);

struct EvlogState_t;

/** The message of the bug-check in which a start with this outcome ends; empty when in none. */
std::string evlogBugcheckText(const EvlogState_t& state);

/** Whether the event manager does not come up with this file. */
constexpr bool evlogIsFatal(EVLOG_VERDICT_e verdict) {
    return verdict >= EVLOG_E_VERDICT_BAD_SOURCE;
}

/** Why the event manager's walk ended. */
enum EVLOG_END_e : U8_t {
    EVLOG_E_END_DUMMY,     ///< at a dummy entry
    EVLOG_E_END_FULL,      ///< a record ended exactly at the end of the ring
    EVLOG_E_END_NOT_FOUND, ///< no further record: it writes a dummy entry at dummyOffset
    EVLOG_E_END_NO_ROOM,   ///< empStart too near the end for another header; the record is left
    EVLOG_E_END_CLEARED,   ///< foreign or rebuilt
    EVLOG_E_END_BUGCHECK,  ///< a bug-check; the positions are those at that moment
};

/**
 * Positions and counters of the event manager right after its walk, repairs included. When it
 * rebuilds the file this is the state before the warning event is logged.
 */
struct EvlogState_t {
    EVLOG_VERDICT_e verdict = EVLOG_E_VERDICT_FRESH;
    EVLOG_END_e end = EVLOG_E_END_NOT_FOUND;
    U32_t empWrite = 0;
    U32_t empStart = 0;
    U32_t empStartSequenceId = 0;
    U32_t empSequenceId = 0;
    U32_t empInstanceNumber = 0;
    U32_t empEventInLogFile = 0;
    U32_t empEventAddToLogFile = 0;
    bool wrapOver = false;
    bool foundGap = false;
    U32_t dummyOffset = 0; ///< EVLOG_E_END_DUMMY: where it lies; EVLOG_E_END_NOT_FOUND: where
                           ///< one is written (nothing is, beyond the end of the ring)
    U16_t dummyLength = 0; ///< its evStructLength
    U32_t stopOffset = 0;  ///< EVLOG_E_END_BUGCHECK, rebuilt: the header that led there
    U8_t badSource = 0;    ///< EVLOG_E_VERDICT_BAD_SOURCE: that source
};

// --- The walk ------------------------------------------------------------------------------------

/** Who reads the log: compared with the first record, as the event manager does. */
struct EvlogIdentity_t {
    U8_t enclosureId[EMP_ID_TEXT_SIZE]; ///< text
    U32_t slotId;
};

/** Where records and findings go, in the order of their offsets; either may be empty. A finding
 * about the file's size comes last. */
struct EvlogCallbacks_t {
    std::function<void(const EvlogRecord_t&)> onRecord;
    std::function<void(const EvlogFinding_t&)> onFinding;
};

/**
 * Walks a log file.
 * @param identity whether the log is foreign is judged only when given
 */
EvlogState_t evlogWalk(const EvlogImage_t& image, const EvlogCallbacks_t& callbacks,
                       const EvlogIdentity_t* identity = nullptr);

// --- Single records ------------------------------------------------------------------------------

/**
 * Reads a record as the event manager looks for one in its log.
 * @param bytes  from its first one on; bytes behind the record are not looked at
 * @param record receives the record, offset 0; as it was unless the result is NONE
 * @return EVLOG_E_REASON_NONE, _NO_HEADER (also for fewer than 160 bytes), _VERSION, _SOURCE,
 * _LENGTH, _CUT or _CHECKSUM
 */
EVLOG_REASON_e evlogReadRecord(std::span<const U8_t> bytes, EvlogRecord_t* record);

/**
 * Reads the record of an alternate event log file as the replay at the next start does: whatever
 * its version, and with the length that its header states, whatever its id.
 * @param bytes  the whole file; bytes behind the record are not looked at
 * @param record receives the record, offset 0; as it was unless the result is NONE
 * @return EVLOG_E_REASON_NONE: it is stored. _NO_HEADER (also for fewer than 160 bytes), _CUT,
 * _CHECKSUM, _SOURCE or _LENGTH: the file is deleted, nothing is stored
 */
EVLOG_REASON_e evlogReadAlternate(std::span<const U8_t> bytes, EvlogRecord_t* record);

#endif
