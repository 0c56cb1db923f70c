/** An archive that is spread over servers: who has which log, and how they look like one. */
#include "fleet_server.h"
#include "postgres/log_number.h"
#include "postgres/pg_connection.h"

using namespace evarchive;
using fleet::NOW;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

namespace {

class FleetHubTest : public testing::Test {
  protected:
    /** A log with an event, filed at the server that has it. */
    void file(const SeriesKey& key) {
        const std::vector<std::string> nodes = nodesOf(hub_);
        const U32_t node = nodeOfLog(key, 2);
        const auto store = openPgNode(nodes.at(node), node, 2);
        const Claim claim = store->claim(key, 0);
        store->begin();
        store->addGeneration({claim.series, 1}, NOW);
        store->addEvent({claim.series, 1}, {0, eventBody({.id = 0}), true, false, NOW});
        store->commit();
    }

    static std::string count(const std::string& database) {
        return server().sql("SELECT count(*) FROM events", database);
    }

    std::string hub_ = fleet::emptyHub();
};

} // namespace

TEST_F(FleetHubTest, LogsOfAllServersAreOneArchive) {
    for (U32_t slot = 0; slot < 20; ++slot) {
        file({{"ENC-A", "BLADE-1", slot}, 1});
    }
    EXPECT_EQ(count("hub"), "20\n");
    EXPECT_NE(count("node1"), "0\n");
    EXPECT_NE(count("node2"), "0\n");
    const auto archive = openPgArchiveForReading(hub_);
    EXPECT_EQ(archive->listGenerations().size(), 20U);
    for (U32_t slot = 0; slot < 20; ++slot) {
        const auto series = archive->findSeries({{"ENC-A", "BLADE-1", slot}, 1});
        ASSERT_TRUE(series);
        EXPECT_EQ(archive->heldEvent({*series, 1}, 0)->image, eventBody({.id = 0}));
    }
}

TEST_F(FleetHubTest, QuestionAboutALogGoesToItsServerOnly) {
    const SeriesNumber log = logNumber(identityOf({{"ENC-A", "BLADE-1", 1}, 1}));
    const std::string plan = server().sql(
        "EXPLAIN (COSTS OFF) SELECT * FROM event_list WHERE log = " + std::to_string(log), "hub");
    const U32_t node = nodeOf(log, 2);
    EXPECT_THAT(plan, HasSubstr("events_" + std::to_string(node + 1)));
    EXPECT_THAT(plan, testing::Not(HasSubstr("events_" + std::to_string(2 - node))));
}

TEST_F(FleetHubTest, ServerIsFiledIntoOnlyAsWhatItIs) {
    const std::vector<std::string> nodes = nodesOf(hub_);
    EXPECT_THAT([&] { openPgArchive(nodes[0]); },
                ThrowsMessage<StoreError>(HasSubstr("server 1 of 2 of a spread archive")));
    EXPECT_THAT([&] { openPgNode(nodes[0], 1, 2); },
                ThrowsMessage<StoreError>(HasSubstr("not 2 of 2")));
    EXPECT_THAT([&] { openPgNode(fleet::emptyArchive(), 0, 2); },
                ThrowsMessage<StoreError>(HasSubstr("not spread over servers")));
    EXPECT_NO_THROW(openPgArchiveForReading(nodes[0]));
}

TEST_F(FleetHubTest, ServerThatHasAnothersLogsIsRefused) {
    const std::string hub = server().makeDatabase("wrong_hub");
    const std::string first = server().makeDatabase("wrong1");
    const std::string second = server().makeDatabase("wrong2");
    createFleet(first, 4, NOW);
    createFleet(second, 4, NOW);
    server().sql("INSERT INTO logs (log, identity, enclosure, blade, slot, instance) VALUES "
                 "(5, 'x', 'E', 'B', 1, 1)",
                 "wrong1");
    EXPECT_THAT(
        [&] {
            createHub(hub, {first, second});
        },
        ThrowsMessage<StoreError>(HasSubstr("another server's part")));
    EXPECT_NO_THROW(createHub(hub, {second, first}));
    EXPECT_THAT(
        [&] {
            createHub(hub, {second, first});
        },
        ThrowsMessage<StoreError>(HasSubstr("there is an archive already")));
    const std::string other = server().makeDatabase("other_hub");
    EXPECT_THAT(
        [&] {
            createHub(other, {first, second});
        },
        ThrowsMessage<StoreError>(HasSubstr("another")));
}

TEST_F(FleetHubTest, PlaceThatIsNoHubHasNoServers) {
    EXPECT_THAT(nodesOf(fleet::emptyArchive()), IsEmpty());
}

TEST_F(FleetHubTest, UpkeepGoesToEachServer) {
    EXPECT_THAT(maintainFleet(hub_, 0, NOW).made, IsEmpty());
    std::ostringstream out;
    EXPECT_EQ(describeFleet(hub_, NOW, out), 0U);
    EXPECT_THAT(out.str(), HasSubstr("server 2 of 2:"));
    EXPECT_EQ(upgradeFleet(hub_), PG_LAYOUT);
}

TEST_F(FleetHubTest, UpkeepOfOneServerDoesNotWaitForAnother) {
    server().sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'node1'");
    server().sql("ALTER DATABASE node1 RENAME TO node_away");
    const FleetUpkeep upkeep = maintainFleet(hub_, 0, NOW + 86'400);
    server().sql("ALTER DATABASE node_away RENAME TO node1");
    EXPECT_THAT(upkeep.failed, testing::ElementsAre(HasSubstr("server 1 of 2: ")));
    EXPECT_THAT(upkeep.made, testing::SizeIs(1));
}

TEST_F(FleetHubTest, OneMaintenanceOfAllServersAtATime) {
    PgConnection other(nodesOf(hub_)[1], PgPatience::endless());
    other.execute("BEGIN; SELECT 1 FROM meta WHERE name = 'maintenance' FOR UPDATE");
    EXPECT_THAT([this] { maintainFleet(hub_, 0, NOW + 2 * 86'400); },
                ThrowsMessage<StoreError>(HasSubstr("another maintenance is at work")));
    other.execute("COMMIT");
    EXPECT_THAT(maintainFleet(hub_, 0, NOW + 2 * 86'400).made, testing::Not(IsEmpty()))
        << "nothing was done before";
}
