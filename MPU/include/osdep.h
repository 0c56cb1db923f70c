/**
 * @file
 * What the blade takes from its operating system: the wall clock, the time zone's name, and the
 * spin lock.
 *
 * The functions are static on purpose, not inline: every module that uses get_tz() has a copy with
 * a buffer of its own, so two modules do not overwrite each other's result.
 */
#ifndef OSDEP_H
#define OSDEP_H

#include "fixed_width.h"

#include <cstddef>
#include <cstring>
#include <sched.h>
#include <sys/time.h>
#include <unistd.h>

/** A lock word, in private or shared memory. Host byte order. */
struct MPU_SPINLOCK_s {
    int lock; ///< 1 free, 0 taken
};
using MPU_SPINLOCK_t = MPU_SPINLOCK_s;

/**
 * Reads the wall clock with 64 bits, which a 32-bit host's own time_t does not have.
 * @param seconds      receives seconds since 1970-01-01 UTC
 * @param microseconds receives 0 to 999,999
 * @return the result of gettimeofday: 0, or -1 with errno and nothing stored
 */
int mpuGetTime64(S64_t* seconds, S32_t* microseconds);

/** The seconds of mpuGetTime64(), for those who ask often: the clock's last tick will do. */
S64_t mpuGetSecond();

/**
 * Reads the wall clock.
 * @param tv receives seconds and microseconds since 1970-01-01 UTC. A 32-bit time_t holds the low
 * 32 bits of the seconds: as a U32_t they are right until 2106.
 * @return the result of gettimeofday: 0, or -1 with errno
 */
[[maybe_unused]] static int mpuGetTime(struct timeval* tv) {
    S64_t seconds;
    S32_t microseconds;
    int result = mpuGetTime64(&seconds, &microseconds);
    if (result == 0) {
        tv->tv_sec = static_cast<time_t>(seconds);
        tv->tv_usec = microseconds;
    }
    return result;
}

/**
 * The name of the local time zone: the target of /etc/localtime behind its first 20 characters, the
 * length of "/usr/share/zoneinfo/".
 * @return a buffer of the including module, valid until its next call; NULL when /etc/localtime is
 * not a link, its target is shorter than 20 characters, or the name is longer than 32
 */
[[maybe_unused]] static char* get_tz() {
    // KEEP: only the prefix's length counts, not its text: "/etc/zoneinfo/America/New_York" gives
    // "a/New_York".
    constexpr size_t prefixLength = sizeof("/usr/share/zoneinfo/") - 1;
    constexpr size_t nameMax = 32;
    static char target[4095];
    ssize_t length = readlink("/etc/localtime", target, sizeof(target) - 1);
    if (length < 0) {
        return nullptr;
    }
    target[length] = '\0';
    if (static_cast<size_t>(length) < prefixLength ||
        static_cast<size_t>(length) - prefixLength > nameMax) {
        return nullptr;
    }
    return target + prefixLength;
}

/**
 * Decrements a word atomically unless the result would be negative.
 * @return the would-be new value; negative when nothing was stored
 */
[[maybe_unused]] static int atomic_dec_if_positive(int* word) {
    int old = __atomic_load_n(word, __ATOMIC_RELAXED);
    for (;;) {
        // Unsigned, so that the smallest int wraps instead of being undefined.
        int decremented = static_cast<int>(static_cast<unsigned>(old) - 1U);
        if (decremented < 0) {
            return decremented;
        }
        if (__atomic_compare_exchange_n(word, &old, decremented, true, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
            return decremented;
        }
    }
}

/**
 * Takes a lock, yielding the processor while another party holds it. There is no owner record and
 * no time-out: a lock whose owner died is waited for without end. Not for signal handlers.
 * @return the value left in the lock word, 0
 */
[[maybe_unused]] static int mpuSpinLock_Get(MPU_SPINLOCK_t* lock) {
    for (;;) {
        int left = atomic_dec_if_positive(&lock->lock);
        if (left >= 0) {
            return left;
        }
        sched_yield();
    }
}

/** Gives a lock back: the owner stores 1. */
[[maybe_unused]] static void mpuSpinLock_Release(MPU_SPINLOCK_t* lock) {
    __atomic_store_n(&lock->lock, 1, __ATOMIC_RELEASE);
}

#endif
