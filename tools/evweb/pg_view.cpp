#include "pg_view.h"

#include "http.h"
#include "postgres/event_row.h"

#include <algorithm>
#include <ctime>

namespace evweb {
namespace {

using evarchive::PgError;

constexpr char BY_ARRIVAL = 'p'; // second, log, generation, id
constexpr char BY_ID = 'i';      // generation, id
constexpr char TOO_LONG[] = "57014";
constexpr char SET_UP[] =
    "SET default_transaction_read_only = on; SET plan_cache_mode = force_custom_plan;"
    "SET application_name = evweb";

constexpr S64_t FIRST_STRETCH = 60; // seconds that a search looks back at first
constexpr S64_t STRETCH_GROWTH = 8;
constexpr U32_t TEXT_PAGE = 500; // rows that are looked through at a time
constexpr S64_t LATELY = 3600;
// Seconds that a tail looks back: commits of one second end in the next ones, and events bear the
// time of their archiver.
constexpr S64_t TAIL_AGAIN = 10;
// Of a connection: its server keeps each form of a question.
constexpr U32_t MOST_USES = 500;
constexpr std::size_t TAIL_ROWS = 1000;
constexpr S64_t IDS_LOOKED_AT = 20'000;
constexpr std::size_t MOST_RUNS = 500;
constexpr U32_t MOST_GENERATIONS = 50;

constexpr char EVENTS[] = "SELECT log, generation, id, time, source, type, category, event, "
                          "idversion, own, doubtful, data, received, enclosure, blade, slot, "
                          "instance FROM event_list WHERE own";
constexpr char LOGS[] = "SELECT log, enclosure, blade, slot, instance, generation, opened, "
                        "duplicates, run_first, run_last, seen, "
                        // Archives of earlier archivers do not have it.
                        "(to_jsonb(blade_list) ->> 'ring_first')::bigint "
                        "FROM blade_list WHERE true";

evarchive::SeriesKey keyOf(const PgRows& rows, int row, int column) {
    return {{bytesOfName(rows.text(row, column)), bytesOfName(rows.text(row, column + 1)),
             static_cast<U32_t>(rows.integer(row, column + 2))},
            static_cast<U32_t>(rows.integer(row, column + 3))};
}

FoundEvent foundEvent(const PgRows& rows, int row) {
    evarchive::EventRow event;
    event.sequenceId = static_cast<U32_t>(rows.integer(row, 2));
    event.time = static_cast<U32_t>(rows.time(row, 3));
    event.source = static_cast<U8_t>(rows.integer(row, 4));
    event.type = static_cast<U8_t>(rows.integer(row, 5));
    event.category = static_cast<U8_t>(rows.integer(row, 6));
    event.event = static_cast<U16_t>(rows.integer(row, 7));
    event.idVersion = static_cast<U8_t>(rows.integer(row, 8));
    event.data = rows.bytes(row, 11);
    return {rows.integer(row, 0),
            static_cast<U32_t>(rows.integer(row, 1)),
            {event.sequenceId, rows.integer(row, 9) != 0,
             evarchive::imageOfRow(event, keyOf(rows, row, 13)), rows.integer(row, 10) != 0,
             rows.time(row, 12)}};
}

S64_t numberOr(const PgRows& rows, int row, int column, S64_t other) {
    return rows.isNull(row, column) ? other : rows.integer(row, column);
}

LogInfo infoOf(const PgRows& rows, int row) {
    LogInfo info{.log = rows.integer(row, 0), .key = keyOf(rows, row, 1)};
    info.generation = static_cast<U32_t>(rows.integer(row, 5));
    info.opened = rows.isNull(row, 6) ? -1 : rows.time(row, 6);
    info.duplicates = static_cast<U64_t>(numberOr(rows, row, 7, 0));
    if (!rows.isNull(row, 10)) {
        info.seen = rows.time(row, 10);
    }
    if (!rows.isNull(row, 11)) {
        info.ringFirst = static_cast<U32_t>(rows.integer(row, 11));
    }
    return info;
}

/** A place among all events, in front of those that are older. */
struct Place {
    S64_t second;
    S64_t log = INT64_MAX;
    S64_t generation = INT64_MAX;
    S64_t id = INT64_MAX;

