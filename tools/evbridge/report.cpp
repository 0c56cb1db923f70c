#include "report.h"

#include "catalog/event_text.h"
#include "common/time_text.h"
#include "evctl/views/event_forms.h"
#include "evctl/views/event_view.h"

namespace evbridge {
namespace {

void addLog(Report& report, const Entry& entry) {
    const EmpEvLogHeader_t& header = *entry.event().header;
    report.fields = {{"enclosure", evctl::escapedText(header.evEnclosureId)},
                     {"blade", evctl::escapedText(header.evBladeId)},
                     {"slot", std::to_string(U32_t{header.evSlotId})},
                     {"instance", std::to_string(U32_t{header.evInstanceNumber})}};
    if (entry.generation) {
        report.fields.emplace_back("generation", std::to_string(*entry.generation));
    }
}

void addEvent(Report& report, const sources::EventView& event) {
    const EmpEvLogHeader_t& header = *event.header;
    report.severity = evctl::syslogSeverity(header.evType);
    report.kind = "event";
    report.messageId = "EV" + std::to_string(U32_t{header.evId});
    report.source = tools::endpointNames.brief(header.evSource);
    report.text = catalog::textColumn(event);
    if (report.text.empty()) {
        report.text = evctl::eventIdText(header);
    }
    report.data = event.data;
    const std::pair<std::string, std::string> more[] = {
        {"sequence", std::to_string(U32_t{header.evSequenceId})},
        {"source", report.source},
        {"type", tools::eventTypeNames.brief(header.evType)},
        {"category", tools::categoryNames.brief(header.evCategory)},
        {"id", std::to_string(U32_t{header.evId})},
        {"id_version", std::to_string(U32_t{header.evIdVersion})}};
    report.fields.insert(report.fields.end(), std::begin(more), std::end(more));
}

void addGone(Report& report, const IdRun& gone) {
    const std::string count = std::to_string(U64_t{gone.last} - gone.first + 1);
    const std::string first = std::to_string(gone.first);
    const std::string last = std::to_string(gone.last);
    report.severity = 4;
    report.kind = "overwritten";
    report.messageId = "OVERWRITTEN";
    report.source = "evbridge";
    report.text = count + " events overwritten: ids " + first + " to " + last +
                  " left the log before they could be handed on";
    report.fields.insert(report.fields.end(), {{"first", first}, {"last", last}, {"count", count}});
}

} // namespace

Report reportOf(const Entry& entry) {
    const sources::EventView event = entry.event();
    Report report;
    report.host = evctl::bladeName(*event.header);
    report.time = tools::isoTime(event.header->evTime);
    addLog(report, entry);
    if (entry.gone) {
        addGone(report, *entry.gone);
    } else {
        addEvent(report, event);
    }
    return report;
}

} // namespace evbridge
