#include "evctl/send/event_options.h"

#include "common/cli.h"
#include "common/named_option.h"
#include "evctl/filters/event_filter.h"

#include <stdexcept>

namespace evctl {
namespace {

void addDataOptions(CLI::App& command, EventOptions& options) {
    CLI::Option_group* data = command.add_option_group("Data", "At most 3848 bytes; none: no data");
    data->add_option("--text", options.text, "Data as text, without a terminator");
    data->add_option("--hex", options.hex, "Data as pairs of hexadecimal digits; blanks between");
    data->add_option("--file", options.file, "Data is the content of a file")->type_name("FILE");
    data->require_option(0, 1);
}

} // namespace

void addEventOptions(CLI::App& command, EventOptions& options, U32_t maxSource) {
    addNamedOption(command, "--source", options.source, tools::endpointNames, maxSource,
                   "Endpoint that the events come from");
    addNamedOption(command, "--type", options.type, tools::eventTypeNames, UINT8_MAX, "Event type");
    addNamedOption(command, "--category", options.category, tools::categoryNames, UINT8_MAX,
                   "Event category");
    command.add_option("--id", options.id, "Event id within the source")
        ->type_name("NAME|NUMBER")
        ->required();
    command.add_option("--id-version", options.idVersion, "Version of the data's layout")
        ->type_name("NUMBER")
        ->default_str("1")
        ->check(tools::wholeNumber(0, UINT8_MAX));
    addDataOptions(command, options);
}

EventFields fieldsOf(const EventOptions& options) {
    return {.source = options.source,
            .type = static_cast<U8_t>(options.type),
            .category = static_cast<U8_t>(options.category),
            .idVersion = static_cast<U8_t>(options.idVersion),
            .id = static_cast<U16_t>(parseEventId("--id", options.source, options.id))};
}

Bytes dataOf(const EventOptions& options) {
    Bytes data(options.text.begin(), options.text.end());
    if (!options.hex.empty()) {
        data = parseHexData(options.hex);
    } else if (!options.file.empty()) {
        data = readDataFile(options.file);
    }
    if (data.size() > EMP_MAX_STRUCT) {
        throw std::runtime_error("more than 3848 bytes of event data");
    }
    return data;
}

} // namespace evctl
