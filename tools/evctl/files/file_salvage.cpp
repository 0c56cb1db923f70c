/** evctl file salvage: every readable event of damaged files, in a new log. */
#include "common/new_file.h"
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/files/file.h"
#include "evctl/files/file_identity.h"
#include "evctl/files/salvage.h"
#include "evctl/views/event_view.h"

#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace evctl {
namespace {

constexpr char FILE_SALVAGE_EXAMPLES[] =
    "FILE: a log, its debugging copy, an alternate event file, a bundle, or a directory of such\n"
    "files: its log, debugging copy, logs that guard has set aside, and alternate events. The new\n"
    "log gets owner and permissions of the first one, where it may be given away.\n"
    "The exit status is 1 when something could not be saved, or read.\n"
    "Examples:\n"
    "  evctl file salvage kelta_eventlog --output mended\n"
    "  evctl file salvage kelta_eventlog kelta_eventlog.debug --renumber --output all";

constexpr size_t LINES_MAX = 20; // of each kind; --json has all

struct SalvageOptions {
    std::vector<std::string> paths;
    std::string output;
    IdentityOfFile identity;
    bool renumber = false;
    bool dryRun = false;
    bool json = false;
};

/** A stretch of an input that no event was read from. */
struct Lost {
    size_t source;
    EvlogFinding_t finding;
};

std::vector<Lost> lostOf(const SalvageInputs& inputs) {
    std::vector<Lost> lost;
    for (size_t source = 0; source < inputs.sources().size(); source++) {
        if (inputs.sources()[source].waiting) {
            continue; // told as left out
        }
        EvlogImage_t image = evlogImageOf(inputs.sources()[source].bytes);
        evlogWalk(image, {.onRecord = {}, .onFinding = [&](const EvlogFinding_t& finding) {
                              lost.push_back({source, finding});
                          }});
    }
    return lost;
}

/** "PATH offset 1200" */
std::string placeText(const SalvageInputs& inputs, size_t source, U64_t offset) {
    return tools::escapedText(inputs.nameOf(source)) + " offset " + std::to_string(offset);
}

void printMore(size_t count) {
    if (count > LINES_MAX) {
        std::cout << "... and " << count - LINES_MAX << " more; --json has all\n";
    }
}

void printLost(const SalvageInputs& inputs, const std::vector<Lost>& lost) {
    for (const Lost& one : std::span(lost).first(std::min(lost.size(), LINES_MAX))) {
        std::cout << placeText(inputs, one.source, one.finding.offset) << ", " << one.finding.bytes
                  << " bytes: " << evlogReasonText(one.finding.reason) << "\n";
    }
    printMore(lost.size());
}

/** The readable events that were left out: how many for each reason, then which. */
void printLeft(const SalvageInputs& inputs, const std::vector<EvlogLeft_t>& left) {
    std::array<size_t, EVLOG_E_LEFT_REASONS> counts{};
    for (const EvlogLeft_t& event : left) {
        counts.at(event.reason)++;
    }
    for (size_t reason = 0; reason < counts.size(); reason++) {
        if (counts[reason] > 0) {
            std::cout << counts[reason]
                      << " left out: " << evlogLeftText(static_cast<EVLOG_LEFT_e>(reason)) << "\n";
        }
    }
    for (const EvlogLeft_t& event : std::span(left).first(std::min(left.size(), LINES_MAX))) {
        std::cout << "  " << placeText(inputs, event.source, event.offset) << ", id "
                  << event.sequenceId << ": " << evlogLeftText(event.reason) << "\n";
    }
    printMore(left.size());
}

Json salvageJson(const SalvageInputs& inputs, const EvlogSalvage_t& salvage,
                 const std::vector<Lost>& lost, bool written) {
    Json left = Json::array();
    for (const EvlogLeft_t& event : salvage.left) {
        left.push_back({{"file", tools::escapedText(inputs.nameOf(event.source))},
                        {"offset", event.offset},
                        {"sequenceId", event.sequenceId},
                        {"reason", evlogLeftText(event.reason)}});
    }
    Json damaged = Json::array();
    for (const Lost& one : lost) {
        damaged.push_back({{"file", tools::escapedText(inputs.nameOf(one.source))},
                           {"offset", one.finding.offset},
                           {"bytes", one.finding.bytes},
                           {"reason", evlogReasonText(one.finding.reason)}});
    }
    Json unread = Json::array();
    for (const std::string& reason : inputs.passedOver().reasons()) {
        unread.push_back(tools::escapedText(reason));
    }
    return {{"saved", salvage.saved},
            {"marks", salvage.marks},
            {"renumbered", salvage.renumbered},
            {"repeated", salvage.repeated},
            {"firstSequenceId", salvage.bytes.empty() ? Json(nullptr) : Json(salvage.firstId)},
            {"lastSequenceId", salvage.bytes.empty() ? Json(nullptr) : Json(salvage.lastId)},
            {"leftOut", left},
            {"damaged", damaged},
            {"unread", unread},
            {"written", written}};
}

/** Before anything is read: nothing is ever written over. */
void requireNew(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        throw std::runtime_error(path + ": is there already; salvage writes only new files");
    }
}

