/**
 * @file
 * How an alternate event log file comes to be. Everything here but what a Say_t of its caller does
 * may run in a signal handler: it calls only what libc allows there (a test looks at the object).
 * One static work buffer: two threads of a process must not be in it at once.
 */
#ifndef ALT_EVENT_FILE_H
#define ALT_EVENT_FILE_H

#include "emp_mesgs.h"
#include "mmsg.h"
#include "mpu_gbl.h"

namespace mpu {

/** How it is said that a step failed. */
struct MpuAelSay_s {
    /** Prints two texts and a line's end. @param fd STDOUT_FILENO or STDERR_FILENO */
    void (*line)(int fd, const char* text, const char* more);
    /** The meaning of an errno. */
    const char* (*meaning)(int error);
};
using MpuAelSay_t = MpuAelSay_s;

/** openAELFileFd() */
int mpuAelOpen(const MPU_PARAMS_t* params, const MpuAelSay_t& say);

/** altEventLogM() of a block that is there and an event that a file may hold. */
S32_t mpuAelWrite(const EmpEvLogMsg_t* event, const MPU_PARAMS_t* params, const MpuAelSay_t& say);

/**
 * Leaves the event of a message; without data, it is left with one zero byte, since a file without
 * data is none. Fit for signal handlers as a whole: what fails is said on standard error by
 * write().
 * @param message a whole event message of endpoint 0 to 33
 */
bool mpuAelLeave(const MMSG_t* message, const MPU_PARAMS_t* params);

} // namespace mpu

#endif
