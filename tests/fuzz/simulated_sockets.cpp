// The event manager's calls on its two sockets.
#include "simulated_blade.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

namespace fuzz {
[[noreturn]] void leave(int how);
}

using fuzz::ArchiverLink;
using fuzz::Blade;
using fuzz::running;

namespace {

using Descriptor = Blade::Descriptor;

constexpr int INPUT_OVER = 1;
constexpr size_t MMCH_BYTES = 64;
constexpr ssize_t ARCHIVER_HEADER_BYTES = 16;

int failed(int error) {
    errno = error;
    return -1;
}

unsigned halfAt(const void* bytes, size_t offset) {
    const auto* at = static_cast<const std::uint8_t*>(bytes) + offset;
    return static_cast<unsigned>(at[0]) << 8 | at[1];
}

std::uint32_t wordAt(const void* bytes, size_t offset) {
    return static_cast<std::uint32_t>(halfAt(bytes, offset)) << 16 | halfAt(bytes, offset + 2);
}

/** Gives the front of a queue. */
ssize_t give(std::deque<std::uint8_t>& queue, void* to, size_t length, int flags) {
    length = std::min(length, queue.size());
    auto end = queue.begin() + static_cast<std::ptrdiff_t>(length);
    std::copy(queue.begin(), end, static_cast<std::uint8_t*>(to));
    if ((flags & MSG_PEEK) == 0) {
        queue.erase(queue.begin(), end);
    }
    return static_cast<ssize_t>(length);
}

ssize_t receiveFromSwitch(void* to, size_t length, int flags) {
    if (running->toManager.empty() && (flags & MSG_DONTWAIT) != 0) {
        return failed(EAGAIN);
    }
    while (running->toManager.empty()) {
        running->silentPasses = 0; // a receive that waits ends with bytes only
        if (!running->idle(*running)) {
            fuzz::leave(INPUT_OVER);
        }
    }
    if (running->pieceSize != 0) {
        length = std::min(length, running->pieceSize);
    }
    return give(running->toManager, to, length, flags);
}

ssize_t receiveFromArchiver(void* to, size_t length, int flags) {
    ArchiverLink& link = running->archiver;
    if (!link.toManager.empty() && link.state == ArchiverLink::CONNECTED) {
        return give(link.toManager, to, length, flags);
    }
    switch (link.state) {
    case ArchiverLink::CONNECTED:
        return failed(EAGAIN);
    case ArchiverLink::CLOSED:
        return 0;
    case ArchiverLink::RESET:
        link.state = ArchiverLink::CLOSED;
        return failed(ECONNRESET);
    default:
        return failed(ENOTCONN);
    }
}

/** Whatever goes to the switch is whole messages, each as long as it states. */
ssize_t sendToSwitch(const void* from, size_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(from);
    for (size_t at = 0; at < length;) {
        size_t left = length - at;
        size_t stated = left < MMCH_BYTES ? 0 : halfAt(bytes, at + 10);
        fuzz::expect(stated >= MMCH_BYTES && stated <= MMSG_MAX_LENGTH && stated <= left,
                     "a message to the switch is cut, too short or too long");
        at += stated;
    }
    return static_cast<ssize_t>(length);
}

ssize_t sendToArchiver(const void* from, size_t length) {
    ArchiverLink& link = running->archiver;
    if (link.state != ArchiverLink::CONNECTED) {
        return failed(EPIPE);
    }
    if (static_cast<ssize_t>(length) >= ARCHIVER_HEADER_BYTES && halfAt(from, 0) == 1) {
        std::uint32_t& handle = halfAt(from, 4) == 6 ? link.statusHandle : link.inquiryHandle;
        handle = wordAt(from, 12);
    }
    if (link.room == 0) {
        running->disturbed = true;
        return failed(EAGAIN);
    }
    length = std::min<size_t>(length, link.room);
    if (link.room != 0xFFFFFFFF) {
        link.room -= static_cast<std::uint32_t>(length);
    }
    return static_cast<ssize_t>(length);
}

bool archiverReadable() {
    const ArchiverLink& link = running->archiver;
    return link.state == ArchiverLink::CLOSED || link.state == ArchiverLink::RESET ||
           (link.state == ArchiverLink::CONNECTED && !link.toManager.empty());
}

bool archiverWritable() {
    return running->archiver.state != ArchiverLink::CONNECTING &&
           running->archiver.state != ArchiverLink::NONE;
}

/** Leaves in the sets what is ready. @return how many descriptors */
int answerSets(int count, fd_set* reading, fd_set* writing) {
    int ready = 0;
    for (int fd = 0; fd < count; fd++) {
        bool asked = FD_ISSET(fd, reading) || FD_ISSET(fd, writing);
        if (!asked) {
            continue;
        }
        const Descriptor* descriptor = running->descriptor(fd);
        fuzz::expect(descriptor != nullptr, "select() of a descriptor that is not open");
        bool isSwitch = descriptor->kind == Descriptor::SWITCH;
        if (isSwitch ? running->toManager.empty() : !archiverReadable()) {
            FD_CLR(fd, reading);
        }
        if (isSwitch || !archiverWritable()) {
            FD_CLR(fd, writing);
        }
        ready += FD_ISSET(fd, reading) + FD_ISSET(fd, writing);
    }
    return ready;
}

} // namespace

