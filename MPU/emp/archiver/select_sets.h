/**
 * @file
 * The descriptors that the main loop waits for. The archiver link comes and goes between and within
 * passes, so the sets belong to it; the main loop asks.
 */
#ifndef EMP_ARCHIVER_SELECT_SETS_H
#define EMP_ARCHIVER_SELECT_SETS_H

/** Empties the sets and puts the socket to the message switch into them. Call once, before the
 * loop. */
void empInitSelectSets();

/** Step of every pass: takes the archiver's descriptor into the sets, or out of them. */
void empUpdateSelectSets();

/** Writes buffered output and waits until a descriptor is ready or selectTimeout is over. */
void empSelect();

/** Whether the last empSelect() found the message switch's socket readable. */
bool empMsmSelected();

/** Whether the last empSelect() found the archiver's socket of that moment, still open, readable.
 */
bool empArchiverSelectedToRead();

/** Whether the last empSelect() found the archiver's socket of that moment, still open, writable.
 */
bool empArchiverSelectedToWrite();

/**
 * Takes the archiver's descriptor out of all sets, those of the running pass included: the next
 * socket may get the same number, and the readiness of the old one must not reach it. Call before
 * the descriptor is closed.
 */
void empForgetArchiverDescriptor();

#endif
