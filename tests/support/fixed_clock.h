/**
 * @file
 * A wall clock that stands still, so that stored bytes can be compared as a whole. Include in one
 * file of the test, and wrap gettimeofday.
 */
#ifndef FIXED_CLOCK_H
#define FIXED_CLOCK_H

#include <sys/time.h>

/** Seconds that the clock shows; in a record the bytes 65 43 21 00. */
inline time_t fixedSeconds = 0x65432100;

extern "C" [[gnu::used]] inline int __wrap_gettimeofday(struct timeval* now, void* /*zone*/) {
    now->tv_sec = fixedSeconds;
    now->tv_usec = 999'999;
    return 0;
}

#endif
