/** evctl file list: the events of log files and all that keeps events, one line each. */
#include "evctl/commands.h"
#include "evctl/files/file.h"
#include "evctl/listing/listing.h"
#include "evctl/listing/passed_over.h"
#include "evctl/ring/blade_source.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char FILE_LIST_EXAMPLES[] =
    "FILE is a log file, its damaged copy, an alternate event log file, an archive, one of these\n"
    "compressed with gzip, a directory with them, - for standard input, or blade:KEY for the log\n"
    "of a running blade. Several are merged by time. The exit status is 1 when something cannot be\n"
    "read, 2 when nothing can.\n"
    "Examples:\n"
    "  evctl file list kelta_eventlog --type error --source startup,snmp\n"
    "  evctl file list kelta_eventlog --around crash -n 5\n"
    "  evctl file list blade*/kelta_eventlog --since -2h -o csv\n"
    "  evctl file list blade:0x1234 blade:0x1235 --since -10m\n"
    "  ssh blade cat /nvram/kelta_eventlog | evctl file list - -g 'drive [0-9]+'";

struct ListOptions {
    std::vector<std::string> paths;
    ListingOptions listing;
    bool fileOrder = false;
};

int runList(const ListOptions& options) {
    sources::OpenOptions how = {.fileOrder = options.fileOrder,
                                .logs = options.listing.filter.logs};
    sources::Sources all;
    PassedOver passedOver;
    for (const std::string& path : options.paths.empty() ? std::vector{ownLog()} : options.paths) {
        passedOver.attempt(
            [&] { std::ranges::move(openSourcesOrBlade(path, how), std::back_inserter(all)); });
    }
    if (all.empty() && !passedOver.reasons().empty()) {
        return passedOver.say(tools::EXIT_COULD_NOT);
    }
    bool several = all.size() > 1 || options.paths.size() > 1;
    return passedOver.say(listSources(std::move(all), options.listing, several));
}

} // namespace

void addFileListCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<ListOptions>();
    CLI::App& command =
        addCommand(parent, "list", "List events of files, oldest first.", FILE_LIST_EXAMPLES);
    command.add_option(
        "FILE", options->paths,
        "What is read; nothing is changed. Without it the log of the blade of EVCTL_KEY, "
        "or of the only one that runs here");
    addListingOptions(command, options->listing);
    addLogChoice(command, options->listing.filter.logs);
    command.add_flag("--file-order", options->fileOrder, "In the order of the file");
    onChosen(command, chosen, options, runList);
}

} // namespace evctl
