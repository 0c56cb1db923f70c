#include "channel.h"

#include "endpoint_text.h"
#include "sink.h"

#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <unistd.h>

namespace evbridge {
namespace {

using evgate::Step;
using std::chrono::milliseconds;

// A TLS server that refuses our certificate says so only after our own part is done. What it says
// when it takes it, usually a ticket, comes at once.
constexpr milliseconds VERDICT_TIME{3000};

Step stepOfError() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? Step::WRITABLE
                                                                     : Step::FAILED;
}

} // namespace

Place unixPlace(const std::string& path) {
    Place place;
    auto& address = reinterpret_cast<sockaddr_un&>(place.address);
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        throw std::invalid_argument("'" + path + "' is no path of a socket");
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    place.length = sizeof(address);
    place.text = path;
    return place;
}

Place inetPlace(const std::string& text, int type) {
    const auto endpoint = evarchive::endpointOf(text, asio::ip::address_v4::loopback());
    if (endpoint.port() == 0) {
        throw std::invalid_argument("port 0 is nobody's");
    }
    Place place;
    place.family = endpoint.protocol().family();
    place.type = type;
    memcpy(&place.address, endpoint.data(), endpoint.size());
    place.length = static_cast<socklen_t>(endpoint.size());
    place.text = evarchive::textOfEndpoint(endpoint);
    place.host = endpoint.address().to_string();
    return place;
}

Channel::Channel(Place place, const evgate::TlsFiles& files) : place_(std::move(place)) {
    context_.emplace(evgate::TlsSide::CLIENT, files);
}

bool Channel::bringUp() {
    if (isUp()) {
        return false;
    }
    connect();
    if (context_) {
        tls_.emplace(*context_, descriptor_, place_.tlsName.empty() ? place_.host : place_.tlsName);
        shakeHands();
    }
    return true;
}

void Channel::connect() {
    descriptor_ = socket(place_.family, place_.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (::connect(descriptor_, reinterpret_cast<const sockaddr*>(&place_.address), place_.length) ==
        0) {
        return;
    }
    if (errno != EINPROGRESS) {
        fail(strerror(errno));
    }
    await(Step::WRITABLE, Clock::now() + PATIENCE);
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        fail(strerror(error));
    }
}

void Channel::shakeHands() {
    const auto end = Clock::now() + PATIENCE;
    for (Step step = tls_->handshake(); step != Step::DONE; step = tls_->handshake()) {
        await(step, end);
    }
    if (isReadableWithin(VERDICT_TIME)) {
        U8_t byte = 0;
        std::size_t size = 0;
        const Step step = readOnce({&byte, 1}, size);
        if (step == Step::DONE) {
            fail("it speaks before it is spoken to");
        }
        failOf(step);
    }
}

bool Channel::put(std::string_view bytes) {
    auto end = Clock::now() + PATIENCE;
    while (!bytes.empty()) {
        std::size_t size = 0;
        const Step step = writeOnce(bytes, size);
        if (step == Step::DONE) {
            bytes.remove_prefix(size);
            end = Clock::now() + PATIENCE;
        } else if (step == Step::FAILED && !tls_ && errno == EMSGSIZE) {
            return false;
        } else {
            await(step, end);
        }
    }
    return true;
}

std::string Channel::take(milliseconds patience) {
    const auto end = Clock::now() + patience;
    U8_t space[4096];
    std::size_t size = 0;
    for (Step step = readOnce(space, size); step != Step::DONE; step = readOnce(space, size)) {
        await(step, end);
    }
    return {reinterpret_cast<const char*>(space), size};
}

// The receiver's system has it all, and the receiver is still there.
void Channel::awaitAcknowledgement() {
    const auto end = Clock::now() + PATIENCE;
    int unacknowledged = 0;
    while (ioctl(descriptor_, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0) {
        if (Clock::now() > end) {
            fail("it takes nothing");
        }
        pollfd broken{descriptor_, 0, 0}; // of a broken one it is never all acknowledged
        if (poll(&broken, 1, 1) == 1) {
            fail("it has broken the connection");
        }
    }
    U8_t space[512];
    std::size_t size = 0;
    Step step = Step::DONE;
    while (step == Step::DONE) { // a receiver that speaks all the same is not listened to
        step = readOnce(space, size);
    }
    failOf(step);
}

Step Channel::writeOnce(std::string_view bytes, std::size_t& size) {
    const auto* data = reinterpret_cast<const U8_t*>(bytes.data());
    if (tls_) {
        return tls_->write({data, bytes.size()}, size);
    }
    const ssize_t sent = send(descriptor_, data, bytes.size(), MSG_NOSIGNAL);
    size = sent < 0 ? 0 : static_cast<std::size_t>(sent);
    return sent < 0 ? stepOfError() : Step::DONE;
}

Step Channel::readOnce(std::span<U8_t> space, std::size_t& size) {
    if (tls_) {
        return tls_->read(space, size);
    }
    const ssize_t got = recv(descriptor_, space.data(), space.size(), MSG_DONTWAIT);
    size = got < 0 ? 0 : static_cast<std::size_t>(got);
    if (got == 0) {
        return Step::END;
    }
    const Step step = got < 0 ? stepOfError() : Step::DONE;
    return step == Step::WRITABLE ? Step::READABLE : step;
}

// Until the step can go on.
void Channel::await(Step step, Clock::time_point end) {
    failOf(step);
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    pollfd ready{descriptor_, static_cast<short>(step == Step::READABLE ? POLLIN : POLLOUT), 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) {
        fail(step == Step::READABLE ? "it does not answer" : "it takes nothing");
    }
}

bool Channel::isReadableWithin(milliseconds time) const {
    pollfd ready{descriptor_, POLLIN, 0};
    return poll(&ready, 1, static_cast<int>(time.count())) == 1;
}

void Channel::failOf(Step step) {
    if (step == Step::END) {
        fail("it has closed the connection");
    }
    if (step == Step::FAILED) {
        fail(tls_ ? "no TLS link: " + tls_->failure() : strerror(errno));
    }
}

void Channel::fail(const std::string& why) {
    drop();
    throw SinkAway(place_.text + ": " + why);
}

void Channel::drop() {
    if (tls_) {
        tls_->finish();
        tls_.reset();
    }
    if (descriptor_ >= 0) {
        close(descriptor_);
        descriptor_ = -1;
    }
}

} // namespace evbridge
