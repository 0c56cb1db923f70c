/**
 * @file
 * What an operator does with an archive, which may be in use meanwhile.
 */
#ifndef EVARCHIVER_ARCHIVE_UPKEEP_H
#define EVARCHIVER_ARCHIVE_UPKEEP_H

#include "retention.h"

namespace evarchive {

/** Copies an archive as it is at one moment. Throws StoreError, also when there is something at
 * @p target already. */
void backupArchive(const std::string& path, const std::string& target);

/** Removes the oldest events as an archiver with these bounds does. @return how many. Throws
 * StoreError. */
U64_t pruneArchive(const std::string& path, const RetentionSettings& settings);

/** Gives the room of what was removed back to the file system. An archiver that has the archive
 * open lets its events wait until it is done. @return bytes given back. Throws StoreError. */
U64_t vacuumArchive(const std::string& path);

} // namespace evarchive

#endif
