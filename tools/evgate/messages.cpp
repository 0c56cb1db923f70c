#include "messages.h"

#include <algorithm>
#include <cstring>

namespace evgate {
namespace {

using namespace evarchive;

// What an event manager has under way, with some room.
constexpr std::size_t INQUIRIES_OF_ONE = 128;

// No log has it: blades count their slots from 0 on.
constexpr U32_t NO_SLOT = 0xFFFFFFFF;

U32_t number(View bytes, std::size_t offset, std::size_t width) {
    U32_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = (value << 8) | bytes[offset + i];
    }
    return value;
}

// Of two images that begin their identity with evEnclosureId.
template <typename One, typename Other>
bool isSameLog(const One& one, const Other& other) {
    return textOf(one.evEnclosureId) == textOf(other.evEnclosureId) &&
           textOf(one.evBladeId) == textOf(other.evBladeId) && one.evSlotId == other.evSlotId &&
           one.evInstanceNumber == other.evInstanceNumber;
}

// The same inquiry about a log that there is not.
Bytes withoutName(View request) {
    Bytes changed(request.begin(), request.end());
    auto inquiry = imageOf<EmpEvInquiryMsg_t>(bodyOf(request));
    std::ranges::fill(inquiry.evEnclosureId, U8_t{0});
    std::ranges::fill(inquiry.evBladeId, U8_t{0});
    inquiry.evSlotId = NO_SLOT;
    std::ranges::copy(viewOf(inquiry), changed.begin() + HEADER_SIZE);
    return changed;
}

} // namespace

Judgement judgeAnswer(View bytes) {
    if (bytes.size() < HEADER_SIZE) {
        return {};
    }
    const std::size_t length = number(bytes, 2, 2);
    if (number(bytes, 0, 2) != HEADER_VERSION) {
        return {Border::LOST, 0, "header version is not 1"};
    }
    if (length > LARGEST_EVENT_BODY) {
        return {Border::LOST, 0, "body length is too large"};
    }
    const std::size_t size = HEADER_SIZE + length;
    if (bytes.size() < size) {
        return {};
    }
    if (typeOf(bytes) == EMP_E_MSGS_LOG &&
        (length < EMP_EVENT_HEADER_SIZE ||
         std::size_t{imageOf<EmpEvLogHeader_t>(bodyOf(bytes)).evStructLength} +
                 EMP_EVENT_HEADER_SIZE !=
             length)) {
        return {Border::LOST, 0, "evStructLength does not fit the body length"};
    }
    return {Border::WHOLE, size, ""};
}

bool MessageReader::receive(View bytes, const Take& take) {
    input_.insert(input_.end(), bytes.begin(), bytes.end());
    std::size_t used = 0;
    bool goesOn = true;
    while (goesOn) {
        const Judgement judgement = judge_(View(input_).subspan(used));
        if (judgement.border == Border::LOST) {
            lost_ = judgement.reason;
            goesOn = false;
        }
        if (judgement.border != Border::WHOLE) {
            break;
        }
        goesOn = take(View(input_).subspan(used, judgement.size));
        used += judgement.size;
    }
    if (used == input_.size()) {
        input_ = {}; // gives the memory back: most links are idle
    } else {
        input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(used));
    }
    return goesOn;
}

void Asked::note(View request) {
    if (typeOf(request) == EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS) {
        asker_ = imageOf<EmpGetEvArchiverStatusMsg_t>(bodyOf(request));
    } else if (typeOf(request) == EMP_E_MSGS_INQUIRY) {
        inquiries_.push_back({handleOf(request), imageOf<EmpEvInquiryMsg_t>(bodyOf(request))});
        if (inquiries_.size() > INQUIRIES_OF_ONE) {
            inquiries_.pop_front();
        }
    }
}

bool Asked::namesAsker(const EmpEvInquiryMsg_t& inquiry) const {
    return asker_ && isSameLog(*asker_, inquiry);
}

Answer Asked::answerOf(View message) {
    Answer answer{Bytes(message.begin(), message.end()), {}};
    const View body = bodyOf(message);
    if (typeOf(message) != EMP_E_MSGS_LOG) {
        return answer;
    }
    const auto event = imageOf<EmpEvLogHeader_t>(body);
    const U32_t handle = handleOf(message);
    const auto asked = std::ranges::find_if(inquiries_, [&](const Inquiry& inquiry) {
        return inquiry.handle == handle && isSameLog(inquiry.image, event);
    });
    if (asked == inquiries_.end()) {
        // Nobody waits for it; it must arrive whole all the same.
        EmpEvInquiryMsg_t inquiry{};
        inquiry.evSeqIdInquiry = event.evSequenceId;
        answer.instead = makeEmptyAnswer(handle, inquiry, EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE);
        return answer;
    }
    // The blade has the event after one of its own itself, and serves it when the archive has none.
    const bool canHelpItself =
        namesAsker(asked->image) && asked->image.evInquiryType == EMP_E_INQUIRY_TYPE_NEXT;
    answer.instead = makeEmptyAnswer(handle, asked->image,
                                     canHelpItself ? EMP_E_RESPONSE_FAILURE
                                                   : EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE);
    inquiries_.erase(asked);
    return answer;
}

std::optional<std::string> Guard::pass(View request, Bytes& onward) const {
    if (typeOf(request) == EMP_E_MSGS_INQUIRY) {
        const auto inquiry = imageOf<EmpEvInquiryMsg_t>(bodyOf(request));
        if (!rights_.mayAskAbout(textOf(inquiry.evEnclosureId))) {
            const Bytes changed = withoutName(request);
            onward.insert(onward.end(), changed.begin(), changed.end());
            return std::nullopt;
        }
    } else {
        // Both an event and a status request begin with it.
        U8_t field[EMP_ID_TEXT_SIZE];
        std::copy_n(bodyOf(request).begin(), sizeof(field), field);
        if (const std::string enclosure = textOf(field); !rights_.maySpeakFor(enclosure)) {
            return enclosure;
        }
    }
    onward.insert(onward.end(), request.begin(), request.end());
    return std::nullopt;
}

} // namespace evgate
