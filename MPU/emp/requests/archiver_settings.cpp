#include "requests/archiver_settings.h"

#include "archiver/connection.h"
#include "archiver/handshake.h"
#include "diag/debug_line.h"
#include "diag/message_dump.h"
#include "emp_mesgs.h"
#include "fault/fixed_sites.h"
#include "mmsg/message.h"
#include "mmsg/reply.h"
#include "state/control.h"

#include <arpa/inet.h>
#include <cstring>

namespace {

constexpr U16_t SET_REPLY_SIZE = MMCH_SIZE + sizeof(EmpSetEvArchiverMsg_t);
constexpr U16_t STATUS_REPLY_SIZE = MMCH_SIZE + sizeof(EmpGetEvManagerStatusMsg_t);
static_assert(SET_REPLY_SIZE == 72 && STATUS_REPLY_SIZE == 84);

/** The address given, in network byte order as it stands on the wire. */
in_addr_t addressOf(const EmpSetEvArchiverMsg_t* request) {
    in_addr_t address;
    static_assert(sizeof(address) == sizeof(request->evArchiverIpAddress));
    memcpy(&address, &request->evArchiverIpAddress, sizeof(address));
    return address;
}

void closeOldConnection() {
    if (!empArchiverFlagSet()) {
        return;
    }
    empDebugLine("empRcvSetEventArchiverMsg(): Close connection with Event Archiver [0x%X]\n",
                 ntohl(empControl.socketAddressEventArchiver.sin_addr.s_addr));
    empCloseEventArchiverConnection();
}

void storeAddress(const EmpSetEvArchiverMsg_t* request) {
    empControl.socketAddressEventArchiver = {};
    empControl.socketAddressEventArchiver.sin_family = AF_INET;
    empControl.socketAddressEventArchiver.sin_addr.s_addr = addressOf(request);
    empControl.socketAddressEventArchiver.sin_port = htons(request->evArchiverTcpPort);
    const U8_t* bytes = request->evArchiverIpAddress.bytes;
    empDebugLine("empRcvSetEventArchiverMsg(): Try to connect with Event Archiver [%d.%d.%d.%d]\n",
                 bytes[0], bytes[1], bytes[2], bytes[3]);
}

void connectToNewArchiver() {
    EmpConnectResult_t result = empConnectEventArchiverSocket();
    if (!result.connected) {
        empDebugLine(
            "empRcvSetEventArchiverMsg(): Event Manager may not connect to Event Archiver for Set Event Archiver Msg.\n");
        empMarkEventArchiverConnected();
    } else {
        // KEEP: the line belongs to the branch of success, where it tells of a stale errno.
        if (result.inProgress) {
            empDebugLine(
                "empRcvSetEventArchiverMsg(): Connection to Event Archiver in progress....\n");
        }
        empMarkEventArchiverConnected();
        empDebugLine(
            "empRcvSetEventArchiverMsg(): Event Manager connects to the Event Archiver.\n");
        empSendGetEventArchiverStatusMsg();
    }
    empControl.evArchiverConnectionAttempt++;
}

void switchArchiverOff() {
    closeOldConnection();
    // Family, port and address; the padding behind them is zero already.
    empControl.socketAddressEventArchiver = {};
}

/** KEEP: the requestor is looked for on this blade only, wherever the request came from. */
void buildReply(const MMSG_t* mmsg, U32_t type, U16_t length) {
    empBuildReplyMmch(&empReply()->mmch, type, mmsg->mmch.requestor, mmsg->mmch.handle,
                      EMP_E_REPLY_TO_LOCAL_BLADE);
    empReply()->mmch.mmsg_length = length;
    empReply()->mmch.return_code = EMP_E_RESPONSE_SUCCESS;
}

void fillManagerStatus(EmpGetEvManagerStatusMsg_t* status) {
    const struct sockaddr_in& address = empControl.socketAddressEventArchiver;
    memcpy(&status->evArchiverIpAddress, &address.sin_addr, sizeof(status->evArchiverIpAddress));
    status->evArchiverTcpPort = ntohs(address.sin_port);
    status->evManagerStatusFlag = empControl.evManagerStatusFlag;
    status->evManagerInquiryMsgTimeout = empControl.evManagerInquiryMsgTimeout;
    status->evArchiverConnectionFailed = empControl.evArchiverConnectionFailed;
    status->evArchiverConnectionAttempt = empControl.evArchiverConnectionAttempt;
}

} // namespace

void empRcvSetEventArchiverMsg(MMSG_t* mmsg) {
    if ((mmsg->mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0) {
        empDebugLine(
            "empRcvSetEventArchiverMsg(): Event Manager Response Msg for Set Event Archiver Test Msg. Just return.\n\n");
        return;
    }
    const auto* request = reinterpret_cast<const EmpSetEvArchiverMsg_t*>(mmsg->user_data_start);
    if (addressOf(request) != 0) {
        closeOldConnection();
        empOpenEventArchiverSocket(EMP_SITE_SET_ARCHIVER_SOCKET);
        storeAddress(request);
        connectToNewArchiver();
    } else {
        switchArchiverOff();
    }
    empDebugLine(
        "empRcvSetEventArchiverMsg(): Send Response Msg for Set Event Archiver Msg to Requestor.\n");
    buildReply(mmsg, EMP_E_MSGS_SET_EVENT_ARCHIVER, SET_REPLY_SIZE);
    memset(empReply()->user_data_start, 0, sizeof(EmpSetEvArchiverMsg_t));
    empSendToMsm(empReply(), SET_REPLY_SIZE, EMP_SITE_SET_ARCHIVER_SEND,
                 EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT);
}

void empRcvGetEventManagerStatusMsg(MMSG_t* mmsg) {
    if ((mmsg->mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0) {
        // KEEP: the line names the other handler.
        empDebugLine(
            "empRcvSetEventArchiverMsg(): Event Manager Response Msg for Get Event Manager Status Test Msg. Just return.\n\n");
        return;
    }
    buildReply(mmsg, EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, STATUS_REPLY_SIZE);
    fillManagerStatus(reinterpret_cast<EmpGetEvManagerStatusMsg_t*>(empReply()->user_data_start));
    empDebugLine(
        "empRcvGetEventManagerStatusMsg(): Send out a MMSG from the Event Manager to Requestor.\n");
    empMmsgPrint(empReply());
    empSendToMsm(empReply(), STATUS_REPLY_SIZE, EMP_SITE_MANAGER_STATUS_SEND,
                 EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT);
}
