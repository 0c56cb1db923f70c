#include "sources/source.h"

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
    fill(head.source);
    return std::move(head.event);
}

} // namespace sources
