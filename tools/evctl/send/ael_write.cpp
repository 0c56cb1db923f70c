/** evctl ael write: leaves an event as a process that cannot reach the event manager does. */
#include "evctl/commands.h"
#include "evctl/send/alternate_event.h"
#include "evctl/send/event_options.h"
#include "evctl/wire/blade_options.h"

#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char AEL_WRITE_EXAMPLES[] =
    "The event manager logs it at its next start, with the time of the writing.\n"
    "Examples:\n"
    "  evctl ael write --key 0x1234 --id 300 --type error --text \"switch is gone\"\n"
    "  evctl ael write --key 0x1234 --source startup --id string --text \"boot\"";

struct WriteOptions {
    KeyOptions block;
    EventOptions event;
    std::optional<U32_t> sequenceId;
};

/** The event as the library takes it. It ends its caller for a bad one, so that everything is
 * checked before. */
int runWrite(const WriteOptions& options) {
    EventFields fields = fieldsOf(options.event);
    if (options.sequenceId && fields.source != MMSG_E_EPID_STARTUPMP) {
        throw std::runtime_error("--seq: only events of source startup (18) keep it");
    }
    Bytes data = dataOf(options.event);
    checkAlternateEvent(fields, data); // before the block is asked for
    leaveAlternateEvent(fields, data, options.sequenceId.value_or(0), attachParams(options.block));
    return tools::EXIT_DONE;
}

} // namespace

void addAelWriteCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<WriteOptions>();
    CLI::App& command = addCommand(
        parent, "write", "Leave an event for the event manager's next start.", AEL_WRITE_EXAMPLES);
    addKeyOption(command, options->block);
    addEventOptions(command, options->event, MMSG_E_MAX_DEFINED_EPIDS);
    command
        .add_option("--seq", options->sequenceId, "Order among the startup events of one second")
        ->type_name("NUMBER")
        ->default_str("0");
    onChosen(command, chosen, options, runWrite);
}

} // namespace evctl