    Position position() const { return {BY_ARRIVAL, {second, log, generation, id}}; }
};

Place placeOf(const Position& position) {
    if (position.kind != BY_ARRIVAL || position.numbers.size() != 4) {
        throw Refusal(400, "'" + position.text() + "' is no place in a search of all logs");
    }
    const auto& numbers = position.numbers;
    return {std::clamp<S64_t>(numbers[0], 0, UINT32_MAX), numbers[1], numbers[2], numbers[3]};
}

Place placeOf(const FoundEvent& event) {
    return {event.event.received, event.log, event.generation, event.event.sequenceId};
}

Place placeInLog(const Position& position) {
    if (position.kind != BY_ID || position.numbers.size() != 2) {
        throw Refusal(400, "'" + position.text() + "' is no place in one log");
    }
    return {0, 0, position.numbers[0], position.numbers[1]};
}

bool isTooLong(const PgError& error) {
    return error.state() == TOO_LONG;
}

/** Does something that may be left out. @return false when there was no time for it */
template <typename Work>
bool inTime(Clock::time_point deadline, const Work& work) {
    if (Clock::now() >= deadline) {
        return false;
    }
    try {
        work();
        return true;
    } catch (const PgError& error) {
        if (!isTooLong(error)) {
            throw;
        }
        return false;
    }
}

/** Events go into a page until it is full. */
class Filling {
  public:
    Filling(const Search& search, Clock::time_point deadline)
        : search_(search), deadline_(deadline) {}

    U32_t rowsWanted() const {
        const auto left = static_cast<U32_t>(search_.limit - page.events.size());
        return search_.text.empty() ? left : TEXT_PAGE;
    }

    /** @return whether there may be more, and room for it */
    bool take(const PgRows& rows, Place& place) {
        const U32_t wanted = rowsWanted();
        for (int row = 0; row < rows.count() && !isFull(); ++row) {
            FoundEvent event = foundEvent(rows, row);
            place = placeOf(event);
            if (search_.holdsText(evctl::eventOf(event.event.image))) {
                page.events.push_back(std::move(event));
            }
        }
        return isFull() || static_cast<U32_t>(rows.count()) == wanted;
    }

    bool isFull() const { return page.events.size() >= search_.limit; }
    bool isOver() const { return Clock::now() >= deadline_; }

    Page page;

