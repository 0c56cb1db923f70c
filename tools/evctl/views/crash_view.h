/**
 * @file
 * A bug-check as a report: as an object, and for people.
 */
#ifndef EVCTL_CRASH_VIEW_H
#define EVCTL_CRASH_VIEW_H

#include "evctl/views/crash.h"
#include "evctl/views/event_view.h"

#include <string>

namespace evctl {

/**
 * The report as an object; what is missing, or has been redacted, is null.
 * @param entries with every valid entry of the index
 */
Json crashJson(const Crash& crash, bool entries);

/** The report of crashJson() for people. */
std::string crashLines(const Json& json);

/** The control block by the names of its fields. */
Json controlJson(const EmpInfo_t& info);

/** The header of the message in a message buffer; null when it holds no local message. */
Json bufferedHeaderJson(std::span<const U8_t> buffer);

} // namespace evctl

#endif
