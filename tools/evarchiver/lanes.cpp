#include "lanes.h"

#include <numeric>
#include <utility>

namespace evarchive {
namespace {

constexpr std::size_t IDENTITY_SIZE = offsetof(EmpEvLogHeader_t, evSequenceId);

template <typename Image>
SeriesKey logIn(View body) {
    const auto image = imageOf<Image>(body);
    return {{textOf(image.evEnclosureId), textOf(image.evBladeId), image.evSlotId},
            image.evInstanceNumber};
}

} // namespace

Lanes::Lanes(const Engine& engine, const LaneSettings& settings, U32_t count,
             const Lane::Callbacks& callbacks) {
    const U32_t each = count > 0 ? count : engine.usualLanes;
    if (engine.spread) {
        share_.nodes = engine.spread->nodes;
        share_.nodeOf = engine.spread->nodeOf;
    }
    share_.of = each * share_.nodes;
    std::vector<std::unique_ptr<Store>> stores;
    for (U32_t number = 0; number < share_.of; ++number) {
        stores.push_back(engine.spread ? engine.spread->connect(number / each) : engine.connect());
    }
    for (U32_t number = 0; number < share_.of; ++number) {
        LaneSettings own = settings;
        own.archive.share = share_;
        own.archive.share.number = number;
        if (number > 0 || !engine.isKeptByLanes) {
            own.retention = {}; // the first sees to the whole archive
        }
        lanes_.push_back({std::make_unique<Lane>(std::move(stores[number]), own, callbacks)});
    }
}

void Lanes::add(LinkNumber link, const std::optional<BladeKey>& speaker, Batch::Kind kind,
                View body, U32_t ticket) {
    if (lanes_.size() == 1) {
        lanes_.front().batch.add(link, kind, body, ticket);
        return;
    }
    switch (kind) {
    case Batch::Kind::STATUS:
        addStatus(link, body, ticket);
        break;
    case Batch::Kind::INQUIRY:
        lanes_[share_.numberOf(logIn<EmpEvInquiryMsg_t>(body))].batch.add(link, kind, body, ticket);
        break;
    case Batch::Kind::END_OF_LINK:
        laneOfLink_.erase(link);
        for (One& one : lanes_) {
            one.batch.add(link, kind, body, ticket);
        }
        break;
    default:
        addEvent(link, speaker, kind, body);
        break;
    }
}

void Lanes::addEvent(LinkNumber link, const std::optional<BladeKey>& speaker, Batch::Kind kind,
                     View body) {
    const U32_t lane = laneOfEvent(body);
    lanes_[lane].batch.add(link, kind, body);
    if (speaker) {
        const U32_t instance = imageOf<EmpEvLogHeader_t>(body).evInstanceNumber;
        const U32_t other = share_.numberOf({*speaker, instance});
        if (other != lane) {
            lanes_[other].batch.add(link, kind, body);
        }
    }
}

void Lanes::addStatus(LinkNumber link, View body, U32_t ticket) {
    const U32_t lane = share_.numberOf(logIn<EmpGetEvArchiverStatusMsg_t>(body));
    laneOfLink_[link] = lane;
    for (U32_t number = 0; number < lanes_.size(); ++number) {
        const auto kind = number == lane ? Batch::Kind::STATUS : Batch::Kind::SPEAKER;
        lanes_[number].batch.add(link, kind, body, ticket);
    }
}

// Many events of one log come one behind the other.
U32_t Lanes::laneOfEvent(View body) {
    const View identity = body.first(IDENTITY_SIZE);
    if (!std::ranges::equal(identity, lastIdentity_)) {
        lastIdentity_.assign(identity.begin(), identity.end());
        lastLane_ = share_.numberOf(logIn<EmpEvLogHeader_t>(body));
    }
    return lastLane_;
}

bool Lanes::isUrgent() const {
    return std::ranges::any_of(lanes_, [](const One& one) { return one.batch.isUrgent(); });
}

std::size_t Lanes::pending() const {
    return std::accumulate(lanes_.begin(), lanes_.end(), std::size_t{0},
                           [](std::size_t sum, const One& one) { return sum + one.batch.size(); });
}

void Lanes::handOver() {
    for (One& one : lanes_) {
        if (!one.batch.isEmpty()) {
            one.lane->submit(one.batch);
            one.batch.clear();
        }
    }
}

std::size_t Lanes::spooled() const {
    return std::accumulate(lanes_.begin(), lanes_.end(), std::size_t{0},
                           [](std::size_t sum, const One& one) { return sum + one.spooled(); });
}

std::size_t Lanes::spooledFor(std::size_t node) const {
    const std::size_t each = share_.of / share_.nodes;
    const auto first = lanes_.begin() + static_cast<std::ptrdiff_t>(node * each);
    return std::accumulate(first, first + static_cast<std::ptrdiff_t>(each), std::size_t{0},
                           [](std::size_t sum, const One& one) { return sum + one.spooled(); });
}

bool Lanes::hasRoom(LinkNumber link, std::size_t budget) const {
    const auto lane = laneOfLink_.find(link);
    if (share_.nodes == 1 || lane == laneOfLink_.end()) {
        return spooled() < budget;
    }
    return spooledFor(lane->second / (share_.of / share_.nodes)) < budget / share_.nodes;
}

bool Lanes::mayTakeLinks(std::size_t budget) const {
    const std::size_t bound = budget / share_.nodes / 2;
    for (std::size_t node = 0; node < share_.nodes; ++node) {
        if (spooledFor(node) <= bound) {
            return true;
        }
    }
    return false;
}

LaneState Lanes::state() {
    const std::size_t each = share_.of / share_.nodes;
    LaneState sum;
    U64_t bytesUsed = 0;
    for (std::size_t first = 0; first < lanes_.size(); first += each) {
        LaneState server;
        for (std::size_t lane = first; lane < first + each; ++lane) {
            server += lanes_[lane].lane->state();
        }
        bytesUsed += server.bytesUsed;
        sum += server;
    }
    sum.bytesUsed = bytesUsed;
    return sum;
}

bool Lanes::stop(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (One& one : lanes_) {
        one.lane->beginStop(deadline);
    }
    bool isSafe = true;
    for (One& one : lanes_) {
        isSafe = one.lane->finishStop() && isSafe;
    }
    return isSafe;
}

U64_t Lanes::countGaps() {
    return std::accumulate(lanes_.begin(), lanes_.end(), U64_t{0},
                           [](U64_t sum, const One& one) { return sum + one.lane->countGaps(); });
}

} // namespace evarchive
