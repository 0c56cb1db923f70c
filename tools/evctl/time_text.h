/**
 * @file
 * Times as people write them.
 */
#ifndef EVCTL_TIME_TEXT_H
#define EVCTL_TIME_TEXT_H

#include "fixed_width.h"

#include <optional>
#include <string>

namespace evctl {

/**
 * A time of an event: "2006-11-21", "2006-11-21T14:00", "2006-11-21 14:00:05Z" (all UTC),
 * "@1164117600", "now", "today", "yesterday", or so long before now: "-90s", "-30m", "-2h", "-3d",
 * "-1w".
 * @param now seconds since 1970
 * @return seconds since 1970; nothing for any other text and for a time outside 1970 to 2106
 */
std::optional<U32_t> parseTime(const std::string& text, U32_t now);

} // namespace evctl

#endif
