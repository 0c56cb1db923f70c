/**
 * @file
 * The options that describe an event to be written, whichever way it goes.
 */
#ifndef EVCTL_EVENT_OPTIONS_H
#define EVCTL_EVENT_OPTIONS_H

#include "common/cli_fwd.h"
#include "evctl/wire/event_message.h"
#include "mmsg.h"

#include <string>

namespace evctl {

/** An event as the command line describes it. */
struct EventOptions {
    U32_t source = MMSG_E_EPID_SNMPMP;
    U32_t type = EMP_E_TYPE_INFORMATION;
    U32_t category = EMP_E_CATEGORY_SYSTEM;
    std::string id;
    U32_t idVersion = 1;
    std::string text;
    std::string hex;
    std::string file;
};

/**
 * Adds the options of an event.
 * @param maxSource the largest endpoint number that may be the source
 */
void addEventOptions(CLI::App& command, EventOptions& options, U32_t maxSource);

/** The fields; throws when the id is neither a name nor a number. */
EventFields fieldsOf(const EventOptions& options);

/** The data; throws when they cannot be had or are too long. */
Bytes dataOf(const EventOptions& options);

} // namespace evctl

#endif
