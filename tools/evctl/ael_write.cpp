/** evctl ael write: leaves an event as a process that cannot reach the event manager does. */
#include "altEventLog.h"
#include "evctl/commands.h"
#include "evctl/event_options.h"
#include "evctl/options.h"

#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char EXAMPLES[] =
    "The event manager logs it at its next start, with the time of the writing.\n"
    "Examples:\n"
    "  evctl ael write --key 0x1234 --id 300 --type error --text \"switch is gone\"\n"
    "  evctl ael write --key 0x1234 --source startup --id string --text \"boot\"";

struct WriteOptions {
    std::optional<int> key;
    EventOptions event;
    std::optional<U32_t> sequenceId;
};

/** The event as the library takes it. It ends its caller for a bad one, so that everything is
 * checked before. */
Bytes eventOf(const WriteOptions& options) {
    EventFields fields = fieldsOf(options.event);
    if (options.sequenceId && fields.source != MMSG_E_EPID_STARTUPMP) {
        throw std::runtime_error("--seq: only events of source startup (18) keep it");
    }
    Bytes data = dataOf(options.event);
    if (data.empty()) {
        throw std::runtime_error("an alternate event needs at least 1 byte of data");
    }
    Bytes event(EMP_EVENT_HEADER_SIZE);
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(event.data());
    header.evSource = static_cast<U8_t>(fields.source);
    header.evType = fields.type;
    header.evCategory = fields.category;
    header.evIdVersion = fields.idVersion;
    header.evId = fields.id;
    header.evSequenceId = options.sequenceId.value_or(0);
    header.evStructLength = static_cast<U16_t>(data.size());
    event.insert(event.end(), data.begin(), data.end());
    return event;
}

int runWrite(const WriteOptions& options) {
    Bytes event = eventOf(options);
    const MPU_PARAMS_t& params = attachParams(*options.key);
    S32_t status = altEventLogM(reinterpret_cast<const EmpEvLogMsg_t*>(event.data()), &params);
    switch (status) {
    case ALT_EVENT_LOG_E_OK:
        return tools::EXIT_DONE;
    case ALT_EVENT_LOG_E_OPEN:
        throw std::runtime_error("the alternate event log file could not be created (10001)");
    default:
        throw std::runtime_error("the alternate event log file could not be written (" +
                                 std::to_string(status) + "); an empty or partial file may remain");
    }
}

} // namespace

void addAelWriteCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<WriteOptions>();
    CLI::App& command =
        addCommand(parent, "write", "Leave an event for the event manager's next start.", EXAMPLES);
    addKeyOption(command, options->key)->required();
    addEventOptions(command, options->event, MMSG_E_MAX_DEFINED_EPIDS);
    command
        .add_option("--seq", options->sequenceId, "Order among the startup events of one second")
        ->type_name("NUMBER")
        ->default_str("0");
    onChosen(command, chosen, options, runWrite);
}

} // namespace evctl
