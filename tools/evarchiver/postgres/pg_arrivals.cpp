#include "pg_arrivals.h"

#include "log_number.h"
#include "pg_reads.h"
#include "pg_statements.h"

namespace evarchive {
namespace {

constexpr S64_t SECOND = 1'000'000;

// What is looked at together grows while nothing is there, and is cut to what a page has held.
constexpr S64_t FIRST_STRETCH = 60 * SECOND;
constexpr S64_t STRETCH_GROWTH = 4;

constexpr std::size_t MOST_MARKS = 256;

// The order matters: the clock is read, then a number is drawn. A standby draws none, and says so.
constexpr PgStatement MARK{"arrivals_mark",
                           "SELECT clock_timestamp(), pg_current_xact_id()::text::bigint"};
constexpr PgStatement OLDEST_NUMBER{"arrivals_oldest",
                                    "SELECT pg_snapshot_xmin(pg_current_snapshot())::text::bigint"};
constexpr PgStatement CLOCK{"arrivals_clock", "SELECT clock_timestamp()"};
constexpr PgStatement BEGINNING{"arrivals_beginning", "SELECT min(opened) FROM generations"};

/** From a place to a time: received, log, generation, id; end, how many. */
constexpr PgStatement PAGE{
    "arrivals_page",
    "SELECT e.*, identity FROM (SELECT " PG_EVENT_COLUMNS ", log, generation FROM events "
    "WHERE own AND NOT doubtful AND received >= $1 AND received < $5 "
    "AND (received, log, generation, id) > ($1, $2, $3, $4) "
    "ORDER BY received, log, generation, id LIMIT $6) e JOIN logs USING (log) "
    "ORDER BY e.received, e.log, e.generation, e.id"};

// Columns behind those of an event, and when it came.
constexpr int RECEIVED = 2;
constexpr int LOG = 12;
constexpr int GENERATION = 13;
constexpr int IDENTITY = 14;

// The index by arrival is always to be had; a plan must not depend on what is guessed of it.
constexpr char SET_UP[] = "SET plan_cache_mode = force_custom_plan; SET enable_seqscan = off; "
                          "SET application_name = evbridge";

} // namespace

PgArrivals::PgArrivals(const std::string& place, std::chrono::microseconds lag,
                       std::chrono::milliseconds patience)
    : connection_(place, PgPatience{patience, patience}), lag_(lag.count()),
      stretch_(FIRST_STRETCH) {
    connection_.reopen();
    connection_.execute(SET_UP);
}

S64_t PgArrivals::now() {
    return connection_.run(CLOCK).integer(0, 0);
}

std::optional<S64_t> PgArrivals::waitsSince() const {
    return marks_.empty() ? std::nullopt : std::optional(marks_.front().time);
}

// How far everything is there.
void PgArrivals::look() {
    const PgRows mark = connection_.run(MARK);
    if (marks_.size() == MOST_MARKS) {
        marks_.pop_back();
    }
    marks_.push_back({mark.integer(0, 0), mark.integer(0, 1)});
    const S64_t oldest = connection_.run(OLDEST_NUMBER).integer(0, 0);
    while (!marks_.empty() && marks_.front().number <= oldest) {
        complete_ = marks_.front().time - lag_;
        marks_.pop_front();
    }
}

S64_t PgArrivals::endOf(const ArrivalPlace& place) {
    if (place.received != INT64_MIN) {
        return std::min(complete_, place.received + stretch_);
    }
    const PgRows first = connection_.run(BEGINNING);
    return first.isNull(0, 0) ? complete_ : std::min(complete_, first.integer(0, 0));
}

std::vector<ArrivedEvent> PgArrivals::take(ArrivalPlace& place, std::size_t most) {
    look();
    const S64_t end = endOf(place);
    std::vector<ArrivedEvent> found;
    if (end <= place.received) {
        return found;
    }
    const PgRows rows = connection_.run(PAGE, PgParameters()
                                                  .instant(place.received)
                                                  .integer(place.log)
                                                  .integer(place.generation)
                                                  .integer(place.id)
                                                  .instant(end)
                                                  .integer(static_cast<S64_t>(most)));
    for (int row = 0; row < rows.count(); ++row) {
        SeriesKey key = keyOfIdentity(rows.bytes(row, IDENTITY));
        StoredEvent event = PgReads::eventOf(rows, row, key);
        found.push_back({std::move(key), static_cast<U32_t>(rows.integer(row, GENERATION)),
                         event.sequenceId, std::move(event.image)});
    }
    const bool isFull = found.size() == most;
    if (isFull) {
        const int last = rows.count() - 1;
        stretch_ = std::max(SECOND, 2 * (rows.integer(last, RECEIVED) - rows.integer(0, RECEIVED)));
        place = {rows.integer(last, RECEIVED), rows.integer(last, LOG),
                 rows.integer(last, GENERATION), rows.integer(last, 0)};
    } else {
        stretch_ = std::min(stretch_, INT64_MAX / 8) * STRETCH_GROWTH;
        place = {.received = end};
    }
    return found;
}

} // namespace evarchive
