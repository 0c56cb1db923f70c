/** evctl file predict: what the next start will do with a log file. */
#include "common/text.h"
#include "configuration.h"
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
    "The exit status is 0 when nothing readable is lost, 1 when events are, or a bug-check will\n"
    "come later, and 2 when the event manager cannot work with this file; or when it cannot be\n"
    "read, which standard error says. What is damaged is lost already: see 'file verify'. A\n"
    "kelta_eventlog that is not there yet, in a directory that is, is a new log.\n"
    "Whether the log belongs to the blade is judged only when that is named: with --enclosure\n"
    "and --slot, or by the key of its parameter block.\n"
    "Examples:\n"
    "  evctl file predict kelta_eventlog\n"
    "  evctl file predict --key 0x1234 /nvram/kelta_eventlog";

struct PredictOptions {
    std::string path;
    BladeOfFile blade;
    bool json = false;
};

/** No log, where the event manager makes one: any other name is a mistake. */
bool isMissing(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code error;
    // A directory stands for the log in it.
    const fs::path place =
        fs::is_directory(path, error) ? fs::path(path) / &EMP_LOG_FILE_NAME[1] : fs::path(path);
    const fs::path directory = place.has_parent_path() ? place.parent_path() : ".";
    return place.filename() == &EMP_LOG_FILE_NAME[1] &&
           fs::symlink_status(place, error).type() == fs::file_type::not_found &&
           fs::is_directory(directory, error);
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

void printRemedy(const EvlogPrediction_t& prediction) {
    if (prediction.isFatal()) {
        std::cout << "'evctl file guard' sets it aside, and puts what can be read into a new log\n";
    }
}

void printLines(const EvlogPrediction_t& prediction) {
    const EvlogState_t& state = prediction.state;
    std::cout << evlogVerdictName(state.verdict) << ": " << evlogVerdictText(state.verdict) << "\n";
    if (evlogIsFatal(state.verdict)) {
        std::cout << "bug-check \"" << evlogBugcheckText(state) << "\"\n"
                  << "it does not come up, at any start, until the file is replaced (offset "
                  << state.stopOffset << ")\n";
        return;
    }
    std::cout << eventsAre(prediction.taken, "") << "taken; the next one gets sequence id "
              << state.empSequenceId << " of instance " << state.empInstanceNumber << "\n";
    if (prediction.lost > 0) {
        std::cout << lossLine(prediction) << "\n";
    }
    if (prediction.damaged > 0) {
        std::cout << countText(prediction.damaged, "damaged place")
                  << ", of which nothing can be taken: 'evctl file verify' names what is wrong\n";
    }
    if (prediction.inquiryBugcheck != nullptr) {
        std::cout << "bug-check \"" << prediction.inquiryBugcheck
                  << "\" at an inquiry for the first or the last event, before one is logged\n";
    }
    if (prediction.bugcheck) {
        std::cout << bugcheckLine(*prediction.bugcheck) << "\n";
    }
}

/** The next bug-check to come; null when none is known of. */
Json bugcheckJson(const EvlogPrediction_t& prediction) {
    if (evlogIsFatal(prediction.state.verdict)) {
        return {{"message", evlogBugcheckText(prediction.state)},
                {"at", "start"},
                {"eventsBefore", nullptr},
                {"dataLength", nullptr},
                {"forGood", true}};
    }
    if (prediction.inquiryBugcheck != nullptr && !prediction.isFatal()) {
        return {{"message", prediction.inquiryBugcheck},
                {"at", "inquiry"},
                {"eventsBefore", 0},
                {"dataLength", nullptr},
                {"forGood", false}};
    }
    if (!prediction.bugcheck) {
        return nullptr;
    }
    return {{"message", prediction.bugcheck->message},
            {"at", "event"},
            {"eventsBefore", prediction.bugcheck->events},
            {"dataLength", prediction.bugcheck->dataLength},
            {"forGood", prediction.isFatal()}};
}

int runPredict(const PredictOptions& options) {
    // Also of a file that is no log: the event manager takes any, and makes one that is not there.
    bool isThere = !isMissing(options.path);
    int status = tools::EXIT_DONE;
    const sources::LogFile log = isThere ? loadLogFile(options.path, &status) : sources::LogFile{};
    std::optional<EvlogIdentity_t> identity =
        identityOf(options.blade, options.path, log.parameters);
    EvlogPrediction_t prediction = evlogPredict(log.image, identity ? &*identity : nullptr);
    if (options.json) {
        std::cout << jsonLine(predictionJson(tools::escapedText(options.path), prediction,
                                             identity ? &*identity : nullptr));
    } else {
        std::cout << (isThere ? "" : "there is no such file yet\n");
        printLines(prediction);
        printRemedy(prediction);
    }
    if (prediction.isFatal()) {
        return tools::EXIT_COULD_NOT;
    }
    const bool isBad =
        prediction.lost > 0 || prediction.bugcheck || prediction.inquiryBugcheck != nullptr;
    return isBad ? int{tools::EXIT_FINDING} : status;
}

} // namespace

std::string bugcheckLine(const EvlogBugcheck_t& bugcheck) {
    std::string text = "bug-check \"" + std::string(bugcheck.message) + "\" at ";
    const std::string size = std::to_string(bugcheck.dataLength) + " bytes of data";
    if (bugcheck.events == 0) {
        return text + "the first event that is logged, if it has " + size + ", after every start";
    }
    return text + "event " + std::to_string(bugcheck.events + 1) +
           " after the start, if each has " + size;
}

Json predictionJson(const std::string& name, const EvlogPrediction_t& prediction,
                    const EvlogIdentity_t* identity) {
    const EvlogState_t& state = prediction.state;
    bool comesUp = !evlogIsFatal(state.verdict);
    auto ifItComesUp = [comesUp](U32_t number) { return comesUp ? Json(number) : Json(nullptr); };
    Json judgedFor = nullptr;
    if (identity != nullptr) {
        judgedFor = {{"enclosureId", escapedText(identity->enclosureId)},
                     {"slotId", identity->slotId}};
    }
    return {{"file", name},
            {"judgedFor", judgedFor},
            {"verdict", evlogVerdictName(state.verdict)},
            {"meaning", evlogVerdictText(state.verdict)},
            {"fatal", prediction.isFatal()},
            {"taken", ifItComesUp(prediction.taken)},
            {"lost", ifItComesUp(prediction.lost)},
            {"damaged", prediction.damaged},
            {"nextSequenceId", ifItComesUp(state.empSequenceId)},
            {"bugcheck", bugcheckJson(prediction)}};
}

void addFilePredictCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<PredictOptions>();
    CLI::App& command = addCommand(
        parent, "predict", "Say what the event manager's next start will do with a log file.",
        FILE_PREDICT_EXAMPLES);
    addFileArgument(command, options->path, &options->blade);
    addBladeOfFile(command, options->blade);
    command.add_flag("--json", options->json, "As a JSON object");
    onChosen(command, chosen, options, runPredict);
}

} // namespace evctl
