/**
 * @file
 * Framing of the byte stream from the message switch.
 */
#ifndef EMP_MMSG_STREAM_H
#define EMP_MMSG_STREAM_H

/**
 * Reads one local message whole into empInMsg. Blocks until all of the announced length has
 * arrived; a failed receive is a bug-check. The length is not judged here.
 */
void empReceiveMmsg();

#endif
