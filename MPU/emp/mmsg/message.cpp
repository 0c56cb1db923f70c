#include "mmsg/message.h"

#include "diag/hex_dump.h"
#include "diag/output.h"
#include "state/control.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

/** One blocking send, before which lines are written only when it would wait. The socket takes a
 * message of a few kilobytes whole or not at all, so the first try leaves nothing half sent. */
S32_t sendToMsm(const void* message, U16_t length) {
    ssize_t result = send(empControl.socketFdMSM, message, length, MSG_DONTWAIT);
    if (result == -1 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        empFlushOutput();
        result = send(empControl.socketFdMSM, message, length, 0);
    }
    return static_cast<S32_t>(result);
}

} // namespace

void empBuildMmch(MMCH_t* mmch, MMSG_PROTOCOL_e protocol, U32_t type) {
    *mmch = MMCH_t{};
    mmch->message_type = MSG_E_TYPE_MMSG;
    mmch->mmch_version = 1;
    mmch->opcode.request.protocol = protocol;
    mmch->opcode.request.type = type;
    mmch->requestor = MMSG_E_EPID_EVENTLOGMP;
}

S32_t empSendToMsm(const void* message, U16_t length, EmpSite_t site,
                   EMP_SHORT_SEND_e onShortSend) {
    S32_t result = sendToMsm(message, length);
    if (result != length) {
        if (onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED ||
            onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT) {
            empHexDump(message, result);
        }
        bool showsResult = onShortSend == EMP_E_SHORT_SEND_SHOWS_RESULT ||
                           onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT;
        EMP_BUGCHECK(site, "Linux send function fails, sendSize = [%d] is wrong",
                     showsResult ? result : length);
    }
    return result;
}
