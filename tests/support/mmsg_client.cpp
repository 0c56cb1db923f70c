#include "mmsg_client.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace support {
namespace {

[[noreturn]] void failCall(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("socket path too long: " + path);
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

int newSocket() {
    int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        failCall("socket");
    }
    return descriptor;
}

void waitForInput(int descriptor, const char* what) {
    pollfd entry{descriptor, POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&entry, 1, static_cast<int>(DEADLINE.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        throw std::runtime_error(std::string("waited in vain for ") + what);
    }
}

void setBits(U32be_t (&bitmap)[2], const std::vector<U32_t>& endpoints) {
    for (U32_t endpoint : endpoints) {
        U32be_t& word = bitmap[(endpoint / 32) % 2];
        word = U32_t{word} | (1U << (endpoint % 32));
    }
}

} // namespace

Bytes makeMmsg(const MmsgFields& fields, const Bytes& body) {
    MMCH_t header{};
    header.message_type = MSG_E_TYPE_MMSG;
    header.mmch_version = 1;
    header.mmsg_length = static_cast<U16_t>(MMCH_SIZE + body.size());
    header.opcode.request.protocol = fields.protocol;
    header.opcode.request.type = fields.type;
    header.requestor = fields.requestor;
    header.mmsg_cont = fields.cont;
    header.dest_ep = fields.dest;
    setBits(header.recipient_loc_bm, fields.local);
    setBits(header.recipient_ob_bm, fields.other);
    header.return_code = fields.returnCode;
    header.handle = fields.handle;
    Bytes message(MMCH_SIZE + body.size());
    memcpy(message.data(), &header, MMCH_SIZE);
    std::copy(body.begin(), body.end(), message.begin() + MMCH_SIZE);
    return message;
}

MMCH_t& headerOf(Bytes& message) {
    return const_cast<MMCH_t&>(headerOf(static_cast<const Bytes&>(message)));
}

const MMCH_t& headerOf(const Bytes& message) {
    if (message.size() < MMCH_SIZE) {
        throw std::runtime_error("no whole header");
    }
    return *reinterpret_cast<const MMCH_t*>(message.data());
}

MmsgClient::MmsgClient(const std::string& path) {
    sockaddr_un address = addressOf(path);
    requireSoon(
        [&] {
            descriptor_ = newSocket();
            if (connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
                return true;
            }
            close();
            return false;
        },
        "somebody to listen on " + path);
}

MmsgClient::~MmsgClient() {
    close();
}

MmsgClient::MmsgClient(MmsgClient&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

void MmsgClient::send(const Bytes& bytes) {
    ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        failCall("send");
    }
    if (static_cast<size_t>(sent) != bytes.size()) {
        throw std::runtime_error("short send");
    }
}

Bytes MmsgClient::receive() {
    Bytes message(MMCH_SIZE);
    receiveExactly(message.data(), MMCH_SIZE);
    size_t length = headerOf(message).mmsg_length;
    if (length < MMCH_SIZE) {
        throw std::runtime_error("received a message of length " + std::to_string(length));
    }
    message.resize(length);
    receiveExactly(message.data() + MMCH_SIZE, length - MMCH_SIZE);
    return message;
}

Bytes MmsgClient::receivePiece() {
    waitForInput(descriptor_, "data");
    Bytes piece(4096);
    ssize_t received = recv(descriptor_, piece.data(), piece.size(), 0);
    if (received < 0) {
        failCall("recv");
    }
    piece.resize(static_cast<size_t>(received));
    return piece;
}

void MmsgClient::waitForEnd() {
    waitForInput(descriptor_, "the end of the connection");
    U8_t byte = 0;
    ssize_t received = recv(descriptor_, &byte, 1, 0);
    if (received > 0) {
        throw std::runtime_error("data instead of the end of the connection");
    }
    if (received < 0 && errno != ECONNRESET) {
        failCall("recv");
    }
}

void MmsgClient::finishSending() {
    shutdown(descriptor_, SHUT_WR);
}

void MmsgClient::close() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
}

void MmsgClient::receiveExactly(U8_t* destination, size_t length) {
    while (length > 0) {
        waitForInput(descriptor_, "a message");
        ssize_t received = recv(descriptor_, destination, length, 0);
        if (received < 0) {
            failCall("recv");
        }
        if (received == 0) {
            throw std::runtime_error("end of stream instead of a message");
        }
        destination += received;
        length -= static_cast<size_t>(received);
    }
}

MmsgListener::MmsgListener(const std::string& path) : descriptor_(newSocket()) {
    sockaddr_un address = addressOf(path);
    if (bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(descriptor_, SOMAXCONN) != 0) {
        int error = errno;
        ::close(descriptor_);
        errno = error;
        failCall("listen on " + path);
    }
}

MmsgListener::~MmsgListener() {
    ::close(descriptor_);
}

MmsgClient MmsgListener::accept() {
    waitForInput(descriptor_, "a connection");
    int accepted = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) {
        failCall("accept");
    }
    return MmsgClient(accepted);
}

} // namespace support
