/*
 * The search for the next valid record. It is defined as a search byte by byte, one seek and one
 * read of a header at each offset. Here windows of the file are searched in memory for the two
 * signature bytes; the outcome, the debug lines, the hex dumps, the final content of the work space
 * and the file position are those of the search byte by byte.
 */
#include "store/find.h"

#include "altEventLog.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "mmsg.h"
#include "store/log_file.h"
#include "store/record.h"

#include <cstring>

namespace {

constexpr char FIND[] = "empFindValidEventEntry";
constexpr char LSEEK_CALL_FAILS[] = "Linux lseek call fails for Event Log File!";

/** Most searches end at their first bytes, so the first window is small; the next ones grow. */
constexpr U32_t FIRST_WINDOW = 512;
constexpr U32_t WINDOW_GROWTH = 16;
constexpr U32_t LARGEST_WINDOW = 65'536;
U8_t windowBytes[LARGEST_WINDOW];

/** The stretch of the file that is in memory. */
struct Window_t {
    U64_t base = 0;
    S64_t length = 0; ///< bytes in memory; -1 after a read error
    U32_t size = FIRST_WINDOW / WINDOW_GROWTH;

    /** Bytes in memory from @p offset on. */
    S64_t available(U64_t offset) const {
        return offset < base ? 0 : length - static_cast<S64_t>(offset - base);
    }
    const U8_t* at(U64_t offset) const { return windowBytes + (offset - base); }

