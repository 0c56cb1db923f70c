#include "evctl/files/log_map.h"

#include "evctl/views/event_view.h"
#include "evctl/views/svg.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr U32_t ROW_BYTES = MAP_COLUMNS * MAP_CELL_BYTES;

CellKind kindOf(const EmpEvRecord_t& header) {
    switch (header.evType) {
    case EMP_E_TYPE_INFORMATION:
        return CellKind::INFORMATION;
    case EMP_E_TYPE_WARNING:
        return CellKind::WARNING;
    case EMP_E_TYPE_ERROR:
        return CellKind::ERROR;
    default:
        return CellKind::OTHER;
    }
}

/** Marks all cells that a stretch of the file touches. */
void mark(LogMap& map, U64_t offset, U64_t bytes, MapCell mark) {
    auto end = static_cast<U32_t>(std::min<U64_t>(offset + bytes, EMP_LOG_FILE_SIZE));
    auto begin = static_cast<U32_t>(std::min<U64_t>(offset, EMP_LOG_FILE_SIZE));
    for (U32_t cell = begin / MAP_CELL_BYTES; cell * MAP_CELL_BYTES < end; cell++) {
        MapCell& place = map.rows[cell / MAP_COLUMNS].cells[cell % MAP_COLUMNS];
        if (mark.kind >= place.kind) {
            place = mark;
        }
    }
}

/** Cells begin as a gap: what is unused is less than that, and is marked first. */
void markUnused(LogMap& map, U32_t from) {
    U32_t first = (from + MAP_CELL_BYTES - 1) / MAP_CELL_BYTES;
    for (U32_t cell = first; cell < MAP_COLUMNS * MAP_ROWS; cell++) {
        map.rows[cell / MAP_COLUMNS].cells[cell % MAP_COLUMNS].kind = CellKind::UNUSED;
    }
}

/** A dummy entry stands for all up to the end of the ring when its length says so. */
void addDummy(LogMap& map, const EvlogRecord_t& record) {
    markUnused(map, record.offset);
    U32_t length = record.header->evStructLength;
    mark(map, record.offset,
         length == UINT16_MAX ? EMP_LOG_FILE_SIZE : U64_t{EMP_RECORD_SIZE} + length,
         {CellKind::DUMMY});
    map.dummy = record.offset;
}

/** In steps. A clock may have been wrong: what is younger than the newest is as young. */
U8_t ageOf(const EmpEvRecord_t& header, U32_t newest) {
    constexpr U32_t hour = 3600;
    constexpr std::array<U32_t, MAP_AGES - 1> limits = {hour, 6 * hour, 24 * hour, 7 * 24 * hour,
                                                        30 * 24 * hour};
    U32_t age = newest - std::min<U32_t>(newest, header.evTime);
    return static_cast<U8_t>(std::ranges::upper_bound(limits, age) - limits.begin());
}

/** The time of the last event before the write position, else of the ring's last one. */
U32_t newestTime(const std::vector<EvlogRecord_t>& records) {
    const EmpEvRecord_t* newest = nullptr;
    EVLOG_ROLE_e role = EVLOG_E_ROLE_OLDEST;
    for (const EvlogRecord_t& record : records) {
        if (record.role != EVLOG_E_ROLE_DUMMY && record.role <= role) {
            newest = record.header;
            role = record.role;
        }
    }
    return newest == nullptr ? 0 : U32_t{newest->evTime};
}

void addRecord(LogMap& map, const EvlogRecord_t& record, U32_t newest) {
    if (record.offset >= EMP_LOG_FILE_SIZE) {
        return;
    }
    mark(map, record.offset, EMP_RECORD_SIZE + record.body.size(),
         {kindOf(*record.header), record.role == EVLOG_E_ROLE_OLDEST,
          ageOf(*record.header, newest)});
    MapRow& row = map.rows[record.offset / ROW_BYTES];
    MapRange& range = record.role == EVLOG_E_ROLE_OLDEST ? row.old : row.recent;
    range.first = range.first == nullptr ? record.header : range.first;
    range.last = record.header;
}

