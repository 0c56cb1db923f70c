/**
 * @file
 * What goes from a feed to a sink.
 */
#ifndef EVBRIDGE_ENTRY_H
#define EVBRIDGE_ENTRY_H

#include "rules.h"
#include "sources/event.h"

#include <optional>
#include <vector>

namespace evbridge {

using evarchive::IdRun;
using sources::Bytes;

/** An event, or that events are gone that were never handed on. */
struct Entry {
    Bytes image;                       ///< header and data; when events are gone: the header of the
                                       ///< one behind them
    std::optional<U32_t> generation{}; ///< of its log; in archives only
    std::optional<IdRun> gone{};       ///< ids of the events that are gone

    sources::EventView event() const { return sources::eventOf(image); }
};

using Entries = std::vector<Entry>;

} // namespace evbridge

#endif
