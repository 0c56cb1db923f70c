#include "recording_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {
namespace {

sockaddr_in loopback(U16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

RecordingRelay::RecordingRelay(U16_t to)
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop_(eventfd(0, EFD_CLOEXEC)),
      to_(to) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 8) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no listener");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

RecordingRelay::~RecordingRelay() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(listener_);
    close(stop_);
}

std::vector<U8_t> RecordingRelay::sent() {
    const std::lock_guard lock(mutex_);
    return sent_;
}

std::vector<U8_t> RecordingRelay::returned() {
    const std::lock_guard lock(mutex_);
    return returned_;
}

void RecordingRelay::run() {
    pollfd waits[2] = {{listener_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(waits, 2, -1) > 0 && waits[1].revents == 0) {
        const int near = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const int far = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(to_);
        if (connect(far, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            carry(near, far);
        }
        close(near);
        close(far);
    }
}

void RecordingRelay::carry(int near, int far) {
    pollfd waits[3] = {{near, POLLIN, 0}, {far, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(waits, 3, -1) > 0 && waits[2].revents == 0) {
        if (waits[0].revents != 0 && !move(near, far, sent_, false)) {
            waits[0].fd = -1;
            shutdown(far, SHUT_WR);
        }
        if (waits[1].revents != 0 && !move(far, near, returned_, true)) {
            waits[1].fd = -1;
            shutdown(near, SHUT_WR);
        }
        if ((waits[0].fd < 0 && waits[1].fd < 0) || left_ == 0) {
            return;
        }
    }
}

// @return false at the end of the stream
bool RecordingRelay::move(int from, int to, std::vector<U8_t>& record, bool isBack) {
    U8_t bytes[16'384];
    ssize_t size = recv(from, bytes, sizeof(bytes), 0);
    if (size <= 0) {
        return false;
    }
    if (isBack && left_ != SIZE_MAX) {
        size = std::min(size, static_cast<ssize_t>(left_.load()));
        left_ -= static_cast<size_t>(size);
    }
    {
        const std::lock_guard lock(mutex_);
        record.insert(record.end(), bytes, bytes + size);
    }
    return send(to, bytes, static_cast<size_t>(size), MSG_NOSIGNAL) == size;
}

} // namespace support
