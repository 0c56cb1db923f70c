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
    "cannot be read.\n"
    "Examples:\n"
    "  evctl stats kelta_eventlog\n"
    "  evctl stats blade*/kelta_eventlog --since -1d -o svg > day.svg";

constexpr size_t STATS_WIDTH = 100;

struct StatsOptions {
    std::vector<std::string> paths;
    EventFilter filter;
    std::string form = "text";
};

size_t widthOfOutput() {
    struct winsize size {};
    bool terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return terminal ? size.ws_col : STATS_WIDTH;
}

/** @return how many sources were read */
size_t count(const StatsOptions& options, EventStats& stats, PassedOver& passedOver) {
    sources::Sources all;
    for (const std::string& path : options.paths) {
        passedOver.attempt(
            [&] { std::ranges::move(openSourcesOrBlade(path), std::back_inserter(all)); });
    }
    for (const auto& source : all) {
        while (std::optional<sources::Event> event = source->next()) {
            if (options.filter.matches(event->view)) {
                stats.add(event->view);
            }
        }
        for (const auto* problems : {&source->notices(), &source->problems()}) {
            for (const std::string& problem : *problems) {
                passedOver.add(source->origin().name + ": " + problem);
            }
        }
    }
    return all.size();
}

int runStats(const StatsOptions& options) {
    EventStats stats;
    PassedOver passedOver;
    if (count(options, stats, passedOver) == 0) {
        return passedOver.say(tools::EXIT_COULD_NOT);
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
    addFilterOptions(command, options->filter);
    command.add_option("-o,--output", options->form, "As what")
        ->type_name("text|svg|json")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "svg", "json"}));
    command.add_flag_callback(
        "--json", [options] { options->form = "json"; }, "As -o json: one object");
    onChosen(command, chosen, options, runStats);
}

} // namespace evctl
