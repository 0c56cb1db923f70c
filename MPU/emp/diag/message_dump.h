/**
 * @file
 * Printable dumps of messages and records. Every line is a debug line; data is hex-dumped, 64 bytes
 * at most.
 */
#ifndef EMP_DIAG_MESSAGE_DUMP_H
#define EMP_DIAG_MESSAGE_DUMP_H

#include "emp_mesgs.h"
#include "mmsg.h"

/** Prints a local message. Reads at most its header, event header or body structure, and 64 data
 * bytes. */
void empMmsgPrint(const MMSG_t* mmsg);

/** Prints a message of the archiver link. */
void empEvArchiverMsgPrint(const EmpEvArchiverMsg_t* message);

/** Prints the header of a stored event. Nothing calls it; it is here for a debugger. */
void empEvRecordPrint(const EmpEvRecord_t* record);

#endif
