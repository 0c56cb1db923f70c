/**
 * @file
 * What the main loop waits for: the message switch's socket, and the archiver's while there is one.
 * The archiver link comes and goes between and within passes; it only has to say when a descriptor
 * goes.
 */
#ifndef EMP_LOOP_WAIT_H
#define EMP_LOOP_WAIT_H

/** Empties the sets and puts the socket to the message switch into them. Call once, before the
 * loop. */
void empInitSelectSets();

/** Step of every pass: takes the archiver's descriptor into the sets, or out of them. */
void empUpdateSelectSets();

/**
 * Waits until a descriptor is ready or selectTimeout is over; buffered output is written before. A
 * pass that finds a local message read ahead does not wait, and leaves its output to a later one;
 * behind a local message others may run first, so that the next one may be found then.
 */
void empWaitForSockets();

/** Writes the lines that a pass has left to a later one. */
void empWriteLines();

/** Whether the running pass has found something of the message switch to read. */
bool empMsmReadable();

/** What the running pass knows of the archiver's socket. */
enum EMP_READABLE_e {
    EMP_E_READABLE_NO,
    EMP_E_READABLE_YES,
    EMP_E_READABLE_NOT_ASKED, ///< it did not wait: a receive that does not wait either will tell
};

/** Whether the archiver's socket of that moment, still open, was found readable. */
EMP_READABLE_e empArchiverReadable();

/** Whether the archiver's socket of that moment, still open, was found writable. */
bool empArchiverWritable();

/**
 * Takes the archiver's descriptor out of all sets, those of the running pass included: the next
 * socket may get the same number, and the readiness of the old one must not reach it. Call before
 * the descriptor is closed.
 */
void empForgetArchiverDescriptor();

#endif
