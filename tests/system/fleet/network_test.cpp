/** Real networks between the parts, as namespaces: a bad line before the server, and two archivers
 * behind one address. FLEET_CROWD=full takes as many event managers as scripts/prove does.
 */
#include "crowd.h"
#include "fleet_fixture.h"
#include "network.h"
#include "one_address.h"
#include "postgres/pg_store.h"

#include <csignal>
#include <cstdio>

using namespace support;
using namespace fleet;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

/** How hard event managers are tried. */
struct Course {
    U32_t blades;
    U32_t alone; ///< more that have no archiver
    double rate; ///< events a second of each
    Crowd::Clock::duration each;
    Crowd::Clock::duration away; ///< the store, at least
    std::string spool;           ///< full well within that time
    double least;                ///< of the usual intake
};

Course course() {
    const char* text = getenv("FLEET_CROWD");
    if (text != nullptr && std::string(text) == "full") {
        return {64, 16, 500, 5s, 30s, "67108864", 0.9};
    }
    return {4, 2, 200, 600ms, 600ms, "131072", 0.8};
}

class OneAddressTest : public FleetProcessTest {
  protected:
    static constexpr U16_t PORT = 4711;

    void SetUp() override {
        if (const std::string why = OneAddress::whyNot(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        machines_ = std::make_unique<OneAddress>(directory_.file("machine"));
        place_ = sharedPgServer().makeDatabase("crowd");
        runDb({"create", "--db", place_, "--retention-days", "4"});
    }

    void startOn(int machine) {
        const std::vector<std::string> command = machines_->on(
            machine, commandOf("evarchiver", {"--listen", "10.98.0.1:4711", "--db", place_,
                                              "--progress", "0", "--spool", course().spool}));
        auto& process = on_[machine];
        process = std::make_unique<Process>(
            command, directory_.file("archiver" + std::to_string(++starts_)));
        process->waitForOutput("listening on ");
    }

    void kill(int machine) {
        on_[machine]->signal(SIGKILL);
        on_[machine]->wait();
    }

    bool says(int machine, const std::string& text) const {
        return on_[machine]->output().find(text) != std::string::npos;
    }

    std::string sql(const std::string& statements) {
        return sharedPgServer().sql(statements, "crowd");
    }

    /** Whether the event managers took events as they usually do beside those without an archiver,
     * and none died. */
    void expectNothingNoticed(Crowd& crowd, const std::string& when, const Intake& intake) const {
        std::printf("%-44s %6.1f events/s taken by each, %6.1f without an archiver, none waited "
                    "longer than %lld ms\n",
                    when.c_str(), intake.perSecond, intake.alone,
                    static_cast<long long>(intake.worst.count()));
        std::fflush(stdout);
        EXPECT_GE(intake.perSecond / intake.alone, course().least * usual_) << when;
        EXPECT_EQ(crowd.countAlive(), course().blades + course().alone) << when;
    }

    std::unique_ptr<OneAddress> machines_;
    std::unique_ptr<Process> on_[OneAddress::MACHINES];
    std::string place_;
    double usual_ = 0; ///< intake of one, in that of one without an archiver
    int starts_ = 0;
};

/** A bad line of a few hundred kilometres. */
constexpr Roughness ROUGH{3ms, 6ms, 20};

} // namespace

TEST_F(OneAddressTest, RealEventManagersNoticeNothingOfWhatHappensBehindIt) {
    const Course course = ::course();
    startOn(0);
    startOn(1);
    Crowd crowd(course.blades, course.alone, course.rate);
    crowd.connectTo(OneAddress::ADDRESS, PORT);
    Intake intake = crowd.log(course.each);
    usual_ = intake.perSecond / intake.alone;
    expectNothingNoticed(crowd, "all is well", intake);
    EXPECT_GT(usual_, 0.5);

    sharedPgServer().freeze();
    intake = crowd.log(course.away,
                       [this] { return says(0, "too much waits") || says(1, "too much waits"); });
    expectNothingNoticed(crowd, "the store is away, archivers at their budget", intake);
    sharedPgServer().thaw();

    kill(0);
    intake = crowd.log(course.each);
    expectNothingNoticed(crowd, "one archiver is killed, nobody knows", intake);
    machines_->spreadOver({1});
    intake = crowd.log(course.each);
    expectNothingNoticed(crowd, "and its packets go to the other one", intake);
    kill(1);
    intake = crowd.log(course.each);
    expectNothingNoticed(crowd, "no archiver is left", intake);

    startOn(0);
    startOn(1);
    machines_->spreadOver({0, 1});
    crowd.connectTo(OneAddress::ADDRESS, PORT);
    intake = crowd.log(course.each);
    expectNothingNoticed(crowd, "both are back", intake);
    const auto archive = evarchive::openPgArchiveForReading(place_);
    EXPECT_TRUE(waitForServer(
        [&] {
            crowd.pass();
            return crowd.countArchived(*archive) == course.blades;
        },
        120s));
    for (const auto& archiver : on_) {
        archiver->signal(SIGTERM);
        EXPECT_EQ(archiver->wait(), exitedWith(0)) << archiver->output();
        EXPECT_EQ(archiver->errorOutput(), "");
    }
    EXPECT_EQ(crowd.countArchived(*archive), course.blades);
    EXPECT_EQ(sql("SELECT count(*) - count(DISTINCT (log, id)) FROM events"), "0\n");
    EXPECT_EQ(sql("SELECT count(*) FROM generations"), std::to_string(course.blades) + "\n");
}

class BadLineTest : public FleetProcessTest {};

TEST_F(BadLineTest, ServerBehindABadLineThatBreaksGetsAllOnce) {
    const Wire wire{1500, "", ROUGH};
    if (const std::string why = Network::whyNot(wire); !why.empty()) {
        GTEST_SKIP() << why;
    }
    Network network(wire, directory_.file("far"));
    PgServer server({"listen_addresses=10.99.0.1"});
    server.sql("COPY (SELECT 'host all all 10.99.0.0/24 trust') TO PROGRAM 'cat >>pg_hba.conf'");
    server.sql("SELECT pg_reload_conf()");
    runDb({"create", "--db", server.place(), "--retention-days", "4"});
    Process archiver(
        network.inFar(commandOf("evarchiver", {"--listen", "127.0.0.1:4711", "--db",
                                               "postgresql://postgres@10.99.0.1/postgres"})),
        directory_.file("archiver"));
    archiver.waitForOutput("listening on ");
    Process fleet(network.inFar(commandOf(
                      "evfleet", {"--to", "127.0.0.1:4711", "--check", server.place(), "--json",
                                  "--progress", "0", "--blades", "20", "--events", "49", "--rate",
                                  "40", "--reconnect", "200", "--settle", "60"})),
                  directory_.file("fleet"));
    const auto events = [&] { return std::stoul(server.sql("SELECT count(*) FROM events")); };
    ASSERT_TRUE(waitForServer([&] { return events() > 200; }));
    network.setUp(false);
    archiver.waitForOutput("events wait, tried again");
    network.setUp(true);
    EXPECT_EQ(fleet.wait(100s), exitedWith(0)) << fleet.output();
    EXPECT_THAT(fleet.output(),
                HasSubstr("\"lost\":0,\"held\":1000,\"missing\":0,\"twice\":0,\"corrupt\":0"));
    EXPECT_GT(network.rough()->lost(), 0U);
    archiver.signal(SIGTERM);
    EXPECT_EQ(archiver.wait(), exitedWith(0)) << archiver.output();
}
