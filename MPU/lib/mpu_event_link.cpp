#include "mpu_event_link.h"

#include "emp_mesgs.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mpu {

namespace {

/** Waits for an event of poll(); a signal may end the wait, too. @return false from the deadline on
 */
bool waitFor(int fd, short events, MpuMilliseconds_t deadline) {
    MpuMilliseconds_t left = deadline - mpuNow();
    if (left <= 0) {
        return false;
    }
    struct pollfd entry = {fd, events, 0};
    return poll(&entry, 1, static_cast<int>(left)) != 0;
}

bool isAnswer(const MMCH_t& mmch, U32_t type, U32_t handle) {
    return mmch.opcode.request.protocol == MMSG_E_PROTOCOL_EVENTMGR &&
           mmch.opcode.request.type == type && (mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0 &&
           mmch.requestor == MMSG_E_EPID_EVENTLOGMP && mmch.handle == handle;
}

/** Takes the whole messages out of the buffer. */
MPU_LINK_e takeMessages(MpuEventLink_t* link, U32_t type, U32_t handle) {
    MPU_LINK_e found = MPU_LINK_E_NOTHING;
    while (link->received >= MMCH_SIZE) {
        const auto& mmch = *reinterpret_cast<const MMCH_t*>(link->buffer);
        size_t length = mmch.mmsg_length;
        if (length < MMCH_SIZE || length > MMSG_MAX_LENGTH) {
            return MPU_LINK_E_LOST;
        }
        if (link->received < length) {
            break;
        }
        if (isAnswer(mmch, type, handle)) {
            found = MPU_LINK_E_ANSWER;
            memcpy(link->answer, link->buffer, length);
        }
        link->received -= length;
        memmove(link->buffer, link->buffer + length, link->received);
    }
    return found;
}

} // namespace

MpuMilliseconds_t mpuNow() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return MpuMilliseconds_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

MMSG_t* mpuBuildRequest(void* to, U8_t endpoint, U32_t type, size_t length) {
    auto* message = static_cast<MMSG_t*>(to);
    message->mmch = {};
    message->mmch.message_type = MSG_E_TYPE_MMSG;
    message->mmch.mmch_version = 1;
    message->mmch.mmsg_length = static_cast<U16_t>(length);
    message->mmch.opcode.request.protocol = MMSG_E_PROTOCOL_EVENTMGR;
    message->mmch.opcode.request.type = type;
    message->mmch.requestor = endpoint;
    message->mmch.recipient_loc_bm[0] = 1U << MMSG_E_EPID_EVENTLOGMP;
    return message;
}

bool mpuLinkOpen(MpuEventLink_t* link) {
    // A switch whose queue of connections is full refuses; a blocking connect would wait for it.
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    const auto* address = reinterpret_cast<const struct sockaddr*>(&link->address);
    if (connect(fd, address, sizeof(link->address)) < 0) {
        close(fd);
        return false;
    }
    link->fd = fd;
    link->received = 0;
    return true;
}

void mpuLinkClose(MpuEventLink_t* link) {
    if (link->fd >= 0) {
        close(link->fd);
        link->fd = -1;
    }
}

bool mpuLinkSend(const MpuEventLink_t* link, const MMSG_t* message, MpuMilliseconds_t deadline) {
    const auto* next = reinterpret_cast<const U8_t*>(message);
    size_t left = message->mmch.mmsg_length;
    while (left > 0) {
        ssize_t sent = send(link->fd, next, left, MSG_NOSIGNAL);
        if (sent > 0) {
            next += sent;
            left -= static_cast<size_t>(sent);
        } else if (errno == EAGAIN) {
            if (!waitFor(link->fd, POLLOUT, deadline)) {
                return false;
            }
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

MPU_LINK_e mpuLinkAwait(MpuEventLink_t* link, U32_t type, U32_t handle,
                        MpuMilliseconds_t deadline) {
    for (;;) {
        ssize_t size =
            recv(link->fd, link->buffer + link->received, MMSG_MAX_LENGTH - link->received, 0);
        if (size > 0) {
            link->received += static_cast<size_t>(size);
            MPU_LINK_e found = takeMessages(link, type, handle);
            if (found != MPU_LINK_E_NOTHING) {
                return found;
            }
            // A peer that never pauses must not hold the caller.
            if (mpuNow() >= deadline) {
                return MPU_LINK_E_NOTHING;
            }
        } else if (size < 0 && errno == EAGAIN) {
            if (!waitFor(link->fd, POLLIN, deadline)) {
                return MPU_LINK_E_NOTHING;
            }
        } else if (size == 0 || errno != EINTR) {
            return MPU_LINK_E_LOST;
        }
    }
}

} // namespace mpu
