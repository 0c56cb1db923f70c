/**
 * @file
 * An event as a JSON object: as text, which a listing has thousands of, and taken apart.
 */
#ifndef EVCTL_EVENT_JSON_H
#define EVCTL_EVENT_JSON_H

#include "evctl/views/event_view.h"

#include <initializer_list>
#include <string_view>

namespace evctl {

/** The members of an event, with commas between and no braces: numbers, names, the data as
 * hexadecimal digits, and what the catalogue makes of them. */
std::string eventMembers(const EventView& event);

/** What only a record in a file has: offset, part of the ring, whether it is taken. */
std::string placeMembers(const EvlogRecord_t& record);

/** One member more, likewise. */
std::string textMember(std::string_view name, std::string_view value);
std::string numberMember(std::string_view name, S64_t value);

/** A line with the object of members as these functions give them; what is empty is left out. */
std::string jsonLineOf(std::initializer_list<std::string_view> members);

/** eventMembers() as an object. */
Json eventJson(const EventView& event);

/** placeMembers() and eventMembers() as an object. */
Json recordJson(const EvlogRecord_t& record);

} // namespace evctl

#endif
