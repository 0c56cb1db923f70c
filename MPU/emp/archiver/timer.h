/**
 * @file
 * Count-down timers of the archiver link. No time is measured: every call stands for one whole
 * selectTimeout.
 */
#ifndef EMP_ARCHIVER_TIMER_H
#define EMP_ARCHIVER_TIMER_H

#include <sys/time.h>

/**
 * Takes one selectTimeout off a timer.
 * @param timer time left; an equal one reaches 0 and expires on the next call
 * @return whether it was smaller than selectTimeout and has expired; it is then left as it is
 */
bool empTimerExpired(struct timeval* timer);

#endif
