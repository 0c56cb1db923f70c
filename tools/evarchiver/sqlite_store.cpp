#include "sqlite_store.h"

#include "database_file.h"
#include "sqlite.h"
#include "sqlite_layout.h"

#include <array>
#include <mutex>
#include <sqlite3.h>
#include <unistd.h>

namespace evarchive {
namespace {

// Pages of the "-wal" file before it is written back: fewer pages are then written twice.
constexpr char SET_UP[] = "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                          "PRAGMA wal_autocheckpoint = 4000; PRAGMA busy_timeout = 1000";

#define EVENT_COLUMNS "id, own, image, doubtful, received"

StoredEvent eventOf(const SqliteStatement& row) {
    return {row.id(0), row.integer(1) != 0, row.bytes(2), row.integer(3) != 0, row.integer(4)};
}

std::optional<U32_t> idOf(const SqliteStatement& row, int column) {
    return row.isNull(column) ? std::nullopt : std::optional(row.id(column));
}

std::optional<IdRun> runOf(const SqliteStatement& row, int column) {
    const IdRun run{row.id(column), row.id(column + 1)};
    return row.isNull(column) ? std::nullopt : std::optional(run);
}

// An inquiry's type as a condition and an order; all are walks of one index.
constexpr std::array<const char*, 5> FIND = {
    "SELECT " EVENT_COLUMNS " FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND ?3 = ?3 ORDER BY id LIMIT 1",
    "SELECT " EVENT_COLUMNS " FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id > ?3 ORDER BY id LIMIT 1",
    "SELECT " EVENT_COLUMNS " FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id = ?3",
    "SELECT " EVENT_COLUMNS " FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id < ?3 ORDER BY id DESC LIMIT 1",
    "SELECT " EVENT_COLUMNS " FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND ?3 = ?3 ORDER BY id DESC LIMIT 1",
};
static_assert(FIND.size() == EMP_E_INQUIRY_TYPE_LAST);

// What the connections of one process to a file have in common.
struct SharedFile {
    explicit SharedFile(const std::string& path) : file(path) {}

    DatabaseFile file;
    std::mutex writing;
};

class SqliteStore final : public Store {
  public:
    // A store that is only read, or lies in memory, comes without a file.
    explicit SqliteStore(std::unique_ptr<SqliteDatabase> database,
                         std::shared_ptr<SharedFile> file = nullptr)
        : file_(std::move(file)), database_(std::move(database)) {}

    void begin() override {
        std::unique_lock<std::mutex> turn;
        if (file_) {
            turn = std::unique_lock(file_->writing);
        }
        begin_.run();
        turn_ = std::move(turn);
    }

    void commit() override {
        if (file_) {
            file_->file.requireInPlace();
        }
        commit_.run();
        turn_ = {};
    }

    void rollback() noexcept override {
        for (SqliteStatement* statement : {&idsFrom_, &eventsFrom_, &oldest_}) {
            statement->reset();
        }
        database_->tryToExecute("ROLLBACK");
        turn_ = {};
    }

    SeriesNumber addSeries(const SeriesKey& key) override {
        addSeries_.with(key.blade.enclosure, key.blade.blade, key.blade.slot, key.instance).run();
        return database_->lastRow();
    }

    void addGeneration(const GenerationKey& generation, S64_t opened) override {
        addGeneration_.with(generation.series, generation.generation, opened).run();
    }

    void addEvent(const GenerationKey& generation, const NewEvent& event) override {
        const auto header = imageOf<EmpEvLogHeader_t>(event.image);
        addEvent_
            .with(generation.series, generation.generation, event.sequenceId, event.own,
                  U32_t{header.evTime}, U32_t{header.evSource}, U32_t{header.evType},
                  U32_t{header.evCategory}, U32_t{header.evId}, event.image, event.received,
                  event.doubtful)
            .run();
    }

    void confirmEvent(const GenerationKey& generation, View image) override {
        const U32_t id = imageOf<EmpEvLogHeader_t>(image).evSequenceId;
        confirmEvent_.with(generation.series, generation.generation, id).run();
    }

    void removeEvent(const GenerationKey& generation, U32_t id) override {
        removeEvents_.with(generation.series, generation.generation, id, id).run();
    }

    U64_t removeOldest(const GenerationKey& generation, S64_t before, U64_t most) override;

    void countDuplicates(const GenerationKey& generation, U64_t more) override {
        countDuplicates_.with(static_cast<S64_t>(more), generation.series, generation.generation)
            .run();
    }

