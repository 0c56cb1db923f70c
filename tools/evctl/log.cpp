/** evctl log: sends events to the event manager. */
#include "evctl/event_message.h"

#include "evctl/commands.h"
#include "evctl/options.h"
#include "evctl/progress.h"
#include "evctl/session.h"

namespace evctl {
namespace {

constexpr char EXAMPLES[] =
    "Examples:\n"
    "  evctl log --key 0x1234 --id 300 --type warning --category disk --text \"drive 4 is slow\"\n"
    "  evctl log --dir /tmp/msm --source startup --id 1 --hex 00ff10 --count 1000 --rate 200";

struct LogOptions {
    SwitchOptions where;
    U32_t source = MMSG_E_EPID_SNMPMP;
    U32_t type = EMP_E_TYPE_INFORMATION;
    U32_t category = EMP_E_CATEGORY_SYSTEM;
    std::string id;
    U32_t idVersion = 1;
    std::string text;
    std::string hex;
    std::string file;
    U64_t count = 1;
    double rate = 0; // events a second; 0: as fast as they go
};

Bytes dataOf(const LogOptions& options) {
    if (!options.hex.empty()) {
        return parseHexData(options.hex);
    }
    if (!options.file.empty()) {
        return readDataFile(options.file);
    }
    return {options.text.begin(), options.text.end()};
}

Bytes messageOf(const LogOptions& options) {
    return makeEventMessage(
        {.source = options.source,
         .type = static_cast<U8_t>(options.type),
         .category = static_cast<U8_t>(options.category),
         .idVersion = static_cast<U8_t>(options.idVersion),
         .id = static_cast<U16_t>(
             parseNamed("--id", options.id, tools::eventNamesOf(options.source), UINT16_MAX))},
        dataOf(options));
}

/** When event number @p index is due. */
Clock::time_point dueTime(Clock::time_point start, U64_t index, double rate) {
    std::chrono::duration<double> offset(static_cast<double>(index) / rate);
    return start + std::chrono::duration_cast<Clock::duration>(offset);
}

int runLog(const LogOptions& options) {
    Bytes message = messageOf(options);
    Session session(switchDirectory(options.where), options.source);
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

void addEventOptions(CLI::App& command, LogOptions& options) {
    addNamedOption(command, "--source", options.source, tools::endpointNames,
                   MMSG_E_MAX_DEFINED_EPIDS - 1, "Endpoint that the events come from");
    addNamedOption(command, "--type", options.type, tools::eventTypeNames, UINT8_MAX, "Event type");
    addNamedOption(command, "--category", options.category, tools::categoryNames, UINT8_MAX,
                   "Event category");
    command.add_option("--id", options.id, "Event id within the source")
        ->type_name("NAME|NUMBER")
        ->required();
    command.add_option("--id-version", options.idVersion, "Version of the data's layout [1]")
        ->type_name("NUMBER")
        ->check(CLI::Range(0, UINT8_MAX));
}

void addDataOptions(CLI::App& command, LogOptions& options) {
    CLI::Option_group* data = command.add_option_group("Data", "At most 3848 bytes; none: no data");
    data->add_option("--text", options.text, "Data as text, without a terminator");
    data->add_option("--hex", options.hex, "Data as pairs of hexadecimal digits; blanks between");
    data->add_option("--file", options.file, "Data is the content of a file")->type_name("FILE");
    data->require_option(0, 1);
}

} // namespace

void addLogCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<LogOptions>();
    CLI::App& command = addCommand(parent, "log", "Send events to the event manager.", EXAMPLES);
    addSwitchOptions(command, options->where);
    addEventOptions(command, *options);
    addDataOptions(command, *options);
    command.add_option("--count", options->count, "Number of events [1]")
        ->type_name("NUMBER")
        ->check(CLI::PositiveNumber);
    command.add_option("--rate", options->rate, "Events a second [as fast as they are taken]")
        ->type_name("NUMBER")
        ->check(CLI::Range(0.001, 1e6));
    onChosen(command, chosen, options, runLog);
}

} // namespace evctl
