#include "evctl/numbers/event_stats.h"

#include "common/names.h"
#include "common/text.h"
#include "evctl/views/svg.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr U32_t HOUR = 3600;
constexpr U32_t LINES_MAX = 48;  // of a chart of times
constexpr U32_t YEAR = 365 * 24; // in hours; no log is silent for as long
constexpr U32_t LONGEST = 100 * YEAR;
constexpr U32_t SHORT_SPAN = 60; // of so few seconds no rate is to be relied on
constexpr U32_t HOURS_OF_A_LINE[] = {1,      3, 6, 12, 24, 7 * 24, 28 * 24, 365 * 24, 10 * 365 * 24,
                                     LONGEST};
constexpr size_t TALKERS = 10;

std::string fixedText(double number, int digits) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%.*f", digits, number);
    return text.data();
}

bool takesMore(const Share& one, const Share& other) {
    return one.amount.bytes > other.amount.bytes;
}

std::string percentText(U64_t part, U64_t whole) {
    double percent =
        whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    return fixedText(percent, 1) + "%";
}

std::string timesTitle(U32_t seconds) {
    return seconds == HOUR ? "by hour" : "by " + std::to_string(seconds / HOUR) + " hours";
}

/** A list with its title; bars show @p measure. */
struct Chart {
    std::string title;
    std::vector<Share> shares;
    U64_t Amount::*measure;
};

std::vector<Chart> chartsOf(const EventStats& stats) {
    U32_t seconds = 0;
    std::vector<Share> times = stats.times(&seconds);
    return {{"by type", stats.types(), &Amount::events},
            {"by source", stats.sources(), &Amount::bytes},
            {"what fills the log", stats.talkers(TALKERS), &Amount::bytes},
            {timesTitle(seconds), times, &Amount::events}};
}

U64_t largestOf(const Chart& chart) {
    U64_t largest = 1;
    for (const Share& share : chart.shares) {
        largest = std::max(largest, share.amount.*chart.measure);
    }
    return largest;
}

/** Events, bytes, share. */
std::array<std::string, 3> amountTexts(const Amount& amount, U64_t allBytes) {
    return {std::to_string(amount.events), std::to_string(amount.bytes),
            percentText(amount.bytes, allBytes)};
}

constexpr std::array<const char*, 3> AMOUNT_TITLES = {"events", "bytes", "share"};
constexpr size_t NAME_COLUMNS = 32;
constexpr std::array<size_t, 3> AMOUNT_WIDTHS = {9, 10, 6};
constexpr size_t AMOUNT_COLUMNS = 27;

/** Three columns, each with its texts on the right. */
template <typename Texts>
std::string amountColumns(const Texts& texts) {
    std::string columns;
    for (size_t at = 0; at < AMOUNT_WIDTHS.size(); at++) {
        std::string text = texts[at];
        size_t blanks = AMOUNT_WIDTHS[at] - std::min(text.size(), AMOUNT_WIDTHS[at]);
        columns += (at > 0 ? " " : "") + std::string(blanks, ' ') + text;
    }
    return columns;
}

std::string chartLines(const Chart& chart, U64_t allBytes, size_t width) {
    size_t taken = NAME_COLUMNS + AMOUNT_COLUMNS + 2;
    size_t bars = std::max<size_t>(width > taken ? width - taken : 0, 10);
    U64_t largest = largestOf(chart);
    std::string title = chart.title;
    title.resize(NAME_COLUMNS, ' ');
    std::string lines = "\n" + title + " " + amountColumns(AMOUNT_TITLES) + "\n";
    for (const Share& share : chart.shares) {
        U64_t measure = share.amount.*chart.measure;
        size_t length =
            static_cast<size_t>(static_cast<double>(bars) * static_cast<double>(measure) /
                                static_cast<double>(largest));
        std::string name = tools::cutToColumns(share.name, NAME_COLUMNS);
        name.resize(name.size() + NAME_COLUMNS - tools::columnsOf(name), ' ');
        lines += name + " " + amountColumns(amountTexts(share.amount, allBytes)) + " " +
                 std::string(measure > 0 ? std::max<size_t>(length, 1) : 0, '#');
        lines.erase(lines.find_last_not_of(' ') + 1);
        lines += "\n";
    }
    return lines;
}

