/** A primary that is killed, a server that does not answer: nothing acknowledged is lost, nothing
 * is stored twice, no blade dies. FLEET_ROUNDS=n kills n primaries, see scripts/prove.
 */
#include "fleet_fixture.h"
#include "postgres/fleet_database.h"
#include "postgres/pg_store.h"

#include <csignal>

using namespace support;
using namespace fleet;
using testing::HasSubstr;

namespace {

constexpr char NAME[] = "standby";

/** A server and its standby, which change places with each fail-over. */
class Pair {
  public:
    Pair() {
        waitForStandby("async");
        setSynchronous(true);
    }

    PgServer& primary() { return servers_[primary_]; }
    PgServer& standby() { return servers_[1 - primary_]; }

    /** A place with two hosts: the one that can be written is taken. */
    std::string place(const std::string& database) const {
        return "postgresql:///" + database +
               "?user=postgres&host=" + servers_[0].socketDirectory() + "," +
               servers_[1].socketDirectory();
    }

    void setSynchronous(bool isOn) {
        setting("synchronous_standby_names", isOn ? NAME : "");
        waitForStandby(isOn ? "sync" : "async");
    }

    /** Nothing more comes to the standby, and nobody waits for it. */
    void holdStandbyBack() {
        setSynchronous(false);
        standby().sql("ALTER SYSTEM SET primary_conninfo = ''");
        standby().sql("SELECT pg_reload_conf()");
        waitForStandby("");
    }

    /** The primary has been killed: the standby takes its place. */
    void promote() {
        standby().sql("ALTER SYSTEM SET synchronous_standby_names = ''");
        standby().promote();
        primary_ = 1 - primary_;
    }

    /** The one that was killed comes back as a standby. */
    void pairAgain() {
        standby().follow(primary(), NAME);
        waitForStandby("async");
        setSynchronous(true);
    }

  private:
    void setting(const std::string& name, const std::string& value) {
        primary().sql("ALTER SYSTEM SET " + name + " = '" + value + "'");
        primary().sql("SELECT pg_reload_conf()");
    }

    void waitForStandby(const std::string& state) {
        const std::string expected = state.empty() ? "" : state + "\n";
        requireSoon(
            [&] { return primary().sql("SELECT sync_state FROM pg_stat_replication") == expected; },
            "a standby that is " + state);
    }

    PgServer servers_[2] = {PgServer({"wal_keep_size=64"}), PgServer(servers_[0], NAME)};
    int primary_ = 0;
};

/** One for all tests, whole again after each. */
Pair& sharedPair() {
    static Pair pair;
    return pair;
}

class FailOverTest : public FleetProcessTest {
  protected:
    /** Two archivers, a real blade at the first of them. */
    void start(const std::string& database) {
        database_ = database;
        pair_.primary().makeDatabase(database);
        const std::string look = "SELECT datname FROM pg_database WHERE datname = '";
        requireSoon([&] { return pair_.standby().sql(look + database + "'") != ""; },
                    "the standby to have the database");
        evarchive::createFleet(pair_.place(database), 4, time(nullptr));
        startArchiver(pair_.place(database));
        startArchiver(pair_.place(database));
        blade_.connectTo(archivers_.front().port);
    }

    /** Events that a server holds; of one blade, if it is named. */
    U64_t count(PgServer& server, const std::string& condition = "true") const {
        return std::stoull(
            server.sql("SELECT count(*) FROM event_list WHERE " + condition, database_));
    }

    bool reaches(U64_t events) {
        return waitForServer([&] { return count(pair_.primary()) >= events; });
    }

    bool isBladeArchived() {
        return blade_.isArchived(*evarchive::openPgArchiveForReading(pair_.place(database_)));
    }

    bool isBladeArchivedAfter(int passes) {
        for (int pass = 0; pass < passes; ++pass) {
            blade_.pass();
        }
        return isBladeArchived();
    }

