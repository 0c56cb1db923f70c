#include "ring_place.h"

#include <cstdio>

namespace evbridge {

std::string RingPlace::text() const {
    if (!last_) {
        return {};
    }
    char text[64];
    snprintf(text, sizeof(text), "r1:%x.%x.%x", last_->instance, last_->sequenceId, last_->time);
    return text;
}

std::optional<RingPlace> RingPlace::parse(const std::string& text) {
    RingPlace place;
    if (text.empty()) {
        return place;
    }
    evctl::LogMark mark;
    char rest = 0;
    if (std::sscanf(text.c_str(), "r1:%x.%x.%x%c", &mark.instance, &mark.sequenceId, &mark.time,
                    &rest) != 3) {
        return std::nullopt;
    }
    place.last_ = mark;
    return place;
}

void RingPlace::take(const sources::EventView& event, Entries& entries) {
    const auto* header = reinterpret_cast<const U8_t*>(event.header);
    Bytes image(header, header + sizeof(*event.header));
    const evctl::LogMark mark = evctl::markOf(*event.header);
    if (last_ && mark.instance == last_->instance && mark.sequenceId > last_->sequenceId + 1) {
        entries.push_back(
            {.image = image, .gone = IdRun{last_->sequenceId + 1, mark.sequenceId - 1}});
        EmpEvLogHeader_t& shown = *reinterpret_cast<EmpEvLogHeader_t*>(entries.back().image.data());
        shown.evStructLength = 0;
    }
    image.insert(image.end(), event.data.begin(), event.data.end());
    entries.push_back({.image = std::move(image)});
    last_ = mark;
}

} // namespace evbridge
