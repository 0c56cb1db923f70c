/**
 * @file
 * An archive to be read, wherever it is kept.
 */
#ifndef EVARCHIVER_READER_H
#define EVARCHIVER_READER_H

#include "store.h"

#include <memory>
#include <string>

namespace evarchive {

/** Whether a --db names a PostgreSQL server and no file. */
bool isPgPlace(const std::string& database);

/** A place fit to be shown: without password and options. */
std::string shownPlace(const std::string& database);

using OpenReader = std::unique_ptr<StoreReader> (*)(const std::string& database);

/** How openForReading() comes to archives on servers; a program that does not say has none. */
void useServerReader(OpenReader open);

/** Opens an archive for reading only, in a file or on a server. Throws StoreError. */
std::unique_ptr<StoreReader> openForReading(const std::string& database);

} // namespace evarchive

#endif
