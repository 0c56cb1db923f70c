#include "store/append.h"

#include "altEventLog.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "emp_mesgs.h"
#include "store/find.h"
#include "store/log_file.h"
#include "store/record.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char APPEND[] = "empSaveEventLogMsgToLogFile";
// KEEP: the seek before the final write reports itself under this name.
constexpr char APPEND_LAST_SEEK[] = "empProcessEventLogFile";

constexpr char INCORRECT_SIGNATURE[] = "Incorrect Signature in Event Entry!";
constexpr char REACH_DUMMY[] = "Reach Dummy Entry but still not enough space!";

/** One append. */
struct Append_t {
    S64_t originalPosition;     ///< file position before the append
    EmpEvRecord_t newEvRecord;  ///< the header to write
    const EmpEvLogMsg_t* event; ///< the event in the message
    U16_t newEventEntryLen;     ///< bytes still needed, modulo 65,536
};

void printNoSpaceForDummy() {
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): No wipe out eventEntryDatabase[] b/c no space for Dummy Record at empStart = [%d].\n",
        static_cast<int>(empControl.empStart));
}

void printEnoughSpaceToBottom() {
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Enough space to the bottom for new Event Entry.\n");
}

void printPositions() {
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): empWrite = [%d], empStart = [%d], empStartSequenceId = [%d].\n",
        static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart),
        static_cast<int>(empControl.empStartSequenceId));
}

/** The record is no longer in the log: its slot is emptied and the counters follow. */
void forgetOldest(U32_t slot) {
    empIndexClear(slot);
    empControl.empStartSequenceId++;
    empControl.empEventInLogFile--;
    empControl.empEventDelFromLogFile++;
}

/** Discards a record, which must be the oldest. */
void discard(const EmpEvRecord_t* record) {
    U32_t slot = empIndexSlot(record->evSequenceId);
    if (slot != empIndexSlot(empControl.empStartSequenceId)) {
        empHexDump(record, EMP_RECORD_SIZE);
        EMP_BUGCHECK(EMP_HERE_IN(APPEND), "Mismatching empStartSequenceId in Event Entry!");
    }
    forgetOldest(slot);
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], new empStartSequenceId = [%d]\n",
        static_cast<int>(slot), static_cast<int>(empControl.empStartSequenceId));
}

void readHeader(U32_t offset, EmpEvRecord_t* record) {
    empLogSeek(offset, EMP_HERE_IN(APPEND));
    empLogReadInOrder(record, EMP_RECORD_SIZE, EMP_HERE_IN(APPEND));
}

void checkSignature(const EmpEvRecord_t* record) {
    if (record->evRdSignature != EMP_RECORD_SIGNATURE) {
        empHexDump(record, EMP_RECORD_SIZE);
        EMP_BUGCHECK(EMP_HERE_IN(APPEND), INCORRECT_SIGNATURE);
    }
}

[[noreturn]] void reachDummy(const EmpEvRecord_t* record) {
    empHexDump(record, EMP_RECORD_SIZE);
    EMP_BUGCHECK(EMP_HERE_IN(APPEND), REACH_DUMMY);
}

U32_t lengthOf(const EmpEvRecord_t* record) {
    return U32_t{EMP_RECORD_SIZE} + record->evStructLength;
}

/** All bytes that are needed or freed count modulo 65,536. */
void reduceNeed(Append_t& append, U32_t length) {
    append.newEventEntryLen = static_cast<U16_t>(append.newEventEntryLen - length);
}

// --- Case A: room before the oldest record ---

/** Length of the entry at @p position, where only here a dummy may run to the end of the file. */
U32_t lengthInGap(const EmpEvRecord_t* record, U32_t position) {
    if (empIsDummy(record) && record->evStructLength >= EMP_DUMMY_TO_END) {
        return EMP_LOG_FILE_SIZE - position;
    }
    checkSignature(record);
    return lengthOf(record);
}