/** "12 to 40" */
std::string idsText(const MapRange& range) {
    return std::to_string(U32_t{range.first->evSequenceId}) + " to " +
           std::to_string(U32_t{range.last->evSequenceId});
}

/** "ids 12 to 40 from 2006-11-21T14:00:00Z", or "ids 35 to 40, then 7 to 9" */
std::string eventsText(const MapRow& row) {
    if (row.recent.first != nullptr && row.old.first != nullptr) {
        return "ids " + idsText(row.recent) + ", then " + idsText(row.old);
    }
    const MapRange& range = row.recent.first != nullptr ? row.recent : row.old;
    return range.first == nullptr
               ? ""
               : "ids " + idsText(range) + " from " + isoTime(range.first->evTime);
}

char letterOf(const MapCell& cell) {
    constexpr std::array<char, 8> letters = {'.', '=', '~', 'I', 'U', 'W', 'E', '!'};
    char letter = letters.at(static_cast<size_t>(cell.kind));
    return cell.old && cell.isEvent() ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/** Its age in the place of a letter. */
char digitOf(const MapCell& cell) {
    return cell.isEvent() ? static_cast<char>('0' + cell.age) : letterOf(cell);
}

/** Damage stays seen. */
void putPosition(std::string& cells, U32_t offset, char letter) {
    char& cell = cells[offset % ROW_BYTES / MAP_CELL_BYTES];
    cell = cell == '!' ? cell : letter;
}

/** The positions of the next start; the oldest record only where it is to be protected. */
std::string positionsText(const LogMap& map) {
    std::string text = "> written next: offset " + std::to_string(map.write);
    if (map.start < EMP_LOG_FILE_SIZE) {
        text += "   < oldest event: offset " + std::to_string(map.start);
    }
    if (map.dummy) {
        text += "   = dummy entry: offset " + std::to_string(*map.dummy);
    }
    return text;
}

std::string verdictLine(const LogContent& content) {
    return std::string(evlogVerdictName(content.state.verdict)) + ": " +
           evlogVerdictText(content.state.verdict);
}

std::string findingText(const EvlogFinding_t& finding) {
    return "offset " + std::to_string(finding.offset) + ", " + std::to_string(finding.bytes) +
           " bytes: " + evlogReasonText(finding.reason);
}

constexpr char TYPE_LEGEND[] =
    "I W E  information, warning, error, U another type; i w e u  of before the log last went "
    "round\n";
constexpr char AGE_LEGEND[] = "0 less than an hour before the newest event, 1 than 6 hours, 2 than "
                              "a day, 3 than a week, 4 than 30 days, 5 more\n";
constexpr char MAP_LEGEND[] = "~ gap   = dummy entry and what it stands for   . unused without one "
                              "  ! damaged\n"
                              "a character is 1000 bytes and shows the worst in it\n";

Filling fillingOf(CellKind kind) {
    constexpr std::array<Filling, 8> fillings = {
        Filling::NOTHING, Filling::LINES,   Filling::DOTS, Filling::LIGHT,
        Filling::BARS,    Filling::STRIPES, Filling::DARK, Filling::CROSSES};
    return fillings.at(static_cast<size_t>(kind));
}

const char* kindText(CellKind kind) {
    constexpr std::array<const char*, 8> texts = {
        "unused", "dummy entry", "gap", "information", "other type", "warning", "error", "damaged"};
    return texts.at(static_cast<size_t>(kind));
}

const char* ageText(U8_t age) {
    constexpr std::array<const char*, MAP_AGES> texts = {"less than an hour", "1 to 6 hours",
                                                         "6 to 24 hours",     "1 to 7 days",
                                                         "7 to 30 days",      "more than 30 days"};
    return texts.at(age);
}

Json rangeJson(const MapRange& range) {
    if (range.first == nullptr) {
        return nullptr;
    }
    return {{"firstSequenceId", U32_t{range.first->evSequenceId}},
            {"lastSequenceId", U32_t{range.last->evSequenceId}},
            {"firstTime", isoTime(range.first->evTime)},
            {"lastTime", isoTime(range.last->evTime)}};
}

std::string signsOf(const MapRow& row, char (*signOf)(const MapCell& cell)) {
    std::string signs;
    for (const MapCell& cell : row.cells) {
        signs += signOf(cell);
    }
    return signs;
}

// --- The picture

constexpr double MAP_LEFT = 70;
constexpr double MAP_TOP = 50;
constexpr double MAP_CELL = 10;
constexpr double MAP_LINE = 22; // of a row
constexpr double MAP_BOX = 14;  // what of it is filled
constexpr double MAP_MARK = 6;
constexpr U32_t MAP_WIDTH = 1100;

bool sameCells(const MapCell& one, const MapCell& other) {
    return one.kind == other.kind && one.age == other.age;
}

/** Lower by a seventh a step. */
double heightOf(const MapCell& cell) {
    return MAP_BOX - 2.0 * cell.age;
}

std::string hintOf(const MapCell& cell) {
    std::string hint = kindText(cell.kind);
    return cell.isEvent() && cell.age > 0 ? hint + ", " + ageText(cell.age) + " before the newest"
                                          : hint;
}

/** Neighbours that are alike are one box; the older its events, the lower. */
void drawRow(Svg& svg, const MapRow& row, double y) {
    for (auto begin = row.cells.begin(); begin != row.cells.end();) {
        auto end = std::find_if(begin, row.cells.end(),
                                [begin](const MapCell& cell) { return !sameCells(cell, *begin); });
        double x = MAP_LEFT + MAP_CELL * static_cast<double>(begin - row.cells.begin());
        double height = heightOf(*begin);
        svg.box(x, y + MAP_BOX - height, MAP_CELL * static_cast<double>(end - begin), height,
                fillingOf(begin->kind), hintOf(*begin));
        begin = end;
    }
}

/** Above its row what is written next, below it the oldest event: both may be in one cell. */
void drawPosition(Svg& svg, U32_t offset, bool above, const std::string& hint) {
    if (offset < EMP_LOG_FILE_SIZE) {
        U32_t row = offset / ROW_BYTES;
        double x = MAP_LEFT + MAP_CELL * (offset % ROW_BYTES) / MAP_CELL_BYTES;
        double y = MAP_TOP + MAP_LINE * row + (above ? 0 : MAP_BOX);
        svg.mark(x, y, above ? MAP_MARK : -MAP_MARK, hint);
    }
}

void drawLegend(Svg& svg, double y) {
    constexpr std::array<CellKind, 8> kinds = {
        CellKind::INFORMATION, CellKind::WARNING, CellKind::ERROR,  CellKind::OTHER,
        CellKind::GAP,         CellKind::DUMMY,   CellKind::UNUSED, CellKind::DAMAGED};
    double x = MAP_LEFT;
    for (CellKind kind : kinds) {
        svg.box(x, y, 14, 12, fillingOf(kind), "");
        svg.text(x + 18, y + 10, kindText(kind));
        x += 100;
    }
    double age = MAP_LEFT;
    for (MapCell step{.kind = CellKind::INFORMATION}; step.age < MAP_AGES; step.age++) {
        svg.box(age, y + 18 + MAP_BOX - heightOf(step), 10, heightOf(step), Filling::LIGHT, "");
        age += 10;
    }
    svg.text(age + 6, y + 28,
             "less than an hour, 6 hours, a day, a week, 30 days before the newest event, or more");
    svg.mark(x + 5, y + 10, MAP_MARK, "");
    svg.text(x + 14, y + 10, "above a row: written next");
    svg.mark(x + 5, y + 21, -MAP_MARK, "");
    svg.text(x + 14, y + 28, "below a row: the oldest event");
}

} // namespace

