/** Events of an archive that is an SQLite file. */
#include "http.h"
#include "sqlite_view.h"

#include <algorithm>

namespace evweb {
namespace {

constexpr char BY_ARRIVAL = 'a'; // state of the file, row

// Rows behind the newest that are looked at again: an event that turned out to be damaged makes
// room for the true one, under the same number.
constexpr U32_t ROWS_AGAIN = 64;

Position positionOf(const SqliteReading& reading, S64_t row) {
    return {BY_ARRIVAL, {reading.state().schema, row}};
}

S64_t rowOf(const SqliteReading& reading, const Position& position) {
    if (position.kind != BY_ARRIVAL || position.numbers.size() != 2) {
        throw Refusal(400, "'" + position.text() + "' is no place in a search of all logs");
    }
    if (position.numbers[0] != reading.state().schema) {
        throw Refusal(400, "the archive was rewritten since: begin the search anew");
    }
    return position.numbers[1];
}

bool isFull(const Page& page, const Search& search) {
    return page.events.size() >= search.limit;
}

/** What is wanted of a generation, from an id downwards. @return the id to go on below; nothing at
 * its end */
std::optional<S64_t> takeOlder(SqliteReading& reading, const Search& search,
                               const GenerationKey& key, S64_t below, Page& page) {
    SqliteStatement row(reading.database(), sqlite_sql::OLDER);
    withSieve(row, key.series, key.generation, below, search);
    for (U32_t seen = 1; row.step(); ++seen) {
        below = row.integer(2);
        if (isWanted(row, search)) {
            page.events.push_back(foundEvent(row));
        }
        page.isCut = seen % ROWS_BETWEEN_LOOKS == 0 && reading.isOver();
        if (page.isCut || isFull(page, search)) {
            return below;
        }
    }
    return std::nullopt;
}

std::vector<U32_t> generationsFrom(SqliteReading& reading, S64_t log, const Search& search) {
    std::vector<U32_t> generations;
    const S64_t newest = search.before ? IdPlace::of(*search.before).generation : INT64_MAX;
    SqliteStatement row(reading.database(), sqlite_sql::GENERATIONS);
    row.with(log);
    while (row.step()) {
        const U32_t generation = row.id(0);
        if (generation <= newest && search.generation.value_or(generation) == generation) {
            generations.push_back(generation);
        }
    }
    return generations;
}

/** A bit for each number; all bits for any, and for those that have none. */
S64_t maskOf(const std::vector<U32_t>& wanted) {
    constexpr U32_t mostBits = 63; // the sign must not be set by one
    S64_t bits = wanted.empty() ? -1 : 0;
    for (const U32_t number : wanted) {
        bits = number < mostBits && bits >= 0 ? bits | S64_t{1} << number : -1;
    }
    return bits;
}

bool isIn(const std::vector<S64_t>& logs, S64_t log) {
    return logs.empty() || std::ranges::binary_search(logs, log);
}

/** Whether what is known of a zone may tell by itself what a search finds in it. */
bool needsNoLook(const Search& search, const LogsWanted& wanted, const Needs& needs) {
    return wanted.isAll && search.text.empty() && !search.filter.firstSequenceId &&
           !search.filter.lastSequenceId && needs.isExact;
}

bool countZone(const Zone& zone, const Needs& needs, Timeline& timeline) {
    if (needs.isAnyKind && timeline.width % 60 == 0 && timeline.since % 60 == 0) {
        zone.countInto(timeline, needs.types);
        return true;
    }
    return zone.countKindsInto(timeline, needs);
}

void countRow(const SqliteStatement& row, const Search& search, Timeline& timeline) {
    if (isWanted(row, search)) {
        timeline.count(row.id(4), typeIndex(row.id(6)));
    }
}

void countLog(SqliteReading& reading, const Search& search, S64_t log, Timeline& timeline) {
    for (const U32_t generation : generationsFrom(reading, log, search)) {
        SqliteStatement row(reading.database(), sqlite_sql::OLDER);
        withSieve(row, log, generation, S64_t{UINT32_MAX} + 1, search);
        for (U32_t seen = 1; row.step(); ++seen) {
            countRow(row, search, timeline);
            if (seen % ROWS_BETWEEN_LOOKS == 0 && reading.isOver()) {
                timeline.isCut = true;
                return;
            }
        }
    }
}

const Zone* zoneAt(const Survey::Zones& zones, S64_t number) {
    return number < std::ssize(zones) ? zones[static_cast<std::size_t>(number)].get() : nullptr;
}

} // namespace

EmpEvLogHeader_t headerOf(const SqliteStatement& row) {
    EmpEvLogHeader_t header{};
    header.evSequenceId = row.id(2);
    header.evTime = row.id(4);
    header.evSource = static_cast<U8_t>(row.id(5));
    header.evType = static_cast<U8_t>(row.id(6));
    header.evCategory = static_cast<U8_t>(row.id(7));
    header.evId = static_cast<U16_t>(row.id(8));
    return header;
}

FoundEvent foundEvent(const SqliteStatement& row) {
    return {row.integer(0),
            row.id(1),
            {row.id(2), row.integer(3) != 0, row.bytes(10), row.integer(11) != 0, row.integer(12)}};
}

void withSieve(SqliteStatement& row, S64_t first, S64_t second, S64_t third, const Search& search) {
    const evctl::EventFilter& filter = search.filter;
    row.with(first, second, third, maskOf(filter.types), maskOf(filter.sources),
             filter.since.value_or(0), filter.until.value_or(UINT32_MAX),
             filter.ids.size() == 1 ? S64_t{filter.ids.front()} : S64_t{-1});
}

bool isWanted(const SqliteStatement& row, const Search& search) {
    if (row.integer(3) == 0 || !search.matches(headerOf(row))) {
        return false;
    }
    if (search.text.empty()) {
        return true;
    }
    const evarchive::Bytes image = row.bytes(10);
    return evarchive::isWholeEvent(image) && search.holdsText(sources::eventOf(image));
}

LogsWanted logsWanted(SqliteReading& reading, const Search& search) {
    LogsWanted wanted;
    const sources::LogChoice& choice = search.filter.logs;
    if (!search.log && !choice.enclosure && !choice.blade && !choice.slot && !choice.instance) {
        return wanted;
    }
    wanted.isAll = false;
    SqliteStatement row(reading.database(), sqlite_sql::ALL_LOGS);
    while (row.step()) {
        if (search.log.value_or(row.integer(0)) == row.integer(0) &&
            (!choice.enclosure || *choice.enclosure == shownName(row.text(1))) &&
            (!choice.blade || *choice.blade == shownName(row.text(2))) &&
            choice.slot.value_or(row.id(3)) == row.id(3) &&
            choice.instance.value_or(row.id(4)) == row.id(4)) {
            wanted.logs.push_back(row.integer(0));
        }
    }
    std::ranges::sort(wanted.logs);
    return wanted;
}

Page SqliteView::search(const Search& search) {
    SqliteReading reading(path_, patience_);
    const LogsWanted wanted = logsWanted(reading, search);
    Search within = search;
    within.filter.logs = {}; // seen to by the logs' numbers
    if (!wanted.isAll && wanted.logs.size() <= 1) {
        return wanted.logs.empty() ? Page() : searchLog(reading, within, wanted.logs.front());
    }
    return searchArrivals(reading, within, wanted.logs);
}

Page SqliteView::searchLog(SqliteReading& reading, const Search& search, S64_t log) {
    Page page;
    for (const U32_t generation : generationsFrom(reading, log, search)) {
        S64_t below = S64_t{UINT32_MAX} + 1;
        if (search.before && IdPlace::of(*search.before).generation == generation) {
            below = IdPlace::of(*search.before).id;
        }
        if (const auto left = takeOlder(reading, search, {log, generation}, below, page)) {
            page.next = IdPlace{generation, *left}.position();
            return page;
        }
    }
    return page;
}

Page SqliteView::searchArrivals(SqliteReading& reading, const Search& search,
                                const std::vector<S64_t>& logs) {
    Page page;
    const Survey::Zones zones = survey_.zones(reading.state());
    const Needs needs = needsOf(search.filter, logs);
    const S64_t first = reading.firstRow();
    S64_t end = search.before ? rowOf(reading, *search.before) : reading.lastRow() + 1;
    SqliteStatement row(reading.database(), sqlite_sql::ARRIVALS);
    while (end > first && first > 0) {
        const S64_t number = (end - 1) / ZONE_ROWS;
        const Zone* zone = zoneAt(zones, number);
        if (zone == nullptr || zone->mayHold(needs)) {
            withSieve(row, number * ZONE_ROWS, end, 0, search);
            while (!isFull(page, search) && row.step()) {
                if (isIn(logs, row.integer(0)) && isWanted(row, search)) {
                    page.events.push_back(foundEvent(row));
                    end = row.integer(9);
                }
            }
            row.reset();
        }
        page.isCut = !isFull(page, search) && reading.isOver();
        end = isFull(page, search) ? end : number * ZONE_ROWS;
        if ((page.isCut || isFull(page, search)) && end > first) {
            page.next = positionOf(reading, end);
            return page;
        }
        if (isFull(page, search)) {
            break;
        }
    }
    page.isCut = false;
    return page;
}

Page SqliteView::around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) {
    SqliteReading reading(path_, patience_);
    Search search{.log = log, .generation = generation, .limit = reach};
    const std::vector<U32_t> generations = generationsFrom(reading, log, search);
    if (generations.empty()) {
        throw Refusal(404, "the archive has no such log");
    }
    const GenerationKey key{log, generations.front()};
    Page page;
    SqliteStatement row(reading.database(), sqlite_sql::NEWER);
    row.with(key.series, key.generation, id);
    while (page.events.size() <= reach && row.step()) {
        if (isWanted(row, search)) {
            page.events.push_back(foundEvent(row));
        }
    }
    row.reset();
    std::ranges::reverse(page.events);
    search.limit += static_cast<U32_t>(page.events.size());
    if (const auto left = takeOlder(reading, search, key, id, page)) {
        page.next = IdPlace{key.generation, *left}.position();
    }
    return page;
}

