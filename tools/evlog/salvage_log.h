/**
 * @file
 * The log that a salvage writes.
 */
#ifndef EVLOG_SALVAGE_LOG_H
#define EVLOG_SALVAGE_LOG_H

#include "evlog/salvage_events.h"

namespace salvage {

/** Room for the dummy entry that closes the log is always left. */
constexpr U64_t ROOM = EMP_LOG_FILE_SIZE - EMP_RECORD_SIZE;

/** Writes events, marks for the ids between them and the dummy entry.
 * @param events       sorted, with unique keys, not empty; with the marks they fit in ROOM
 * @param beginsBefore a mark for the id before the first event is the first record
 * @param result       receives bytes, numbers and ids; its identity is the marks' */
void writeLog(const Events_t& events, bool beginsBefore, EvlogSalvage_t& result);

} // namespace salvage

#endif
