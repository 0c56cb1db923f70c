#include "evctl/event_filter.h"

#include "common/names.h"
#include "evctl/options.h"

#include <algorithm>

namespace evctl {
namespace {

bool holds(const std::vector<U32_t>& wanted, U32_t value) {
    return wanted.empty() || std::ranges::find(wanted, value) != wanted.end();
}

const tools::NameTable noNames{std::span<const tools::EnumName>{}};

void addListOption(CLI::App& command, const std::string& flag, std::vector<U32_t>& values,
                   const tools::NameTable& names, U32_t max, const std::string& what) {
    command
        .add_option_function<std::vector<std::string>>(
            flag,
            [&values, &names, flag, max](const std::vector<std::string>& texts) {
                for (const std::string& text : texts) {
                    values.push_back(parseNamed(flag, text, names, max));
                }
            },
            "Only events of this " + what + "; several: comma-separated or repeated")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("LIST")
        ->group("Filters");
}

/** One bound of a range; an empty text is no bound. */
std::optional<U32_t> parseBound(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    return parseNamed("--seq", text, noNames, UINT32_MAX);
}

void parseRange(const std::string& text, EventFilter& filter) {
    size_t colon = text.find(':');
    filter.firstSequenceId = parseBound(text.substr(0, colon));
    filter.lastSequenceId =
        colon == std::string::npos ? filter.firstSequenceId : parseBound(text.substr(colon + 1));
    if (!filter.firstSequenceId && !filter.lastSequenceId) {
        throw CLI::ValidationError("--seq", "'" + text + "' names no sequence id");
    }
    if (filter.firstSequenceId.value_or(0) > filter.lastSequenceId.value_or(UINT32_MAX)) {
        throw CLI::ValidationError("--seq", "'" + text + "': the first id is above the last one");
    }
}

} // namespace

bool EventFilter::matches(const EmpEvLogHeader_t& header) const {
    U32_t sequenceId = header.evSequenceId;
    return holds(types, header.evType) && holds(sources, header.evSource) &&
           holds(categories, header.evCategory) && holds(ids, header.evId) &&
           sequenceId >= firstSequenceId.value_or(0) &&
           sequenceId <= lastSequenceId.value_or(UINT32_MAX);
}

void addFilterOptions(CLI::App& command, EventFilter& filter) {
    addListOption(command, "--type", filter.types, tools::eventTypeNames, UINT8_MAX, "type");
    addListOption(command, "--source", filter.sources, tools::endpointNames, UINT8_MAX, "source");
    addListOption(command, "--category", filter.categories, tools::categoryNames, UINT8_MAX,
                  "category");
    addListOption(command, "--id", filter.ids, noNames, UINT16_MAX, "event id");
    command
        .add_option_function<std::string>(
            "--seq", [&filter](const std::string& text) { parseRange(text, filter); },
            "Only sequence ids FIRST to LAST; one of them may be left out, \"7\" is \"7:7\"")
        ->type_name("FIRST:LAST")
        ->group("Filters");
}

} // namespace evctl
