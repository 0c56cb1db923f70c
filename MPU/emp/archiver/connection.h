/**
 * @file
 * The TCP connection to the Event Archiver: opening, connecting, closing. There is at most one.
 */
#ifndef EMP_ARCHIVER_CONNECTION_H
#define EMP_ARCHIVER_CONNECTION_H

#include "fault/bugcheck.h"
#include "fixed_width.h"

/** How a connect ended that never waits. */
struct EmpConnectResult_t {
    bool connected;  ///< false also while the connect is in progress
    bool inProgress; ///< errno said EINPROGRESS right after the call, whatever the call's result
};

/** Whether an archiver is configured: address and port are not 0. */
bool empEventArchiverConfigured();

/** Creates the non-blocking socket, socketFdEventArchiver. @param site of the bug-check on failure
 */
void empOpenEventArchiverSocket(EmpSite_t site);

/** Starts to connect that socket to socketAddressEventArchiver. */
EmpConnectResult_t empConnectEventArchiverSocket();

/** Notes that a connect is under way or done: sets the connection flag, moves the link's state. */
void empMarkEventArchiverConnected();

/**
 * Closes the connection. Whatever waits on the pending lists stays there.
 * @return the result of close
 */
S32_t empCloseEventArchiverConnection();

#endif
