/**
 * @file
 * The subcommands, one file each, and what they are made with.
 *
 * A subcommand adds itself to the command line: its options are parsed into a structure of its own,
 * and when it is the one that was named, it leaves what to run in Chosen.
 */
#ifndef EVCTL_COMMANDS_H
#define EVCTL_COMMANDS_H

#include "common/cli.h"

#include <functional>
#include <memory>
#include <string>

namespace evctl {

/** What the named subcommand does, once the whole command line has been parsed. It returns a
 * tools::ExitStatus; an exception means "could not". */
struct Chosen {
    std::function<int()> run;
};

using AddCommand = void (*)(CLI::App& parent, Chosen& chosen);

/** Adds an empty subcommand with --help and --version. @param footer examples for its help text */
CLI::App& addCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& footer);

/** Adds a subcommand that only holds others. */
CLI::App& addCommandGroup(CLI::App& parent, const std::string& name,
                          const std::string& description);

/** Has @p command run @p run with its options. */
template <typename Options>
void onChosen(CLI::App& command, Chosen& chosen, std::shared_ptr<Options> options,
              int (*run)(const Options&)) {
    command.callback(
        [&chosen, options, run] { chosen.run = [options, run] { return run(*options); }; });
}

void addLogCommand(CLI::App& parent, Chosen& chosen);
void addFollowCommand(CLI::App& parent, Chosen& chosen);
void addGetCommands(CLI::App& parent, Chosen& chosen);
void addWalkCommand(CLI::App& parent, Chosen& chosen);
void addArchiverCommands(CLI::App& parent, Chosen& chosen);
void addStatusCommand(CLI::App& parent, Chosen& chosen);
void addFileCommands(CLI::App& parent, Chosen& chosen);
void addFileListCommand(CLI::App& parent, Chosen& chosen);
void addFileShowCommand(CLI::App& parent, Chosen& chosen);
void addFileVerifyCommand(CLI::App& parent, Chosen& chosen);
void addFileInfoCommand(CLI::App& parent, Chosen& chosen);
void addFilePredictCommand(CLI::App& parent, Chosen& chosen);
void addFileSalvageCommand(CLI::App& parent, Chosen& chosen);
void addFileGuardCommand(CLI::App& parent, Chosen& chosen);
void addFileMapCommand(CLI::App& parent, Chosen& chosen);
void addFileCrashCommand(CLI::App& parent, Chosen& chosen);
void addSupportCommand(CLI::App& parent, Chosen& chosen);
void addStatsCommand(CLI::App& parent, Chosen& chosen);
void addCompleteCommand(CLI::App& parent, Chosen& chosen);
void addTopCommand(CLI::App& parent, Chosen& chosen);
void addExplainCommand(CLI::App& parent, Chosen& chosen);
void addAelCommands(CLI::App& parent, Chosen& chosen);
void addAelWriteCommand(CLI::App& parent, Chosen& chosen);
void addAelListCommand(CLI::App& parent, Chosen& chosen);
void addAelShowCommand(CLI::App& parent, Chosen& chosen);
void addArchiveCommands(CLI::App& parent, Chosen& chosen);
void addCatalogCommands(CLI::App& parent, Chosen& chosen);
void addParamsCommands(CLI::App& parent, Chosen& chosen);

} // namespace evctl

#endif