    void failOver(int round) {
        const U64_t before = count(pair_.primary());
        // 20,000 events of 200 blades; in the quick run the first time only.
        const unsigned blades = round == 0 || rounds(3) > 3 ? 200 : 50;
        const auto fleet = startFleet(
            pair_.place(database_), {"--blades", std::to_string(blades), "--events", "99", "--rate",
                                     "50", "--enclosure", "ROUND-" + std::to_string(round)});
        blade_.log(100);
        ASSERT_TRUE(reaches(before + 20 * blades));
        pair_.primary().kill();
        blade_.log(100);
        pair_.promote();
        EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
        EXPECT_THAT(fleet->output(),
                    HasSubstr("\"lost\":0,\"held\":" + std::to_string(100 * blades) +
                              ",\"missing\":0,\"twice\":0,\"corrupt\":0"));
        EXPECT_TRUE(waitForServer([this] { return isBladeArchivedAfter(20); }));
        EXPECT_TRUE(blade_.isAlive());
        expectNoneTwice();
        pair_.pairAgain();
    }

    void expectNoneTwice() {
        EXPECT_EQ(
            pair_.primary().sql(
                "SELECT count(*) - count(DISTINCT (log, generation, id)) FROM events", database_),
            "0\n");
    }

    Pair& pair_ = sharedPair();
    std::string database_;
    RealBlade blade_;
};

} // namespace

TEST_F(FailOverTest, PrimaryThatIsKilledInMidIngestLosesNothing) {
    start("killed");
    for (int round = 0; round < rounds(3) && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        failOver(round);
    }
    stopArchivers();
}

// What nobody waited for goes with the primary; the archivers find that out and close the links.
TEST_F(FailOverTest, CommitsThatAStandbyNeverGotAreSentAgain) {
    start("held_back");
    const std::string own = "enclosure = 'CHASSIS-7'";
    const auto fleet =
        startFleet(pair_.place(database_), {"--blades", "100", "--events", "99", "--rate", "25",
                                            "--outages", "1", "--size", "0:300"});
    blade_.log(50);
    ASSERT_TRUE(waitForServer([this] { return isBladeArchived(); }));
    ASSERT_TRUE(reaches(1000));
    pair_.holdStandbyBack();
    blade_.log(50);
    ASSERT_TRUE(waitForServer([this] { return isBladeArchived(); }));
    ASSERT_TRUE(reaches(count(pair_.standby()) + 1000));
    const U64_t had = count(pair_.standby());
    const U64_t bladeHad = count(pair_.standby(), own);
    EXPECT_GE(count(pair_.primary()), had + 1000);
    EXPECT_GE(count(pair_.primary(), own), bladeHad + 50) << "committed, and only there";
    pair_.primary().kill();
    pair_.promote();
    blade_.log(1);
    archivers_.front().process->waitForOutput("its blade speaks to another archiver, closed");
    // It comes back by its own timer, for which its link must have been closed.
    EXPECT_TRUE(waitForServer([this] { return isBladeArchivedAfter(50); }));
    EXPECT_TRUE(blade_.isAlive());
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(),
                HasSubstr("\"lost\":0,\"held\":10000,\"missing\":0,\"twice\":0,\"corrupt\":0"));
    expectNoneTwice();
    stopArchivers();
    pair_.pairAgain();
}

TEST_F(FailOverTest, ServerThatDoesNotAnswerShedsLinksAndLosesNothing) {
    const std::string place = sharedPgServer().makeDatabase("away");
    evarchive::createFleet(place, 4, time(nullptr));
    startArchiver(place, {"--spool", "65536"});
    blade_.connectTo(archivers_.front().port);
    const auto fleet = startFleet(place, {"--blades", "50", "--events", "99", "--rate", "50"});
    ASSERT_TRUE(waitForServer([&] {
        return std::stoul(sharedPgServer().sql("SELECT count(*) FROM events", "away")) > 500;
    }));
    sharedPgServer().freeze();
    blade_.log(50); // is taken all the same
    archivers_.front().process->waitForOutput("too much waits");
    sharedPgServer().thaw();
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(), HasSubstr("\"missing\":0,\"twice\":0,\"corrupt\":0"));
    blade_.connectTo(archivers_.front().port); // its own timer would take 300 s
    const auto archive = evarchive::openPgArchiveForReading(place);
    EXPECT_TRUE(waitForServer([&] {
        blade_.pass();
        return blade_.isArchived(*archive);
    }));
    EXPECT_TRUE(blade_.isAlive());
    stopArchivers();
}
