#include "evctl/event_output.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {

void addOutputOptions(CLI::App& command, OutputOptions& options) {
    command.add_flag("--json", options.json, "One JSON object a line");
    command.add_flag("--data", options.data, "A hex dump of its data below each event");
}

void printEvent(const EventView& event, const OutputOptions& options) {
    if (options.json) {
        std::cout << jsonLine(eventJson(event)) << std::flush;
        return;
    }
    std::cout << eventLine(event) << "\n";
    if (options.data) {
        std::cout << hexDump(event.data);
    }
    std::cout << std::flush;
}

} // namespace evctl
