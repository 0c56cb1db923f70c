#include "evctl/event_output.h"

#include "evctl/event_text.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {

void addOutputOptions(CLI::App& command, OutputOptions& options) {
    command.add_flag("--json", options.json, "One JSON object a line");
    command.add_flag("--data", options.data, "A hex dump of its data below each event");
    command.add_flag("-x,--advice", options.advice, "What may be done about it below each event");
}

std::string eventOutput(const EventView& event, const OutputOptions& options, Json json) {
    std::string advice = options.advice ? adviceOf(event) : "";
    if (options.json) {
        if (!advice.empty()) {
            json["advice"] = advice;
        }
        return jsonLine(json);
    }
    std::string lines = eventLine(event) + "\n";
    if (!advice.empty()) {
        lines += "            -- " + advice + "\n";
    }
    return options.data ? lines + hexDump(event.data) : lines;
}

void printEvent(const EventView& event, const OutputOptions& options) {
    std::cout << eventOutput(event, options, options.json ? eventJson(event) : Json())
              << std::flush;
}

} // namespace evctl
