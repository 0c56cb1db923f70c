#include "common/message_connection.h"

#include "common/say.h"

#include <poll.h>

namespace tools {

MessageConnection::MessageConnection(Socket socket, std::string name, size_t queueMax,
                                     Callbacks callbacks)
    : Connection(std::move(socket), queue_), name_(std::move(name)), queueMax_(queueMax),
      callbacks_(std::move(callbacks)) {}

void MessageConnection::resume() {
    asio::post(executor(), [self = shared_from_this()] {
        if (self->isOpen() && self->takeMessages()) {
            self->read();
        }
    });
}

void MessageConnection::close(const std::string& why) {
    finish(End::GivenUp, why);
}

bool MessageConnection::received(size_t bytes) {
    frames_.commit(bytes);
    return takeMessages();
}

void MessageConnection::peerEnded(std::error_code why) {
    if (frames_.pending() > 0) {
        finish(End::Broken, "ended in the middle of a message, after " +
                                std::to_string(frames_.pending()) + " bytes of it");
    } else if (why == asio::error::eof || why == asio::error::connection_reset) {
        finish(End::Closed, "");
    } else {
        finish(End::Failed, "closed, " + why.message());
    }
}

/** @return whether more may come */
bool MessageConnection::takeMessages() {
    std::span<U8_t> message;
    FrameReader::Outcome outcome = frames_.next(message);
    bool taken = true;
    for (; outcome == FrameReader::Outcome::Message; outcome = frames_.next(message)) {
        taken = callbacks_.message(*this, message);
        if (!taken) {
            frames_.putBack(message);
            break;
        }
    }
    if (callbacks_.batch) {
        callbacks_.batch();
    }
    if (outcome == FrameReader::Outcome::BadLength) {
        finish(End::BadLength, "closed, mmsg_length " + std::to_string(frames_.announcedLength()) +
                                   " is not between 64 and 4064");
    }
    return taken;
}

bool MessageConnection::hasRoom() {
    if (queue_.count() >= queueMax_) {
        flush();
    }
    return canSend() && queue_.count() < queueMax_;
}

bool MessageConnection::post(std::span<const U8_t> message) {
    if (hasRoom()) {
        queue_.push(message);
        return true;
    }
    if (canSend() && dropped_++ == 0) {
        say(name_ + ": " + std::to_string(queueMax_) +
            " messages wait for it already, messages are dropped");
    }
    return false;
}

bool MessageConnection::send(std::span<const U8_t> message) {
    bool taken = post(message);
    flush();
    return taken && canSend();
}

void MessageConnection::flushed(Outgoing::State state) {
    if (state == Outgoing::State::EMPTY) {
        sayDrops();
    }
}

void MessageConnection::writable() {
    size_t before = queue_.count();
    Connection::writable();
    if (queue_.count() < before && callbacks_.progress) {
        callbacks_.progress(*this);
    }
}

bool MessageConnection::peerIsGone() {
    struct pollfd entry {
        .fd = descriptor(), .events = 0, .revents = 0
    };
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

void MessageConnection::sayDrops() {
    if (dropped_ > 0) {
        say(name_ + ": " + std::to_string(dropped_) + " messages were dropped");
        dropped_ = 0;
    }
}

void MessageConnection::finish(End end, const std::string& why) {
    Connection::close();
    sayDrops();
    if (!why.empty()) {
        say(name_ + ": " + why);
    }
    callbacks_.end(*this, end);
}

} // namespace tools
