#include "requests/alternate_event_log.h"

#include "archiver/new_event.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "requests/event_log.h"
#include "state/control.h"
#include "store/append.h"

namespace {

constexpr EmpEventCheckTexts_t checkTexts = {
    "empRcvAlternateEventLogMsg(): Invalid MMSG requestor = [%d]!!!\n",
    "empRcvAlternateEventLogMsg(): MMSG mmsh_length [%d] is out of range\n",
    "empRcvAlternateEventLogMsg(): MMSG requestor [%d] sends wrong mmsg_length!!!\n",
};

constexpr EmpForwardNewTexts_t forwardTexts = {
    "empRcvAlternateEventLogMsg(): Send new arrival Event Entry with Sequence Id = [%d]\n",
    "empRcvAlternateEventLogMsg(): SeqId [%d] in Event Archiver > SeqId [%d] in Event Log File.\n",
    "empRcvAlternateEventLogMsg(): Event Archiver is connected but socket is not open for Event Log yet?!.\n",
};

/**
 * Checks what the sender has filled in and the ordinary intake would overwrite: data that the
 * message does not hold would be read from behind it, and a stored source above 34 would stop every
 * later start. Fewer data than the message holds are taken as announced.
 */
bool carriedFieldsAreGood(const MMSG_t* mmsg, const EmpEvLogHeader_t* header) {
    if (U32_t{header->evStructLength} + EMP_EVENT_MMSG_SIZE > mmsg->mmch.mmsg_length) {
        empRefuseEventLength(mmsg, checkTexts);
        return false;
    }
    if (header->evSource > MMSG_E_MAX_DEFINED_EPIDS) {
        empDebugLine(checkTexts.requestorText, int{header->evSource});
        return false;
    }
    return true;
}

} // namespace

void empRcvAlternateEventLogMsg(MMSG_t* mmsg) {
    auto* header = reinterpret_cast<EmpEvLogHeader_t*>(mmsg->user_data_start);
    if (!empEventMmsgIsGood(mmsg, checkTexts) || !carriedFieldsAreGood(mmsg, header)) {
        empMmsgPrint(mmsg);
        return;
    }
    header->evInstanceNumber = empControl.empInstanceNumber;
    header->evSequenceId = empTakeSequenceId();
    empDebugLine("empRcvAlternateEventLogMsg(): Tag Event with new Sequence ID [%d]\n",
                 static_cast<int>(header->evSequenceId));
    empSaveEventLogMsgToLogFile(mmsg);
    empForwardNewEvent(header->evSequenceId, forwardTexts);
    empSendEventLogMsgToSmi(mmsg);
}
