/**
 * @file
 * The subcommands of `evctl archive` that read and keep up an archive. Not on the board.
 */
#ifndef EVCTL_ARCHIVE_COMMANDS_H
#define EVCTL_ARCHIVE_COMMANDS_H

#include "evctl/commands.h"

namespace evctl {

/** events, get, stats and export. */
void addArchiveEventCommands(CLI::App& group, Chosen& chosen);

/** backup, prune and vacuum. */
void addArchiveUpkeepCommands(CLI::App& group, Chosen& chosen);

} // namespace evctl

#endif
