#include "store/scan.h"

#include "diag/debug_line.h"
#include "state/control.h"
#include "store/find.h"
#include "store/log_file.h"
#include "store/record.h"
#include "text64.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char SCAN[] = "empProcessEventLogFile";

/** Largest remainder that a dummy written at the end of the scan states as its length. */
constexpr U16_t SCAN_DUMMY_MAX = 3844;

constexpr U32_t FIRST_ENTRY_END = 200; ///< a fresh log goes on behind its first entry

char logFilePath[EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_LOG_FILE_NAME)];
char debugLogFilePath[EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_DEBUG_LOG_FILE_NAME)];

/** The walk over the file. */
struct Scan_t {
    U32_t readPosition = 0;    ///< where the next record is expected
    U32_t gap = 0;             ///< bytes between there and the next valid record
    bool firstEvRecord = true; ///< until the first valid record has been taken
};

/** What comes after a step of the walk. */
enum Step_e { GO_ON, DONE, REBUILT };

EmpEvRecord_t* workRecord() {
    return reinterpret_cast<EmpEvRecord_t*>(eventEntryWorkSpace);
}

void buildPaths() {
    constexpr int directorySize = EMP_DIRECTORY_TEXT_SIZE;
    snprintf(logFilePath, sizeof(logFilePath), "%.*s%s", directorySize, oMpuParams->nvramDirectory,
             EMP_LOG_FILE_NAME);
    snprintf(debugLogFilePath, sizeof(debugLogFilePath), "%.*s%s", directorySize,
             oMpuParams->nvramDirectory, EMP_DEBUG_LOG_FILE_NAME);
}

/** A debugging copy survives only until the next start. Opening a FIFO must not wait for its
 * writer. */
void removeDebuggingCopy() {
    int fd = open(debugLogFilePath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        return;
    }
    close(fd);
    remove(debugLogFilePath);
    empDebugLine(
        "empProcessEventLogFile(): Remove the debugging copy of the Event Log File [%s].\n",
        debugLogFilePath);
}

void openLogFile() {
    empLogTake(open(logFilePath, O_RDWR | O_CREAT | O_CLOEXEC, 0700));
    if (empControl.eventLogFileFd == -1) {
        EMP_BUGCHECK(EMP_HERE_IN(SCAN), "Linux open function fails for Event Log File!");
    }
}

void printPositions() {
    empDebugLine("empProcessEventLogFile(): empWrite = [%d], new empStart = [%d].\n",
                 static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart));
}

/** Nothing before the end of the file needs protecting. */
void releaseStart() {
    empControl.empStart = EMP_LOG_FILE_SIZE;
    empDebugLine(
        "empProcessEventLogFile(): Because of creation of Dummy Entry, empWrite = [%d], new empStart = [%d].\n",
        static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart));
}

/** A log of one entry and zeros behind a dummy to the end of the file. */
void startFreshLog() {
    empWriteFirstEventEntryToLogFile();
    empWriteDummyEntryToLogFile(FIRST_ENTRY_END, EMP_DUMMY_TO_END, 1);
}

/** No further valid record: the log ends here, in a dummy. */
void endWithDummy(Scan_t& scan) {
    if (scan.firstEvRecord) {
        empWriteFirstEventEntryToLogFile();
        scan.readPosition = FIRST_ENTRY_END;
    }
    empDebugLine(
        "empProcessEventLogFile(): Can't find a valid Event Entry in Event Log File? Create Dummy Entry.\n");
    // KEEP: 16 bits. Slightly above a multiple of 65,536 the small remainder is the dummy's length.
    auto dummyStructLength = static_cast<U16_t>(EMP_LOG_LAST_HEADER - scan.readPosition);
    if (dummyStructLength > SCAN_DUMMY_MAX) {
        dummyStructLength = 0xFFFF;
    }
    empWriteDummyEntryToLogFile(scan.readPosition, dummyStructLength, 1);
    printPositions();
    if (scan.firstEvRecord) {
        releaseStart();
    }
}

