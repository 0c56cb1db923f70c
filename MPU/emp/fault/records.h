/**
 * @file
 * The events in which a bug-check is stored. The event manager cannot log them any more, so they
 * become alternate event log files, which its next start takes into the log.
 */
#ifndef EMP_FAULT_RECORDS_H
#define EMP_FAULT_RECORDS_H

#include "configuration.h"
#include "fixed_width.h"

/** Each event is built here. */
extern U8_t empBugCheckWorkSpace[MMSG_MAX_LENGTH];

/** Bytes of the message that the first event carries. */
constexpr U32_t EMP_ERROR_TEXT_SIZE = 64;

/**
 * Stores the 24 events of a bug-check: the error, the control block, the start of both buffers, and
 * the index in 20 pieces. Failures are ignored.
 * @param message at least 64 bytes; the first 64 are stored
 */
void empStoreFaultRecords(const char* fileName, int lineNo, const char* fnName,
                          const char* message);

#endif
