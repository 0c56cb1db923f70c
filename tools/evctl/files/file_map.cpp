/** evctl file map: the ring as it lies in its file. */
#include "common/cli.h"
#include "evctl/files/log_map.h"
#include "evctl/paged_command.h"
#include "evctl/views/svg.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_MAP_EXAMPLES[] = "The exit status is 1 when the file is damaged.\n"
                                     "Examples:\n"
                                     "  evctl file map kelta_eventlog\n"
                                     "  evctl file map kelta_eventlog --age\n"
                                     "  evctl file map kelta_eventlog -o svg > ring.svg";

struct MapOptions {
    std::string path;
    std::string form = "text";
    bool ages = false;
};

int runMap(const MapOptions& options) {
    int status = tools::EXIT_DONE;
    EvlogImage_t image = loadLog(options.path, &status);
    LogContent content = readLog(image);
    LogMap map = mapOf(content);
    if (options.form == "json") {
        std::cout << jsonLine(mapJson(map, content));
    } else if (options.form == "svg") {
        std::cout << mapPicture(map, content, Svg::titleOf(options.path));
    } else {
        std::cout << mapLines(map, content, options.ages);
    }
    return std::max(status, statusOf(content));
}

} // namespace

void addFileMapCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<MapOptions>();
    CLI::App& command =
        addCommand(parent, "map", "Draw a log file as it lies: events, gap, unused space, damage.",
                   FILE_MAP_EXAMPLES);
    addFileArgument(command, options->path);
    command.add_option("-o,--output", options->form, "As what")
        ->type_name("text|svg|json")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "svg", "json"}));
    command.add_flag("--age", options->ages, "Of events how old they are, not their types");
    command.add_flag_callback(
        "--json", [options] { options->form = "json"; }, "As -o json: one object");
    onChosenPaged(command, chosen, options, runMap);
}

} // namespace evctl
