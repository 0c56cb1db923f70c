/** evctl file list: the events of a log file, one line each. */
#include "evctl/commands.h"
#include "evctl/event_filter.h"
#include "evctl/event_output.h"
#include "evctl/file.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_LIST_EXAMPLES[] =
    "Examples:\n"
    "  evctl file list kelta_eventlog --type error --source startup,snmp\n"
    "  evctl file list kelta_eventlog --seq 1000: --json";

struct ListOptions {
    std::string path;
    EventFilter filter;
    OutputOptions output;
    bool fileOrder = false;
    bool reverse = false;
    U64_t last = UINT64_MAX;
};

int runList(const ListOptions& options) {
    EvlogImage_t image = loadLog(options.path);
    LogContent content = readLog(image);
    if (!options.fileOrder) {
        sortByAge(content.records);
    }
    std::erase_if(content.records, [&options](const EvlogRecord_t& record) {
        return record.role == EVLOG_E_ROLE_DUMMY || !options.filter.matches(eventOf(record));
    });
    U64_t kept = std::min<U64_t>(content.records.size(), options.last);
    content.records.erase(content.records.begin(),
                          content.records.end() - static_cast<std::ptrdiff_t>(kept));
    if (options.reverse) {
        std::ranges::reverse(content.records);
    }
    for (const EvlogRecord_t& record : content.records) {
        EventView event = eventOf(record);
        std::cout << eventOutput(event, options.output,
                                 options.output.json ? recordJson(record) : Json());
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
    CLI::App& command = addCommand(parent, "list", "List the events of a log file, oldest first.",
                                   FILE_LIST_EXAMPLES);
    addFileArgument(command, options->path);
    addFilterOptions(command, options->filter);
    addOutputOptions(command, options->output);
    command
        .add_option("-n,--last", options->last, "Only the last so many of them; without it, all")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(1));
    command.add_flag("-r,--reverse", options->reverse, "Newest first");
    command.add_flag("--file-order", options->fileOrder, "In the order of the file");
    onChosen(command, chosen, options, runList);
}

} // namespace evctl
