#include "archiver/reconnect.h"

#include "archiver/connection.h"
#include "archiver/handshake.h"
#include "archiver/timer.h"
#include "diag/debug_line.h"
#include "state/control.h"

namespace {

constexpr int RECONNECT_SECONDS = 300;

void reconnect() {
    empControl.evArchiverConnectionAttempt++;
    empDebugLine("empProcessReconnectTimeout(): The Reconnect Timer is timeout.\n");
    empOpenEventArchiverSocket(EMP_HERE_IN("empProcessReconnectTimeout"));
    EmpConnectResult_t result = empConnectEventArchiverSocket();
    if (!result.connected) {
        empDebugLine(
            "empProcessReconnectTimeout(): Event Manager might not connect to Event Archiver during Reconnect Timeout.\n");
        empMarkEventArchiverConnected();
    } else {
        // KEEP: the line belongs to the branch of success, where it tells of a stale errno.
        if (result.inProgress) {
            empDebugLine(
                "empProcessReconnectTimeout(): Connection to Event Archiver in progress....\n");
        }
        empMarkEventArchiverConnected();
        empDebugLine(
            "empProcessReconnectTimeout(): Event Manager connects to the Event Archiver during Reconnect Timeout.\n");
        empSendGetEventArchiverStatusMsg();
    }
    empControl.reconnectTimeout = {RECONNECT_SECONDS, 0};
}

} // namespace

void empProcessReconnectTimeout() {
    if (!empEventArchiverConfigured() || empArchiverFlagSet()) {
        return;
    }
    if (empTimerExpired(&empControl.reconnectTimeout)) {
        reconnect();
    }
    empControl.selectTimeout = {1, 0};
}
