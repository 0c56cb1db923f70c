#include "evlog/salvage_events.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace salvage {
namespace {

bool isWanted(const Event_t& event, Left_t& left) {
    if (event.header().evStructLength > EMP_MAX_STRUCT) {
        leave(event, EVLOG_E_LEFT_LONG, left);
        return false;
    }
    return true;
}

/** Sorts; of several events of one key the first in the file is kept. */
Events_t sorted(Events_t events, Left_t& left) {
    std::ranges::stable_sort(events, {}, &Event_t::key);
    Events_t unique;
    for (const Event_t& event : events) {
        if (unique.empty() || unique.back().key != event.key) {
            unique.push_back(event);
        } else if (!isSame(unique.back(), event)) {
            leave(event, EVLOG_E_LEFT_CONFLICT, left);
        }
    }
    return unique;
}

} // namespace

U64_t keyOf(const EmpEvRecord_t& header) {
    return U64_t{header.evInstanceNumber} << 32 | U32_t{header.evSequenceId};
}

std::string enclosureOf(const U8_t (&text)[EMP_ID_TEXT_SIZE]) {
    const char* begin = reinterpret_cast<const char*>(text);
    return {begin, strnlen(begin, sizeof(text))};
}

Owner_t ownerOf(const EmpEvRecord_t& header) {
    return {enclosureOf(header.evEnclosureId), header.evSlotId};
}

Owner_t mostlyOf(const Events_t& events) {
    std::map<Owner_t, size_t> counts;
    for (const Event_t& event : events) {
        counts[ownerOf(event.header())]++;
    }
    return std::ranges::max_element(counts, {}, [](const auto& entry) { return entry.second; })
        ->first;
}

bool isSame(const Event_t& one, const Event_t& other) {
    return std::ranges::equal(one.record.subspan(EMP_CRC_START),
                              other.record.subspan(EMP_CRC_START));
}

void leave(const Event_t& event, EVLOG_LEFT_e reason, Left_t& left) {
    left.push_back({.source = event.source,
                    .offset = event.offset,
                    .sequenceId = event.header().evSequenceId,
                    .reason = reason});
}

void leaveAll(std::span<const Event_t> events, EVLOG_LEFT_e reason, Left_t& left) {
    for (const Event_t& event : events) {
        leave(event, reason, left);
    }
}

Events_t readLog(std::span<const U8_t> bytes, size_t source, Left_t& left) {
    EvlogFinder_t finder(bytes);
    Events_t events;
    std::optional<U32_t> at = finder.next(0).found;
    while (at) {
        const EmpEvRecord_t& header = *evlogHeaderAt(bytes, *at);
        U32_t length = EMP_RECORD_SIZE + evlogBodyLength(header);
        Event_t event = {.key = keyOf(header),
                         .record = bytes.subspan(*at, length),
                         .source = source,
                         .offset = *at};
        if (!evlogIsDummy(header) && isWanted(event, left)) {
            events.push_back(event);
        }
        at = finder.next(*at + length).found;
    }
    return sorted(std::move(events), left);
}

std::optional<Event_t> readWaiting(std::span<const U8_t> bytes, size_t source, Left_t& left) {
    EvlogRecord_t found;
    if (evlogReadAlternate(bytes, &found) != EVLOG_E_REASON_NONE) {
        left.push_back(
            {.source = source, .offset = 0, .sequenceId = 0, .reason = EVLOG_E_LEFT_DAMAGED});
        return std::nullopt;
    }
    Event_t event = {.record = bytes.first(EMP_RECORD_SIZE + found.body.size()), .source = source};
    if (evlogIsDummy(*found.header)) {
        leave(event, EVLOG_E_LEFT_MARKER, left);
        return std::nullopt;
    }
    return isWanted(event, left) ? std::optional(event) : std::nullopt;
}

} // namespace salvage
