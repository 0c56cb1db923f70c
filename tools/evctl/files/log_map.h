/**
 * @file
 * The ring of a log as it lies in its file, cut into cells of equal size.
 */
#ifndef EVCTL_LOG_MAP_H
#define EVCTL_LOG_MAP_H

#include "evctl/files/file.h"
#include "evctl/views/event_view.h"

#include <optional>
#include <string>
#include <vector>

namespace evctl {

/** What a cell shows: of all that lies in it, what comes last here. */
enum class CellKind : U8_t {
    UNUSED,      ///< behind the last event, and no dummy entry says so
    DUMMY,       ///< a dummy entry and what it stands for
    GAP,         ///< between the newest and the oldest events
    INFORMATION, ///< events, none of them a warning or an error
    OTHER,       ///< with a type that has no name
    WARNING,     ///< with a warning
    ERROR,       ///< with an error
    DAMAGED,     ///< with something that 'verify' names
};

struct MapCell {
    CellKind kind = CellKind::GAP;
    bool old = false; ///< its events are of before the log last went round its end
    U8_t age = 0;     ///< of the event shown, in steps from 0, the age of the newest one
    bool isEvent() const { return kind >= CellKind::INFORMATION && kind <= CellKind::ERROR; }
};

/** Ages are told in so many steps: less than an hour, 6 hours, a day, a week, 30 days before the
 * newest event, or more. */
constexpr U8_t MAP_AGES = 6;

/** Events behind each other; nullptr: none. */
struct MapRange {
    const EmpEvRecord_t* first = nullptr;
    const EmpEvRecord_t* last = nullptr;
};

/** A row of the picture. */
struct MapRow {
    std::vector<MapCell> cells;
    MapRange recent{}; ///< events that begin in it
    MapRange old{};    ///< those of before the log last went round its end
};

constexpr U32_t MAP_COLUMNS = 64;
constexpr U32_t MAP_ROWS = 25;
constexpr U32_t MAP_CELL_BYTES = EMP_LOG_FILE_SIZE / (MAP_COLUMNS * MAP_ROWS);
static_assert(MAP_COLUMNS * MAP_ROWS * MAP_CELL_BYTES == EMP_LOG_FILE_SIZE);

struct LogMap {
    std::vector<MapRow> rows;
    U32_t write = 0;              ///< empWrite of the next start
    U32_t start = 0;              ///< empStart; the end of the ring: nothing is to be protected
    std::optional<U32_t> dummy{}; ///< offset of the last dummy entry
};

/** @param content of the file; the map leads into its image */
LogMap mapOf(const LogContent& content);

/** @param ages of events, instead of their types */
std::string mapLines(const LogMap& map, const LogContent& content, bool ages = false);

/** The same for programs: the cells as the letters and as the ages of mapLines(), without the
 * positions in them. */
Json mapJson(const LogMap& map, const LogContent& content);

/** @param name of the file */
std::string mapPicture(const LogMap& map, const LogContent& content, const std::string& name);

} // namespace evctl

#endif
