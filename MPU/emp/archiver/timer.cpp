#include "archiver/timer.h"

#include "state/control.h"

bool empTimerExpired(struct timeval* timer) {
    constexpr int microsecondsPerSecond = 1'000'000;
    const struct timeval& step = empControl.selectTimeout;
    if (timer->tv_sec < step.tv_sec ||
        (timer->tv_sec == step.tv_sec && timer->tv_usec < step.tv_usec)) {
        return true;
    }
    timer->tv_sec -= step.tv_sec;
    if (timer->tv_usec < step.tv_usec) {
        timer->tv_sec -= 1;
        timer->tv_usec += microsecondsPerSecond;
    }
    timer->tv_usec -= step.tv_usec;
    return false;
}
