#include "scripted_archiver.h"

#include "wait.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <linux/sockios.h>

namespace support {
namespace {

constexpr int NARROW_BUFFER = 4096;
constexpr int NARROW_SEGMENT = 536;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool isReadable(int descriptor, std::chrono::milliseconds wait) {
    pollfd readable{descriptor, POLLIN, 0};
    return poll(&readable, 1, static_cast<int>(wait.count())) == 1;
}

} // namespace

ArchiverEnd::~ArchiverEnd() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

ArchiverEnd::ArchiverEnd(ArchiverEnd&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

Bytes ArchiverEnd::receive(size_t count) {
    Bytes bytes(count);
    size_t got = 0;
    while (got < count) {
        if (!isReadable(descriptor_, DEADLINE)) {
            throw std::runtime_error(std::to_string(got) + " bytes instead of " +
                                     std::to_string(count));
        }
        const ssize_t size = recv(descriptor_, bytes.data() + got, count - got, 0);
        if (size < 0) {
            fail("recv");
        }
        if (size == 0) {
            throw std::runtime_error("the end instead of " + std::to_string(count) + " bytes");
        }
        got += static_cast<size_t>(size);
    }
    return bytes;
}

void ArchiverEnd::send(const Bytes& bytes) {
    const ssize_t size = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (size != static_cast<ssize_t>(bytes.size())) {
        fail("send");
    }
}

void ArchiverEnd::waitUntilDelivered() {
    requireSoon(
        [this] {
            int unacknowledged = 0;
            return ioctl(descriptor_, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged == 0;
        },
        "the other side to have everything");
}

bool ArchiverEnd::isQuiet() {
    return !isReadable(descriptor_, std::chrono::milliseconds(0));
}

bool ArchiverEnd::isClosed() {
    if (!isReadable(descriptor_, DEADLINE)) {
        throw std::runtime_error("the connection stays open");
    }
    U8_t byte = 0;
    const ssize_t size = recv(descriptor_, &byte, 1, 0);
    return size == 0 || (size < 0 && errno == ECONNRESET);
}

ScriptedArchiver::ScriptedArchiver(bool narrow)
    : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (narrow) {
        // The other side's send buffer grows with the size of a segment.
        const int bytes[2] = {NARROW_BUFFER, NARROW_SEGMENT};
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &bytes[0], sizeof(int));
        setsockopt(descriptor_, IPPROTO_TCP, TCP_MAXSEG, &bytes[1], sizeof(int));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(descriptor_, generic, size) != 0 || getsockname(descriptor_, generic, &size) != 0) {
        fail("bind");
    }
    port_ = ntohs(address.sin_port);
}

ScriptedArchiver::~ScriptedArchiver() {
    close(descriptor_);
}

void ScriptedArchiver::listen() {
    if (::listen(descriptor_, SOMAXCONN) != 0) {
        fail("listen");
    }
}

ArchiverEnd ScriptedArchiver::accept() {
    if (!isReadable(descriptor_, DEADLINE)) {
        throw std::runtime_error("nobody connects");
    }
    const int accepted = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) {
        fail("accept");
    }
    return ArchiverEnd(accepted);
}

} // namespace support
