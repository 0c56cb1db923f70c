/** evctl archive backup, prune and vacuum: what an operator does with an archive. */
#include "archive_upkeep.h"
#include "common/new_file.h"
#include "common/text.h"
#include "evctl/archives/archive_commands.h"
#include "evctl/views/event_view.h"
#include "reader.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char ARCHIVE_UPKEEP_COMMANDS_EXAMPLES[] =
    "Examples:\n"
    "  evctl archive backup --db events.db --to events-2026-11.db\n"
    "  evctl archive prune --db events.db --keep-days 30 --dry-run\n"
    "The archive may be in use; while vacuum runs, events wait.";

struct UpkeepOptions {
    std::string path;
    std::string target;
    evarchive::RetentionSettings retention;
    bool json = false;
    bool dryRun = false;
};

/** A copy of an archive where temporary files are, and gone with this. */
class ArchiveCopy {
  public:
    explicit ArchiveCopy(const std::string& archive)
        : directory_(std::filesystem::temp_directory_path() / "evctl-prune-XXXXXX") {
        if (mkdtemp(directory_.data()) == nullptr) {
            tools::failWith(directory_, errno);
        }
        try {
            evarchive::backupArchive(archive, path());
        } catch (...) {
            remove();
            throw;
        }
    }
    ~ArchiveCopy() { remove(); }
    ArchiveCopy(const ArchiveCopy&) = delete;
    ArchiveCopy& operator=(const ArchiveCopy&) = delete;

    std::string path() const { return directory_ + "/archive.db"; }

  private:
    void remove() const {
        std::error_code error;
        std::filesystem::remove_all(directory_, error);
    }

    std::string directory_;
};

/** The only member of an object, or a line. */
void say(const UpkeepOptions& options, const char* member, const Json& value,
         const std::string& line) {
    std::cout << (options.json ? jsonLine({{member, value}}) : line + "\n");
}

void requireFile(const std::string& path) {
    if (evarchive::isPgPlace(path)) {
        throw std::runtime_error(evarchive::shownPlace(path) +
                                 ": on a server; 'evarchiver db' and the server's own programs "
                                 "see to it");
    }
}

int runBackup(const UpkeepOptions& options) {
    requireFile(options.path);
    evarchive::backupArchive(options.path, options.target);
    std::string target = tools::shownLine(options.target);
    say(options, "copy", target, "copied to " + target);
    return tools::EXIT_DONE;
}

int runPrune(const UpkeepOptions& options) {
    requireFile(options.path);
    if (!options.retention.isBound()) {
        throw std::runtime_error("prune needs --keep-days, --max-bytes or --blade-quota");
    }
    if (options.dryRun) {
        // The rules look at what they have removed already, so that only a trial tells.
        const ArchiveCopy copy(options.path);
        U64_t number = evarchive::pruneArchive(copy.path(), options.retention);
        say(options, "eventsToRemove", number, std::to_string(number) + " events would be removed");
        return tools::EXIT_DONE;
    }
    U64_t removed = evarchive::pruneArchive(options.path, options.retention);
    say(options, "eventsRemoved", removed, std::to_string(removed) + " events removed");
    return tools::EXIT_DONE;
}

int runVacuum(const UpkeepOptions& options) {
    requireFile(options.path);
    U64_t bytes = evarchive::vacuumArchive(options.path);
    say(options, "bytesGivenBack", bytes, std::to_string(bytes) + " bytes given back");
    return tools::EXIT_DONE;
}

std::pair<CLI::App*, std::shared_ptr<UpkeepOptions>> addOne(CLI::App& group, Chosen& chosen,
                                                            const std::string& name,
                                                            const std::string& what,
                                                            int (*run)(const UpkeepOptions&)) {
    auto options = std::make_shared<UpkeepOptions>();
    CLI::App& command = addCommand(group, name, what, ARCHIVE_UPKEEP_COMMANDS_EXAMPLES);
    command.add_option("--db", options->path, "The archive")->type_name("FILE")->required();
    command.add_flag("--json", options->json, "As a JSON object");
    onChosen(command, chosen, options, run);
    return {&command, options};
}

} // namespace

void addArchiveUpkeepCommands(CLI::App& group, Chosen& chosen) {
    const auto [backup, backupOptions] =
        addOne(group, chosen, "backup", "Copy it as it is at one moment, also while it is in use.",
               runBackup);
    backup->add_option("--to", backupOptions->target, "The copy, which must not be there yet")
        ->type_name("FILE")
        ->required();

    const auto [prune, pruneOptions] =
        addOne(group, chosen, "prune",
               "Remove its oldest events; the newest one of each log always stays.", runPrune);
    evarchive::RetentionSettings& bounds = pruneOptions->retention;
    prune->add_option("--keep-days", bounds.keepDays, "Days since an event was received")
        ->check(tools::wholeNumber(0, 36'500));
    prune->add_option("--max-bytes", bounds.maxBytes, "Bytes of the archive in use");
    prune->add_option("--blade-quota", bounds.bladeQuota, "Events of one log");
    prune->add_flag("--dry-run", pruneOptions->dryRun,
                    "Only say how many it would be, tried on a copy in TMPDIR or /tmp");

    addOne(group, chosen, "vacuum", "Give the room of removed events back to the file system.",
           runVacuum);
}

} // namespace evctl
