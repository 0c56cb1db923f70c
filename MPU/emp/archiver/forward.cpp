#include "archiver/forward.h"

#include "archiver/link_state.h"
#include "archiver/pending.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "fault/bugcheck.h"
#include "state/control.h"
#include "store/entry.h"
#include "store/log_file.h"

#include <sys/socket.h>

namespace {

constexpr char FORWARD[] = "empSendEventLogToEventArchiver";

EmpEvArchiverMsg_t* eventMessage() {
    return reinterpret_cast<EmpEvArchiverMsg_t*>(eventEntryWorkSpace);
}

void buildEventHeader(EmpEvArchiverMsgHeader_t* header, U16_t eventStructLength) {
    header->evArchiverMsgHdrVersion = 1;
    header->evArchiverMsgBodyLength = static_cast<U16_t>(eventStructLength + EMP_EVENT_HEADER_SIZE);
    header->evArchiverMsgType = EMP_E_MSGS_LOG;
    header->evArchiverMsgFlag = EMP_E_EVENT_ARCHIVER_MSG_REQUEST;
    header->evArchiverMsgReturnCode = 0;
    header->evArchiverMsgHandle = 0;
}

/** Reads the event at an offset of the log file into its message. @return bytes on the wire */
U32_t readEventMessage(U32_t offset) {
    empLogSeek(offset, EMP_HERE_IN(FORWARD));
    EmpEvRecord_t record;
    empDebugLine(
        "empSendEventLogToEventArchiver(): Read [%d] bytes of Event Record to Temp place.\n",
        EMP_RECORD_SIZE);
    empReadRecord(&record, EMP_HERE_IN(FORWARD));
    empRequireSignature(&record, EMP_HERE_IN(FORWARD));
    empDebugLine(
        "empSendEventLogToEventArchiver(): Read [%d] bytes of Event Structure to Temp place.\n",
        static_cast<int>(record.evStructLength));
    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(eventMessage()->user_data_start);
    empReadRecordData(&record, event->evStruct, EMP_HERE_IN(FORWARD));
    buildEventHeader(&eventMessage()->evArchiverMsgHdr, record.evStructLength);
    empCopyEventHeader(&event->evLogHdr, &record);
    return sizeof(EmpEvArchiverMsgHeader_t) + EMP_EVENT_HEADER_SIZE + record.evStructLength;
}

/** A record that holds the built message; it is on no list yet. */
EvMsgRecordEntry_t* keepEventMessage(U32_t length) {
    EvMsgRecordEntry_t* entry = empEvMsgTake(EMP_HERE_IN(FORWARD));
    entry->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    entry->evMsgType = EMP_E_MSGS_LOG;
    empEvMsgKeepMessage(entry, eventMessage(), length, EMP_HERE_IN(FORWARD));
    return entry;
}

void sendEventNow(U32_t length) {
    empEvArchiverMsgPrint(eventMessage());
    S32_t result = static_cast<S32_t>(
        send(empControl.socketFdEventArchiver, eventMessage(), length, MSG_DONTWAIT));
    if (result == static_cast<S32_t>(length)) {
        empControl.EAmsgEventLogMsgSend++;
        return;
    }
    empDebugLine(
        "empSendEventLogToEventArchiver(): Only send out partial [%d] bytes of Event Record from EMP to EA\n",
        result);
    EvMsgRecordEntry_t* entry = keepEventMessage(length);
    // KEEP: a failed send's -1 is kept as it is; the next write takes it as 0.
    entry->byteSent = static_cast<U32_t>(result);
    empEvMsgPush(&EvMsgRecordForwardList, entry);
    empControl.forwardPendingListCount++;
    empMoveLinkState(EMP_E_LINK_EVENT_SENT_IN_PART);
}

/** Queues the event behind the forward list. @return whether it was admitted */
bool queueEvent(U32_t length) {
    if (!empPendingRecordAdmitted()) {
        return false;
    }
    empEvMsgAppend(&EvMsgRecordForwardList, keepEventMessage(length));
    empControl.forwardPendingListCount++;
    return true;
}

/** Does with the built message what the link's state allows. @return false when it is refused */
bool sendOrQueueEvent(U32_t length) {
    switch (empControl.evArchiverSocketState) {
    case EMP_E_ARCHIVER_SOCKET_ST_OPEN:
        sendEventNow(length);
        return true;
    case EMP_E_ARCHIVER_SOCKET_ST_FULL:
        return queueEvent(length);
    default:
        return true;
    }
}

bool eventInLog(U32_t sequenceId) {
    return empControl.empStartSequenceId <= sequenceId && sequenceId < empControl.empSequenceId;
}

/** Moves the cursor and sends the event there. KEEP: it stays moved when the event is not sent. */
void sendFrom(U32_t sequenceId) {
    empControl.empEventArchiverSequenceId = sequenceId;
    empSendEventLogToEventArchiver(sequenceId);
}

} // namespace

S32_t empSendEventLogToEventArchiver(U32_t sequenceId) {
    S64_t position = empLogFilePosition;
    if (!empArchiverFlagSet() || !eventInLog(sequenceId)) {
        return EMP_E_GENERR;
    }
    const EmpEvDatabase_t& entry = eventEntryDatabase[empIndexSlot(sequenceId)];
    if (entry.evFlag != EMP_E_ENTRY_VALID) {
        empDebugLine(
            "empSendEventLogToEventArchiver(): Can not find the exact valid Entry with Sequence ID [%d]\n",
            static_cast<int>(sequenceId));
        return EMP_E_GENERR;
    }
    empDebugLine(
        "empSendEventLogToEventArchiver(): Found the exact valid Entry with Sequence ID [%d]\n",
        static_cast<int>(sequenceId));
    empDebugLine("empSendEventLogToEventArchiver(): Found Entry Offset = [%d]\n",
                 static_cast<int>(entry.evOffset));
    bool taken = sendOrQueueEvent(readEventMessage(entry.evOffset));
    empDebugLine(
        "empSendEventLogToEventArchiver(): Switch back to the original File Position [%d]\n",
        static_cast<int>(position));
    empLogMoveTo(position);
    return taken ? EMP_E_OK : EMP_E_GENERR;
}

void empSendCatchUpEvent(EmpLineFormat_t<int, int> aheadText) {
    U32_t cursor = empControl.empEventArchiverSequenceId;
    U32_t oldest = empControl.empStartSequenceId;
    U32_t next = empControl.empSequenceId;
    if (next <= cursor) {
        empDebugLine(aheadText, static_cast<int>(cursor), static_cast<int>(next));
        sendFrom(oldest);
    } else if (cursor < oldest) {
        sendFrom(oldest);
    } else if (cursor < next - 1U) {
        sendFrom(cursor + 1U);
    }
}
