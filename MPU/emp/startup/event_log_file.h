/**
 * @file
 * The log file at start-up, and the event that tells of its damage.
 */
#ifndef EMP_STARTUP_EVENT_LOG_FILE_H
#define EMP_STARTUP_EVENT_LOG_FILE_H

#include "fixed_width.h"

/** Opens, scans and repairs the log file; logs an event when it had to be started again. */
void empProcessEventLogFile();

/**
 * Logs an event of the event manager's own through the ordinary dispatch, without any socket.
 * @param eventDataPtr      event data; not read when the length is 0
 * @param eventStructLength bytes of it; more than EMP_MAX_STRUCT is cut
 */
void empSendEventMmsgToEmpInitTime(U16_t eventId, U8_t eventType, const void* eventDataPtr,
                                   U16_t eventStructLength);

#endif
