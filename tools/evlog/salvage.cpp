#include "evlog/salvage.h"

#include "altEventLog.h"
#include "emp_evl.h"
#include "evlog/search.h"
#include "mmsg.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <string>

namespace {

// Room for the dummy entry that closes the log is always left.
constexpr U64_t ROOM = EMP_LOG_FILE_SIZE - EMP_RECORD_SIZE;

/** An event with its place: ids rise with age, and the instance number when they begin again at 0.
 */
struct Event_t {
    U64_t key = 0;                // instance number and sequence id
    std::span<const U8_t> record; // header and data
    size_t source = 0;
    U32_t offset = 0;

    const EmpEvRecord_t& header() const { return *evlogHeaderAt(record, 0); }
    U32_t time() const { return header().evTime; }
};
using Events_t = std::vector<Event_t>;

U64_t keyOf(const EmpEvRecord_t& header) {
    return U64_t{header.evInstanceNumber} << 32 | U32_t{header.evSequenceId};
}

std::string enclosureOf(const U8_t (&text)[EMP_ID_TEXT_SIZE]) {
    const char* begin = reinterpret_cast<const char*>(text);
    return {begin, strnlen(begin, sizeof(text))};
}

using Owner_t = std::pair<std::string, U32_t>; // enclosure and slot

Owner_t ownerOf(const EmpEvRecord_t& header) {
    return {enclosureOf(header.evEnclosureId), header.evSlotId};
}

bool same(const Event_t& one, const Event_t& other) {
    return std::ranges::equal(one.record.subspan(EMP_CRC_START),
                              other.record.subspan(EMP_CRC_START));
}

/** Whether ids and times of two logs contradict each other: the one with the lower ids is the later
 * one. Both are sorted, not empty and have no id in common. */
bool timesContradict(const Events_t& one, const Events_t& other) {
    const Events_t& lower = one.front().key < other.front().key ? one : other;
    const Events_t& higher = &lower == &one ? other : one;
    if (lower.back().key > higher.front().key) {
        return false; // interleaved
    }
    return lower.back().time() > higher.front().time() &&
           lower.front().time() >= higher.back().time();
}

class Salvage_t {
  public:
    Salvage_t(std::span<const EvlogSource_t> sources, const EvlogSalvageRules_t& rules)
        : sources_(sources), rules_(rules) {}

    EvlogSalvage_t run();

  private:
    void leave(const Event_t& event, EVLOG_LEFT_e reason);
    void leaveAll(const Events_t& events, EVLOG_LEFT_e reason);
    bool isWanted(const Event_t& event);
    Events_t readLog(size_t source);
    void readWaiting(size_t source);
    void decideOwner(const std::vector<Events_t>& logs);
    void joinGeneration(Events_t log);
    bool belongs(const Events_t& generation, const Events_t& log) const;
    void mergeInto(Events_t& generation, const Events_t& log);
    Events_t takeGenerations();
    Events_t largestChain(const Events_t& events);
    void append(Events_t& events, const Events_t& more);
    void dropOldest(Events_t& events);
    void beginWithOwn(Events_t& events);
    void write(const Events_t& events);
    U8_t* writeRecord(std::span<const U8_t> record);
    void writeMarks(U64_t from, U64_t to, const EmpEvRecord_t& neighbour);
    void writeDummy(const Event_t& newest);
    U8_t* writeOwnHeader(const EmpEvRecord_t& like, U16_t id);

