#include "id_runs.h"

#include "common/text.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace evbridge {

void IdRuns::add(U32_t id) {
    // The first run that ends at or behind the id before this one.
    auto run = std::ranges::lower_bound(runs_, U64_t{id}, {},
                                        [](const IdRun& one) { return U64_t{one.last} + 1; });
    if (run == runs_.end() || U64_t{run->first} > U64_t{id} + 1) {
        runs_.insert(run, {id, id});
        return;
    }
    run->first = std::min(run->first, id);
    run->last = std::max(run->last, id);
    const auto next = std::next(run);
    if (next != runs_.end() && U64_t{run->last} + 1 >= next->first) {
        run->last = next->last;
        runs_.erase(next);
    }
}

void IdRuns::forEachMissing(const IdRun& held, const std::function<bool(U32_t)>& take) const {
    auto run = std::ranges::lower_bound(runs_, held.first, {}, &IdRun::last);
    for (U64_t id = held.first; id <= held.last; ++id) {
        if (run != runs_.end() && id >= run->first) {
            id = run->last;
            ++run;
        } else if (!take(static_cast<U32_t>(id))) {
            return;
        }
    }
}

bool IdRuns::contains(U32_t id) const {
    const auto run = std::ranges::lower_bound(runs_, id, {}, &IdRun::last);
    return run != runs_.end() && run->first <= id;
}

std::string IdRuns::text() const {
    std::string all;
    for (const IdRun& run : runs_) {
        all +=
            (all.empty() ? "" : ",") + std::to_string(run.first) + "-" + std::to_string(run.last);
    }
    return all;
}

IdRuns IdRuns::parse(const std::string& text) {
    IdRuns runs;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');) {
        unsigned first = 0;
        unsigned last = 0;
        char rest = 0;
        if (std::sscanf(part.c_str(), "%u-%u%c", &first, &last, &rest) != 2 || last < first ||
            (!runs.empty() && first <= U64_t{runs.last()} + 1)) {
            throw std::runtime_error("'" + part + "' is no run of ids");
        }
        runs.runs_.push_back({first, last});
    }
    return runs;
}

std::string nameOf(const evarchive::SeriesKey& log, U32_t generation) {
    const auto& [blade, instance] = log;
    return tools::escapedText(blade.enclosure) + "/" + tools::escapedText(blade.blade) + "/" +
           std::to_string(blade.slot) + "/" + std::to_string(instance) + "/" +
           std::to_string(generation);
}

std::string textOf(const LogRuns& logs) {
    std::string lines;
    for (const auto& [name, runs] : logs) {
        lines += runs.text() + " " + name + "\n";
    }
    return lines;
}

LogRuns parseLogRuns(const std::string& lines) {
    LogRuns logs;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        const std::size_t blank = line.find(' ');
        if (blank == std::string::npos) {
            throw std::runtime_error("the cursor is not one of an archive");
        }
        logs[line.substr(blank + 1)] = IdRuns::parse(line.substr(0, blank));
    }
    return logs;
}

} // namespace evbridge
