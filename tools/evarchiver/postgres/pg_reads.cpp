#include "pg_reads.h"

#include "event_row.h"
#include "log_number.h"
#include "pg_statements.h"

namespace evarchive {
namespace {

// Ids that a walk along a run looks at: few at first, since most begin near the run's end.
constexpr S64_t FIRST_RUN_PAGE = 64;
constexpr S64_t RUN_PAGE = 4096;
constexpr S64_t EVENT_PAGE = 1000;

// Logs whose keys are kept by heart at most.
constexpr std::size_t KNOWN_KEYS = 200'000;

PgParameters parametersOf(const GenerationKey& generation) {
    PgParameters parameters;
    parameters.integer(generation.series).integer(generation.generation);
    return parameters;
}

} // namespace

GenerationInfo generationOf(const PgRows& rows, int row, int column, SeriesNumber series) {
    GenerationInfo info;
    info.number = {series, static_cast<U32_t>(rows.integer(row, column))};
    info.opened = rows.time(row, column + 1);
    info.duplicates = static_cast<U64_t>(rows.integer(row, column + 2));
    if (!rows.isNull(row, column + 3)) {
        info.proven = IdRun{static_cast<U32_t>(rows.integer(row, column + 3)),
                            static_cast<U32_t>(rows.integer(row, column + 4))};
    }
    if (!rows.isNull(row, column + 5)) {
        info.oldest = static_cast<U32_t>(rows.integer(row, column + 5));
    }
    return info;
}

SeriesNumber PgReads::numberOf(const SeriesKey& key, bool& isKnown) {
    isKnown = true;
    if (const auto known = numbers_.find(key); known != numbers_.end()) {
        return known->second;
    }
    const Bytes identity = identityOf(key);
    for (U8_t salt = 0; salt < MOST_SALTS; ++salt) {
        const SeriesNumber number = logNumber(identity, salt);
        const PgRows rows = connection_.run(pg::IDENTITY, PgParameters().integer(number));
        if (rows.count() == 0) {
            isKnown = false;
            return number;
        }
        if (rows.bytes(0, 0) == identity) {
            remember(number, key);
            return number;
        }
    }
    throw StoreError("too many logs have the same number");
}

SeriesNumber PgReads::likelyNumberOf(const SeriesKey& key) const {
    const auto known = numbers_.find(key);
    return known != numbers_.end() ? known->second : logNumber(identityOf(key));
}

void PgReads::remember(SeriesNumber number, const SeriesKey& key) {
    if (numbers_.size() >= KNOWN_KEYS) {
        forget();
    }
    numbers_.emplace(key, number);
    keys_.emplace(number, key);
}

const SeriesKey& PgReads::keyOf(SeriesNumber series) {
    const auto known = keys_.find(series);
    if (known != keys_.end()) {
        return known->second;
    }
    const PgRows rows = connection_.run(pg::IDENTITY, PgParameters().integer(series));
    if (rows.count() == 0) {
        throw StoreError("the archive has no log of number " + std::to_string(series));
    }
    return keys_.emplace(series, keyOfIdentity(rows.bytes(0, 0))).first->second;
}

void PgReads::forget() {
    keys_.clear();
    numbers_.clear();
}

void PgReads::forget(SeriesNumber series) {
    const auto known = keys_.find(series);
    if (known != keys_.end()) {
        numbers_.erase(known->second);
        keys_.erase(known);
    }
}

StoredEvent PgReads::eventOf(const PgRows& rows, int row, const SeriesKey& key) {
    EventRow event;
    event.sequenceId = static_cast<U32_t>(rows.integer(row, 0));
    event.time = static_cast<U32_t>(rows.time(row, 1));
    event.event = static_cast<U16_t>(rows.integer(row, 3));
    event.source = static_cast<U8_t>(rows.integer(row, 4));
    event.type = static_cast<U8_t>(rows.integer(row, 5));
    event.category = static_cast<U8_t>(rows.integer(row, 6));
    event.idVersion = static_cast<U8_t>(rows.integer(row, 7));
    if (!rows.isNull(row, 10)) {
        event.head = rows.bytes(row, 10);
    }
    event.data = rows.bytes(row, 11);
    return {event.sequenceId, rows.integer(row, 8) != 0, imageOfRow(event, key),
            rows.integer(row, 9) != 0, rows.time(row, 2)};
}

std::optional<StoredEvent> PgReads::oneEvent(const PgRows& rows, SeriesNumber series) {
    return rows.count() > 0 ? std::optional(eventOf(rows, 0, keyOf(series))) : std::nullopt;
}

PgRows PgReads::ask(const PgStatement& statement, const GenerationKey& generation, S64_t id) {
    return connection_.run(statement, parametersOf(generation).integer(id));
}

std::optional<StoredEvent> PgReads::findEvent(const GenerationKey& generation,
                                              EMP_INQUIRY_TYPE_e type, U32_t id) {
    const auto& statement = pg::FIND[static_cast<std::size_t>(type - EMP_E_INQUIRY_TYPE_FIRST)];
    return oneEvent(ask(statement, generation, id), generation.series);
}

std::optional<StoredEvent> PgReads::heldEvent(const GenerationKey& generation, U32_t id) {
    return oneEvent(ask(pg::HELD, generation, id), generation.series);
}

std::vector<StoredEvent> PgReads::heldEvents(const GenerationKey& generation, U32_t first,
                                             U32_t count) {
    const S64_t from = first;
    const PgRows rows =
        count == 1 ? ask(pg::HELD, generation, from)
                   : connection_.run(pg::HELD_RANGE,
                                     parametersOf(generation).integer(from).integer(from + count));
    std::vector<StoredEvent> held;
    for (int row = 0; row < rows.count(); ++row) {
        held.push_back(eventOf(rows, row, keyOf(generation.series)));
    }
    return held;
}

std::optional<StoredEvent> PgReads::oldestEvent(const GenerationKey& generation) {
    return oneEvent(connection_.run(pg::OLDEST, parametersOf(generation)), generation.series);
}

std::optional<U32_t> PgReads::highestId(const GenerationKey& generation) {
    const PgRows rows = connection_.run(pg::HIGHEST, parametersOf(generation));
    return rows.count() > 0 ? std::optional(static_cast<U32_t>(rows.integer(0, 0))) : std::nullopt;
}

U32_t PgReads::endOfRun(const GenerationKey& generation, U32_t from) {
    S64_t last = S64_t{from} - 1;
    for (S64_t size = FIRST_RUN_PAGE;; size = std::min(8 * size, RUN_PAGE)) {
        const S64_t first = last + 1;
        PgParameters page = parametersOf(generation);
        const PgRows rows = connection_.run(pg::RUN_END, page.integer(first).integer(first + size));
        if (rows.isNull(0, 0)) {
            break;
        }
        last = rows.integer(0, 0);
        if (last < first + size - 1) {
            break;
        }
    }
    return static_cast<U32_t>(std::max(last, S64_t{0})); // it may have gone since somebody saw it
}

bool PgReads::isHeld(SeriesNumber series, View image) {
    const U32_t id = imageOf<EmpEvLogHeader_t>(image).evSequenceId;
    const PgRows rows =
        connection_.run(pg::HELD_ANYWHERE, PgParameters().integer(series).integer(id));
    for (int row = 0; row < rows.count(); ++row) {
        if (std::ranges::equal(eventOf(rows, row, keyOf(series)).image, image)) {
            return true;
        }
    }
    return false;
}

U32_t PgReads::droppedBefore() {
    const PgRows rows = connection_.run(pg::DROPPED);
    return rows.count() > 0 ? static_cast<U32_t>(rows.integer(0, 0)) : 0;
}

U64_t PgReads::rowCount() {
    return static_cast<U64_t>(connection_.run(pg::COUNT).integer(0, 0));
}

U64_t PgReads::bytesUsed() {
    return static_cast<U64_t>(connection_.run(pg::SIZE).integer(0, 0));
}

std::vector<GenerationInfo> PgReads::listGenerations() {
    const PgRows rows = connection_.run(pg::GENERATIONS);
    std::vector<GenerationInfo> list;
    for (int row = 0; row < rows.count(); ++row) {
        GenerationInfo info = generationOf(rows, row, 2, rows.integer(row, 0));
        info.key = keyOfIdentity(rows.bytes(row, 1));
        list.push_back(std::move(info));
    }
    std::ranges::sort(list, [](const GenerationInfo& left, const GenerationInfo& right) {
        return std::tie(left.key, left.number.generation) <
               std::tie(right.key, right.number.generation);
    });
    return list;
}

void PgReads::forEachRun(const GenerationKey& generation, U32_t from,
                         const std::function<void(const IdRun&)>& take) {
    const PgRows rows = ask(pg::RUNS, generation, from);
    for (int row = 0; row < rows.count(); ++row) {
        take({static_cast<U32_t>(rows.integer(row, 0)), static_cast<U32_t>(rows.integer(row, 1))});
    }
}

std::vector<StoredEvent> PgReads::eventsBehind(const GenerationKey& generation,
                                               std::optional<U32_t> id, std::size_t most) {
    const SeriesKey key = keyOf(generation.series);
    const S64_t behind = id ? S64_t{*id} : -1;
    const PgRows rows = connection_.run(
        pg::OWN_PAGE, parametersOf(generation).integer(behind).integer(static_cast<S64_t>(most)));
    std::vector<StoredEvent> events;
    for (int row = 0; row < rows.count(); ++row) {
        events.push_back(eventOf(rows, row, key));
    }
    return events;
}

void PgReads::forEachEvent(const GenerationKey& generation,
                           const std::function<void(const StoredEvent&)>& take) {
    const SeriesKey key = keyOf(generation.series);
    S64_t before = -1;
    for (;;) {
        const PgRows rows =
            connection_.run(pg::PAGE, parametersOf(generation).integer(before).integer(EVENT_PAGE));
        for (int row = 0; row < rows.count(); ++row) {
            const StoredEvent event = eventOf(rows, row, key);
            before = event.sequenceId;
            take(event);
        }
        if (rows.count() < EVENT_PAGE) {
            return;
        }
    }
}

void PgReads::forEachAside(const std::function<void(const AsideEvent&)>& take) {
    const PgRows rows = connection_.run(pg::ASIDES);
    for (int row = 0; row < rows.count(); ++row) {
        take({keyOfIdentity(rows.bytes(row, 0)), static_cast<U32_t>(rows.integer(row, 1)),
              static_cast<Aside>(rows.integer(row, 2)), rows.time(row, 3), rows.bytes(row, 4)});
    }
}

} // namespace evarchive
