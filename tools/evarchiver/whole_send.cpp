#include "whole_send.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace evarchive {

Sent sendWhole(int descriptor, View message) {
    pollfd room{descriptor, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0) {
        return (room.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 ? Sent::BROKEN : Sent::LATER;
    }
    const ssize_t sent =
        send(descriptor, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(message.size())) {
        return Sent::WHOLE;
    }
    const bool isFull = sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    return isFull ? Sent::LATER : Sent::BROKEN;
}

} // namespace evarchive
