/**
 * @file
 * The shared engine of the archive: a PostgreSQL server, or a pair of them, that any number of
 * archivers file into at once. sql/fleet/ has the tables, docs/fleet.md the reasons.
 *
 * Whoever has answered a log's last handshake owns it. Every transaction that files locks the rows
 * of its logs and sees by their epochs whether they are still its own; of a log that it does not
 * own it looks again whether the ids are free, and leaves a mark by which the owner sees that
 * somebody was there.
 */
#ifndef EVARCHIVER_PG_STORE_H
#define EVARCHIVER_PG_STORE_H

#include "store.h"

#include <memory>

namespace evarchive {

/** The layout of tables that this program knows. */
constexpr S64_t PG_LAYOUT = 3;

/** What an event is filed as having come: when the server gets it, which is when it can be read
 * first, whatever the clocks of archivers say; or what is handed over with it. */
enum class Received : U8_t { BY_SERVER, AS_TOLD };

/**
 * Opens an archive for filing. Throws StoreError when the server cannot be reached, or what it has
 * is no archive or one of another layout.
 * @param place "postgresql://..."
 */
std::unique_ptr<Store> openPgArchive(const std::string& place,
                                     Received received = Received::BY_SERVER);

/** The same for one of the servers that an archive is spread over; one that is away for now may
 * show later. @param node from 0 on */
std::unique_ptr<Store> openPgNode(const std::string& place, U32_t node, U32_t nodes,
                                  Received received = Received::BY_SERVER);

/** What a server is called that has a part of an archive: "1 of 3". */
std::string nodeName(U32_t node, U32_t nodes);

/** Opens an archive for reading only. */
std::unique_ptr<StoreReader> openPgArchiveForReading(const std::string& place);

} // namespace evarchive

#endif