LogMap mapOf(const LogContent& content) {
    LogMap map{.rows = std::vector<MapRow>(MAP_ROWS, MapRow{std::vector<MapCell>(MAP_COLUMNS)}),
               .write = content.state.empWrite,
               .start = content.state.empStart};
    for (const EvlogRecord_t& record : content.records) {
        if (record.role == EVLOG_E_ROLE_DUMMY) {
            addDummy(map, record);
        }
    }
    U32_t newest = newestTime(content.records);
    for (const EvlogRecord_t& record : content.records) {
        if (record.role != EVLOG_E_ROLE_DUMMY) {
            addRecord(map, record, newest);
        }
    }
    for (const EvlogFinding_t& finding : content.findings) {
        mark(map, finding.offset, finding.bytes, {CellKind::DAMAGED});
    }
    return map;
}

std::string mapLines(const LogMap& map, const LogContent& content, bool ages) {
    std::string lines = verdictLine(content) + "\n";
    for (U32_t number = 0; number < MAP_ROWS; number++) {
        std::string cells = signsOf(map.rows[number], ages ? digitOf : letterOf);
        U32_t offset = number * ROW_BYTES;
        if (map.start / ROW_BYTES == number) {
            putPosition(cells, map.start, '<');
        }
        if (map.write / ROW_BYTES == number) {
            putPosition(cells, map.write, '>');
        }
        std::array<char, 16> label{};
        snprintf(label.data(), label.size(), "%7u ", offset);
        std::string events = eventsText(map.rows[number]);
        lines += label.data() + cells + (events.empty() ? "" : " " + events) + "\n";
    }
    lines += (ages ? AGE_LEGEND : TYPE_LEGEND);
    lines += MAP_LEGEND + positionsText(map) + "\n";
    for (const EvlogFinding_t& finding : content.findings) {
        lines += findingText(finding) + "\n";
    }
    return lines;
}

