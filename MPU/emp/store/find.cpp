/*
 * The search for the next valid record. Its outcome, the debug lines, the hex dumps, what it leaves
 * in the work space and the file position are those of a search byte by byte, with a seek and a
 * read of a header at each offset, and of the data behind it where the header is plausible. Here
 * the file comes in windows that outlast the search, only the two signature bytes are looked for,
 * and the work space is filled in when the search ends or its window moves on.
 */
#include "store/find.h"

#include "altEventLog.h"
#include "checksum/range_crc.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "mmsg.h"
#include "store/log_file.h"
#include "store/record.h"
#include "store/window.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char FIND[] = "empFindValidEventEntry";
constexpr char LSEEK_CALL_FAILS[] = "Linux lseek call fails for Event Log File!";

constexpr U8_t SIGNATURE_FIRST = EMP_RECORD_SIGNATURE >> 8;
constexpr U8_t SIGNATURE_SECOND = EMP_RECORD_SIGNATURE & 0xFF;

/** Data of a record as far as the work space shows it. */
constexpr U32_t SHOWN_DATA = EMP_WORK_SPACE_SIZE - EMP_RECORD_SIZE;

/** Checksums of the ranges of a window. */
struct Ranges_t {
    bool begun = false;
    U64_t from = 0; ///< offset of the first byte
    RangeCrc_t crc;
};
U32_t checkpoints[RangeCrc_t::checkpointsFor(EMP_WINDOW_SIZE)];

/** One search; offsets have 64 bits, since start plus gap may pass the end of the file. */
struct Search_t {
    U64_t start;
    U64_t offset;             ///< of the header that is looked at
    S64_t lastHeader = -1;    ///< offset of the last header that was read; -1: none
    U64_t lastData = 0;       ///< offset of the last data that was read
    U32_t lastDataLength = 0; ///< what of it the work space is still to get
    bool overlapping = false; ///< a plausible header has failed: later data may overlap its data
    Ranges_t ranges = {};
};

const EmpEvRecord_t* headerAt(U64_t offset) {
    return reinterpret_cast<const EmpEvRecord_t*>(empWindowAt(offset));
}

/** Fills in the work space as the reads so far would have left it. */
void showReads(Search_t& search) {
    if (search.lastHeader >= 0) {
        memcpy(eventEntryWorkSpace, headerAt(static_cast<U64_t>(search.lastHeader)),
               EMP_RECORD_SIZE);
        search.lastHeader = -1;
    }
    if (search.lastDataLength != 0) {
        memcpy(eventEntryWorkSpace + EMP_RECORD_SIZE, empWindowAt(search.lastData),
               search.lastDataLength);
        search.lastDataLength = 0;
    }
}

/** Notes that the data behind the header has been read. */
void noteData(Search_t& search, U32_t length) {
    length = std::min(length, SHOWN_DATA);
    // Of longer data that was read before, the rest stays visible behind this.
    if (length < search.lastDataLength) {
        memcpy(eventEntryWorkSpace + EMP_RECORD_SIZE + length,
               empWindowAt(search.lastData) + length, search.lastDataLength - length);
    }
    search.lastData = search.offset + EMP_RECORD_SIZE;
    search.lastDataLength = length;
}

/**
 * Makes sure that @p wanted bytes from the header on are in the window.
 * @return the bytes that are there, fewer at the end of the file; -1 after a read error
 */
S64_t bring(Search_t& search, U32_t wanted) {
    U32_t available = empWindowAvailable(search.offset);
    if (available >= wanted) {
        return available;
    }
    if (search.lastHeader >= 0) {
        empLogMoveTo(search.lastHeader + EMP_RECORD_SIZE);
    }
    showReads(search);
    search.ranges.begun = false;
    empLogSeek(static_cast<S64_t>(search.offset), EMP_HERE_IN(FIND), LSEEK_CALL_FAILS);
    return empLogFillWindow(search.overlapping ? EMP_WINDOW_SIZE
                                               : std::max(wanted, EMP_WINDOW_STEP));
}

/** The header is cut by the end of the file: what is there of it lies over the header before it. */
void showCutHeader(const Search_t& search, S64_t arrived) {
    if (arrived > 0) {
        memcpy(eventEntryWorkSpace, empWindowAt(search.offset), static_cast<size_t>(arrived));
    }
    empHexDump(eventEntryWorkSpace, static_cast<S32_t>(arrived));
}

bool isPlausible(const EmpEvRecord_t* record) {
    return record->evRdSignature == EMP_RECORD_SIGNATURE &&
           record->evRdVersion <= EMP_RECORD_VERSION &&
           record->evSource <= MMSG_E_MAX_DEFINED_EPIDS &&
           // KEEP: the limit is waived for our own records and for event id 1 of any source.
           (record->evStructLength <= EMP_MAX_STRUCT ||
            record->evSource == MMSG_E_EPID_EVENTLOGMP || record->evId == 1);
}

bool hasBadSource(const EmpEvRecord_t* record) {
    return record->evRdSignature == EMP_RECORD_SIGNATURE &&
           record->evRdVersion <= EMP_RECORD_VERSION && record->evType <= EMP_E_TYPE_ERROR &&
           record->evSource > MMSG_E_MAX_DEFINED_EPIDS;
}

[[noreturn]] void badSource(Search_t& search) {
    U8_t source = headerAt(search.offset)->evSource;
    showReads(search);
    // The report shows the file from where the read of this header has left it.
    empLogMoveTo(static_cast<S64_t>(search.offset) + EMP_RECORD_SIZE);
    EMP_BUGCHECK(EMP_HERE_IN(FIND),
                 "Bad Event Source [%d] in the Corrupted Event Log File! Please Delete the File.",
                 source);
}