  private:
    const Search& search_;
    Clock::time_point deadline_;
};

void searchLog(PgConnection& connection, const Search& search, Filling& filling) {
    Place place{0};
    if (search.before) {
        place = placeInLog(*search.before);
    }
    for (;;) {
        PgQuestion question(EVENTS);
        question.integer(" AND log = ", *search.log);
        if (search.generation) {
            question.integer(" AND generation = ", *search.generation);
        }
        question.integer(" AND (generation, id) < (", place.generation)
            .integer(", ", place.id, ")")
            .filters(search)
            .integer(" ORDER BY generation DESC, id DESC LIMIT ", filling.rowsWanted());
        const bool goesOn = filling.take(question.ask(connection), place);
        filling.page.isCut = goesOn && !filling.isFull() && filling.isOver();
        if (goesOn && (filling.isFull() || filling.page.isCut)) {
            filling.page.next = Position{BY_ID, {place.generation, place.id}};
        }
        if (!goesOn || filling.page.next) {
            return;
        }
    }
}

/** @return whether there is more in the stretch that ends at @p place */
bool searchStretch(PgConnection& connection, const Search& search, S64_t since, Place& place,
                   Filling& filling) {
    PgQuestion question(EVENTS);
    question.time(" AND received >= ", since)
        .time(" AND received < ", place.second + 1)
        .time(" AND (date_trunc('second', received), log, generation, id) < (", place.second)
        .integer(", ", place.log)
        .integer(", ", place.generation)
        .integer(", ", place.id, ")")
        .filters(search)
        .integer(" ORDER BY date_trunc('second', received) DESC, log DESC, generation DESC, "
                 "id DESC LIMIT ",
                 filling.rowsWanted());
    return filling.take(question.ask(connection), place);
}

void searchAll(PgConnection& connection, const Search& search, Filling& filling) {
    Place place{time(nullptr) + 86'400}; // clocks may differ
    if (search.before) {
        place = placeOf(*search.before);
    }
    S64_t width = FIRST_STRETCH + (search.before ? 0 : 86'400);
    bool isFirst = true;
    while (place.second >= 0) {
        const S64_t since = std::max<S64_t>(0, place.second - width);
        try {
            const bool goesOn = searchStretch(connection, search, since, place, filling);
            if (!goesOn && !filling.isFull()) {
                place = {since - 1};
                width *= STRETCH_GROWTH;
            }
        } catch (const PgError& error) {
            if (!isTooLong(error) || isFirst) {
                throw;
            }
            filling.page.isCut = true;
        }
        isFirst = false;
        filling.page.isCut = filling.page.isCut || (!filling.isFull() && filling.isOver());
        if ((filling.isFull() || filling.page.isCut) && place.second >= 0) {
            filling.page.next = place.position();
            return;
        }
    }
    filling.page.isCut = false;
}

std::vector<S64_t> numbersOf(const std::vector<LogInfo>& logs, bool generations) {
    std::vector<S64_t> numbers;
    for (const LogInfo& info : logs) {
        numbers.push_back(generations ? S64_t{info.generation} : info.log);
    }
    return numbers;
}

LogInfo* infoOf(std::vector<LogInfo>& logs, S64_t log) {
    const auto found = std::ranges::find(logs, log, &LogInfo::log);
    return found == logs.end() ? nullptr : &*found;
}

void addEnds(PgConnection& connection, std::vector<LogInfo>& logs) {
    const std::string of = "FROM event_list WHERE log = l.log AND generation = l.generation ";
    PgQuestion question("SELECT l.log, f.id, e.id, e.time, e.received FROM unnest(");
    question.integers("", numbersOf(logs, false), "::bigint[], ")
        .integers("", numbersOf(logs, true), "::bigint[]) AS l(log, generation) ")
        .add("JOIN LATERAL (SELECT id, time, received " + of +
             "ORDER BY id DESC LIMIT 1) e ON true ")
        .add("JOIN LATERAL (SELECT id " + of + "ORDER BY id LIMIT 1) f ON true");
    const PgRows rows = question.ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        if (LogInfo* info = infoOf(logs, rows.integer(row, 0))) {
            info->firstId = static_cast<U32_t>(rows.integer(row, 1));
            info->lastId = static_cast<U32_t>(rows.integer(row, 2));
            info->lastTime = static_cast<U32_t>(rows.time(row, 3));
            info->lastReceived = rows.time(row, 4);
        }
    }
}

void addLately(PgConnection& connection, std::vector<LogInfo>& logs) {
    PgQuestion question("SELECT log, type, count(*) FROM event_list WHERE own");
    question.time(" AND received >= ", time(nullptr) - LATELY)
        .integers(" AND log = ANY(", numbersOf(logs, false), ") GROUP BY 1, 2");
    const PgRows rows = question.ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        if (LogInfo* info = infoOf(logs, rows.integer(row, 0))) {
            info->lately[typeIndex(static_cast<U32_t>(rows.integer(row, 1)))] +=
                static_cast<U64_t>(rows.integer(row, 2));
        }
    }
}

/** @param run that is known to be held without a hole, if any */
void addMissing(PgConnection& connection, LogInfo& info, std::optional<evarchive::IdRun> run) {
    const U32_t first = info.firstId.value_or(0);
    const bool isProven = run && run->first <= first && first <= run->last;
    PgQuestion question("SELECT count(*), coalesce(sum(id - before - 1), 0)::bigint FROM "
                        "(SELECT id, lag(id) OVER (ORDER BY id) AS before FROM "
                        "(SELECT id FROM event_list WHERE ");
    question.integer("log = ", info.log)
        .integer(" AND generation = ", info.generation)
        .integer(" AND id >= ", isProven ? run->last : first)
        .integer(" ORDER BY id LIMIT ", IDS_LOOKED_AT, ") i) g");
    const PgRows rows = question.ask(connection);
    if (rows.integer(0, 0) < IDS_LOOKED_AT) {
        info.missing = static_cast<U64_t>(rows.integer(0, 1));
    }
}

std::optional<evarchive::IdRun> runOf(const PgRows& rows, int row) {
    if (rows.isNull(row, 8)) {
        return std::nullopt;
    }
    return evarchive::IdRun{static_cast<U32_t>(rows.integer(row, 8)),
                            static_cast<U32_t>(rows.integer(row, 9))};
}

/** The key of the log that a list goes on behind. */
void addBehind(PgConnection& connection, PgQuestion& question, S64_t log) {
    const PgRows rows = PgQuestion(LOGS).integer(" AND log = ", log).ask(connection);
    if (rows.count() == 0) {
        throw Refusal(400, "behind: the archive has no such log");
    }
    question.text(" AND (enclosure, blade, slot, instance) > (", rows.text(0, 1))
        .text(", ", rows.text(0, 2))
        .integer(", ", rows.integer(0, 3))
        .integer(", ", rows.integer(0, 4), ")");
}

void addNamed(PgQuestion& question, const LogSearch& search) {
    if (!search.find.empty()) {
        question.text(" AND (strpos(lower(enclosure), ", search.find, ") > 0")
            .text(" OR strpos(lower(blade), ", search.find, ") > 0)");
    }
}

/** One more than are wanted, where there is one. */
PgRows logsByName(PgConnection& connection, const LogSearch& search) {
    PgQuestion question(LOGS);
    addNamed(question, search);
    if (search.behind) {
        addBehind(connection, question, *search.behind);
    }
    return question
        .integer(" ORDER BY enclosure, blade, slot, instance LIMIT ", S64_t{search.limit} + 1)
        .ask(connection);
}

/** Warnings and errors of the last hour have an index by their own time, and only by that. */
PgRows worstLogs(PgConnection& connection, const LogSearch& search) {
    PgQuestion worst("SELECT log FROM event_list WHERE own AND type IN (2, 3)");
    addNamed(worst.time(" AND time >= ", time(nullptr) - LATELY), search);
    const PgRows found =
        worst
            .add(" GROUP BY log ORDER BY count(*) FILTER (WHERE type = 3) DESC, count(*) DESC, log")
            .integer(" LIMIT ", search.limit)
            .ask(connection);
    std::vector<S64_t> logs;
    for (int row = 0; row < found.count(); ++row) {
        logs.push_back(found.integer(row, 0));
    }
    PgQuestion question(LOGS);
    return question.integers(" AND log = ANY(", logs, ")")
        .integers(" ORDER BY array_position(", logs, "::bigint[], log)")
        .ask(connection);
}

TypeCounts graveLately(PgConnection& connection) {
    PgQuestion question("SELECT type, count(*) FROM event_list WHERE own AND type IN (2, 3)");
    question.time(" AND time >= ", time(nullptr) - LATELY).add(" GROUP BY type");
    const PgRows rows = question.ask(connection);
    TypeCounts counts{};
    for (int row = 0; row < rows.count(); ++row) {
        counts[typeIndex(static_cast<U32_t>(rows.integer(row, 0)))] =
            static_cast<U64_t>(rows.integer(row, 1));
    }
    return counts;
}

void addRun(const PgRows& rows, int row, GenerationView& view) {
    const evarchive::IdRun run{static_cast<U32_t>(rows.integer(row, 0)),
                               static_cast<U32_t>(rows.integer(row, 1))};
    view.runs.push_back(run);
    view.events += U64_t{run.last} - run.first + 1;
    view.firstTime =
        std::min(view.firstTime.value_or(UINT32_MAX), static_cast<U32_t>(rows.time(row, 2)));
    view.lastTime = std::max(view.lastTime.value_or(0), static_cast<U32_t>(rows.time(row, 3)));
    view.lastReceived = std::max(view.lastReceived.value_or(0), rows.time(row, 4));
}

GenerationView generationOf(PgConnection& connection, Clock::time_point deadline,
                            const LogInfo& info, U32_t generation) {
    GenerationView view;
    view.info.number = {info.log, generation};
    view.info.opened = generation == info.generation ? info.opened : -1;
    view.info.duplicates = generation == info.generation ? info.duplicates : 0;
    PgQuestion question("SELECT min(id), max(id), min(time), max(time), max(received) FROM "
                        "(SELECT id, time, received, id - row_number() OVER (ORDER BY id) AS hole "
                        "FROM event_list WHERE ");
    question.integer("log = ", info.log)
        .integer(" AND generation = ", generation)
        .integer(") r GROUP BY hole ORDER BY 1 LIMIT ", MOST_RUNS + 1);
    const bool isAsked = inTime(deadline, [&] {
        const PgRows rows = question.ask(connection);
        view.isCut = rows.count() > static_cast<int>(MOST_RUNS);
        for (int row = 0; row < rows.count() && view.runs.size() < MOST_RUNS; ++row) {
            addRun(rows, row, view);
        }
    });
    view.isCut = view.isCut || !isAsked;
    return view;
}

void countGroups(PgConnection& connection, const Search& search, Timeline& timeline) {
    const S64_t end = timeline.since + S64_t{timeline.width} * std::ssize(timeline.buckets) - 1;
    PgQuestion question("SELECT (floor(date_part('epoch', time))::bigint - ");
    question.integer("", timeline.since)
        .integer(") / ", timeline.width, ", type, count(*) FROM event_list WHERE own")
        .time(" AND time >= ", timeline.since)
        .time(" AND time <= ", end);
    if (search.log) {
        question.integer(" AND log = ", *search.log);
    }
    if (search.generation) {
        question.integer(" AND generation = ", *search.generation);
    }
    const PgRows rows = question.filters(search).add(" GROUP BY 1, 2").ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        const auto bucket = static_cast<U32_t>(rows.integer(row, 0));
        timeline.count(timeline.since + bucket * timeline.width,
                       typeIndex(static_cast<U32_t>(rows.integer(row, 1))),
                       static_cast<U64_t>(rows.integer(row, 2)));
    }
}

} // namespace

