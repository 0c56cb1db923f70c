/** evctl file predict: what the next start will do with a log file. */
#include "common/text.h"
#include "evctl/commands.h"
#include "evctl/files/file.h"
#include "evctl/files/file_identity.h"
#include "evctl/files/predict_view.h"
#include "evctl/views/event_view.h"

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_PREDICT_EXAMPLES[] =
    "The exit status is 0 when nothing is lost, 1 when events are, or a bug-check will come\n"
    "later, and 2 when the event manager cannot work with this file; or when it cannot be read,\n"
    "which standard error says. A file that is not there yet is a new log.\n"
    "Whether the log belongs to this blade is judged only with --enclosure and --slot.\n"
    "Example:\n"
    "  evctl file predict kelta_eventlog";

struct PredictOptions {
    std::string path;
    IdentityOfFile identity;
    bool json = false;
};

/** No file, where the event manager can make one. */
bool isMissing(const std::string& path) {
    std::filesystem::path place(path);
    std::filesystem::path directory = place.has_parent_path() ? place.parent_path() : ".";
    std::error_code error;
    return path != "-" &&
           std::filesystem::symlink_status(place, error).type() ==
               std::filesystem::file_type::not_found &&
           std::filesystem::is_directory(directory, error);
}

/** "1 event is", "2 events are" */
std::string eventsAre(U64_t count, const std::string& kind) {
    return countText(count, kind + "event") + (count == 1 ? " is " : " are ");
}

std::string lossLine(const EvlogPrediction_t& prediction) {
    std::string events = eventsAre(prediction.lost, "readable ");
    switch (prediction.state.verdict) {
    case EVLOG_E_VERDICT_REBUILT:
        return events + "set aside in the debugging copy, which the start after that deletes";
    case EVLOG_E_VERDICT_FOREIGN:
        return events + "cleared";
    default:
        return events + "not taken, and will be overwritten";
    }
}

std::string bugcheckLine(const EvlogBugcheck_t& bugcheck) {
    std::string text = "bug-check \"" + std::string(bugcheck.message) + "\" at ";
    if (bugcheck.events == 0) {
        return text + "the first event that is logged, after every start";
    }
    return text + "event " + std::to_string(bugcheck.events + 1) +
           " after the start, if each has " + std::to_string(bugcheck.dataLength) +
           " bytes of data";
}

void printLines(const EvlogPrediction_t& prediction) {
    const EvlogState_t& state = prediction.state;
    std::cout << evlogVerdictName(state.verdict) << ": " << evlogVerdictText(state.verdict) << "\n";
    if (evlogIsFatal(state.verdict)) {
        std::cout << "it does not come up, at any start, until the file is replaced (offset "
                  << state.stopOffset << ")\n";
        return;
    }
    std::cout << eventsAre(prediction.taken, "") << "taken; the next one gets sequence id "
              << state.empSequenceId << " of instance " << state.empInstanceNumber << "\n";
    if (prediction.lost > 0) {
        std::cout << lossLine(prediction) << "\n";
    }
    if (prediction.bugcheck) {
        std::cout << bugcheckLine(*prediction.bugcheck) << "\n";
    }
}

int runPredict(const PredictOptions& options) {
    // Also of a file that is no log: the event manager takes any, and makes one that is not there.
    bool isThere = !isMissing(options.path);
    int status = tools::EXIT_DONE;
    EvlogImage_t image = isThere ? loadAnyLog(options.path, &status) : EvlogImage_t{};
    std::optional<EvlogIdentity_t> identity = identityOf(options.identity);
    EvlogPrediction_t prediction = evlogPredict(image, identity ? &*identity : nullptr);
    if (options.json) {
        std::cout << jsonLine(predictionJson(tools::escapedText(options.path), prediction));
    } else {
        std::cout << (isThere ? "" : "there is no such file yet\n");
        printLines(prediction);
    }
    if (prediction.isFatal()) {
        return tools::EXIT_COULD_NOT;
    }
    return prediction.lost > 0 || prediction.bugcheck ? int{tools::EXIT_FINDING} : status;
}

} // namespace

Json predictionJson(const std::string& name, const EvlogPrediction_t& prediction) {
    const EvlogState_t& state = prediction.state;
    Json bugcheck = nullptr;
    if (prediction.bugcheck) {
        bugcheck = {{"message", prediction.bugcheck->message},
                    {"eventsBefore", prediction.bugcheck->events},
                    {"dataLength", prediction.bugcheck->dataLength}};
    }
    return {{"file", name},
            {"verdict", evlogVerdictName(state.verdict)},
            {"meaning", evlogVerdictText(state.verdict)},
            {"fatal", prediction.isFatal()},
            {"taken", prediction.taken},
            {"lost", prediction.lost},
            {"nextSequenceId", state.empSequenceId},
            {"bugcheck", bugcheck}};
}

void addFilePredictCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<PredictOptions>();
    CLI::App& command = addCommand(
        parent, "predict", "Say what the event manager's next start will do with a log file.",
        FILE_PREDICT_EXAMPLES);
    addFileArgument(command, options->path);
    addIdentityOfFile(command, options->identity);
    command.add_flag("--json", options->json, "As a JSON object");
    onChosen(command, chosen, options, runPredict);
}

} // namespace evctl
