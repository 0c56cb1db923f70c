#include "pg_events.h"

#include "http.h"
#include "pg_logs.h"
#include "postgres/event_row.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace evweb {
namespace {

constexpr char BY_ARRIVAL = 'm'; // instant, log, generation, id

constexpr S64_t FIRST_STRETCH = 60 * SECOND; // that a search looks back at first
constexpr S64_t SHORTEST_STRETCH = SECOND;
constexpr S64_t STRETCH_GROWTH = 8;
constexpr S64_t GROWTH_OF_RARE = 64;     // each look goes through the indexes of kinds, all of them
constexpr double SOME_MORE = 1.25;       // wider than what is wanted is likely to lie in
constexpr S64_t AHEAD = 86'400 * SECOND; // that an archiver's clock may be
constexpr S64_t SOON = 60 * SECOND;      // after its time that an event has mostly come
constexpr S64_t CROWD = 20'000;          // events of a stretch that are too many to be sorted
constexpr U32_t TEXT_PAGE = 2000;        // events that are looked through at a time

// How far a tail looks back: commits of one moment end in the next ones, and events may bear the
// time of their archiver.
constexpr S64_t TAIL_AGAIN = 10 * SECOND;
constexpr U32_t TAIL_TEXT_ROWS = 1000; // that are looked through for a text

// Of a timeline, which are counted one after the other.
constexpr std::size_t TIMELINE_PARTS = 4;

constexpr char EVENTS[] = "SELECT log, generation, id, time, source, type, category, event, "
                          "idversion, own, doubtful, data, received, enclosure, blade, slot, "
                          "instance FROM event_list WHERE own";
constexpr int RECEIVED_COLUMN = 12;
constexpr int COUNT_COLUMN = 17; // behind those of EVENTS

// A table whose rows do not stand as they arrived would be read from end to end, where the index of
// arrivals tells at once that nothing of a stretch is in it. And a plan for some fifteen partitions
// takes as long as the question: it is made once.
constexpr char BY_INDEX[] = "SET enable_seqscan = off; SET plan_cache_mode = force_generic_plan";
constexpr char BY_TABLE[] = "RESET enable_seqscan; SET plan_cache_mode = force_custom_plan";

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

/** A place among all events, in front of those that are older. */
struct Place {
    S64_t instant;
    S64_t log = INT64_MAX;
    S64_t generation = INT64_MAX;
    S64_t id = INT64_MAX;

    Position position() const { return {BY_ARRIVAL, {instant, log, generation, id}}; }
};

Place placeOf(const Position& position) {
    if (position.kind != BY_ARRIVAL || position.numbers.size() != 4) {
        throw Refusal(400, "'" + position.text() + "' is no place in a search of all logs");
    }
    const auto& numbers = position.numbers;
    return {std::clamp(numbers[0], instantOf(0), instantOf(UINT32_MAX)), numbers[1], numbers[2],
            numbers[3]};
}

/** Where the event of a row stands. */
Place placeOf(const PgRows& rows, int row) {
    return {rows.integer(row, RECEIVED_COLUMN), rows.integer(row, 0), rows.integer(row, 1),
            rows.integer(row, 2)};
}

/** Events go into a page until it is full. */
class Filling {
  public:
    Filling(const Search& search, Clock::time_point deadline, Page& filled)
        : page(filled), search_(search), deadline_(deadline) {}

    /** The end of a statement. The number stands in it: so the server plans for few rows. */
    std::string limit() const { return " LIMIT " + std::to_string(rowsAsked()); }

    /** @return whether there may be more, or no room for it; then @p place is that of the last */
    bool take(const PgRows& rows, Place& place) {
        for (int row = 0; row < rows.count() && !isFull(); ++row) {
            FoundEvent event = foundEvent(rows, row);
            place = placeOf(rows, row);
            if (search_.holdsText(sources::eventOf(event.event.image))) {
                page.events.push_back(std::move(event));
            }
        }
        return isFull() || static_cast<U32_t>(rows.count()) == rowsAsked();
    }

    bool isFull() const { return page.events.size() >= search_.limit; }
    bool isOver() const { return Clock::now() >= deadline_; }

