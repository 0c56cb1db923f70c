/** evctl stats: what a log is filled with, and how fast. */
#include "evctl/commands.h"
#include "evctl/files/file.h"
#include "evctl/listing/listing.h"
#include "evctl/listing/passed_over.h"
#include "evctl/numbers/event_stats.h"
#include "evctl/ring/blade_source.h"
#include "evctl/views/svg.h"
#include "sources/source.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char STATS_EXAMPLES[] =
    "LOG: whatever events are read from: logs, damaged copies, alternate events, archives,\n"
    "directories, '-', running blades (blade:KEY). The exit status is 1 when something of it\n"
    "cannot be read, 2 when nothing can.\n"
    "How full it is, and how many hours it holds, is told of one log without filters and cursor.\n"
    "Examples:\n"
    "  evctl stats kelta_eventlog\n"
    "  evctl stats blade*/kelta_eventlog --since -1d -o svg > day.svg\n"
    "  evctl stats kelta_eventlog --cursor-file seen";

constexpr size_t STATS_WIDTH = 100;

struct StatsOptions {
    std::vector<std::string> paths;
    ListingOptions listing; ///< filters, zone and cursors of it
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

/** Each event once, however many of the sources have it. @param cursor receives how far has been
 * read */
EventStats count(sources::Merge& merge, const ListingOptions& options, Cursor& cursor,
                 std::optional<Resume> resume) {
    const sources::Sources& all = merge.sources();
    bool isLog = all.size() == 1 && all.front()->origin().kind != sources::Kind::ALTERNATE;
    cursor = startCursor(options).value_or(Cursor{});
    EventStats stats(
        {.wholeLog = isLog && options.filter.isEmpty() && !resume, .zone = options.output.zone});
    std::map<const sources::Origin*, size_t> numbers;
    for (const auto& source : all) {
        numbers.emplace(&source->origin(), numbers.size());
    }
    while (std::optional<sources::Event> event = merge.next()) {
        if (resume && !resume->wants(*event)) {
            continue;
        }
        cursor.moveTo(*event);
        if (!event->isDouble && options.filter.matches(event->view)) {
            stats.add(event->view, numbers.at(event->origin));
        }
    }
    for (const auto& source : all) {
        stats.endSource(source->origin().kind != sources::Kind::ALTERNATE,
                        numbers.at(&source->origin()));
    }
    return stats;
}

/** Where nothing may stand in the output but a picture, the cursor goes to standard error. */
Form formOfNote(const std::string& form) {
    return form == "json" ? Form::JSON : form == "svg" ? Form::SYSLOG : Form::SHORT;
}

int runStats(const StatsOptions& given) {
    StatsOptions options = given;
    if (options.paths.empty()) {
        options.paths.push_back(ownLog());
    }
    sources::Sources all;
    PassedOver passedOver;
    for (const std::string& path : options.paths) {
        passedOver.attempt([&] {
            std::ranges::move(openSourcesOrBlade(path, {.logs = options.listing.filter.logs}),
                              std::back_inserter(all));
        });
    }
    if (all.empty() && !passedOver.reasons().empty()) {
        return passedOver.say(tools::EXIT_COULD_NOT);
    }
    Cursor cursor;
    std::optional<Resume> resume = resumeOf(options.listing, all);
    sources::Merge merge(std::move(all));
    EventStats stats = count(merge, options.listing, cursor, std::move(resume));
    for (const auto& source : merge.sources()) {
        noteProblems(*source, passedOver);
    }
    const size_t width = widthOfOutput(); // before there is a pager
    Pager pager(!options.listing.noPager);
    if (options.form == "json") {
        std::cout << jsonLine(statsJson(stats));
    } else if (options.form == "svg") {
        std::string title = Svg::titleOf(options.paths.front());
        title += options.paths.size() > 1
                     ? " and " + std::to_string(options.paths.size() - 1) + " more"
                     : "";
        std::cout << statsPicture(stats, title);
    } else {
        std::cout << statsLines(stats, width);
    }
    const OutputOptions note = {.form = formOfNote(options.form)};
    EventPrinter printer(note);
    bool isShown = tellCursor(options.listing, cursor, printer, pager);
    return passedOver.say(isShown ? tools::EXIT_DONE : tools::EXIT_COULD_NOT);
}

} // namespace

void addStatsCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<StatsOptions>();
    CLI::App& command =
        addCommand(parent, "stats", "Count events by type, source and hour; say what fills a log.",
                   STATS_EXAMPLES);
    command.add_option("LOG", options->paths,
                       "Where the events are. Without it in the log of the blade of EVCTL_KEY, or "
                       "of the only one that runs here");
    ListingOptions& listing = options->listing;
    addZoneOption(command, listing.output.zone);
    addFilterOptions(command, listing.filter, &listing.output.zone);
    addLogChoice(command, listing.filter.logs);
    addCursorOptions(command, listing);
    command.add_option("-o,--output", options->form, "As what")
        ->type_name("text|svg|json")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "svg", "json"}));
    command.add_flag_callback(
        "--json", [options] { options->form = "json"; }, "As -o json: one object");
    addPagerOption(command, listing.noPager);
    onChosen(command, chosen, options, runStats);
}

} // namespace evctl
