/**
 * @file
 * "evarchiver db ...": the database of an archive that several archivers share.
 */
#ifndef EVARCHIVER_DB_COMMAND_H
#define EVARCHIVER_DB_COMMAND_H

namespace evarchive {

/** Whether the command line is one of these. */
bool isDbCommand(int argc, const char* const* argv);

/** Does what it says. @return the exit status. Throws StoreError. */
int runDbCommand(int argc, const char* const* argv);

} // namespace evarchive

#endif
