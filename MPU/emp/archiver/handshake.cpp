#include "archiver/handshake.h"

#include "archiver/connection.h"
#include "archiver/forward.h"
#include "archiver/link_state.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "state/control.h"
#include "store/entry.h"
#include "store/log_file.h"
#include "store/record.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>

namespace {

void buildStatusHeader(EmpEvArchiverMsgHeader_t* header) {
    header->evArchiverMsgHdrVersion = 1;
    header->evArchiverMsgBodyLength = sizeof(EmpGetEvArchiverStatusMsg_t);
    header->evArchiverMsgType = EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS;
    header->evArchiverMsgFlag = EMP_E_EVENT_ARCHIVER_MSG_REQUEST;
    header->evArchiverMsgReturnCode = 0;
    header->evArchiverMsgHandle = empControl.empEventArchiverHandle;
    empControl.empEventArchiverHandle++;
}

void buildStatusIdentity(EmpGetEvArchiverStatusMsg_t* status) {
    memcpy(status->evEnclosureId, empControl.empEnclosureId, sizeof(status->evEnclosureId));
    memcpy(status->evBladeId, empControl.empBladeId, sizeof(status->evBladeId));
    status->evSlotId = empControl.empSlotId;
    status->evInstanceNumber = empControl.empInstanceNumber;
    status->evSequenceIdFirst = empControl.empStartSequenceId;
}

/** Tells the archiver which log this is: length and first data bytes of the oldest record. */
void readOldestRecord(EmpGetEvArchiverStatusMsg_t* status) {
    static constexpr char function[] = "empSendGetEventArchiverStatusMsg";
    S64_t position = empLogFilePosition;
    // KEEP: the entry's flag is not looked at; a cleared entry leads to the record at offset 0.
    U32_t offset = eventEntryDatabase[empIndexSlot(empControl.empStartSequenceId)].evOffset;
    empDebugLine("empSendGetEventArchiverStatusMsg(): Found Entry Offset = [%d]\n",
                 static_cast<int>(offset));
    empLogSeek(offset, EMP_HERE_IN(function));

    EmpEvRecord_t record;
    empDebugLine(
        "empSendGetEventArchiverStatusMsg(): Read [%d] bytes of Event Record to Temp place.\n",
        EMP_RECORD_SIZE);
    empReadRecord(&record, EMP_HERE_IN(function));
    empRequireSignatureOrDump(&record, EMP_HERE_IN(function));

    status->evStructLength = record.evStructLength;
    empDebugLine(
        "empSendGetEventArchiverStatusMsg(): Read [%d] bytes of Event Structure to Temp place.\n",
        static_cast<int>(record.evStructLength));
    U32_t length = std::min<U32_t>(record.evStructLength, sizeof(status->evRandom));
    empLogRead(status->evRandom, length, EMP_HERE_IN(function));
    empDebugLine(
        "empSendGetEventArchiverStatusMsg(): Switch back to the original File Position [%d]\n",
        static_cast<int>(position));
    empLogMoveTo(position);
}

/** Drops the log entries up to and including an id. Only the index and the counters change. */
void clearEntriesUpTo(U32_t last) {
    U32_t first = empControl.empStartSequenceId;
    // KEEP: the sum wraps, so that 0xFFFFFFFF clears nothing.
    U32_t bound = last + 1U;
    if (first >= bound) {
        return;
    }
    // KEEP: the archiver's id alone is the bound, however far it lies beyond the log.
    U32_t entries = bound - first;
    for (U32_t i = 0; i < std::min(entries, EMP_INDEX_ENTRIES); i++) {
        empIndexClear(empIndexSlot(first + i));
    }
    empControl.empStartSequenceId = bound;
    empControl.empEventInLogFile -= entries;
    empControl.empEventDelFromLogFile += entries;
}

void startFromOldestEvent() {
    empDebugLine(
        "empRcvGetEventArchiverStatusMsg(): Event Archiver no data. Send Event Log Seq Id = [%d]\n",
        static_cast<int>(empControl.empStartSequenceId));
    empControl.empEventArchiverSequenceId = empControl.empStartSequenceId;
    empSendEventLogToEventArchiver(empControl.empStartSequenceId);
}

void continueAfter(U32_t last) {
    empDebugLine(
        "empRcvGetEventArchiverStatusMsg(): Event Archiver has data up to Event Log Seq Id = [%d]\n",
        static_cast<int>(last));
    empControl.empEventArchiverSequenceId = last;
    empSendCatchUpEvent(
        "empRcvGetEventArchiverStatusMsg(): SeqId [%d] in Event Archiver > SeqId [%d] in Event Log File.\n");
}

} // namespace

S32_t empSendGetEventArchiverStatusMsg() {
    if (!empArchiverFlagSet() ||
        empControl.evArchiverSocketState != EMP_E_ARCHIVER_SOCKET_ST_CONNECTED) {
        return EMP_E_GENERR;
    }
    // KEEP: four bytes more than header and body go out; they are zeros.
    memset(eventEntryWorkSpace, 0, EMP_ARCHIVER_STATUS_REQUEST_SIZE);
    auto* message = reinterpret_cast<EmpEvArchiverMsg_t*>(eventEntryWorkSpace);
    auto* status = reinterpret_cast<EmpGetEvArchiverStatusMsg_t*>(message->user_data_start);
    buildStatusHeader(&message->evArchiverMsgHdr);
    buildStatusIdentity(status);
    readOldestRecord(status);
    empEvArchiverMsgPrint(message);
    S32_t result = static_cast<S32_t>(send(empControl.socketFdEventArchiver, message,
                                           EMP_ARCHIVER_STATUS_REQUEST_SIZE, MSG_DONTWAIT));
    if (result != static_cast<S32_t>(EMP_ARCHIVER_STATUS_REQUEST_SIZE)) {
        empDebugLine(
            "empSendGetEventArchiverStatusMsg(): Partial [%d] bytes of Event Archiver Status Msg sent from EMP to EA\n",
            result);
        empCloseEventArchiverConnection();
        return EMP_E_GENERR;
    }
    empMoveLinkState(EMP_E_LINK_STATUS_SENT);
    return EMP_E_OK;
}

void empRcvGetEventArchiverStatusMsg(const EmpEvArchiverMsg_t* message) {
    const auto* status =
        reinterpret_cast<const EmpGetEvArchiverStatusMsg_t*>(message->user_data_start);
    U32_t last = status->evSequenceIdLast;
    U32_t controlFlag = status->evArchiverControlFlag;
    empMoveLinkState(EMP_E_LINK_STATUS_RECEIVED);
    if ((controlFlag & EMP_E_ARCHIVER_CONTROL_CLEAR) != 0) {
        empDebugLine(
            "empRcvGetEventArchiverStatusMsg(): Event Archiver asks us to clear Event Log prior than Seq Id = [%d]\n",
            static_cast<int>(last));
        clearEntriesUpTo(last);
    }
    if ((controlFlag & EMP_E_ARCHIVER_CONTROL_NO_DATA) != 0) {
        startFromOldestEvent();
    } else {
        continueAfter(last);
    }
}
