#include "sqlite_view.h"

#include "http.h"
#include "sqlite_store.h"

#include <ctime>
#include <sys/stat.h>

namespace evweb {
namespace {

constexpr char BUSY[] = "PRAGMA busy_timeout = 500";
constexpr std::chrono::seconds SURVEY_PAUSE{1};

// Arrivals that rates are made of, at most, and at most so long ago.
constexpr S64_t LATELY_ROWS = 100'000;
constexpr S64_t LATELY_SECONDS = 3600;
constexpr S64_t LATELY_AGAIN = 10; // seconds after which they are counted anew

void stateOf(const std::string& path, FileState& state) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        throw evarchive::StoreError(path + ": not there", evarchive::StoreError::Kind::PASSING);
    }
    state.device = file.st_dev;
    state.inode = file.st_ino;
}

evarchive::SeriesKey keyOf(const SqliteStatement& row) {
    return {{row.text(1), row.text(2), row.id(3)}, row.id(4)};
}

/** Whether a log's names hold what is looked for, as they are shown. */
bool isFound(const SqliteStatement& row, const std::string& find) {
    const auto holds = [&find](const std::string& name) {
        return lowerCase(shownName(name)).find(find) != std::string::npos;
    };
    return find.empty() || holds(row.text(1)) || holds(row.text(2));
}

struct End {
    U32_t id;
    U32_t time;
    S64_t received;
};

std::optional<End> endOf(SqliteDatabase& database, const char* sql, const GenerationKey& key) {
    SqliteStatement row(database, sql);
    if (!row.with(key.series, key.generation).step()) {
        return std::nullopt;
    }
    return End{row.id(0), row.id(1), row.integer(2)};
}

/** The ids from @p from on as runs; at most so many. @return false when it ends before the last */
bool takeRuns(SqliteReading& reading, const GenerationKey& key, U32_t from, std::size_t most,
              std::vector<evarchive::IdRun>& runs) {
    SqliteStatement row(reading.database(), sqlite_sql::IDS);
    row.with(key.series, key.generation, from);
    for (U32_t seen = 1; row.step(); ++seen) {
        const U32_t id = row.id(0);
        if (!runs.empty() && id == U64_t{runs.back().last} + 1) {
            runs.back().last = id;
        } else if (runs.size() == most) {
            return false;
        } else {
            runs.push_back({id, id});
        }
        if (seen % ROWS_BETWEEN_LOOKS == 0 && reading.isOver()) {
            return false;
        }
    }
    return true;
}

std::vector<evarchive::GenerationInfo> generationsOf(SqliteDatabase& database, S64_t series) {
    std::vector<evarchive::GenerationInfo> generations;
    SqliteStatement row(database, sqlite_sql::GENERATIONS);
    row.with(series);
    while (row.step()) {
        evarchive::GenerationInfo info;
        info.number = {series, row.id(0)};
        info.opened = row.integer(1);
        info.duplicates = static_cast<U64_t>(row.integer(2));
        if (!row.isNull(3)) {
            info.proven = evarchive::IdRun{row.id(3), row.id(4)};
        }
        generations.push_back(info);
    }
    return generations;
}

/** Ids that are not held between two that are; nothing when there is no time to count. */
std::optional<U64_t> missingBetween(SqliteReading& reading, const GenerationKey& key, U32_t first,
                                    U32_t last) {
    constexpr S64_t idsAtATime = 100'000;
    U64_t missing = U64_t{last} - first + 1;
    SqliteStatement row(reading.database(), sqlite_sql::COUNT);
    for (S64_t from = first; from <= last; from += idsAtATime) {
        if (reading.isOver()) {
            return std::nullopt;
        }
        row.with(key.series, key.generation, from, std::min<S64_t>(last, from + idsAtATime - 1));
        row.step();
        missing -= static_cast<U64_t>(row.integer(0));
    }
    return missing;
}

void addEnds(SqliteReading& reading, const evarchive::GenerationInfo& generation, LogInfo& info) {
    const auto first = endOf(reading.database(), sqlite_sql::FIRST, generation.number);
    const auto last = endOf(reading.database(), sqlite_sql::LAST, generation.number);
    if (!first || !last) {
        return;
    }
    info.firstId = first->id;
    info.lastId = last->id;
    info.lastTime = last->time;
    info.lastReceived = info.seen = last->received;
    const U32_t from = firstInDoubt(generation.proven, first->id, last->id);
    info.missing = missingBetween(reading, generation.number, from, last->id);
}

} // namespace

