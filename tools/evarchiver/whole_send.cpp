#include "whole_send.h"

#include <cerrno>
#include <limits>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <poll.h>

namespace evarchive {
namespace {

// What reports of packets that came out of order can take of a segment, which TCP_MAXSEG does not
// tell: up to three ranges of ids beside time stamps, four without them.
constexpr std::size_t REPORTS_BESIDE_STAMPS = 28;
constexpr std::size_t REPORTS = 36;

// Options of a connection, as bits of tcpi_options.
constexpr U8_t HAS_STAMPS = 1;
constexpr U8_t HAS_REPORTS = 2;

// @return whether the socket is a TCP one, and what TCP says of it
bool askTcp(int descriptor, tcp_info& info) {
    socklen_t size = sizeof(info);
    return getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
}

// Whether everything sent before has been acknowledged, and the peer has room for so much.
bool isWayFree(int descriptor, std::size_t size) {
    int unacknowledged = 0;
    if (ioctl(descriptor, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0) {
        return false;
    }
    tcp_info info{};
    // A kernel that does not tell the window leaves it 0.
    return !askTcp(descriptor, info) || info.tcpi_snd_wnd == 0 || info.tcpi_snd_wnd >= size;
}

} // namespace

void setUpWholeSending(int descriptor) {
    const int one = 1;
    const int cutOnTheWay = IP_PMTUDISC_DONT;
    // A socket that is gone shows at its first read.
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof(SEND_BUFFER));
    setsockopt(descriptor, IPPROTO_IP, IP_MTU_DISCOVER, &cutOnTheWay, sizeof(cutOnTheWay));
}

std::size_t longestWhole(int descriptor) {
    int segment = 0;
    socklen_t size = sizeof(segment);
    tcp_info info{};
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_MAXSEG, &segment, &size) != 0 ||
        !askTcp(descriptor, info)) {
        return std::numeric_limits<std::size_t>::max();
    }
    std::size_t taken = 0;
    if ((info.tcpi_options & HAS_REPORTS) != 0) {
        taken = (info.tcpi_options & HAS_STAMPS) != 0 ? REPORTS_BESIDE_STAMPS : REPORTS;
    }
    const auto whole = static_cast<std::size_t>(std::max(segment, 0));
    return whole > taken ? whole - taken : 0;
}

Sent sendWhole(int descriptor, View message) {
    pollfd room{descriptor, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0) {
        return (room.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 ? Sent::BROKEN : Sent::LATER;
    }
    if (!isWayFree(descriptor, message.size())) {
        return Sent::LATER;
    }
    const ssize_t sent =
        send(descriptor, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL | MSG_EOR);
    if (sent == static_cast<ssize_t>(message.size())) {
        return Sent::WHOLE;
    }
    const bool isFull = sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    return isFull ? Sent::LATER : Sent::BROKEN;
}

} // namespace evarchive
