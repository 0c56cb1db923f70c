/**
 * @file
 * The handler of unexpected signals.
 */
#ifndef MPU_SIGNALS_H
#define MPU_SIGNALS_H

#include <csignal>

namespace mpu {

/**
 * Writes an alternate event log file about a signal, then aborts the process.
 * @param info    what the kernel says about it, or NULL
 * @param context ucontext_t of the interrupted code, or NULL
 */
[[noreturn]] void catchEvent(int sig, siginfo_t* info, void* context);

} // namespace mpu

#endif