    void noteProven(const GenerationKey& generation, const IdRun& run) override {
        noteProven_
            .with(S64_t{run.first}, S64_t{run.last}, generation.series, generation.generation)
            .run();
    }

    void noteOldest(const GenerationKey& generation, U32_t id) override {
        noteOldest_.with(id, generation.series, generation.generation).run();
    }

    void setAside(const SeriesKey& key, Aside reason, const NewEvent& event) override {
        setAside_
            .with(key.blade.enclosure, key.blade.blade, key.blade.slot, key.instance,
                  event.sequenceId, static_cast<U32_t>(reason), event.received, event.image)
            .run();
    }

    U64_t removeAside(S64_t before) override {
        removeAside_.with(before).run();
        return static_cast<U64_t>(database_->changes());
    }

    std::optional<SeriesNumber> findSeries(const SeriesKey& key) override {
        return oneNumber(
            findSeries_.with(key.blade.enclosure, key.blade.blade, key.blade.slot, key.instance));
    }

    std::optional<GenerationInfo> newestGeneration(SeriesNumber series) override;

    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        return oneEvent(find_[static_cast<std::size_t>(type - EMP_E_INQUIRY_TYPE_FIRST)].with(
            generation.series, generation.generation, id));
    }

    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) override {
        return oneEvent(held_.with(generation.series, generation.generation, id));
    }

    std::optional<StoredEvent> oldestEvent(const GenerationKey& generation) override {
        return oneEvent(eventsFrom_.with(generation.series, generation.generation));
    }

    std::optional<U32_t> highestId(const GenerationKey& generation) override {
        const auto id = oneNumber(highest_.with(generation.series, generation.generation));
        return id ? std::optional(static_cast<U32_t>(*id)) : std::nullopt;
    }

    U32_t endOfRun(const GenerationKey& generation, U32_t from) override {
        certainFrom_.with(generation.series, generation.generation, from);
        U64_t next = from;
        while (certainFrom_.step() && certainFrom_.id(0) == next && !certainFrom_.integer(1)) {
            ++next;
        }
        certainFrom_.reset();
        return static_cast<U32_t>(next - 1);
    }

    U64_t rowCount() override {
        return static_cast<U64_t>(database_->number("SELECT count(*) FROM events"));
    }

    std::vector<GenerationInfo> listGenerations() override;

