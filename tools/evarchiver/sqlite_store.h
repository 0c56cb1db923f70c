/**
 * @file
 * The embedded engine of the archive: one SQLite file in WAL mode, and beside it the files that
 * SQLite keeps while it is open ("-wal", "-shm") and "-lock", which keeps a second archiver out.
 *
 * Tables (readable with any SQLite client):
 *   series       series, enclosure, blade, slot, instance
 *   generations  series, generation, opened, duplicates
 *   events       series, generation, id, own, time, source, type, category, event, image
 */
#ifndef EVARCHIVER_SQLITE_STORE_H
#define EVARCHIVER_SQLITE_STORE_H

#include "store.h"

#include <memory>

namespace evarchive {

/**
 * Opens an archive for writing; makes it if there is no such file. Throws StoreError, also when
 * another process has it open for writing or the file is something else.
 */
std::unique_ptr<Store> openArchive(const std::string& path);

/** Opens an existing archive, also one that is being written, for reading only. Throws StoreError.
 */
std::unique_ptr<StoreReader> openArchiveForReading(const std::string& path);

} // namespace evarchive

#endif
