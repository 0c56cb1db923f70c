/**
 * @file
 * Calls of the system that a test can make fail. The linker hands the wrapped functions' calls to
 * failing_calls.cpp; which functions those are stands in CMakeLists.txt.
 */
#ifndef FAILING_CALLS_H
#define FAILING_CALLS_H

/** The calls of one function: counted, and one of them failed. */
struct FailingCall {
    int calls = 0;  ///< made so far
    int failAt = 0; ///< the call that fails, counted from 1; 0: none
    int error = 0;  ///< its errno

    /** Fails the next call that is made. */
    void failNext(int number) {
        failAt = calls + 1;
        error = number;
    }
    /** Counts a call. @return true when it must fail; errno is set */
    bool fails();
};

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