SqliteReading::SqliteReading(const std::string& path, std::chrono::milliseconds patience)
    : deadline_(Clock::now() + patience) {
    stateOf(path, state_);
    database_ = evarchive::openDatabaseForReading(path);
    database_->execute(BUSY);
    state_.schema = database_->number("PRAGMA schema_version");
    FileState now;
    stateOf(path, now);
    now.schema = state_.schema;
    if (now != state_) {
        throw evarchive::StoreError(path + ": being replaced",
                                    evarchive::StoreError::Kind::PASSING);
    }
}

SqliteView::SqliteView(std::string path, std::chrono::milliseconds patience,
                       std::function<S64_t()> now)
    : path_(std::move(path)), patience_(patience), now_(std::move(now)),
      surveyor_([this](const std::stop_token& stop) { keepSurveying(stop); }) {}

void SqliteView::keepSurveying(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        if (!surveyOne()) {
            std::unique_lock lock(waitMutex_);
            wait_.wait_for(lock, stop, SURVEY_PAUSE, [] { return false; });
        }
    }
}

bool SqliteView::surveyOne() {
    try {
        SqliteReading reading(path_, patience_);
        const S64_t first = reading.firstRow();
        const auto number = survey_.nextUnknown(reading.state(), first, reading.lastRow());
        if (!number) {
            return false;
        }
        SqliteStatement row(reading.database(), sqlite_sql::ARRIVALS_UP);
        row.with(*number * ZONE_ROWS, (*number + 1) * ZONE_ROWS);
        auto zone = std::make_shared<Zone>();
        while (row.step()) {
            if (row.integer(3) != 0) { // others are listed by their own log
                zone->add({row.integer(0), row.id(4), row.id(5), row.id(6), row.id(7), row.id(8)});
            }
        }
        zone->finish();
        survey_.put(*number, std::move(zone));
        return true;
    } catch (const evarchive::StoreError&) {
        return false; // tried again; who asks meanwhile is told
    }
}

ViewStatus SqliteView::status() {
    SqliteReading reading(path_, patience_);
    ViewStatus status{.engine = "SQLite"};
    SqliteStatement newest(reading.database(),
                           "SELECT received, time FROM events ORDER BY rowid DESC LIMIT 1");
    if (newest.step()) {
        status.newest = newest.integer(0);
        status.newestTime = newest.id(1);
        const S64_t rows = reading.lastRow() - reading.firstRow() + 1;
        status.events = static_cast<U64_t>(std::max<S64_t>(0, rows));
    }
    status.bytes = static_cast<U64_t>(reading.database().number("PRAGMA page_count") *
                                      reading.database().number("PRAGMA page_size"));
    status.surveyed = survey_.known();
    return status;
}

std::shared_ptr<const SqliteView::Lately> SqliteView::lately(SqliteReading& reading) {
    const std::lock_guard lock(latelyMutex_);
    const S64_t lastRow = reading.lastRow();
    const S64_t now = now_();
    if (lately_ && lately_->state == reading.state() && lately_->lastRow == lastRow &&
        now >= lately_->counted && now - lately_->counted < LATELY_AGAIN) {
        return lately_;
    }
    auto fresh = std::make_shared<Lately>();
    fresh->state = reading.state();
    fresh->lastRow = lastRow;
    fresh->counted = now;
    // Rows are in the order of their arrival, so that the first one of the window can be sought.
    S64_t low = std::max(reading.firstRow(), lastRow - LATELY_ROWS);
    S64_t high = lastRow + 1;
    SqliteStatement received(reading.database(), sqlite_sql::RECEIVED);
    const auto isEarlier = [&received, now](S64_t row) {
        return received.with(row).step() && received.integer(0) < now - LATELY_SECONDS;
    };
    const bool isWhole = low > lastRow || isEarlier(low) || low == reading.firstRow();
    const S64_t lowest = low;
    while (low < high) {
        const S64_t middle = low + (high - low) / 2;
        const bool goesUp = isEarlier(middle);
        (goesUp ? low : high) = goesUp ? middle + 1 : middle;
    }
    received.reset();
    fresh->seconds = LATELY_SECONDS;
    if (!isWhole && received.with(lowest).step()) {
        fresh->seconds = std::max<S64_t>(1, now - received.integer(0));
    }
    SqliteStatement row(reading.database(), sqlite_sql::LATELY);
    row.with(low, now - LATELY_SECONDS);
    while (row.step()) {
        const std::size_t type = typeIndex(row.id(1));
        ++fresh->counts[row.integer(0)][type];
        if (type >= EMP_E_TYPE_WARNING && row.integer(2) >= now - LATELY_SECONDS) {
            ++fresh->grave[row.integer(0)][type];
        }
    }
    lately_ = fresh;
    return lately_;
}

