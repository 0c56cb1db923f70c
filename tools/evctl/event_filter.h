/**
 * @file
 * Which events are shown.
 */
#ifndef EVCTL_EVENT_FILTER_H
#define EVCTL_EVENT_FILTER_H

#include "common/cli.h"
#include "evctl/event_view.h"
#include "fixed_width.h"

#include <memory>
#include <optional>
#include <regex.h>
#include <vector>

namespace evctl {

/** Which events are shown: every list that is not empty must hold the event's value. */
struct EventFilter {
    std::vector<U32_t> types;
    std::vector<U32_t> sources;
    std::vector<U32_t> categories;
    std::vector<U32_t> ids;
    std::optional<U32_t> firstSequenceId;
    std::optional<U32_t> lastSequenceId;
    std::optional<U32_t> since;             ///< seconds since 1970
    std::optional<U32_t> until;             ///< that second included
    std::shared_ptr<const regex_t> pattern; ///< what the text column must hold

    /** All but the pattern. */
    bool matches(const EmpEvLogHeader_t& header) const;

    bool matches(const EventView& event) const;
};

/** Adds --type, --source, --category, --id, --seq, --since, --until and --grep. */
void addFilterOptions(CLI::App& command, EventFilter& filter);

} // namespace evctl

#endif
