#include "evlog/salvage_generations.h"

#include "evlog/salvage_log.h"

#include <algorithm>

namespace salvage {
namespace {

/** Whether ids and times of two logs contradict each other: the one with the lower ids is the later
 * one. Both are sorted, not empty and have no id in common. */
bool timesContradict(const Events_t& one, const Events_t& other) {
    const Events_t& lower = one.front().key < other.front().key ? one : other;
    const Events_t& higher = &lower == &one ? other : one;
    if (lower.back().key > higher.front().key) {
        return false; // interleaved
    }
    return lower.back().time() > higher.front().time() &&
           lower.front().time() >= higher.back().time();
}

/** Whether a log is another state of the same one, not a later or an earlier one with ids of its
 * own. */
bool belongs(const Events_t& generation, const Events_t& log) {
    size_t alike = 0;
    size_t different = 0;
    for (const Event_t& event : log) {
        auto place = std::ranges::lower_bound(generation, event.key, {}, &Event_t::key);
        if (place != generation.end() && place->key == event.key) {
            (isSame(*place, event) ? alike : different)++;
        }
    }
    return alike > 0 || (different == 0 && !timesContradict(generation, log));
}

} // namespace

void Generations_t::mergeInto(Events_t& generation, const Events_t& log) {
    Events_t merged;
    auto own = generation.begin();
    for (const Event_t& event : log) {
        while (own != generation.end() && own->key < event.key) {
            merged.push_back(*own++);
        }
        if (own == generation.end() || own->key != event.key) {
            merged.push_back(event);
        } else if (isSame(*own, event)) {
            repeated_++;
        } else {
            leave(event, EVLOG_E_LEFT_CONFLICT, left_);
        }
    }
    merged.insert(merged.end(), own, generation.end());
    generation = std::move(merged);
}

void Generations_t::join(Events_t log) {
    if (log.empty()) {
        return;
    }
    if (mostlyOf(log) != owner_) {
        leaveAll(log, EVLOG_E_LEFT_FOREIGN, left_);
        return;
    }
    for (Events_t& generation : generations_) {
        if (belongs(generation, log)) {
            mergeInto(generation, log);
            return;
        }
    }
    generations_.push_back(std::move(log));
}

Events_t largestChain(const Events_t& events, Left_t& left) {
    auto farApart = [](const Event_t& one, const Event_t& next) {
        return (next.key - one.key) > ROOM / EMP_RECORD_SIZE;
    };
    auto bestBegin = events.begin();
    auto bestEnd = events.begin();
    for (auto begin = events.begin(); begin != events.end();) {
        auto last = std::adjacent_find(begin, events.end(), farApart);
        auto end = last == events.end() ? last : last + 1;
        if (end - begin >= bestEnd - bestBegin) {
            bestBegin = begin;
            bestEnd = end;
        }
        begin = end;
    }
    leaveAll({events.begin(), bestBegin}, EVLOG_E_LEFT_GENERATION, left);
    leaveAll({bestEnd, events.end()}, EVLOG_E_LEFT_GENERATION, left);
    return {bestBegin, bestEnd};
}

} // namespace salvage
