#include "archiver/pass.h"

#include "archiver/connection.h"
#include "archiver/forward_list.h"
#include "archiver/handshake.h"
#include "archiver/message.h"
#include "archiver/reconnect.h"
#include "archiver/response_timer.h"
#include "archiver/stream.h"
#include "diag/debug_line.h"
#include "loop/wait.h"
#include "state/control.h"

namespace {

bool connectEnded() {
    return empArchiverWritable() &&
           empControl.evArchiverSocketState == EMP_E_ARCHIVER_SOCKET_ST_CONNECTED;
}

/** Begins the handshake on a new connection. @return false when it failed and has been closed */
bool finishConnect() {
    int eventArchiverSocketError = empEventArchiverSocketError();
    if (eventArchiverSocketError != 0) {
        empDebugLine("main(): Event Archiver isn't connected. eventArchiverSocketError = [%d].\n",
                     eventArchiverSocketError);
        empCloseEventArchiverConnection();
        return false;
    }
    empDebugLine("main(): Event Manager connects to Event Archiver. Send [Get Status Msg].\n");
    empSendGetEventArchiverStatusMsg();
    return true;
}

/** Looks whether a silent link still stands. @return false when it is broken and has been closed */
bool probe(EmpArchiverPeek_t peek) {
    empDebugLine(
        "main(): Event Archiver FD isn't set. Check whether Event Archiver is still connected?\n");
    if (!empEventArchiverConnectionBroken(peek)) {
        return true;
    }
    empDebugLine("main(): Connection to Event Archiver is broken. Close current connection.\n");
    empCloseEventArchiverConnection();
    return false;
}

/** Reads a message and acts on it. @return false when there was none and the link has been closed
 */
bool receive(EmpArchiverPeek_t peek) {
    empDebugLine(
        "main(): Event Archiver FD is set. Check the data in the Event Archiver socket.\n");
    if (!empReceiveEventArchiverMsg(peek)) {
        return false;
    }
    empProcEventArchiverMsg(reinterpret_cast<const EmpEvArchiverMsg_t*>(empControl.empInMsg));
    return true;
}

/** Reads or probes, with one peek for both. @return false when the link has been closed */
bool serveLink() {
    EMP_READABLE_e readable = empArchiverReadable();
    EmpArchiverPeek_t peek = empPeekEventArchiverHeader();
    bool read = readable == EMP_E_READABLE_NOT_ASKED ? empPeekFoundSomething(peek)
                                                     : readable == EMP_E_READABLE_YES;
    return read ? receive(peek) : probe(peek);
}

} // namespace

void empServeEventArchiver() {
    if (!empArchiverFlagSet()) {
        empProcessReconnectTimeout();
        return;
    }
    if (connectEnded() && !finishConnect()) {
        return;
    }
    // The handshake may have closed the link; the pass goes on all the same.
    if (serveLink()) {
        empProcessResponseTimeout();
        empProcessForwardTimeout();
    }
}
