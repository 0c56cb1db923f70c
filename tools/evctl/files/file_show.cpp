/** evctl file show: one record with all its fields and its data. */
#include "common/cli.h"
#include "common/text.h"
#include "evctl/files/file.h"
#include "evctl/paged_command.h"
#include "evctl/views/event_json.h"
#include "evctl/views/event_view.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char FILE_SHOW_EXAMPLES[] = "Examples:\n"
                                      "  evctl file show kelta_eventlog --seq 1017\n"
                                      "  evctl file show kelta_eventlog --offset 200 --json";

struct ShowOptions {
    std::string path;
    std::optional<U32_t> sequenceId;
    std::optional<U32_t> offset;
    bool json = false;
};

void printRecord(const EvlogRecord_t& record) {
    std::cout << "offset       " << record.offset << "\n"
              << "part         " << roleName(record.role) << "\n"
              << recordLines(*record.header, record.body);
}

bool isWanted(const EvlogRecord_t& record, const ShowOptions& options) {
    if (options.offset) {
        return record.offset == *options.offset;
    }
    return record.role != EVLOG_E_ROLE_DUMMY && record.header->evSequenceId == *options.sequenceId;
}

/** "; there are ids 7 to 203" */
std::string idsText(const LogContent& content) {
    U32_t first = UINT32_MAX;
    U32_t last = 0;
    for (const EvlogRecord_t& record : content.records) {
        if (record.role != EVLOG_E_ROLE_DUMMY) {
            first = std::min(first, U32_t{record.header->evSequenceId});
            last = std::max(last, U32_t{record.header->evSequenceId});
        }
    }
    return first > last
               ? ""
               : "; there are ids " + std::to_string(first) + " to " + std::to_string(last);
}

int runShow(const ShowOptions& options) {
    int status = tools::EXIT_DONE;
    EvlogImage_t image = loadLog(options.path, &status);
    LogContent content = readLog(image);
    bool found = false;
    for (const EvlogRecord_t& record : content.records) {
        if (!isWanted(record, options)) {
            continue;
        }
        found = true;
        if (options.json) {
            std::cout << jsonLine(recordJson(record));
        } else {
            printRecord(record);
        }
    }
    if (!found) {
        std::cerr << "evctl: " << tools::escapedText(options.path) << ": no record "
                  << (options.offset ? "at offset " + std::to_string(*options.offset)
                                     : "with sequence id " + std::to_string(*options.sequenceId))
                  << idsText(content) << "\n";
        return tools::EXIT_FINDING;
    }
    return std::max(status, statusOf(content));
}

} // namespace

void addFileShowCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<ShowOptions>();
    CLI::App& command = addCommand(parent, "show", "Show one record of a log file with its data.",
                                   FILE_SHOW_EXAMPLES);
    addFileArgument(command, options->path);
    CLI::Option_group* which = command.add_option_group("Record", "Which one");
    which->add_option("--seq", options->sequenceId, "Its sequence id")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(0, UINT32_MAX));
    which->add_option("--offset", options->offset, "Its offset in the file")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(0, UINT32_MAX));
    which->require_option(1);
    command.add_flag("--json", options->json, "As a JSON object");
    onChosenPaged(command, chosen, options, runShow);
}

} // namespace evctl
