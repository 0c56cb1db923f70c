/**
 * @file
 * JSON for people: one line a member.
 */
#ifndef EVCTL_LINES_H
#define EVCTL_LINES_H

#include "evctl/views/event_view.h"

#include <string>

namespace evctl {

/**
 * "name value" lines. An object is indented below its name, an array is "1 2 3", null is "-"; a
 * number with a name (members "x" and "xName") is "name(number)".
 * @param width column of the values; a longer name is followed by one blank
 */
std::string namedLines(const Json& json, size_t width, const std::string& indent = "");

} // namespace evctl

#endif
