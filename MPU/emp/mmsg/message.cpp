#include "mmsg/message.h"

#include "diag/hex_dump.h"
#include "diag/output.h"
#include "fault/fixed_sites.h"
#include "state/control.h"
#include "state/held.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace {

/** Twice what a message needs: a socket with less may take a message in pieces. */
constexpr int SAFE_SEND_BUFFER = 4 * EMP_WORK_SPACE_SIZE;

/** Whether the socket takes a message whole or not at all. Its size is asked once. */
bool takesWholeMessages() {
    static int sendBuffer;
    if (sendBuffer == 0) {
        int savedErrno = errno;
        socklen_t length = sizeof(sendBuffer);
        getsockopt(empControl.socketFdMSM, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length);
        errno = savedErrno;
    }
    return sendBuffer >= SAFE_SEND_BUFFER;
}

/** One blocking send, before which lines are written only when it would wait, as far as that can be
 * told without leaving a message half sent. */
S32_t sendToMsm(const void* message, U32_t length) {
    int savedErrno = errno;
    if (takesWholeMessages()) {
        ssize_t result = send(empControl.socketFdMSM, message, length, MSG_DONTWAIT);
        if (result != -1 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            return static_cast<S32_t>(result);
        }
        errno = savedErrno;
    }
    empFlushOutput();
    return static_cast<S32_t>(send(empControl.socketFdMSM, message, length, 0));
}

/** The bug-check of a send that was not whole. */
[[noreturn]] void sendFails(const void* message, S32_t result, U16_t length, EmpSite_t site,
                            EMP_SHORT_SEND_e onShortSend) {
    if (onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED ||
        onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT) {
        empHexDump(message, result);
    }
    bool showsResult = onShortSend == EMP_E_SHORT_SEND_SHOWS_RESULT ||
                       onShortSend == EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT;
    EMP_BUGCHECK(site, "Linux send function fails, sendSize = [%d] is wrong",
                 showsResult ? result : length);
}

/** The bug-check of the first copy of which not all bytes are among the @p sent ones. */
[[noreturn]] void heldCopyFails(U32_t sent) {
    U32_t from = 0;
    for (;;) {
        const auto* copy = reinterpret_cast<const MMCH_t*>(empHeld.copies.bytes + from);
        U16_t length = copy->mmsg_length;
        if (from + length > sent) {
            sendFails(copy, sent > from ? static_cast<S32_t>(sent - from) : -1, length,
                      EMP_SITE_SMI_COPY, EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED);
        }
        from += length;
    }
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
    empSettle();
    S32_t result = sendToMsm(message, length);
    if (result != length) {
        sendFails(message, result, length, site, onShortSend);
    }
    return result;
}

S32_t empSendCopyToMsm(const void* message, U16_t length) {
    U8_t* at = empHeld.settle != nullptr ? empHoldBytes(&empHeld.copies, length) : nullptr;
    if (at != nullptr) {
        memcpy(at, message, length);
        return length;
    }
    return empSendToMsm(message, length, EMP_SITE_SMI_COPY, EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED);
}

void empSendHeldCopies() {
    const EmpHeldBytes_t& held = empHeld.copies;
    for (U32_t sent = 0; sent < held.length;) {
        // Of more than fits in the socket, a part goes out first.
        S32_t result = sendToMsm(held.bytes + sent, held.length - sent);
        if (result <= 0) {
            heldCopyFails(sent);
        }
        sent += static_cast<U32_t>(result);
    }
}
