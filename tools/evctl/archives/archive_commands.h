/**
 * @file
 * What is done with an archive. Not on the board, but for newestArchived().
 */
#ifndef EVCTL_ARCHIVE_COMMANDS_H
#define EVCTL_ARCHIVE_COMMANDS_H

#include "emp_mesgs.h"
#include "evctl/commands.h"

#include <optional>

namespace evctl {

/** events, get, stats and export. */
void addArchiveEventCommands(CLI::App& group, Chosen& chosen);

/** backup, prune and vacuum. */
void addArchiveUpkeepCommands(CLI::App& group, Chosen& chosen);

/** The highest id that an archive holds of the log that an event is of; nothing: it has none of it.
 * Throws when the archive cannot be read. */
std::optional<U32_t> newestArchived(const std::string& place, const EmpEvRecord_t& event);

} // namespace evctl

#endif
