#include "sqlite_layout.h"

#include <ctime>

namespace evarchive {
namespace {

// "EVAR" in the file's header: other SQLite files are not taken for an archive.
constexpr S64_t APPLICATION_ID = 0x45564152;
constexpr S64_t LAYOUT_VERSION = 3;

// Those of the tables that are stored rows: a view, a virtual table or a column that is worked out
// may be without end.
constexpr char STORED_TABLES[] = R"(
SELECT count(*) FROM sqlite_schema s WHERE sql LIKE 'CREATE TABLE %'
    AND name IN ('series', 'generations', 'events', 'set_aside')
    AND NOT EXISTS (SELECT 1 FROM pragma_table_xinfo(s.name) WHERE hidden <> 0)
)";

constexpr char LAYOUT[] = R"(
BEGIN;
CREATE TABLE series (
    series INTEGER PRIMARY KEY, enclosure TEXT NOT NULL, blade TEXT NOT NULL,
    slot INTEGER NOT NULL, instance INTEGER NOT NULL, UNIQUE (enclosure, blade, slot, instance));
CREATE TABLE generations (
    series INTEGER NOT NULL, generation INTEGER NOT NULL, opened INTEGER NOT NULL,
    duplicates INTEGER NOT NULL, proven_first INTEGER, proven_last INTEGER, oldest INTEGER,
    PRIMARY KEY (series, generation)) WITHOUT ROWID;
CREATE TABLE events (
    series INTEGER NOT NULL, generation INTEGER NOT NULL, id INTEGER NOT NULL,
    own INTEGER NOT NULL, time INTEGER NOT NULL, source INTEGER NOT NULL, type INTEGER NOT NULL,
    category INTEGER NOT NULL, event INTEGER NOT NULL, image BLOB NOT NULL,
    received INTEGER NOT NULL, doubtful INTEGER NOT NULL,
    UNIQUE (series, generation, id));
CREATE TABLE set_aside (
    enclosure TEXT NOT NULL, blade TEXT NOT NULL, slot INTEGER NOT NULL, instance INTEGER NOT NULL,
    id INTEGER NOT NULL, reason INTEGER NOT NULL, received INTEGER NOT NULL, image BLOB NOT NULL,
    UNIQUE (enclosure, blade, slot, instance, id, image));
PRAGMA application_id = 0x45564152;
PRAGMA user_version = 3;
COMMIT;
)";

// From layout 1. When its events came is not known: they count as received now.
constexpr char FROM_1[] = R"(
BEGIN IMMEDIATE;
ALTER TABLE generations ADD COLUMN proven_first INTEGER;
ALTER TABLE generations ADD COLUMN proven_last INTEGER;
ALTER TABLE events ADD COLUMN received INTEGER NOT NULL DEFAULT %NOW%;
ALTER TABLE events ADD COLUMN doubtful INTEGER NOT NULL DEFAULT 0;
CREATE TABLE set_aside (
    enclosure TEXT NOT NULL, blade TEXT NOT NULL, slot INTEGER NOT NULL, instance INTEGER NOT NULL,
    id INTEGER NOT NULL, reason INTEGER NOT NULL, received INTEGER NOT NULL, image BLOB NOT NULL,
    UNIQUE (enclosure, blade, slot, instance, id, image));
PRAGMA user_version = 2;
COMMIT;
)";

constexpr char FROM_2[] = R"(
BEGIN IMMEDIATE;
ALTER TABLE generations ADD COLUMN oldest INTEGER;
PRAGMA user_version = 3;
COMMIT;
)";

void upgrade(SqliteDatabase& database) {
    if (database.number("PRAGMA user_version") == 1) {
        std::string text = FROM_1;
        text.replace(text.find("%NOW%"), 5, std::to_string(time(nullptr)));
        database.execute(text.c_str());
    }
    if (database.number("PRAGMA user_version") == 2) {
        database.execute(FROM_2);
    }
}

bool isEmpty(SqliteDatabase& database) {
    return database.number("SELECT count(*) FROM sqlite_schema") == 0;
}

} // namespace

void requireArchive(SqliteDatabase& database, const std::string& path) {
    if (database.number("PRAGMA application_id") != APPLICATION_ID) {
        throw StoreError(path + ": not an event archive");
    }
    const S64_t version = database.number("PRAGMA user_version");
    if (version > 0 && version < LAYOUT_VERSION) {
        throw StoreError(path + ": of an earlier version; an archiver that opens it brings it up "
                                "to date");
    }
    if (version != LAYOUT_VERSION) {
        throw StoreError(path + ": version " + std::to_string(version) +
                         " of the archive's layout is not known");
    }
    if (database.number(STORED_TABLES) != 4) {
        throw StoreError(path + ": an event archive with other tables");
    }
}

void prepareLayout(SqliteDatabase& database, const std::string& path) {
    if (isEmpty(database)) {
        database.execute(LAYOUT);
    } else if (database.number("PRAGMA application_id") == APPLICATION_ID) {
        upgrade(database);
    }
    requireArchive(database, path);
}

} // namespace evarchive