/** The new log is for the event manager that had the first one. */
void writeLog(const std::string& path, const std::vector<U8_t>& bytes,
              const SalvageInputs& inputs) {
    for (size_t source = 0; source < inputs.sources().size(); source++) {
        const std::string& log = inputs.nameOf(source);
        std::optional<tools::FileAccess> access = tools::accessOf(log);
        if (inputs.sources()[source].waiting || !access) {
            continue;
        }
        if (!tools::writeNewFile(path, bytes, *access)) {
            std::cerr << "evctl: " << tools::escapedText(path) << ": belongs to another user than "
                      << tools::escapedText(log) << "; give it to that one before the start\n";
        }
        return;
    }
    tools::writeNewFile(path, bytes);
}

int runSalvage(const SalvageOptions& options) {
    if (!options.dryRun) {
        requireNew(options.output);
    }
    SalvageInputs inputs;
    for (const std::string& path : options.paths) {
        inputs.add(path);
    }
    if (inputs.sources().empty()) {
        return inputs.passedOver().say(tools::EXIT_COULD_NOT);
    }
    std::optional<EvlogIdentity_t> identity = identityOf(options.identity);
    EvlogSalvage_t salvage =
        salvageTried(inputs.sources(),
                     {.identity = identity ? &*identity : nullptr, .renumber = options.renumber});
    std::vector<Lost> lost = lostOf(inputs);
    bool write = !options.dryRun && !salvage.bytes.empty();
    if (write) {
        writeLog(options.output, salvage.bytes, inputs);
    }
    if (options.json) {
        std::cout << jsonLine(salvageJson(inputs, salvage, lost, write));
    } else {
        printLost(inputs, lost);
        printLeft(inputs, salvage.left);
        std::cout << savedText(salvage) << (options.dryRun ? "; nothing written" : "") << "\n";
    }
    bool whole = lost.empty() && salvage.left.empty();
    return inputs.passedOver().say(salvage.bytes.empty() ? tools::EXIT_COULD_NOT
                                   : whole               ? tools::EXIT_DONE
                                                         : tools::EXIT_FINDING);
}

} // namespace

void addFileSalvageCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<SalvageOptions>();
    CLI::App& command =
        addCommand(parent, "salvage", "Put every readable event of damaged files into a new log.",
                   FILE_SALVAGE_EXAMPLES);
    command.add_option("FILE", options->paths, "Where the events are; these are only read")
        ->required();
    CLI::Option* output =
        command.add_option("-o,--output", options->output, "The new log")->type_name("NEW");
    CLI::Option* dryRun =
        command.add_flag("--dry-run", options->dryRun, "Only say what would be saved");
    output->excludes(dryRun);
    command.add_flag("--renumber", options->renumber,
                     "Of logs that began their ids anew, add the later ones with new ids");
    addIdentityOfFile(command, options->identity);
    command.add_flag("--json", options->json, "As a JSON object");
    command.callback([&chosen, options, output, dryRun] {
        if (output->empty() && dryRun->empty()) {
            throw CLI::RequiredError("--output or --dry-run");
        }
        chosen.run = [options] { return runSalvage(*options); };
    });
}

} // namespace evctl
