#include "archiver/forward_list.h"

#include "archiver/forward.h"
#include "archiver/link_state.h"
#include "archiver/pending.h"
#include "archiver/timer.h"
#include "diag/debug_line.h"
#include "emp_mesgs.h"
#include "fault/bugcheck.h"
#include "state/control.h"

#include <sys/socket.h>

namespace {

constexpr int FORWARD_SECONDS = 5;
constexpr int CATCH_UP_MICROSECONDS = 100;

/** Where a record's write begins. */
U32_t firstByteToSend(EvMsgRecordEntry_t* entry) {
    switch (entry->state) {
    case EMP_E_EVMSG_RECORD_ST_NOT_FORWARD:
        return 0;
    case EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD:
        // Failed sends are added as -1. Below 0 nothing has been sent, and nothing lies before the
        // message.
        if (static_cast<S32_t>(entry->byteSent) < 0) {
            entry->byteSent = 0;
        }
        return entry->byteSent;
    default:
        EMP_BUGCHECK(EMP_HERE_IN("empSendForwardListToEventArchiver"),
                     "Item on Forward Pending List isn't FORWARD or PARTIAL FORWARD?");
    }
}

/** Writes what is left of a record's message. @return whether all of it went out */
bool sendQueuedMessage(EvMsgRecordEntry_t* entry) {
    U32_t first = firstByteToSend(entry);
    U32_t length = entry->msgLength - first;
    S32_t result = static_cast<S32_t>(
        send(empControl.socketFdEventArchiver, entry->memAddressPtr + first, length, MSG_DONTWAIT));
    if (result == static_cast<S32_t>(length)) {
        return true;
    }
    // KEEP: the interleaving variant prints this name too.
    empDebugLine(
        "empSendForwardListToEventArchiver(): Only send out partial [%d] bytes of Event Msg from EMP to EA\n",
        result);
    if (result != 0) {
        // KEEP: a failed send takes one byte off; it is sent again.
        entry->byteSent += static_cast<U32_t>(result);
        entry->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    }
    return false;
}

void moveToResponseList(EvMsgRecordEntry_t* entry) {
    empMoveLinkState(EMP_E_LINK_QUEUED_MESSAGE_SENT);
    if (entry->evMsgType == EMP_E_MSGS_LOG) {
        empControl.EAmsgEventLogMsgSend++;
    }
    entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
    empEvMsgUnlink(entry);
    empControl.forwardPendingListCount--;
    empEvMsgPush(&EvMsgRecordResponseList, entry);
    empControl.responsePendingListCount++;
}

void sendForwardList(bool interleave) {
    if (empControl.forwardPendingListCount == 0 || !empArchiverFlagSet()) {
        return;
    }
    EvMsgRecordEntry_t* entry = EvMsgRecordForwardList;
    while (entry != nullptr && sendQueuedMessage(entry)) {
        moveToResponseList(entry);
        if (interleave) {
            empSendCatchUpEvent(
                "empSendForwardListToEventArchiverWithInterleave(): Event Archiver SeqId [%d] > Event Log File SeqId [%d].\n");
        }
        // KEEP: the record stands at the head of the response list now. The walk ends there, or
        // takes the bug-check at what was its head.
        entry = entry->link.flink;
    }
}

void catchUp() {
    bool open = empControl.evArchiverSocketState == EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    if (open) {
        empSendCatchUpEvent(
            "empProcessForwardTimeout(): SeqId [%d] in Event Archiver > SeqId [%d] in Event Log File.\n");
        // The event may have filled the socket.
        open = empControl.evArchiverSocketState == EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    }
    bool upToDate = empControl.empEventArchiverSequenceId == empControl.empSequenceId - 1U;
    if (upToDate || !open) {
        empControl.selectTimeout = {1, 0};
    } else {
        empControl.selectTimeout = {0, CATCH_UP_MICROSECONDS};
    }
}

} // namespace

void empSendForwardListToEventArchiver() {
    sendForwardList(false);
}

void empSendForwardListToEventArchiverWithInterleave() {
    sendForwardList(true);
}

void empProcessForwardTimeout() {
    if (empControl.forwardPendingListCount == 0) {
        catchUp();
        return;
    }
    // KEEP: selectTimeout stays as it is, even at 100 us.
    if (empTimerExpired(&empControl.forwardTimeout)) {
        empSendForwardListToEventArchiverWithInterleave();
        empControl.forwardTimeout = {FORWARD_SECONDS, 0};
    }
}
