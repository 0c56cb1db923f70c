/**
 * @file
 * The pages' questions to an archive that is an SQLite file.
 *
 * The file is opened anew for every question: so it may be away, replaced or rewritten in between,
 * and no read transaction is older than a few milliseconds. Events of all logs are listed in the
 * order of their rows, which is that of their arrival; events of one log by generation and id.
 */
#ifndef EVWEB_SQLITE_VIEW_H
#define EVWEB_SQLITE_VIEW_H

#include "sqlite.h"
#include "survey.h"
#include "view.h"

#include <condition_variable>
#include <ctime>
#include <functional>
#include <map>
#include <thread>

namespace evweb {

using evarchive::GenerationKey;
using evarchive::SqliteDatabase;
using evarchive::SqliteStatement;

/** Every statement that asks for events: a test looks at how each one is carried out. */
namespace sqlite_sql {

#define EVWEB_EVENT_COLUMNS                                                                        \
    "series, generation, id, own, time, source, type, category, event, rowid, image, doubtful, "   \
    "received"

/** What the engine leaves out by itself, so that fewer rows have to be looked at: types and sources
 * as bits, the first and the last second, an event id or -1. Filters see to what is left. */
#define EVWEB_SIEVE                                                                                \
    "AND (?8 < 0 OR event = ?8) AND (?4 >> type) & 1 AND (?5 >> source) & 1 "                      \
    "AND time BETWEEN ?6 AND ?7 AND own "

/** By arrival: first row, row behind the last one, nothing; what the sieve wants. */
constexpr char ARRIVALS[] =
    "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
    "WHERE rowid >= ?1 AND rowid < ?2 AND ?3 = 0 " EVWEB_SIEVE "ORDER BY rowid DESC";
constexpr char ARRIVALS_DOWN[] = "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
                                 "WHERE rowid >= ?1 ORDER BY rowid DESC";
constexpr char ARRIVALS_UP[] = "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
                               "WHERE rowid >= ?1 AND rowid < ?2 ORDER BY rowid";

/** Of one generation: series, generation, an id; what the sieve wants. */
constexpr char OLDER[] =
    "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
    "WHERE series = ?1 AND generation = ?2 AND id < ?3 " EVWEB_SIEVE "ORDER BY id DESC";
constexpr char NEWER[] = "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
                         "WHERE series = ?1 AND generation = ?2 AND id >= ?3 ORDER BY id";
constexpr char ONE[] = "SELECT " EVWEB_EVENT_COLUMNS " FROM events "
                       "WHERE series = ?1 AND generation = ?2 AND id = ?3";

/** What stands at the ends of a generation. */
constexpr char FIRST[] = "SELECT id, time, received FROM events "
                         "WHERE series = ?1 AND generation = ?2 ORDER BY id LIMIT 1";
constexpr char LAST[] = "SELECT id, time, received FROM events "
                        "WHERE series = ?1 AND generation = ?2 ORDER BY id DESC LIMIT 1";
constexpr char IDS[] = "SELECT id FROM events "
                       "WHERE series = ?1 AND generation = ?2 AND id >= ?3 ORDER BY id";
constexpr char COUNT[] = "SELECT count(*) FROM events "
                         "WHERE series = ?1 AND generation = ?2 AND id BETWEEN ?3 AND ?4";

/** When a row came, and what came behind it. */
constexpr char RECEIVED[] = "SELECT received FROM events WHERE rowid >= ?1 ORDER BY rowid LIMIT 1";
constexpr char LATELY[] = "SELECT series, type, time FROM events "
                          "WHERE rowid >= ?1 AND received >= ?2 AND own ORDER BY rowid";

/** Logs by name, behind a log. */
constexpr char LOGS[] = "SELECT series, enclosure, blade, slot, instance FROM series "
                        "WHERE (enclosure, blade, slot, instance) > "
                        "(SELECT enclosure, blade, slot, instance FROM series WHERE series = ?1) "
                        "ORDER BY enclosure, blade, slot, instance";
constexpr char ONE_LOG[] =
    "SELECT series, enclosure, blade, slot, instance FROM series WHERE series = ?1";
constexpr char ALL_LOGS[] = "SELECT series, enclosure, blade, slot, instance FROM series "
                            "ORDER BY enclosure, blade, slot, instance";
constexpr char GENERATIONS[] =
    "SELECT generation, opened, duplicates, proven_first, proven_last FROM generations "
    "WHERE series = ?1 ORDER BY generation DESC";

} // namespace sqlite_sql

/** Rows between two looks at the clock. */
constexpr U32_t ROWS_BETWEEN_LOOKS = 256;

/** The file, open for one question. */
class SqliteReading {
  public:
    /** Throws StoreError, a passing one when the file was being replaced. */
    SqliteReading(const std::string& path, std::chrono::milliseconds patience);