/** The file belongs to another slot or enclosure: its record in the work space says so. */
void clearForeignLog() {
    const EmpEvRecord_t* record = workRecord();
    empControl.empInstanceNumber = record->evInstanceNumber + 1;
    empDebugLine(
        "empProcessEventLogFile(): EnclosureId[%.64s] or SlotId [%d] in Event Log File Different from Run Time.\n",
        empTextArg(record->evEnclosureId), static_cast<int>(record->evSlotId));
    empDebugLine(
        "empProcessEventLogFile(): Clear current Event Log File. New Instance Number = [%d].\n",
        static_cast<int>(empControl.empInstanceNumber));
    startFreshLog();
    empControl.empStart = EMP_LOG_FILE_SIZE;
}

/** Second gap: the damaged file becomes the debugging copy and a new log is started. */
void rebuildLog() {
    close(empControl.eventLogFileFd);
    // Unchecked: should the rename fail, the file is opened again and started afresh in place.
    rename(logFilePath, debugLogFilePath);
    openLogFile();
    empDebugLine(
        "empProcessEventLogFile(): 2 gaps in Event Log File. Reinitialize the Event Log File.\n");
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    empControl.empWrite = 0;
    empControl.empSequenceId = 0;
    empControl.empStartSequenceId = 0;
    empControl.empEventInLogFile = 0;
    empControl.empEventAddToLogFile = 0;
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    empControl.foundGap = 0;
    startFreshLog();
    // KEEP: empStart is still that of the damaged file in this line.
    printPositions();
    releaseStart();
}

/** The dummy behind the last record, or a record that begins where no header fits. */
void endAtDummy(Scan_t& scan) {
    empLogSeek(empControl.empStart, EMP_HERE_IN(SCAN));
    if (scan.firstEvRecord || empControl.empWrapOver == EMP_E_WRAP_OVER_FALSE) {
        empControl.empStart = EMP_LOG_FILE_SIZE;
    }
    scan.firstEvRecord = false;
}

bool isForeign(const EmpEvRecord_t* record) {
    return !empTextEqual(record->evEnclosureId, empControl.empEnclosureId) ||
           record->evSlotId != empControl.empSlotId;
}

/** Until the log wraps, the write position follows the records. */
void advanceWrite(const Scan_t& scan, const EmpEvRecord_t* record) {
    if (empControl.empWrapOver == EMP_E_WRAP_OVER_FALSE) {
        empControl.empWrite += record->evStructLength + U32_t{EMP_RECORD_SIZE} + scan.gap;
        empControl.empStart = empControl.empWrite;
    }
    empDebugLine("empProcessEventLogFile(): Event Log with Sequence Id = [%d].\n",
                 static_cast<int>(record->evSequenceId));
}

void takeFirst(Scan_t& scan, const EmpEvRecord_t* record) {
    empControl.empInstanceNumber = record->evInstanceNumber;
    advanceWrite(scan, record);
    empControl.empStartSequenceId = record->evSequenceId;
    empControl.empSequenceId = record->evSequenceId + 1;
    scan.firstEvRecord = false;
}

void takeContinuous(const Scan_t& scan, const EmpEvRecord_t* record) {
    advanceWrite(scan, record);
    empControl.empSequenceId++;
    if (scan.gap != 0) {
        EMP_BUGCHECK(EMP_HERE_IN(SCAN), "Continuous SequenceId with Gap? Bug somewhere!");
    }
}

/** An older record, behind the newest; empSequenceId stays, so every older record comes here. */
void takeNotContinuous(const Scan_t& scan, const EmpEvRecord_t* record) {
    empDebugLine("empProcessEventLogFile(): SequenceId isn't continuous between Event Entries.\n");
    if (empControl.empStartSequenceId > record->evSequenceId) {
        empControl.empWrapOver = EMP_E_WRAP_OVER_TRUE;
        empDebugLine("empProcessEventLogFile(): Event Log File is wrapped over.\n");
        empControl.empWrite = scan.readPosition;
        empControl.empStart = scan.readPosition;
        empControl.empStartSequenceId = record->evSequenceId;
    }
    if (record->evSequenceId < empControl.empSequenceId &&
        empControl.empWrapOver == EMP_E_WRAP_OVER_FALSE) {
        EMP_BUGCHECK(EMP_HERE_IN(SCAN), "Invalid Sequence ID? Bug somewhere!");
    }
    if (scan.gap != 0) {
        empDebugLine(
            "empProcessEventLogFile(): Add [%d] bytes of gap between Event Entries for empStart.\n",
            static_cast<int>(scan.gap));
        empControl.empStart += scan.gap;
    } else {
        empDebugLine("empProcessEventLogFile(): No gap between Event Entries.\n");
    }
    empDebugLine("empProcessEventLogFile(): empWrite = [%d], empStart = [%d]\n",
                 static_cast<int>(empControl.empWrite), static_cast<int>(empControl.empStart));
    empDebugLine("empProcessEventLogFile(): empSequenceId = [%d], empStartSequenceId = [%d]\n",
                 static_cast<int>(empControl.empSequenceId),
                 static_cast<int>(empControl.empStartSequenceId));
}