/** Discards what the new record will cover, from the entry found at @p position on. */
void discardInGap(Append_t& append, U32_t position) {
    EmpEvRecord_t currentEvRecord;
    for (;;) {
        readHeader(position, &currentEvRecord);
        U32_t length = lengthInGap(&currentEvRecord, position);
        empDebugLine("empSaveEventLogMsgToLogFile(): Current Event Entry Length = [%d].\n",
                     static_cast<int>(length));
        if (length >= append.newEventEntryLen) {
            break;
        }
        if (!empIsDummy(&currentEvRecord)) {
            discard(&currentEvRecord);
            position += length;
        } else if (empControl.empWrapOver == EMP_E_WRAP_OVER_TRUE) {
            reachDummy(&currentEvRecord);
        }
        // KEEP: in an unwrapped log the dummy is read again, its length counting once more each
        // round. It ends: at most 409 rounds after the need has passed below 0.
        reduceNeed(append, length);
    }
    if (!empIsDummy(&currentEvRecord)) {
        checkSignature(&currentEvRecord);
        discard(&currentEvRecord);
    }
    printEnoughSpaceToBottom();
}

void makeRoomInGap(Append_t& append) {
    empDebugLine("empSaveEventLogMsgToLogFile(): Enough space for new Event Entry length = [%d].\n",
                 append.newEventEntryLen);
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Current empWrite = [%d], empStart = [%d], empStartSequenceId = [%d].\n",
        static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart),
        static_cast<int>(empControl.empStartSequenceId));
    if (empControl.empWrite >= EMP_LOG_FILE_SIZE) {
        empDebugLine(
            "empSaveEventLogMsgToLogFile(): This shall not happen. This is for debugging purpose.\n");
        empControl.empWrite = 0;
        empControl.empStart = 0;
        empControl.empStartSequenceId++;
    }
    // The search goes through the window, and rarely reads: the gap and the oldest record behind
    // it, or the dummy, are there since they were read or written last, and nobody else writes the
    // file.
    U32_t gap = 0;
    if (empFindValidEventEntry(empControl.empWrite, &gap) != EMP_E_OK ||
        empControl.empWrite + gap == empControl.empStart) {
        empDebugLine(
            "empSaveEventLogMsgToLogFile(): No valid Event Entry between empWrite = [%d] and empStart = [%d]\n",
            static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart));
        return;
    }
    reduceNeed(append, gap);
    discardInGap(append, empControl.empWrite + gap);
}

// --- Case B: room before the end of the file, when the oldest records go ---

/** @return true when the entry at empStart gave the last bytes that were needed */
bool discardAtStart(Append_t& append) {
    EmpEvRecord_t currentEvRecord;
    readHeader(empControl.empStart, &currentEvRecord);
    checkSignature(&currentEvRecord);
    // KEEP: a dummy that runs to the end of the file counts by its stated length here.
    U32_t length = lengthOf(&currentEvRecord);
    bool dummy = empIsDummy(&currentEvRecord);
    if (length >= append.newEventEntryLen) {
        if (dummy) {
            empControl.empStart = EMP_LOG_FILE_SIZE;
        } else {
            discard(&currentEvRecord);
            empControl.empStart += length;
        }
        printEnoughSpaceToBottom();
        return true;
    }
    if (dummy) {
        if (empLogSeekEnd(EMP_HERE_IN(APPEND)) >= EMP_LOG_FILE_SIZE) {
            reachDummy(&currentEvRecord);
        }
        empControl.empStart = EMP_LOG_FILE_SIZE;
        return true;
    }
    discard(&currentEvRecord);
    empControl.empStart += length;
    reduceNeed(append, length);
    return false;
}

void makeRoomAtStart(Append_t& append) {
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): New Event Entry Length = [%d], no need to wrap to the Top of Event Log Fiel.\n",
        append.newEventEntryLen);
    // The free bytes before empStart are not needed any more.
    append.newEventEntryLen =
        static_cast<U16_t>(append.newEventEntryLen + (empControl.empWrite - empControl.empStart));
    while (!empBeyondLogEnd(empControl.empStart, EMP_RECORD_SIZE)) {
        if (discardAtStart(append)) {
            return;
        }
    }
    printNoSpaceForDummy();
    empControl.empStart = EMP_LOG_FILE_SIZE;
}

