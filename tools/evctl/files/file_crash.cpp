/** evctl file crash: the event manager's bug-checks, each as one report. */
#include "common/cli.h"
#include "evctl/files/file.h"
#include "evctl/files/waiting.h"
#include "evctl/paged_command.h"
#include "evctl/views/crash_view.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_CRASH_EXAMPLES[] =
    "FILE: a log, with the alternate events in 'aelfiles' beside it; the directory of both; or a\n"
    "bundle. Until the next start a bug-check is in alternate event files only.\n"
    "The exit status is 1 when there is a bug-check, or the log is damaged.\n"
    "Examples:\n"
    "  evctl file crash /nvram\n"
    "  evctl file crash kelta_eventlog --all --index all --json";

struct CrashOptions {
    std::string path;
    std::string index = "summary";
    bool all = false;
    bool json = false;
};

/** @param number from 1, the newest, to @p count */
void printCrash(const Crash& crash, const CrashOptions& options, size_t number, size_t count) {
    Json json = {{"crash", number}, {"crashes", count}};
    json.update(crashJson(crash, options.index == "all"));
    if (options.json) {
        std::cout << jsonLine(json);
        return;
    }
    std::cout << (number > 1 ? "\n" : "") << "bug-check " << number << " of " << count
              << ", newest first\n"
              << crashLines(json);
}

int runCrash(const CrashOptions& options) {
    int status = tools::EXIT_DONE;
    LogAndWaiting files = loadLogAndWaiting(options.path, &status);
    LogContent content = files.log ? readLog(*files.log) : LogContent{};
    sortByAge(content.records);
    std::vector<EvlogRecord_t> waiting = files.records();
    std::vector<Crash> crashes = findCrashes(content.records, waiting);
    size_t shown = options.all ? crashes.size() : std::min<size_t>(crashes.size(), 1);
    for (size_t number = 1; number <= shown; number++) {
        printCrash(crashes[crashes.size() - number], options, number, crashes.size());
    }
    return crashes.empty() ? std::max(status, statusOf(content)) : tools::EXIT_FINDING;
}

} // namespace

void addFileCrashCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<CrashOptions>();
    CLI::App& command = addCommand(
        parent, "crash", "Report the newest bug-check of the event manager.", FILE_CRASH_EXAMPLES);
    addFileArgument(command, options->path);
    command.add_flag("--all", options->all, "All bug-checks, newest first");
    command
        .add_option("--index", options->index, "The index: a summary, or all of its valid entries")
        ->type_name("summary|all")
        ->capture_default_str()
        ->check(CLI::IsMember({"summary", "all"}));
    command.add_flag("--json", options->json, "One JSON object a line");
    onChosenPaged(command, chosen, options, runCrash);
}

} // namespace evctl
