#include "engine.h"

#include "sqlite_store.h"

namespace evarchive {

Engine engineOf(const std::string& database) {
    return {.usualLanes = 1, .connect = archiveConnector(database)};
}

} // namespace evarchive
