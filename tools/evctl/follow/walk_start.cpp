#include "evctl/follow/walk_start.h"

#include <iostream>

namespace evctl {

std::optional<WalkStart> startBehind(Requester& requester, const LogIdentity& log,
                                     const Cursor& cursor) {
    InquiryAnswer last = inquire(requester, EMP_E_INQUIRY_TYPE_LAST, log, 0);
    if (!last.found()) {
        return std::nullopt;
    }
    const LogMark* mark = cursor.find(logNumber(*last.event().header, false));
    LogMark newest = markOf(*last.event().header);
    if (mark == nullptr) {
        return std::nullopt;
    }
    auto beginAnew = [mark] {
        std::cerr << "evctl: " << lostMarkText(*mark, "all of its log is shown") << "\n";
        return std::nullopt;
    };
    if (newest.instance != mark->instance) {
        return beginAnew();
    }
    InquiryAnswer there = inquire(requester, EMP_E_INQUIRY_TYPE_EXACT, log, mark->sequenceId);
    if (there.found() && markOf(*there.event().header) == *mark) {
        return WalkStart{.sequenceId = mark->sequenceId, .event = std::move(there)};
    }
    if (there.found() || newest.sequenceId <= mark->sequenceId) {
        return beginAnew();
    }
    std::cerr << "evctl: " << lostMarkText(*mark, "what is newer is shown") << "\n";
    return WalkStart{mark->sequenceId, std::nullopt};
}

} // namespace evctl
