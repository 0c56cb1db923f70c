#include "common/out_queue.h"

#include "common/frame.h"

#include <cerrno>
#include <sys/socket.h>

namespace tools {
namespace {

/** What a queue that has run empty keeps for the next messages. */
constexpr size_t MEMORY_KEPT = size_t{64} * 1024;

} // namespace

void OutQueue::push(std::span<const U8_t> message) {
    bytes_.insert(bytes_.end(), message.begin(), message.end());
    ++count_;
}

void OutQueue::append(OutQueue& other) {
    bytes_.insert(bytes_.end(), other.bytes_.begin() + static_cast<std::ptrdiff_t>(other.begin_),
                  other.bytes_.end());
    count_ += other.count_;
    other = OutQueue();
}

std::span<const U8_t> OutQueue::piece() const {
    size_t from = begin_ + firstSent_;
    size_t to = begin_;
    do {
        to += lengthAt(to);
    } while (to < bytes_.size() && to + lengthAt(to) - from <= PIECE_MAX);
    return {bytes_.data() + from, to - from};
}

void OutQueue::sent(size_t bytes) {
    firstSent_ += bytes;
    while (count_ > 0 && firstSent_ >= lengthAt(begin_)) {
        size_t length = lengthAt(begin_);
        firstSent_ -= length;
        begin_ += length;
        --count_;
    }
    giveBackMemory();
}

OutQueue::State OutQueue::flush(int descriptor) {
    while (!empty()) {
        std::span<const U8_t> next = piece();
        ssize_t size = send(descriptor, next.data(), next.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size >= 0) {
            sent(static_cast<size_t>(size));
        } else if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? State::FULL : State::BROKEN;
        }
    }
    return State::EMPTY;
}

/** Moves bytes only when at least as many have gone out since the last time. */
void OutQueue::giveBackMemory() {
    if (count_ == 0) {
        bytes_.clear();
        begin_ = 0;
        if (bytes_.capacity() > MEMORY_KEPT) {
            bytes_.shrink_to_fit();
        }
    } else if (begin_ > bytes_.size() / 2) {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
    }
}

size_t OutQueue::lengthAt(size_t position) const {
    return messageLength(bytes_.data() + position);
}

} // namespace tools
