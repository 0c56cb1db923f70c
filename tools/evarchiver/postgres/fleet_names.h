/**
 * @file
 * The table of names: what the numbers of events mean, for whoever asks the archive in SQL.
 */
#ifndef EVARCHIVER_FLEET_NAMES_H
#define EVARCHIVER_FLEET_NAMES_H

#include <string>

namespace evarchive {

/** Statements that fill the table anew: sources, types, categories and the manager's own events as
 * this program knows them, other events as the catalogue of this host does. */
std::string sqlOfNames();

} // namespace evarchive

#endif
