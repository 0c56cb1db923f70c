/** evctl support: all that another desk needs to help, in one file. */
#include "bundle/tar.h"
#include "common/new_file.h"
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/files/file_identity.h"
#include "evctl/support/running_emp.h"
#include "evctl/support/support_files.h"
#include "evctl/views/event_view.h"
#include "evctl/views/params_view.h"
#include "evctl/views/status_view.h"
#include "evctl/wire/blade_options.h"
#include "evctl/wire/request.h"
#include "version.h"

#if EVCTL_COMPRESSES
#include "bundle/bundle.h"
#endif

#include <ctime>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/utsname.h>

namespace evctl {
namespace {

constexpr char SUPPORT_EXAMPLES[] =
    "The exit status is 1 when something is missing in the bundle.\n"
    "Examples:\n"
    "  evctl support\n"
    "  evctl support --key 0x1234 --tail /var/log/messages -o help.tar.gz\n"
    "  evctl support --nvram /var/lib/blade/slot1/nvram --redact -o help.tar.gz";

struct SupportOptions {
    std::string nvram;
    KeyOptions block;
    std::vector<std::string> tails;
    std::string output;
    bool redact = false;
    bool json = false;
};

#if EVCTL_COMPRESSES
constexpr char BUNDLE_SUFFIX[] = ".tar.gz";
#else
constexpr char BUNDLE_SUFFIX[] = ".tar";
#endif

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
        if (U32_t returnCode = mmchOf(reply).return_code; returnCode != EMP_E_RESPONSE_SUCCESS) {
            throw std::runtime_error("the event manager does not tell (return code " +
                                     std::to_string(returnCode) + ")");
        }
        files.addObject("status.json",
                        statusJson(*reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(
                            reply.data() + MMCH_SIZE)));
    } catch (const std::runtime_error& problem) {
        files.addProblem("status", problem.what());
    }
}

/** @param emp empty where none runs, or its program cannot be read */
Json versionsJson(const std::string& emp) {
    struct utsname system {};
    uname(&system);
    return {{"evctl", VersionFullString()},
            {"libmpu", VersionFullString()}, // this program's, whose function that is
            {"eventManager", emp.empty() ? Json(nullptr) : Json(emp)},
            {"system", std::string(system.sysname) + " " + system.release},
            {"machine", system.machine},
            {"seconds", static_cast<U32_t>(time(nullptr))}};
}

/** The files that the program which runs a blade keeps its outputs in, by themselves. */
std::vector<std::string> usualOutputs(const MPU_PARAMS_t& params) {
    std::string directory = tools::fieldText(params.logDirectory, sizeof(params.logDirectory));
    if (directory.empty()) {
        directory = tools::fieldText(params.mmsgDirectory, sizeof(params.mmsgDirectory));
    }
    return {directory + "/emp.log", directory + "/msm.log"};
}

/** All that a parameter block leads to. */
void addBlade(SupportFiles& files, KeyOptions block) {
    block.key = keyOf(block); // EVCTL_DIR would lead elsewhere
    const MPU_PARAMS_t& params = attachParams(block);
    files.addObject("parameters.json", paramsJson(params));
    addStatus(files, block);
    EvlogIdentity_t identity = identityIn(params);
    files.addLogs(tools::fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)),
                  &identity);
    std::optional<RunningEmp> emp = findRunningEmp(*block.key);
    bool isNamed = emp && !emp->outputs.empty();
    for (const std::string& output : isNamed ? emp->outputs : usualOutputs(params)) {
        for (const char* turn : {"", ".1"}) { // the one before it, too
            files.addKnownTail(output + turn);
        }
    }
    files.addVersions(versionsJson(emp ? emp->version : ""));
}

void addDirectory(SupportFiles& files, const std::string& nvram) {
    std::error_code error;
    if (!std::filesystem::is_directory(nvram, error)) {
        throw std::runtime_error(nvram + ": " + (error ? error.message() : "not a directory"));
    }
    files.addLogs(nvram, nullptr);
    files.addVersions(versionsJson(""));
}

std::string outputOf(const SupportOptions& options) {
    if (!options.output.empty()) {
        return options.output;
    }
    std::string stamp = isoTime(static_cast<U32_t>(time(nullptr)));
    std::erase_if(stamp, [](char letter) { return letter == '-' || letter == ':'; });
    return "support-" + stamp + BUNDLE_SUFFIX;
}

#if EVCTL_COMPRESSES

void checkOutput(const std::string& /*output*/) {}

std::vector<U8_t> packed(const std::vector<bundle::Member>& members, const std::string& output,
                         U32_t time) {
    return output.ends_with(".tar") ? bundle::tar(members, time) : bundle::pack(members, time);
}

#else

/** Nobody shall look for what is compressed in what is not. */
void checkOutput(const std::string& output) {
    if (output.ends_with(".gz") || output.ends_with(".tgz")) {
        throw std::runtime_error(output + ": this program was built without what compresses; "
                                          "name it .tar");
    }
}

std::vector<U8_t> packed(const std::vector<bundle::Member>& members, const std::string& /*output*/,
                         U32_t time) {
    return bundle::tar(members, time);
}

#endif

Json bundleJson(const std::string& output, const std::vector<bundle::Member>& members,
                const std::vector<std::string>& problems) {
    Json packed = Json::array();
    for (const bundle::Member& member : members) {
        packed.push_back(
            {{"name", tools::escapedText(member.name)}, {"bytes", member.bytes.size()}});
    }
    Json missing = Json::array();
    for (const std::string& problem : problems) {
        missing.push_back(tools::shownLine(problem));
    }
    return {{"bundle", tools::escapedText(output)}, {"members", packed}, {"missing", missing}};
}

int runSupport(const SupportOptions& options) {
    std::string output = outputOf(options);
    checkOutput(output);
    SupportFiles files(options.redact);
    if (options.nvram.empty()) {
        addBlade(files, options.block);
    } else {
        addDirectory(files, options.nvram);
    }
    for (const std::string& path : options.tails) {
        files.addTail(path);
    }
    std::vector<bundle::Member> members = files.finish();
    tools::writeNewFile(output, packed(members, output, static_cast<U32_t>(time(nullptr))));
    if (options.json) {
        std::cout << jsonLine(bundleJson(output, members, files.problems()));
    } else {
        std::cout << tools::escapedText(output) << ":\n";
        for (const bundle::Member& member : members) {
            std::cout << tools::escapedText(member.name) << "  " << member.bytes.size() << "\n";
        }
    }
    for (const std::string& problem : files.problems()) {
        std::cerr << "evctl: not in the bundle: " << problem << "\n";
    }
    return files.problems().empty() ? tools::EXIT_DONE : tools::EXIT_FINDING;
}

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
    where->require_option(0, 1);
    command
        .add_option("--tail", options->tails,
                    "The end of these files, too, such as the event manager's output")
        ->type_name("FILE");
    command
        .add_option("-o,--output", options->output,
                    "The bundle, as tar alone where its name ends in .tar; it must not be there "
                    "(default support-TIME" +
                        std::string(BUNDLE_SUFFIX) + ")")
        ->type_name("NEW");
    command.add_flag("--redact", options->redact, "Without names and data");
    command.add_flag("--json", options->json, "What is in it as a JSON object");
    onChosen(command, chosen, options, runSupport);
}

} // namespace evctl
