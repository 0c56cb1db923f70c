/**
 * @file
 * Takes the events that processes of the blade left in alternate event log files into the log.
 */
#ifndef EMP_STARTUP_ALTERNATE_REPLAY_H
#define EMP_STARTUP_ALTERNATE_REPLAY_H

/**
 * Replays the files of nvramDirectory + "/aelfiles" in the order of their times, each through the
 * ordinary dispatch, and deletes what it finds there, good or bad. A file is deleted after its
 * event was dispatched: a bug-check on the way leaves it for the next start. Once per process.
 */
void empProcessAlternateEventLogFiles();

#endif
