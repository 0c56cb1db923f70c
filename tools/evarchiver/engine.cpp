#include "engine.h"

#include "sqlite_store.h"

#ifdef EVARCHIVER_POSTGRES
#include "postgres/fleet_hub.h"
#include "postgres/pg_store.h"
#endif

namespace evarchive {

#ifdef EVARCHIVER_POSTGRES

bool hasPostgres() {
    return true;
}

Engine engineOf(const std::string& database) {
    if (!isPgPlace(database)) {
        return {.usualLanes = 1, .connect = archiveConnector(database)};
    }
    Engine engine{.usualLanes = 2,
                  .connect = [database] { return openPgArchive(database); },
                  .isKeptByLanes = false};
    if (const auto places = nodesOf(database); !places.empty()) {
        const auto nodes = static_cast<U32_t>(places.size());
        engine.spread = {
            nodes, [places, nodes](U32_t node) { return openPgNode(places.at(node), node, nodes); },
            [nodes](const SeriesKey& key) { return nodeOfLog(key, nodes); }};
    }
    return engine;
}

std::unique_ptr<StoreReader> readerOf(const std::string& database) {
    return isPgPlace(database) ? openPgArchiveForReading(database)
                               : openArchiveForReading(database);
}

#else

namespace {

void requireFile(const std::string& database) {
    if (isPgPlace(database)) {
        throw StoreError("this program was built without PostgreSQL (libpq)");
    }
}

} // namespace

bool hasPostgres() {
    return false;
}

Engine engineOf(const std::string& database) {
    requireFile(database);
    return {.usualLanes = 1, .connect = archiveConnector(database)};
}

std::unique_ptr<StoreReader> readerOf(const std::string& database) {
    requireFile(database);
    return openArchiveForReading(database);
}

#endif

} // namespace evarchive