/** Checksum of the record in the window. The first one of a search is summed up; where one has
 * failed, data may overlap, and no byte is summed up for each header before it. */
U32_t checksumOf(Search_t& search, U32_t covered) {
    if (!search.overlapping) {
        return computeCRC32(empCoveredBytes(headerAt(search.offset)), covered);
    }
    Ranges_t& ranges = search.ranges;
    if (!ranges.begun) {
        ranges = {true, search.offset, RangeCrc_t(empWindowAt(search.offset), checkpoints)};
    }
    U32_t first = static_cast<U32_t>(search.offset - ranges.from) + EMP_CRC_START;
    ranges.crc.reach(first + covered);
    return ranges.crc.ofRange(first, covered);
}

enum Verdict_e { VALID, NOT_VALID, CUT_BY_END_OF_FILE };

/** Reads the data behind the plausible header. @return whether all of it is in the file */
bool readData(Search_t& search, U32_t length) {
    S64_t arrived = bring(search, EMP_RECORD_SIZE + length);
    arrived = arrived < 0 ? arrived : std::max<S64_t>(arrived - EMP_RECORD_SIZE, 0);
    noteData(search, static_cast<U32_t>(std::clamp<S64_t>(arrived, 0, length)));
    if (arrived < length) {
        empHexDump(empWindowAt(search.offset) + EMP_RECORD_SIZE, static_cast<S32_t>(arrived));
    }
    return arrived >= length;
}

/** Judges the plausible header. */
Verdict_e judgeCandidate(Search_t& search) {
    U32_t covered = EMP_EVENT_HEADER_SIZE;
    if (!empIsDummy(headerAt(search.offset))) {
        U16_t structLength = headerAt(search.offset)->evStructLength;
        if (!readData(search, structLength)) {
            return CUT_BY_END_OF_FILE;
        }
        covered += structLength;
    }
    U32_t stored = headerAt(search.offset)->evRdCRCChecksum;
    U32_t calculated = checksumOf(search, covered);
    if (calculated == stored) {
        return VALID;
    }
    empDebugLine(
        "empFindValidEventEntry(): Record CRCChecksum [0x%X] not match with calculated CRCChecksum [0x%X]\n",
        stored, calculated);
    search.overlapping = true;
    return NOT_VALID;
}

/** Moves on by one byte. @return false, after a line, when that leads beyond the end of the log */
bool stepOn(Search_t& search) {
    search.offset++;
    if (search.offset > EMP_LOG_FILE_SIZE) {
        empDebugLine("empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = [%d]\n",
                     static_cast<int>(search.offset - search.start));
        return false;
    }
    return true;
}

/** Whether a header may begin here that is plausible or has a bad source: the signature, and a
 * version that is read. */
bool beginsHeader(const U8_t* at) {
    return at[0] == SIGNATURE_FIRST && at[1] == SIGNATURE_SECOND && at[2] <= EMP_RECORD_VERSION;
}

/** The next first byte of a signature from @p at on; @p end when there is none. */
const U8_t* nextSignature(const U8_t* at, const U8_t* end) {
    // Where it is frequent, a look at the next few bytes costs less than a call for each.
    for (int looked = 0; looked < 8; looked++, at++) {
        if (at == end || *at == SIGNATURE_FIRST) {
            return at;
        }
    }
    const void* found = memchr(at, SIGNATURE_FIRST, static_cast<size_t>(end - at));
    return found != nullptr ? static_cast<const U8_t*>(found) : end;
}

/** Moves on, within what is in memory and within the log, to the next offset at which a header is
 * to be judged, or to the last offset there. */
void skipToHeader(Search_t& search) {
    U64_t last = search.offset + empWindowAvailable(search.offset) - EMP_RECORD_SIZE;
    last = std::min<U64_t>(last, EMP_LOG_FILE_SIZE);
    const U8_t* from = empWindowAt(search.offset);
    const U8_t* end = from + (last - search.offset);
    const U8_t* at = from;
    while (at < end && !beginsHeader(at)) {
        at = nextSignature(at + 1, end);
    }
    search.offset += static_cast<U64_t>(at - from);
}

EMP_CODE_e findRecord(Search_t& search) {
    do {
        S64_t arrived = bring(search, EMP_RECORD_SIZE);
        if (arrived < EMP_RECORD_SIZE) {
            showCutHeader(search, arrived);
            return EMP_E_GENERR;
        }
        skipToHeader(search);
        search.lastHeader = static_cast<S64_t>(search.offset);
        if (isPlausible(headerAt(search.offset))) {
            Verdict_e verdict = judgeCandidate(search);
            if (verdict != NOT_VALID) {
                return verdict == VALID ? EMP_E_OK : EMP_E_GENERR;
            }
        } else if (hasBadSource(headerAt(search.offset))) {
            badSource(search);
        }
    } while (stepOn(search));
    return EMP_E_GENERR;
}

} // namespace

EMP_CODE_e empFindValidEventEntry(U32_t start, U32_t* gap) {
    S64_t notedPosition = empLogFilePosition;
    memset(eventEntryWorkSpace, 0, EMP_WORK_SPACE_SIZE);
    Search_t search = {.start = start, .offset = start};
    EMP_CODE_e result = findRecord(search);
    showReads(search);
    if (result == EMP_E_OK) {
        *gap = static_cast<U32_t>(search.offset - search.start);
    }
    empLogMoveTo(notedPosition);
    return result;
}
