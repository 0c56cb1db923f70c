/**
 * @file
 * How the subcommands print the events that they come by one at a time.
 */
#ifndef EVCTL_EVENT_OUTPUT_H
#define EVCTL_EVENT_OUTPUT_H

#include "common/cli.h"
#include "evctl/event_view.h"

namespace evctl {

struct OutputOptions {
    bool json = false;
    bool data = false;
};

/** Adds --json and --data. */
void addOutputOptions(CLI::App& command, OutputOptions& options);

/** Prints an event, at once. */
void printEvent(const EventView& event, const OutputOptions& options);

} // namespace evctl

#endif