LogInfo SqliteView::infoOf(SqliteReading& reading, SqliteStatement& row, const Lately& counts) {
    LogInfo info{.log = row.integer(0), .key = keyOf(row)};
    const auto found = counts.counts.find(info.log);
    info.lately = found == counts.counts.end() ? TypeCounts{} : found->second;
    const auto generations = generationsOf(reading.database(), info.log);
    if (!generations.empty()) {
        info.generation = generations.front().number.generation;
        info.opened = generations.front().opened;
        info.duplicates = generations.front().duplicates;
        addEnds(reading, generations.front(), info);
    }
    return info;
}

Overview SqliteView::byName(SqliteReading& reading, const LogSearch& search, const Lately& counts) {
    Overview overview;
    SqliteStatement row(reading.database(),
                        search.behind ? sqlite_sql::LOGS : sqlite_sql::ALL_LOGS);
    if (search.behind) {
        row.with(*search.behind);
    }
    while (row.step()) {
        if (!isFound(row, search.find)) {
            continue;
        }
        if (overview.logs.size() == search.limit) {
            overview.next = overview.logs.back().log;
            break;
        }
        overview.logs.push_back(infoOf(reading, row, counts));
    }
    return overview;
}

Overview SqliteView::worst(SqliteReading& reading, const LogSearch& search, const Lately& counts) {
    std::vector<std::tuple<U64_t, U64_t, S64_t>> order;
    for (const auto& [log, types] : counts.grave) {
        order.emplace_back(types[EMP_E_TYPE_ERROR], types[EMP_E_TYPE_WARNING], -log);
    }
    std::ranges::sort(order, std::greater());
    Overview overview;
    SqliteStatement row(reading.database(), sqlite_sql::ONE_LOG);
    for (const auto& [errors, warnings, negative] : order) {
        if (overview.logs.size() == search.limit) {
            break;
        }
        if (row.with(-negative).step() && isFound(row, search.find)) {
            overview.logs.push_back(infoOf(reading, row, counts));
        }
    }
    return overview;
}

Overview SqliteView::logs(const LogSearch& search) {
    SqliteReading reading(path_, patience_);
    const auto counts = lately(reading);
    Overview overview =
        search.isWorstFirst ? worst(reading, search, *counts) : byName(reading, search, *counts);
    overview.known = static_cast<U64_t>(reading.database().number("SELECT count(*) FROM series"));
    overview.windowSeconds = counts->seconds;
    overview.lately.emplace();
    for (const auto& [log, types] : counts->grave) {
        std::ranges::transform(types, *overview.lately, overview.lately->begin(), std::plus());
    }
    return overview;
}

LogDetail SqliteView::log(S64_t log) {
    constexpr std::size_t mostRuns = 500;
    SqliteReading reading(path_, patience_);
    SqliteStatement row(reading.database(), sqlite_sql::ONE_LOG);
    if (!row.with(log).step()) {
        throw Refusal(404, "the archive has no log " + std::to_string(log));
    }
    LogDetail detail{.info = infoOf(reading, row, *lately(reading))};
    for (evarchive::GenerationInfo& info : generationsOf(reading.database(), log)) {
        GenerationView& view = detail.generations.emplace_back();
        const GenerationKey key = info.number;
        view.info = std::move(info);
        view.isCut = reading.isOver() || !takeRuns(reading, key, 0, mostRuns, view.runs);
        for (const evarchive::IdRun& run : view.runs) {
            view.events += U64_t{run.last} - run.first + 1;
        }
        if (const auto first = endOf(reading.database(), sqlite_sql::FIRST, key)) {
            const auto last = endOf(reading.database(), sqlite_sql::LAST, key);
            view.firstTime = first->time;
            view.lastTime = last->time;
            view.lastReceived = last->received;
        }
    }
    return detail;
}

std::unique_ptr<View> openSqliteView(const std::string& path, std::chrono::milliseconds patience) {
    return std::make_unique<SqliteView>(path, patience);
}

} // namespace evweb
