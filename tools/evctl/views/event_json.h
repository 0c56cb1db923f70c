/**
 * @file
 * An event as a JSON object: as text, which a listing has thousands of, and taken apart.
 */
#ifndef EVCTL_EVENT_JSON_H
#define EVCTL_EVENT_JSON_H

#include "evctl/views/event_view.h"

namespace evctl {

/** The members of an event, with commas between and no braces: numbers, names, and the data as
 * hexadecimal digits. */
std::string eventMembers(const EventView& event);

/** What only a record in a file has: offset, part of the ring, whether it is taken. */
std::string placeMembers(const EvlogRecord_t& record);

/** A line with the object of all members of @p before, @p members and @p behind. */
std::string jsonLineOf(const Json& before, const std::string& members, const Json& behind);

/** eventMembers() as an object. */
Json eventJson(const EventView& event);

/** placeMembers() and eventMembers() as an object. */
Json recordJson(const EvlogRecord_t& record);

} // namespace evctl

#endif
