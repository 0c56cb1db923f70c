#include "evctl/cursor.h"

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

void Resume::look(sources::Source& source) {
    while (std::optional<sources::Event> event = source.next()) {
        U64_t log = logOf(*event);
        const LogMark* mark = markFor(*event, log);
        if (mark == nullptr) {
            continue;
        }
        LogMark found = markOf(*event->view.header);
        Seen& seen = seen_[{event->origin, log}];
        bool inPlace = found.instance == mark->instance && found.sequenceId == mark->sequenceId;
        seen.mark = seen.mark || found == *mark;
        seen.other = seen.other || (inPlace && found != *mark);
        seen.behind = seen.behind ||
                      (found.instance == mark->instance && found.sequenceId > mark->sequenceId);
        seen.newest = std::max(seen.newest, found.time);
    }
    source.rewind();
}

bool Resume::Seen::hasBegunAgain(const LogMark& marked) const {
    // What only ends before the mark may also be an older state of the same log.
    return !mark && (other || (!behind && newest > marked.time));
}

bool Resume::wants(const sources::Event& event) const {
    U64_t log = logOf(event);
    const LogMark* mark = markFor(event, log);
    auto seen = seen_.find({event.origin, log});
    if (mark == nullptr || (seen != seen_.end() && seen->second.hasBegunAgain(*mark))) {
        return true;
    }
    LogMark found = markOf(*event.view.header);
    if (found.instance != mark->instance) {
        return found.instance > mark->instance;
    }
    return found.sequenceId > mark->sequenceId || (inclusive_ && found == *mark);
}

} // namespace evctl
