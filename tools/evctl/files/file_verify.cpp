/** evctl file verify: every damaged stretch of a log file. */
#include "common/cli.h"
#include "evctl/files/file.h"
#include "evctl/paged_command.h"
#include "evctl/views/event_view.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_VERIFY_EXAMPLES[] =
    "The exit status is 1 when anything is damaged. The gap between the newest and the\n"
    "oldest records of a log that has gone round its end is no damage.";

struct VerifyOptions {
    std::string path;
    bool json = false;
};

void printFinding(const EvlogFinding_t& finding, bool json) {
    if (json) {
        std::cout << jsonLine({{"offset", finding.offset},
                               {"bytes", finding.bytes},
                               {"reason", evlogReasonText(finding.reason)}});
        return;
    }
    std::cout << "offset " << finding.offset << ", " << finding.bytes
              << " bytes: " << evlogReasonText(finding.reason) << "\n";
}

int runVerify(const VerifyOptions& options) {
    int status = tools::EXIT_DONE;
    EvlogImage_t image = loadLog(options.path, &status);
    LogContent content = readLog(image);
    for (const EvlogFinding_t& finding : content.findings) {
        printFinding(finding, options.json);
    }
    return std::max(status, statusOf(content));
}

} // namespace

void addFileVerifyCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<VerifyOptions>();
    CLI::App& command = addCommand(parent, "verify", "Name every damaged stretch of a log file.",
                                   FILE_VERIFY_EXAMPLES);
    addFileArgument(command, options->path);
    command.add_flag("--json", options->json, "One JSON object a line");
    onChosenPaged(command, chosen, options, runVerify);
}

} // namespace evctl
