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
    bool advice = false;
};

/** Adds --json, --data and -x. */
void addOutputOptions(CLI::App& command, OutputOptions& options);

/** The event as these options show it, line feeds included. @param json the event as JSON, with
 * what else is known of it */
std::string eventOutput(const EventView& event, const OutputOptions& options, Json json);

/** Prints an event, at once. */
void printEvent(const EventView& event, const OutputOptions& options);

} // namespace evctl

#endif
