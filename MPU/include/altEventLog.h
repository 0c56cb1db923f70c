/**
 * @file
 * The alternate event log: how a process of the blade leaves an event behind when the event manager
 * cannot be reached. Each event becomes one file in nvramDirectory + "/aelfiles"; the event manager
 * takes the files into its log at its next start.
 *
 * The writer allocates nothing and uses no stdio while it succeeds, so that a signal handler may
 * call it as its last act; MPU_leaveEvent() of mpu/event.h does not when it fails either. It has
 * one static work buffer: two threads of a process must not enter it at once.
 */
#ifndef ALT_EVENT_LOG_H
#define ALT_EVENT_LOG_H

#include "emp_mesgs.h"
#include "fixed_width.h"
#include "mpu_gbl.h"

/** Results of altEventLogM(). */
enum ALT_EVENT_LOG_STATUS_e : S32_t {
    ALT_EVENT_LOG_E_OK = 0,
    ALT_EVENT_LOG_E_OPEN = 10001, ///< the file could not be created
    ALT_EVENT_LOG_E_WRITE =
        10002, ///< the seek or the write failed; an empty or partial file may remain
};

/**
 * Checksum of records: CRC-32C (reflected polynomial 0x82F63B78) with its four bytes reversed.
 * "123456789" gives 0x839206E3.
 * @param data   @p length bytes
 * @param length bytes; 0 gives 0
 * @return the checksum as a number of the host; it is stored big-endian
 */
U32_t computeCRC32(const void* data, U32_t length);

/**
 * Writes one event into a new alternate event log file.
 * @param evLogMsgPtr  the event; the caller fills evSource, evType, evCategory, evIdVersion, evId,
 *                     evStructLength (1 to 3848), that many bytes of data and, for source 18,
 *                     evSequenceId. Identity and time are taken from the blade and the clock.
 * @param mpuParamsPtr the attached parameter block; NULL: one line on standard output, nothing
 * written
 * @return ALT_EVENT_LOG_STATUS_e; 0 also for a NULL block. Aborts the process, after one line on
 * standard output, for a source above 34 and for a length outside 1 to 3848.
 */
S32_t altEventLogM(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr);

/**
 * altEventLogM(), whatever its result, as the last act of a process: then prints a line and exits.
 * @param exitVal exit status; the parent sees its low 8 bits
 */
[[noreturn]] void altEventLog(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr,
                              int exitVal);

/**
 * Creates a new, uniquely named, empty alternate event log file, and its directory if need be.
 * @param mpuParamsPtr the attached parameter block, not NULL
 * @return its descriptor, open for reading and writing, owned by the caller; negative when it could
 * not be created, with lines on standard output (directory) or standard error (file)
 */
int openAELFileFd(const MPU_PARAMS_t* mpuParamsPtr);

#endif
