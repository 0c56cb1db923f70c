#include "link.h"

#include "peer_watch.h"
#include "whole_send.h"

#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace evarchive {
namespace {

// A handle that no blade has asked with: blades count theirs up from small numbers.
constexpr U32_t HANDLE_SPOILER = 0x80000000;

// How long nothing must have come behind an event before it is certain. A blade that was stalled
// goes on with the rest of a message after 5 s, which it counts in passes of its loop.
constexpr std::chrono::seconds CERTAIN_TIME{15};

// How long a link may take to end.
constexpr std::chrono::seconds END_TIME{5};

// How long an event manager can have an unanswered inquiry on its list, with some room.
constexpr std::chrono::seconds INQUIRY_TIME{30};

// Inquiries of which the handles are remembered: an event manager has 64 under way at most.
constexpr std::size_t INQUIRIES_OF_ONE = 128;

// Requests that wait for the archive: no blade has so many.
constexpr std::size_t REQUESTS_OF_ONE = 10'000;

// Bytes of answers that wait for one blade. It can have 64 inquiries under way.
constexpr std::size_t UNSENT_OF_ONE = 1'048'576;

// Spoils a response as the test switches ask.
void spoil(Bytes& response, const Misbehaviour& bad) {
    if (response.empty()) {
        return;
    }
    auto header = imageOf<EmpEvArchiverMsgHeader_t>(response);
    if (bad.wrongVersion) {
        header.evArchiverMsgHdrVersion = U16_t{HEADER_VERSION + 1};
    }
    if (bad.unknownHandle) {
        header.evArchiverMsgHandle = header.evArchiverMsgHandle ^ HANDLE_SPOILER;
    }
    std::ranges::copy(viewOf(header), response.begin());
}

} // namespace

Link::Link(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer, LinkNumber number,
           LinkHost& host)
    : Connection(std::move(socket), outbox_), address_(peer.address()), peer_(textOfEndpoint(peer)),
      number_(number), host_(host),
      session_(
          *this, host.counts().sessions,
          [this](Level level, const std::string& line) { say(level, line); },
          host.options().misbehaviour.closeAfter),
      outbox_(host.options().answerLimit) {}

void Link::start() {
    setUpWholeSending(descriptor());
    watchPeer(descriptor());
    if (!host_.options().misbehaviour.neverRead) {
        read();
    }
}

void Link::say(Level level, const std::string& line) {
    host_.say(level, peer_ + ": " + line);
}

bool Link::received(std::size_t bytes) {
    if (!host_.hasRoom(*this)) {
        ++host_.counts().shed;
        end();
        return false;
    }
    lastHeard_ = Clock::now();
    host_.counts().received += bytes;
    const Verdict verdict = session_.receive(View(host_.receiveBuffer()).first(bytes));
    if (!isOpen()) {
        return false;
    }
    if (verdict == Verdict::CLOSE) {
        end();
    } else if (isFlooding_) {
        end(Level::WARNING, "asks faster than it is answered, closed");
    } else if (session_.isUnsettled()) {
        host_.unsettled(*this);
    }
    return true;
}

bool Link::settle(Clock::time_point since) {
    if (!isOpen() || isEnding() || !session_.isUnsettled()) {
        return false;
    }
    if (lastHeard_ > since) {
        return true;
    }
    session_.idle();
    return false;
}

void Link::checkTime(Clock::time_point now) {
    if (!isOpen() || host_.options().misbehaviour.neverRead) {
        return;
    }
    if (isEnding()) {
        if (now - endingSince_ > END_TIME) {
            close();
        }
        return;
    }
    if (session_.messages() == 0 && now - begun_ > host_.options().firstWait) {
        end(Level::NOTICE, "said nothing, closed");
        return;
    }
    if (now - lastHeard_ > CERTAIN_TIME) {
        session_.idleForLong();
    }
    for (Awaited& awaited : awaited_) {
        if (!awaited.isLate && now - awaited.since > host_.options().answerWait) {
            giveUpWaiting(awaited);
        }
        if (!isOpen() || isEnding()) {
            return;
        }
    }
    lastHandles_.remove_if(
        [now](const auto& handle) { return now - handle.second > INQUIRY_TIME; });
}

