#include "session.h"

namespace evarchive {
namespace {

// Enough of a stream to judge a request and the border behind it, whatever they are.
constexpr std::size_t JUDGED_SIZE = LARGEST_REQUEST + BORDER_SIZE;

Border borderAt(View bytes) {
    return judgeBorder(bytes.first(std::min(bytes.size(), BORDER_SIZE))).border;
}

bool isBorderAt(View bytes) {
    return bytes.size() >= BORDER_SIZE && borderAt(bytes) != Border::LOST;
}

} // namespace

Session::Session(Requests& requests, SessionCounts& counts, Say say, U64_t closeAfter)
    : requests_(requests), counts_(counts), say_(std::move(say)), closeAfter_(closeAfter) {}

Verdict Session::receive(View bytes) {
    Verdict verdict = Verdict::GO_ON;
    if (!input_.empty()) {
        // Only as much is copied as it takes to get through what has begun.
        const std::size_t begun = input_.size();
        const View more = bytes.first(std::min(bytes.size(), JUDGED_SIZE));
        input_.insert(input_.end(), more.begin(), more.end());
        const std::size_t used = parse(input_, verdict);
        if (verdict == Verdict::CLOSE) {
            input_.clear();
            return verdict;
        }
        if (used < begun) {
            input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(used));
            return verdict;
        }
        input_ = {}; // gives the memory back: most links are idle
        bytes = bytes.subspan(used - begun);
    }
    const std::size_t used = parse(bytes, verdict);
    const View rest = bytes.subspan(used);
    input_.assign(rest.begin(), rest.end());
    return verdict;
}

std::size_t Session::parse(View bytes, Verdict& verdict) {
    std::size_t used = 0;
    while (verdict == Verdict::GO_ON) {
        const View rest = bytes.subspan(used);
        if (atHand_ && isBorderAt(rest)) {
            settle(Certainty::CERTAIN);
        }
        const Judgement judgement = judgeBorder(rest);
        if (judgement.border == Border::LOST) {
            verdict = giveUp(judgement.reason, {});
        }
        if (judgement.border != Border::WHOLE) {
            break;
        }
        const View request = rest.first(judgement.size);
        const View behind = rest.subspan(judgement.size);
        if (const Judgement next = judgeBorder(behind.first(std::min(behind.size(), BORDER_SIZE)));
            next.border == Border::LOST) {
            // The request is not what it seems either.
            verdict = giveUp(next.reason, typeOf(request) == EMP_E_MSGS_LOG ? request : View());
            break;
        }
        used += judgement.size;
        verdict = take(request, behind);
    }
    return verdict == Verdict::CLOSE ? bytes.size() : used;
}

Verdict Session::take(View request, View behind) {
    ++counts_.messages;
    ++messages_;
    switch (typeOf(request)) {
    case EMP_E_MSGS_LOG:
        takeEvent(bodyOf(request), behind);
        break;
    case EMP_E_MSGS_INQUIRY:
        requests_.takeInquiry(handleOf(request), imageOf<EmpEvInquiryMsg_t>(bodyOf(request)));
        break;
    default:
        requests_.takeStatusRequest(handleOf(request),
                                    imageOf<EmpGetEvArchiverStatusMsg_t>(bodyOf(request)));
        break;
    }
    if (messages_ == closeAfter_) {
        say_(Level::INFO, "closed after " + std::to_string(messages_) + " messages, as asked");
        return Verdict::CLOSE;
    }
    return Verdict::GO_ON;
}

void Session::takeEvent(View body, View behind) {
    if (isBorderAt(behind)) {
        requests_.takeEvent(body, Certainty::CERTAIN);
        return;
    }
    atHand_.emplace(body.begin(), body.end());
    stage_ = Stage::FRESH;
}

void Session::idle() {
    // A few bytes behind the event may yet turn out to be no header.
    if (atHand_ && input_.empty() && stage_ == Stage::FRESH) {
        requests_.takeEvent(*atHand_, Certainty::SILENT);
        stage_ = Stage::DOUBTFUL;
    }
}

void Session::idleForLong() {
    if (atHand_ && input_.empty() && stage_ != Stage::SETTLED) {
        requests_.takeEvent(*atHand_, Certainty::CERTAIN);
        stage_ = Stage::SETTLED;
    }
}

void Session::settle(Certainty certainty) {
    if (atHand_ && stage_ != Stage::SETTLED) {
        requests_.takeEvent(*atHand_, certainty);
    }
    atHand_.reset();
}

Verdict Session::giveUp(const char* reason, View event) {
    ++counts_.bordersLost;
    std::string line = std::string("the stream has lost its message borders (") + reason + ")";
    if (atHand_ && stage_ != Stage::FRESH) {
        requests_.takeBackEvent(*atHand_);
    }
    View given = event.empty() ? event : bodyOf(event);
    if (atHand_) {
        given = *atHand_;
    }
    if (!given.empty()) {
        ++counts_.givenUp;
        line += ", event with id " +
                std::to_string(U32_t{imageOf<EmpEvLogHeader_t>(given).evSequenceId}) + " given up";
    }
    atHand_.reset();
    say_(Level::WARNING, line + ", closed");
    return Verdict::CLOSE;
}

void Session::end() {
    if (!input_.empty() && atHand_) {
        // Too little came behind the event to tell a border from a stray byte.
        say_(Level::NOTICE, "ended within a message, the event before it is given up");
        ++counts_.givenUp;
        if (stage_ == Stage::SETTLED) {
            requests_.takeBackEvent(*atHand_);
        }
        atHand_.reset();
    } else if (!input_.empty()) {
        say_(Level::NOTICE, "ended within a message");
    }
    input_.clear();
    settle(Certainty::ENDED);
}

} // namespace evarchive
