/**
 * @file
 * The status exchange with which every connection to the Event Archiver begins. It decides from
 * which event forwarding goes on, and whether log entries are dropped.
 */
#ifndef EMP_ARCHIVER_HANDSHAKE_H
#define EMP_ARCHIVER_HANDSHAKE_H

#include "emp_mesgs.h"
#include "fixed_width.h"

/** Bytes of a status request on the wire: header, body, and four more. */
constexpr U32_t EMP_ARCHIVER_STATUS_REQUEST_SIZE =
    sizeof(EmpEvArchiverMsgHeader_t) + sizeof(EmpGetEvArchiverStatusMsg_t) + 4;
static_assert(EMP_ARCHIVER_STATUS_REQUEST_SIZE == 196);

/**
 * Sends the status request when the connection flag is set and the state is CONNECTED. A request
 * that does not go out whole closes the connection.
 * @return EMP_E_OK when it went out whole, else EMP_E_GENERR
 */
S32_t empSendGetEventArchiverStatusMsg();

/** Acts on a status response: opens the link in whatever state it is, and sends one event. */
void empRcvGetEventArchiverStatusMsg(const EmpEvArchiverMsg_t* message);

#endif
