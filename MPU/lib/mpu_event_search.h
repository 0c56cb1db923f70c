/**
 * @file
 * Whether the event manager has kept what it was sent. One that dies takes along what it has read
 * and not stored, and the next one answers as if nothing had been.
 */
#ifndef MPU_EVENT_SEARCH_H
#define MPU_EVENT_SEARCH_H

#include "mpu_event_link.h"
#include "mpu_gbl.h"

namespace mpu {

/** Messages of a batch at most. */
constexpr size_t MPU_SEARCH_MESSAGES_MAX = 256;

/** Who has come to the parameter block and who has gone: while this stays the same no process has,
 * so the event manager is the same, too. */
struct MpuBlockUse_s {
    bool known;
    pid_t last;         ///< the process that came or went last
    long long attached; ///< when one came, in seconds
    long long detached;
};
using MpuBlockUse_t = MpuBlockUse_s;

MpuBlockUse_t mpuBlockUse(int shmid);

/** Two that are not known are not the same. */
bool mpuSameUse(const MpuBlockUse_t& one, const MpuBlockUse_t& other);

/** Where and how a log is searched. */
struct MpuSearch_s {
    MpuEventLink_t* link;
    const MPU_PARAMS_t* params;
    U8_t endpoint;              ///< whose events are meant
    U32_t* handle;              ///< counted up with each inquiry
    S64_t after;                ///< only events stored after this second are
    MpuMilliseconds_t deadline; ///< what has not been found by then is not
};
using MpuSearch_t = MpuSearch_s;

/** Cuts the messages of events that are in the event manager's log out of others, oldest first.
 * Those found have the order in which they were sent. What cannot be asked for is not found.
 * @param messages at most MPU_SEARCH_MESSAGES_MAX, one behind the other @return the length of what
 * is left of them */
size_t mpuDropFound(const MpuSearch_t& search, U8_t* messages, size_t length);

} // namespace mpu

#endif
