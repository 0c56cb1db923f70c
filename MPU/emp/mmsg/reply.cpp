#include "mmsg/reply.h"

#include "diag/debug_line.h"
#include "mmsg/message.h"

#include <iterator>

void empBuildReplyMmch(MMCH_t* mmch, U32_t type, U8_t requestor, U32_t handle, EMP_REPLY_TO_e to) {
    empBuildMmch(mmch, MMSG_E_PROTOCOL_EVENTMGR, type);
    mmch->mmsg_cont = MMSG_E_CONT_RESPONSE;
    mmch->dest_ep = requestor;
    mmch->handle = handle;
    U32be_t(&bitmap)[2] =
        to == EMP_E_REPLY_TO_OTHER_BLADE ? mmch->recipient_ob_bm : mmch->recipient_loc_bm;
    // Nobody checks the requestor of a request; a higher one would reach the fields behind the
    // bitmap.
    U32_t word = requestor / 32U;
    if (word < std::size(bitmap)) {
        bitmap[word] = empEndpointBit(requestor);
    }
}

void empBeginInquiryReply(U8_t mmsgCont, U8_t requestor, U32_t handle,
                          const EmpInquirySourceTexts_t& texts) {
    EMP_REPLY_TO_e to = empReplyTo(mmsgCont);
    empDebugLine(to == EMP_E_REPLY_TO_OTHER_BLADE ? texts.otherBlade : texts.localBlade);
    empBuildReplyMmch(&empReply()->mmch, EMP_E_MSGS_INQUIRY, requestor, handle, to);
}

void empCountEventReply(const MMCH_t* mmch) {
    if (mmch->return_code == EMP_E_RESPONSE_SUCCESS) {
        empControl.mmsgEventResponseMsgSendSuccess++;
    } else {
        empControl.mmsgEventResponseMsgSendFail++;
    }
}
