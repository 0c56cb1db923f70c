#include "link.h"

#include "common/text.h"
#include "peer_watch.h"
#include "whole_send.h"

#include <asio/post.hpp>
#include <cerrno>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace evgate {
namespace {

using namespace evarchive;

// How long a link may take to end, and how long only one of its directions may have.
constexpr std::chrono::seconds END_TIME{5};
constexpr std::chrono::seconds HALF_CLOSED_TIME{30};

// How long answers may wait for a blade that takes none.
constexpr std::chrono::seconds UNREAD_TIME{60};

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

void sendAtOnce(int descriptor) {
    const int one = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

} // namespace

Link::Link(Socket taken, const asio::ip::tcp::endpoint& peer, U64_t number, LinkHost& host)
    : host_(host), address_(peer.address()), peer_(textOfEndpoint(peer)), number_(number),
      inner_(isSite() ? std::move(taken) : Socket(taken.get_executor())),
      outer_(isSite() ? Socket(inner_.socket.get_executor()) : std::move(taken)),
      requests_(judgeBorder), answers_(judgeAnswer), outbox_(host.options().answerLimit),
      flush_(inner_.socket.get_executor()) {}

// --- Until the link stands -----------------------------------------------------------------------

void Link::start() {
    if (isSite()) {
        inner_.socket.non_blocking(true);
        setUpWholeSending(inner_.socket.native_handle());
        watchPeer(inner_.socket.native_handle());
        connect(outer_);
        return;
    }
    outer_.socket.non_blocking(true);
    sendAtOnce(outer_.socket.native_handle());
    watchPeer(outer_.socket.native_handle());
    tls_.emplace(host_.tls(), outer_.socket.native_handle(), "");
    stage_ = Stage::SHAKING_HANDS;
    shakeHands();
}

void Link::connect(Side& side) {
    stage_ = Stage::CONNECTING;
    const auto& to = host_.options().to;
    side.socket.async_connect(to, [self = shared_from_this(), &side, &to](asio::error_code error) {
        if (self->stage_ == Stage::CLOSED) {
            return;
        }
        if (error) {
            self->fail(textOfEndpoint(to) + " cannot be reached: " + error.message());
            return;
        }
        side.socket.non_blocking(true);
        sendAtOnce(side.socket.native_handle());
        watchPeer(side.socket.native_handle());
        if (!self->isSite()) {
            self->open();
            return;
        }
        self->tls_.emplace(self->host_.tls(), side.socket.native_handle(),
                           self->host_.options().name);
        self->stage_ = Stage::SHAKING_HANDS;
        self->shakeHands();
    });
}

void Link::shakeHands() {
    switch (tls_->handshake()) {
    case Step::DONE:
        admit();
        break;
    case Step::READABLE:
        await(outer_, FOR_READING);
        break;
    case Step::WRITABLE:
        await(outer_, FOR_WRITING);
        break;
    case Step::END:
        fail("no TLS link: ended by the other side");
        break;
    default:
        fail("no TLS link: " + tls_->failure());
        break;
    }
}

// The peer is who its certificate says; may it be here?
void Link::admit() {
    const auto names = tls_->peerNames();
    certificate_ = names.empty() ? "without a name" : tools::escapedUtf8(names.front());
    validUntil_ = tls_->validUntil();
    if (const std::string why = objection(); !why.empty()) {
        fail(why);
    } else if (isSite()) {
        open();
    } else {
        connect(inner_);
    }
}

// By the files as they are now. What they allow is noted.
std::string Link::objection() {
    if (const std::string why = tls_->objection(host_.tls()); !why.empty()) {
        return "certificate " + certificate_ + " is no longer believed: " + why;
    }
    if (isSite()) {
        return "";
    }
    Rights rights = host_.rightsOf(tls_->peerNames());
    if (rights.speaks.empty()) {
        ++host_.counts().denied;
        return "certificate " + certificate_ + " may speak for no enclosure";
    }
    guard_.setRights(std::move(rights));
    return "";
}

void Link::fail(const std::string& why) {
    ++host_.counts().failed;
    host_.failed(*this, why);
    close();
}

void Link::open() {
    stage_ = Stage::OPEN;
    since_ = taken_ = Clock::now();
    ++host_.counts().links;
    host_.say(Level::INFO, peer_ + ": linked, the other end is " + certificate_);
    turn();
}

// --- While it stands -----------------------------------------------------------------------------

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

// --- Its end -------------------------------------------------------------------------------------

void Link::passEndsOn() {
    const bool isEnding = stage_ == Stage::ENDING;
    if ((inner_.hasEnded || isEnding) && toOuter_.empty() && !outer_.isFinished) {
        const Step step = tls_->finish();
        outerNeeds_[FOR_WRITING] = step == Step::WRITABLE;
        outer_.isFinished = step != Step::WRITABLE;
    }
    if ((outer_.hasEnded || isEnding) && toInner_.empty() && outbox_.bytes() == 0 &&
        !inner_.isFinished) {
        asio::error_code gone;
        inner_.socket.shutdown(Socket::shutdown_send, gone);
        inner_.isFinished = true;
    }
    if (inner_.hasEnded && outer_.hasEnded && inner_.isFinished && outer_.isFinished) {
        close();
    } else if ((inner_.hasEnded || outer_.hasEnded) && !halfClosed_) {
        halfClosed_ = Clock::now();
    }
}

void Link::outerEnded() {
    outer_.hasEnded = true;
    if (!isSite() && stage_ == Stage::OPEN) {
        passRest();
    }
}

void Link::outerFailed() {
    outerEnded();
    outer_.isFinished = true;
    toOuter_.clear();
    end(Level::NOTICE, "cut without an end (" + tls_->failure() + ")");
}

void Link::innerFailed() {
    inner_.hasEnded = true;
    inner_.isFinished = true;
    toInner_.clear();
    outbox_ = evarchive::Outbox(host_.options().answerLimit);
    end();
}

void Link::end(Level level, const std::string& why) {
    if (stage_ == Stage::OPEN) {
        host_.say(level, peer_ + ": " + why);
        end();
    }
}

void Link::end() {
    if (stage_ == Stage::OPEN) {
        stage_ = Stage::ENDING;
        since_ = Clock::now();
        turnLater();
    } else if (stage_ != Stage::ENDING) {
        close();
    }
}

void Link::close() {
    if (std::exchange(stage_, Stage::CLOSED) == Stage::CLOSED) {
        return;
    }
    flush_.cancel();
    asio::error_code ignored;
    inner_.socket.close(ignored);
    outer_.socket.close(ignored);
    host_.closed(*this);
}

void Link::checkTime(Clock::time_point now) {
    switch (stage_) {
    case Stage::CONNECTING:
    case Stage::SHAKING_HANDS:
        if (now - since_ > host_.options().wait) {
            fail(stage_ == Stage::CONNECTING ? "the connection onwards takes too long"
                                             : "the TLS handshake takes too long");
        }
        break;
    case Stage::OPEN:
        if (outbox_.bytes() > 0 && now - taken_ > UNREAD_TIME) {
            host_.say(Level::WARNING, peer_ + ": does not read its answers, closed");
            close(); // what has arrived is whole, and there is nobody to be polite to
        } else if (halfClosed_ && now - *halfClosed_ > HALF_CLOSED_TIME) {
            end();
        } else if (time(nullptr) > validUntil_) {
            end(Level::NOTICE, "certificate " + certificate_ + " has ended, closed");
        }
        break;
    case Stage::ENDING:
        if (now - since_ > END_TIME) {
            close();
        }
        break;
    default:
        break;
    }
}

// One whose handshake is not through is looked at then.
void Link::checkPeer() {
    const bool isAdmitted = stage_ == Stage::OPEN || (stage_ == Stage::CONNECTING && !isSite());
    const std::string why = isAdmitted ? objection() : "";
    if (why.empty()) {
        return;
    }
    if (stage_ == Stage::OPEN) {
        end(Level::NOTICE, why + ", closed");
    } else {
        fail(why);
    }
}

// --- Waiting -------------------------------------------------------------------------------------

void Link::awaitAll() {
    const bool isEnding = stage_ == Stage::ENDING;
    if (!inner_.hasEnded && (isEnding || toOuter_.empty())) {
        await(inner_, FOR_READING);
    }
    if (!toInner_.empty()) {
        await(inner_, FOR_WRITING);
    }
    if (!outer_.hasEnded && (hasRoomForOuter() || outerNeeds_[FOR_READING])) {
        await(outer_, FOR_READING);
    }
    if (outerNeeds_[FOR_WRITING]) {
        await(outer_, FOR_WRITING);
    }
}

void Link::await(Side& side, Direction direction) {
    if (std::exchange(side.isAwaited[direction], true)) {
        return;
    }
    const auto what = direction == FOR_READING ? Socket::wait_read : Socket::wait_write;
    side.socket.async_wait(what,
                           [self = shared_from_this(), &side, direction](asio::error_code error) {
                               side.isAwaited[direction] = false;
                               if (error || self->stage_ == Stage::CLOSED) {
                                   return;
                               }
                               if (self->stage_ == Stage::SHAKING_HANDS) {
                                   self->shakeHands();
                               } else {
                                   self->turn();
                               }
                           });
}

} // namespace evgate
