#include "archiver/response_timer.h"

#include "archiver/pending.h"
#include "archiver/timer.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "mmsg/message.h"
#include "mmsg/reply.h"
#include "state/control.h"

#include <cstring>

namespace {

constexpr EmpInquirySourceTexts_t sourceTexts = {
    "empProcessResponseTimeout(): This Inquiry Message is from Other Blade.\n",
    "empProcessResponseTimeout(): This Inquiry Message is from Local Blade.\n",
};

void buildTimeoutReply(const EvMsgRecordEntry_t* entry) {
    empBeginInquiryReply(entry->mmsg_cont, entry->requestor, entry->handle, sourceTexts);
    empReply()->mmch.return_code = EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE;
    empReply()->mmch.mmsg_length = EMP_EVENT_MMSG_SIZE;
    // KEEP: the blade id stays zero.
    EmpEvLogHeader_t* event = &empReplyEvent()->evLogHdr;
    memset(event, 0, sizeof(*event));
    memcpy(event->evEnclosureId, entry->evEnclosureId, sizeof(event->evEnclosureId));
    event->evSlotId = entry->evSlotId;
    event->evInstanceNumber = entry->evInstanceNumber;
    event->evSequenceId = entry->evSeqIdInquiry;
}

/** KEEP: an event that went out from the forward list is answered too: handle 0, to endpoint 0. */
void sendTimeoutReply(const EvMsgRecordEntry_t* entry) {
    buildTimeoutReply(entry);
    empDebugLine(
        "empProcessResponseTimeout(): Send out a MMSG from the Event Manager to Requestor.\n");
    empMmsgPrint(empReply());
    empControl.mmsgEventResponseMsgSendResourceNotAvailable++;
    if (entry->evMsgType == EMP_E_MSGS_INQUIRY) {
        empControl.evManagerInquiryMsgTimeout++;
    }
    empSendToMsm(empReply(), EMP_EVENT_MMSG_SIZE, EMP_HERE_IN("empProcessResponseTimeout"),
                 EMP_E_SHORT_SEND_SHOWS_RESULT);
}

/**
 * Whether a walk stands on a record.
 * KEEP: the link is read after the record was handled. That of a freed one leads into the free
 * list, where the walk ends: two inquiries that expire together are answered one pass apart.
 */
bool stillListed(const EvMsgRecordEntry_t* entry) {
    return entry != nullptr && entry->state != EMP_E_EVMSG_RECORD_ST_NOT_USED;
}

void walkResponseList() {
    for (EvMsgRecordEntry_t* entry = EvMsgRecordResponseList; stillListed(entry);
         entry = entry->link.flink) {
        if (empTimerExpired(&entry->responseTimeout)) {
            sendTimeoutReply(entry);
            empEvMsgEntryFree(entry);
        }
    }
}

void walkForwardList() {
    for (EvMsgRecordEntry_t* entry = EvMsgRecordForwardList; stillListed(entry);
         entry = entry->link.flink) {
        if (entry->evMsgType == EMP_E_MSGS_LOG || !empTimerExpired(&entry->responseTimeout)) {
            continue;
        }
        sendTimeoutReply(entry);
        // KEEP: the rest of a partly sent inquiry must follow, so it stays and expires on every
        // pass.
        if (entry->state != EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD) {
            empEvMsgEntryFree(entry);
        }
    }
}

} // namespace

void empProcessResponseTimeout() {
    if (empControl.forwardPendingListCount == 0 && empControl.responsePendingListCount == 0) {
        return;
    }
    walkResponseList();
    walkForwardList();
}