    void load(U64_t offset) {
        size = size < LARGEST_WINDOW ? size * WINDOW_GROWTH : LARGEST_WINDOW;
        size = size > LARGEST_WINDOW ? LARGEST_WINDOW : size;
        empLogSeek(static_cast<S64_t>(offset), EMP_HERE_IN(FIND), LSEEK_CALL_FAILS);
        base = offset;
        length = empLogReadSome(windowBytes, size);
    }
};

/** One search; offsets have 64 bits, since start plus gap may pass the end of the file. */
struct Search_t {
    U64_t start;
    U64_t offset; ///< of the header that is looked at
    Window_t window;
};

EmpEvRecord_t* workRecord() {
    return reinterpret_cast<EmpEvRecord_t*>(eventEntryWorkSpace);
}

/** Copies the header at @p offset, which is in memory whole, to where the read of it would have
 * left it. */
void showHeader(const Window_t& window, U64_t offset) {
    memcpy(eventEntryWorkSpace, window.at(offset), EMP_RECORD_SIZE);
}

/** Makes sure that a header is in memory. @return false when the file ends before its last byte */
bool loadHeader(Search_t& search) {
    Window_t& window = search.window;
    if (window.available(search.offset) < EMP_RECORD_SIZE) {
        window.load(search.offset);
    }
    return window.available(search.offset) >= EMP_RECORD_SIZE;
}

/** The header is cut by the end of the file: what is there of it lies over the header before it. */
void showCutHeader(const Window_t& window) {
    if (window.length > 0) {
        memcpy(eventEntryWorkSpace, window.at(window.base), static_cast<size_t>(window.length));
    }
    empHexDump(eventEntryWorkSpace, static_cast<S32_t>(window.length));
}

bool isPlausible(const EmpEvRecord_t* record) {
    return record->evRdSignature == EMP_RECORD_SIGNATURE &&
           record->evRdVersion <= EMP_RECORD_VERSION &&
           record->evSource <= MMSG_E_MAX_DEFINED_EPIDS &&
           // KEEP: the limit is waived for our own records and for event id 1 of any source.
           (record->evStructLength <= EMP_MAX_STRUCT ||
            record->evSource == MMSG_E_EPID_EVENTLOGMP || record->evId == 1);
}

/** Reads a candidate's data behind its header. @return the bytes that arrived */
S64_t readData(const Search_t& search, U16_t structLength) {
    U64_t offset = search.offset + EMP_RECORD_SIZE;
    U8_t* data = eventEntryWorkSpace + EMP_RECORD_SIZE;
    if (search.window.available(offset) >= structLength) {
        memcpy(data, search.window.at(offset), structLength);
        return structLength;
    }
    empLogSeek(static_cast<S64_t>(offset), EMP_HERE_IN(FIND), LSEEK_CALL_FAILS);
    return empLogReadSome(data, structLength);
}

enum Verdict_e { VALID, NOT_VALID, CUT_BY_END_OF_FILE };

/** Judges the plausible header in the work space, reading its data there. */
Verdict_e judgeCandidate(const Search_t& search) {
    const EmpEvRecord_t* record = workRecord();
    U32_t covered = EMP_EVENT_HEADER_SIZE;
    if (!empIsDummy(record)) {
        U16_t structLength = record->evStructLength;
        S64_t arrived = readData(search, structLength);
        if (arrived != structLength) {
            empHexDump(eventEntryWorkSpace + EMP_RECORD_SIZE, static_cast<S32_t>(arrived));
            return CUT_BY_END_OF_FILE;
        }
        covered += structLength;
    }
    U32_t calculated = computeCRC32(empCoveredBytes(record), covered);
    if (calculated == record->evRdCRCChecksum) {
        return VALID;
    }
    empDebugLine(
        "empFindValidEventEntry(): Record CRCChecksum [0x%X] not match with calculated CRCChecksum [0x%X]\n",
        U32_t{record->evRdCRCChecksum}, calculated);
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

/**
 * Moves on, within what is in memory and within the log, to the next offset that holds the
 * signature. Skipped offsets cannot hold a plausible header nor one with a bad source.
 */
void skipToSignature(Search_t& search) {
    const Window_t& window = search.window;
    U64_t end = window.base + static_cast<U64_t>(window.length) - EMP_RECORD_SIZE;
    if (end > EMP_LOG_FILE_SIZE) {
        end = EMP_LOG_FILE_SIZE;
    }
    while (search.offset < end) {
        const U8_t* from = window.at(search.offset);
        const void* found =
            memchr(from, EMP_RECORD_SIGNATURE >> 8, static_cast<size_t>(end - search.offset));
        if (found == nullptr) {
            search.offset = end;
            return;
        }
        search.offset += static_cast<U64_t>(static_cast<const U8_t*>(found) - from);
        if (window.at(search.offset)[1] == (EMP_RECORD_SIGNATURE & 0xFF)) {
            return;
        }
        search.offset++;
    }
}

EMP_CODE_e findRecord(Search_t& search) {
    do {
        if (!loadHeader(search)) {
            showCutHeader(search.window);
            return EMP_E_GENERR;
        }
        skipToSignature(search);
        showHeader(search.window, search.offset);
        const EmpEvRecord_t* record = workRecord();
        if (isPlausible(record)) {
            Verdict_e verdict = judgeCandidate(search);
            if (verdict != NOT_VALID) {
                return verdict == VALID ? EMP_E_OK : EMP_E_GENERR;
            }
        } else if (record->evRdSignature == EMP_RECORD_SIGNATURE &&
                   record->evRdVersion <= EMP_RECORD_VERSION &&
                   record->evType <= EMP_E_TYPE_ERROR &&
                   record->evSource > MMSG_E_MAX_DEFINED_EPIDS) {
            // The report shows the file from where the read of this header has left it.
            empLogReturnTo(static_cast<S64_t>(search.offset) + EMP_RECORD_SIZE);
            EMP_BUGCHECK(
                EMP_HERE_IN(FIND),
                "Bad Event Source [%d] in the Corrupted Event Log File! Please Delete the File.",
                record->evSource);
        }
    } while (stepOn(search));
    return EMP_E_GENERR;
}

} // namespace

EMP_CODE_e empFindValidEventEntry(U32_t start, U32_t* gap) {
    S64_t notedPosition = empLogFilePosition;
    memset(eventEntryWorkSpace, 0, EMP_WORK_SPACE_SIZE);
    Search_t search = {start, start, {}};
    EMP_CODE_e result = findRecord(search);
    if (result == EMP_E_OK) {
        *gap = static_cast<U32_t>(search.offset - search.start);
    }
    empLogReturnTo(notedPosition);
    return result;
}
