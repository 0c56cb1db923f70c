#include "archive_upkeep.h"

#include "sqlite.h"
#include "sqlite_store.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sqlite3.h>
#include <unistd.h>

namespace evarchive {
namespace {

// Pages copied before other programs have their turn.
constexpr int PAGES_AT_A_TIME = 1000;

void makeEmpty(const std::string& path) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        throw StoreError(path + ": " + strerror(errno));
    }
    close(descriptor);
}

void copy(SqliteDatabase& from, SqliteDatabase& to) {
    sqlite3_backup* backup = sqlite3_backup_init(to.handle(), "main", from.handle(), "main");
    if (backup == nullptr) {
        to.fail();
    }
    int result = SQLITE_OK;
    while (result == SQLITE_OK || result == SQLITE_BUSY || result == SQLITE_LOCKED) {
        result = sqlite3_backup_step(backup, PAGES_AT_A_TIME);
        if (result == SQLITE_BUSY || result == SQLITE_LOCKED) {
            sqlite3_sleep(20);
        }
    }
    if (sqlite3_backup_finish(backup) != SQLITE_OK) {
        to.fail();
    }
}

} // namespace

void backupArchive(const std::string& path, const std::string& target) {
    openArchiveForReading(path); // or says what is wrong with it
    SqliteDatabase from(path, SQLITE_OPEN_READONLY, path);
    makeEmpty(target);
    try {
        SqliteDatabase to(target, SQLITE_OPEN_READWRITE, target);
        // All pages belong to one moment, however long it takes.
        from.execute("PRAGMA busy_timeout = 5000; BEGIN; SELECT count(*) FROM series");
        copy(from, to);
    } catch (const StoreError&) {
        unlink(target.c_str());
        throw;
    }
}

U64_t pruneArchive(const std::string& path, const RetentionSettings& settings) {
    const auto store = openArchiveForUpkeep(path);
    Retention retention(*store, settings);
    retention.beginRound(time(nullptr));
    while (retention.isInRound()) {
        retention.step();
    }
    return retention.removed();
}

U64_t vacuumArchive(const std::string& path) {
    openArchiveForUpkeep(path); // or says what is wrong with it
    const U64_t before = std::filesystem::file_size(path);
    SqliteDatabase database(path, SQLITE_OPEN_READWRITE, path);
    database.execute("PRAGMA busy_timeout = 30000; VACUUM; PRAGMA wal_checkpoint(TRUNCATE)");
    const U64_t after = std::filesystem::file_size(path);
    return before > after ? before - after : 0;
}

} // namespace evarchive
