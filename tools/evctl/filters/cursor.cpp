#include "evctl/filters/cursor.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstring>
#include <string_view>

namespace evctl {
namespace {

constexpr std::string_view CURSOR_START = "c1:";

class Hash {
  public:
    void take(const void* bytes, size_t count) {
        for (size_t at = 0; at < count; at++) {
            value_ = (value_ ^ static_cast<const U8_t*>(bytes)[at]) * 0x100000001B3U;
        }
    }
    void takeText(const U8_t (&field)[EMP_ID_TEXT_SIZE]) {
        take(field, strnlen(reinterpret_cast<const char*>(field), sizeof(field)));
        take("", 1);
    }
    U64_t value() const { return value_; }

  private:
    U64_t value_ = 0xCBF29CE484222325U;
};

template <typename Number>
bool takeHex(std::string_view& text, Number& number) {
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    text.remove_prefix(static_cast<size_t>(stop - text.data()));
    return error == std::errc();
}

bool takeMark(std::string_view& text, char mark) {
    bool isThere = text.starts_with(mark);
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

U64_t logOf(const sources::Event& event) {
    bool isCopy = event.origin != nullptr && event.origin->kind == sources::Kind::DAMAGED_COPY;
    return logNumber(*event.view.header, isCopy);
}

bool isOfArchive(const sources::Event& event) {
    return event.origin != nullptr && event.origin->kind == sources::Kind::ARCHIVE;
}

/** Whether a log counted @p id behind @p other; behind 2^32 - 1 comes 0. */
bool isCountedBehind(U32_t id, U32_t other) {
    return static_cast<S32_t>(id - other) > 0;
}

/** Whether an event must be newer than a mark whose own event is not with it.
 * @param onlyRising instances only rise; else one that fell back has counted on all the same */
bool isNewer(const LogMark& event, const LogMark& mark, bool onlyRising) {
    return event.instance > mark.instance || ((event.instance == mark.instance || !onlyRising) &&
                                              isCountedBehind(event.sequenceId, mark.sequenceId));
}

bool hasNoOrder(const sources::Event& event) {
    return event.origin != nullptr && event.origin->kind == sources::Kind::ALTERNATE;
}

} // namespace

U64_t logNumber(const EmpEvLogHeader_t& header, bool isCopy) {
    Hash hash;
    hash.takeText(header.evEnclosureId);
    hash.takeText(header.evBladeId);
    hash.take(&header.evSlotId, sizeof(header.evSlotId));
    hash.take(isCopy ? "c" : "l", 1);
    return hash.value();
}

LogMark markOf(const EmpEvLogHeader_t& header) {
    return {header.evInstanceNumber, header.evSequenceId, header.evTime};
}

U64_t fileNumber(const std::string& name, S64_t modified) {
    Hash hash;
    hash.take(name.c_str(), name.size() + 1);
    const std::string time = std::to_string(modified);
    hash.take(time.data(), time.size());
    hash.take("f", 1);
    return hash.value();
}

std::string lostMarkText(const LogMark& mark, const std::string& shown) {
    return "event " + std::to_string(mark.sequenceId) + " of instance " +
           std::to_string(mark.instance) + ", where the cursor stands, is not there; " + shown;
}

std::optional<Cursor> Cursor::parse(const std::string& text) {
    std::string_view rest = text;
    if (!rest.starts_with(CURSOR_START)) {
        return std::nullopt;
    }
    rest.remove_prefix(CURSOR_START.size());
    Cursor cursor;
    while (!rest.empty()) {
        U64_t log = 0;
        LogMark mark;
        bool good = (cursor.empty() || takeMark(rest, ',')) && takeHex(rest, log) &&
                    takeMark(rest, '.') && takeHex(rest, mark.instance) && takeMark(rest, '.') &&
                    takeHex(rest, mark.sequenceId) && takeMark(rest, '.') &&
                    takeHex(rest, mark.time);
        if (!good) {
            return std::nullopt;
        }
        cursor.marks_[log] = mark;
    }
    return cursor;
}

std::string Cursor::text() const {
    std::string text(CURSOR_START);
    for (const auto& [log, mark] : marks_) {
        std::array<char, 64> part{};
        snprintf(part.data(), part.size(), "%016" PRIx64 ".%x.%x.%x", log, mark.instance,
                 mark.sequenceId, mark.time);
        text.append(text.size() > CURSOR_START.size() ? "," : "").append(part.data());
    }
    return text;
}

void Cursor::moveTo(const sources::Event& event) {
    if (!hasNoOrder(event)) {
        marks_[logOf(event)] = markOf(*event.view.header);
    }
}

const LogMark* Cursor::find(U64_t log) const {
    auto found = marks_.find(log);
    return found == marks_.end() ? nullptr : &found->second;
}

const LogMark* Resume::markFor(const sources::Event& event, U64_t log) const {
    return hasNoOrder(event) ? nullptr : cursor_.find(log);
}

void Resume::look(const sources::Event& event) {
    const U64_t log = logOf(event);
    const LogMark* mark = markFor(event, log);
    if (mark == nullptr) {
        return;
    }
    const LogMark found = markOf(*event.view.header);
    Seen& seen = seen_[{event.origin, log}];
    if (found == *mark) {
        seen.mark = event.position;
        found_.insert(log);
    } else if (found.instance == mark->instance && found.sequenceId == mark->sequenceId) {
        seen.other = true;
    }
    seen.newer = seen.newer || isNewer(found, *mark, isOfArchive(event));
    seen.rising = seen.rising || isNewer(found, *mark, true);
    seen.newest = std::max(seen.newest, found.time);
}

void Resume::look(sources::Source& source) {
    while (std::optional<sources::Event> event = source.next()) {
        look(*event);
    }
    source.rewind();
}

Resume::Standing Resume::standingOf(const Place& place, const Seen& seen) const {
    if (seen.mark) {
        return Standing::FOUND;
    }
    if (seen.other) {
        return Standing::REPLACED;
    }
    // Beside the mark's own log an earlier instance is a copy of before.
    const bool isElsewhere = found_.contains(place.second);
    if (isElsewhere ? seen.rising : seen.newer) {
        return Standing::GONE;
    }
    const LogMark& mark = *cursor_.find(place.second);
    return isElsewhere && seen.newest <= mark.time ? Standing::OLDER : Standing::UNKNOWN;
}

bool Resume::wants(const sources::Event& event) const {
    const U64_t log = logOf(event);
    const LogMark* mark = markFor(event, log);
    const Place place = {event.origin, log};
    auto seen = seen_.find(place);
    if (mark == nullptr || seen == seen_.end()) {
        return true;
    }
    const LogMark found = markOf(*event.view.header);
    switch (standingOf(place, seen->second)) {
    case Standing::FOUND:
        break;
    case Standing::GONE:
        return isNewer(found, *mark, isOfArchive(event) || found_.contains(log));
    case Standing::OLDER:
        return false;
    default:
        return true;
    }
    if (isOfArchive(event) && event.position != *seen->second.mark) {
        return event.position > *seen->second.mark; // generations
    }
    return found == *mark ? inclusive_ : isCountedBehind(found.sequenceId, mark->sequenceId);
}

std::vector<std::string> Resume::notes() const {
    std::vector<std::string> notes;
    for (const auto& [place, seen] : seen_) {
        const Standing standing = standingOf(place, seen);
        const LogMark& mark = *cursor_.find(place.second);
        const std::string name =
            place.first == nullptr || place.first->name.empty() ? "" : place.first->name + ": ";
        if (standing == Standing::REPLACED || standing == Standing::UNKNOWN) {
            notes.push_back(name + lostMarkText(mark, "all of its log is shown"));
        } else if (standing == Standing::GONE && !found_.contains(place.second)) {
            notes.push_back(name + lostMarkText(mark, "what is newer is shown"));
        }
    }
    return notes;
}

} // namespace evctl
