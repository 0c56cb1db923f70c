#include "evctl/command_line.h"

#include "evctl/commands.h"

#include <exception>
#include <iostream>

namespace evctl {
namespace {

constexpr char PROGRAM[] = "evctl";

/** A new subcommand is one more file and one more line here. */
constexpr AddCommand COMMANDS[] = {
    addLogCommand,       addFollowCommand,   addGetCommands,    addWalkCommand,
    addArchiverCommands, addStatusCommand,   addFileCommands,   addAelCommands,
    addArchiveCommands,  addCatalogCommands, addParamsCommands, addExplainCommand,
    addStatsCommand,     addTopCommand,      addSupportCommand, addCompleteCommand};

int runChosen(const Chosen& chosen) {
    try {
        int status = chosen.run();
        if (!std::cout.flush()) {
            return tools::sayCouldNot(PROGRAM, "cannot write standard output");
        }
        return status;
    } catch (const std::exception& problem) {
        return tools::sayCouldNot(PROGRAM, problem.what());
    }
}

} // namespace

int runCommandLine(int argc, const char* const* argv) {
    CLI::App app("Log, follow, ask for and show the events of the blade.", PROGRAM);
    tools::setUpCommandLine(app, "'evctl SUBCOMMAND --help' describes a subcommand.");
    app.require_subcommand(1);
    Chosen chosen;
    for (AddCommand add : COMMANDS) {
        add(app, chosen);
    }
    std::optional<int> status = tools::parseCommandLine(app, argc, argv);
    return status ? *status : runChosen(chosen);
}

CLI::App& addCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& footer) {
    CLI::App* command = parent.add_subcommand(name, description);
    tools::setUpCommandLine(*command, footer);
    return *command;
}

CLI::App& addCommandGroup(CLI::App& parent, const std::string& name,
                          const std::string& description) {
    CLI::App& group = addCommand(parent, name, description, "");
    group.require_subcommand(1);
    return group;
}

} // namespace evctl