    SqliteDatabase& database() { return *database_; }
    const FileState& state() const { return state_; }
    bool isOver() const { return Clock::now() >= deadline_; }
    S64_t firstRow() { return database_->number("SELECT min(rowid) FROM events"); }
    S64_t lastRow() { return database_->number("SELECT max(rowid) FROM events"); }

  private:
    Clock::time_point deadline_;
    FileState state_;
    std::unique_ptr<SqliteDatabase> database_;
};

class SqliteView final : public View {
  public:
    /** @param now seconds since 1970-01-01 UTC */
    SqliteView(
        std::string path, std::chrono::milliseconds patience,
        std::function<S64_t()> now = [] { return S64_t{time(nullptr)}; });

    ViewStatus status() override;
    Overview logs(const LogSearch& search) override;
    LogDetail log(S64_t log) override;
    Page search(const Search& search) override;
    Page around(S64_t log, std::optional<U32_t> generation, U32_t id, U32_t reach) override;
    std::optional<FoundEvent> event(S64_t log, U32_t generation, U32_t id) override;
    Tail tail(const Search& search, const std::optional<Position>& after) override;
    void count(const Search& search, Timeline& timeline) override;

    /** Summarises one more zone. @return false when all are known, or the archive is away */
    bool surveyOne();

  private:
    struct Lately {
        FileState state;
        S64_t lastRow = -1;
        S64_t counted = 0; // when
        S64_t seconds = 0;
        std::map<S64_t, TypeCounts> counts; // of what came
        std::map<S64_t, TypeCounts> grave;  // warnings and errors of it that happened lately, too
    };

    Page searchLog(SqliteReading& reading, const Search& search, S64_t log);
    Page searchArrivals(SqliteReading& reading, const Search& search,
                        const std::vector<S64_t>& logs);
    std::shared_ptr<const Lately> lately(SqliteReading& reading);
    static Overview worst(SqliteReading& reading, const LogSearch& search, const Lately& counts);
    static Overview byName(SqliteReading& reading, const LogSearch& search, const Lately& counts);
    static LogInfo infoOf(SqliteReading& reading, SqliteStatement& row, const Lately& counts);
    void keepSurveying(const std::stop_token& stop);

    std::string path_;
    std::chrono::milliseconds patience_;
    std::function<S64_t()> now_;
    Survey survey_;
    std::mutex latelyMutex_;
    std::shared_ptr<const Lately> lately_;
    std::mutex waitMutex_;
    std::condition_variable_any wait_;
    std::jthread surveyor_; // the last member: it uses the others
};

/** The logs that a search is about, as their numbers; empty: all. Refuses a choice that no log
 * meets only by an empty list and false. */
struct LogsWanted {
    std::vector<S64_t> logs;
    bool isAll = true;
};
LogsWanted logsWanted(SqliteReading& reading, const Search& search);

/** Reads a row of EVWEB_EVENT_COLUMNS. */
EmpEvLogHeader_t headerOf(const SqliteStatement& row);
FoundEvent foundEvent(const SqliteStatement& row);

/** Asks for a stretch of events with three parameters and those of the sieve. */
void withSieve(SqliteStatement& row, S64_t first, S64_t second, S64_t third, const Search& search);

/** Whether a row is wanted, its log aside. */
bool isWanted(const SqliteStatement& row, const Search& search);

} // namespace evweb

#endif
