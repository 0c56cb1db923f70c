#include "archiver/message.h"

#include "archiver/answer.h"
#include "archiver/handshake.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "state/control.h"

#include <iterator>

namespace {

/** What is done with a message of one type. */
struct MessageType_t {
    U32_t EmpControl_t::*counter;
    void (*handler)(const EmpEvArchiverMsg_t* message); ///< NULL: none
    const char* text;                                   ///< debug line; NULL: none
};

/** By evArchiverMsgType; entry 0 stands for every type that is unknown here. */
constexpr MessageType_t messageTypes[] = {
    {&EmpControl_t::EAmsgEventUnknownMsgReceive, nullptr, nullptr},
    {&EmpControl_t::EAmsgEventLogMsgReceive, empRcvEventLogMsgFromEventArchiver, nullptr},
    {&EmpControl_t::EAmsgEventInquiryMsgReceive, nullptr,
     "EMP shall not receive Event Inquiry Message with Event Archiver Msg format.\n"},
    {&EmpControl_t::EAmsgEventSetEventArchiverReceive, nullptr,
     "EMP shall not receive Set Event Archiver Message with Event Archiver Msg format.\n"},
    {&EmpControl_t::EAmsgEventGetEventArchiverReceive, nullptr,
     "EMP does not support Get Event Archiver Message.\n"},
    {&EmpControl_t::EAmsgEventGetEventManagerStatusReceive, nullptr,
     "EMP shall not receive Get Event Manager Status Message with Event Archiver Msg format.\n"},
    {&EmpControl_t::EAmsgEventGetEventArchiverStatusReceive, empRcvGetEventArchiverStatusMsg,
     nullptr},
};
// KEEP: an alternate event, type 7, is unknown on this link.
static_assert(std::size(messageTypes) == EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS + 1);

const MessageType_t& messageType(U16_t type) {
    return messageTypes[type < std::size(messageTypes) ? type : 0];
}

bool acceptable(const EmpEvArchiverMsgHeader_t& header) {
    if (header.evArchiverMsgHdrVersion != 1) {
        empDebugLine(
            "empProcEventArchiverMsg(): Event Archiver Msg Header version [%d] is not supported\n",
            static_cast<int>(header.evArchiverMsgHdrVersion));
        return false;
    }
    if (header.evArchiverMsgBodyLength > EMP_WORK_SPACE_SIZE) {
        empDebugLine(
            "empProcEventArchiverMsg(): Event Archiver Message length [%d] is out of range\n",
            static_cast<int>(header.evArchiverMsgBodyLength));
        return false;
    }
    if (header.evArchiverMsgFlag != EMP_E_EVENT_ARCHIVER_MSG_RESPONSE) {
        empDebugLine(
            "empProcEventArchiverMsg(): Event Archiver Message flag [%d] is not RESPONSE\n",
            static_cast<int>(header.evArchiverMsgFlag));
        return false;
    }
    return true;
}

} // namespace

void empProcEventArchiverMsg(const EmpEvArchiverMsg_t* message) {
    if (!acceptable(message->evArchiverMsgHdr)) {
        return;
    }
    empDebugLine(
        "empProcEventArchiverMsg(): Receive an Event Archiver Message to the Event Manager\n");
    empEvArchiverMsgPrint(message);
    const MessageType_t& type = messageType(message->evArchiverMsgHdr.evArchiverMsgType);
    (empControl.*type.counter)++;
    if (type.handler != nullptr) {
        type.handler(message);
    }
    if (type.text != nullptr) {
        empDebugLine("%s", type.text);
    }
}