std::string shownTime(const EventStats& stats, U32_t seconds) {
    return zonedTime(seconds, stats.scope().zone);
}

/** The lines above the charts. */
std::vector<std::string> headLinesOf(const EventStats& stats) {
    const Amount& all = stats.all();
    std::vector<std::string> lines = {countText(all.events, "event") + ", " +
                                      std::to_string(all.bytes) + " bytes in a log"};
    if (stats.scope().wholeLog) {
        lines.front() += ", which is " + percentText(all.bytes, EMP_LOG_FILE_SIZE) + " full";
    }
    if (all.events > 0) {
        lines.push_back("from " + shownTime(stats, stats.firstTime()) + " to " +
                        shownTime(stats, stats.lastTime()));
    }
    if (stats.rate() > 0) {
        lines.push_back(fixedText(stats.rate(), 1) + " events an hour");
        if (const U32_t span = stats.lastTime() - stats.firstTime(); span < SHORT_SPAN) {
            lines.back() += ", by what came in " + std::to_string(span) + " s";
        }
    }
    if (stats.hoursHeld() > 0) {
        lines.back() += "; at this rate a log holds " + fixedText(stats.hoursHeld(), 1) + " hours";
    }
    if (stats.leftOut() + stats.jumps() > 0) {
        lines.push_back("clock jumps: " + countText(stats.leftOut(), "event") + " and " +
                        countText(stats.jumps(), "step") +
                        " of more than a year are left out of the rate");
    }
    return lines;
}

/** Of times in the order of a log, as many as never go back. */
std::vector<U32_t> longestRise(const std::vector<U32_t>& times) {
    std::vector<size_t> tails; // by length: the place where such a line ends with the least time
    std::vector<size_t> before(times.size());
    auto timeAt = [&times](size_t place) { return times[place]; };
    for (size_t at = 0; at < times.size(); at++) {
        auto tail = std::ranges::upper_bound(tails, times[at], {}, timeAt);
        before[at] = tail == tails.begin() ? at : *std::prev(tail);
        if (tail == tails.end()) {
            tails.push_back(at);
        } else {
            *tail = at;
        }
    }
    std::vector<U32_t> line(tails.size());
    size_t at = tails.empty() ? 0 : tails.back();
    for (size_t length = line.size(); length > 0; length--) {
        line[length - 1] = times[at];
        at = before[at];
    }
    return line;
}

Json sharesJson(const std::vector<Share>& shares) {
    Json json = Json::array();
    for (const Share& share : shares) {
        json.push_back(
            {{"name", share.name}, {"events", share.amount.events}, {"bytes", share.amount.bytes}});
    }
    return json;
}

template <typename NameOf>
std::vector<Share> sharesOf(const std::map<U32_t, Amount>& amounts, NameOf nameOf) {
    std::vector<Share> shares;
    for (const auto& [value, amount] : amounts) {
        shares.push_back({nameOf(value), amount});
    }
    return shares;
}

/** Source, id and id version as one number. */
U32_t talkerOf(const EmpEvLogHeader_t& header) {
    return U32_t{header.evSource} << 24 | U32_t{header.evId} << 8 | U32_t{header.evIdVersion};
}

std::string talkerName(U32_t talker) {
    const U32_t source = talker >> 24;
    return tools::endpointNames.brief(source) + " " +
           eventIdText(source, talker >> 8 & 0xFFFF, talker & 0xFF);
}

// --- The picture

constexpr U32_t CHART_WIDTH = 900;
constexpr double CHART_LINE = 16;
constexpr double CHART_BARS = 420;
constexpr double BARS_WIDTH = 440;