    void forEachRun(const GenerationKey& generation, U32_t from,
                    const std::function<void(const IdRun&)>& take) override;

    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take) override {
        eventsFrom_.with(generation.series, generation.generation);
        while (eventsFrom_.step()) {
            take(eventOf(eventsFrom_));
        }
        eventsFrom_.reset();
    }

    void forEachAside(const std::function<void(const AsideEvent&)>& take) override;

    U64_t bytesUsed() override {
        const S64_t pages = database_->number("PRAGMA page_count");
        const S64_t unused = database_->number("PRAGMA freelist_count");
        return static_cast<U64_t>((pages - unused) * database_->number("PRAGMA page_size"));
    }

  private:
    // An open statement would keep its view of the file, and the "-wal" file growing: it is reset
    // as soon as its row has been read.
    static std::optional<S64_t> oneNumber(SqliteStatement& statement) {
        std::optional<S64_t> number;
        if (statement.step()) {
            number = statement.integer(0);
        }
        statement.reset();
        return number;
    }

    static std::optional<StoredEvent> oneEvent(SqliteStatement& statement) {
        std::optional<StoredEvent> event;
        if (statement.step()) {
            event = eventOf(statement);
        }
        statement.reset();
        return event;
    }

    std::shared_ptr<SharedFile> file_;  // outlives the database
    std::unique_lock<std::mutex> turn_; // to write
    std::unique_ptr<SqliteDatabase> database_;
    SqliteStatement begin_{*database_, "BEGIN IMMEDIATE"};
    SqliteStatement commit_{*database_, "COMMIT"};
    SqliteStatement addSeries_{
        *database_, "INSERT INTO series (enclosure, blade, slot, instance) VALUES (?, ?, ?, ?)"};
    SqliteStatement addGeneration_{*database_,
                                   "INSERT INTO generations (series, generation, opened, "
                                   "duplicates) VALUES (?, ?, ?, 0)"};
    SqliteStatement addEvent_{*database_,
                              "INSERT INTO events (series, generation, id, own, time, source, "
                              "type, category, event, image, received, doubtful) "
                              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"};
    SqliteStatement confirmEvent_{*database_, "UPDATE events SET doubtful = 0 "
                                              "WHERE series = ? AND generation = ? AND id = ?"};
    SqliteStatement removeEvents_{*database_,
                                  "DELETE FROM events WHERE series = ? AND generation = ? "
                                  "AND id BETWEEN ? AND ?"};
    SqliteStatement countDuplicates_{*database_,
                                     "UPDATE generations SET duplicates = duplicates + ? "
                                     "WHERE series = ? AND generation = ?"};
    SqliteStatement noteProven_{*database_,
                                "UPDATE generations SET proven_first = iif(?1 > ?2, NULL, ?1), "
                                "proven_last = iif(?1 > ?2, NULL, ?2) "
                                "WHERE series = ?3 AND generation = ?4"};
    SqliteStatement noteOldest_{*database_, "UPDATE generations SET oldest = ? "
                                            "WHERE series = ? AND generation = ?"};
    SqliteStatement setAside_{*database_,
                              "INSERT OR IGNORE INTO set_aside VALUES (?, ?, ?, ?, ?, ?, ?, ?)"};
    SqliteStatement removeAside_{*database_, "DELETE FROM set_aside WHERE received < ?"};
    SqliteStatement findSeries_{*database_,
                                "SELECT series FROM series "
                                "WHERE enclosure = ? AND blade = ? AND slot = ? AND instance = ?"};
    SqliteStatement newestGeneration_{*database_,
                                      "SELECT generation, opened, duplicates, proven_first, "
                                      "proven_last, oldest FROM generations WHERE series = ? "
                                      "ORDER BY generation DESC LIMIT 1"};
    std::array<SqliteStatement, FIND.size()> find_{
        SqliteStatement{*database_, FIND[0]}, SqliteStatement{*database_, FIND[1]},
        SqliteStatement{*database_, FIND[2]}, SqliteStatement{*database_, FIND[3]},
        SqliteStatement{*database_, FIND[4]}};
    SqliteStatement held_{*database_, "SELECT " EVENT_COLUMNS " FROM events "
                                      "WHERE series = ? AND generation = ? AND id = ?"};
    SqliteStatement highest_{*database_,
                             "SELECT id FROM events WHERE series = ? AND generation = ? "
                             "ORDER BY id DESC LIMIT 1"};
    SqliteStatement idsFrom_{*database_,
                             "SELECT id FROM events WHERE series = ? AND generation = ? "
                             "AND id >= ? ORDER BY id"};
    SqliteStatement certainFrom_{*database_, "SELECT id, doubtful FROM events WHERE series = ? AND "
                                             "generation = ? AND id >= ? ORDER BY id"};
    SqliteStatement oldest_{*database_,
                            "SELECT id, received FROM events WHERE series = ? AND generation = ? "
                            "ORDER BY id LIMIT ?"};
    SqliteStatement eventsFrom_{*database_, "SELECT " EVENT_COLUMNS " FROM events "
                                            "WHERE series = ? AND generation = ? ORDER BY id"};
};

std::optional<GenerationInfo> SqliteStore::newestGeneration(SeriesNumber series) {
    std::optional<GenerationInfo> newest;
    if (newestGeneration_.with(series).step()) {
        newest = {{},
                  {series, newestGeneration_.id(0)},
                  newestGeneration_.integer(1),
                  static_cast<U64_t>(newestGeneration_.integer(2)),
                  runOf(newestGeneration_, 3),
                  {},
                  idOf(newestGeneration_, 5)};
    }
    newestGeneration_.reset();
    return newest;
}

U64_t SqliteStore::removeOldest(const GenerationKey& generation, S64_t before, U64_t most) {
    const auto newest = highestId(generation);
    std::optional<U32_t> last;
    U64_t count = 0;
    oldest_.with(generation.series, generation.generation, static_cast<S64_t>(most));
    while (oldest_.step() && oldest_.integer(1) < before && oldest_.id(0) != newest) {
        last = oldest_.id(0);
        ++count;
    }
    oldest_.reset();
    if (last) {
        removeEvents_.with(generation.series, generation.generation, U32_t{0}, *last).run();
    }
    return count;
}

std::vector<GenerationInfo> SqliteStore::listGenerations() {
    SqliteStatement rows(*database_,
                         "SELECT enclosure, blade, slot, instance, series, generation, opened, "
                         "duplicates, proven_first, proven_last, oldest "
                         "FROM series JOIN generations USING (series) "
                         "ORDER BY enclosure, blade, slot, instance, generation");
    std::vector<GenerationInfo> list;
    while (rows.step()) {
        list.push_back({{{rows.text(0), rows.text(1), rows.id(2)}, rows.id(3)},
                        {rows.integer(4), rows.id(5)},
                        rows.integer(6),
                        static_cast<U64_t>(rows.integer(7)),
                        runOf(rows, 8),
                        {},
                        idOf(rows, 10)});
    }
    return list;
}

