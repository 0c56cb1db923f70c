#include "survey.h"

#include <algorithm>

namespace evweb {
namespace {

constexpr U32_t MINUTE = 60;

U64_t bitOf(U64_t number) {
    return U64_t{1} << (number % 64);
}

template <typename Number>
U64_t bitsOf(const std::vector<Number>& wanted) {
    U64_t bits = wanted.empty() ? ~U64_t{0} : 0;
    for (const Number number : wanted) {
        bits |= bitOf(static_cast<U64_t>(number));
    }
    return bits;
}

} // namespace

Needs needsOf(const evctl::EventFilter& filter, const std::vector<S64_t>& series) {
    Needs needs{.since = filter.since.value_or(0),
                .until = filter.until.value_or(UINT32_MAX),
                .sources = bitsOf(filter.sources),
                .events = bitsOf(filter.ids),
                .series = bitsOf(series)};
    if (!filter.types.empty()) {
        needs.types = {};
        for (const U32_t type : filter.types) {
            needs.types[typeIndex(type)] = true;
        }
    }
    return needs;
}

void Zone::add(const EventColumns& event) {
    const U32_t minute = event.time / MINUTE;
    auto at = std::ranges::lower_bound(minutes_, minute, {}, &Minute::minute);
    if (at == minutes_.end() || at->minute != minute) {
        at = minutes_.insert(at, {minute, {}});
    }
    ++at->counts[typeIndex(event.type)];
    sources_ |= bitOf(event.source);
    events_ |= bitOf(event.event);
    series_ |= bitOf(static_cast<U64_t>(event.series));
}

void Zone::finish() {
    minutes_.shrink_to_fit();
}

bool Zone::mayHold(const Needs& needs) const {
    if ((sources_ & needs.sources) == 0 || (events_ & needs.events) == 0 ||
        (series_ & needs.series) == 0) {
        return false;
    }
    const auto first =
        std::ranges::lower_bound(minutes_, needs.since / MINUTE, {}, &Minute::minute);
    return std::any_of(first, minutes_.end(), [&needs](const Minute& minute) {
        if (minute.minute > needs.until / MINUTE) {
            return false;
        }
        for (std::size_t type = 0; type < needs.types.size(); ++type) {
            if (needs.types[type] && minute.counts[type] > 0) {
                return true;
            }
        }
        return false;
    });
}

void Zone::countInto(Timeline& timeline, const std::array<bool, 4>& types) const {
    for (const Minute& minute : minutes_) {
        for (std::size_t type = 0; type < types.size(); ++type) {
            if (types[type]) {
                timeline.count(minute.minute * MINUTE, type, minute.counts[type]);
            }
        }
    }
}

Survey::Zones Survey::zones(const FileState& state) const {
    const std::lock_guard lock(mutex_);
    return state == state_ ? zones_ : Zones();
}

std::optional<S64_t> Survey::nextUnknown(const FileState& state, S64_t firstRow, S64_t lastRow) {
    const std::lock_guard lock(mutex_);
    if (state != state_) {
        zones_.clear();
        state_ = state;
    }
    first_ = firstRow / ZONE_ROWS;
    end_ = std::max<S64_t>(first_, lastRow / ZONE_ROWS - 1);
    zones_.resize(static_cast<std::size_t>(end_));
    for (S64_t number = end_ - 1; number >= first_; --number) {
        if (!zones_[static_cast<std::size_t>(number)]) {
            return number;
        }
    }
    return std::nullopt;
}

void Survey::put(S64_t number, std::shared_ptr<const Zone> zone) {
    const std::lock_guard lock(mutex_);
    if (number < static_cast<S64_t>(zones_.size())) {
        zones_[static_cast<std::size_t>(number)] = std::move(zone);
    }
}

double Survey::known() const {
    const std::lock_guard lock(mutex_);
    const auto from = zones_.begin() + std::min<S64_t>(first_, std::ssize(zones_));
    const auto all = zones_.end() - from;
    const auto known = std::count_if(from, zones_.end(), [](const auto& zone) { return zone; });
    return all == 0 ? 1 : static_cast<double>(known) / static_cast<double>(all);
}

} // namespace evweb
