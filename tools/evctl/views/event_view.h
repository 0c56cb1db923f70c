/**
 * @file
 * How an event is shown: as a line, field by field, as a hex dump.
 *
 * An event in a message and an event in a file have the same 152-byte header, so both are shown
 * from there.
 */
#ifndef EVCTL_EVENT_VIEW_H
#define EVCTL_EVENT_VIEW_H

#include "catalog/event_names.h"
#include "common/names.h"
#include "common/text.h"
#include "common/time_text.h"
#include "emp_mesgs.h"
#include "evlog/evlog.h"
#include "sources/event.h"

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>

namespace evctl {

using Json = nlohmann::ordered_json;

using sources::eventOf;
using sources::EventView;
using tools::hexDigits;
using tools::isoTime;
using tools::Zone;

/** A fixed-size text with everything but printable ASCII, and the backslash, as \\xNN. */
std::string escapedText(std::span<const U8_t> field);

/** The name of a value, null for a value without one. */
Json nameOrNull(const tools::NameTable& names, U32_t value);

/** "signal(4)", or "300" for an id without a name, also the catalogue's. */
std::string eventIdText(const EmpEvLogHeader_t& header);
std::string eventIdText(U32_t source, U32_t id, U32_t version = catalog::ANY_VERSION);

/** How much of a line stands before the text, so that something is seen of it. */
enum class Width {
    WIDE,
    NARROW, ///< without the category and without room
    SLIM, ///< no more than id, time of the year, and the type's first letter, of an event with text
};

/** The parts of a line that are not the same in all listings. */
struct LineStyle {
    Zone zone = Zone::UTC;
    bool blade = false; ///< with a column of the blade's name
    Width width = Width::WIDE;
};

/** The event as one line, without line feed. */
std::string eventLine(const EventView& event, const LineStyle& style = {});

/** What a blade is called: its own id, or, where an event has none, enclosure and slot. */
std::string bladeName(const EmpEvLogHeader_t& header);

/** The event, a line a field, with a hex dump of its data. */
std::string eventLines(const EventView& event, Zone zone = Zone::UTC);

/** eventLines() of a record, its version and checksum on top. */
std::string recordLines(const EmpEvRecord_t& header, std::span<const U8_t> data);

const char* roleName(EVLOG_ROLE_e role); ///< "newest", "oldest", "dummy"

/** One line of JSON; bytes that are no UTF-8 are replaced. */
std::string jsonLine(const Json& json);

/** Lines of 16 bytes: offset, hexadecimal, printable characters. */
std::string hexDump(std::span<const U8_t> bytes);

/** "1 event", "2 events" */
std::string countText(U64_t count, const std::string& one);

} // namespace evctl

#endif
