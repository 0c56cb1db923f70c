/**
 * @file
 * The connection of an archive's owner.
 */
#ifndef EVARCHIVER_FLEET_OWNER_H
#define EVARCHIVER_FLEET_OWNER_H

#include "pg_statements.h"
#include "pg_store.h"

namespace evarchive {

/** A literal of SQL. */
inline std::string quoted(const std::string& text) {
    std::string literal = "'";
    for (const char letter : text) {
        literal += letter == '\'' ? "''" : std::string(1, letter);
    }
    return literal + "'";
}

/** No statement of an owner is cut short. */
class FleetOwner {
  public:
    explicit FleetOwner(const std::string& place) : connection_(place, PgPatience::endless()) {}

    PgConnection& connection() { return connection_; }

    bool has(const char* table) {
        const PgStatement ask{"has", "SELECT to_regclass($1)::text"};
        return !connection_.run(ask, PgParameters().text(table)).isNull(0, 0);
    }

    S64_t layout() {
        if (!has("meta")) {
            throw StoreError(connection_.placeShown() +
                             ": no event archive; \"evarchiver db create\" makes one");
        }
        return std::stoll(connection_.run(pg::LAYOUT).text(0, 0));
    }

    void requireLayout() {
        const S64_t found = layout();
        if (found != PG_LAYOUT) {
            throw StoreError(connection_.placeShown() + ": layout " + std::to_string(found) +
                             " of the archive is not known");
        }
    }

    /** All of it or nothing. */
    void inTransaction(const std::string& sql) {
        try {
            connection_.execute("BEGIN; " + sql + "; COMMIT");
        } catch (const PgError&) {
            if (connection_.isOpen()) {
                connection_.execute("ROLLBACK");
            }
            throw;
        }
    }

  private:
    PgConnection connection_;
};

} // namespace evarchive

#endif
