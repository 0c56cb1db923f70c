/**
 * @file
 * An archive that is spread over several servers: which log is where, and the hub, a database in
 * which they look like one.
 */
#ifndef EVARCHIVER_FLEET_HUB_H
#define EVARCHIVER_FLEET_HUB_H

#include "store.h"

#include <memory>
#include <string>
#include <vector>

namespace evarchive {

/**
 * Makes the hub in an empty database, and tells each server which part of the archive is its own.
 * Throws StoreError, also when a server has no archive, has logs that belong elsewhere, or belongs
 * to another hub.
 * @param nodes their places; archivers will connect there
 */
void createHub(const std::string& place, const std::vector<std::string>& nodes);

/** The servers' places, as the hub tells them; none when the place is no hub. Throws StoreError. */
std::vector<std::string> nodesOf(const std::string& place);

/** Which of so many servers has a log, from 0 on. */
U32_t nodeOfLog(const SeriesKey& key, U32_t nodes);

} // namespace evarchive

#endif
