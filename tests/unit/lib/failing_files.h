/**
 * @file
 * Calls on files, time and signals that a test can count, fail or watch.
 */
#ifndef FAILING_FILES_H
#define FAILING_FILES_H

#include "failing_call.h"

#include <string>
#include <sys/time.h>

extern FailingCall failingAccess;
extern FailingCall failingMkdir;
extern FailingCall failingMkstemp;
extern FailingCall failingLseek;
extern FailingCall failingWrite;
extern FailingCall failingFsync;
extern FailingCall failingSigaction;
extern int closeCalls;
extern struct timeval wallClock; ///< what gettimeofday says; tv_sec 0: the real time
extern long writeLimit;          ///< bytes that a write takes at most; negative: all
extern void (*beforeWrite)();    ///< called once before the next write
/** Stands in for every file below /proc; empty: it cannot be opened; NULL: the real one. */
extern const char* procFile;
extern std::string openedPath; ///< the path last opened

#endif