void Link::giveUpWaiting(Awaited& awaited) {
    ++host_.counts().late;
    if (!awaited.inquiry) {
        end(Level::WARNING, "the archive does not answer, closed");
        return;
    }
    awaited.isLate = true;
    answer({emptyAnswer(awaited, EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE), {}});
}

void Link::takeEvent(View body, Certainty certainty) {
    const Batch::Kind kind = certainty == Certainty::CERTAIN  ? Batch::Kind::EVENT
                             : certainty == Certainty::SILENT ? Batch::Kind::SILENT
                                                              : Batch::Kind::ENDED;
    host_.submit(*this, kind, body, 0);
}

void Link::takeBackEvent(View body) {
    host_.submit(*this, Batch::Kind::TAKE_BACK, body, 0);
}

void Link::takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) {
    if (inquiry.evInquiryType == EMP_E_INQUIRY_TYPE_LAST) {
        lastHandles_.emplace_back(handle, lastHeard_);
        if (lastHandles_.size() > INQUIRIES_OF_ONE) {
            lastHandles_.pop_front();
        }
    }
    const U32_t ticket = await({0, handle, inquiry, lastHeard_});
    host_.submit(*this, Batch::Kind::INQUIRY, viewOf(inquiry), ticket);
}

U32_t Link::await(Awaited awaited) {
    awaited.ticket = ++lastTicket_;
    awaited_.push_back(std::move(awaited));
    if (awaited_.size() > REQUESTS_OF_ONE) {
        isFlooding_ = true;
    }
    return lastTicket_;
}

void Link::takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) {
    status_ = std::make_unique<EmpGetEvArchiverStatusMsg_t>(request);
    statusHandle_ = handle;
    blade_ = bladeOf(request);
    host_.speaks(*this, *blade_);
    const U32_t ticket = await({0, handle, {}, lastHeard_});
    host_.submit(*this, Batch::Kind::STATUS, viewOf(request), ticket);
}

void Link::deliver(Reply reply) {
    if (!isOpen() || isEnding()) {
        return;
    }
    switch (reply.kind) {
    case Reply::Kind::FULL:
        end(Level::WARNING, "the archive is full, closed");
        break;
    case Reply::Kind::SUPERSEDED:
        end(Level::NOTICE, "its blade speaks to another archiver, closed");
        break;
    case Reply::Kind::LOCKED:
        end(Level::WARNING, "its log is kept locked in the archive, closed");
        break;
    case Reply::Kind::REFUSED:
        end(Level::WARNING, "its log is refused by the archive, closed");
        break;
    case Reply::Kind::RESEND:
        if (status_ && !std::exchange(hasResent_, true)) {
            say(Level::NOTICE, "asked to send all its log again");
            answerStatus(statusHandle_, NOTHING_HELD);
        }
        break;
    default:
        takeReply(reply);
        break;
    }
}

void Link::takeReply(const Reply& reply) {
    const auto asked = std::ranges::find(awaited_, reply.ticket, &Awaited::ticket);
    if (asked == awaited_.end()) {
        return;
    }
    const Awaited awaited = std::move(*asked);
    awaited_.erase(asked);
    if (!awaited.inquiry) {
        const std::chrono::duration<double> taken = Clock::now() - awaited.since;
        host_.counts().handshakes.add(taken.count());
        answerStatus(awaited.handle, reply.verdict);
    } else if (!awaited.isLate) {
        answerInquiry(awaited, reply.event);
    }
}

void Link::answerStatus(U32_t handle, const StatusVerdict& verdict) {
    answer({makeStatusAnswer(handle, *status_, verdict.sequenceIdLast, verdict.controlFlag), {}});
}

void Link::answerInquiry(const Awaited& awaited, const std::optional<StoredEvent>& event) {
    if (!event) {
        answer({emptyAnswer(awaited, EMP_E_RESPONSE_FAILURE), {}});
    } else if (wouldStopAsker(awaited)) {
        answer({emptyAnswer(awaited, EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE), {}});
    } else {
        answer({makeEventAnswer(awaited.handle, event->image), insteadOf(awaited)});
    }
}

