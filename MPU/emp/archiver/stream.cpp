#include "archiver/stream.h"

#include "archiver/connection.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "emp_mesgs.h"
#include "fault/bugcheck.h"
#include "state/control.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace {

EmpEvArchiverMsgHeader_t peekedHeader;

constexpr S32_t HEADER_SIZE = sizeof(peekedHeader);

} // namespace

EmpArchiverPeek_t empPeekEventArchiverHeader() {
    if (empControl.socketFdEventArchiver == 0) {
        return {-1, 0};
    }
    S32_t result = static_cast<S32_t>(
        recv(empControl.socketFdEventArchiver, &peekedHeader, HEADER_SIZE, MSG_PEEK));
    return {result, errno};
}

bool empPeekFoundSomething(EmpArchiverPeek_t peek) {
    return peek.result != -1 || (peek.error != EAGAIN && peek.error != EWOULDBLOCK);
}

bool empReceiveEventArchiverMsg(EmpArchiverPeek_t peek) {
    if (peek.result != HEADER_SIZE) {
        empDebugLine("main(): recvSize = [%d], errno = [%d]\n", peek.result, peek.error);
        empDebugLine("main(): Event Archiver connection receives error. Close the connection.\n");
        empCloseEventArchiverConnection();
        return false;
    }
    S32_t length = HEADER_SIZE + peekedHeader.evArchiverMsgBodyLength;
    memset(empControl.empInMsg, 0, EMP_WORK_SPACE_SIZE);
    S32_t result = static_cast<S32_t>(recv(empControl.socketFdEventArchiver, empControl.empInMsg,
                                           static_cast<size_t>(length), 0));
    // KEEP: a message that arrives in pieces is fatal.
    if (result != length) {
        empHexDump(empControl.empInMsg, result);
        EMP_BUGCHECK(
            EMP_HERE_IN("main"),
            "Linux recv function fails, Event Archiver Msg length readSize = [%d] is wrong",
            result);
    }
    return true;
}

bool empEventArchiverConnectionBroken(EmpArchiverPeek_t peek) {
    // KEEP: only these two errors tell of a broken link; after an end of stream or a partial header
    // it is whatever an earlier call left behind.
    return peek.result != HEADER_SIZE && (peek.error == ECONNRESET || peek.error == ECONNREFUSED);
}

int empEventArchiverSocketError() {
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(empControl.socketFdEventArchiver, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}