    /** How much wider a stretch may be than the one that was looked through since @p begun: as far
     * as time is likely to last, and what is still wanted, as densely as @p found, lies. */
    double growthAfter(std::size_t found, Clock::time_point begun) const {
        const auto now = Clock::now();
        const double took = std::chrono::duration<double>(now - begun).count();
        const double time = std::chrono::duration<double>(deadline_ - now).count() / 2;
        const auto growth = search_.filter.ids.empty() ? STRETCH_GROWTH : GROWTH_OF_RARE;
        const double most = std::clamp(time / took, 1.0, static_cast<double>(growth));
        if (found == 0 || !search_.text.empty()) {
            return most;
        }
        const auto left = static_cast<double>(search_.limit - page.events.size());
        return std::clamp(SOME_MORE * left / static_cast<double>(found), 1.0 / STRETCH_GROWTH,
                          most);
    }

    Page& page;

  private:
    U32_t rowsAsked() const { return search_.text.empty() ? search_.limit : TEXT_PAGE; }

    const Search& search_;
    Clock::time_point deadline_;
};

void searchLog(PgConnection& connection, const Search& search, Filling& filling) {
    IdPlace from{INT64_MAX, INT64_MAX};
    if (search.before) {
        from = IdPlace::of(*search.before);
    }
    for (;;) {
        PgQuestion question(EVENTS);
        question.integer(" AND log = ", *search.log);
        if (search.generation) {
            question.integer(" AND generation = ", *search.generation);
        }
        question.integer(" AND (generation, id) < (", from.generation)
            .integer(", ", from.id, ")")
            .filters(search)
            .add(" ORDER BY generation DESC, id DESC" + filling.limit());
        Place last{};
        const bool goesOn = filling.take(question.ask(connection), last);
        from = {last.generation, last.id};
        filling.page.isCut = goesOn && !filling.isFull() && filling.isOver();
        if (goesOn && (filling.isFull() || filling.page.isCut)) {
            filling.page.next = from.position();
        }
        if (!goesOn || filling.page.next) {
            return;
        }
    }
}

/** The arrivals that are looked through next. */
class Stretch {
  public:
    /** @param ahead width of the first one, where hardly anything is expected */
    explicit Stretch(const Place& end, S64_t ahead = 0)
        : place(end), isAhead_(ahead > 0), width_(isAhead_ ? ahead : FIRST_STRETCH),
          since_(end.instant - width_) {}

    Place place; ///< it ends in front of this one

    S64_t since() const { return std::max(since_, instantOf(0)); }
    bool isShortest() const { return width_ == SHORTEST_STRETCH; }
    bool isOver() const { return place.instant < instantOf(0); }

    void narrow() {
        crowdedSince_ = since_;
        isAhead_ = false;
        width_ = std::max(SHORTEST_STRETCH, width_ / STRETCH_GROWTH);
        since_ = place.instant - width_;
    }

    /** Nothing is left in it. @param growth how much wider the next one may be */
    void moveOn(double growth) {
        place = {since_ - 1};
        if (place.instant < crowdedSince_) {
            crowdedSince_ = INT64_MAX;
        }
        if (std::exchange(isAhead_, false)) {
            width_ = FIRST_STRETCH;
        } else if (crowdedSince_ == INT64_MAX) {
            const auto width = static_cast<S64_t>(static_cast<double>(width_) * growth);
            width_ = std::clamp(width, SHORTEST_STRETCH, instantOf(UINT32_MAX) - instantOf(0));
        }
        since_ = place.instant - width_;
    }

