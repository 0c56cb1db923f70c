/** How a link comes to stand, and how it ends. */
#include "link.h"

#include "common/text.h"
#include "peer_watch.h"
#include "whole_send.h"

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
