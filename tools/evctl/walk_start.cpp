#include "evctl/walk_start.h"

namespace evctl {

std::optional<WalkStart> startBehind(Requester& requester, const LogIdentity& log,
                                     const Cursor& cursor) {
    InquiryAnswer last = inquire(requester, EMP_E_INQUIRY_TYPE_LAST, log, 0);
    if (!last.found()) {
        return std::nullopt;
    }
    const LogMark* mark = cursor.find(logNumber(*last.event().header, false));
    LogMark newest = markOf(*last.event().header);
    if (mark == nullptr || newest.instance != mark->instance) {
        return std::nullopt;
    }
    InquiryAnswer there = inquire(requester, EMP_E_INQUIRY_TYPE_EXACT, log, mark->sequenceId);
    if (there.found() && markOf(*there.event().header) == *mark) {
        return WalkStart{.sequenceId = mark->sequenceId, .event = std::move(there)};
    }
    bool hasGoneRound = !there.found() && newest.sequenceId > mark->sequenceId;
    return hasGoneRound ? std::optional(WalkStart{mark->sequenceId, std::nullopt}) : std::nullopt;
}

} // namespace evctl
