#include "evctl/ring/ring_walk.h"

namespace evctl {
namespace {

// So close to the oldest event it may go before the next one has been asked for.
constexpr U32_t NEAR_THE_END = 256;

} // namespace

InquiryAnswer RingWalk::newest() {
    InquiryAnswer answer = inquire(requester_, EMP_E_INQUIRY_TYPE_LAST, {}, 0);
    if (answer.found()) {
        log_.instance = answer.event().header->evInstanceNumber; // also of one that was replayed
    }
    return answer;
}

InquiryAnswer RingWalk::oldest() {
    InquiryAnswer answer = inquire(requester_, EMP_E_INQUIRY_TYPE_FIRST, {}, 0);
    if (answer.found()) {
        oldestId_ = answer.event().header->evSequenceId;
    }
    return answer;
}

std::optional<InquiryAnswer> RingWalk::behind(U32_t id) {
    if (id - oldestId_ < NEAR_THE_END) {
        InquiryAnswer first = oldest();
        if (!first.found()) {
            return std::nullopt;
        }
        if (oldestId_ > U64_t{id} + 1) {
            return first;
        }
    }
    InquiryAnswer answer = inquire(requester_, EMP_E_INQUIRY_TYPE_NEXT, log_, id);
    if (!answer.found() || answer.event().header->evSequenceId <= id) {
        return std::nullopt;
    }
    return answer;
}

} // namespace evctl
