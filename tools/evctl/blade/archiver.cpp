/** evctl archiver: names the event archiver to the event manager. */
#include "evctl/commands.h"
#include "evctl/wire/archiver_address.h"
#include "evctl/wire/request.h"

#include <iostream>

namespace evctl {
namespace {

constexpr char ARCHIVER_EXAMPLES[] = "Examples:\n"
                                     "  evctl archiver set --key 0x1234 192.0.2.7:9000\n"
                                     "  evctl archiver set --dir /tmp/msm off";

struct SetOptions {
    RequestOptions request;
    std::string archiver;
};

int runSet(const SetOptions& options) {
    Bytes message = makeSetArchiver(options.request.endpoint, parseArchiver(options.archiver));
    Requester requester(options.request);
    // The reply's body says nothing.
    U32_t returnCode = mmchOf(requester.ask(message, 0)).return_code;
    if (returnCode == EMP_E_RESPONSE_SUCCESS) {
        return tools::EXIT_DONE;
    }
    std::cerr << "evctl: the event manager did not take the address (return code " << returnCode
              << ")\n";
    return tools::EXIT_FINDING;
}

} // namespace

void addArchiverCommands(CLI::App& parent, Chosen& chosen) {
    CLI::App& group = addCommandGroup(parent, "archiver", "The event manager's archiver.");
    auto options = std::make_shared<SetOptions>();
    CLI::App& set = addCommand(group, "set", "Have the event manager use an archiver, or none.",
                               ARCHIVER_EXAMPLES);
    set.add_option("ARCHIVER", options->archiver, "Its host, by name or IPv4 address, and TCP port")
        ->type_name("HOST:PORT|off")
        ->required();
    addRequestOptions(set, options->request);
    onChosen(set, chosen, options, runSet);
}

} // namespace evctl
