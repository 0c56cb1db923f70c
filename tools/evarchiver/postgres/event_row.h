/**
 * @file
 * An event as a row of a table, and back, byte for byte.
 */
#ifndef EVARCHIVER_EVENT_ROW_H
#define EVARCHIVER_EVENT_ROW_H

#include "store.h"

namespace evarchive {

/** The columns that an event's image is split into. */
struct EventRow {
    U32_t sequenceId = 0;
    U32_t time = 0; ///< evTime: seconds since 1970-01-01 UTC
    U16_t event = 0;
    U8_t source = 0;
    U8_t type = 0;
    U8_t category = 0;
    U8_t idVersion = 0;
    /** The header as it came, where the columns and the log's key do not give it back: bytes behind
     * a text's NUL, another identity than the log's, a length that is not the data's. */
    std::optional<Bytes> head;
    Bytes data;

    bool operator==(const EventRow&) const = default;
};

/** @param image EmpEvLogMsg_t, at least its header
 *  @param key   of the log that it is filed in */
EventRow rowOf(View image, const SeriesKey& key);

/** The image again. */
Bytes imageOfRow(const EventRow& row, const SeriesKey& key);

} // namespace evarchive

#endif
