/**
 * @file
 * An archive on a PostgreSQL server that all tests of the program share, empty before each test.
 */
#ifndef FLEET_SERVER_H
#define FLEET_SERVER_H

#include "pg_server.h"
#include "postgres/fleet_database.h"
#include "postgres/fleet_hub.h"
#include "postgres/pg_store.h"

#include "link_messages.h"

#include <gmock/gmock.h>

namespace fleet {

/** Days since 1970 of the present that these tests pretend: 2023-11-14. */
constexpr S64_t NOW = 1'700'000'000;

inline support::PgServer& server() {
    return support::sharedPgServer();
}

/** The place of an archive that is there once, and empty now. */
inline std::string emptyArchive() {
    static const std::string place = [] {
        const std::string made = server().makeDatabase("contract");
        evarchive::createFleet(made, 4, NOW);
        return made;
    }();
    server().sql(
        "DELETE FROM events; DELETE FROM logs; DELETE FROM generations; DELETE FROM set_aside",
        "contract");
    return place;
}

/** The same, spread over two databases, by its hub. */
inline std::string emptyHub() {
    static const std::string place = [] {
        const std::string hub = server().makeDatabase("hub");
        const std::vector<std::string> nodes = {server().makeDatabase("node1"),
                                                server().makeDatabase("node2")};
        for (const std::string& node : nodes) {
            evarchive::createFleet(node, 4, NOW);
        }
        evarchive::createHub(hub, nodes);
        return hub;
    }();
    for (const char* node : {"node1", "node2"}) {
        server().sql(
            "DELETE FROM events; DELETE FROM logs; DELETE FROM generations; DELETE FROM set_aside",
            node);
    }
    return place;
}

} // namespace fleet

#endif
