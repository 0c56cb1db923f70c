#include "answers.h"

#include "catalog/event_text.h"
#include "common/text.h"
#include "common/time_text.h"
#include "evctl/views/event_json.h"
#include "evctl/views/event_view.h"

#include <ctime>

namespace evweb {
namespace {

template <typename Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json timeJson(S64_t seconds) {
    const bool isKnown = seconds >= 0 && seconds <= UINT32_MAX;
    return isKnown ? Json(tools::isoTime(static_cast<U32_t>(seconds))) : Json(nullptr);
}

Json timeOrNull(const std::optional<S64_t>& seconds) {
    return seconds ? timeJson(*seconds) : Json(nullptr);
}

Json typesJson(const TypeCounts& counts) {
    return {{"error", counts[EMP_E_TYPE_ERROR]},
            {"warning", counts[EMP_E_TYPE_WARNING]},
            {"information", counts[EMP_E_TYPE_INFORMATION]},
            {"other", counts[0]}};
}

Json keyJson(const evarchive::SeriesKey& key) {
    return {{"enclosure", shownName(key.blade.enclosure)},
            {"blade", shownName(key.blade.blade)},
            {"slot", key.blade.slot},
            {"instance", key.instance}};
}

Json infoJson(const LogInfo& info) {
    Json json = {{"log", std::to_string(info.log)}};
    json.update(keyJson(info.key));
    json.update({{"generation", info.generation},
                 {"opened", timeJson(info.opened)},
                 {"duplicates", info.duplicates},
                 {"firstId", orNull(info.firstId)},
                 {"lastId", orNull(info.lastId)},
                 {"lastTime", timeOrNull(info.lastTime)},
                 {"lastReceived", timeOrNull(info.lastReceived)},
                 {"seen", timeOrNull(info.seen)},
                 {"lag", info.lastReceived && info.lastTime
                             ? Json(*info.lastReceived - S64_t{*info.lastTime})
                             : Json(nullptr)},
                 {"missing", orNull(info.missing)},
                 {"ringFirst", orNull(info.ringFirst)},
                 {"lately", info.lately ? typesJson(*info.lately) : Json(nullptr)}});
    return json;
}

Json generationJson(const GenerationView& view) {
    Json runs = Json::array();
    for (const evarchive::IdRun& run : view.runs) {
        runs.push_back({run.first, run.last});
    }
    return {{"generation", view.info.number.generation},
            {"opened", timeJson(view.info.opened)},
            {"duplicates", view.info.duplicates},
            {"events", view.events},
            {"runs", std::move(runs)},
            {"cut", view.isCut},
            {"firstTime", timeOrNull(view.firstTime)},
            {"lastTime", timeOrNull(view.lastTime)},
            {"lastReceived", timeOrNull(view.lastReceived)}};
}

Json tableJson(const tools::NameTable& table) {
    Json json = Json::array();
    for (const tools::EnumName& row : table.rows()) {
        json.push_back({{"value", row.first}, {"name", row.brief}});
    }
    return json;
}

} // namespace

Json timeOrNull(const std::optional<U32_t>& seconds) {
    return seconds ? timeJson(*seconds) : Json(nullptr);
}

std::string shownField(std::span<const U8_t> field) {
    return shownName(tools::fieldText(field.data(), field.size()));
}

bool isWhole(const FoundEvent& event) {
    return evarchive::isWholeEvent(event.event.image);
}

Json eventJson(const FoundEvent& event) {
    Json json = {{"log", std::to_string(event.log)}, {"generation", event.generation}};
    const sources::EventView view = sources::eventOf(event.event.image);
    json.update(evctl::eventJson(view));
    json["enclosureId"] = shownField(view.header->evEnclosureId);
    json["bladeId"] = shownField(view.header->evBladeId);
    json["received"] = timeJson(event.event.received);
    if (event.event.doubtful) {
        json["doubtful"] = true;
    }
    return json;
}

Json wholeEventJson(const FoundEvent& event) {
    Json json = eventJson(event);
    const sources::EventView view = sources::eventOf(event.event.image);
    json["own"] = event.event.own;
    json["advice"] = catalog::adviceOf(view);
    json["dump"] = evctl::hexDump(view.data);
    if (const catalog::Entry* entry = catalog::entryOf(view)) {
        for (const catalog::Field& field : entry->fields) {
            json["fields"][field.name]["shown"] = catalog::valueText(field, view.data);
        }
    }
    return json;
}

Json eventsJson(const std::vector<FoundEvent>& events) {
    Json list = Json::array();
    for (const FoundEvent& event : events) {
        if (isWhole(event)) {
            list.push_back(eventJson(event));
        }
    }
    return list;
}

Json pageJson(const Page& page) {
    return {{"events", eventsJson(page.events)},
            {"next", page.next ? Json(page.next->text()) : Json(nullptr)},
            {"cut", page.isCut}};
}

Json tailJson(const Tail& tail) {
    return {{"events", eventsJson(tail.events)},
            {"position", tail.position.text()},
            {"skipped", tail.skipped ? Json(*tail.skipped) : Json()}};
}

Json timelineJson(const Timeline& timeline) {
    Json buckets = Json::array();
    for (const TypeCounts& counts : timeline.buckets) {
        buckets.push_back({counts[EMP_E_TYPE_ERROR], counts[EMP_E_TYPE_WARNING],
                           counts[EMP_E_TYPE_INFORMATION], counts[0]});
    }
    return {{"since", timeline.since},
            {"width", timeline.width},
            {"columns", {"error", "warning", "information", "other"}},
            {"buckets", std::move(buckets)},
            {"cut", timeline.isCut},
            {"onlyWarningsAndErrors", timeline.isOnlyGrave}};
}

Json overviewJson(const Overview& overview) {
    Json logs = Json::array();
    for (const LogInfo& info : overview.logs) {
        logs.push_back(infoJson(info));
    }
    return {{"logs", std::move(logs)},
            {"known", orNull(overview.known)},
            {"next", overview.next ? Json(std::to_string(*overview.next)) : Json(nullptr)},
            {"windowSeconds", overview.windowSeconds},
            {"lately", overview.lately ? Json{{"error", (*overview.lately)[EMP_E_TYPE_ERROR]},
                                              {"warning", (*overview.lately)[EMP_E_TYPE_WARNING]}}
                                       : Json(nullptr)},
            {"now", timeJson(time(nullptr))}};
}

Json logJson(const LogDetail& detail) {
    Json json = infoJson(detail.info);
    json["generations"] = Json::array();
    for (const GenerationView& view : detail.generations) {
        json["generations"].push_back(generationJson(view));
    }
    json["now"] = timeJson(time(nullptr));
    return json;
}

Json statusJson(const ViewStatus& status) {
    return {{"engine", status.engine},
            {"newest", timeOrNull(status.newest)},
            {"newestTime", timeOrNull(status.newestTime)},
            {"events", orNull(status.events)},
            {"bytes", status.bytes},
            {"surveyed", status.surveyed},
            {"now", timeJson(time(nullptr))}};
}

Json namesJson() {
    Json known = Json::array();
    for (const catalog::Entry* entry : catalog::knownEvents().entries()) {
        known.push_back({{"source", tools::endpointNames.brief(entry->source)},
                         {"id", entry->firstId},
                         {"last", entry->lastId},
                         {"name", entry->name},
                         {"severity", entry->severity},
                         {"text", entry->text}});
    }
    return {{"types", tableJson(tools::eventTypeNames)},
            {"sources", tableJson(tools::endpointNames)},
            {"categories", tableJson(tools::categoryNames)},
            {"events", std::move(known)}};
}

} // namespace evweb
