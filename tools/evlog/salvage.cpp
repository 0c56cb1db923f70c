#include "evlog/salvage.h"

#include "evlog/salvage_generations.h"
#include "evlog/salvage_log.h"

#include <algorithm>
#include <array>

namespace {

using namespace salvage;

class Salvage_t {
  public:
    Salvage_t(std::span<const EvlogSource_t> sources, const EvlogSalvageRules_t& rules)
        : sources_(sources), rules_(rules) {}

    EvlogSalvage_t run();

  private:
    std::vector<Events_t> readSources();
    void decideOwner(const std::vector<Events_t>& logs);
    Events_t takeGenerations(std::vector<Events_t> generations);
    void appendWaiting(Events_t& events);
    void dropOldest(Events_t& events);
    void beginWithOwn(Events_t& events);

    std::span<const EvlogSource_t> sources_;
    const EvlogSalvageRules_t& rules_;
    EvlogSalvage_t result_;
    Owner_t owner_;
    Events_t waiting_; // in their order
    U64_t used_ = 0;
    bool startsWithMark_ = false;
};

/** The logs; alternate events go to those that wait. */
std::vector<Events_t> Salvage_t::readSources() {
    std::vector<Events_t> logs;
    for (size_t source = 0; source < sources_.size(); source++) {
        std::span<const U8_t> bytes = sources_[source].bytes;
        if (!sources_[source].waiting) {
            logs.push_back(readLog(bytes, source, result_.left));
        } else if (std::optional<Event_t> event = readWaiting(bytes, source, result_.left)) {
            waiting_.push_back(*event);
        }
    }
    return logs;
}

void Salvage_t::decideOwner(const std::vector<Events_t>& logs) {
    auto first = std::ranges::find_if(logs, [](const Events_t& log) { return !log.empty(); });
    if (rules_.identity != nullptr) {
        owner_ = {enclosureOf(rules_.identity->enclosureId), rules_.identity->slotId};
    } else if (first != logs.end()) {
        owner_ = mostlyOf(*first);
    } else if (!waiting_.empty()) {
        owner_ = ownerOf(waiting_.front().header());
    }
    std::ranges::copy(owner_.first, result_.identity.enclosureId);
    result_.identity.slotId = owner_.second;
}

/** The generation that keeps its ids; later ones wait for new ids if that is wished. */
Events_t Salvage_t::takeGenerations(std::vector<Events_t> generations) {
    if (generations.empty()) {
        return {};
    }
    if (rules_.renumber) {
        std::ranges::stable_sort(generations, {},
                                 [](const Events_t& events) { return events.back().time(); });
    }
    Events_t later;
    for (const Events_t& events : std::span(generations).subspan(1)) {
        if (rules_.renumber) {
            later.insert(later.end(), events.begin(), events.end());
        } else {
            leaveAll(events, EVLOG_E_LEFT_GENERATION, result_.left);
        }
    }
    waiting_.insert(waiting_.begin(), later.begin(), later.end());
    return largestChain(generations.front(), result_.left);
}

/** Gives events new ids, as the event manager does when it replays alternate event files. */
void Salvage_t::appendWaiting(Events_t& events) {
    U64_t key = events.empty() ? 0 : events.back().key; // id 0 is left for a mark
    for (Event_t event : waiting_) {
        event.key = ++key;
        events.push_back(event);
    }
}

void Salvage_t::dropOldest(Events_t& events) {
    size_t first = events.size();
    while (first > 0) {
        U64_t needed = events[first - 1].record.size();
        if (first < events.size()) {
            needed += (events[first].key - events[first - 1].key - 1) * EMP_RECORD_SIZE;
        }
        if (used_ + needed > ROOM) {
            break;
        }
        used_ += needed;
        first--;
    }
    auto begin = events.begin() + static_cast<std::ptrdiff_t>(first);
    leaveAll({events.begin(), begin}, EVLOG_E_LEFT_OLDEST, result_.left);
    events.erase(events.begin(), begin);
}

/** By its first record a start judges whose the log is: a replayed event, which keeps the slot that
 * it came with, would have all cleared. */
void Salvage_t::beginWithOwn(Events_t& events) {
    while (!events.empty() && ownerOf(events.front().header()) != owner_) {
        if (static_cast<U32_t>(events.front().key) != 0 && used_ + EMP_RECORD_SIZE <= ROOM) {
            startsWithMark_ = true;
            return;
        }
        leave(events.front(), EVLOG_E_LEFT_FOREIGN, result_.left);
        events.erase(events.begin());
    }
}

EvlogSalvage_t Salvage_t::run() {
    std::vector<Events_t> logs = readSources();
    decideOwner(logs);
    Generations_t generations(owner_, result_.left);
    for (Events_t& log : logs) {
        generations.join(std::move(log));
    }
    result_.repeated = generations.repeated();
    Events_t events = takeGenerations(generations.take());
    appendWaiting(events);
    dropOldest(events);
    beginWithOwn(events);
    if (!events.empty()) {
        writeLog(events, startsWithMark_, result_);
    }
    return std::move(result_);
}

} // namespace

const char* evlogLeftText(EVLOG_LEFT_e reason) {
    constexpr std::array<const char*, EVLOG_E_LEFT_REASONS> texts = {
        "an earlier file has other bytes under the same id",
        "of a log that began its ids anew, or with ids too far from the others",
        "of another enclosure or slot",
        "longer than any message",
        "source 27 and id 1, which readers take for unused space",
        "no room: older than what the log holds",
        "no valid record in this alternate event file",
    };
    return texts.at(reason);
}

EvlogSalvage_t evlogSalvage(std::span<const EvlogSource_t> sources,
                            const EvlogSalvageRules_t& rules) {
    return Salvage_t(sources, rules).run();
}
