#include "fault/records.h"

#include "altEventLog.h"
#include "emp_evl.h"
#include "emp_mesgs.h"
#include "fault/control_image.h"
#include "mmsg.h"
#include "state/control.h"
#include "text64.h"

#include <cstring>

U8_t empBugCheckWorkSpace[MMSG_MAX_LENGTH];

namespace {

constexpr U16_t BUFFER_PART = 256;       ///< stored of each buffer
constexpr U16_t INDEX_PIECE_SIZE = 2000; ///< 500 entries
constexpr size_t INDEX_PIECES = 20;
static_assert(INDEX_PIECE_SIZE * INDEX_PIECES == EMP_INDEX_ENTRIES * sizeof(EmpEvDatabase_t));
static_assert(EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE + INDEX_PIECES ==
              EMP_E_ID_EVENTMGRMP_NEXT_ID);

EmpEvLogMsg_t* record() {
    return reinterpret_cast<EmpEvLogMsg_t*>(empBugCheckWorkSpace);
}

U8_t* recordBody() {
    return empBugCheckWorkSpace + EMP_EVENT_HEADER_SIZE;
}

/** What all records have in common. Sequence id and time stay 0: the next start gives out the id,
 * the writer of the file puts in the time. */
void buildHeader() {
    memset(empBugCheckWorkSpace, 0, sizeof(empBugCheckWorkSpace));
    EmpEvLogHeader_t& header = record()->evLogHdr;
    memcpy(header.evEnclosureId, empControl.empEnclosureId, sizeof(header.evEnclosureId));
    memcpy(header.evBladeId, empControl.empBladeId, sizeof(header.evBladeId));
    header.evSlotId = empControl.empSlotId;
    header.evInstanceNumber = empControl.empInstanceNumber;
    header.evSource = MMSG_E_EPID_EVENTLOGMP;
    header.evType = EMP_E_TYPE_ERROR;
    header.evCategory = EMP_E_CATEGORY_MANAGEMENT;
    header.evIdVersion = 1;
}

void storeRecord(size_t id, const void* body, U16_t length) {
    EmpEvLogHeader_t& header = record()->evLogHdr;
    header.evId = static_cast<U16_t>(id);
    header.evStructLength = length;
    memcpy(recordBody(), body, length);
    altEventLogM(record(), oMpuParams);
}

void storeError(const char* fileName, int lineNo, const char* fnName, const char* message) {
    EmpErrorMsg_t error = {};
    empTextCopy(error.empFileName, reinterpret_cast<const U8_t*>(fileName));
    empTextCopy(error.empFunctionName, reinterpret_cast<const U8_t*>(fnName));
    error.empLineNumber = static_cast<U32_t>(lineNo);
    static_assert(sizeof(error.empErrorMsg) == EMP_ERROR_TEXT_SIZE);
    memcpy(error.empErrorMsg, message, sizeof(error.empErrorMsg));
    storeRecord(EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG, &error, sizeof(error));
}

void storeControl() {
    EmpInfo_t info;
    empControlBuildInfo(&info);
    storeRecord(EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO, &info, sizeof(info));
}

void storeIndex() {
    const U8_t* index = reinterpret_cast<const U8_t*>(eventEntryDatabase);
    for (size_t piece = 0; piece < INDEX_PIECES; piece++) {
        storeRecord(EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE + piece,
                    index + piece * INDEX_PIECE_SIZE, INDEX_PIECE_SIZE);
    }
}

} // namespace

void empStoreFaultRecords(const char* fileName, int lineNo, const char* fnName,
                          const char* message) {
    buildHeader();
    storeError(fileName, lineNo, fnName, message);
    storeControl();
    storeRecord(EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER, empControl.empInMsg, BUFFER_PART);
    storeRecord(EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER, eventEntryWorkSpace, BUFFER_PART);
    storeIndex();
}
