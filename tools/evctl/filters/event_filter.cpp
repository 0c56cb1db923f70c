#include "evctl/filters/event_filter.h"

#include "catalog/event_names.h"
#include "catalog/event_text.h"
#include "common/cli.h"
#include "common/named_option.h"
#include "common/names.h"
#include "common/time_text.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <stdexcept>

namespace evctl {
namespace {

bool holds(const std::vector<U32_t>& wanted, U32_t value) {
    return wanted.empty() || std::ranges::find(wanted, value) != wanted.end();
}

bool holdsId(const EventFilter& filter, const EmpEvLogHeader_t& header) {
    auto isNamed = [&header](const std::string& name) { return catalog::hasName(header, name); };
    return (filter.ids.empty() && filter.idNames.empty()) ||
           (!filter.ids.empty() && holds(filter.ids, header.evId)) ||
           std::ranges::any_of(filter.idNames, isNamed);
}

const tools::NameTable noNames{std::span<const tools::EnumName>{}};

/** @param take one text of the list */
template <typename Take>
void addListOption(CLI::App& command, const std::string& flag, Take take, const std::string& what) {
    command
        .add_option_function<std::vector<std::string>>(
            flag,
            [take](const std::vector<std::string>& texts) { std::ranges::for_each(texts, take); },
            "Only events of this " + what + "; several: comma-separated or repeated")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("LIST")
        ->group("Filters");
}

void addNamedListOption(CLI::App& command, const std::string& flag, std::vector<U32_t>& values,
                        const tools::NameTable& names, const std::string& what) {
    addListOption(
        command, flag,
        [&values, &names, flag](const std::string& text) {
            values.push_back(parseNamed(flag, text, names, UINT8_MAX));
        },
        what);
}

std::vector<std::string> namesOfAllSources() {
    std::vector<std::string> all;
    for (U32_t source = 0; source <= UINT8_MAX; source++) {
        std::ranges::copy(catalog::eventNames(source), std::back_inserter(all));
    }
    return all;
}

/** A number, or a name that ids of some source have. */
void parseId(const std::string& text, EventFilter& filter) {
    if (const std::optional<U32_t> number = tools::parseNumber(text, UINT16_MAX)) {
        filter.ids.push_back(*number);
        return;
    }
    const std::optional<std::string> name = catalog::knownName(text);
    if (!name) {
        tools::refuseName("--id", text, namesOfAllSources(), UINT16_MAX);
    }
    filter.idNames.push_back(*name);
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

std::optional<U32_t> parseTimeOption(const std::string& flag, const std::string& text,
                                     const Zone* zone) {
    std::optional<U32_t> time;
    try {
        time = parseTime(text, static_cast<U32_t>(::time(nullptr)),
                         zone != nullptr ? *zone : Zone::UTC);
    } catch (const std::out_of_range& problem) {
        throw CLI::ValidationError(flag, "'" + text + "' " + problem.what());
    }
    if (!time) {
        throw CLI::ValidationError(flag, "'" + text +
                                             "' is no time: 2006-11-21, 2006-11-21T14:00:00, "
                                             "14:00, @SECONDS, -2h, today, yesterday");
    }
    return time;
}

TextPattern parsePattern(const std::string& text) {
    try {
        return TextPattern(text);
    } catch (const std::invalid_argument& problem) {
        throw CLI::ValidationError("--grep", "'" + text + "': " + problem.what());
    }
}

void addTimeOption(CLI::App& command, const std::string& flags, const std::string& what,
                   std::optional<U32_t>& time, const Zone* zone) {
    command
        .add_option_function<std::string>(
            flags,
            [&time, flags, zone](const std::string& text) {
                time = parseTimeOption(flags, text, zone);
            },
            what)
        ->type_name("TIME")
        ->group("Filters");
}

} // namespace

bool EventFilter::matches(const EmpEvLogHeader_t& header) const {
    U32_t sequenceId = header.evSequenceId;
    return holds(types, header.evType) && holds(sources, header.evSource) &&
           holds(categories, header.evCategory) && holdsId(*this, header) &&
           sequenceId >= firstSequenceId.value_or(0) &&
           sequenceId <= lastSequenceId.value_or(UINT32_MAX) &&
           sequenceId == onlySequenceId.value_or(sequenceId) &&
           header.evTime >= since.value_or(0) && header.evTime <= until.value_or(UINT32_MAX) &&
           logs.matches(header);
}

bool EventFilter::matches(const EventView& event) const {
    return matches(*event.header) &&
           (!pattern || pattern->isIn(catalog::textColumn(event), inAnyCase));
}

bool EventFilter::isEmpty() const {
    return types.empty() && sources.empty() && categories.empty() && ids.empty() &&
           idNames.empty() && !firstSequenceId && !lastSequenceId && !onlySequenceId && !since &&
           !until && !pattern && logs == sources::LogChoice{};
}

U32_t parseEventId(const std::string& option, U32_t source, const std::string& text) {
    if (const std::optional<U32_t> number = tools::parseNumber(text, UINT16_MAX)) {
        return *number;
    }
    const std::optional<U32_t> id = catalog::eventIdOf(source, text);
    if (!id) {
        tools::refuseName(option, text, catalog::eventNames(source), UINT16_MAX);
    }
    return *id;
}

void addZoneOption(CLI::App& command, Zone& zone) {
    command.add_flag_callback(
        "--local",
        [&zone] {
            tzset(); // conversions need not look at the environment by themselves
            zone = Zone::LOCAL;
        },
        "Times of the local zone (TZ) instead of UTC, where they are not JSON, CSV or syslog");
}

void addLogChoice(CLI::App& command, sources::LogChoice& logs) {
    auto add = [&command](const char* flag, auto& value, const char* type, const char* what) {
        return command.add_option(flag, value, std::string("Only of this ") + what)
            ->type_name(type)
            ->group("Filters");
    };
    add("--enclosure", logs.enclosure, "TEXT", "enclosure");
    add("--blade", logs.blade, "TEXT", "blade");
    for (CLI::Option* number : {add("--slot", logs.slot, "NUMBER", "slot"),
                                add("--instance", logs.instance, "NUMBER", "instance of a log")}) {
        number->check(tools::wholeNumber(0, UINT32_MAX));
    }
}

void addFilterOptions(CLI::App& command, EventFilter& filter, const Zone* zone) {
    addNamedListOption(command, "--type", filter.types, tools::eventTypeNames, "type");
    addNamedListOption(command, "--source", filter.sources, tools::endpointNames, "source");
    addNamedListOption(command, "--category", filter.categories, tools::categoryNames, "category");
    addListOption(
        command, "--id", [&filter](const std::string& text) { parseId(text, filter); }, "event id");
    command
        .add_option_function<std::string>(
            "--seq", [&filter](const std::string& text) { parseRange(text, filter); },
            "Only sequence ids FIRST to LAST; one of them may be left out, \"7\" is \"7:7\"")
        ->type_name("FIRST:LAST")
        ->group("Filters");
    addTimeOption(command, "-S,--since",
                  "Only events of this time or later: 2006-11-21, 2006-11-21T14:00:00 (UTC, unless "
                  "--local is given), 14:00, @SECONDS, -2h (also s, m, d, w), today, yesterday",
                  filter.since, zone);
    addTimeOption(command, "-U,--until", "Only events of this time or earlier", filter.until, zone);
    command
        .add_option_function<std::string>(
            "-g,--grep",
            [&filter](const std::string& text) { filter.pattern = parsePattern(text); },
            "Only events whose text this extended regular expression matches")
        ->type_name("PATTERN")
        ->group("Filters");
    command
        .add_flag("-i,--ignore-case", filter.inAnyCase, "Whatever the case of letters in PATTERN")
        ->group("Filters");
}

} // namespace evctl
