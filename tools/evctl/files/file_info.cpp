/** evctl file info: a log file at a glance, and what the event manager will make of it. */
#include "common/cli.h"
#include "common/text.h"
#include "evctl/files/file.h"
#include "evctl/files/file_identity.h"
#include "evctl/paged_command.h"
#include "evctl/views/event_view.h"
#include "evctl/views/lines.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_INFO_EXAMPLES[] =
    "Whether the log belongs to this blade is judged only with --enclosure and --slot,\n"
    "or by the key of its parameter block.";

struct InfoOptions {
    std::string path;
    BladeOfFile blade;
    bool json = false;
};

/** Count, ids and times of one part of the ring. */
Json partJson(const std::vector<EvlogRecord_t>& records, EVLOG_ROLE_e role) {
    const EmpEvRecord_t* first = nullptr;
    const EmpEvRecord_t* last = nullptr;
    U32_t count = 0;
    for (const EvlogRecord_t& record : records) {
        if (record.role == role) {
            first = first == nullptr ? record.header : first;
            last = record.header;
            count++;
        }
    }
    Json json = {{"records", count}};
    if (first != nullptr) {
        json.update({{"firstSequenceId", U32_t{first->evSequenceId}},
                     {"lastSequenceId", U32_t{last->evSequenceId}},
                     {"firstTime", isoTime(first->evTime)},
                     {"lastTime", isoTime(last->evTime)}});
    }
    return json;
}

/** Number of events by the name that @p nameOf gives them. */
template <typename NameOf>
Json countsJson(const std::vector<EvlogRecord_t>& records, NameOf nameOf) {
    std::map<std::string, U32_t> counts;
    for (const EvlogRecord_t& record : records) {
        if (record.role != EVLOG_E_ROLE_DUMMY) {
            counts[nameOf(*record.header)]++;
        }
    }
    return Json(counts);
}

Json positionsJson(const EvlogState_t& state) {
    return {{"empWrite", state.empWrite},
            {"empStart", state.empStart},
            {"empStartSequenceId", state.empStartSequenceId},
            {"empSequenceId", state.empSequenceId},
            {"empInstanceNumber", state.empInstanceNumber},
            {"empEventInLogFile", state.empEventInLogFile},
            {"empWrapOver", state.wrapOver},
            {"foundGap", state.foundGap}};
}

Json infoJson(const InfoOptions& options, const EvlogImage_t& image, const LogContent& content) {
    Json json = {{"file", tools::escapedText(options.path)},
                 {"bytes", image.fileSize},
                 {"verdict", evlogVerdictName(content.state.verdict)},
                 {"meaning", evlogVerdictText(content.state.verdict)},
                 {"findings", content.findings.size()},
                 {"oldest", partJson(content.records, EVLOG_E_ROLE_OLDEST)},
                 {"newest", partJson(content.records, EVLOG_E_ROLE_NEWEST)}};
    json["types"] = countsJson(content.records, [](const EmpEvRecord_t& header) {
        return tools::eventTypeNames.brief(header.evType);
    });
    json["sources"] = countsJson(content.records, [](const EmpEvRecord_t& header) {
        return tools::endpointNames.brief(header.evSource);
    });
    json["start"] = positionsJson(content.state);
    return json;
}

int runInfo(const InfoOptions& options) {
    int status = tools::EXIT_DONE;
    const sources::LogFile log = loadLogFile(options.path, &status);
    requireLog(options.path, log.image);
    std::optional<EvlogIdentity_t> identity =
        identityOf(options.blade, options.path, log.parameters);
    LogContent content = readLog(log.image, identity ? &*identity : nullptr);
    Json json = infoJson(options, log.image, content);
    std::cout << (options.json ? jsonLine(json) : namedLines(json, 22));
    return std::max(status, statusOf(content));
}

} // namespace

void addFileInfoCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App& command = addCommand(
        parent, "info", "Counts, ranges and what the event manager will make of a log file.",
        FILE_INFO_EXAMPLES);
    addFileArgument(command, options->path, &options->blade);
    addBladeOfFile(command, options->blade);
    command.add_flag("--json", options->json, "As a JSON object");
    onChosenPaged(command, chosen, options, runInfo);
}

} // namespace evctl
