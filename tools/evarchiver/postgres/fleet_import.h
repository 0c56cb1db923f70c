/**
 * @file
 * From an archive in a file to a shared one.
 */
#ifndef EVARCHIVER_FLEET_IMPORT_H
#define EVARCHIVER_FLEET_IMPORT_H

#include "store.h"

#include <ostream>
#include <string>

namespace evarchive {

/** What was taken over. */
struct Imported {
    U64_t logs = 0;
    U64_t events = 0;
    U64_t setAside = 0;
    U64_t leftOut = 0; ///< logs that the shared archive has already
};

/**
 * Takes over every log with all its generations, each log whole or not at all. One that the shared
 * archive has already is left out, so that an import that was cut short is done again. Throws
 * StoreError.
 * @param out a line for each log that is left out
 */
Imported importArchive(StoreReader& from, const std::string& place, std::ostream& out);

} // namespace evarchive

#endif
