/**
 * @file
 * Events in the forms that other programs take: comma-separated values and syslog.
 */
#ifndef EVCTL_EVENT_FORMS_H
#define EVCTL_EVENT_FORMS_H

#include "evctl/views/event_view.h"

#include <string>

namespace evctl {

/** The line of names above events as comma-separated values (RFC 4180, but lines end in LF). */
std::string csvHeader();

/** What becomes of a name of the header. */
using NameText = std::string (*)(std::span<const U8_t> field);

/** The event as such a line. @param from the name of its source */
std::string csvLine(const EventView& event, const std::string& from,
                    NameText nameText = escapedText);

/** The event as a syslog message (RFC 5424) of facility local0, one line: the time is the event's,
 * the host is its blade, the application its source. */
std::string syslogLine(const EventView& event);

/** How severe RFC 5424 calls an event of that type: 3 (error) to 6 (information); 5 (notice) if
 * the type is not known. */
U32_t syslogSeverity(U32_t type);

} // namespace evctl

#endif
