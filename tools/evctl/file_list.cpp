/** evctl file list: the events of a log file, one line each. */
#include "evctl/commands.h"
#include "evctl/event_filter.h"
#include "evctl/event_view.h"
#include "evctl/file.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char EXAMPLES[] = "Examples:\n"
                            "  evctl file list kelta_eventlog --type error --source startup,snmp\n"
                            "  evctl file list kelta_eventlog --seq 1000: --json";

struct ListOptions {
    std::string path;
    EventFilter filter;
    bool json = false;
    bool fileOrder = false;
};

int runList(const ListOptions& options) {
    EvlogImage_t image = loadLog(options.path);
    LogContent content = readLog(image);
    if (!options.fileOrder) {
        sortByAge(content.records);
    }
    for (const EvlogRecord_t& record : content.records) {
        EventView event = eventOf(record);
        if (record.role == EVLOG_E_ROLE_DUMMY || !options.filter.matches(*event.header)) {
            continue;
        }
        std::cout << (options.json ? jsonLine(recordJson(record)) : eventLine(event) + "\n");
    }
    std::cout << std::flush;
    if (!content.findings.empty()) {
        std::cerr << "evctl: the file is damaged; see 'evctl file verify'\n";
    }
    return statusOf(content);
}

} // namespace

void addFileListCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<ListOptions>();
    CLI::App& command =
        addCommand(parent, "list", "List the events of a log file, oldest first.", EXAMPLES);
    addFileArgument(command, options->path);
    addFilterOptions(command, options->filter);
    command.add_flag("--json", options->json, "One JSON object a line, data included");
    command.add_flag("--file-order", options->fileOrder, "In the order of the file");
    onChosen(command, chosen, options, runList);
}

} // namespace evctl
