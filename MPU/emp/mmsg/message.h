/**
 * @file
 * The header of local messages that the event manager builds, and the blocking send that is whole
 * or a bug-check.
 */
#ifndef EMP_MMSG_MESSAGE_H
#define EMP_MMSG_MESSAGE_H

#include "fault/bugcheck.h"
#include "mmsg.h"

/** Bit of an endpoint in its word of a recipient bitmap. */
constexpr U32_t empEndpointBit(U32_t endpoint) {
    return 1U << (endpoint & 31U);
}

/**
 * Builds an MMCH from scratch: transport type 14, version 1, the opcode, the event manager as
 * requestor; every other byte is 0, the links and @c mmsg_length included.
 */
void empBuildMmch(MMCH_t* mmch, MMSG_PROTOCOL_e protocol, U32_t type);

/** What a short send to the message switch does before its bug-check, and which number that shows.
 */
enum EMP_SHORT_SEND_e {
    EMP_E_SHORT_SEND_SHOWS_INTENDED,      ///< no dump; the number is the intended length
    EMP_E_SHORT_SEND_SHOWS_RESULT,        ///< no dump; the number is the result of send
    EMP_E_SHORT_SEND_DUMP_SHOWS_INTENDED, ///< dump of result-many bytes; the intended length
    EMP_E_SHORT_SEND_DUMP_SHOWS_RESULT,   ///< dump of result-many bytes; the result
};

/**
 * Sends a message to the message switch, waiting for room in the socket.
 * @return @p length; any other result of the call is the bug-check "Linux send function fails, ..."
 */
S32_t empSendToMsm(const void* message, U16_t length, EmpSite_t site, EMP_SHORT_SEND_e onShortSend);

/** empSendToMsm() of the copy of an event, as the management interface gets it. A batch may hold it
 * back. */
S32_t empSendCopyToMsm(const void* message, U16_t length);

/** Sends the copies that are held back (state/held.h), in one send if the socket takes so much. The
 * bug-check is that of the copy that did not get through. */
void empSendHeldCopies();

#endif
