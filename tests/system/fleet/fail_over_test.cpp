/** A primary that is killed, a server that does not answer: nothing acknowledged is lost, nothing
 * is stored twice, no blade dies. FLEET_ROUNDS=n does it n times, see scripts/prove.
 */
#include "fleet_fixture.h"
#include "postgres/fleet_database.h"
#include "postgres/pg_store.h"

#include <csignal>

using namespace support;
using namespace fleet;
using testing::HasSubstr;

namespace {

int rounds() {
    const char* text = getenv("FLEET_ROUNDS");
    return text != nullptr ? std::atoi(text) : 1;
}

/** A place with two hosts: the one that can be written is taken. */
std::string placeOf(const PgServer& first, const PgServer& second) {
    return "postgresql:///postgres?user=postgres&host=" + first.socketDirectory() + "," +
           second.socketDirectory();
}

class FailOverTest : public FleetProcessTest {
  protected:
    void failOver() {
        PgServer primary({"wal_keep_size=64"});
        PgServer standby(primary, "standby");
        primary.sql("ALTER SYSTEM SET synchronous_standby_names = 'standby'");
        primary.sql("SELECT pg_reload_conf()");
        ASSERT_TRUE(waitUntil(
            [&] { return primary.sql("SELECT sync_state FROM pg_stat_replication") == "sync\n"; }));
        const std::string place = placeOf(primary, standby);
        evarchive::createFleet(place, 4, time(nullptr));
        archivers_.clear();
        startArchiver(place);
        startArchiver(place);
        RealBlade blade;
        blade.connectTo(archivers_.front().port);
        // 20,000 events of 200 blades.
        const auto fleet = startFleet(place, {"--blades", "200", "--events", "99", "--rate", "50"});
        blade.log(100);
        ASSERT_TRUE(waitUntil(
            [&] { return std::stoul(primary.sql("SELECT count(*) FROM events")) > 4000; }));
        primary.kill();
        blade.log(100);
        standby.sql("ALTER SYSTEM SET synchronous_standby_names = ''");
        standby.promote();
        EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
        EXPECT_THAT(fleet->output(),
                    HasSubstr("\"held\":20000,\"missing\":0,\"twice\":0,\"corrupt\":0"));
        EXPECT_EQ(
            standby.sql("SELECT count(*) - count(DISTINCT (log, generation, id)) FROM events"),
            "0\n");
        const auto archive = evarchive::openPgArchiveForReading(place);
        EXPECT_TRUE(waitUntil([&] {
            blade.pass();
            return blade.isArchived(*archive);
        }));
        EXPECT_TRUE(blade.isAlive());
        stopArchivers();
    }
};

} // namespace

TEST_F(FailOverTest, PrimaryThatIsKilledInMidIngestLosesNothing) {
    for (int round = 0; round < rounds() && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        failOver();
    }
}

TEST_F(FailOverTest, ServerThatDoesNotAnswerShedsLinksAndLosesNothing) {
    const std::string place = sharedPgServer().makeDatabase("away");
    evarchive::createFleet(place, 4, time(nullptr));
    startArchiver(place, {"--spool", "65536"});
    RealBlade blade;
    blade.connectTo(archivers_.front().port);
    const auto fleet = startFleet(place, {"--blades", "50", "--events", "99", "--rate", "50"});
    ASSERT_TRUE(waitUntil([&] {
        return std::stoul(sharedPgServer().sql("SELECT count(*) FROM events", "away")) > 500;
    }));
    sharedPgServer().freeze();
    blade.log(50); // is taken all the same
    archivers_.front().process->waitForOutput("too much waits");
    sharedPgServer().thaw();
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(), HasSubstr("\"missing\":0,\"twice\":0,\"corrupt\":0"));
    blade.connectTo(archivers_.front().port); // its own timer would take 300 s
    const auto archive = evarchive::openPgArchiveForReading(place);
    EXPECT_TRUE(waitUntil([&] {
        blade.pass();
        return blade.isArchived(*archive);
    }));
    EXPECT_TRUE(blade.isAlive());
    stopArchivers();
}
