/**
 * @file
 * The Event Archiver's answers to relayed inquiries.
 */
#ifndef EMP_ARCHIVER_ANSWER_H
#define EMP_ARCHIVER_ANSWER_H

#include "emp_mesgs.h"

/**
 * Hands the archiver's answer to the requestor that the message's handle belongs to. A failed
 * "next" about this blade is answered from the log where the log has the event. Without a pending
 * record of that handle, or with more event data than an event may have, the message is dropped.
 */
void empRcvEventLogMsgFromEventArchiver(const EmpEvArchiverMsg_t* message);

#endif
