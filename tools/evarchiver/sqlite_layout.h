/**
 * @file
 * The tables of an archive in SQLite, and the way from earlier ones to them.
 */
#ifndef EVARCHIVER_SQLITE_LAYOUT_H
#define EVARCHIVER_SQLITE_LAYOUT_H

#include "sqlite.h"

namespace evarchive {

/** Throws StoreError unless the database is an archive of the present layout. @param path for the
 * text */
void requireArchive(SqliteDatabase& database, const std::string& path);

/** Makes the tables in an empty database, brings those of an earlier layout up to date, and leaves
 * everything else as it is: then, too, it throws as requireArchive() does. */
void prepareLayout(SqliteDatabase& database, const std::string& path);

} // namespace evarchive

#endif
