/**
 * @file
 * An archive of its own for each test, as its owner sees it.
 */
#ifndef FLEET_DATABASE_FIXTURE_H
#define FLEET_DATABASE_FIXTURE_H

#include "archive.h"
#include "fleet_server.h"

namespace fleet {

using namespace evarchive;
using support::eventBody;

constexpr S64_t DAY = 86'400;

class FleetDatabaseTest : public testing::Test {
  protected:
    ~FleetDatabaseTest() override { server().sql("DROP DATABASE " + name_ + " WITH (FORCE)"); }

    void file(const std::vector<std::pair<U32_t, S64_t>>& events, S64_t received) {
        const auto store = openPgArchive(place_, Received::AS_TOLD);
        const Claim claim = store->claim(key_, 0);
        const GenerationKey generation{claim.series, 1};
        store->begin();
        if (!claim.newest) {
            store->addGeneration(generation, NOW);
        }
        for (const auto& [id, time] : events) {
            store->addEvent(generation,
                            {id, eventBody({.id = id, .time = static_cast<U32_t>(time)}), true,
                             false, received});
        }
        store->commit();
    }

    /** What a blade is told whose log begins with this id. */
    static StatusVerdict handshake(Archive& archive, U32_t first) {
        const StatusVerdict verdict = archive.answerStatus(
            1, imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, first, {1, 2, 3})));
        archive.commit();
        return verdict;
    }

    static Bytes bodyOf(U32_t id, S64_t time) {
        return eventBody({.id = id, .time = static_cast<U32_t>(time)});
    }

    std::string sql(const std::string& statements) { return server().sql(statements, name_); }

    bool isSomebodyWaiting() {
        return sql("SELECT count(*) FROM pg_locks WHERE NOT granted") != "0\n";
    }

    /** A copy of an archive that is made once. */
    static std::string freshArchive(const std::string& name) {
        static const std::string original = [] {
            createFleet(server().makeDatabase("as_made"), 4, NOW);
            return "as_made";
        }();
        server().sql("CREATE DATABASE " + name + " TEMPLATE " + original);
        return server().place(name);
    }

    std::string name_ = "upkeep";
    std::string place_ = freshArchive(name_);
    SeriesKey key_{{"ENC-A", "BLADE-1", 1}, 1};
};

} // namespace fleet

#endif