// The blade has the event after one of its own itself, and serves it when the archive has none.
Bytes Link::insteadOf(const Awaited& awaited) const {
    const bool canHelpItself =
        namesAsker(*awaited.inquiry) && awaited.inquiry->evInquiryType == EMP_E_INQUIRY_TYPE_NEXT;
    return emptyAnswer(awaited, canHelpItself ? EMP_E_RESPONSE_FAILURE
                                              : EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE);
}

Bytes Link::emptyAnswer(const Awaited& awaited, EMP_RESPONSE_e code) const {
    EmpEvInquiryMsg_t inquiry = *awaited.inquiry;
    if (wouldStopAsker(awaited)) {
        inquiry = {};
        inquiry.evSeqIdInquiry = awaited.inquiry->evSeqIdInquiry;
    }
    return makeEmptyAnswer(awaited.handle, inquiry, code);
}

bool Link::namesAsker(const EmpEvInquiryMsg_t& inquiry) const {
    return status_ &&
           BladeKey{textOf(inquiry.evEnclosureId), textOf(inquiry.evBladeId), inquiry.evSlotId} ==
               *blade_ &&
           inquiry.evInstanceNumber == status_->evInstanceNumber;
}

// An event manager ends when an answer about itself meets an inquiry of type LAST on its list, and
// it finds inquiries by their handles alone, which requestors choose.
bool Link::wouldStopAsker(const Awaited& awaited) const {
    return namesAsker(*awaited.inquiry) &&
           std::ranges::any_of(lastHandles_, [&awaited](const auto& handle) {
               return handle.first == awaited.handle;
           });
}

void Link::answer(Answer answer) {
    const Misbehaviour& bad = host_.options().misbehaviour;
    if (bad.onlyType != 0 && typeOf(answer.message) != bad.onlyType) {
        enqueue(std::move(answer));
        return;
    }
    spoil(answer.message, bad);
    spoil(answer.instead, bad);
    for (int time = bad.twice ? 0 : 1; time < 2; ++time) {
        if (bad.late.count() > 0) {
            sendLate(answer);
        } else {
            enqueue(answer);
        }
    }
}

void Link::sendLate(const Answer& answer) {
    auto timer =
        std::make_shared<asio::steady_timer>(executor(), host_.options().misbehaviour.late);
    timer->async_wait([this, self = shared_from_this(), timer, answer](asio::error_code error) {
        if (!error) {
            enqueue(answer);
        }
    });
}

void Link::enqueue(Answer answer) {
    if (!isOpen() || isEnding()) {
        return;
    }
    outbox_.add(std::move(answer));
    const bool isTaken = countUnsent();
    flush();
    if (isOpen() && outbox_.bytes() > 0 && (!isTaken || outbox_.bytes() > UNSENT_OF_ONE)) {
        say(Level::WARNING, "does not read its answers, closed");
        close(); // what has arrived is whole, and there is nobody to be polite to
    }
}

// @return whether so much may wait
bool Link::countUnsent() {
    const std::size_t before = std::exchange(unsent_, isOpen() ? outbox_.bytes() : 0);
    return host_.addUnsent(static_cast<std::ptrdiff_t>(unsent_) -
                           static_cast<std::ptrdiff_t>(before));
}

void Link::flushed(tools::Outgoing::State state) {
    countUnsent();
    if (const auto shortened = outbox_.takeShortened(); shortened.count > 0) {
        host_.counts().shortened += shortened.count;
        say(Level::WARNING,
            "an answer of " + std::to_string(shortened.length) + " bytes would arrive in pieces, " +
                std::to_string(shortened.longest) + " arrive whole: answered without the event");
    }
    if (state == tools::Outgoing::State::BROKEN) {
        if (outbox_.isTooLong()) {
            say(Level::WARNING, "its segments are too small for any answer, closed");
        }
        close();
    }
}

void Link::end(Level level, const std::string& why) {
    if (isOpen() && !isEnding()) {
        say(level, why);
        end();
    }
}

void Link::end() {
    if (!isOpen() || isEnding()) {
        return;
    }
    session_.end();
    endingSince_ = Clock::now();
    endInOrder();
    if (host_.options().misbehaviour.neverRead) {
        close();
    }
}

void Link::closed() {
    if (!isEnding()) {
        session_.end();
    }
    host_.submit(*this, Batch::Kind::END_OF_LINK, {}, 0);
    countUnsent();
    host_.closed(*this);
}

} // namespace evarchive
