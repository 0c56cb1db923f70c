#include "evfleet/blade_link.h"

#include "protocol.h"

#include <algorithm>
#include <asio/post.hpp>
#include <sys/socket.h>

namespace evfleet {
namespace {

using namespace std::chrono_literals;

// Bytes that are offered to a connection at a time, so that all blades get their turn.
constexpr std::size_t OFFERED = 65'536;

// A stalled sender that repeats a byte stays stalled for a while.
constexpr auto STALL = 250ms;

} // namespace

BladeLink::BladeLink(FleetContext& fleet, SimulatedLog log)
    : fleet_(fleet), log_(log), socket_(fleet.io), timer_(fleet.io) {}

void BladeLink::connect() {
    const auto& archiver = fleet_.archivers[fleet_.random() % fleet_.archivers.size()];
    socket_.async_connect(archiver, [this, life = ++life_](asio::error_code error) {
        if (life == life_ && !isStopped_) {
            connected(error);
        }
    });
}

void BladeLink::connected(const asio::error_code& error) {
    if (error) {
        ++fleet_.counts.failedConnects;
        reset();
        reconnectLater(fleet_.reconnect);
        return;
    }
    ++fleet_.counts.connects;
    asio::error_code ignored; // shows at the first send
    socket_.non_blocking(true, ignored);
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    log_.appendStatusRequest(rest_, handle_++);
    awaitAnswer();
    if (!sendRest()) {
        awaitRoom();
    }
}

void BladeLink::reset() {
    ++life_;
    asio::error_code ignored;
    socket_.close(ignored);
    isOpen_ = false;
    isWaitingForRoom_ = false;
    rest_.clear();
}

void BladeLink::closed() {
    ++fleet_.counts.closedByPeer;
    reset();
    reconnectLater(fleet_.reconnect);
}

void BladeLink::reconnectLater(std::chrono::milliseconds wait) {
    // Spread over half to one and a half of it: a fleet does not come back in one instant.
    const auto spread = static_cast<U64_t>(wait.count()) + 1;
    timer_.expires_after(wait / 2 + std::chrono::milliseconds(fleet_.random() % spread));
    timer_.async_wait([this, life = life_](asio::error_code error) {
        if (!error && life == life_ && !isStopped_) {
            connect();
        }
    });
}

void BladeLink::reconnectNow() {
    reset();
    connect();
}

void BladeLink::stop() {
    isStopped_ = true;
    timer_.cancel();
    reset();
}

void BladeLink::awaitAnswer() {
    socket_.async_wait(asio::ip::tcp::socket::wait_read, [this, life = life_](asio::error_code) {
        if (life != life_) {
            return;
        }
        if (receiveAnswer()) {
            awaitAnswer();
            forward();
        }
    });
}

// @return whether the link goes on
bool BladeLink::receiveAnswer() {
    U8_t buffer[evarchive::LARGEST_REQUEST];
    const int descriptor = socket_.native_handle();
    const ssize_t head = recv(descriptor, buffer, evarchive::HEADER_SIZE, MSG_DONTWAIT);
    if (head < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    if (head != static_cast<ssize_t>(evarchive::HEADER_SIZE)) {
        closed();
        return false;
    }
    const auto header = evarchive::imageOf<EmpEvArchiverMsgHeader_t>(
        evarchive::View(buffer, evarchive::HEADER_SIZE));
    const std::size_t length = header.evArchiverMsgBodyLength;
    const ssize_t body =
        length > sizeof(buffer) ? -1 : recv(descriptor, buffer, length, MSG_DONTWAIT);
    if (body != static_cast<ssize_t>(length)) {
        ++fleet_.counts.died;
        closed();
        return false;
    }
    if (header.evArchiverMsgType == EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS &&
        length == sizeof(EmpGetEvArchiverStatusMsg_t)) {
        takeStatusAnswer(buffer);
    }
    return true;
}

void BladeLink::takeStatusAnswer(const U8_t* body) {
    const auto status = evarchive::imageOf<EmpGetEvArchiverStatusMsg_t>(
        evarchive::View(body, sizeof(EmpGetEvArchiverStatusMsg_t)));
    const U32_t flag = status.evArchiverControlFlag;
    const U32_t last = status.evSequenceIdLast;
    ++fleet_.counts.handshakes;
    isOpen_ = true;
    if ((flag & EMP_E_ARCHIVER_CONTROL_NO_DATA) != 0) {
        cursor_ = log_.first() - 1;
        return;
    }
    if (last >= log_.next()) {
        ++fleet_.counts.claimsBeyond;
    }
    log_.noteClaim(last);
    cursor_ = std::clamp(last, log_.first() - 1, log_.next() - 1);
    if ((flag & EMP_E_ARCHIVER_CONTROL_CLEAR) != 0) {
        log_.clear(last);
        cursor_ = std::max(cursor_, log_.first() - 1);
    }
}

void BladeLink::logEvents(U32_t count) {
    log_.log(count);
    cursor_ = std::max(cursor_, log_.first() - 1);
    forward();
}

void BladeLink::fillScratch() {
    fleet_.scratch.clear();
    borders_.clear();
    U64_t room = untilCut_ > 0 ? untilCut_ : ~U64_t{0};
    for (U32_t id = cursor_ + 1; id < log_.next() && room > 0; ++id, --room) {
        log_.appendEventMessage(fleet_.scratch, id);
        borders_.push_back(fleet_.scratch.size());
        if (fleet_.oneByOne || fleet_.scratch.size() >= OFFERED) {
            break;
        }
    }
}

void BladeLink::forward() {
    if (!isOpen_ || isWaitingForRoom_ || cursor_ + 1 >= log_.next()) {
        return;
    }
    fillScratch();
    const ssize_t size = send(socket_.native_handle(), fleet_.scratch.data(), fleet_.scratch.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0 && errno != EAGAIN) {
        closed();
        return;
    }
    written(size < 0 ? 0 : static_cast<std::size_t>(size));
}

void BladeLink::written(std::size_t size) {
    const auto border = std::upper_bound(borders_.begin(), borders_.end(), size);
    const auto whole = static_cast<U32_t>(border - borders_.begin());
    const std::size_t wholeBytes = whole > 0 ? borders_[whole - 1] : 0;
    U32_t taken = whole;
    if (size > wholeBytes) {
        const auto end = static_cast<std::ptrdiff_t>(borders_[whole]);
        rest_.assign(fleet_.scratch.begin() + static_cast<std::ptrdiff_t>(size),
                     fleet_.scratch.begin() + end);
        ++taken;
    }
    cursor_ += taken;
    fleet_.counts.sent += taken;
    if (untilCut_ > 0 && (untilCut_ -= taken) == 0) {
        cut();
    } else if (size < fleet_.scratch.size()) {
        awaitRoom();
    } else if (cursor_ + 1 < log_.next()) {
        asio::post(fleet_.io, [this, life = life_] {
            if (life == life_) {
                forward();
            }
        });
    }
}

// @return whether nothing is left of it
bool BladeLink::sendRest() {
    if (rest_.empty()) {
        return true;
    }
    const ssize_t size =
        send(socket_.native_handle(), rest_.data(), rest_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size > 0) {
        rest_.erase(rest_.begin(), rest_.begin() + size);
    }
    return rest_.empty();
}

void BladeLink::awaitRoom() {
    if (isWaitingForRoom_) {
        return;
    }
    isWaitingForRoom_ = true;
    socket_.async_wait(asio::ip::tcp::socket::wait_write,
                       [this, life = life_](asio::error_code error) {
                           if (life != life_ || error) {
                               return;
                           }
                           isWaitingForRoom_ = false;
                           if (sendRest()) {
                               forward();
                           } else {
                               awaitRoom();
                           }
                       });
}

void BladeLink::cutAfter(U64_t events, Outage outage) {
    untilCut_ = events;
    outage_ = outage;
}

void BladeLink::cut() {
    ++fleet_.counts.outages;
    asio::error_code ignored;
    switch (outage_) {
    case Outage::CLOSE:
        sendRest();
        break;
    case Outage::RESET:
        sendHalfAMessage();
        socket_.set_option(asio::socket_base::linger(true, 0), ignored);
        break;
    case Outage::ABANDON:
        fleet_.abandoned.push_back(std::move(socket_));
        socket_ = asio::ip::tcp::socket(fleet_.io);
        break;
    case Outage::RESTART:
        // What a killed process has written still goes out, and the connection ends in order.
        sendHalfAMessage();
        handle_ = FIRST_HANDLE;
        ++fleet_.counts.restarts;
        break;
    case Outage::REPEAT_BYTE:
        repeatByte();
        return;
    }
    reset();
    reconnectLater(fleet_.reconnect);
}

void BladeLink::sendHalfAMessage() {
    log_.appendEventMessage(rest_, log_.next() - 1);
    rest_.resize(rest_.size() / 2 + 1);
    sendRest();
}

void BladeLink::repeatByte() {
    // As it goes wrong on a blade: the message looks sent, and the next one follows it.
    const U32_t id = std::min(cursor_ + 1, log_.next() - 1);
    cursor_ = id;
    Bytes message;
    log_.appendEventMessage(message, id);
    const auto place = static_cast<std::ptrdiff_t>(fleet_.random() % message.size());
    message.insert(message.begin() + place, message[static_cast<std::size_t>(place)]);
    // So long as its last byte is not there, it looks whole.
    rest_.insert(rest_.end(), message.begin(), message.end() - 1);
    sendRest();
    rest_.push_back(message.back());
    isWaitingForRoom_ = true;
    timer_.expires_after(STALL);
    timer_.async_wait([this, life = life_](asio::error_code error) {
        if (!error && life == life_) {
            isWaitingForRoom_ = false;
            awaitRoom();
        }
    });
}

void BladeLink::rebuild() {
    log_.rebuild();
    untilCut_ = 0;
    asio::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    reset();
    reconnectLater(fleet_.reconnect);
}

} // namespace evfleet
