/**
 * @file
 * The log file in hexadecimal, for the report of a bug-check.
 */
#ifndef EMP_FAULT_LOG_FILE_DUMP_H
#define EMP_FAULT_LOG_FILE_DUMP_H

#include "fixed_width.h"

/**
 * Prints a stretch of the log file: pieces of 100 bytes while more than 100 remain, then always 30
 * bytes of the last piece. The file position is left as it was. It never fails fatally: a failed
 * seek or read is a debug line, and ends the dump.
 * @param position offset in the file; may lie behind its end
 * @param length   bytes
 */
void empEventLogFilePrint(U32_t position, U32_t length);

#endif