extern "C" {

int simulated_socket(int domain, int /*type*/, int /*protocol*/) {
    if (running->fails()) {
        return -1;
    }
    if (domain == AF_UNIX) {
        return running->newDescriptor({.kind = Descriptor::SWITCH});
    }
    bool atOnce = running->archiver.connectsAtOnce;
    running->archiver = {};
    running->archiver.connectsAtOnce = atOnce;
    return running->newDescriptor({.kind = Descriptor::ARCHIVER});
}

int simulated_connect(int fd, const struct sockaddr* /*address*/, socklen_t /*length*/) {
    if (running->fails()) {
        return -1;
    }
    Descriptor* descriptor = running->descriptor(fd);
    if (descriptor == nullptr || descriptor->kind == Descriptor::SWITCH) {
        return descriptor == nullptr ? -1 : 0;
    }
    if (running->archiver.connectsAtOnce) {
        running->archiver.state = ArchiverLink::CONNECTED;
        return 0;
    }
    running->archiver.state = ArchiverLink::CONNECTING;
    return failed(EINPROGRESS);
}

int simulated_getsockopt(int /*fd*/, int /*level*/, int option, void* value,
                         socklen_t* /*length*/) {
    int answer = 212'992;
    if (option == SO_ERROR) {
        answer = running->archiver.state == ArchiverLink::REFUSED ? ECONNREFUSED : 0;
    }
    std::memcpy(value, &answer, sizeof(answer));
    return 0;
}

int simulated_fcntl(int /*fd*/, int /*command*/, ...) {
    return 0;
}

ssize_t simulated_recv(int fd, void* to, size_t length, int flags) {
    if (running->fails()) {
        return -1;
    }
    const Descriptor* descriptor = running->descriptor(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    return descriptor->kind == Descriptor::SWITCH ? receiveFromSwitch(to, length, flags)
                                                  : receiveFromArchiver(to, length, flags);
}

ssize_t simulated_send(int fd, const void* from, size_t length, int /*flags*/) {
    if (running->fails()) {
        return -1;
    }
    const Descriptor* descriptor = running->descriptor(fd);
    if (descriptor == nullptr) {
        return -1;
    }
    return descriptor->kind == Descriptor::SWITCH ? sendToSwitch(from, length)
                                                  : sendToArchiver(from, length);
}

int simulated_select(int count, fd_set* reading, fd_set* writing, fd_set* /*exceptions*/,
                     struct timeval* timeout) {
    if (running->fails()) {
        return -1;
    }
    bool waits = timeout->tv_sec != 0 || timeout->tv_usec != 0;
    for (;;) {
        fd_set wantedReading = *reading;
        fd_set wantedWriting = *writing;
        int ready = answerSets(count, &wantedReading, &wantedWriting);
        if (ready == 0 && waits && running->silentPasses == 0 && !running->somethingIsReady()) {
            fuzz::leave(INPUT_OVER);
        }
        if (ready == 0 && waits && running->silentPasses == 0) {
            continue; // something has happened
        }
        if (ready == 0 && waits) {
            running->silentPasses--;
        }
        *reading = wantedReading;
        *writing = wantedWriting;
        return ready;
    }
}

int simulated_poll(struct pollfd* /*descriptors*/, nfds_t /*count*/, int /*timeout*/) {
    return 1;
}
}