  private:
    bool isAhead_;
    S64_t width_;
    S64_t since_;
    S64_t crowdedSince_ = INT64_MAX; ///< from here to the place there were too many at once
};

enum class Found : U8_t { ALL, MORE, TOO_MANY };

Found searchStretch(PgConnection& connection, const Search& search, Stretch& stretch,
                    Filling& filling) {
    const Place& end = stretch.place;
    PgQuestion question("SELECT *, count(*) OVER () FROM (");
    question.add(EVENTS)
        .instant(" AND received >=", stretch.since())
        .instant(" AND received <=", end.instant)
        .instant(" AND (received, log, generation, id) < (", end.instant)
        .integer(", ", end.log)
        .integer(", ", end.generation)
        .integer(", ", end.id, ")")
        .filters(search)
        .integer(" LIMIT ", stretch.isShortest() ? INT64_MAX : CROWD)
        .add(") found ORDER BY received DESC, log DESC, generation DESC, id DESC" +
             filling.limit());
    const PgRows rows = question.ask(connection);
    if (!stretch.isShortest() && rows.count() > 0 && rows.integer(0, COUNT_COLUMN) == CROWD) {
        return Found::TOO_MANY;
    }
    return filling.take(rows, stretch.place) ? Found::MORE : Found::ALL;
}

void searchOnce(PgConnection& connection, const Search& search, Stretch& stretch,
                Filling& filling) {
    const auto begun = Clock::now();
    const std::size_t before = filling.page.events.size();
    switch (searchStretch(connection, search, stretch, filling)) {
    case Found::TOO_MANY:
        stretch.narrow();
        break;
    case Found::ALL:
        if (!filling.isFull()) {
            stretch.moveOn(filling.growthAfter(filling.page.events.size() - before, begun));
        }
        break;
    case Found::MORE:
        break;
    }
}

/** Where a search begins: what came late, or is not there yet, in one stretch. Where it ends with a
 * time of the events' own, most that it wants came then. */
Stretch stretchOf(const Search& search) {
    if (search.before) {
        return Stretch(placeOf(*search.before));
    }
    const Place end{instantOf(time(nullptr)) + AHEAD};
    const S64_t until = search.filter.until ? instantOf(*search.filter.until) + SOON : end.instant;
    return Stretch(end, std::max(AHEAD, end.instant - until));
}

void searchAll(PgConnection& connection, const Search& search, Filling& filling) {
    Stretch stretch = stretchOf(search);
    bool isFirst = true;
    while (!stretch.isOver()) {
        try {
            searchOnce(connection, search, stretch, filling);
        } catch (const PgError& error) {
            if (!isTooLong(error) || isFirst) {
                throw;
            }
            filling.page.isCut = true;
        }
        isFirst = false;
        filling.page.isCut = filling.page.isCut || (!filling.isFull() && filling.isOver());
        if ((filling.isFull() || filling.page.isCut) && !stretch.isOver()) {
            filling.page.next = stretch.place.position();
            return;
        }
    }
    filling.page.isCut = false;
}

/** What came since some instant: a question with the filters, to go on with. */
PgQuestion arrivalsSince(const char* select, const Search& search, S64_t since) {
    PgQuestion question(select);
    if (search.log) {
        question.integer(" AND log = ", *search.log);
    }
    question.instant(" AND received >= ", since).filters(search);
    return question;
}

bool isCrowd(PgConnection& connection, const Search& search, S64_t since, U32_t most) {
    const PgRows rows =
        arrivalsSince("SELECT count(*) FROM (SELECT 1 FROM event_list WHERE own", search, since)
            .add(" LIMIT " + std::to_string(most + 1) + ") c")
            .ask(connection);
    return rows.integer(0, 0) > S64_t{most};
}

/** The newest events behind a place, in the order of their arrival. Of a crowd, those of the last
 * seconds: to put all in order takes too long when nobody has asked for a while. */
Tail newestSince(PgConnection& connection, const Search& search, S64_t seen, S64_t now,
                 Clock::time_point deadline) {
    const U32_t most = search.text.empty() ? search.limit : TAIL_TEXT_ROWS;
    const bool isPart = isCrowd(connection, search, seen - TAIL_AGAIN, most);
    Place from{(isPart ? std::max(seen, now) : seen) - TAIL_AGAIN, INT64_MIN};
    const PgRows rows = arrivalsSince(EVENTS, search, from.instant)
                            .add(" ORDER BY received DESC, log DESC, generation DESC, id DESC "
                                 "LIMIT " +
                                 std::to_string(most))
                            .ask(connection);
    Tail tail{.events = {}, .position = Place{now}.position()};
    for (int row = rows.count(); row-- > 0;) {
        FoundEvent event = foundEvent(rows, row);
        if (search.holdsText(sources::eventOf(event.event.image))) {
            tail.events.push_back(std::move(event));
        }
    }
    if (static_cast<U32_t>(rows.count()) == most) {
        from = placeOf(rows, rows.count() - 1);
    }
    const auto countSkipped = [&] {
        PgQuestion question =
            arrivalsSince("SELECT count(*) FROM event_list WHERE own", search, seen);
        question.instant(" AND (received, log, generation, id) < (", from.instant)
            .integer(", ", from.log)
            .integer(", ", from.generation)
            .integer(", ", from.id, ")");
        tail.skipped = static_cast<U64_t>(question.ask(connection).integer(0, 0));
    };
    if (isPart && !inTime(deadline, countSkipped)) {
        tail.skipped.reset();
    }
    return tail;
}

/** Counts what a part of the timeline's buckets holds, the last one not among them. */
void countPart(PgConnection& connection, const Search& search, Timeline& timeline,
               std::size_t first, std::size_t last) {
    const auto beginOf = [&](std::size_t bucket) {
        return timeline.since + S64_t{timeline.width} * static_cast<S64_t>(bucket);
    };
    PgQuestion question("SELECT date_bin(make_interval(secs => ");
    question.integer("", timeline.width)
        .time("), time, ", timeline.since)
        .time("), type, count(*) FROM event_list WHERE own AND time >= ", beginOf(first))
        .time(" AND time < ", beginOf(last));
    if (search.log) {
        question.integer(" AND log = ", *search.log);
    }
    if (search.generation) {
        question.integer(" AND generation = ", *search.generation);
    }
    const PgRows rows = question.filters(search).add(" GROUP BY 1, 2").ask(connection);
    for (int row = 0; row < rows.count(); ++row) {
        timeline.count(static_cast<U32_t>(rows.time(row, 0)),
                       typeIndex(static_cast<U32_t>(rows.integer(row, 1))),
                       static_cast<U64_t>(rows.integer(row, 2)));
    }
}

} // namespace

