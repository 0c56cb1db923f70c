#include "reader.h"

#include "sqlite_store.h"

namespace evarchive {
namespace {

std::unique_ptr<StoreReader> refuseServer(const std::string& database) {
    throw StoreError(shownPlace(database) +
                     ": archives on servers are read by evctl-pg, which is not installed");
}

OpenReader serverReader = refuseServer;

} // namespace

bool isPgPlace(const std::string& database) {
    return database.starts_with("postgresql://") || database.starts_with("postgres://");
}

std::string shownPlace(const std::string& database) {
    if (!isPgPlace(database)) {
        return database;
    }
    std::string shown = database.substr(0, database.find('?'));
    const std::size_t user = shown.find("://") + 3;
    const std::size_t end = shown.rfind('@', shown.find('/', user)); // a password may hold one
    const std::size_t colon = shown.find(':', user);
    if (end != std::string::npos && end > user && colon < end) {
        shown.erase(colon, end - colon);
    }
    return shown;
}

void useServerReader(OpenReader open) {
    serverReader = open;
}

std::unique_ptr<StoreReader> openForReading(const std::string& database) {
    return isPgPlace(database) ? serverReader(database) : openArchiveForReading(database);
}

} // namespace evarchive
