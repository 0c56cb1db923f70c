/**
 * @file
 * Event intake: events that arrive as messages, and events taken over from alternate event log
 * files.
 */
#ifndef EMP_REQUESTS_EVENT_LOG_H
#define EMP_REQUESTS_EVENT_LOG_H

#include "fixed_width.h"
#include "mmsg.h"

/** Stamps, stores, forwards and copies an event. The message is modified in place; no reply is
 * sent. */
void empRcvEventLogMsg(MMSG_t* mmsg);

/** Gives out the next sequence id; when the ids wrap to 0 a new instance begins behind it. */
U32_t empTakeSequenceId();

/**
 * Sends a stamped event to the management interface, in the event manager's name.
 * @return the bytes sent, always the message's length
 */
S32_t empSendEventLogMsgToSmi(MMSG_t* mmsg);

#endif
