#include "sqlite_store.h"

#include "sqlite.h"
#include "writer_lock.h"

#include <array>
#include <sqlite3.h>
#include <unistd.h>

namespace evarchive {
namespace {

// "EVAR" in the file's header: other SQLite files are not taken for an archive.
constexpr S64_t APPLICATION_ID = 0x45564152;
constexpr S64_t LAYOUT_VERSION = 1;

constexpr char LAYOUT[] = R"(
BEGIN;
CREATE TABLE series (
    series INTEGER PRIMARY KEY, enclosure TEXT NOT NULL, blade TEXT NOT NULL,
    slot INTEGER NOT NULL, instance INTEGER NOT NULL, UNIQUE (enclosure, blade, slot, instance));
CREATE TABLE generations (
    series INTEGER NOT NULL, generation INTEGER NOT NULL, opened INTEGER NOT NULL,
    duplicates INTEGER NOT NULL, PRIMARY KEY (series, generation)) WITHOUT ROWID;
CREATE TABLE events (
    series INTEGER NOT NULL, generation INTEGER NOT NULL, id INTEGER NOT NULL,
    own INTEGER NOT NULL, time INTEGER NOT NULL, source INTEGER NOT NULL, type INTEGER NOT NULL,
    category INTEGER NOT NULL, event INTEGER NOT NULL, image BLOB NOT NULL,
    UNIQUE (series, generation, id));
PRAGMA application_id = 0x45564152;
PRAGMA user_version = 1;
COMMIT;
)";

StoredEvent eventOf(const SqliteStatement& row) {
    return {row.id(0), row.integer(1) != 0, row.bytes(2)};
}

// An inquiry's type as a condition and an order; all are walks of one index.
constexpr std::array<const char*, 5> FIND = {
    "SELECT id, own, image FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND ?3 = ?3 ORDER BY id LIMIT 1",
    "SELECT id, own, image FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id > ?3 ORDER BY id LIMIT 1",
    "SELECT id, own, image FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id = ?3",
    "SELECT id, own, image FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND id < ?3 ORDER BY id DESC LIMIT 1",
    "SELECT id, own, image FROM events WHERE series = ?1 AND generation = ?2 AND own "
    "AND ?3 = ?3 ORDER BY id DESC LIMIT 1",
};
static_assert(FIND.size() == EMP_E_INQUIRY_TYPE_LAST);

class SqliteStore final : public Store {
  public:
    // A store that is only read comes without a lock.
    explicit SqliteStore(std::unique_ptr<SqliteDatabase> database,
                         std::unique_ptr<WriterLock> lock = nullptr)
        : lock_(std::move(lock)), database_(std::move(database)) {}

    void begin() override { database_->execute("BEGIN IMMEDIATE"); }
    void commit() override { database_->execute("COMMIT"); }

    SeriesNumber addSeries(const SeriesKey& key) override {
        addSeries_.with(key.blade.enclosure, key.blade.blade, key.blade.slot, key.instance).run();
        return database_->lastRow();
    }

    void addGeneration(const GenerationKey& generation, S64_t opened) override {
        addGeneration_.with(generation.series, generation.generation, opened).run();
    }

    void addEvent(const GenerationKey& generation, const StoredEvent& event) override {
        const auto header = imageOf<EmpEvLogHeader_t>(event.image);
        addEvent_
            .with(generation.series, generation.generation, event.sequenceId, event.own,
                  U32_t{header.evTime}, U32_t{header.evSource}, U32_t{header.evType},
                  U32_t{header.evCategory}, U32_t{header.evId}, event.image)
            .run();
    }

    void countDuplicate(const GenerationKey& generation) override {
        countDuplicate_.with(generation.series, generation.generation).run();
    }

    std::optional<SeriesNumber> findSeries(const SeriesKey& key) override {
        return oneNumber(
            findSeries_.with(key.blade.enclosure, key.blade.blade, key.blade.slot, key.instance));
    }

