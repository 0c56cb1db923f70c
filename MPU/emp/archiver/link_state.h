/**
 * @file
 * The state machine of the archiver link: evArchiverSocketState as a table. ARCHITECTURE.md
 * tells what leads to each event and what goes with it.
 */
#ifndef EMP_ARCHIVER_LINK_STATE_H
#define EMP_ARCHIVER_LINK_STATE_H

#include "state/control.h"

/** What moves the state. */
enum EMP_LINK_EVENT_e {
    EMP_E_LINK_CONNECT_ISSUED,      ///< a connect was started or has succeeded
    EMP_E_LINK_STATUS_SENT,         ///< the status request went out whole
    EMP_E_LINK_STATUS_RECEIVED,     ///< the archiver's status response is here
    EMP_E_LINK_EVENT_SENT_IN_PART,  ///< a fresh event went out in part, or not at all
    EMP_E_LINK_QUEUED_MESSAGE_SENT, ///< a message of the forward list went out whole
    EMP_E_LINK_CLOSED,              ///< the socket has been closed
    EMP_E_LINK_EVENTS,
};

/** The state that follows. @param state a state; any other value counts as CLOSE */
EMP_ARCHIVER_SOCKET_STATE_e empLinkStateAfter(EMP_LINK_EVENT_e event, U16_t state);

/** Moves evArchiverSocketState. */
void empMoveLinkState(EMP_LINK_EVENT_e event);

#endif
