#include "archiver/relay.h"

#include "archiver/pending.h"
#include "diag/debug_line.h"
#include "mmsg/reply.h"
#include "state/control.h"

#include <cstring>
#include <sys/socket.h>

namespace {

constexpr char RELAY[] = "empSendEventInquiryToEventArchiver";
constexpr int RESPONSE_SECONDS = 15;

/** An inquiry as it goes to the archiver: 160 bytes. */
struct InquiryMessage_t {
    EmpEvArchiverMsgHeader_t header; //  0
    EmpEvInquiryMsg_t inquiry;       // 16
};
static_assert(sizeof(InquiryMessage_t) == 160 && isWireImage<InquiryMessage_t>);

void fillRecord(EvMsgRecordEntry_t* entry, const MMSG_t* mmsg) {
    const EmpEvInquiryMsg_t* inquiry = empInquiryOf(mmsg);
    entry->evMsgType = EMP_E_MSGS_INQUIRY;
    entry->mmch_version = mmsg->mmch.mmch_version;
    entry->requestor = mmsg->mmch.requestor;
    entry->mmsg_cont = mmsg->mmch.mmsg_cont;
    entry->handle = mmsg->mmch.handle;
    memcpy(entry->evEnclosureId, inquiry->evEnclosureId, sizeof(entry->evEnclosureId));
    memcpy(entry->evBladeId, inquiry->evBladeId, sizeof(entry->evBladeId));
    entry->evSlotId = inquiry->evSlotId;
    entry->evInstanceNumber = inquiry->evInstanceNumber;
    entry->evSeqIdInquiry = inquiry->evSeqIdInquiry;
    entry->evInquiryType = static_cast<U8_t>(inquiry->evInquiryType);
    entry->responseTimeout = {RESPONSE_SECONDS, 0};
    entry->msgLength = sizeof(InquiryMessage_t);
}

InquiryMessage_t inquiryMessage(const MMSG_t* mmsg) {
    InquiryMessage_t message;
    message.header.evArchiverMsgHdrVersion = 1;
    message.header.evArchiverMsgBodyLength = sizeof(EmpEvInquiryMsg_t);
    message.header.evArchiverMsgType = static_cast<U16_t>(mmsg->mmch.opcode.request.type);
    message.header.evArchiverMsgFlag = EMP_E_EVENT_ARCHIVER_MSG_REQUEST;
    message.header.evArchiverMsgReturnCode = 0;
    message.header.evArchiverMsgHandle = mmsg->mmch.handle;
    message.inquiry = *empInquiryOf(mmsg);
    return message;
}

void sendInquiryNow(EvMsgRecordEntry_t* entry, const InquiryMessage_t& message) {
    S32_t result = static_cast<S32_t>(
        send(empControl.socketFdEventArchiver, &message, sizeof(message), MSG_DONTWAIT));
    if (result == static_cast<S32_t>(sizeof(message))) {
        entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
        entry->byteSent = sizeof(message);
        empEvMsgPush(&EvMsgRecordResponseList, entry);
        empControl.responsePendingListCount++;
        return;
    }
    // KEEP: the link stays open, so new events may land between the two parts of the inquiry.
    empDebugLine(
        "empSendEventInquiryToEventArchiver(): Only send out partial [%d] bytes of Event Record from EMP to EA\n",
        result);
    entry->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    empEvMsgKeepMessage(entry, &message, sizeof(message), EMP_HERE_IN(RELAY));
    entry->byteSent = static_cast<U32_t>(result);
    empEvMsgPush(&EvMsgRecordForwardList, entry);
    empControl.forwardPendingListCount++;
}

void queueInquiry(EvMsgRecordEntry_t* entry, const InquiryMessage_t& message) {
    entry->state = EMP_E_EVMSG_RECORD_ST_NOT_FORWARD;
    empEvMsgKeepMessage(entry, &message, sizeof(message), EMP_HERE_IN(RELAY));
    empEvMsgAppend(&EvMsgRecordForwardList, entry);
    empControl.forwardPendingListCount++;
}

} // namespace

S32_t empSendEventInquiryToEventArchiver(const MMSG_t* mmsg) {
    if (!empArchiverFlagSet() || !empPendingRecordAdmitted()) {
        return EMP_E_GENERR;
    }
    EvMsgRecordEntry_t* entry = empEvMsgTake(EMP_HERE);
    fillRecord(entry, mmsg);
    const InquiryMessage_t message = inquiryMessage(mmsg);
    switch (empControl.evArchiverSocketState) {
    case EMP_E_ARCHIVER_SOCKET_ST_OPEN:
        sendInquiryNow(entry, message);
        break;
    case EMP_E_ARCHIVER_SOCKET_ST_FULL:
        queueInquiry(entry, message);
        break;
    default:
        // KEEP: before the handshake is through, the record is lost to the pool for good and the
        // requestor gets no answer.
        break;
    }
    return EMP_E_OK;
}
