#include "evctl/wire/session.h"

#include "common/endpoint.h"
#include "evctl/wire/stop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace evctl {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw SessionError(what + ": " + strerror(error));
}

int connectTo(const std::string& path) {
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() > tools::SOCKET_PATH_MAX) {
        throw SessionError("socket path longer than 107 bytes: " + path);
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        fail("socket", errno);
    }
    if (connect(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) {
        int error = errno;
        close(descriptor);
        fail("cannot reach the message switch at " + path, error);
    }
    return descriptor;
}

/** Time to wait for poll(): rounded up, so that a deadline is not busily waited for. */
int pollTimeout(Deadline deadline) {
    if (!deadline) {
        return -1;
    }
    auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

} // namespace

Bytes makeMessage(EMP_MESGS_TYPE_e type, U32_t requestor, size_t bodyLength) {
    Bytes message(sizeof(MMCH_t) + bodyLength);
    MMCH_t& mmch = mmchOf(message);
    mmch.message_type = MSG_E_TYPE_MMSG;
    mmch.mmch_version = 1;
    mmch.mmsg_length = static_cast<U16_t>(message.size());
    mmch.opcode.request.protocol = MMSG_E_PROTOCOL_EVENTMGR;
    mmch.opcode.request.type = type;
    mmch.requestor = static_cast<U8_t>(requestor);
    mmch.recipient_loc_bm[0] = 1U << MMSG_E_EPID_EVENTLOGMP;
    return message;
}

Session::Session(const std::string& directory, U32_t endpoint)
    : nextHandle_(static_cast<U32_t>(getpid()) << 12) {
    if (tools::endpointSocketName(endpoint).empty()) {
        throw SessionError("endpoint " + std::to_string(endpoint) + " has no socket");
    }
    descriptor_ = connectTo(tools::endpointSocketPath(directory, endpoint));
}

Session::~Session() {
    close(descriptor_);
}

/** @return false at the deadline */
bool Session::waitFor(short events, Deadline deadline, short* ready) {
    for (;;) {
        struct pollfd entries[3] = {{.fd = descriptor_, .events = events, .revents = 0},
                                    {.fd = reader_, .events = 0, .revents = 0},
                                    {.fd = Stop::descriptor(), .events = POLLIN, .revents = 0}};
        int count = poll(entries, std::size(entries), pollTimeout(deadline));
        if (count < 0 && errno != EINTR) {
            fail("poll", errno);
        }
        if (count > 0 && entries[2].revents != 0) {
            throw Stopped();
        }
        if (count > 0 && entries[1].revents != 0) {
            throw ReaderGone("nobody reads standard output any more");
        }
        if (count > 0) {
            *ready = entries[0].revents;
            return true;
        }
        if (deadline && Clock::now() >= *deadline) {
            return false;
        }
    }
}

/** Takes in what has arrived; waits if nothing has. */
void Session::takeIn() {
    U8_t piece[16 * 1024];
    ssize_t count = recv(descriptor_, piece, sizeof(piece), 0);
    if (count < 0 && errno == EINTR) {
        return;
    }
    if (count < 0) {
        fail("cannot read from the message switch", errno);
    }
    if (count == 0) {
        throw SessionError("the message switch closed the connection");
    }
    // Much is moved only when as much has been received since the last time.
    if (taken_ > input_.size() / 2) {
        input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(taken_));
        taken_ = 0;
    }
    input_.insert(input_.end(), piece, piece + count);
}

void Session::takeInArrived() {
    for (short ready = 0; waitFor(POLLIN, Clock::now(), &ready);) {
        takeIn();
    }
}

void Session::send(const Bytes& message) {
    size_t sent = 0;
    while (sent < message.size()) {
        short ready = 0;
        waitFor(POLLIN | POLLOUT, std::nullopt, &ready);
        if ((ready & POLLIN) != 0) {
            takeIn();
        }
        if ((ready & (POLLOUT | POLLERR | POLLHUP)) == 0) {
            continue;
        }
        ssize_t count = ::send(descriptor_, message.data() + sent, message.size() - sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            fail("cannot send to the message switch", errno);
        }
        sent += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
}

std::optional<Bytes> Session::nextWhole() {
    size_t available = input_.size() - taken_;
    if (available < sizeof(MMCH_t)) {
        return std::nullopt;
    }
    const U8_t* begin = input_.data() + taken_;
    size_t length = reinterpret_cast<const MMCH_t*>(begin)->mmsg_length;
    if (length < sizeof(MMCH_t)) {
        throw SessionError("a message of length " + std::to_string(length) +
                           " came, less than its header");
    }
    if (available < length) {
        return std::nullopt;
    }
    taken_ += length;
    return Bytes(begin, begin + length);
}

std::optional<Bytes> Session::receive(Deadline deadline) {
    for (;;) {
        std::optional<Bytes> message = nextWhole();
        short ready = 0;
        if (message || !waitFor(POLLIN, deadline, &ready)) {
            return message;
        }
        takeIn();
    }
}

std::optional<Bytes> Session::request(Bytes message, std::chrono::milliseconds timeout) {
    Deadline deadline = Clock::now() + timeout;
    U32_t handle = nextHandle_++;
    mmchOf(message).handle = handle;
    send(message);
    while (std::optional<Bytes> reply = receive(deadline)) {
        const MMCH_t& mmch = mmchOf(*reply);
        if ((mmch.mmsg_cont & MMSG_E_CONT_RESPONSE) != 0 && mmch.handle == handle &&
            mmch.opcode.whole == mmchOf(message).opcode.whole) {
            return reply;
        }
    }
    return std::nullopt;
}

void Session::idleUntil(Clock::time_point when) {
    while (receive(when)) {
    }
}

} // namespace evctl