// --- Case C: wrap to the top ---

/** Empties the slots of the records below empWrite, which the wrap leaves behind. */
void wipeBottom(U32_t topSequenceId) {
    // KEEP: slot numbers are compared, not ids; no slot is wiped when they pass 9999 between the
    // two.
    U32_t topSlot = empIndexSlot(topSequenceId);
    for (U32_t slot = empIndexSlot(empControl.empStartSequenceId); slot < topSlot; slot++) {
        forgetOldest(slot);
        empDebugLine(
            "empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], empStartSequenceId = [%d]\n",
            static_cast<int>(slot), static_cast<int>(empControl.empStartSequenceId));
    }
}

bool indexLeadsNowhere() {
    for (U32_t slot = 0; slot < EMP_INDEX_ENTRIES; slot++) {
        if (eventEntryDatabase[slot].evOffset != 0) {
            return false;
        }
    }
    return true;
}

/** No slot sizes anything, so there is nothing left to protect: the log starts again with the new
 * record. */
void restartWithNewRecord(const Append_t& append) {
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    empControl.empEventInLogFile = 0;
    empControl.empStartSequenceId = append.newEvRecord.evSequenceId;
    empControl.empStart = EMP_LOG_FILE_SIZE;
}

/** Discards records from the top, sized by the distance of their offsets in the index. */
void discardFromTop(Append_t& append) {
    for (;;) {
        U32_t slot = empIndexSlot(empControl.empStartSequenceId);
        U32_t here = eventEntryDatabase[slot].evOffset;
        U32_t next = eventEntryDatabase[empIndexSlot(empControl.empStartSequenceId + 1)].evOffset;
        if (here == 0 && next == 0 && indexLeadsNowhere()) {
            restartWithNewRecord(append);
            return;
        }
        U32_t length = next - here;
        forgetOldest(slot);
        empControl.empStart += length;
        empDebugLine(
            "empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], new empStartSequenceId = [%d]\n",
            static_cast<int>(slot), static_cast<int>(empControl.empStartSequenceId));
        if (length >= append.newEventEntryLen) {
            return;
        }
        reduceNeed(append, length);
    }
}

void wrapToTop(Append_t& append) {
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): New Event Entry Length = [%d], need to wrap to the Top of Event Log Fiel.\n",
        append.newEventEntryLen);
    EmpEvRecord_t topRecord;
    empLogSeek(0, EMP_HERE_IN(APPEND));
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Check Event Record from the top to wipe out # of eventEntryDatabase in the bottom.\n");
    empLogReadInOrder(&topRecord, EMP_RECORD_SIZE, EMP_HERE_IN(APPEND));
    checkSignature(&topRecord);
    empLogMoveTo(append.originalPosition);
    wipeBottom(topRecord.evSequenceId);

    empDebugLine("empSaveEventLogMsgToLogFile(): Write Dummy Entry for wipping out space.\n");
    empWriteDummyEntryToLogFile(empControl.empWrite, EMP_LOG_LAST_HEADER - empControl.empWrite,
                                empControl.empWrapOver == EMP_E_WRAP_OVER_TRUE);
    empControl.empWrite = 0;
    empControl.empStart = 0;
    empControl.empWrapOver = EMP_E_WRAP_OVER_TRUE;
    empDebugLine("empSaveEventLogMsgToLogFile(): Event Log File is wrapped over.\n");
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Not enough space to the bottom for new Event Entry. Start from the Top.\n");
    discardFromTop(append);
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Including Event with SequenceId = [%d] got enough space\n",
        static_cast<int>(empControl.empStartSequenceId - 1));
    printPositions();
}

// --- All cases ---

