/** evctl status: the event manager's link to the archiver. */
#include "evctl/commands.h"
#include "evctl/views/status_view.h"
#include "evctl/wire/request.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char STATUS_EXAMPLES[] = "Example:\n"
                                   "  evctl status --key 0x1234 --json";

struct StatusOptions {
    RequestOptions request;
    bool json = false;
};

int runStatus(const StatusOptions& options) {
    Requester requester(options.request);
    Bytes reply =
        requester.ask(makeMessage(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, options.request.endpoint, 0),
                      sizeof(EmpGetEvManagerStatusMsg_t));
    if (U32_t returnCode = mmchOf(reply).return_code; returnCode != EMP_E_RESPONSE_SUCCESS) {
        std::cerr << "evctl: the event manager does not tell (return code " << returnCode << ")\n";
        return tools::EXIT_FINDING;
    }
    const auto& status =
        *reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(reply.data() + MMCH_SIZE);
    std::cout << (options.json ? jsonLine(statusJson(status)) : statusLines(status));
    return tools::EXIT_DONE;
}

} // namespace

void addStatusCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<StatusOptions>();
    CLI::App& command =
        addCommand(parent, "status", "Show the state of the link to the archiver and its counters.",
                   STATUS_EXAMPLES);
    addRequestOptions(command, options->request);
    command.add_flag("--json", options->json, "As a JSON object");
    onChosen(command, chosen, options, runStatus);
}

} // namespace evctl
