/**
 * @file
 * Calls of the system that a test can make fail. The linker hands a wrapped function's calls to the
 * test; which functions those are stands in CMakeLists.txt.
 */
#ifndef FAILING_CALL_H
#define FAILING_CALL_H

#include <cerrno>

/** The calls of one function: counted, and one of them failed. */
struct FailingCall {
    int calls = 0;  ///< made so far
    int failAt = 0; ///< the call that fails, counted from 1; 0: none; -1: every one
    int error = 0;  ///< its errno

    /** Fails the next call that is made. */
    void failNext(int number) {
        failAt = calls + 1;
        error = number;
    }
    void failAll(int number) {
        failAt = -1;
        error = number;
    }
    /** Counts a call. @return true when it must fail; errno is set */
    bool fails() {
        calls++;
        if (failAt != -1 && calls != failAt) {
            return false;
        }
        errno = error;
        return true;
    }
};

#endif
