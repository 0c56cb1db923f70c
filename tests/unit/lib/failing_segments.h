/**
 * @file
 * Calls on shared memory, its contents and its locks that a test can count or fail.
 */
#ifndef FAILING_SEGMENTS_H
#define FAILING_SEGMENTS_H

#include "failing_call.h"

extern FailingCall failingShmget;
extern FailingCall failingShmat;
extern FailingCall failingOpen;
extern FailingCall failingSemInit;
extern FailingCall failingSemDestroy;
extern FailingCall failingMutexInit;
extern FailingCall failingMutexDestroy;
extern int shmdtCalls;
/** What the next read of the library returns: bytes at most, or -1; -2: no limit. */
extern int readLimit;

#endif