std::optional<FoundEvent> SqliteView::event(S64_t log, U32_t generation, U32_t id) {
    SqliteReading reading(path_, patience_);
    SqliteStatement row(reading.database(), sqlite_sql::ONE);
    return row.with(log, generation, id).step() ? std::optional(foundEvent(row)) : std::nullopt;
}

Tail SqliteView::tail(const Search& search, const std::optional<Position>& after) {
    Tail tail;
    if (!after) {
        Page page = this->search(search);
        SqliteReading reading(path_, patience_);
        std::ranges::reverse(page.events);
        return {std::move(page.events), positionOf(reading, reading.lastRow())};
    }
    SqliteReading reading(path_, patience_);
    const LogsWanted wanted = logsWanted(reading, search);
    Search within = search;
    within.filter.logs = {};
    const bool isAnyWanted = wanted.isAll && search.text.empty() && within.filter.isEmpty();
    const S64_t newest = reading.lastRow();
    const S64_t seen = std::min(rowOf(reading, *after), newest);
    U64_t skipped = 0;
    bool isInTime = true;
    SqliteStatement found(reading.database(), sqlite_sql::ARRIVALS_DOWN);
    found.with(std::max<S64_t>(0, seen - S64_t{ROWS_AGAIN}));
    for (U32_t looks = 1; isInTime && found.step(); ++looks) {
        const bool isFull = tail.events.size() >= search.limit;
        const S64_t row = found.integer(9);
        if (isFull && (isAnyWanted || row <= seen)) {
            skipped += isAnyWanted ? static_cast<U64_t>(std::max<S64_t>(0, row - seen)) : 0;
            break;
        }
        const bool isOfLog =
            wanted.isAll || std::ranges::binary_search(wanted.logs, found.integer(0));
        if (isOfLog && isWanted(found, within)) {
            if (isFull) {
                ++skipped;
            } else {
                tail.events.push_back(foundEvent(found));
            }
        }
        isInTime = looks % ROWS_BETWEEN_LOOKS != 0 || !reading.isOver();
    }
    std::ranges::reverse(tail.events);
    tail.skipped = isInTime ? std::optional(skipped) : std::nullopt;
    tail.position = positionOf(reading, newest);
    return tail;
}

