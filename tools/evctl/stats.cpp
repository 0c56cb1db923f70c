/** evctl stats: what a log is filled with, and how fast. */
#include "evctl/blade_source.h"
#include "evctl/commands.h"
#include "evctl/event_filter.h"
#include "evctl/event_stats.h"
#include "evctl/passed_over.h"
#include "evctl/svg.h"
#include "sources/source.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char STATS_EXAMPLES[] =
    "LOG: whatever events are read from: logs, damaged copies, alternate events, archives,\n"
    "directories, '-', running blades (blade:KEY). The exit status is 1 when something of it\n"
    "cannot be read, 2 when nothing can.\n"
    "How full it is, and how many hours it holds, is told of one log without filters.\n"
    "Examples:\n"
    "  evctl stats kelta_eventlog\n"
    "  evctl stats blade*/kelta_eventlog --since -1d -o svg > day.svg";

constexpr size_t STATS_WIDTH = 100;

struct StatsOptions {
    std::vector<std::string> paths;
    EventFilter filter;
    Zone zone = Zone::UTC;
    std::string form = "text";
};

size_t widthOfOutput() {
    struct winsize size {};
    bool terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return terminal ? size.ws_col : STATS_WIDTH;
}

/** What is wrong in a source. */
void noteProblems(const sources::Source& source, PassedOver& passedOver) {
    for (const auto* problems : {&source.notices(), &source.problems()}) {
        for (const std::string& problem : *problems) {
            passedOver.add(source.origin().name + ": " + problem);
        }
    }
}

EventStats count(const sources::Sources& all, const StatsOptions& options) {
    bool isLog = all.size() == 1 && all.front()->origin().kind != sources::Kind::ALTERNATE;
    EventStats stats({.wholeLog = isLog && options.filter.isEmpty(), .zone = options.zone});
    for (const auto& source : all) {
        while (std::optional<sources::Event> event = source->next()) {
            if (options.filter.matches(event->view)) {
                stats.add(event->view);
            }
        }
        stats.endSource(source->origin().kind != sources::Kind::ALTERNATE);
    }
    return stats;
}

int runStats(const StatsOptions& options) {
    sources::Sources all;
    PassedOver passedOver;
    for (const std::string& path : options.paths) {
        passedOver.attempt([&] {
            std::ranges::move(openSourcesOrBlade(path, {.logs = options.filter.logs}),
                              std::back_inserter(all));
        });
    }
    if (all.empty() && !passedOver.reasons().empty()) {
        return passedOver.say(tools::EXIT_COULD_NOT);
    }
    EventStats stats = count(all, options);
    for (const auto& source : all) {
        noteProblems(*source, passedOver);
    }
    if (options.form == "json") {
        std::cout << jsonLine(statsJson(stats));
    } else if (options.form == "svg") {
        std::string title = Svg::titleOf(options.paths.front());
        title += options.paths.size() > 1
                     ? " and " + std::to_string(options.paths.size() - 1) + " more"
                     : "";
        std::cout << statsPicture(stats, title);
    } else {
        std::cout << statsLines(stats, widthOfOutput());
    }
    return passedOver.say(tools::EXIT_DONE);
}

} // namespace

void addStatsCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<StatsOptions>();
    CLI::App& command =
        addCommand(parent, "stats", "Count events by type, source and hour; say what fills a log.",
                   STATS_EXAMPLES);
    command.add_option("LOG", options->paths, "Where the events are")->required();
    addZoneOption(command, options->zone);
    addFilterOptions(command, options->filter, &options->zone);
    addLogChoice(command, options->filter.logs);
    command.add_option("-o,--output", options->form, "As what")
        ->type_name("text|svg|json")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "svg", "json"}));
    command.add_flag_callback(
        "--json", [options] { options->form = "json"; }, "As -o json: one object");
    onChosen(command, chosen, options, runStats);
}

} // namespace evctl