template <typename Result>
Result PgView::with(const std::function<Result(PgConnection&, Clock::time_point)>& work) {
    Used used;
    {
        const std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            used = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    if (!used.connection || !used.connection->isOpen() || used.uses >= MOST_USES) {
        used = {std::make_unique<PgConnection>(
                    place_, evarchive::PgPatience{patience_, std::chrono::milliseconds(500)}),
                0};
        used.connection->execute(SET_UP);
    }
    Result result = work(*used.connection, Clock::now() + patience_);
    ++used.uses;
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(used));
    return result;
}

ViewStatus PgView::status() {
    return with<ViewStatus>([](PgConnection& connection, Clock::time_point deadline) {
        ViewStatus status{.engine = "PostgreSQL"};
        const PgQuestion size("SELECT pg_database_size(current_database())");
        status.bytes = static_cast<U64_t>(size.ask(connection).integer(0, 0));
        inTime(deadline, [&] {
            const PgRows rows = PgQuestion("SELECT max(seen) FROM blade_list").ask(connection);
            if (!rows.isNull(0, 0)) {
                status.newest = rows.time(0, 0);
            }
        });
        return status;
    });
}

Overview PgView::logs(const LogSearch& search) {
    return with<Overview>([&](PgConnection& connection, Clock::time_point deadline) {
        Overview overview;
        const PgRows rows =
            search.isWorstFirst ? worstLogs(connection, search) : logsByName(connection, search);
        for (int row = 0; row < rows.count() && overview.logs.size() < search.limit; ++row) {
            overview.logs.push_back(infoOf(rows, row));
        }
        if (static_cast<U32_t>(rows.count()) > search.limit) {
            overview.next = overview.logs.back().log;
        }
        inTime(deadline, [&] { addEnds(connection, overview.logs); });
        inTime(deadline, [&] { overview.lately = graveLately(connection); });
        inTime(deadline, [&] {
            addLately(connection, overview.logs);
            overview.windowSeconds = LATELY;
        });
        inTime(deadline, [&] {
            const PgQuestion question("SELECT count(*) FROM blade_list");
            overview.known = static_cast<U64_t>(question.ask(connection).integer(0, 0));
        });
        for (std::size_t at = 0; at < overview.logs.size(); ++at) {
            inTime(deadline, [&] {
                addMissing(connection, overview.logs[at], runOf(rows, static_cast<int>(at)));
            });
        }
        return overview;
    });
}