void indexAndAdvance(Scan_t& scan, const EmpEvRecord_t* record) {
    U32_t offset = scan.readPosition + scan.gap;
    U32_t slot = empIndexRecord(record->evSequenceId, offset);
    empDebugLine(
        "empProcessEventLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = [0x%x] for non-Dummy Entry.\n",
        static_cast<int>(slot), static_cast<int>(offset), eventEntryDatabase[slot].evFlag);
    empControl.empEventInLogFile++;
    scan.readPosition += scan.gap + EMP_RECORD_SIZE + record->evStructLength;
    empDebugLine("empProcessEventLogFile(): new Read position = [%d]\n",
                 static_cast<int>(scan.readPosition));
}

/** Takes the record in the work space, which is valid and no dummy. */
Step_e takeRecord(Scan_t& scan) {
    const EmpEvRecord_t* record = workRecord();
    if (scan.firstEvRecord) {
        empDebugLine("empProcessEventLogFile(): This is first Event Entry.\n");
        if (isForeign(record)) {
            clearForeignLog();
            return DONE;
        }
        takeFirst(scan, record);
    } else if (record->evSequenceId == empControl.empSequenceId) {
        takeContinuous(scan, record);
    } else {
        takeNotContinuous(scan, record);
    }
    indexAndAdvance(scan, record);
    if (scan.readPosition == EMP_LOG_FILE_SIZE) {
        empDebugLine(
            "empProcessEventLogFile(): Reach end of the Event Log Files. Read position = [%d]\n",
            static_cast<int>(scan.readPosition));
        return DONE;
    }
    return GO_ON;
}

/** One gap is normal: between the newest records and the oldest, partly overwritten ones. */
bool isSecondGap(const Scan_t& scan) {
    if (scan.gap == 0) {
        return false;
    }
    empDebugLine(
        "empProcessEventLogFile(): Found gap = [%d] between the current Event Entry and another one.\n",
        static_cast<int>(scan.gap));
    bool second = empControl.foundGap == 1;
    empControl.foundGap = 1;
    return second;
}

Step_e scanNext(Scan_t& scan) {
    empLogSeek(scan.readPosition, EMP_HERE_IN(SCAN));
    // A file longer than the log may hold a record that crosses the log's end: nothing is searched
    // there.
    if (scan.readPosition > EMP_LOG_FILE_SIZE ||
        empFindValidEventEntry(scan.readPosition, &scan.gap) != EMP_E_OK) {
        endWithDummy(scan);
        return DONE;
    }
    if (isSecondGap(scan)) {
        rebuildLog();
        return REBUILT;
    }
    // The search has left the header in the work space; the position is that of a read of it.
    empLogMoveTo(S64_t{scan.readPosition} + scan.gap + EMP_RECORD_SIZE);
    if (empIsDummy(workRecord()) || empBeyondLogEnd(empControl.empStart, EMP_RECORD_SIZE)) {
        endAtDummy(scan);
        return DONE;
    }
    return takeRecord(scan);
}

} // namespace

EMP_SCAN_OUTCOME_e empScanEventLogFile() {
    buildPaths();
    removeDebuggingCopy();
    openLogFile();
    empLogRequireSeekable(EMP_HERE_IN(SCAN));
    Scan_t scan;
    Step_e step = GO_ON;
    while (step == GO_ON) {
        step = scanNext(scan);
    }
    return step == REBUILT ? EMP_E_SCAN_REBUILT : EMP_E_SCAN_DONE;
}
