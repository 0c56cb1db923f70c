/** evctl log: sends events to the event manager. */
#include "evctl/commands.h"
#include "evctl/event_options.h"
#include "evctl/options.h"
#include "evctl/progress.h"
#include "evctl/session.h"

namespace evctl {
namespace {

constexpr char EXAMPLES[] =
    "Examples:\n"
    "  evctl log --key 0x1234 --id 300 --type warning --category disk \\\n"
    "      --text \"drive 4 is slow\"\n"
    "  evctl log --dir /tmp/msm --source startup --id 1 --hex 00ff10 --count 1000 \\\n"
    "      --rate 200";

struct LogOptions {
    SwitchOptions where;
    EventOptions event;
    U64_t count = 1;
    double rate = 0; // events a second; 0: as fast as they go
};

/** When event number @p index is due. */
Clock::time_point dueTime(Clock::time_point start, U64_t index, double rate) {
    std::chrono::duration<double> offset(static_cast<double>(index) / rate);
    return start + std::chrono::duration_cast<Clock::duration>(offset);
}

int runLog(const LogOptions& options) {
    Bytes message = makeEventMessage(fieldsOf(options.event), dataOf(options.event));
    Session session(switchDirectory(options.where), options.event.source);
    Progress progress(options.count);
    Clock::time_point start = Clock::now();
    for (U64_t index = 0; index < options.count; index++) {
        // Also without a rate: what comes for this endpoint is dropped, not piled up.
        session.idleUntil(options.rate > 0 ? dueTime(start, index, options.rate) : start);
        session.send(message);
        progress.show(index + 1);
    }
    return tools::EXIT_DONE;
}

} // namespace

void addLogCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<LogOptions>();
    CLI::App& command = addCommand(parent, "log", "Send events to the event manager.", EXAMPLES);
    addSwitchOptions(command, options->where);
    addEventOptions(command, options->event, MMSG_E_MAX_DEFINED_EPIDS - 1);
    command.add_option("--count", options->count, "Number of events")
        ->type_name("NUMBER")
        ->default_str("1")
        ->check(tools::wholeNumber(1));
    command
        .add_option("--rate", options->rate,
                    "Events a second; without it, as fast as they are taken")
        ->type_name("NUMBER")
        ->check(tools::decimalNumber(0.001, 1e6));
    onChosen(command, chosen, options, runLog);
}

} // namespace evctl
