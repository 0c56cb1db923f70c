/**
 * @file
 * Times as people write them.
 */
#ifndef COMMON_TIME_TEXT_H
#define COMMON_TIME_TEXT_H

#include "fixed_width.h"

#include <optional>
#include <string>

namespace tools {

/** Whose clock a time is of. */
enum class Zone {
    UTC,
    LOCAL, ///< that of the environment (TZ)
};

/**
 * A time of an event: "2006-11-21", "2006-11-21T14:00", "2006-11-21 14:00:05", "14:00" (of today),
 * "@1164117600", "now", "today", "yesterday", or so long before now: "-90s", "-30m", "-2h", "-3d",
 * "-1w". With "Z" or "+01:00" behind it a time of the day is of that zone.
 * @param now seconds since 1970
 * @param zone that dates and times of the day are of
 * @return seconds since 1970; nothing for any other text
 * @throw std::out_of_range for a time outside 1970 to 2106: "is outside ..."
 */
std::optional<U32_t> parseTime(const std::string& text, U32_t now, Zone zone = Zone::UTC);

/** Seconds since 1970 as "2006-11-21T14:00:00Z"; the whole range of 32 bits. */
std::string isoTime(U32_t seconds);

/** A time that no event need be able to have: as isoTime() in the years 0 to 9999, else "@SECONDS".
 */
std::string isoTimeOfFile(S64_t seconds);

/** isoTime(), or "2006-11-21T15:00:00+01:00". */
std::string zonedTime(U32_t seconds, Zone zone);

} // namespace tools

#endif
