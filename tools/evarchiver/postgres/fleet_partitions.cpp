#include "fleet_partitions.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace evarchive {
namespace {

// Partitions that are live at a time, about; each one costs every look-up a little.
constexpr U32_t LIVE_PARTITIONS = 12;

// Clocks that are kept differ by far less.
constexpr S64_t MOST_DIFFERENCE = 600;

constexpr PgStatement RETENTION{"retention",
                                "SELECT value::bigint FROM meta WHERE name = 'retention_days'"};
constexpr PgStatement SERVER_CLOCK{"server_clock",
                                   "SELECT extract(epoch FROM clock_timestamp())::bigint"};
std::string dateOf(S64_t day) {
    const time_t time = static_cast<time_t>(day * DAY_SECONDS);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[16];
    return {text, strftime(text, sizeof(text), "%Y%m%d", &parts)};
}

} // namespace

S64_t widthOf(S64_t retention) {
    return (retention + LIVE_PARTITIONS - 1) / LIVE_PARTITIONS;
}

std::string nameOf(const Days& days) {
    return "events_" + dateOf(days.first) + "_" + std::to_string(days.end - days.first);
}

std::optional<Days> daysOf(const std::string& name) {
    tm parts{};
    unsigned count = 0;
    char rest = 0;
    if (sscanf(name.c_str(), "events_%4d%2d%2d_%u%c", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
               &count, &rest) != 4) {
        return std::nullopt;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    const S64_t first = S64_t{timegm(&parts)} / DAY_SECONDS;
    return Days{first, first + count};
}

std::string boundOf(S64_t day) {
    const std::string date = dateOf(day);
    return "'" + date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6) +
           " 00:00:00+00'";
}

S64_t retentionOf(FleetOwner& owner) {
    const PgRows rows = owner.connection().run(RETENTION);
    return rows.count() > 0 ? std::max<S64_t>(rows.integer(0, 0), 0) : 0;
}

std::string secondsText(S64_t seconds) {
    const S64_t size = std::abs(seconds);
    return size < 2 * DAY_SECONDS ? std::to_string(size) + " seconds"
                                  : std::to_string(size / DAY_SECONDS) + " days";
}

S64_t clockError(FleetOwner& owner, S64_t now) {
    const S64_t error = now - owner.connection().run(SERVER_CLOCK).integer(0, 0);
    return std::abs(error) > MOST_DIFFERENCE ? error : 0;
}

std::string clockText(S64_t error) {
    return "the clock of this host is " + secondsText(error) +
           (error > 0 ? " ahead of" : " behind") + " the server's";
}

} // namespace evarchive
