/**
 * @file
 * The one door for debug lines. Standard output is buffered as a whole and written once a loop
 * pass: whoever waits, loops on a receive or ends the process flushes it first.
 */
#ifndef EMP_DIAG_DEBUG_LINE_H
#define EMP_DIAG_DEBUG_LINE_H

/**
 * Prints the time stamp, two blanks and the message when empDebug is 1. errno is left as it was.
 * @param format printf format; the line feed is part of it
 */
void empDebugLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Writes buffered output. errno is left as it was. */
void empFlushOutput();

/** Gives standard output its one large buffer. Call once, before anything is printed. */
void empBufferOutput();

#endif
