#include "mmsg/message.h"

#include "diag/hex_dump.h"
#include "diag/output.h"
#include "state/control.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

/** Twice what a message needs: a socket with less may take a message in pieces. */
constexpr int SAFE_SEND_BUFFER = 4 * EMP_WORK_SPACE_SIZE;

/** Whether the socket takes a message whole or not at all. */
bool takesWholeMessages() {
    int savedErrno = errno;
    int size = 0;
    socklen_t length = sizeof(size);
    getsockopt(empControl.socketFdMSM, SOL_SOCKET, SO_SNDBUF, &size, &length);
    errno = savedErrno;
    return size >= SAFE_SEND_BUFFER;
}

/** One blocking send, before which lines are written only when it would wait, as far as that can be
 * told without leaving a message half sent. */
S32_t sendToMsm(const void* message, U16_t length) {
    static const bool tryFirst = takesWholeMessages();
    int savedErrno = errno;
    if (tryFirst) {
        ssize_t result = send(empControl.socketFdMSM, message, length, MSG_DONTWAIT);
        if (result != -1 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            return static_cast<S32_t>(result);
        }
        errno = savedErrno;
    }
    empFlushOutput();
    return static_cast<S32_t>(send(empControl.socketFdMSM, message, length, 0));
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
