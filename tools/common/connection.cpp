#include "common/connection.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace tools {
namespace {

// Between two looks whether something can go out, where nothing tells.
constexpr std::chrono::microseconds FIRST_DELAY{500};
constexpr std::chrono::microseconds LONGEST_DELAY{50'000};

bool isForNow(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

Connection::Connection(Stream socket, Outgoing& outgoing)
    : socket_(std::move(socket)), outgoing_(outgoing) {
    socket_.non_blocking(true);
}

void Connection::read() {
    if (isReading_ || !isOpen_) {
        return;
    }
    isReading_ = true;
    socket_.async_wait(Stream::wait_read, [self = shared_from_this()](std::error_code error) {
        self->isReading_ = false;
        if (!self->isOpen_) {
            return;
        }
        if (error) {
            self->lost(error);
        } else {
            self->receive();
        }
    });
}

void Connection::receive() {
    const std::span<U8_t> place = space();
    const ssize_t size = recv(descriptor(), place.data(), place.size(), MSG_DONTWAIT);
    if (size > 0) {
        if (isEnding_ || received(static_cast<std::size_t>(size))) {
            read();
        }
    } else if (size < 0 && isForNow(errno)) {
        read();
    } else {
        lost(size == 0 ? make_error_code(asio::error::eof)
                       : std::error_code(errno, std::system_category()));
    }
}

void Connection::lost(std::error_code why) {
    if (isEnding_) {
        close();
    } else {
        peerEnded(why);
    }
}

void Connection::flush() {
    if (!isWaiting_ && canSend()) {
        send();
    }
}

void Connection::send() {
    const std::size_t before = outgoing_.bytes();
    const Outgoing::State state = outgoing_.flush(descriptor());
    if (outgoing_.bytes() != before) {
        delay_ = FIRST_DELAY;
    }
    canSend_ = state != Outgoing::State::BROKEN;
    if (state == Outgoing::State::FULL) {
        waitWritable();
    } else if (state == Outgoing::State::LATER) {
        waitAWhile();
    }
    flushed(state);
    finishEnd();
}

void Connection::waitWritable() {
    isWaiting_ = true;
    socket_.async_wait(Stream::wait_write, [self = shared_from_this()](std::error_code error) {
        self->isWaiting_ = false;
        if (!error && self->canSend()) {
            self->writable();
        }
    });
}

void Connection::writable() {
    send();
}

void Connection::waitAWhile() {
    if (!timer_) {
        timer_ = std::make_unique<asio::steady_timer>(executor());
    }
    isWaiting_ = true;
    delay_ = std::clamp(delay_ * 2, FIRST_DELAY, LONGEST_DELAY);
    timer_->expires_after(delay_);
    timer_->async_wait([self = shared_from_this()](std::error_code error) {
        self->isWaiting_ = false;
        if (!error && self->canSend()) {
            self->send();
        }
    });
}

void Connection::endInOrder() {
    if (isEnding_ || !isOpen_) {
        return;
    }
    isEnding_ = true;
    finishEnd();
    read();
}

// Tells the peer once everything has gone out.
void Connection::finishEnd() {
    if (isEnding_ && isOpen_ && !isWaiting_ && (outgoing_.bytes() == 0 || !canSend_)) {
        std::error_code gone;
        socket_.shutdown(Stream::shutdown_send, gone);
    }
}

void Connection::close() {
    if (!isOpen_) {
        return;
    }
    isOpen_ = false;
    timer_.reset();
    std::error_code ignored;
    socket_.close(ignored);
    closed();
}

} // namespace tools
