/**
 * @file
 * The events that a salvage finds in its sources.
 */
#ifndef EVLOG_SALVAGE_EVENTS_H
#define EVLOG_SALVAGE_EVENTS_H

#include "evlog/salvage.h"
#include "evlog/search.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace salvage {

/** An event with its place: ids rise with age, and the instance number when they begin again at 0.
 */
struct Event_t {
    U64_t key = 0;                // instance number and sequence id
    std::span<const U8_t> record; // header and data
    size_t source = 0;
    U32_t offset = 0;

    const EmpEvRecord_t& header() const { return *evlogHeaderAt(record, 0); }
    U32_t time() const { return header().evTime; }
};
using Events_t = std::vector<Event_t>;
using Left_t = std::vector<EvlogLeft_t>;
using Owner_t = std::pair<std::string, U32_t>; // enclosure and slot

U64_t keyOf(const EmpEvRecord_t& header);
std::string enclosureOf(const U8_t (&text)[EMP_ID_TEXT_SIZE]);
Owner_t ownerOf(const EmpEvRecord_t& header);

/** The owner that most events of a log name; there is at least one. */
Owner_t mostlyOf(const Events_t& events);

/** Whether two records are alike in all that a checksum covers. */
bool isSame(const Event_t& one, const Event_t& other);

void leave(const Event_t& event, EVLOG_LEFT_e reason, Left_t& left);
void leaveAll(std::span<const Event_t> events, EVLOG_LEFT_e reason, Left_t& left);

/** All events of a log, sorted; also those where the event manager's own walk would not come. */
Events_t readLog(std::span<const U8_t> bytes, size_t source, Left_t& left);

/** The event of an alternate event file, its key open. */
std::optional<Event_t> readWaiting(std::span<const U8_t> bytes, size_t source, Left_t& left);

} // namespace salvage

#endif
