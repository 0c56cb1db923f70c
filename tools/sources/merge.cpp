#include "sources/source.h"

#include "altEventLog.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <tuple>

namespace sources {

namespace {

/** Enclosure, blade and slot. */
std::string_view logOf(const EmpEvLogHeader_t& header) {
    return {reinterpret_cast<const char*>(&header), offsetof(EmpEvLogHeader_t, evInstanceNumber)};
}

} // namespace

bool Merge::isLater(const Head& left, const Head& right) {
    return std::tie(left.timeAndLog, left.number, left.source) >
           std::tie(right.timeAndLog, right.number, right.source);
}

Merge::Merge(Sources sources) : sources_(std::move(sources)), lanes_(sources_.size()) {
    for (size_t source = 0; source < sources_.size(); source++) {
        fill(source);
    }
}

U32_t Merge::logNumber(size_t source, const EmpEvLogHeader_t& header) {
    Lane& lane = lanes_[source];
    if (lane.log != logOf(header)) {
        lane.log = logOf(header);
        lane.logNumber = numbers_.try_emplace(lane.log, static_cast<U32_t>(source)).first->second;
    }
    return lane.logNumber;
}

Merge::Head Merge::headOf(size_t source) {
    const Event& event = lanes_[source].next;
    const EmpEvLogHeader_t& header = *event.view.header;
    // Alternate events have ids of their own.
    const bool isInLog = event.origin == nullptr || event.origin->kind != Kind::ALTERNATE;
    const U32_t log = isInLog ? logNumber(source, header) : static_cast<U32_t>(source);
    const U64_t number = U64_t{header.evInstanceNumber} << 32 | U32_t{header.evSequenceId};
    return {.timeAndLog = U64_t{header.evTime} << 32 | log,
            .number = isInLog ? number : 0,
            .source = source};
}

Merge::Mark Merge::markOf(const Event& event) {
    const EmpEvLogHeader_t& header = *event.view.header;
    U32_t sum = 0;
    if (event.record != nullptr) {
        sum = event.record->header->evRdCRCChecksum; // of the same bytes, and right
    } else {
        const auto* begin = reinterpret_cast<const U8_t*>(&header);
        Bytes image(begin, begin + sizeof(header));
        image.insert(image.end(), event.view.data.begin(), event.view.data.end());
        sum = computeCRC32(image.data(), static_cast<U32_t>(image.size()));
    }
    return {.content = U64_t{sum} << 32 | U32_t{header.evSequenceId},
            .place = U64_t{header.evTime} << 32 | U32_t{header.evSlotId}};
}

void Merge::fill(size_t source) {
    if (std::optional<Event> event = sources_[source]->next()) {
        lanes_[source].next = *std::move(event);
        heads_.push_back(headOf(source));
        std::ranges::push_heap(heads_, isLater);
    }
}

std::optional<Event> Merge::next() {
    if (heads_.empty()) {
        return std::nullopt;
    }
    std::ranges::pop_heap(heads_, isLater);
    const size_t source = heads_.back().source;
    heads_.pop_back();
    Event event = std::move(lanes_[source].next);
    if (sources_.size() > 1) {
        auto [giver, isNew] = given_.try_emplace(markOf(event), source);
        event.isDouble = !isNew && giver->second != source;
    }
    fill(source);
    return event;
}

} // namespace sources