template <typename Texts>
void drawAmount(Svg& svg, double y, const Texts& texts) {
    constexpr std::array<double, 3> rightEnds = {250, 340, CHART_BARS - 10};
    for (size_t at = 0; at < rightEnds.size(); at++) {
        svg.text(rightEnds[at], y, texts[at], "end");
    }
}

double drawChart(Svg& svg, const Chart& chart, U64_t allBytes, double y) {
    svg.heading(10, y + 11, chart.title);
    drawAmount(svg, y + 11, AMOUNT_TITLES);
    svg.text(CHART_BARS, y + 11, chart.measure == &Amount::events ? "events" : "bytes");
    U64_t largest = largestOf(chart);
    for (const Share& share : chart.shares) {
        y += CHART_LINE;
        double length = BARS_WIDTH * static_cast<double>(share.amount.*chart.measure) /
                        static_cast<double>(largest);
        svg.text(20, y + 11, tools::cutToColumns(share.name, 26));
        drawAmount(svg, y + 11, amountTexts(share.amount, allBytes));
        if (length > 0) {
            svg.box(CHART_BARS, y + 2, length, CHART_LINE - 5, Filling::LIGHT,
                    share.name + ": " + std::to_string(share.amount.events) + " events");
        }
    }
    return y + 2 * CHART_LINE;
}

} // namespace

void EventStats::add(const EventView& event, size_t source) {
    const EmpEvLogHeader_t& header = *event.header;
    Amount amount = {.events = 1, .bytes = EMP_RECORD_SIZE + U64_t{event.data.size()}};
    U32_t time = header.evTime;
    types_[header.evType].add(amount);
    sources_[header.evSource].add(amount);
    talkers_[talkerOf(header)].add(amount);
    hours_[time / HOUR].add(amount);
    coming_[source].push_back(time);
    all_.add(amount);
    first_ = std::min(first_, time);
    last_ = std::max(last_, time);
}

std::vector<Share> EventStats::types() const {
    return sharesOf(types_, [](U32_t type) { return tools::eventTypeNames.brief(type); });
}

std::vector<Share> EventStats::sources() const {
    std::vector<Share> shares =
        sharesOf(sources_, [](U32_t source) { return tools::endpointNames.brief(source); });
    std::ranges::stable_sort(shares, takesMore);
    return shares;
}

std::vector<Share> EventStats::talkers(size_t most) const {
    std::map<std::string, U32_t> bearers;
    for (const auto& [talker, amount] : talkers_) {
        bearers[talkerName(talker)]++;
    }
    std::vector<Share> shares = sharesOf(talkers_, [&bearers](U32_t talker) {
        const std::string name = talkerName(talker);
        return bearers[name] > 1 ? name + " version " + std::to_string(talker & 0xFF) : name;
    });
    std::ranges::stable_sort(shares, takesMore);
    shares.resize(std::min(shares.size(), most));
    return shares;
}

/** No more than one line beyond those of a chart. */
std::vector<Share> EventStats::timesBy(U32_t hours) const {
    std::map<U32_t, Amount> amounts;
    for (const auto& [hour, amount] : hours_) {
        amounts[hour / hours].add(amount);
    }
    std::vector<Share> shares;
    for (auto next = amounts.begin(); next != amounts.end(); ++next) {
        U32_t empty = next == amounts.begin() ? 0 : next->first - std::prev(next)->first - 1;
        for (U32_t line = next->first - (empty > YEAR / hours ? 0 : empty);
             line < next->first && shares.size() <= LINES_MAX; line++) {
            shares.push_back({zonedTime(line * hours * HOUR, scope_.zone), {}});
        }
        if (shares.size() <= LINES_MAX) {
            shares.push_back({zonedTime(next->first * hours * HOUR, scope_.zone), next->second});
        }
    }
    return shares;
}

std::vector<Share> EventStats::times(U32_t* seconds) const {
    std::vector<Share> shares;
    for (U32_t hours : HOURS_OF_A_LINE) {
        *seconds = hours * HOUR;
        shares = timesBy(hours);
        if (shares.size() <= LINES_MAX) {
            break;
        }
    }
    return shares;
}

