#include "survey.h"

#include <algorithm>

namespace evweb {
namespace {

constexpr U32_t MINUTE = 60;
constexpr U64_t SERIES_BITS = 8192; // of more logs than these, some share a bit

template <std::size_t SIZE>
std::bitset<SIZE> bitsOf(const std::vector<U32_t>& wanted) {
    std::bitset<SIZE> bits;
    for (const U32_t number : wanted) {
        bits.set(number % SIZE);
    }
    return wanted.empty() ? bits.set() : bits;
}

constexpr U32_t MOST_SOURCE = 0xFF;
constexpr U32_t MOST_CATEGORY = 0x3F;
constexpr U32_t MOST_EVENT = 0xFFFF;

bool areUpTo(const std::vector<U32_t>& numbers, U32_t most) {
    return std::ranges::all_of(numbers, [most](U32_t number) { return number <= most; });
}

/** What an event is, in one number: those of the same event stand together. */
U32_t kindOf(const EventColumns& event) {
    return (event.event & MOST_EVENT) << 16U | (event.source & MOST_SOURCE) << 8U |
           (event.category & MOST_CATEGORY) << 2U | static_cast<U32_t>(typeIndex(event.type));
}

bool isOfKind(U32_t kind, const Needs& needs) {
    return needs.types[kind & 3U] && needs.categories[kind >> 2U & MOST_CATEGORY] &&
           needs.sources[kind >> 8U & MOST_SOURCE];
}

U64_t bitOf(S64_t series) {
    return static_cast<U64_t>(series) % SERIES_BITS;
}

} // namespace

Needs needsOf(const evctl::EventFilter& filter, const std::vector<S64_t>& series) {
    Needs needs{.since = filter.since.value_or(0),
                .until = filter.until.value_or(UINT32_MAX),
                .sources = bitsOf<256>(filter.sources),
                .categories = bitsOf<64>(filter.categories),
                .events = filter.ids,
                .series = series,
                .isExact = areUpTo(filter.sources, MOST_SOURCE) &&
                           areUpTo(filter.categories, MOST_CATEGORY),
                .isAnyKind =
                    filter.sources.empty() && filter.categories.empty() && filter.ids.empty()};
    if (!filter.types.empty()) {
        needs.types = {};
        for (const U32_t type : filter.types) {
            needs.types[typeIndex(type)] = true;
            needs.isExact = needs.isExact && typeIndex(type) != 0; // all others are one
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
    kinds_.push_back(kindOf(event));
    areKindsExact_ = areKindsExact_ && event.event <= MOST_EVENT && event.source <= MOST_SOURCE &&
                     event.category <= MOST_CATEGORY;
    const U64_t bit = bitOf(event.series);
    series_.resize(std::max<std::size_t>(series_.size(), bit / 64 + 1));
    series_[bit / 64] |= U64_t{1} << bit % 64;
}

void Zone::finish() {
    std::ranges::sort(kinds_);
    std::vector<U32_t> kinds;
    for (const U32_t kind : kinds_) {
        if (kinds.empty() || kinds.back() != kind) {
            kinds.push_back(kind);
            kindCounts_.push_back(0);
        }
        ++kindCounts_.back();
    }
    kinds_ = std::move(kinds);
    kinds_.shrink_to_fit();
    kindCounts_.shrink_to_fit();
    minutes_.shrink_to_fit();
    series_.shrink_to_fit();
}

bool Zone::mayHold(const Needs& needs) const {
    return hasSeries(needs) && hasMinute(needs) && hasKind(needs);
}

bool Zone::hasSeries(const Needs& needs) const {
    return needs.series.empty() || std::ranges::any_of(needs.series, [this](S64_t series) {
               const U64_t bit = bitOf(series);
               return bit / 64 < series_.size() && (series_[bit / 64] >> bit % 64 & 1U) != 0;
           });
}

bool Zone::hasMinute(const Needs& needs) const {
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

bool Zone::countKindsInto(Timeline& timeline, const Needs& needs) const {
    if (minutes_.empty() || !areKindsExact_ || !needs.isExact) {
        return false;
    }
    const U64_t first = U64_t{minutes_.front().minute} * MINUTE;
    const U64_t last = U64_t{minutes_.back().minute} * MINUTE + MINUTE - 1;
    if (first < timeline.since ||
        (first - timeline.since) / timeline.width != (last - timeline.since) / timeline.width) {
        return false;
    }
    for (std::size_t at = 0; at < kinds_.size(); ++at) {
        const bool isEvent =
            needs.events.empty() ||
            std::ranges::find(needs.events, kinds_[at] >> 16U) != needs.events.end();
        if (isEvent && isOfKind(kinds_[at], needs)) {
            timeline.count(static_cast<U32_t>(first), kinds_[at] & 3U, kindCounts_[at]);
        }
    }
    return true;
}

bool Zone::hasKind(const Needs& needs) const {
    const auto fits = [&needs](U32_t kind) { return isOfKind(kind, needs); };
    if (needs.isAnyKind || needs.events.empty()) {
        return needs.isAnyKind || std::ranges::any_of(kinds_, fits);
    }
    return std::ranges::any_of(needs.events, [&](U32_t event) {
        const U32_t least = (event & MOST_EVENT) << 16U;
        const auto end = std::upper_bound(kinds_.begin(), kinds_.end(), least | 0xFFFFU);
        return std::any_of(std::lower_bound(kinds_.begin(), end, least), end, fits);
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
