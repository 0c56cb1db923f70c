#include "common/connection.h"

#include "common/say.h"

namespace tools {

Connection::Connection(Socket socket, std::string name, size_t queueMax, Callbacks callbacks)
    : socket_(std::move(socket)), name_(std::move(name)), queueMax_(queueMax),
      callbacks_(std::move(callbacks)) {
    socket_.non_blocking(true);
}

void Connection::start() {
    read();
}

void Connection::read() {
    std::span<U8_t> space = frames_.space();
    socket_.async_read_some(asio::buffer(space.data(), space.size()),
                            [self = shared_from_this()](std::error_code error, size_t bytes) {
                                self->frames_.commit(bytes);
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
    for (; outcome == FrameReader::Outcome::Message; outcome = frames_.next(message)) {
        callbacks_.message(*this, message);
    }
    if (outcome == FrameReader::Outcome::BadLength) {
        finish(End::BadLength, "closed, mmsg_length " + std::to_string(frames_.announcedLength()) +
                                   " is not between 64 and 4064");
    } else {
        read();
    }
}

bool Connection::send(std::span<const U8_t> message) {
    if (!canSend_) {
        return false;
    }
    if (queue_.empty()) {
        if (sendNow(message)) {
            return true;
        }
        if (!canSend_) {
            return false;
        }
        waitWritable();
    } else if (queue_.size() >= queueMax_) {
        if (dropped_++ == 0) {
            say(name_ + ": " + std::to_string(queueMax_) +
                " messages wait for it already, messages are dropped");
        }
        return false;
    }
    queue_.emplace_back(message.begin(), message.end());
    return true;
}

/** @return whether all went out; @p rest is then what did not. A local socket takes a message whole
 * or not at all, so there is a rest of another size only when its buffers are unusually small. */
bool Connection::sendNow(std::span<const U8_t>& rest) {
    std::error_code error;
    size_t sent = socket_.send(asio::buffer(rest.data(), rest.size()), 0, error);
    if (!error) {
        rest = rest.subspan(sent);
        return rest.empty();
    }
    if (error != asio::error::would_block && error != asio::error::try_again) {
        canSend_ = false;
    }
    return false;
}

void Connection::waitWritable() {
    socket_.async_wait(Socket::wait_write, [self = shared_from_this()](std::error_code error) {
        if (!error) {
            self->drain();
        }
    });
}

void Connection::drain() {
    while (canSend_ && !queue_.empty()) {
        std::span<const U8_t> rest(queue_.front());
        if (!sendNow(rest)) {
            queue_.front() = Message(rest.begin(), rest.end());
            break;
        }
        queue_.pop_front();
    }
    if (queue_.empty()) {
        sayDrops();
    } else if (canSend_) {
        waitWritable();
    }
}

void Connection::sayDrops() {
    if (dropped_ > 0) {
        say(name_ + ": " + std::to_string(dropped_) + " messages were dropped");
        dropped_ = 0;
    }
}

void Connection::finish(End end, const std::string& why) {
    canSend_ = false;
    std::error_code ignored;
    socket_.close(ignored);
    sayDrops();
    if (!why.empty()) {
        say(name_ + ": " + why);
    }
    callbacks_.end(*this, end);
}

} // namespace tools
