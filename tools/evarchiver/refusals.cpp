#include "refusals.h"

#include "parking.h"

#include <algorithm>

namespace evarchive {

bool Refusals::add(const SeriesKey& log) {
    const auto now = Clock::now();
    std::erase_if(logs_, [now](const auto& known) { return known.second <= now; });
    return logs_.emplace(log, now + pause_).second;
}

bool Refusals::concerns(const Batch::Request& request, View body, const Archive& archive) const {
    if (links_.empty() && logs_.empty()) {
        return false;
    }
    const auto now = Clock::now();
    const auto isRefused = [&](const SeriesKey& log) {
        const auto known = logs_.find(log);
        return known != logs_.end() && known->second > now;
    };
    return links_.contains(request.link) ||
           std::ranges::any_of(logsOf(request, body, archive), isRefused);
}

} // namespace evarchive