void SqliteStore::forEachRun(const GenerationKey& generation, U32_t from,
                             const std::function<void(const IdRun&)>& take) {
    idsFrom_.with(generation.series, generation.generation, from);
    std::optional<IdRun> run;
    while (idsFrom_.step()) {
        const U32_t id = idsFrom_.id(0);
        if (run && id == U64_t{run->last} + 1) {
            run->last = id;
            continue;
        }
        if (run) {
            take(*run);
        }
        run = IdRun{id, id};
    }
    idsFrom_.reset();
    if (run) {
        take(*run);
    }
}

void SqliteStore::forEachAside(const std::function<void(const AsideEvent&)>& take) {
    SqliteStatement rows(*database_,
                         "SELECT enclosure, blade, slot, instance, id, reason, received, image "
                         "FROM set_aside ORDER BY received, id");
    while (rows.step()) {
        take({{{rows.text(0), rows.text(1), rows.id(2)}, rows.id(3)},
              rows.id(4),
              static_cast<Aside>(rows.id(5)),
              rows.integer(6),
              rows.bytes(7)});
    }
}

// "file:" address of a path, for the parameters that only an address can carry.
std::string addressOf(const std::string& path) {
    std::string address = "file:";
    for (const char letter : path) {
        if (letter == '%' || letter == '?' || letter == '#') {
            static constexpr char DIGITS[] = "0123456789ABCDEF";
            address += '%';
            address += DIGITS[letter >> 4];
            address += DIGITS[letter & 15];
        } else {
            address += letter;
        }
    }
    return address;
}

std::unique_ptr<SqliteDatabase> checked(std::unique_ptr<SqliteDatabase> database,
                                        const std::string& path) {
    database->execute("PRAGMA busy_timeout = 5000");
    requireArchive(*database, path);
    return database;
}

std::unique_ptr<Store> connectTo(const std::shared_ptr<SharedFile>& file, const std::string& path) {
    auto database = std::make_unique<SqliteDatabase>(path, SQLITE_OPEN_READWRITE, path);
    // So long a start waits for another program that has the file.
    database->execute("PRAGMA busy_timeout = 5000");
    prepareLayout(*database, path);
    // A status answer may make a blade drop its copy of what it names: a commit waits for the disk.
    database->execute(SET_UP);
    auto store = std::make_unique<SqliteStore>(std::move(database), file);
    file->file.keep();
    return store;
}

} // namespace

std::unique_ptr<Store> openArchive(const std::string& path) {
    return connectTo(std::make_shared<SharedFile>(path), path);
}

std::function<std::unique_ptr<Store>()> archiveConnector(const std::string& path) {
    return [path, file = std::shared_ptr<SharedFile>()]() mutable {
        if (!file) {
            file = std::make_shared<SharedFile>(path);
        }
        return connectTo(file, path);
    };
}

std::unique_ptr<Store> openArchiveForUpkeep(const std::string& path) {
    auto database = std::make_unique<SqliteDatabase>(path, SQLITE_OPEN_READWRITE, path);
    database->execute("PRAGMA busy_timeout = 5000");
    requireArchive(*database, path);
    return std::make_unique<SqliteStore>(std::move(database));
}

std::unique_ptr<Store> openArchiveInMemory() {
    auto database = std::make_unique<SqliteDatabase>(
        ":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "archive in memory");
    prepareLayout(*database, "archive in memory");
    return std::make_unique<SqliteStore>(std::move(database));
}

std::unique_ptr<SqliteDatabase> openDatabaseForReading(const std::string& path) {
    try {
        return checked(std::make_unique<SqliteDatabase>(path, SQLITE_OPEN_READONLY, path), path);
    } catch (const StoreError&) {
        // In a directory that cannot be written SQLite has no place for its shared index. Without
        // one the file is still good when nobody is writing it, and then there is no "-wal".
        if (access((path + "-wal").c_str(), F_OK) == 0 || access(path.c_str(), R_OK) != 0) {
            throw;
        }
        return checked(std::make_unique<SqliteDatabase>(addressOf(path) + "?immutable=1",
                                                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                                                        path),
                       path);
    }
}

std::unique_ptr<StoreReader> openArchiveForReading(const std::string& path) {
    return std::make_unique<SqliteStore>(openDatabaseForReading(path));
}

} // namespace evarchive
