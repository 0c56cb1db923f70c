/**
 * @file
 * Event intake: events that arrive as messages, and the steps that it shares with the intake of
 * alternate events.
 */
#ifndef EMP_REQUESTS_EVENT_LOG_H
#define EMP_REQUESTS_EVENT_LOG_H

#include "diag/line_format.h"
#include "fixed_width.h"
#include "mmsg.h"

/** Stamps, stores, forwards and copies an event. The message is modified in place; no reply is
 * sent. */
void empRcvEventLogMsg(MMSG_t* mmsg);

/** The lines of the checks below, under their caller's name. */
struct EmpEventCheckTexts_t {
    EmpLineFormat_t<int> requestorText; ///< unknown requestor: its number
    EmpLineFormat_t<int> lengthText;    ///< bad length: mmsg_length
    EmpLineFormat_t<int> senderText;    ///< bad length: the requestor
};

/** Whether the requestor is known and an event header is all there; otherwise says why. */
bool empEventMmsgIsGood(const MMSG_t* mmsg, const EmpEventCheckTexts_t& texts);

/** Prints the two lines of a bad length. */
void empRefuseEventLength(const MMSG_t* mmsg, const EmpEventCheckTexts_t& texts);

/** Gives out the next sequence id; when the ids wrap to 0 a new instance begins behind it. */
U32_t empTakeSequenceId();

/**
 * Sends a stamped event to the management interface, in the event manager's name.
 * @return the bytes sent, always the message's length
 */
S32_t empSendEventLogMsgToSmi(MMSG_t* mmsg);

#endif