    U32_t newestGeneration(SeriesNumber series) override {
        return static_cast<U32_t>(oneNumber(newestGeneration_.with(series)).value_or(0));
    }

    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        return oneEvent(find_[static_cast<std::size_t>(type - EMP_E_INQUIRY_TYPE_FIRST)],
                        generation, id);
    }

    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) override {
        return oneEvent(held_, generation, id);
    }

    std::optional<U32_t> highestId(const GenerationKey& generation) override {
        const auto id = oneNumber(highest_.with(generation.series, generation.generation));
        return id ? std::optional(static_cast<U32_t>(*id)) : std::nullopt;
    }

    U32_t endOfRun(const GenerationKey& generation, U32_t from) override {
        idsFrom_.with(generation.series, generation.generation, from);
        U64_t next = from;
        while (idsFrom_.step() && idsFrom_.id(0) == next) {
            ++next;
        }
        idsFrom_.reset();
        return static_cast<U32_t>(next - 1);
    }

    U64_t rowCount() override {
        return static_cast<U64_t>(database_->number("SELECT count(*) FROM events"));
    }

    std::vector<GenerationInfo> listGenerations() override;

    void forEachRun(const GenerationKey& generation,
                    const std::function<void(const IdRun&)>& take) override;

    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take) override {
        eventsFrom_.with(generation.series, generation.generation);
        while (eventsFrom_.step()) {
            take(eventOf(eventsFrom_));
        }
        eventsFrom_.reset();
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

    static std::optional<StoredEvent> oneEvent(SqliteStatement& statement,
                                               const GenerationKey& generation, U32_t id) {
        statement.with(generation.series, generation.generation, id);
        std::optional<StoredEvent> event;
        if (statement.step()) {
            event = eventOf(statement);
        }
        statement.reset();
        return event;
    }

    std::unique_ptr<WriterLock> lock_; // outlives the database
    std::unique_ptr<SqliteDatabase> database_;
    SqliteStatement addSeries_{
        *database_, "INSERT INTO series (enclosure, blade, slot, instance) VALUES (?, ?, ?, ?)"};
    SqliteStatement addGeneration_{*database_, "INSERT INTO generations VALUES (?, ?, ?, 0)"};
    SqliteStatement addEvent_{*database_,
                              "INSERT INTO events VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"};
    SqliteStatement countDuplicate_{*database_,
                                    "UPDATE generations SET duplicates = duplicates + 1 "
                                    "WHERE series = ? AND generation = ?"};
    SqliteStatement findSeries_{*database_,
                                "SELECT series FROM series "
                                "WHERE enclosure = ? AND blade = ? AND slot = ? AND instance = ?"};
    SqliteStatement newestGeneration_{*database_, "SELECT generation FROM generations "
                                                  "WHERE series = ? "
                                                  "ORDER BY generation DESC LIMIT 1"};
    std::array<SqliteStatement, FIND.size()> find_{
        SqliteStatement{*database_, FIND[0]}, SqliteStatement{*database_, FIND[1]},
        SqliteStatement{*database_, FIND[2]}, SqliteStatement{*database_, FIND[3]},
        SqliteStatement{*database_, FIND[4]}};
    SqliteStatement held_{*database_, "SELECT id, own, image FROM events "
                                      "WHERE series = ? AND generation = ? AND id = ?"};
    SqliteStatement highest_{*database_,
                             "SELECT id FROM events WHERE series = ? AND generation = ? "
                             "ORDER BY id DESC LIMIT 1"};
    SqliteStatement idsFrom_{*database_,
                             "SELECT id FROM events WHERE series = ? AND generation = ? "
                             "AND id >= ? ORDER BY id"};
    SqliteStatement eventsFrom_{*database_, "SELECT id, own, image FROM events "
                                            "WHERE series = ? AND generation = ? ORDER BY id"};
};

std::vector<GenerationInfo> SqliteStore::listGenerations() {
    SqliteStatement rows(*database_,
                         "SELECT enclosure, blade, slot, instance, series, generation, opened, "
                         "duplicates FROM series JOIN generations USING (series) "
                         "ORDER BY enclosure, blade, slot, instance, generation");
    std::vector<GenerationInfo> list;
    while (rows.step()) {
        list.push_back({{{rows.text(0), rows.text(1), rows.id(2)}, rows.id(3)},
                        {rows.integer(4), rows.id(5)},
                        rows.integer(6),
                        static_cast<U64_t>(rows.integer(7))});
    }
    return list;
}

void SqliteStore::forEachRun(const GenerationKey& generation,
                             const std::function<void(const IdRun&)>& take) {
    idsFrom_.with(generation.series, generation.generation, U32_t{0});
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

void requireArchive(SqliteDatabase& database, const std::string& path) {
    if (database.number("PRAGMA application_id") != APPLICATION_ID) {
        throw StoreError(path + ": not an event archive");
    }
    const S64_t version = database.number("PRAGMA user_version");
    if (version != LAYOUT_VERSION) {
        throw StoreError(path + ": version " + std::to_string(version) +
                         " of the archive's layout is not known");
    }
}

bool isEmpty(SqliteDatabase& database) {
    return database.number("SELECT count(*) FROM sqlite_schema") == 0;
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

std::unique_ptr<StoreReader> readerOf(std::unique_ptr<SqliteDatabase> database,
                                      const std::string& path) {
    database->execute("PRAGMA busy_timeout = 5000");
    requireArchive(*database, path);
    return std::make_unique<SqliteStore>(std::move(database));
}

} // namespace

std::unique_ptr<Store> openArchive(const std::string& path) {
    auto lock = std::make_unique<WriterLock>(path);
    auto database =
        std::make_unique<SqliteDatabase>(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, path);
    database->execute("PRAGMA busy_timeout = 5000");
    if (isEmpty(*database)) {
        database->execute(LAYOUT);
    }
    requireArchive(*database, path);
    // A status answer may make a blade drop its copy of what it names: a commit waits for the disk.
    database->execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
    return std::make_unique<SqliteStore>(std::move(database), std::move(lock));
}

std::unique_ptr<StoreReader> openArchiveForReading(const std::string& path) {
    try {
        return readerOf(std::make_unique<SqliteDatabase>(path, SQLITE_OPEN_READONLY, path), path);
    } catch (const StoreError&) {
        // In a directory that cannot be written SQLite has no place for its shared index. Without
        // one the file is still good when nobody is writing it, and then there is no "-wal".
        if (access((path + "-wal").c_str(), F_OK) == 0 || access(path.c_str(), R_OK) != 0) {
            throw;
        }
        return readerOf(std::make_unique<SqliteDatabase>(addressOf(path) + "?immutable=1",
                                                         SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                                                         path),
                        path);
    }
}

} // namespace evarchive