Page searchEvents(PgConnection& connection, const Search& search, Clock::time_point deadline) {
    Page page;
    Filling filling(search, deadline, page);
    connection.execute(BY_INDEX);
    if (search.log) {
        searchLog(connection, search, filling);
    } else {
        searchAll(connection, search, filling);
    }
    return page;
}

Page eventsAround(PgConnection& connection, Search search, U32_t id, Clock::time_point deadline) {
    const PgRows rows = PgQuestion(EVENTS)
                            .integer(" AND log = ", *search.log)
                            .integer(" AND generation = ", *search.generation)
                            .integer(" AND id >= ", id)
                            .integer(" ORDER BY id LIMIT ", S64_t{search.limit} + 1)
                            .ask(connection);
    search.before = IdPlace{*search.generation, id}.position();
    Page page = searchEvents(connection, search, deadline);
    for (int row = 0; row < rows.count(); ++row) {
        page.events.insert(page.events.begin(), foundEvent(rows, row));
    }
    return page;
}

std::optional<FoundEvent> oneEvent(PgConnection& connection, S64_t log, U32_t generation,
                                   U32_t id) {
    const PgRows rows = PgQuestion(EVENTS)
                            .integer(" AND log = ", log)
                            .integer(" AND generation = ", generation)
                            .integer(" AND id = ", id)
                            .ask(connection);
    return rows.count() > 0 ? std::optional(foundEvent(rows, 0)) : std::nullopt;
}

Tail eventsSince(PgConnection& connection, const Search& search,
                 const std::optional<Position>& after, Clock::time_point deadline) {
    const S64_t now = PgQuestion("SELECT now()").ask(connection).integer(0, 0);
    if (after) {
        connection.execute(BY_INDEX);
        return newestSince(connection, search, placeOf(*after).instant, now, deadline);
    }
    Page page = searchEvents(connection, search, deadline);
    std::ranges::reverse(page.events);
    return {std::move(page.events), Place{now}.position()};
}

bool countEvents(PgConnection& connection, const Search& search, Timeline& timeline,
                 Clock::time_point deadline, bool isAllOrNothing) {
    connection.execute(BY_TABLE);
    const auto begun = Clock::now();
    const std::size_t all = timeline.buckets.size();
    const std::size_t part = (all + TIMELINE_PARTS - 1) / TIMELINE_PARTS;
    for (std::size_t left = all; left > 0;) {
        const std::size_t first = left - std::min(part, left);
        if (!inTime(deadline, [&] { countPart(connection, search, timeline, first, left); })) {
            return false;
        }
        left = first;
        const auto now = Clock::now();
        if (isAllOrNothing && (now - begun) / (all - left) * left > deadline - now) {
            return false;
        }
    }
    return true;
}

} // namespace evweb
