/** evctl follow: prints events as the event manager passes them on. */
#include "evctl/commands.h"
#include "evctl/event_filter.h"
#include "evctl/event_message.h"
#include "evctl/event_output.h"
#include "evctl/options.h"

#include <iostream>

namespace evctl {
namespace {

constexpr char EXAMPLES[] = "Examples:\n"
                            "  evctl follow --key 0x1234 --type warning,error\n"
                            "  evctl follow --dir /tmp/msm --count 1 --timeout 10 --json";

struct FollowOptions {
    SwitchOptions where;
    U32_t endpoint = MMSG_E_EPID_SMI_IND;
    EventFilter filter;
    OutputOptions output;
    U64_t count = 0;    // 0: without end
    double timeout = 0; // seconds; 0: without end
};

Deadline deadlineOf(const FollowOptions& options) {
    if (options.timeout <= 0) {
        return std::nullopt;
    }
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(options.timeout));
}

int runFollow(const FollowOptions& options) {
    Deadline deadline = deadlineOf(options);
    Session session(switchDirectory(options.where), options.endpoint);
    int status = tools::EXIT_DONE;
    for (U64_t printed = 0; options.count == 0 || printed < options.count;) {
        std::optional<Bytes> message = session.receive(deadline);
        if (!message) {
            return options.count == 0 ? status : tools::EXIT_FINDING;
        }
        EventView event{};
        MessageKind kind = readEventMessage(*message, &event);
        if (kind == MessageKind::BAD_EVENT) {
            std::cerr << "evctl: event message of " << message->size() << " bytes is too short\n";
            status = tools::EXIT_FINDING;
        } else if (kind == MessageKind::EVENT && options.filter.matches(*event.header)) {
            printEvent(event, options.output);
            printed++;
        }
    }
    return status;
}

} // namespace

void addFollowCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<FollowOptions>();
    CLI::App& command =
        addCommand(parent, "follow", "Print events as the event manager takes them in.", EXAMPLES);
    addSwitchOptions(command, options->where);
    addNamedOption(command, "--endpoint", options->endpoint, tools::endpointNames,
                   MMSG_E_MAX_DEFINED_EPIDS - 1, "Endpoint to listen as");
    addFilterOptions(command, options->filter);
    addOutputOptions(command, options->output);
    command
        .add_option("--count", options->count,
                    "End after this many events; without it, without end")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(1));
    command
        .add_option("--timeout", options->timeout,
                    "End after this many seconds, with status 1 when --count was given and not met")
        ->type_name("SECONDS")
        ->check(tools::decimalNumber(0.001, 1e9));
    onChosen(command, chosen, options, runFollow);
}

} // namespace evctl
