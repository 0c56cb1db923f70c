/**
 * @file
 * Forwarding of events to the Event Archiver. The log is the queue: the cursor
 * empEventArchiverSequenceId is the id of the last event handed over, and each event is read back
 * from the log file. No call here blocks or closes the connection.
 */
#ifndef EMP_ARCHIVER_FORWARD_H
#define EMP_ARCHIVER_FORWARD_H

#include "diag/line_format.h"
#include "fixed_width.h"

/**
 * Sends one stored event, or queues what the socket does not take.
 * @return EMP_E_OK when it was written or queued, and also when the link's state allows neither;
 * EMP_E_GENERR when it is not in the log, or not admitted to the queue. The cursor is the caller's.
 */
S32_t empSendEventLogToEventArchiver(U32_t sequenceId);

/**
 * The catch-up step: moves the cursor to the next event that the archiver lacks and sends that
 * event, if there is one. The cursor stays moved whatever the send says.
 * @param aheadText line for an archiver that claims events which the log has not given out yet; it
 * takes the cursor and the next id, and forwarding starts again from the oldest event
 */
void empSendCatchUpEvent(EmpLineFormat_t<int, int> aheadText);

#endif
