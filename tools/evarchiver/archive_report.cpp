#include "archive_report.h"

#include "archive.h"
#include "common/text.h"
#include "reader.h"

#include <ctime>
#include <iomanip>
#include <nlohmann/json.hpp>

namespace evarchive {
namespace {

using Json = nlohmann::ordered_json;

// A generation with what its events show.
struct Generation {
    GenerationInfo info;
    bool isNewest = true;
    std::vector<IdRun> runs;
    std::vector<U32_t> damaged; // ids of events that do not fit their place

    U64_t events() const {
        U64_t events = 0;
        for (const IdRun& run : runs) {
            events += U64_t{run.last} - run.first + 1;
        }
        return events;
    }

    std::vector<IdRun> gaps() const {
        std::vector<IdRun> gaps;
        for (std::size_t i = 1; i < runs.size(); ++i) {
            gaps.push_back({runs[i - 1].last + 1, runs[i].first - 1});
        }
        return gaps;
    }
};

bool fitsItsPlace(const SeriesKey& key, const StoredEvent& event) {
    if (event.image.size() < sizeof(EmpEvLogHeader_t)) {
        return false;
    }
    const auto header = imageOf<EmpEvLogHeader_t>(event.image);
    const BladeKey blade{textOf(header.evEnclosureId), textOf(header.evBladeId), header.evSlotId};
    return event.image.size() == sizeof(header) + header.evStructLength &&
           header.evSequenceId == event.sequenceId && header.evInstanceNumber == key.instance &&
           (blade == key.blade) == event.own;
}

std::vector<Generation> readGenerations(StoreReader& store, bool withEvents) {
    std::vector<Generation> generations;
    for (GenerationInfo& info : store.listGenerations()) {
        if (!generations.empty() && generations.back().info.key == info.key) {
            generations.back().isNewest = false;
        }
        Generation& generation = generations.emplace_back();
        generation.info = std::move(info);
        const GenerationKey number = generation.info.number;
        store.forEachRun(number, 0, [&](const IdRun& run) { generation.runs.push_back(run); });
        if (withEvents) {
            store.forEachEvent(number, [&](const StoredEvent& event) {
                if (!fitsItsPlace(generation.info.key, event)) {
                    generation.damaged.push_back(event.sequenceId);
                }
            });
        }
    }
    return generations;
}

std::string timeText(S64_t seconds) {
    const time_t time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    return {text, strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

Json rangeJson(const IdRun& run) {
    return {{"first", run.first}, {"last", run.last}};
}

Json rangesJson(const std::vector<IdRun>& runs) {
    Json list = Json::array();
    for (const IdRun& run : runs) {
        list.push_back(rangeJson(run));
    }
    return list;
}

Json headJson(const Generation& generation) {
    const SeriesKey& key = generation.info.key;
    return {{"enclosure", tools::escapedText(key.blade.enclosure)},
            {"blade", tools::escapedText(key.blade.blade)},
            {"slot", key.blade.slot},
            {"instance", key.instance},
            {"generation", generation.info.number.generation},
            {"newest", generation.isNewest},
            {"opened", timeText(generation.info.opened)},
            {"events", generation.events()},
            {"duplicates", generation.info.duplicates}};
}

// One object a line.
void printJson(const Json& json, std::ostream& out) {
    out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

void printLine(const Generation& generation, std::ostream& out) {
    out << nameOf(generation.info.key) << " generation " << generation.info.number.generation
        << ": " << generation.events() << " events";
    if (!generation.runs.empty()) {
        out << ", ids " << generation.runs.front().first << " to " << generation.runs.back().last;
    }
    out << ", " << generation.gaps().size() << " gaps, " << generation.info.duplicates
        << " duplicates, opened " << timeText(generation.info.opened) << "\n";
}

U64_t printFindings(const Generation& generation, std::ostream& out) {
    const std::string name = nameOf(generation.info.key) + " generation " +
                             std::to_string(generation.info.number.generation);
    const std::vector<IdRun> gaps = generation.gaps();
    for (const IdRun& gap : gaps) {
        out << name << ": ids " << gap.first << " to " << gap.last << " are missing\n";
    }
    for (const U32_t id : generation.damaged) {
        out << name << ": event " << id << " does not fit its place\n";
    }
    if (!generation.isNewest) {
        out << name << ": superseded, the log counted again from the start\n";
    }
    return gaps.size() + generation.damaged.size() + (generation.isNewest ? 0 : 1);
}

void printCheckText(const std::vector<Generation>& generations, std::ostream& out) {
    U64_t events = 0;
    U64_t duplicates = 0;
    U64_t findings = 0;
    for (const Generation& generation : generations) {
        events += generation.events();
        duplicates += generation.info.duplicates;
        findings += printFindings(generation, out);
    }
    out << generations.size() << " generations, " << events << " events, " << duplicates
        << " duplicates dropped, " << findings << " findings\n";
}

bool hasFinding(const Generation& generation) {
    return generation.runs.size() > 1 || !generation.damaged.empty() || !generation.isNewest;
}

} // namespace

int listArchive(const std::string& path, ReportForm form, std::ostream& out) {
    const auto store = openForReading(path);
    for (const Generation& generation : readGenerations(*store, false)) {
        if (form == ReportForm::TEXT) {
            printLine(generation, out);
        } else {
            Json json = headJson(generation);
            json["ranges"] = rangesJson(generation.runs);
            printJson(json, out);
        }
    }
    return 0;
}

int checkArchive(const std::string& path, ReportForm form, std::ostream& out) {
    return checkArchive(*openForReading(path), form, out);
}

int checkArchive(StoreReader& store, ReportForm form, std::ostream& out) {
    const std::vector<Generation> generations = readGenerations(store, true);
    const bool found = std::ranges::any_of(generations, hasFinding);
    if (form == ReportForm::TEXT) {
        printCheckText(generations, out);
        return found ? 1 : 0;
    }
    for (const Generation& generation : generations) {
        Json json = headJson(generation);
        json["gaps"] = rangesJson(generation.gaps());
        json["damaged"] = generation.damaged;
        json["finding"] = hasFinding(generation);
        printJson(json, out);
    }
    return found ? 1 : 0;
}

} // namespace evarchive
