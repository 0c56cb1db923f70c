#include "session.h"

namespace evarchive {

Session::Session(Archive& archive, SessionCounts& counts, std::string peer, Answer answer, Say say,
                 U64_t closeAfter)
    : archive_(archive), counts_(counts), peer_(std::move(peer)), answer_(std::move(answer)),
      say_(std::move(say)), closeAfter_(closeAfter) {}

Verdict Session::receive(View bytes) {
    input_.insert(input_.end(), bytes.begin(), bytes.end());
    std::size_t used = 0;
    Verdict verdict = Verdict::GO_ON;
    while (verdict == Verdict::GO_ON) {
        const View rest = View(input_).subspan(used);
        if (hasBorderBehind(rest)) {
            verdict = settle();
        }
        const Judgement judgement = judgeBorder(rest);
        if (judgement.border == Border::LOST) {
            return giveUp(judgement.reason);
        }
        if (judgement.border == Border::MORE || verdict == Verdict::CLOSE) {
            break;
        }
        const View request = rest.first(judgement.size);
        const Judgement next = judgeBorder(rest.subspan(judgement.size));
        if (next.border == Border::LOST) {
            // The request is not what it seems either.
            keepEvent(request);
            return giveUp(next.reason);
        }
        used += judgement.size;
        verdict = take(request);
    }
    input_.erase(input_.begin(), verdict == Verdict::CLOSE
                                     ? input_.end()
                                     : input_.begin() + static_cast<std::ptrdiff_t>(used));
    return verdict;
}

bool Session::hasBorderBehind(View rest) const {
    return event_ && rest.size() >= BORDER_SIZE &&
           judgeBorder(rest.first(BORDER_SIZE)).border != Border::LOST;
}

Verdict Session::take(View request) {
    ++counts_.messages;
    ++messages_;
    switch (typeOf(request)) {
    case EMP_E_MSGS_LOG:
        keepEvent(request);
        break;
    case EMP_E_MSGS_INQUIRY:
        takeInquiry(request);
        break;
    default:
        takeStatusRequest(request);
        break;
    }
    if (messages_ == closeAfter_) {
        settle();
        say_(peer_ + ": closed after " + std::to_string(messages_) + " messages, as asked");
        return Verdict::CLOSE;
    }
    return Verdict::GO_ON;
}

void Session::keepEvent(View request) {
    if (typeOf(request) == EMP_E_MSGS_LOG) {
        const View body = bodyOf(request);
        event_ = Bytes(body.begin(), body.end());
    }
}

Verdict Session::idle() {
    // A few bytes behind the event may yet turn out to be no header.
    return input_.empty() ? settle() : Verdict::GO_ON;
}

Verdict Session::settle() {
    if (!event_) {
        return Verdict::GO_ON;
    }
    const Bytes body = std::move(*event_);
    event_.reset();
    const Filed filed = archive_.fileEvent(blade_ ? &*blade_ : nullptr, body);
    return filed == Filed::REFUSED ? Verdict::CLOSE : Verdict::GO_ON;
}

void Session::takeInquiry(View request) {
    const auto inquiry = imageOf<EmpEvInquiryMsg_t>(bodyOf(request));
    const auto event = archive_.answerInquiry(inquiry);
    answer_(event ? makeEventAnswer(handleOf(request), event->image)
                  : makeNothingFoundAnswer(handleOf(request), inquiry));
}

void Session::takeStatusRequest(View request) {
    const auto status = imageOf<EmpGetEvArchiverStatusMsg_t>(bodyOf(request));
    blade_ = bladeOf(status);
    const StatusVerdict verdict = archive_.answerStatus(status);
    say_(peer_ + ": " + nameOf(*blade_) + " instance " +
         std::to_string(U32_t{status.evInstanceNumber}) + " from id " +
         std::to_string(U32_t{status.evSequenceIdFirst}) +
         ((verdict.controlFlag & EMP_E_ARCHIVER_CONTROL_NO_DATA) != 0
              ? ", nothing of it held"
              : ", held to id " + std::to_string(verdict.sequenceIdLast)));
    answer_(
        makeStatusAnswer(handleOf(request), status, verdict.sequenceIdLast, verdict.controlFlag));
}

Verdict Session::giveUp(const char* reason) {
    ++counts_.bordersLost;
    std::string line = peer_ + ": the stream has lost its message borders (" + reason + ")";
    if (event_) {
        ++counts_.givenUp;
        const auto header = imageOf<EmpEvLogHeader_t>(*event_);
        line += ", event with id " + std::to_string(U32_t{header.evSequenceId}) + " given up";
        event_.reset();
    }
    input_.clear();
    say_(line + ", closed");
    return Verdict::CLOSE;
}

void Session::end() {
    if (!input_.empty() && event_) {
        // Too little came behind the event to tell a border from a stray byte.
        say_(peer_ + ": ended within a message, the event before it is given up");
        ++counts_.givenUp;
        event_.reset();
    } else if (!input_.empty()) {
        say_(peer_ + ": ended within a message");
    }
    settle();
}

} // namespace evarchive
