/**
 * @file
 * The message switch's socket, read ahead: one receive takes all that has arrived, and what is
 * asked for is then served from memory just as the socket would have served it.
 */
#ifndef EMP_MMSG_READ_AHEAD_H
#define EMP_MMSG_READ_AHEAD_H

#include "mmsg.h"

#include <cstddef>
#include <sys/types.h>

/**
 * Receives from the message switch as recv does: what is there from the front of the stream, up to
 * @p length bytes; waits only while nothing is there. The end of the stream and errors are met
 * behind the bytes that came before them.
 * @param length 1 to 65,536
 * @param flags  0, or MSG_PEEK to leave the bytes in the stream
 * @return bytes received, 0 at the end of the stream, or -1 with errno
 */
ssize_t empReceiveFromMsm(void* to, size_t length, int flags);

/** The message behind the next @p behind bytes of the stream, a multiple of whole messages, if it
 * waits here as a whole; else null. It lies there as it came. */
const MMCH_t* empMsmWaiting(size_t behind);

/** Where the stream stands. */
size_t empMsmMark();

/** Lets the stream stand where it did, while no more than waited here has been taken since. */
void empMsmReturnTo(size_t mark);

/** Whether bytes of the stream wait here, where select does not see them. */
bool empMsmReadAhead();

/** Takes what has arrived, without waiting for it, unless bytes wait here already. errno is left as
 * it was. @return empMsmReadAhead() */
bool empMsmLook();

#endif