LogDetail PgView::log(S64_t log) {
    return with<LogDetail>([log](PgConnection& connection, Clock::time_point deadline) {
        const PgRows rows = PgQuestion(LOGS).integer(" AND log = ", log).ask(connection);
        if (rows.count() == 0) {
            throw Refusal(404, "the archive has no log " + std::to_string(log));
        }
        std::vector<LogInfo> one = {infoOf(rows, 0)};
        addEnds(connection, one);
        inTime(deadline, [&] { addMissing(connection, one.front(), runOf(rows, 0)); });
        LogDetail detail{.info = one.front()};
        for (U32_t generation = detail.info.generation;
             generation > 0 && detail.generations.size() < MOST_GENERATIONS &&
             Clock::now() < deadline;
             --generation) {
            detail.generations.push_back(
                generationOf(connection, deadline, detail.info, generation));
        }
        return detail;
    });
}

Page PgView::search(const Search& search) {
    return with<Page>([&search](PgConnection& connection, Clock::time_point deadline) {
        Filling filling(search, deadline);
        if (search.log) {
            searchLog(connection, search, filling);
        } else {
            searchAll(connection, search, filling);
        }
        return std::move(filling.page);
    });
}

Page PgView::around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) {
    return with<Page>([&](PgConnection& connection, Clock::time_point deadline) {
        const PgRows known = PgQuestion(LOGS).integer(" AND log = ", log).ask(connection);
        if (known.count() == 0) {
            throw Refusal(404, "the archive has no such log");
        }
        Search search{.log = log, .generation = generation.value_or(infoOf(known, 0).generation)};
        const PgRows rows = PgQuestion(EVENTS)
                                .integer(" AND log = ", log)
                                .integer(" AND generation = ", *search.generation)
                                .integer(" AND id >= ", id)
                                .integer(" ORDER BY id LIMIT ", S64_t{reach} + 1)
                                .ask(connection);
        search.limit = reach;
        search.before = Position{BY_ID, {*search.generation, id}};
        Filling filling(search, deadline);
        searchLog(connection, search, filling);
        for (int row = 0; row < rows.count(); ++row) {
            filling.page.events.insert(filling.page.events.begin(), foundEvent(rows, row));
        }
        return std::move(filling.page);
    });
}

