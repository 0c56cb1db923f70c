#include "db_command.h"

#include "archive_report.h"
#include "common/cli.h"
#include "engine.h"

#include <chrono>
#include <ctime>
#include <iostream>
#include <string_view>

#ifdef EVARCHIVER_POSTGRES
#include "postgres/fleet_database.h"
#include "postgres/fleet_hub.h"
#include "postgres/fleet_import.h"
#include "postgres/pg_store.h"
#endif

namespace evarchive {

bool isDbCommand(int argc, const char* const* argv) {
    return argc > 1 && std::string_view(argv[1]) == "db";
}

#ifdef EVARCHIVER_POSTGRES

namespace {

constexpr char FOOTER[] =
    "Examples:\n"
    "  evarchiver db create --db postgresql://db1,db2/events --retention-days 90\n"
    "  evarchiver db maintain --db postgresql://db1,db2/events    # hourly, from a timer";

// Of an import whose server was away, or that archivers were in the way of, for too long.
constexpr int EXIT_AWAY = 3;

/** What was asked for. */
struct DbOptions {
    std::string place;
    U32_t retentionDays = 0;
    bool isClockRight = false;
    std::vector<std::string> nodes;
    std::string file;
    std::chrono::seconds patience{60};
};

std::string checkPlace(const std::string& text) {
    return isPgPlace(text) ? "" : "'" + text + "' is no postgresql://...";
}

CLI::App* addCommand(CLI::App& app, DbOptions& options, const char* name, const char* what) {
    CLI::App* command = app.add_subcommand(name, what);
    command->add_option("--db", options.place, "The database, postgresql://...")
        ->required()
        ->check(checkPlace)
        ->option_text("PLACE");
    return command;
}

void addRetention(CLI::App& command, DbOptions& options, const char* what) {
    command.add_option("--retention-days", options.retentionDays, what)
        ->check(CLI::Range(1U, LONGEST_RETENTION_DAYS));
}

int sayFailures(const FleetUpkeep& upkeep) {
    for (const std::string& failure : upkeep.failed) {
        std::cout << failure << "\n";
    }
    return upkeep.failed.empty() ? int{tools::EXIT_DONE} : tools::EXIT_FINDING;
}

// What the first round could not do, the next one tries.
int create(const DbOptions& options) {
    return sayFailures(
        createFleet(options.place, options.retentionDays, time(nullptr), Clock::COMPARED));
}

int maintain(const DbOptions& options) {
    const FleetUpkeep upkeep = maintainFleet(options.place, options.retentionDays, time(nullptr),
                                             options.isClockRight ? Clock::RIGHT : Clock::COMPARED);
    std::cout << upkeep.made.size() << " partitions made, " << upkeep.moved << " events moved, "
              << upkeep.dropped.size() << " partitions dropped, " << upkeep.recut.size()
              << " cut anew, " << upkeep.frozen << " frozen, " << upkeep.removed
              << " stray events and " << upkeep.removedAside << " set aside removed\n";
    return sayFailures(upkeep);
}

int import(const DbOptions& options) {
    const auto from = readerOf(options.file);
    try {
        const Imported imported = importArchive(*from, options.place, std::cout, options.patience);
        std::cout << imported.logs << " logs, " << imported.events << " events and "
                  << imported.setAside << " set aside taken over, " << imported.refused
                  << " events refused and set aside, " << imported.there << " logs there already, "
                  << imported.leftOut << " left out\n";
        return imported.leftOut + imported.refused > 0 ? tools::EXIT_FINDING : tools::EXIT_DONE;
    } catch (const StoreError& error) {
        if (!error.isPassing()) {
            throw;
        }
        tools::sayCouldNot("evarchiver", std::string(error.what()) +
                                             "; run again, it goes on with what is not there yet");
        return EXIT_AWAY;
    }
}

int check(const DbOptions& options) {
    const U64_t findings = describeFleet(options.place, time(nullptr), std::cout, Clock::COMPARED);
    const auto store = readerOf(options.place);
    const int status = checkArchive(*store, ReportForm::TEXT, std::cout);
    return findings > 0 ? int{tools::EXIT_FINDING} : status;
}

} // namespace

int runDbCommand(int argc, const char* const* argv) {
    DbOptions options;
    CLI::App app("The database of an archive that several archivers share.", "evarchiver db");
    tools::setUpCommandLine(app, FOOTER);
    app.require_subcommand(1);
    CLI::App* creating = addCommand(app, options, "create", "Make the tables in an empty database");
    addRetention(*creating, options, "Days that events are kept; default: 30");
    CLI::App* hub = addCommand(app, options, "hub", "Make one archive of those of several servers");
    hub->add_option("--node", options.nodes, "A server with an archive, postgresql://...; for each")
        ->required()
        ->check(checkPlace)
        ->option_text("PLACE...");
    CLI::App* importing =
        addCommand(app, options, "import", "Take over what an archive in a file holds");
    importing->add_option("--from", options.file, "The archive, a file")
        ->required()
        ->check(CLI::ExistingFile);
    importing
        ->add_option_function<int>(
            "--patience",
            [&options](int seconds) { options.patience = std::chrono::seconds(seconds); },
            "Seconds that the server may be away at a time; default: 60. Then status 3")
        ->check(CLI::Range(1, 86'400));
    CLI::App* upgrade = addCommand(app, options, "upgrade", "Bring an earlier layout up to date");
    CLI::App* upkeep =
        addCommand(app, options, "maintain", "Make partitions ahead, drop those past retention");
    addRetention(*upkeep, options, "Days that events are kept from now on; default: as before");
    upkeep->add_flag("--clock-is-right", options.isClockRight,
                     "So much time has passed since the last round as the clock says");
    CLI::App* checking = addCommand(app, options, "check", "Look for gaps and damage");
    if (const auto status = tools::parseCommandLine(app, argc - 1, argv + 1)) {
        return *status;
    }
    if (creating->parsed()) {
        return create(options);
    }
    if (hub->parsed()) {
        createHub(options.place, options.nodes);
        return tools::EXIT_DONE;
    }
    if (importing->parsed()) {
        return import(options);
    }
    if (upgrade->parsed()) {
        const S64_t before = upgradeFleet(options.place);
        std::cout << "layout " << PG_LAYOUT << ", up to date"
                  << (before == PG_LAYOUT ? "" : " (was " + std::to_string(before) + ")") << "\n";
        return tools::EXIT_DONE;
    }
    return checking->parsed() ? check(options) : maintain(options);
}

#else

int runDbCommand(int /*argc*/, const char* const* /*argv*/) {
    return tools::sayCouldNot("evarchiver db", "this program was built without PostgreSQL (libpq)");
}

#endif

} // namespace evarchive