Append_t beginAppend(const MMSG_t* mmsgPtr) {
    Append_t append = {};
    append.originalPosition = empLogFilePosition;
    empDebugLine("empSaveEventLogMsgToLogFile(): Current File Position at [%d].\n",
                 static_cast<int>(append.originalPosition));
    append.event = reinterpret_cast<const EmpEvLogMsg_t*>(mmsgPtr->user_data_start);
    U16_t structLength = append.event->evLogHdr.evStructLength;
    append.newEvRecord.evRdSignature = EMP_RECORD_SIGNATURE;
    append.newEvRecord.evRdVersion = EMP_RECORD_VERSION;
    memcpy(empCoveredBytes(&append.newEvRecord), &append.event->evLogHdr, EMP_EVENT_HEADER_SIZE);
    append.newEvRecord.evRdCRCChecksum =
        computeCRC32(&append.event->evLogHdr, U32_t{EMP_EVENT_HEADER_SIZE} + structLength);
    append.newEventEntryLen = static_cast<U16_t>(structLength + EMP_RECORD_SIZE);
    return append;
}

void makeRoom(Append_t& append) {
    if (U64_t{empControl.empWrite} + append.newEventEntryLen <= empControl.empStart) {
        makeRoomInGap(append);
        return;
    }
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Not enough space for new Event Entry between empWrite = [%d] and empStart = [%d].\n",
        static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart));
    if (!empBeyondLogEnd(empControl.empWrite, append.newEventEntryLen)) {
        makeRoomAtStart(append);
    } else {
        wrapToTop(append);
    }
}

/** Header and data go out in one piece, and are judged each at its place. */
void writeRecord(const Append_t& append) {
    U16_t structLength = append.newEvRecord.evStructLength;
    empLogSeek(empControl.empWrite, EMP_HERE_IN(APPEND_LAST_SEEK));
    printPositions();
    S64_t written = empLogWriteRecord(&append.newEvRecord, append.event->evStruct, structLength);
    empLogRequireWritten(&append.newEvRecord, std::min<S64_t>(written, EMP_RECORD_SIZE),
                         EMP_RECORD_SIZE, EMP_HERE_IN(APPEND));
    empDebugLine("empSaveEventLogMsgToLogFile(): Write total [%d] bytes into Event Log File.\n",
                 EMP_RECORD_SIZE + structLength);
    empLogRequireWritten(append.event->evStruct, written - EMP_RECORD_SIZE, structLength,
                         EMP_HERE_IN(APPEND));
}

void indexAndAdvance(const Append_t& append) {
    empControl.empEventInLogFile++;
    empControl.empEventAddToLogFile++;
    U32_t slot = empIndexRecord(append.newEvRecord.evSequenceId, empControl.empWrite);
    empDebugLine(
        "empSaveEventLogMsgToLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = [0x%x] for new Event Entry.\n",
        static_cast<int>(slot), static_cast<int>(empControl.empWrite),
        eventEntryDatabase[slot].evFlag);
    empControl.empWrite += lengthOf(&append.newEvRecord);
    empDebugLine("empSaveEventLogMsgToLogFile(): new empWrite = [%d].\n",
                 static_cast<int>(empControl.empWrite));
}

/** In a log that protects nothing below, a dummy always follows the newest record. */
void renewDummy() {
    if (empControl.empStart != EMP_LOG_FILE_SIZE) {
        return;
    }
    empWriteDummyEntryToLogFile(empControl.empWrite, EMP_LOG_LAST_HEADER - empControl.empWrite,
                                empControl.empWrapOver == EMP_E_WRAP_OVER_TRUE);
    empDebugLine("empSaveEventLogMsgToLogFile(): Recreate Dummy Entry for wipping out space.\n");
}

} // namespace

void empSaveEventLogMsgToLogFile(const MMSG_t* mmsgPtr) {
    Append_t append = beginAppend(mmsgPtr);
    makeRoom(append);
    writeRecord(append);
    indexAndAdvance(append);
    renewDummy();
}
