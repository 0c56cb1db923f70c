#include "fleet_hub.h"

#include "fleet_names.h"
#include "fleet_owner.h"
#include "fleet_sql.h"
#include "log_number.h"

namespace evarchive {
namespace {

constexpr const char* SPREAD_TABLES[] = {"logs", "generations", "events", "set_aside"};

std::string boundOf(U32_t node, U32_t nodes) {
    if (node == 0) {
        return "MINVALUE";
    }
    const auto first = firstLogOf(node, nodes);
    return first ? std::to_string(*first) : "MAXVALUE";
}

// The server, the user there, and a part of each table.
std::string sqlOfNode(const std::string& place, U32_t node, U32_t nodes) {
    const std::string number = std::to_string(node + 1);
    const std::string server = "node" + number;
    std::string options = "fetch_size '1000', batch_size '1000', async_capable 'true'";
    std::string user;
    bool hasPassword = false;
    for (const auto& [name, value] : placeOptions(place)) {
        const bool isUsers = name == "user" || name == "password";
        hasPassword = hasPassword || name == "password";
        (isUsers ? user : options) += std::string((isUsers ? user : options).empty() ? "" : ", ") +
                                      name + " " + quoted(value);
    }
    if (!hasPassword) {
        user += std::string(user.empty() ? "" : ", ") + "password_required 'false'";
    }
    std::string sql = "CREATE SERVER " + server + " FOREIGN DATA WRAPPER postgres_fdw OPTIONS (" +
                      options + "); CREATE USER MAPPING FOR CURRENT_USER SERVER " + server +
                      " OPTIONS (" + user + "); INSERT INTO nodes VALUES (" + number + ", " +
                      quoted(place) + "); ";
    for (const std::string table : SPREAD_TABLES) {
        sql += "CREATE FOREIGN TABLE " + table + "_" + number + " PARTITION OF " + table +
               " FOR VALUES FROM (" + boundOf(node, nodes) + ") TO (" + boundOf(node + 1, nodes) +
               ") SERVER " + server + " OPTIONS (table_name '" + table + "'); ";
    }
    return sql;
}

// From now on it takes logs of its own part only.
void enlist(const std::string& place, U32_t node, U32_t nodes) {
    FleetOwner owner(place);
    owner.requireLayout();
    const PgStatement list{"list", "SELECT log FROM logs"};
    const PgRows logs = owner.connection().run(list);
    for (int row = 0; row < logs.count(); ++row) {
        if (nodeOf(logs.integer(row, 0), nodes) != node) {
            throw StoreError(owner.connection().placeShown() +
                             ": it holds logs of another server's part");
        }
    }
    const std::string name = nodeName(node, nodes);
    owner.inTransaction("INSERT INTO meta VALUES ('node', '" + name + "') ON CONFLICT DO NOTHING");
    const PgStatement ask{"node", "SELECT value FROM meta WHERE name = 'node'"};
    const std::string is = owner.connection().run(ask).text(0, 0);
    if (is != name) {
        throw StoreError(owner.connection().placeShown() + ": it is server " + is +
                         " of another hub");
    }
}

} // namespace

void createHub(const std::string& place, const std::vector<std::string>& nodes) {
    const auto count = static_cast<U32_t>(nodes.size());
    if (count == 0 || count > MOST_NODES) {
        throw StoreError("an archive is spread over 1 to " + std::to_string(MOST_NODES) +
                         " servers");
    }
    FleetOwner owner(place);
    if (owner.has("meta")) {
        throw StoreError(owner.connection().placeShown() + ": there is an archive already");
    }
    for (U32_t node = 0; node < count; ++node) {
        enlist(nodes[node], node, count);
    }
    std::string sql = pg::SQL_FDW_HUB;
    for (U32_t node = 0; node < count; ++node) {
        sql += sqlOfNode(nodes[node], node, count);
    }
    owner.inTransaction(sql + pg::SQL_002_HANDSHAKE + pg::SQL_003_OLDEST + sqlOfNames() +
                        pg::SQL_VIEWS + pg::SQL_ROLES + "GRANT SELECT ON nodes TO ev_writer");
}

std::vector<std::string> nodesOf(const std::string& place) {
    FleetOwner owner(place);
    std::vector<std::string> places;
    if (!owner.has("nodes")) {
        return places;
    }
    const PgStatement list{"nodes", "SELECT place FROM nodes ORDER BY number"};
    const PgRows rows = owner.connection().run(list);
    for (int row = 0; row < rows.count(); ++row) {
        places.push_back(rows.text(row, 0));
    }
    return places;
}

U32_t nodeOfLog(const SeriesKey& key, U32_t nodes) {
    return evarchive::nodeOf(logNumber(identityOf(key)), nodes);
}

} // namespace evarchive
