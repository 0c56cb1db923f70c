/**
 * @file
 * Writing out the forward list, and the timer that does it.
 */
#ifndef EMP_ARCHIVER_FORWARD_LIST_H
#define EMP_ARCHIVER_FORWARD_LIST_H

/** Writes out the forward list from its head, as far as the socket takes it. */
void empSendForwardListToEventArchiver();

/** The same, with one catch-up step after each message that went out whole. */
void empSendForwardListToEventArchiverWithInterleave();

/**
 * Call once a pass. With messages queued, counts forwardTimeout down and writes the list when it
 * has expired; otherwise sends the next event that the archiver lacks and sets selectTimeout: 100
 * us while more are missing, else 1 s.
 */
void empProcessForwardTimeout();

#endif
