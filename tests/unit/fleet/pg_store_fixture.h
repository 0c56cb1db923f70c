/**
 * @file
 * Archivers, as the engine sees them, on one PostgreSQL server.
 */
#ifndef FLEET_PG_STORE_FIXTURE_H
#define FLEET_PG_STORE_FIXTURE_H

#include "archive.h"
#include "fleet_server.h"
#include "postgres/pg_engine.h"

#include <numeric>

namespace fleet {

using namespace evarchive;
using support::eventBody;

class PgStoreTest : public testing::Test {
  protected:
    static void add(Store& store, const GenerationKey& generation, U32_t id, U32_t time = 1000,
                    bool doubtful = false) {
        store.addEvent(generation,
                       {id, eventBody({.id = id, .time = time}), true, doubtful, fleet::NOW});
    }

    static Bytes bodyOf(U32_t id) { return eventBody({.id = id, .time = 1000}); }

    /** A claim, and a generation with these events, committed. */
    GenerationKey fill(Store& store, const std::vector<U32_t>& ids) {
        const Claim claim = store.claim(key_, 0);
        const GenerationKey generation{claim.series, 1};
        store.begin();
        if (!claim.newest) {
            store.addGeneration(generation, fleet::NOW);
        }
        for (const U32_t id : ids) {
            add(store, generation, id);
        }
        store.commit();
        return generation;
    }

    static std::vector<S64_t> lostAt(Store& store) {
        try {
            store.commit();
        } catch (const StoreConflict& conflict) {
            store.rollback();
            return conflict.lost();
        }
        ADD_FAILURE() << "it was committed";
        return {};
    }

    static U64_t count(const std::string& table) {
        return std::stoull(server().sql("SELECT count(*) FROM " + table, "contract"));
    }

    /** Statements that the archive's server was sent so far. */
    static U64_t callsOf(const std::string& like) {
        static const bool isThere = [] {
            server().sql("CREATE EXTENSION IF NOT EXISTS pg_stat_statements", "contract");
            return true;
        }();
        return isThere ? std::stoull(server().sql("SELECT coalesce(sum(calls), 0) FROM "
                                                  "pg_stat_statements WHERE query LIKE '" +
                                                      like + "'",
                                                  "contract"))
                       : 0;
    }

    std::string place_ = fleet::emptyArchive();
    std::unique_ptr<Store> store_ = openPgArchive(place_);
    std::unique_ptr<Store> other_ = openPgArchive(place_);
    SeriesKey key_{{"ENC-A", "BLADE-1", 1}, 1};
};

} // namespace fleet

#endif
