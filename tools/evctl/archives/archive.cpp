/** evctl archive: what an archive of events holds. */
#include "evctl/paged_command.h"

#if EVCTL_READS_ARCHIVES
#include "archive_report.h"
#endif

#include "evctl/archives/archive_commands.h"

#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char ARCHIVE_EXAMPLES[] = "Examples:\n"
                                    "  evctl archive list --db events.db\n"
                                    "  evctl archive check --db events.db --json\n"
                                    "The archive is only read, and may be in use.";

struct ArchiveOptions {
    std::string path;
    bool json = false;
};

#if EVCTL_READS_ARCHIVES
evarchive::ReportForm formOf(const ArchiveOptions& options) {
    return options.json ? evarchive::ReportForm::JSON : evarchive::ReportForm::TEXT;
}

int runList(const ArchiveOptions& options) {
    return evarchive::listArchive(options.path, formOf(options), std::cout);
}

int runCheck(const ArchiveOptions& options) {
    return evarchive::checkArchive(options.path, formOf(options), std::cout);
}
#else
int runList(const ArchiveOptions& /*options*/) {
    throw std::runtime_error("this evctl, built for the board, does not read archives");
}

constexpr auto runCheck = runList;
#endif

void addOne(CLI::App& group, Chosen& chosen, const std::string& name, const std::string& what,
            int (*run)(const ArchiveOptions&)) {
    auto options = std::make_shared<ArchiveOptions>();
    CLI::App& command = addCommand(group, name, what, ARCHIVE_EXAMPLES);
    command.add_option("--db", options->path, "The archive: a file, or postgresql://...")
        ->type_name("PLACE")
        ->required();
    command.add_flag("--json", options->json, "As JSON");
    onChosenPaged(command, chosen, options, run);
}

} // namespace

void addArchiveCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "archive", "Look into an archive of events.");
    addOne(group, chosen, "list", "List the logs in it: ranges, gaps, duplicates.", runList);
    addOne(group, chosen, "check", "Name what is not as it should be; status 1 if anything is.",
           runCheck);
#if EVCTL_READS_ARCHIVES
    addArchiveEventCommands(group, chosen);
    addArchiveUpkeepCommands(group, chosen);
#endif
}

#if !EVCTL_READS_ARCHIVES
std::optional<U32_t> newestArchived(const std::string& /*place*/, const EmpEvRecord_t& /*event*/) {
    throw std::runtime_error("this evctl, built for the board, does not read archives");
}
#endif

} // namespace evctl
