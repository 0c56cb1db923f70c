#include "common/connection.h"

#include "common/say.h"

#include <poll.h>

namespace tools {

Connection::Connection(Socket socket, std::string name, size_t queueMax, Callbacks callbacks)
    : socket_(std::move(socket)), name_(std::move(name)), queueMax_(queueMax),
      callbacks_(std::move(callbacks)) {
    socket_.non_blocking(true);
}

void Connection::start() {
    read();
}

void Connection::resume() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] {
        if (self->open_) {
            self->takeMessages();
        }
    });
}

void Connection::close(const std::string& why) {
    finish(End::GivenUp, why);
}

void Connection::read() {
    std::span<U8_t> space = frames_.space();
    socket_.async_read_some(asio::buffer(space.data(), space.size()),
                            [self = shared_from_this()](std::error_code error, size_t bytes) {
                                self->frames_.commit(bytes);
                                if (!self->open_) {
                                    return;
                                }
                                if (error) {
                                    self->endOfStream(error);
                                } else {
                                    self->takeMessages();
                                }
                            });
}

void Connection::endOfStream(std::error_code error) {
    if (frames_.pending() > 0) {
        finish(End::Broken, "ended in the middle of a message, after " +
                                std::to_string(frames_.pending()) + " bytes of it");
    } else if (error == asio::error::eof || error == asio::error::connection_reset) {
        finish(End::Closed, "");
    } else {
        finish(End::Failed, "closed, " + error.message());
    }
}

void Connection::takeMessages() {
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
    } else if (taken) {
        read();
    }
}

bool Connection::hasRoom() {
    if (queue_.count() >= queueMax_) {
        flush();
    }
    return canSend_ && queue_.count() < queueMax_;
}

bool Connection::post(std::span<const U8_t> message) {
    if (hasRoom()) {
        queue_.push(message);
        return true;
    }
    if (canSend_ && dropped_++ == 0) {
        say(name_ + ": " + std::to_string(queueMax_) +
            " messages wait for it already, messages are dropped");
    }
    return false;
}

void Connection::flush() {
    if (!waiting_) {
        sendAll();
    }
}

bool Connection::send(std::span<const U8_t> message) {
    bool taken = post(message);
    flush();
    return taken && canSend_;
}

void Connection::sendAll() {
    while (canSend_ && !queue_.empty() && sendPiece()) {
    }
    if (queue_.empty()) {
        sayDrops();
    } else if (canSend_) {
        waitWritable();
    }
}

/** @return false when the peer takes nothing now, or never again */
bool Connection::sendPiece() {
    std::span<const U8_t> piece = queue_.piece();
    std::error_code error;
    size_t sent = socket_.send(asio::buffer(piece.data(), piece.size()), 0, error);
    if (error) {
        canSend_ = error == asio::error::would_block || error == asio::error::try_again;
        return false;
    }
    queue_.sent(sent);
    return true;
}

void Connection::waitWritable() {
    waiting_ = true;
    socket_.async_wait(Socket::wait_write, [self = shared_from_this()](std::error_code error) {
        self->waiting_ = false;
        if (error) {
            return;
        }
        size_t before = self->queue_.count();
        self->sendAll();
        if (self->queue_.count() < before && self->callbacks_.progress) {
            self->callbacks_.progress(*self);
        }
    });
}

bool Connection::peerIsGone() {
    struct pollfd entry {
        .fd = socket_.native_handle(), .events = 0, .revents = 0
    };
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

void Connection::sayDrops() {
    if (dropped_ > 0) {
        say(name_ + ": " + std::to_string(dropped_) + " messages were dropped");
        dropped_ = 0;
    }
}

void Connection::finish(End end, const std::string& why) {
    canSend_ = false;
    open_ = false;
    std::error_code ignored;
    socket_.close(ignored);
    sayDrops();
    if (!why.empty()) {
        say(name_ + ": " + why);
    }
    callbacks_.end(*this, end);
}

} // namespace tools
