#include "evctl/time_text.h"

#include <charconv>
#include <chrono>

namespace evctl {
namespace {

constexpr U32_t DAY = 86'400;

std::optional<U32_t> inRange(S64_t seconds) {
    bool fits = seconds >= 0 && seconds <= UINT32_MAX;
    return fits ? std::optional(static_cast<U32_t>(seconds)) : std::nullopt;
}

std::optional<U32_t> wholeNumber(std::string_view text) {
    U32_t number = 0;
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    bool whole = error == std::errc() && stop == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

/** "-2h" */
std::optional<U32_t> timeBefore(std::string_view text, U32_t now) {
    if (text.size() < 3) {
        return std::nullopt;
    }
    std::optional<U32_t> count = wholeNumber(text.substr(1, text.size() - 2));
    size_t unit = std::string_view("smhdw").find(text.back());
    if (!count || unit == std::string_view::npos) {
        return std::nullopt;
    }
    constexpr S64_t seconds[] = {1, 60, 3600, DAY, 7 * DAY};
    return inRange(S64_t{now} - S64_t{*count} * seconds[unit]);
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

/** The time of the day behind a date; nothing at all is midnight. */
std::optional<U32_t> timeOfDay(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    std::optional<U32_t> hour = takeNumber(text, 2, "T ");
    std::optional<U32_t> minute = takeNumber(text, 2, ":");
    U32_t second = takeNumber(text, 2, ":").value_or(0);
    if (!hour || !minute || *hour > 23 || *minute > 59 || second > 59 ||
        !(text.empty() || text == "Z")) {
        return std::nullopt;
    }
    return *hour * 3600 + *minute * 60 + second;
}

std::optional<U32_t> isoSeconds(std::string_view text) {
    using namespace std::chrono;
    std::optional<U32_t> years = takeNumber(text, 4, "");
    std::optional<U32_t> months = takeNumber(text, 2, "-");
    std::optional<U32_t> daysOfMonth = takeNumber(text, 2, "-");
    if (!years || !months || !daysOfMonth) {
        return std::nullopt;
    }
    year_month_day date{year(static_cast<int>(*years)), month(*months), day(*daysOfMonth)};
    std::optional<U32_t> rest = timeOfDay(text);
    if (!date.ok() || !rest) {
        return std::nullopt;
    }
    return inRange(S64_t{sys_days(date).time_since_epoch().count()} * DAY + *rest);
}

} // namespace

std::optional<U32_t> parseTime(const std::string& text, U32_t now) {
    U32_t today = now - now % DAY;
    if (text == "now") {
        return now;
    }
    if (text == "today") {
        return today;
    }
    if (text == "yesterday") {
        return inRange(S64_t{today} - DAY);
    }
    if (text.starts_with("@")) {
        return wholeNumber(std::string_view(text).substr(1));
    }
    return text.starts_with("-") ? timeBefore(text, now) : isoSeconds(text);
}

} // namespace evctl
