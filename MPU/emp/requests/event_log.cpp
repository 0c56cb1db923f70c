#include "requests/event_log.h"

#include "archiver/new_event.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "mmsg/message.h"
#include "osdep.h"
#include "state/control.h"
#include "store/append.h"

#include <cstring>

namespace {

constexpr EmpEventCheckTexts_t checkTexts = {
    "empRcvEventLogMsg(): Invalid MMSG requestor = [%d]!!!\n",
    "empRcvEventLogMsg(): MMSG mmsh_length [%d] is out of range\n",
    "empRcvEventLogMsg(): MMSG requestor [%d] sends wrong mmsg_length!!!\n",
};

constexpr EmpForwardNewTexts_t forwardTexts = {
    "empRcvEventLogMsg(): Send new arrival Event Entry with Sequence Id = [%d]\n",
    "empRcvEventLogMsg(): SeqId [%d] in Event Archiver > SeqId [%d] in Event Log File.\n",
    "empRcvEventLogMsg(): Event Archiver is connected but socket is not open for Event Log yet?!.\n",
};

/** Whatever the requestor put into these fields is overwritten. */
void stamp(MMSG_t* mmsg, EmpEvLogHeader_t* header) {
    struct timeval now = {};
    memcpy(header->evEnclosureId, empControl.empEnclosureId, EMP_ID_TEXT_SIZE);
    memcpy(header->evBladeId, empControl.empBladeId, EMP_ID_TEXT_SIZE);
    header->evSlotId = empControl.empSlotId;
    header->evInstanceNumber = empControl.empInstanceNumber;
    header->evSequenceId = empTakeSequenceId();
    mpuGetTime(&now);
    header->evTime = static_cast<U32_t>(now.tv_sec);
    empDebugLine("empRcvEventLogMsg(): Tag Event with new Sequence ID [%d]\n",
                 static_cast<int>(header->evSequenceId));
    header->evStructLength = static_cast<U16_t>(mmsg->mmch.mmsg_length - EMP_EVENT_MMSG_SIZE);
    header->evSource = mmsg->mmch.requestor;
}

} // namespace

void empRefuseEventLength(const MMSG_t* mmsg, const EmpEventCheckTexts_t& texts) {
    empDebugLine(texts.lengthText, int{mmsg->mmch.mmsg_length});
    empDebugLine(texts.senderText, int{mmsg->mmch.requestor});
}

bool empEventMmsgIsGood(const MMSG_t* mmsg, const EmpEventCheckTexts_t& texts) {
    if (mmsg->mmch.requestor > MMSG_E_MAX_DEFINED_EPIDS) {
        empDebugLine(texts.requestorText, int{mmsg->mmch.requestor});
        return false;
    }
    if (mmsg->mmch.mmsg_length < EMP_EVENT_MMSG_SIZE) {
        empRefuseEventLength(mmsg, texts);
        return false;
    }
    return true;
}

U32_t empTakeSequenceId() {
    U32_t taken = empControl.empSequenceId++;
    // The event that takes the last id keeps the old instance number, so the pair keeps rising.
    if (empControl.empSequenceId == 0) {
        empControl.empInstanceNumber++;
    }
    return taken;
}

void empRcvEventLogMsg(MMSG_t* mmsg) {
    if (!empEventMmsgIsGood(mmsg, checkTexts)) {
        empMmsgPrint(mmsg);
        return;
    }
    auto* header = reinterpret_cast<EmpEvLogHeader_t*>(mmsg->user_data_start);
    stamp(mmsg, header);
    empSaveEventLogMsgToLogFile(mmsg);
    empForwardNewEvent(header->evSequenceId, forwardTexts);
    empDebugLine(
        "empRcvEventLogMsg(): Call empSendEventLogMsgToSmi() to send the new Event to SMI.\n");
    empSendEventLogMsgToSmi(mmsg);
}

S32_t empSendEventLogMsgToSmi(MMSG_t* mmsg) {
    mmsg->mmch.requestor = MMSG_E_EPID_EVENTLOGMP;
    mmsg->mmch.recipient_loc_bm[0] = empEndpointBit(MMSG_E_EPID_SMI_IND);
    mmsg->mmch.recipient_loc_bm[1] = 0;
    mmsg->mmch.recipient_ob_bm[0] = empEndpointBit(MMSG_E_EPID_SMI_IND);
    mmsg->mmch.recipient_ob_bm[1] = 0;
    empMmsgPrint(mmsg);
    empControl.mmsgEventLogMsgSend++;
    return empSendCopyToMsm(mmsg, mmsg->mmch.mmsg_length);
}
