/**
 * @file
 * What an archive answered, as JSON. Numbers of logs are texts: scripts of a browser know no
 * integers of 64 bits.
 */
#ifndef EVWEB_ANSWERS_H
#define EVWEB_ANSWERS_H

#include "view.h"

#include <nlohmann/json.hpp>

namespace evweb {

using Json = nlohmann::ordered_json;

/** As "2006-11-21T14:00:00Z". */
Json timeOrNull(const std::optional<U32_t>& seconds);

/** Whether an event's bytes are whole, so that it can be shown. */
bool isWhole(const FoundEvent& event);

/** A name of an event's header, as shownName(). */
std::string shownField(std::span<const U8_t> field);

/** As all readers of logs show it, and where and when it was filed. */
Json eventJson(const FoundEvent& event);

/** The same with all that the catalogue knows: severity, advice, fields; and a dump of the data. */
Json wholeEventJson(const FoundEvent& event);

Json eventsJson(const std::vector<FoundEvent>& events);
Json pageJson(const Page& page);
Json tailJson(const Tail& tail);
Json timelineJson(const Timeline& timeline);
Json overviewJson(const Overview& overview);
Json logJson(const LogDetail& detail);
Json statusJson(const ViewStatus& status);

/** What events and their parts are called, and what the catalogue has. */
Json namesJson();

} // namespace evweb

#endif
