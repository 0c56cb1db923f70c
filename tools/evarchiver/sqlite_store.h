/**
 * @file
 * The embedded engine of the archive: one SQLite file in WAL mode, and beside it the files that
 * SQLite keeps while it is open ("-wal", "-shm"). The open file is locked against a second
 * archiver.
 *
 * Tables (readable with any SQLite client):
 *   series       series, enclosure, blade, slot, instance
 *   generations  series, generation, opened, duplicates, proven_first, proven_last
 *   events       series, generation, id, own, time, source, type, category, event, image, received,
 *                doubtful
 *   set_aside    enclosure, blade, slot, instance, id, reason, received, image
 */
#ifndef EVARCHIVER_SQLITE_STORE_H
#define EVARCHIVER_SQLITE_STORE_H

#include "store.h"

#include <functional>
#include <memory>

namespace evarchive {

class SqliteDatabase;

/**
 * Opens an archive for writing; makes it if there is no such file. Throws StoreError, also when
 * another archiver has it open or the file is something else; a file that was made is then removed
 * again. An archive of an earlier layout is brought up to date.
 */
std::unique_ptr<Store> openArchive(const std::string& path);

/** What opens an archive as openArchive() does, as often as there are lanes. Their transactions go
 * one after the other: a file has one writer. */
std::function<std::unique_ptr<Store>()> archiveConnector(const std::string& path);

/** Opens an existing archive for writing beside an archiver that may have it open: for upkeep, not
 * for filing. Throws StoreError. */
std::unique_ptr<Store> openArchiveForUpkeep(const std::string& path);

/** An archive that is gone with the process, for trials. */
std::unique_ptr<Store> openArchiveInMemory();

/** Opens an existing archive, also one that is being written, for reading only. Throws StoreError.
 */
std::unique_ptr<StoreReader> openArchiveForReading(const std::string& path);

/** The same, for questions of the caller's own to the tables above. */
std::unique_ptr<SqliteDatabase> openDatabaseForReading(const std::string& path);

} // namespace evarchive

#endif