Json mapJson(const LogMap& map, const LogContent& content) {
    Json rows = Json::array();
    for (U32_t number = 0; number < MAP_ROWS; number++) {
        const MapRow& row = map.rows[number];
        rows.push_back({{"offset", number * ROW_BYTES},
                        {"cells", signsOf(row, letterOf)},
                        {"ages", signsOf(row, digitOf)},
                        {"newest", rangeJson(row.recent)},
                        {"oldest", rangeJson(row.old)}});
    }
    bool isProtected = map.start < EMP_LOG_FILE_SIZE;
    return {{"verdict", evlogVerdictName(content.state.verdict)},
            {"writtenNext", map.write},
            {"oldestEvent", isProtected ? Json(map.start) : Json(nullptr)},
            {"dummyEntry", map.dummy ? Json(*map.dummy) : Json(nullptr)},
            {"bytesPerCell", MAP_CELL_BYTES},
            {"rows", rows},
            {"findings", content.findings.size()}};
}

std::string mapPicture(const LogMap& map, const LogContent& content, const std::string& name) {
    constexpr size_t findingsMax = 30;
    size_t findings = std::min(content.findings.size(), findingsMax);
    double bottom = MAP_TOP + MAP_LINE * MAP_ROWS;
    auto height = static_cast<U32_t>(bottom + 60 + 16 * static_cast<double>(findings));
    Svg svg(MAP_WIDTH, height, name);
    svg.heading(MAP_LEFT, 16, name);
    svg.text(MAP_LEFT, 32, verdictLine(content));
    for (U32_t number = 0; number < MAP_ROWS; number++) {
        double y = MAP_TOP + MAP_LINE * number;
        svg.text(MAP_LEFT - 6, y + 11, std::to_string(number * ROW_BYTES), "end");
        drawRow(svg, map.rows[number], y);
        svg.text(MAP_LEFT + MAP_CELL * MAP_COLUMNS + 6, y + 11, eventsText(map.rows[number]));
    }
    drawPosition(svg, map.start, false, "oldest event");
    drawPosition(svg, map.write, true, "written next");
    drawLegend(svg, bottom + 4);
    for (size_t place = 0; place < findings; place++) {
        svg.text(MAP_LEFT, bottom + 56 + 16 * static_cast<double>(place),
                 findingText(content.findings[place]));
    }
    return svg.picture();
}

} // namespace evctl
