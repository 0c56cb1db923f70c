/** evctl support: all that another desk needs to help, in one file. */
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/options.h"

#if EVCTL_WRITES_BUNDLES
#include "evctl/new_file.h"
#include "evctl/params_view.h"
#include "evctl/request.h"
#include "evctl/status_view.h"
#include "evctl/support_files.h"
#include "version.h"

#include <ctime>
#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#endif

#include <iostream>
#include <stdexcept>

namespace evctl {
namespace {

constexpr char SUPPORT_EXAMPLES[] =
    "The exit status is 1 when something is missing in the bundle.\n"
    "Examples:\n"
    "  evctl support --key 0x1234 --tail /var/log/blade/emp-1.log -o help.tar.gz\n"
    "  evctl support --nvram /var/lib/blade/slot1/nvram --redact -o help.tar.gz";

struct SupportOptions {
    std::string nvram;
    KeyOptions block;
    std::vector<std::string> tails;
    std::string output;
    bool redact = false;
};

#if EVCTL_WRITES_BUNDLES

constexpr double ANSWER_WITHIN = 5; // seconds; a silent event manager is a reason for a bundle

/** The status, or why there is none. */
void addStatus(SupportFiles& files, const KeyOptions& block) {
    RequestOptions request;
    request.where.block = block;
    request.timeout = ANSWER_WITHIN;
    try {
        Bytes reply = Requester(request).ask(
            makeMessage(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, request.endpoint, 0),
            sizeof(EmpGetEvManagerStatusMsg_t));
        files.addObject("status.json",
                        statusJson(*reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(
                            reply.data() + MMCH_SIZE)));
    } catch (const std::runtime_error& problem) {
        files.addProblem("status", problem.what());
    }
}

Json versionsJson() {
    struct utsname system {};
    uname(&system);
    return {{"evctl", VersionFullString()},
            {"system", std::string(system.sysname) + " " + system.release},
            {"machine", system.machine},
            {"seconds", static_cast<U32_t>(time(nullptr))}};
}

int runSupport(const SupportOptions& options) {
    SupportFiles files(options.redact);
    std::string nvram = options.nvram;
    if (options.block.given()) {
        const MPU_PARAMS_t& params = attachParams(options.block);
        nvram = fieldText(params.nvramDirectory, sizeof(params.nvramDirectory));
        files.addObject("parameters.json", paramsJson(params));
        addStatus(files, options.block);
    }
    files.addLogs(nvram);
    for (const std::string& path : options.tails) {
        files.addTail(path);
    }
    files.addVersions(versionsJson());
    std::vector<bundle::Member> members = files.finish();
    writeNewFile(options.output, bundle::pack(members, static_cast<U32_t>(time(nullptr))));
    for (const bundle::Member& member : members) {
        std::cout << tools::escapedText(member.name) << "  " << member.bytes.size() << "\n";
    }
    for (const std::string& problem : files.problems()) {
        std::cerr << "evctl: not in the bundle: " << problem << "\n";
    }
    return files.problems().empty() ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

#else

int runSupport(const SupportOptions& /*options*/) {
    throw std::runtime_error("this program was built without bundles; copy the files by hand");
}

#endif

} // namespace

void addSupportCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<SupportOptions>();
    CLI::App& command = addCommand(
        parent, "support", "Pack what a support desk needs into one file.", SUPPORT_EXAMPLES);
    CLI::Option_group* where = command.add_option_group("Blade");
    where
        ->add_option("--nvram", options->nvram,
                     "Directory of the log, without the state of a running blade")
        ->type_name("DIR");
    addKeyOption(*where, options->block);
    where->require_option(1);
    command
        .add_option("--tail", options->tails,
                    "The end of these files, too, such as the event manager's output")
        ->type_name("FILE");
    command.add_option("-o,--output", options->output, "The bundle; it must not be there")
        ->type_name("NEW")
        ->required();
    command.add_flag("--redact", options->redact, "Without names and data");
    onChosen(command, chosen, options, runSupport);
}

} // namespace evctl
