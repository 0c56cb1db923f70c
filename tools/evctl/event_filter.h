/**
 * @file
 * Which events are shown.
 */
#ifndef EVCTL_EVENT_FILTER_H
#define EVCTL_EVENT_FILTER_H

#include "common/cli.h"
#include "emp_mesgs.h"
#include "fixed_width.h"

#include <optional>
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

    bool matches(const EmpEvLogHeader_t& header) const;
};

/** Adds --type, --source, --category, --id and --seq. */
void addFilterOptions(CLI::App& command, EventFilter& filter);

} // namespace evctl

#endif
