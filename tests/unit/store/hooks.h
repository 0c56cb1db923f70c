/**
 * @file
 * What the tests do to the system calls of the event manager: end the process before a write, fail
 * a call, hold the clock.
 */
#ifndef TESTS_UNIT_STORE_HOOKS_H
#define TESTS_UNIT_STORE_HOOKS_H

#include <cstdint>
#include <string>
#include <vector>

namespace hooks {

/** One kind of call on the log file. Calls are numbered from 1 on since reset(). */
struct Calls {
    int count = 0;       ///< calls so far
    int failAt = 0;      ///< the call that fails; 0: none
    bool failOn = false; ///< all later ones fail too
    bool due() {
        count++;
        return failAt != 0 && (count == failAt || (failOn && count > failAt));
    }
};

struct State {
    Calls reads;          ///< fail with EIO
    Calls writes;         ///< fail with writeError
    int writeError = 5;   ///< EIO
    Calls seeks;          ///< all calls that name or move a position; fail with ESPIPE
    int shortWriteAt = 0; ///< the write that takes only shortWriteBytes
    long shortWriteBytes = 0;
    int exitBeforeWrite = 0; ///< the process ends before this write, status EXIT_STATUS
    int exitInWrite = 0;     ///< the process ends in this write, behind exitInWriteBytes
    long exitInWriteBytes = 0;
    int failOpenAt = 0; ///< the open of a path ending in openName that fails with EACCES
    int opens = 0;
    std::string openName{};
    struct Opened {
        std::string path;
        int flags;
        unsigned mode;
    };
    std::vector<Opened> opened{}; ///< every open of a path that contains "kelta"
    bool failRename = false;
    uint32_t clock = 0; ///< seconds that gettimeofday gives; 0: the real time
};

constexpr int EXIT_STATUS = 77;

extern State state;

/** Forgets all counts and orders but the clock. */
void reset();

/** Counts calls from 1 on again. */
void resetCounts();

/** A bug-check thrown instead of ending the process, where empFault is replaced by it. */
struct BugCheck {
    std::string text;
    std::string function;
};

} // namespace hooks

#endif