    std::span<const EvlogSource_t> sources_;
    const EvlogSalvageRules_t& rules_;
    EvlogSalvage_t result_;
    Owner_t owner_;
    std::vector<Events_t> generations_; // in the order of the sources
    Events_t waiting_;                  // in their order
    U64_t used_ = 0;
    bool startsWithMark_ = false;
};

/** The checksum of a record whose other fields are filled in. */
void seal(U8_t* record, U32_t dataLength) {
    reinterpret_cast<EmpEvRecord_t*>(record)->evRdCRCChecksum =
        computeCRC32(record + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + dataLength);
}

void Salvage_t::leave(const Event_t& event, EVLOG_LEFT_e reason) {
    result_.left.push_back({.source = event.source,
                            .offset = event.offset,
                            .sequenceId = event.header().evSequenceId,
                            .reason = reason});
}

void Salvage_t::leaveAll(const Events_t& events, EVLOG_LEFT_e reason) {
    for (const Event_t& event : events) {
        leave(event, reason);
    }
}

bool Salvage_t::isWanted(const Event_t& event) {
    if (event.header().evStructLength > EMP_MAX_STRUCT) {
        leave(event, EVLOG_E_LEFT_LONG);
        return false;
    }
    return true;
}

/** All events of a log, sorted; also those where the event manager's own walk would not come. */
Events_t Salvage_t::readLog(size_t source) {
    std::span<const U8_t> bytes = sources_[source].bytes;
    EvlogFinder_t finder(bytes);
    Events_t events;
    std::optional<U32_t> at = finder.next(0).found;
    while (at && *at <= EMP_LOG_FILE_SIZE) {
        const EmpEvRecord_t& header = *evlogHeaderAt(bytes, *at);
        U32_t length = EMP_RECORD_SIZE + evlogBodyLength(header);
        Event_t event = {.key = keyOf(header),
                         .record = bytes.subspan(*at, length),
                         .source = source,
                         .offset = *at};
        if (!evlogIsDummy(header) && isWanted(event)) {
            events.push_back(event);
        }
        at = *at + length <= EMP_LOG_FILE_SIZE ? finder.next(*at + length).found : std::nullopt;
    }
    std::ranges::stable_sort(events, {}, &Event_t::key);
    Events_t unique;
    for (const Event_t& event : events) {
        if (unique.empty() || unique.back().key != event.key) {
            unique.push_back(event);
        } else if (!same(unique.back(), event)) {
            leave(event, EVLOG_E_LEFT_CONFLICT);
        }
    }
    return unique;
}

void Salvage_t::readWaiting(size_t source) {
    std::span<const U8_t> bytes = sources_[source].bytes;
    EvlogRecord_t found;
    if (evlogReadRecord(bytes, &found) != EVLOG_E_REASON_NONE) {
        result_.left.push_back(
            {.source = source, .offset = 0, .sequenceId = 0, .reason = EVLOG_E_LEFT_DAMAGED});
        return;
    }
    Event_t event = {.record = bytes.first(EMP_RECORD_SIZE + found.body.size()), .source = source};
    if (evlogIsDummy(*found.header)) {
        leave(event, EVLOG_E_LEFT_MARKER);
    } else if (isWanted(event)) {
        waiting_.push_back(event);
    }
}

/** The owner that most events of a log name. */
Owner_t mostlyOf(const Events_t& events) {
    std::map<Owner_t, size_t> counts;
    for (const Event_t& event : events) {
        counts[ownerOf(event.header())]++;
    }
    return std::ranges::max_element(counts, {}, [](const auto& entry) { return entry.second; })
        ->first;
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

/** Whether a log is another state of the same one, not a later or an earlier one with ids of its
 * own. */
bool Salvage_t::belongs(const Events_t& generation, const Events_t& log) const {
    size_t alike = 0;
    size_t different = 0;
    for (const Event_t& event : log) {
        auto place = std::ranges::lower_bound(generation, event.key, {}, &Event_t::key);
        if (place != generation.end() && place->key == event.key) {
            (same(*place, event) ? alike : different)++;
        }
    }
    return alike > 0 || (different == 0 && !timesContradict(generation, log));
}

void Salvage_t::mergeInto(Events_t& generation, const Events_t& log) {
    Events_t merged;
    auto own = generation.begin();
    for (const Event_t& event : log) {
        while (own != generation.end() && own->key < event.key) {
            merged.push_back(*own++);
        }
        if (own == generation.end() || own->key != event.key) {
            merged.push_back(event);
        } else if (same(*own, event)) {
            result_.repeated++;
        } else {
            leave(event, EVLOG_E_LEFT_CONFLICT);
        }
    }
    merged.insert(merged.end(), own, generation.end());
    generation = std::move(merged);
}

void Salvage_t::joinGeneration(Events_t log) {
    if (log.empty()) {
        return;
    }
    if (mostlyOf(log) != owner_) {
        leaveAll(log, EVLOG_E_LEFT_FOREIGN);
        return;
    }
    for (Events_t& generation : generations_) {
        if (belongs(generation, log)) {
            mergeInto(generation, log);
            return;
        }
    }
    generations_.push_back(std::move(log));
}

/** The generation that keeps its ids; later ones wait for new ids if that is wished. */
Events_t Salvage_t::takeGenerations() {
    if (generations_.empty()) {
        return {};
    }
    if (rules_.renumber) {
        std::ranges::stable_sort(generations_, {},
                                 [](const Events_t& events) { return events.back().time(); });
    }
    Events_t later;
    for (size_t place = 1; place < generations_.size(); place++) {
        const Events_t& events = generations_[place];
        if (rules_.renumber) {
            later.insert(later.end(), events.begin(), events.end());
        } else {
            leaveAll(events, EVLOG_E_LEFT_GENERATION);
        }
    }
    waiting_.insert(waiting_.begin(), later.begin(), later.end());
    return largestChain(generations_.front());
}

/** Ids so far apart that marks could never close the hole are of no one log: the most events, of
 * equally many the newest, are kept. */
Events_t Salvage_t::largestChain(const Events_t& events) {
    auto farApart = [](const Event_t& one, const Event_t& next) {
        return (next.key - one.key) > ROOM / EMP_RECORD_SIZE;
    };
    auto bestBegin = events.begin();
    auto bestEnd = events.begin();
    for (auto begin = events.begin(); begin != events.end();) {
        auto last = std::adjacent_find(begin, events.end(), farApart);
        auto end = last == events.end() ? last : last + 1;
        if (end - begin >= bestEnd - bestBegin) {
            bestBegin = begin;
            bestEnd = end;
        }
        begin = end;
    }
    leaveAll({events.begin(), bestBegin}, EVLOG_E_LEFT_GENERATION);
    leaveAll({bestEnd, events.end()}, EVLOG_E_LEFT_GENERATION);
    return {bestBegin, bestEnd};
}

/** Gives events new ids, as the event manager does when it replays alternate event files. */
void Salvage_t::append(Events_t& events, const Events_t& more) {
    U64_t key = events.empty() ? 0 : events.back().key; // id 0 is left for a mark
    for (Event_t event : more) {
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
    leaveAll({events.begin(), begin}, EVLOG_E_LEFT_OLDEST);
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
        leave(events.front(), EVLOG_E_LEFT_FOREIGN);
        events.erase(events.begin());
    }
}

U8_t* Salvage_t::writeRecord(std::span<const U8_t> record) {
    size_t at = result_.bytes.size();
    result_.bytes.insert(result_.bytes.end(), record.begin(), record.end());
    return result_.bytes.data() + at;
}

/** A header of the event manager's own, without data. @param like whose blade and instance it is
 */
U8_t* Salvage_t::writeOwnHeader(const EmpEvRecord_t& like, U16_t id) {
    EmpEvRecord_t header = like;
    header.evRdVersion = EMP_RECORD_VERSION;
    memcpy(header.evEnclosureId, result_.identity.enclosureId, sizeof(header.evEnclosureId));
    header.evSlotId = owner_.second;
    header.evStructLength = 0;
    header.evSource = MMSG_E_EPID_EVENTLOGMP;
    header.evType = EMP_E_TYPE_INFORMATION;
    header.evCategory = EMP_E_CATEGORY_MANAGEMENT;
    header.evIdVersion = 1;
    header.evId = id;
    return writeRecord({reinterpret_cast<const U8_t*>(&header), sizeof(header)});
}

void Salvage_t::writeMarks(U64_t from, U64_t to, const EmpEvRecord_t& neighbour) {
    for (U64_t key = from; key < to; key++) {
        U8_t* record = writeOwnHeader(neighbour, EMP_E_ID_EVENTMGRMP_CORRUPTED_EVENT_LOG_FILE);
        auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
        header.evInstanceNumber = static_cast<U32_t>(key >> 32);
        header.evSequenceId = static_cast<U32_t>(key);
        header.evType = EMP_E_TYPE_WARNING;
        header.evIdVersion = EVLOG_LOST_ID_VERSION;
        seal(record, 0);
        result_.marks++;
    }
}

void Salvage_t::writeDummy(const Event_t& newest) {
    auto left = static_cast<U32_t>(EMP_LOG_LAST_HEADER - result_.bytes.size());
    U8_t* record = writeOwnHeader(newest.header(), EMP_E_ID_EVENTMGRMP_DUMMY);
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
    header.evInstanceNumber = static_cast<U32_t>(newest.key >> 32);
    header.evSequenceId = 0;
    header.evStructLength =
        static_cast<U16_t>(std::min<U32_t>(left, static_cast<U16_t>(EMP_DUMMY_TO_END)));
    seal(record, 0);
    result_.bytes.resize(EMP_LOG_FILE_SIZE);
}

void Salvage_t::write(const Events_t& events) {
    if (events.empty()) {
        return;
    }
    result_.bytes.reserve(EMP_LOG_FILE_SIZE);
    U64_t next = events.front().key - (startsWithMark_ ? 1 : 0);
    result_.firstId = static_cast<U32_t>(next);
    result_.lastId = static_cast<U32_t>(events.back().key);
    const EmpEvRecord_t* neighbour = &events.front().header();
    for (const Event_t& event : events) {
        writeMarks(next, event.key, *neighbour);
        U8_t* record = writeRecord(event.record);
        if (keyOf(event.header()) != event.key) {
            auto& header = *reinterpret_cast<EmpEvRecord_t*>(record);
            header.evInstanceNumber = static_cast<U32_t>(event.key >> 32);
            header.evSequenceId = static_cast<U32_t>(event.key);
            seal(record, header.evStructLength);
            result_.renumbered++;
        }
        neighbour = &event.header();
        next = event.key + 1;
    }
    result_.saved = static_cast<U32_t>(events.size());
    writeDummy(events.back());
}

EvlogSalvage_t Salvage_t::run() {
    std::vector<Events_t> logs;
    for (size_t source = 0; source < sources_.size(); source++) {
        if (sources_[source].waiting) {
            readWaiting(source);
        } else {
            logs.push_back(readLog(source));
        }
    }
    decideOwner(logs);
    for (Events_t& log : logs) {
        joinGeneration(std::move(log));
    }
    Events_t events = takeGenerations();
    append(events, waiting_);
    dropOldest(events);
    beginWithOwn(events);
    write(events);
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
