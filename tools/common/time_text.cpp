#include "common/time_text.h"

#include <array>
#include <charconv>
#include <chrono>
#include <ctime>
#include <stdexcept>

namespace tools {
namespace {

constexpr U32_t DAY = 86'400;

[[noreturn]] void failRange() {
    throw std::out_of_range("is outside 1970-01-01T00:00:00Z to 2106-02-07T06:28:15Z");
}

U32_t inRange(S64_t seconds) {
    if (seconds < 0 || seconds > UINT32_MAX) {
        failRange();
    }
    return static_cast<U32_t>(seconds);
}

std::optional<U32_t> wholeNumber(std::string_view text) {
    U32_t number = 0;
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::result_out_of_range) {
        failRange();
    }
    bool whole = error == std::errc() && stop == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

/** "-2h", "-1d12h", "+30m" */
std::optional<U32_t> timeFromNow(std::string_view text, U32_t now) {
    const S64_t sign = text.front() == '-' ? -1 : 1;
    S64_t distance = 0;
    text.remove_prefix(1);
    do {
        size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
        std::optional<U32_t> count = wholeNumber(text.substr(0, digits));
        size_t unit = digits < text.size() ? std::string_view("smhdw").find(text[digits])
                                           : std::string_view::npos;
        if (!count || unit == std::string_view::npos) {
            return std::nullopt;
        }
        constexpr S64_t seconds[] = {1, 60, 3600, DAY, 7 * DAY};
        distance += S64_t{*count} * seconds[unit];
        text.remove_prefix(digits + 1);
    } while (!text.empty() && distance <= UINT32_MAX);
    return inRange(S64_t{now} + sign * distance);
}

/** Takes a number of so many digits off the front of @p text, and the @p mark before it, if any. */
std::optional<U32_t> takeNumber(std::string_view& text, size_t digits, std::string_view marks) {
    size_t skip = marks.empty() ? 0 : 1;
    if (text.size() < skip + digits ||
        (skip != 0 && marks.find(text[0]) == std::string_view::npos)) {
        return std::nullopt;
    }
    std::optional<U32_t> number = wholeNumber(text.substr(skip, digits));
    text.remove_prefix(number ? skip + digits : 0);
    return number;
}

/** A day, midnight to midnight, and how much of it has passed. */
struct CivilTime {
    std::chrono::year_month_day date;
    U32_t second = 0;       ///< of the day
    bool hasOffset = false; ///< else of whatever zone is meant
    S64_t offset = 0;       ///< seconds before UTC
};

/** "Z", "+01:00", "-05:30" */
bool takeOffset(std::string_view text, CivilTime& time) {
    if (text == "Z") {
        time.hasOffset = true;
        return true;
    }
    bool isWest = text.starts_with('-');
    std::optional<U32_t> hours = takeNumber(text, 2, "+-");
    std::optional<U32_t> minutes = takeNumber(text, 2, ":");
    if (!hours || !minutes || *hours > 23 || *minutes > 59 || !text.empty()) {
        return false;
    }
    S64_t seconds = S64_t{*hours} * 3600 + *minutes * 60;
    time.hasOffset = true;
    time.offset = isWest ? -seconds : seconds;
    return true;
}

/** The time of the day behind a date; nothing at all is midnight. */
bool takeTimeOfDay(std::string_view text, CivilTime& time) {
    if (text.empty()) {
        return true;
    }
    std::optional<U32_t> hour = takeNumber(text, 2, "T ");
    std::optional<U32_t> minute = takeNumber(text, 2, ":");
    std::optional<U32_t> seconds = takeNumber(text, 2, ":");
    U32_t second = seconds.value_or(0);
    if (seconds && text.starts_with('.')) { // events have whole seconds
        size_t end = std::min(text.find_first_not_of("0123456789", 1), text.size());
        text.remove_prefix(end > 1 ? end : 0);
    }
    if (!hour || !minute || *hour > 23 || *minute > 59 || second > 59) {
        return false;
    }
    time.second = *hour * 3600 + *minute * 60 + second;
    return text.empty() || takeOffset(text, time);
}

std::optional<U32_t> secondsOf(const CivilTime& time, Zone zone) {
    if (zone == Zone::UTC || time.hasOffset) {
        S64_t day = std::chrono::sys_days(time.date).time_since_epoch().count();
        return inRange(day * DAY + time.second - time.offset);
    }
    struct tm local {};
    local.tm_year = static_cast<int>(time.date.year()) - 1900;
    local.tm_mon = static_cast<int>(static_cast<unsigned>(time.date.month())) - 1;
    local.tm_mday = static_cast<int>(static_cast<unsigned>(time.date.day()));
    local.tm_sec = static_cast<int>(time.second); // normalised by the call
    local.tm_isdst = -1;
    return inRange(mktime(&local));
}

std::optional<U32_t> isoSeconds(std::string_view text, Zone zone) {
    using namespace std::chrono;
    std::optional<U32_t> years = takeNumber(text, 4, "");
    std::optional<U32_t> months = takeNumber(text, 2, "-");
    std::optional<U32_t> daysOfMonth = takeNumber(text, 2, "-");
    if (!years || !months || !daysOfMonth) {
        return std::nullopt;
    }
    CivilTime time;
    time.date = {year(static_cast<int>(*years)), month(*months), day(*daysOfMonth)};
    if (!time.date.ok() || !takeTimeOfDay(text, time)) {
        return std::nullopt;
    }
    return secondsOf(time, zone);
}

struct tm localTime(U32_t seconds) {
    time_t time = seconds;
    struct tm local {};
    localtime_r(&time, &local);
    return local;
}

/** Midnight of the day that @p now is in, or of one before it. */
std::optional<U32_t> midnight(U32_t now, int daysBefore, Zone zone) {
    if (zone == Zone::UTC) {
        return inRange(S64_t{now - now % DAY} - S64_t{daysBefore} * DAY);
    }
    struct tm local = localTime(now);
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_mday -= daysBefore;
    local.tm_isdst = -1;
    return inRange(mktime(&local));
}

/** Of the years 0 to 9999. */
std::string isoText(S64_t seconds) {
    // Not gmtime: without its locks and tables, for listings of many events.
    using namespace std::chrono;
    const sys_days day = floor<days>(sys_seconds{std::chrono::seconds{seconds}});
    const year_month_day date{day};
    const auto rest = static_cast<unsigned>(seconds - day.time_since_epoch().count() * S64_t{DAY});
    std::string text = "0000-00-00T00:00:00Z";
    auto put = [&text](size_t at, size_t digits, unsigned value) {
        for (size_t digit = digits; digit > 0; digit--, value /= 10) {
            text[at + digit - 1] = static_cast<char>('0' + value % 10);
        }
    };
    put(0, 4, static_cast<unsigned>(static_cast<int>(date.year())));
    put(5, 2, static_cast<unsigned>(date.month()));
    put(8, 2, static_cast<unsigned>(date.day()));
    put(11, 2, rest / 3600);
    put(14, 2, rest / 60 % 60);
    put(17, 2, rest % 60);
    return text;
}

} // namespace

std::optional<U32_t> parseTime(const std::string& text, U32_t now, Zone zone) {
    if (text == "now") {
        return now;
    }
    if (text == "today" || text == "yesterday" || text == "tomorrow") {
        return midnight(now, text == "today" ? 0 : text == "yesterday" ? 1 : -1, zone);
    }
    if (text.starts_with("@")) {
        return wholeNumber(std::string_view(text).substr(1));
    }
    if (text.starts_with("-") || text.starts_with("+")) {
        return timeFromNow(text, now);
    }
    bool isTimeOfDay = text.size() > 2 && text[2] == ':';
    return isoSeconds(isTimeOfDay ? zonedTime(now, zone).substr(0, 11) + text : text, zone);
}

std::string isoTime(U32_t seconds) {
    return isoText(seconds);
}

std::string isoTimeOfFile(S64_t seconds) {
    constexpr S64_t firstYear = -62'167'219'200;
    constexpr S64_t behindLastYear = 253'402'300'800;
    bool hasFourDigits = seconds >= firstYear && seconds < behindLastYear;
    return hasFourDigits ? isoText(seconds) : "@" + std::to_string(seconds);
}

std::string zonedTime(U32_t seconds, Zone zone) {
    if (zone == Zone::UTC) {
        return isoTime(seconds);
    }
    struct tm local = localTime(seconds);
    std::array<char, 64> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &local);
    std::string zoned = text.data();
    zoned.insert(zoned.size() - 2, ":"); // "+0100" is no extended form
    return zoned;
}

} // namespace tools
