/** What goes through a link while it stands. */
#include "common/text.h"
#include "link.h"

#include <asio/post.hpp>
#include <cerrno>
#include <sys/socket.h>

namespace evgate {
namespace {

using namespace evarchive;

// Bytes of answers that wait for a blade before no further ones are read.
constexpr std::size_t OUTBOX_SIZE = 65'536;

// Between two looks whether an answer can go out.
constexpr std::chrono::microseconds FIRST_FLUSH_DELAY{500};
constexpr std::chrono::microseconds LONGEST_FLUSH_DELAY{50'000};

// Other links have their turn after so many pieces.
constexpr int PIECES_AT_A_TIME = 8;

// Of bytes that are no request: enough for the archiver to see that too, never a whole one.
constexpr std::size_t JUDGED_SIZE = HEADER_SIZE + EMP_EVENT_HEADER_SIZE - 1;

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

} // namespace

void Link::turn() {
    if (!isOpen()) {
        return;
    }
    outerNeeds_[FOR_READING] = outerNeeds_[FOR_WRITING] = false;
    for (int pieces = 0; pieces < PIECES_AT_A_TIME; ++pieces) {
        const bool toOuter = flushOuter();
        const bool fromInner = readInner();
        const bool toInner = flushInner();
        const bool fromOuter = stage_ != Stage::CLOSED && readOuter();
        if (stage_ == Stage::CLOSED) {
            return;
        }
        passEndsOn();
        if (stage_ == Stage::CLOSED) {
            return;
        }
        if (!toOuter && !fromInner && !toInner && !fromOuter) {
            awaitAll();
            return;
        }
    }
    turnLater();
}

void Link::turnLater() {
    asio::post(inner_.socket.get_executor(), [self = shared_from_this()] { self->turn(); });
}

// @return whether there may be more to do at once, as all of these
bool Link::readInner() {
    if (inner_.hasEnded || (stage_ == Stage::OPEN && !toOuter_.empty())) {
        return false;
    }
    const std::span<U8_t> buffer = host_.receiveBuffer();
    const ssize_t size =
        recv(inner_.socket.native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && wouldBlock()) {
        return false;
    }
    if (size < 0) {
        innerFailed();
    } else if (size == 0) {
        inner_.hasEnded = true;
    } else if (stage_ == Stage::OPEN) {
        takeFromInner(View(buffer).first(static_cast<std::size_t>(size)));
    }
    return true;
}

void Link::takeFromInner(View bytes) {
    toOuter_.assign(bytes.begin(), bytes.end());
    if (isSite() && requests_.lost() == nullptr) {
        // What is no request is the archiver's to judge.
        requests_.receive(bytes, [this](View request) {
            asked_.note(request);
            ++host_.counts().requests;
            return true;
        });
    }
}

// @return whether TLS has to wait for its socket before the step can be tried again
bool Link::mustWait(Step step) {
    outerNeeds_[FOR_READING] = outerNeeds_[FOR_READING] || step == Step::READABLE;
    outerNeeds_[FOR_WRITING] = outerNeeds_[FOR_WRITING] || step == Step::WRITABLE;
    return step == Step::READABLE || step == Step::WRITABLE;
}

bool Link::flushOuter() {
    if (toOuter_.empty()) {
        return false;
    }
    std::size_t size = 0;
    const Step step = tls_->write(toOuter_, size);
    if (mustWait(step)) {
        return false;
    }
    if (step == Step::DONE) {
        toOuter_.erase(toOuter_.begin(), toOuter_.begin() + static_cast<std::ptrdiff_t>(size));
    } else {
        outerFailed();
    }
    return true;
}

bool Link::hasRoomForOuter() const {
    return stage_ == Stage::ENDING || (isSite() ? outbox_.bytes() < OUTBOX_SIZE : toInner_.empty());
}

bool Link::readOuter() {
    if (outer_.hasEnded || !hasRoomForOuter()) {
        return false;
    }
    const std::span<U8_t> buffer = host_.receiveBuffer();
    std::size_t size = 0;
    const Step step = tls_->read(buffer, size);
    if (mustWait(step)) {
        return false;
    }
    if (step == Step::END) {
        outerEnded();
    } else if (step == Step::FAILED) {
        outerFailed();
    } else if (stage_ == Stage::OPEN) {
        takeFromOuter(View(buffer).first(size));
    }
    return true;
}

void Link::takeFromOuter(View bytes) {
    if (isSite()) {
        const bool goesOn = answers_.receive(bytes, [this](View answer) {
            ++host_.counts().answers;
            if (outbox_.bytes() == 0) {
                taken_ = Clock::now();
            }
            outbox_.add(asked_.answerOf(answer));
            return true;
        });
        if (!goesOn) {
            end(Level::WARNING,
                std::string("what comes back is no answer (") + answers_.lost() + "), closed");
        }
        return;
    }
    const bool goesOn = requests_.receive(bytes, [this](View request) { return pass(request); });
    if (!goesOn && requests_.lost() != nullptr) {
        passRest();
        end(Level::WARNING, std::string("the stream has lost its message borders (") +
                                requests_.lost() + "), closed");
    }
}

bool Link::pass(View request) {
    const auto denied = guard_.pass(request, toInner_);
    if (!denied) {
        ++host_.counts().requests;
        return true;
    }
    ++host_.counts().denied;
    end(Level::WARNING, "certificate " + certificate_ + " may not speak for enclosure '" +
                            tools::escapedUtf8(*denied) + "', closed");
    return false;
}

// The archiver shall see how the stream ended: it gives up an event that something stands behind.
void Link::passRest() {
    const View rest = requests_.rest();
    const View seen = rest.first(std::min(rest.size(), JUDGED_SIZE));
    toInner_.insert(toInner_.end(), seen.begin(), seen.end());
}

bool Link::flushInner() {
    if (isSite()) {
        if (outbox_.bytes() > 0 && !isFlushAwaited_) {
            flushAnswers();
        }
        return false;
    }
    if (toInner_.empty()) {
        return false;
    }
    const ssize_t size = send(inner_.socket.native_handle(), toInner_.data(), toInner_.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0 && wouldBlock()) {
        return false;
    }
    if (size < 0) {
        innerFailed();
        return true;
    }
    toInner_.erase(toInner_.begin(), toInner_.begin() + size);
    return true;
}

void Link::flushAnswers() {
    const std::size_t before = outbox_.bytes();
    const auto state = outbox_.flush(inner_.socket.native_handle());
    if (const auto shortened = outbox_.takeShortened(); shortened.count > 0) {
        host_.counts().shortened += shortened.count;
        host_.say(Level::WARNING, peer_ + ": an answer of " + std::to_string(shortened.length) +
                                      " bytes would arrive in pieces, " +
                                      std::to_string(shortened.longest) +
                                      " arrive whole: answered without the event");
    }
    if (outbox_.bytes() != before) {
        taken_ = Clock::now();
        flushDelay_ = FIRST_FLUSH_DELAY;
    }
    if (state == Outbox::State::LATER) {
        flushAnswersLater();
    } else if (outbox_.isTooLong()) {
        host_.say(Level::WARNING, peer_ + ": its segments are too small for any answer, closed");
        close();
    } else if (state == Outbox::State::BROKEN) {
        innerFailed();
    }
}

// TCP does not say when everything is acknowledged, so it is asked again and again.
void Link::flushAnswersLater() {
    isFlushAwaited_ = true;
    flushDelay_ = std::clamp(flushDelay_ * 2, FIRST_FLUSH_DELAY, LONGEST_FLUSH_DELAY);
    flush_.expires_after(flushDelay_);
    flush_.async_wait([self = shared_from_this()](asio::error_code error) {
        self->isFlushAwaited_ = false;
        if (!error) {
            self->turn();
        }
    });
}

} // namespace evgate