void SqliteView::count(const Search& search, Timeline& timeline) {
    SqliteReading reading(path_, patience_);
    const LogsWanted wanted = logsWanted(reading, search);
    Search within = search;
    within.filter.logs = {};
    within.filter.since = timeline.since;
    within.filter.until = timeline.end();
    if (!wanted.isAll && wanted.logs.size() <= 1) {
        if (!wanted.logs.empty()) {
            countLog(reading, within, wanted.logs.front(), timeline);
        }
        return;
    }
    const Needs needs = needsOf(within.filter, wanted.logs);
    const bool isByZone = needsNoLook(within, wanted, needs);
    const Survey::Zones zones = survey_.zones(reading.state());
    const S64_t first = reading.firstRow();
    const S64_t last = reading.lastRow();
    SqliteStatement row(reading.database(), sqlite_sql::ARRIVALS);
    for (S64_t number = last / ZONE_ROWS; first > 0 && number >= first / ZONE_ROWS; --number) {
        const Zone* zone = zoneAt(zones, number);
        if (zone != nullptr && !zone->mayHold(needs)) {
            continue;
        }
        if (zone != nullptr && isByZone && countZone(*zone, needs, timeline)) {
            continue;
        }
        withSieve(row, number * ZONE_ROWS, (number + 1) * ZONE_ROWS, 0, within);
        while (row.step()) {
            if (isIn(wanted.logs, row.integer(0))) {
                countRow(row, within, timeline);
            }
        }
        row.reset();
        if (reading.isOver()) {
            timeline.isCut = number > first / ZONE_ROWS;
            return;
        }
    }
}

} // namespace evweb
