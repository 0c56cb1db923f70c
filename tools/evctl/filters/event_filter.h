/**
 * @file
 * Which events are shown.
 */
#ifndef EVCTL_EVENT_FILTER_H
#define EVCTL_EVENT_FILTER_H

#include "common/cli_fwd.h"
#include "common/names.h"
#include "common/time_text.h"
#include "evctl/filters/text_pattern.h"
#include "fixed_width.h"
#include "sources/source.h"

#include <optional>
#include <string>
#include <vector>

namespace evctl {

using sources::EventView;
using tools::Zone;

/** Which events are shown: every list that is not empty must hold the event's value. */
struct EventFilter {
    std::vector<U32_t> types;
    std::vector<U32_t> sources;
    std::vector<U32_t> categories;
    std::vector<U32_t> ids;
    std::vector<std::string> idNames; ///< an event of ids or of these
    std::optional<U32_t> firstSequenceId;
    std::optional<U32_t> lastSequenceId;
    std::optional<U32_t> onlySequenceId; ///< within these
    std::optional<U32_t> since;          ///< seconds since 1970
    std::optional<U32_t> until;          ///< that second included
    std::optional<TextPattern> pattern;  ///< what the text column must hold
    bool inAnyCase = false;              ///< whatever the case of its letters
    sources::LogChoice logs;             ///< of which blades

    /** All but the pattern. */
    bool matches(const EmpEvLogHeader_t& header) const;

    bool matches(const EventView& event) const;

    /** Whether any event would do. */
    bool isEmpty() const;
};

/** Adds --local: whose time is printed, and meant by --since and --until. To be called first. */
void addZoneOption(CLI::App& command, Zone& zone);

/** Adds --type, --source, --category, --id, --seq, --since, --until, --grep and
 * --ignore-case.
 * @param zone whose times are meant, once the command line is parsed; outlives that. Or nullptr:
 * UTC */
void addFilterOptions(CLI::App& command, EventFilter& filter, const Zone* zone = nullptr);

/** An event id of a source: a number, or a name, also the catalogue's. Throws CLI::ValidationError
 * for anything else. */
U32_t parseEventId(const std::string& option, U32_t source, const std::string& text);

/** Adds --enclosure, --blade, --slot and --instance: events, or logs, of these only. */
void addLogChoice(CLI::App& command, sources::LogChoice& logs);

} // namespace evctl

#endif
