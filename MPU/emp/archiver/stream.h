/**
 * @file
 * Framing on the archiver's TCP stream. There is no reassembly: a message is read in one piece.
 */
#ifndef EMP_ARCHIVER_STREAM_H
#define EMP_ARCHIVER_STREAM_H

#include "fixed_width.h"

/** A peek at the next header that did not wait. */
struct EmpArchiverPeek_t {
    S32_t result; ///< of recv; -1 also without a socket
    int error;    ///< errno right after it, stale when nothing failed
};

/** Peeks at the next header. */
EmpArchiverPeek_t empPeekEventArchiverHeader();

/** Whether select, asked instead of that peek, would have named the socket. */
bool empPeekFoundSomething(EmpArchiverPeek_t peek);

/**
 * Reads one message into empInMsg; what lies behind it there, up to 4064 bytes, becomes zero.
 * @param peek at its header
 * @return false when no whole header was there; the connection is then closed. A message that is
 * shorter than its header announces is a bug-check.
 */
bool empReceiveEventArchiverMsg(EmpArchiverPeek_t peek);

/**
 * Judges an archiver that is silent.
 * @return whether the connection turns out to be broken; it is left to the caller to close it
 */
bool empEventArchiverConnectionBroken(EmpArchiverPeek_t peek);

/** Takes the pending error of the archiver's socket. @return 0 when there is none */
int empEventArchiverSocketError();

#endif