void EventStats::endSource(bool ordered, size_t source) {
    const std::vector<U32_t> coming = std::move(coming_[source]);
    coming_.erase(source);
    std::vector<U32_t> line = ordered ? longestRise(coming) : coming;
    std::ranges::sort(line);
    leftOut_ += coming.size() - line.size();
    auto middle = line_.insert(line_.end(), line.begin(), line.end());
    std::inplace_merge(line_.begin(), middle, line_.end());
}

U64_t EventStats::jumps() const {
    U64_t count = 0;
    for (size_t at = 1; at < line_.size(); at++) {
        count += line_[at] - line_[at - 1] > YEAR * HOUR ? 1 : 0;
    }
    return count;
}

double EventStats::rate() const {
    U64_t elapsed = 0;
    U64_t steps = 0; // of so many events, one less lies between them
    for (size_t at = 1; at < line_.size(); at++) {
        U32_t step = line_[at] - line_[at - 1];
        elapsed += step > YEAR * HOUR ? 0 : step;
        steps += step > YEAR * HOUR ? 0 : 1;
    }
    return elapsed == 0 ? 0 : static_cast<double>(steps * HOUR) / static_cast<double>(elapsed);
}

double EventStats::hoursHeld() const {
    double hourly = rate();
    if (!scope_.wholeLog || hourly == 0) {
        return 0;
    }
    double perEvent = static_cast<double>(all_.bytes) / static_cast<double>(all_.events);
    return EMP_LOG_FILE_SIZE / (perEvent * hourly);
}

Json statsJson(const EventStats& stats) {
    U32_t seconds = 0;
    std::vector<Share> times = stats.times(&seconds);
    bool any = stats.all().events > 0;
    return {{"events", stats.all().events},
            {"bytes", stats.all().bytes},
            {"firstTime", any ? Json(isoTime(stats.firstTime())) : Json(nullptr)},
            {"lastTime", any ? Json(isoTime(stats.lastTime())) : Json(nullptr)},
            {"eventsPerHour", stats.rate() > 0 ? Json(stats.rate()) : Json(nullptr)},
            {"hoursHeld", stats.hoursHeld() > 0 ? Json(stats.hoursHeld()) : Json(nullptr)},
            {"full", stats.scope().wholeLog
                         ? Json(static_cast<double>(stats.all().bytes) / EMP_LOG_FILE_SIZE)
                         : Json(nullptr)},
            {"leftOutOfRate", {{"events", stats.leftOut()}, {"steps", stats.jumps()}}},
            {"types", sharesJson(stats.types())},
            {"sources", sharesJson(stats.sources())},
            {"talkers", sharesJson(stats.talkers(TALKERS))},
            {"secondsPerTime", seconds},
            {"times", sharesJson(times)}};
}

std::string statsLines(const EventStats& stats, size_t width) {
    std::string lines;
    for (const std::string& line : headLinesOf(stats)) {
        lines += line + "\n";
    }
    if (stats.all().events > 0) {
        for (const Chart& chart : chartsOf(stats)) {
            lines += chartLines(chart, stats.all().bytes, width);
        }
    }
    return lines;
}

std::string statsPicture(const EventStats& stats, const std::string& title) {
    std::vector<Chart> charts = chartsOf(stats);
    std::vector<std::string> head = headLinesOf(stats);
    head.insert(head.begin(), title);
    double height = CHART_LINE * static_cast<double>(head.size() + 1);
    for (const Chart& chart : charts) {
        height += CHART_LINE * static_cast<double>(chart.shares.size() + 2);
    }
    Svg svg(CHART_WIDTH, static_cast<U32_t>(height), title);
    double y = 4;
    for (const std::string& line : head) {
        y == 4 ? svg.heading(10, y + 11, line) : svg.text(10, y + 11, line);
        y += CHART_LINE;
    }
    y += CHART_LINE / 2;
    for (const Chart& chart : charts) {
        y = drawChart(svg, chart, stats.all().bytes, y);
    }
    return svg.picture();
}

} // namespace evctl
