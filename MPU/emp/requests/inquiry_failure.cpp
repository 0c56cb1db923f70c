#include "requests/inquiry_failure.h"

#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "fault/fixed_sites.h"
#include "mmsg/message.h"
#include "mmsg/reply.h"
#include "state/control.h"

#include <cstring>

namespace {

constexpr EmpInquirySourceTexts_t sourceTexts = {
    "empSendEventInquiryMsgFailureToRequestor(): This Inquiry Message is from Other Blade.\n",
    "empSendEventInquiryMsgFailureToRequestor(): This Inquiry Message is from Local Blade.\n",
};

/** Echoes what was asked about; everything else of the event is zero. */
void fillBody(const EmpEvInquiryMsg_t* inquiry) {
    EmpEvLogHeader_t* event = &empReplyEvent()->evLogHdr;
    memset(event, 0, sizeof(*event));
    memcpy(event->evEnclosureId, inquiry->evEnclosureId, sizeof(event->evEnclosureId));
    memcpy(event->evBladeId, inquiry->evBladeId, sizeof(event->evBladeId));
    event->evSlotId = inquiry->evSlotId;
    event->evInstanceNumber = inquiry->evInstanceNumber;
    event->evSequenceId = inquiry->evSeqIdInquiry;
}

} // namespace

S32_t empSendEventInquiryMsgFailureToRequestor(const MMSG_t* mmsg) {
    empBeginInquiryReply(mmsg->mmch.mmsg_cont, mmsg->mmch.requestor, mmsg->mmch.handle,
                         sourceTexts);
    empReply()->mmch.mmsg_length = EMP_EVENT_MMSG_SIZE;
    empReply()->mmch.return_code = EMP_E_RESPONSE_FAILURE;
    fillBody(empInquiryOf(mmsg));
    empDebugLine(
        "empSendEventInquiryMsgFailureToRequestor(): Send out a MMSG from the Event Manager to Requestor.\n");
    empMmsgPrint(empReply());
    empControl.mmsgEventResponseMsgSendFail++;
    return empSendToMsm(empReply(), EMP_EVENT_MMSG_SIZE, EMP_SITE_INQUIRY_FAILURE_SEND,
                        EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT);
}
