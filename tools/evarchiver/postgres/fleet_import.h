/**
 * @file
 * From an archive in a file to a shared one.
 */
#ifndef EVARCHIVER_FLEET_IMPORT_H
#define EVARCHIVER_FLEET_IMPORT_H

#include "store.h"

#include <chrono>
#include <ostream>
#include <string>

namespace evarchive {

/** What was taken over. */
struct Imported {
    U64_t logs = 0;
    U64_t events = 0;
    U64_t setAside = 0; ///< that the file had set aside; also those that were there already
    U64_t refused = 0;  ///< events that the server did not take: set aside there
    U64_t there = 0;    ///< logs that the shared archive has already, with all these events
    U64_t leftOut = 0;  ///< logs that it has already, without some of them
};

/**
 * Takes over every log with all its generations, each log whole or not at all. One that the shared
 * archive has already stays as it is, and its archiver's, so that an import that was cut short is
 * done again. A server that fails, or fails over, is tried again; what it has forgotten is taken
 * over once more. Throws StoreError, a passing one when that did not help.
 * @param patience how long the server may be away, or archivers be in the way, at a time
 * @param out a line for each log that is left out, and when the server is away
 */
Imported importArchive(StoreReader& from, const std::string& place, std::ostream& out,
                       std::chrono::milliseconds patience = std::chrono::seconds(60));

} // namespace evarchive

#endif
