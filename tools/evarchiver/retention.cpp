#include "retention.h"

#include <algorithm>
#include <limits>

namespace evarchive {
namespace {

// Events to a transaction: links wait no longer for one than for a batch of theirs.
constexpr U64_t SLICE = 2000;

constexpr S64_t SECONDS_A_DAY = 86'400;
constexpr S64_t WHENEVER = std::numeric_limits<S64_t>::max();

} // namespace

void Retention::beginRound(S64_t now) {
    now_ = now;
    round_ = store_.listGenerations();
    at_ = 0;
    ages_.clear();
    areAgesKnown_ = false;
    isInRound_ = true;
}

void Retention::step() {
    store_.begin();
    try {
        isInRound_ = work();
        store_.commit();
    } catch (const StoreError&) {
        store_.rollback();
        isInRound_ = false;
        throw;
    }
}

bool Retention::work() {
    if (at_ < round_.size()) {
        if (!removeByAge() && !removeByQuota()) {
            ++at_;
        }
        return true;
    }
    if (settings_.keepDays > 0) {
        store_.removeAside(now_ - settings_.keepDays * SECONDS_A_DAY);
    }
    return settings_.maxBytes > 0 && store_.bytesUsed() > settings_.maxBytes && removeByBytes();
}

bool Retention::removeByAge() {
    return settings_.keepDays > 0 &&
           remove(at_, now_ - settings_.keepDays * SECONDS_A_DAY, SLICE) > 0;
}

bool Retention::removeByQuota() {
    if (settings_.bladeQuota == 0) {
        return false;
    }
    const U64_t events = eventsOf(round_[at_]);
    return events > settings_.bladeQuota &&
           remove(at_, WHENEVER, std::min(SLICE, events - settings_.bladeQuota)) > 0;
}

// Ids of a log have few holes, so their distance is as good as their number.
U64_t Retention::eventsOf(const GenerationInfo& generation) {
    const auto oldest = store_.oldestEvent(generation.number);
    return oldest ? U64_t{*store_.highestId(generation.number)} - oldest->sequenceId + 1 : 0;
}

bool Retention::removeByBytes() {
    const auto pushAgeOf = [this](std::size_t index) {
        if (const auto oldest = store_.oldestEvent(round_[index].number)) {
            ages_.emplace_back(oldest->received, index);
            std::ranges::push_heap(ages_, std::greater<>());
        }
    };
    for (std::size_t index = 0; !areAgesKnown_ && index < round_.size(); ++index) {
        pushAgeOf(index);
    }
    areAgesKnown_ = true;
    while (!ages_.empty()) {
        std::ranges::pop_heap(ages_, std::greater<>());
        const std::size_t index = ages_.back().second;
        ages_.pop_back();
        if (remove(index, WHENEVER, SLICE) > 0) {
            pushAgeOf(index);
            return true;
        }
    }
    return false;
}

U64_t Retention::remove(std::size_t index, S64_t before, U64_t most) {
    GenerationInfo& generation = round_[index];
    const auto oldest = store_.oldestEvent(generation.number);
    if (!oldest || oldest->received >= before) {
        return 0;
    }
    prove(generation);
    const U64_t count = store_.removeOldest(generation.number, before, most);
    removed_ += count;
    return count;
}

void Retention::prove(GenerationInfo& generation) {
    const auto oldest = store_.oldestEvent(generation.number);
    if (!oldest || oldest->doubtful ||
        (generation.proven && generation.proven->contains(oldest->sequenceId))) {
        return;
    }
    generation.proven =
        IdRun{oldest->sequenceId, store_.endOfRun(generation.number, oldest->sequenceId)};
    store_.noteProven(generation.number, *generation.proven);
}

} // namespace evarchive
