/**
 * @file
 * The one form in which every source gives its events.
 */
#ifndef SOURCES_EVENT_H
#define SOURCES_EVENT_H

#include "emp_mesgs.h"
#include "evlog/evlog.h"

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace sources {

using Bytes = std::vector<U8_t>;

/** An event: header and data lie elsewhere. */
struct EventView {
    const EmpEvLogHeader_t* header;
    std::span<const U8_t> data;
};

/** The event of a record; a dummy entry has no data. */
EventView eventOf(const EvlogRecord_t& record);

/** The event of an image of header and data, which holds a whole header at least. */
EventView eventOf(std::span<const U8_t> image);

/** What kind of place an event comes from. */
enum class Kind : U8_t {
    LOG,          ///< an event log file
    DAMAGED_COPY, ///< the copy that was kept of a damaged one
    ALTERNATE,    ///< alternate event log files
    ARCHIVE,      ///< a log of an archive
    BLADE,        ///< the log of a running blade
};

const char* kindName(Kind kind); ///< "log", "damaged-copy", "alternate", "archive", "blade"

/** The place itself. */
struct Origin {
    std::string name; ///< as it was asked for, then the member within; fit to be shown
    Kind kind = Kind::LOG;
};

/** An event, and where it was found. */
struct Event {
    EventView view{};
    const Origin* origin = nullptr;         ///< that of its source, which outlives it
    U64_t position = 0;                     ///< log: offset of its record; alternate: number of
                                            ///< its file, from 0; archive: the log's generation
    const EvlogRecord_t* record = nullptr;  ///< log: its record; else nullptr
    std::shared_ptr<const Bytes> storage{}; ///< holds header and data where the source does not
    bool isDouble = false; ///< in a Merge: another of its sources has given it already
};

} // namespace sources

#endif
