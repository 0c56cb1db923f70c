/**
 * @file
 * The Event Archiver's part of one pass of the main loop.
 */
#ifndef EMP_ARCHIVER_PASS_H
#define EMP_ARCHIVER_PASS_H

/**
 * Serves the archiver's socket and the timers of the link. Call once a pass, behind the message
 * switch: a local message may have switched the link on or off in this very pass.
 */
void empServeEventArchiver();

#endif
