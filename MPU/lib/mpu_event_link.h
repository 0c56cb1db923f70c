/**
 * @file
 * The connection of one process to the event manager, through the message switch. No function waits
 * past its deadline, none raises SIGPIPE.
 */
#ifndef MPU_EVENT_LINK_H
#define MPU_EVENT_LINK_H

#include "mmsg.h"

#include <sys/un.h>

namespace mpu {

/** Milliseconds of the monotonic clock. */
using MpuMilliseconds_t = long long;

MpuMilliseconds_t mpuNow();

/** A connection as one endpoint. Zeroed but for the address and fd -1 before its first use. */
struct MpuEventLink_s {
    struct sockaddr_un address; ///< the endpoint's socket in the switch's directory
    int fd;                     ///< -1: closed
    size_t received;            ///< bytes in buffer: the message that is coming in
    U8_t buffer[MMSG_MAX_LENGTH];
    U8_t answer[MMSG_MAX_LENGTH]; ///< the one that mpuLinkAwait() waited for
};
using MpuEventLink_t = MpuEventLink_s;

/** What came in. */
enum MPU_LINK_e {
    MPU_LINK_E_ANSWER,  ///< the answer that was looked for
    MPU_LINK_E_NOTHING, ///< not the answer, up to the deadline
    MPU_LINK_E_LOST,    ///< the connection is gone, or carries no messages
};

/** Fills all that a message to the event manager has in common. @param to as long as the message */
MMSG_t* mpuBuildRequest(void* to, U8_t endpoint, U32_t type, size_t length);

/** Connects a closed link. @return whether the switch took it */
bool mpuLinkOpen(MpuEventLink_t* link);

void mpuLinkClose(MpuEventLink_t* link);

/** Sends a whole message. @return false when it did not go out; a part of it may have */
bool mpuLinkSend(const MpuEventLink_t* link, const MMSG_t* message, MpuMilliseconds_t deadline);

/**
 * Reads what comes in until the event manager's answer to the request of a type and handle is
 * there, which goes to link->answer. Everything else that the switch has for this endpoint is
 * dropped.
 * @param type     EMP_MESGS_TYPE_e
 * @param deadline in the past: only what is there already
 */
MPU_LINK_e mpuLinkAwait(MpuEventLink_t* link, U32_t type, U32_t handle, MpuMilliseconds_t deadline);

} // namespace mpu

#endif
