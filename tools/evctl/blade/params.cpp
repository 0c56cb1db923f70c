/** evctl params: the blade's parameter block. */
#include "common/cli.h"
#include "evctl/paged_command.h"
#include "evctl/views/params_view.h"
#include "evctl/wire/blade_options.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char PARAMS_EXAMPLES[] = "Example:\n"
                                   "  evctl params show --key 0x1234 --json";

struct ParamsOptions {
    KeyOptions block;
    bool json = false;
};

int runShow(const ParamsOptions& options) {
    Json json = paramsJson(attachParams(options.block));
    std::cout << (options.json ? jsonLine(json) : paramsLines(json));
    return tools::EXIT_DONE;
}

} // namespace

void addParamsCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "params", "The blade's parameter block.");
    auto options = std::make_shared<ParamsOptions>();
    CLI::App& show =
        addCommand(group, "show", "Show all fields of the parameter block.", PARAMS_EXAMPLES);
    addKeyOption(show, options->block);
    show.add_flag("--json", options->json, "As a JSON object");
    onChosenPaged(show, chosen, options, runShow);
}

} // namespace evctl
