#include "store/record.h"

#include "altEventLog.h"
#include "diag/debug_line.h"
#include "emp_evl.h"
#include "mmsg.h"
#include "osdep.h"
#include "state/control.h"
#include "store/log_file.h"

#include <cstring>

namespace {

constexpr U16_t FIRST_ENTRY_SIZE = 200;
static_assert(FIRST_ENTRY_SIZE == EMP_RECORD_SIZE + sizeof(EmpEventData_t));

// KEEP: the first entry's routine reports itself under this name.
constexpr char FIRST_ENTRY[] = "empWriteFirstEntryToLogFile";
constexpr char DUMMY_ENTRY[] = "empWriteDummyEntryToLogFile";

/** Clears the work space and builds the header of one of our own records in it, but for the
 * checksum. */
EmpEvRecord_t* buildOwnRecord(U16_t evId, U32_t sequenceId, U16_t structLength) {
    memset(eventEntryWorkSpace, 0, EMP_WORK_SPACE_SIZE);
    auto* record = reinterpret_cast<EmpEvRecord_t*>(eventEntryWorkSpace);
    struct timeval now = {};
    mpuGetTime(&now);
    record->evRdSignature = EMP_RECORD_SIGNATURE;
    record->evRdVersion = EMP_RECORD_VERSION;
    memcpy(record->evEnclosureId, empControl.empEnclosureId, EMP_ID_TEXT_SIZE);
    memcpy(record->evBladeId, empControl.empBladeId, EMP_ID_TEXT_SIZE);
    record->evSlotId = empControl.empSlotId;
    record->evInstanceNumber = empControl.empInstanceNumber;
    record->evSequenceId = sequenceId;
    record->evTime = static_cast<U32_t>(now.tv_sec);
    record->evStructLength = structLength;
    record->evSource = MMSG_E_EPID_EVENTLOGMP;
    record->evType = EMP_E_TYPE_INFORMATION;
    record->evCategory = EMP_E_CATEGORY_MANAGEMENT;
    record->evIdVersion = 1;
    record->evId = evId;
    return record;
}

/** Writes @p length zero bytes from the cleared work space, in pieces of its size. */
void writeZeros(U32_t length) {
    memset(eventEntryWorkSpace, 0, EMP_WORK_SPACE_SIZE);
    while (length > EMP_WORK_SPACE_SIZE) {
        empLogWrite(eventEntryWorkSpace, EMP_WORK_SPACE_SIZE, EMP_HERE_IN(DUMMY_ENTRY));
        length -= EMP_WORK_SPACE_SIZE;
    }
    empLogWrite(eventEntryWorkSpace, length, EMP_HERE_IN(DUMMY_ENTRY));
}

/** Writes zeros from @p offset to the end of the file, where no header fits. */
void writeZeroTail(U32_t offset) {
    empDebugLine(
        "empWriteDummyEntryToLogFile(): No enough space for Dummy Event Record. Write [%d] bytes of 0 to Event Log File.\n",
        static_cast<int>(EMP_LOG_FILE_SIZE - offset));
    if (offset <= EMP_LOG_FILE_SIZE) {
        writeZeros(EMP_LOG_FILE_SIZE - offset);
    }
}

void writeDummyHeader(U32_t length) {
    U16_t structLength = length <= EMP_DUMMY_TO_END ? static_cast<U16_t>(length) : U16_t{0xFFFF};
    EmpEvRecord_t* record = buildOwnRecord(EMP_E_ID_EVENTMGRMP_DUMMY, 0, structLength);
    record->evRdCRCChecksum = computeCRC32(empCoveredBytes(record), EMP_EVENT_HEADER_SIZE);
    empDebugLine("empWriteDummyEntryToLogFile(): Dummy Entry CRCChecksum = [0x%X].\n",
                 U32_t{record->evRdCRCChecksum});
    empLogWrite(record, EMP_RECORD_SIZE, EMP_HERE_IN(DUMMY_ENTRY));
}

} // namespace

bool empIsDummy(const EmpEvRecord_t* record) {
    return record->evSource == MMSG_E_EPID_EVENTLOGMP && record->evId == EMP_E_ID_EVENTMGRMP_DUMMY;
}

U32_t empIndexRecord(U32_t sequenceId, U32_t offset) {
    U32_t slot = empIndexSlot(sequenceId);
    eventEntryDatabase[slot].evFlag = EMP_E_ENTRY_VALID;
    eventEntryDatabase[slot].evOffset = offset;
    return slot;
}

void empIndexClear(U32_t slot) {
    eventEntryDatabase[slot] = EmpEvDatabase_t{};
}

void empWriteFirstEventEntryToLogFile() {
    EmpEvRecord_t* record =
        buildOwnRecord(EMP_E_ID_EVENTMGRMP_FIRST, empControl.empSequenceId, sizeof(EmpEventData_t));
    auto* data = reinterpret_cast<EmpEventData_t*>(eventEntryWorkSpace + EMP_RECORD_SIZE);
    memcpy(data->random, empControl.empEnclosureId, sizeof(data->random));
    record->evRdCRCChecksum =
        computeCRC32(empCoveredBytes(record), EMP_EVENT_HEADER_SIZE + sizeof(EmpEventData_t));
    U32_t sequenceId = empControl.empSequenceId++;

    empLogSeek(0, EMP_HERE_IN(FIRST_ENTRY));
    empLogWrite(eventEntryWorkSpace, FIRST_ENTRY_SIZE, EMP_HERE_IN(FIRST_ENTRY));

    empControl.empEventInLogFile++;
    empControl.empEventAddToLogFile++;
    U32_t slot = empIndexRecord(sequenceId, empControl.empWrite);
    empDebugLine(
        "empWriteFirstEntryToLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = [0x%x] for new Event Entry.\n",
        static_cast<int>(slot), static_cast<int>(empControl.empWrite),
        eventEntryDatabase[slot].evFlag);
    empControl.empWrite += FIRST_ENTRY_SIZE;
    empDebugLine("empWriteFirstEntryToLogFile(): new empWrite = [%d].\n",
                 static_cast<int>(empControl.empWrite));
}

void empWriteDummyEntryToLogFile(U32_t writePosition, U32_t dummyStructLength, int writeZeroFlag) {
    S64_t notedPosition = empLogFilePosition;
    empLogSeek(writePosition, EMP_HERE);
    if (empBeyondLogEnd(writePosition, EMP_RECORD_SIZE)) {
        writeZeroTail(writePosition);
    } else {
        writeDummyHeader(dummyStructLength);
        if (dummyStructLength == EMP_DUMMY_TO_END) {
            dummyStructLength = EMP_LOG_LAST_HEADER - writePosition;
        }
        if (writeZeroFlag == 1) {
            writeZeros(dummyStructLength);
        }
    }
    empLogMoveTo(notedPosition);
}
