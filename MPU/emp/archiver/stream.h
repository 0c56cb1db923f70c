/**
 * @file
 * Framing on the archiver's TCP stream. There is no reassembly: a message is read in one piece.
 */
#ifndef EMP_ARCHIVER_STREAM_H
#define EMP_ARCHIVER_STREAM_H

/**
 * Reads one message into empInMsg; what lies behind it there, up to 4064 bytes, becomes zero.
 * @return false when no whole header was there; the connection is then closed. A message that is
 * shorter than its header announces is a bug-check.
 */
bool empReceiveEventArchiverMsg();

/**
 * Looks at the stream of an archiver that select did not name.
 * @return whether the connection turns out to be broken; it is left to the caller to close it
 */
bool empEventArchiverConnectionBroken();

/** Takes the pending error of the archiver's socket. @return 0 when there is none */
int empEventArchiverSocketError();

#endif
