#include "blade_link.h"

#include "program.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace support {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

bool isReadable(int descriptor, std::chrono::milliseconds wait) {
    pollfd readable{descriptor, POLLIN, 0};
    return poll(&readable, 1, static_cast<int>(wait.count())) == 1;
}

} // namespace

std::string scrape(U16_t port, const std::string& path) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string text;
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
        send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
        char buffer[4096];
        for (ssize_t size = 0; (size = recv(descriptor, buffer, sizeof(buffer), 0)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(size));
        }
    }
    close(descriptor);
    return text;
}

BladeLink::BladeLink(U16_t port, int sendBuffer, const std::string& host, int receiveBuffer)
    : descriptor_(socket(AF_INET, SOCK_STREAM, 0)) {
    if (sendBuffer > 0) {
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
    }
    if (receiveBuffer > 0) {
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    const timeval deadline{DEADLINE.count() / 1000, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof(deadline));
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    if (connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(descriptor_);
        errno = error;
        fail("connect");
    }
}

BladeLink::~BladeLink() {
    close(descriptor_);
}

void BladeLink::send(const Bytes& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size =
            ::send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) {
            fail("send");
        }
        sent += static_cast<size_t>(size);
    }
}

size_t BladeLink::sendUntilFull() {
    const Bytes bytes(1024, 0x55);
    size_t total = 0;
    pollfd room{descriptor_, POLLOUT, 0};
    // Full is what stays without room: the other side's window opens once more after a moment.
    while (poll(&room, 1, 500) == 1) {
        const ssize_t size =
            ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size < 0 && errno != EAGAIN) {
            fail("send");
        }
        total += size > 0 ? static_cast<size_t>(size) : 0;
    }
    return total;
}

void BladeLink::finishSending() {
    shutdown(descriptor_, SHUT_WR);
}

Bytes BladeLink::receive() {
    Bytes message(65'536);
    if (!isReadable(descriptor_, DEADLINE)) {
        throw std::runtime_error("no response");
    }
    if (recv(descriptor_, message.data(), 16, MSG_PEEK) != 16) {
        fail("a response does not begin with a whole header");
    }
    message.resize(16 + get16(message, 2));
    if (recv(descriptor_, message.data(), message.size(), 0) !=
        static_cast<ssize_t>(message.size())) {
        fail("a response came in parts");
    }
    return message;
}

Bytes BladeLink::receivePatiently() {
    Bytes message(16);
    if (recv(descriptor_, message.data(), 16, MSG_WAITALL) != 16) {
        fail("no whole header");
    }
    const size_t length = get16(message, 2);
    message.resize(16 + length);
    if (recv(descriptor_, message.data() + 16, length, MSG_WAITALL) !=
        static_cast<ssize_t>(length)) {
        fail("no whole body");
    }
    return message;
}

Bytes BladeLink::ask(const Bytes& request) {
    send(request);
    return receive();
}

bool BladeLink::isClosed() {
    if (!isReadable(descriptor_, DEADLINE)) {
        return false;
    }
    U8_t byte = 0;
    const ssize_t size = recv(descriptor_, &byte, 1, 0);
    return size == 0 || (size < 0 && errno == ECONNRESET);
}

bool BladeLink::isClosedInOrder() {
    U8_t byte = 0;
    return recv(descriptor_, &byte, 1, 0) == 0;
}

U16_t BladeLink::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

bool BladeLink::isQuiet() {
    return !isReadable(descriptor_, std::chrono::milliseconds(0));
}

Claim claimOf(const Bytes& answer) {
    return {get32(answer, 16 + 168), get32(answer, 16 + 172)};
}

U16_t freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); // never closed
    const int one = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

void ArchiverProcessTest::start(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"--listen", "127.0.0.1:0", "--db", database_};
    all.insert(all.end(), arguments.begin(), arguments.end());
    archiver_ = std::make_unique<Process>(commandOf("evarchiver", all),
                                          directory_.file("run" + std::to_string(++starts_)));
    const std::string line = archiver_->waitForOutput("listening on 127.0.0.1:");
    port_ = static_cast<U16_t>(std::stoi(line.substr(line.find(':') + 1)));
}

Ending ArchiverProcessTest::stop() {
    archiver_->signal(SIGINT);
    return archiver_->wait();
}

EventFields ArchiverProcessTest::event(U32_t id, const LogName& log) {
    Bytes data(id % 300);
    put32(data, id);
    return {.log = log, .id = id, .data = data};
}

Bytes ArchiverProcessTest::events(U32_t first, U32_t last, const LogName& log) {
    Bytes bytes;
    for (U32_t id = first; id <= last; ++id) {
        const Bytes message = eventMessage(event(id, log));
        bytes.insert(bytes.end(), message.begin(), message.end());
    }
    return bytes;
}

Bytes ArchiverProcessTest::statusOf(const EventFields& oldest, U32_t handle) {
    return statusRequest(oldest.log, oldest.id, oldest.data, handle);
}

Claim ArchiverProcessTest::claim(BladeLink& link, const EventFields& oldest) {
    return claimOf(link.ask(statusOf(oldest)));
}

} // namespace support
