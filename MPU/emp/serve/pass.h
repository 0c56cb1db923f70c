/**
 * @file
 * One pass of the main loop.
 */
#ifndef EMP_SERVE_PASS_H
#define EMP_SERVE_PASS_H

/** Waits, then serves at most one local message and one of the archiver. */
void empServePass();

#endif
