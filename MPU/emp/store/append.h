/**
 * @file
 * Appending events to the log file.
 */
#ifndef EMP_STORE_APPEND_H
#define EMP_STORE_APPEND_H

#include "mmsg.h"

/**
 * Stores an event at empWrite, discarding the oldest records where space runs out. Returns only on
 * success; every failure is a bug-check.
 * @param mmsgPtr message with an EmpEvLogMsg_t body whose header the caller has filled in; the
 * event data is at most EMP_MAX_STRUCT bytes
 */
void empSaveEventLogMsgToLogFile(const MMSG_t* mmsgPtr);

#endif
