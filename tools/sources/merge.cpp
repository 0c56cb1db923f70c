#include "sources/source.h"

#include "altEventLog.h"

#include <algorithm>

namespace sources {

/** Of the same second: in the order in which the sources were given. */
bool Merge::isLater(const Head& left, const Head& right) {
    U32_t leftTime = left.event.view.header->evTime;
    U32_t rightTime = right.event.view.header->evTime;
    return leftTime != rightTime ? leftTime > rightTime : left.source > right.source;
}

Merge::Merge(Sources sources) : sources_(std::move(sources)) {
    for (size_t source = 0; source < sources_.size(); source++) {
        fill(source);
    }
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
        heads_.push_back({*std::move(event), source});
        std::ranges::push_heap(heads_, isLater);
    }
}

std::optional<Event> Merge::next() {
    if (heads_.empty()) {
        return std::nullopt;
    }
    std::ranges::pop_heap(heads_, isLater);
    Head head = std::move(heads_.back());
    heads_.pop_back();
    if (sources_.size() > 1) {
        auto [giver, isNew] = given_.try_emplace(markOf(head.event), head.source);
        head.event.isDouble = !isNew && giver->second != head.source;
    }
    fill(head.source);
    return std::move(head.event);
}

} // namespace sources