std::optional<FoundEvent> PgView::event(S64_t log, U32_t generation, U32_t id) {
    return with<std::optional<FoundEvent>>(
        [&](PgConnection& connection, Clock::time_point /*deadline*/) {
            const PgRows rows = PgQuestion(EVENTS)
                                    .integer(" AND log = ", log)
                                    .integer(" AND generation = ", generation)
                                    .integer(" AND id = ", id)
                                    .ask(connection);
            return rows.count() > 0 ? std::optional(foundEvent(rows, 0)) : std::nullopt;
        });
}

Tail PgView::tail(const Search& search, const std::optional<Position>& after) {
    const auto serversTime = [](PgConnection& connection) {
        return PgQuestion("SELECT now()").ask(connection).time(0, 0);
    };
    if (!after) {
        const S64_t begun = with<S64_t>(
            [&](PgConnection& connection, Clock::time_point) { return serversTime(connection); });
        Page page = this->search(search);
        std::ranges::reverse(page.events);
        return {std::move(page.events), Place{begun}.position()};
    }
    const S64_t since = placeOf(*after).second - TAIL_AGAIN;
    return with<Tail>([&](PgConnection& connection, Clock::time_point /*deadline*/) {
        const S64_t begun = serversTime(connection);
        PgQuestion question(EVENTS);
        if (search.log) {
            question.integer(" AND log = ", *search.log);
        }
        const PgRows rows =
            question.time(" AND received >= ", since)
                .filters(search)
                .integer(" ORDER BY received, log, generation, id LIMIT ", TAIL_ROWS)
                .ask(connection);
        Tail tail{.events = {}, .position = Place{begun}.position()};
        for (int row = 0; row < rows.count(); ++row) {
            FoundEvent event = foundEvent(rows, row);
            if (search.holdsText(evctl::eventOf(event.event.image))) {
                tail.events.push_back(std::move(event));
            }
        }
        if (static_cast<std::size_t>(rows.count()) == TAIL_ROWS) {
            // More came than is shown at a time: at least a second further on.
            const S64_t last = rows.time(rows.count() - 1, 12);
            tail.position = Place{std::max(last, since + 1) + TAIL_AGAIN}.position();
        }
        return tail;
    });
}

void PgView::count(const Search& search, Timeline& timeline) {
    if (!search.text.empty()) {
        throw Refusal(400, "text: a timeline of this archive cannot look into texts");
    }
    try {
        with<bool>([&](PgConnection& connection, Clock::time_point /*deadline*/) {
            countGroups(connection, search, timeline);
            return true;
        });
    } catch (const PgError& error) {
        if (!isTooLong(error) || !search.filter.types.empty()) {
            throw;
        }
        // Warnings and errors have an index of their own.
        Search grave = search;
        grave.filter.types = {EMP_E_TYPE_WARNING, EMP_E_TYPE_ERROR};
        count(grave, timeline);
        timeline.isOnlyGrave = true;
    }
}

std::unique_ptr<View> openPgView(const std::string& place, std::chrono::milliseconds patience) {
    return std::make_unique<PgView>(place, patience);
}

} // namespace evweb
