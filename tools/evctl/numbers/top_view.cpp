#include "evctl/numbers/top_view.h"

#include "common/names.h"
#include "evctl/views/status_view.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <tuple>

namespace evctl {
namespace {

constexpr std::array<U32_t, 3> WINDOWS = {10, 60, 3600}; // seconds
constexpr size_t RING_BAR = 40;
constexpr size_t SOURCE_BAR = 20;

/** Events of one source, or of all. */
struct Pace {
    std::array<U64_t, WINDOWS.size()> recent{}; ///< in each window
    U64_t recentBytes = 0;                      ///< in the longest one
    U64_t events = 0;
    U64_t bytes = 0;
    U32_t newest = 0;
    U32_t oldest = UINT32_MAX;

    void add(const EvlogRecord_t& record, U32_t now);
};

void Pace::add(const EvlogRecord_t& record, U32_t now) {
    U32_t time = record.header->evTime;
    U64_t length = EMP_RECORD_SIZE + record.body.size();
    for (size_t at = 0; at < WINDOWS.size(); at++) {
        recent[at] += time <= now && now - time < WINDOWS[at] ? 1 : 0;
    }
    recentBytes += time <= now && now - time < WINDOWS.back() ? length : 0;
    events++;
    bytes += length;
    newest = std::max(newest, time);
    oldest = std::min(oldest, time);
}

using PaceOfSource = std::pair<U32_t, Pace>;

struct Paces {
    Pace all;
    std::vector<PaceOfSource> sources; ///< the busiest first
};

Paces pacesOf(const LogContent& content, U32_t now) {
    Paces paces;
    std::map<U32_t, Pace> sources;
    for (const EvlogRecord_t& record : content.records) {
        if (record.role != EVLOG_E_ROLE_DUMMY) {
            sources[record.header->evSource].add(record, now);
            paces.all.add(record, now);
        }
    }
    paces.sources.assign(sources.begin(), sources.end());
    std::ranges::stable_sort(paces.sources, [](const PaceOfSource& one, const PaceOfSource& other) {
        return std::tie(one.second.recent, one.second.events) >
               std::tie(other.second.recent, other.second.events);
    });
    return paces;
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    std::array<char, 256> text{};
    snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

std::string bar(U64_t part, U64_t whole, size_t columns) {
    size_t length = whole == 0 ? 0 : static_cast<size_t>(part * columns / whole);
    return std::string(part > 0 ? std::max<size_t>(length, 1) : 0, '#');
}

/** "1.5 h" */
std::string spanText(double seconds) {
    if (seconds < 120) {
        return formatted("%.0f s", seconds);
    }
    if (seconds < 2 * 3600) {
        return formatted("%.0f min", seconds / 60);
    }
    return seconds < 2 * 86'400 ? formatted("%.1f h", seconds / 3600)
                                : formatted("%.1f d", seconds / 86'400);
}

std::string ageText(U32_t time, U32_t now) {
    return time > now ? "in " + spanText(time - now) : spanText(now - time);
}

std::string ringLine(const LogContent& content, const Paces& paces) {
    U64_t used = std::min<U64_t>(paces.all.bytes, EMP_LOG_FILE_SIZE);
    std::string filled = bar(used, EMP_LOG_FILE_SIZE, RING_BAR);
    filled.resize(RING_BAR, '-');
    std::string line = "ring  [" + filled + "] " + std::to_string(used * 100 / EMP_LOG_FILE_SIZE) +
                       "%, " + std::to_string(paces.all.events) + " events, " +
                       evlogVerdictName(content.state.verdict);
    return content.findings.empty() ? line : line + ", damaged";
}

/** Whether older events of a window may have been overwritten. */
bool mayLack(const Pace& all, const LogContent& content, U32_t window, U32_t now) {
    return content.state.wrapOver && all.oldest <= now && now - all.oldest < window;
}

std::string rateLine(const LogContent& content, const Pace& all, U32_t now) {
    constexpr std::array<const char*, 3> names = {" in 10 s, ", " in a minute, ", " in an hour"};
    std::string line = "rate  ";
    for (size_t at = 0; at < WINDOWS.size(); at++) {
        line += std::to_string(all.recent[at]) +
                (mayLack(all, content, WINDOWS[at], now) ? "+" : "") + names[at];
    }
    if (all.recentBytes > 0) {
        double seconds = std::clamp<double>(now - std::min(all.oldest, now), 1, WINDOWS.back());
        line += "; the ring holds " +
                spanText(seconds * EMP_LOG_FILE_SIZE / static_cast<double>(all.recentBytes)) +
                " at this rate";
    }
    return line;
}

std::string linkLine(const TopView& view) {
    if (!view.status) {
        return "link  unknown: " + view.whyNoStatus;
    }
    Json status = statusJson(*view.status);
    std::string archiver = status["archiver"].is_null() ? "no archiver" : status["archiver"];
    return "link  " + archiver + ", " + status["link"].get<std::string>() +
           "; inquiries timed out " + status["timedOutInquiries"].dump() + ", connections closed " +
           status["connectionsClosed"].dump() + ", tried " + status["connectionsTried"].dump();
}

std::string lagLine(const EmpEvRecord_t* newest, const TopView& view) {
    if (!view.kept || newest == nullptr) {
        return "lag   unknown: " + view.whyNoneKept;
    }
    U32_t id = newest->evSequenceId;
    U32_t behind = id - std::min(id, *view.kept);
    return "lag   " + std::to_string(behind) + " events: the archive has them up to id " +
           std::to_string(*view.kept) + ", the log up to " + std::to_string(id);
}

std::string sourceLine(const PaceOfSource& source, const Paces& paces, U32_t now) {
    const Pace& pace = source.second;
    std::string share = bar(pace.bytes, paces.all.bytes, SOURCE_BAR); // of what the ring holds
    std::string line =
        formatted("%-15s %6llu %6llu %6llu %7llu %5.1f%%  %-10s",
                  tools::endpointNames.brief(source.first).c_str(),
                  static_cast<unsigned long long>(pace.recent[0]),
                  static_cast<unsigned long long>(pace.recent[1]),
                  static_cast<unsigned long long>(pace.recent[2]),
                  static_cast<unsigned long long>(pace.events),
                  100.0 * static_cast<double>(pace.bytes) / static_cast<double>(paces.all.bytes),
                  ageText(pace.newest, now).c_str());
    return line + " " + share;
}

} // namespace

const EmpEvRecord_t* newestOf(const LogContent& content) {
    const EmpEvRecord_t* newest = nullptr;
    for (const EvlogRecord_t& record : content.records) {
        if (record.role == EVLOG_E_ROLE_NEWEST) {
            newest = record.header;
        }
    }
    return newest;
}

std::vector<std::string> topLines(const LogContent& content, const TopView& view) {
    const EmpEvRecord_t* newest = newestOf(content);
    Paces paces = pacesOf(content, view.now);
    std::string blade = newest == nullptr
                            ? "no event"
                            : bladeName(*reinterpret_cast<const EmpEvLogHeader_t*>(
                                  reinterpret_cast<const U8_t*>(newest) + EMP_CRC_START)) +
                                  ", slot " + std::to_string(U32_t{newest->evSlotId}) +
                                  ", newest event " + std::to_string(U32_t{newest->evSequenceId});
    std::vector<std::string> lines = {isoTime(view.now) + "  " + blade + "  " + view.place,
                                      ringLine(content, paces),
                                      rateLine(content, paces.all, view.now),
                                      linkLine(view),
                                      lagLine(newest, view),
                                      "",
                                      "source            10 s minute   hour  events  share  last"};
    for (const PaceOfSource& source : paces.sources) {
        lines.push_back(sourceLine(source, paces, view.now));
    }
    return lines;
}

} // namespace evctl
