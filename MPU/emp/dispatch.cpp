#include "dispatch.h"

#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "mmsg/message.h"
#include "requests/alternate_event_log.h"
#include "requests/archiver_settings.h"
#include "requests/event_log.h"
#include "requests/inquiry.h"
#include "state/control.h"

namespace {

/** What happens to a message of one type. */
struct Dispatch_t {
    U32_t EmpControl_t::*counter;
    void (*handler)(MMSG_t* msg); ///< NULL: nothing but the line
    const char* line; ///< printed afterwards, also when the handler rejected the message
};

/** By message type; type 0 is unknown. */
constexpr Dispatch_t dispatchTable[] = {
    {},
    {&EmpControl_t::mmsgEventLogMsgReceive, empRcvEventLogMsg,
     "EMP completes Event Log Message processing.\n"},
    {&EmpControl_t::mmsgEventInquiryMsgReceive, empRcvEventInquiryMsg,
     "EMP completes Event Inquiry Message processing.\n"},
    {&EmpControl_t::mmsgEventSetEventArchiverReceive, empRcvSetEventArchiverMsg,
     "EMP completes Set Event Archiver Message processing.\n"},
    {&EmpControl_t::mmsgEventGetEventArchiverReceive, nullptr,
     "EMP does not support Get Event Archiver Message.\n"},
    {&EmpControl_t::mmsgEventGetEventManagerStatusReceive, empRcvGetEventManagerStatusMsg,
     "EMP completes Get Event Manager Status Message processing.\n"},
    {&EmpControl_t::mmsgEventGetEventArchiverStatusReceive, nullptr,
     "EMP shall not receive Get Event Archiver Message with MMSG format.\n"},
    {&EmpControl_t::mmsgEventAlternateEventLogMsgReceive, empRcvAlternateEventLogMsg, nullptr},
};
static_assert(sizeof(dispatchTable) / sizeof(dispatchTable[0]) == EMP_E_MSGS_ALTERNATE_LOG + 1);

bool lengthIsGood(const MMSG_t* msg) {
    U16_t length = msg->mmch.mmsg_length;
    if (length >= MMCH_SIZE && length <= MMSG_MAX_LENGTH) {
        return true;
    }
    empDebugLine("empProcEventMmsgMsg(): MMSG mmsh_length [%d] is out of range\n", length);
    empDebugLine("empProcEventMmsgMsg(): MMSG requestor [%d] sends wrong mmsg_length!!!\n",
                 msg->mmch.requestor);
    return false;
}

/** Only messages of transport type 14 name their recipients, and only the first words are looked
 * at. */
bool isForUs(const MMSG_t* msg) {
    constexpr U32_t ourBit = empEndpointBit(MMSG_E_EPID_EVENTLOGMP);
    if (msg->mmch.message_type != MSG_E_TYPE_MMSG ||
        (msg->mmch.recipient_loc_bm[0] & ourBit) != 0 ||
        (msg->mmch.recipient_ob_bm[0] & ourBit) != 0) {
        return true;
    }
    empDebugLine("empProcEventMmsgMsg(): Received a MMSG but it isn't for us?\n");
    return false;
}

bool protocolIsOurs(const MMSG_t* msg) {
    U8_t protocol = msg->mmch.opcode.request.protocol;
    if (protocol == MMSG_E_PROTOCOL_EVENTMGR) {
        return true;
    }
    empDebugLine("empProcEventMmsgMsg(): Invalid MMSG protocol [%d]\n", protocol);
    return false;
}

void dispatchKnown(const Dispatch_t& entry, MMSG_t* msg) {
    empControl.*entry.counter += 1;
    if (entry.handler != nullptr) {
        entry.handler(msg);
    }
    if (entry.line != nullptr) {
        empDebugLine("%s", entry.line);
    }
}

} // namespace

void empProcEventMmsgMsg(MMSG_t* msg) {
    if (!lengthIsGood(msg) || !isForUs(msg) || !protocolIsOurs(msg)) {
        empMmsgPrint(msg);
        return;
    }
    empDebugLine("empProcEventMmsgMsg(): Receive a MMSG to the Event Manager\n");
    U32_t type = msg->mmch.opcode.request.type;
    if (type >= EMP_E_MSGS_LOG && type <= EMP_E_MSGS_ALTERNATE_LOG) {
        dispatchKnown(dispatchTable[type], msg);
        return;
    }
    empControl.mmsgEventUnknownMsgReceive++;
    empDebugLine("empProcEventMmsgMsg(): EMP receives unknown Msg Type.\n");
    empMmsgPrint(msg);
}
