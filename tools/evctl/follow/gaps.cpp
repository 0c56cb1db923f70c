#include "evctl/follow/gaps.h"

#include "common/text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

namespace evctl {

std::string gapLine(const Gap& gap) {
    return "gap: " + std::to_string(gap.first) + " to " + std::to_string(gap.last) + "\n";
}

Json gapJson(const Gap& gap) {
    return {{"gap",
             {{"first", gap.first},
              {"last", gap.last},
              {"events", U64_t{gap.last} - gap.first + 1},
              {"enclosureId", tools::escapedText(gap.log.enclosure)},
              {"bladeId", tools::escapedText(gap.log.blade)},
              {"slotId", gap.log.slot},
              {"instanceNumber", gap.log.instance}}}};
}

bool GapWatch::ById::operator()(const LogIdentity& left, const LogIdentity& right) const {
    return std::tie(left.enclosure, left.blade, left.slot, left.instance) <
           std::tie(right.enclosure, right.blade, right.slot, right.instance);
}

std::optional<Gap> GapWatch::take(const EmpEvLogHeader_t& header, bool replayed) {
    LogIdentity log = identityOf(header);
    U32_t id = header.evSequenceId;
    if (replayed && !last_.contains(log)) {
        auto replaying =
            std::ranges::find_if(last_, [id](const auto& known) { return known.second + 1 == id; });
        if (replaying != last_.end()) {
            replaying->second = id;
        }
        return std::nullopt;
    }
    if (last_.size() >= LOGS_MAX && !last_.contains(log)) {
        last_.clear();
    }
    auto [known, isNew] = last_.try_emplace(log, id);
    U32_t before = std::exchange(known->second, id);
    if (isNew || id <= before || id == before + 1) {
        return std::nullopt;
    }
    return Gap{.log = std::move(log), .first = before + 1, .last = id - 1};
}

} // namespace evctl
