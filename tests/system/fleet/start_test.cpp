/** An archiver that is started before its database server. */
#include "blade_link.h"
#include "fleet_fixture.h"

#include <csignal>
#include <thread>

using namespace support;
using namespace fleet;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char AWAY[] = "; not listening until the archive is there, tried again";

class ArchiverStartTest : public FleetProcessTest {
  protected:
    /** How it ends that is started with the server as it is. */
    void expectRefusal(const std::string& place, const std::string& why) {
        SCOPED_TRACE(place);
        Process archiver(commandOf("evarchiver", {"--listen", "127.0.0.1:0", "--db", place}),
                         directory_.file("refused"));
        EXPECT_EQ(archiver.wait(), exitedWith(2));
        EXPECT_THAT(archiver.errorOutput(), HasSubstr(why));
        EXPECT_THAT(archiver.output(), Not(HasSubstr(AWAY)));
    }

    PgServer server_;
    std::string place_ = server_.place();
};

} // namespace

TEST_F(ArchiverStartTest, ServerThatComesLaterIsWaitedFor) {
    runDb({"create", "--db", place_, "--retention-days", "4"});
    server_.stop();
    const U16_t figures = freePort();
    const U16_t port = freePort();
    Archiver& archiver = startWaiting(
        place_, {"--listen", std::to_string(port), "--metrics", std::to_string(figures)});
    archiver.process->waitForOutput(AWAY);
    EXPECT_THROW(BladeLink(port, 0), std::exception) << "nothing listens";
    EXPECT_THAT(scrape(figures, "/ready"),
                AllOf(StartsWith("HTTP/1.1 503 "), EndsWith("\nthe archive is not there yet\n")));
    EXPECT_THAT(scrape(figures), HasSubstr("\nevarchiver_archive_away 1\n"));
    std::this_thread::sleep_for(std::chrono::seconds(1)); // some tries
    server_.start();
    archiver.process->waitForOutput("the archive is there");
    archiver.process->waitForOutput("listening on ");
    requireSoon([&] { return scrape(figures, "/ready").ends_with("\nready\n"); },
                "the archiver to be ready");
    EXPECT_THAT(scrape(figures), HasSubstr("\nevarchiver_archive_away 0\n"));
    BladeLink link(port);
    link.ask(statusRequest({}, 0, {1, 2, 3}, 1));
    link.send(eventMessage({.id = 0}));
    ASSERT_TRUE(waitForServer([&] { return server_.sql("SELECT count(*) FROM events") == "1\n"; }));
    const std::string output = archiver.process->output();
    EXPECT_EQ(output.find(AWAY), output.rfind(AWAY)) << "said once: " << output;
    stopArchivers();
}

TEST_F(ArchiverStartTest, EndIsTakenWhileTheServerIsWaitedFor) {
    server_.stop();
    startWaiting(place_).process->waitForOutput(AWAY);
    stopArchivers();
}

TEST_F(ArchiverStartTest, WhatWaitingDoesNotMendEndsItAtOnce) {
    expectRefusal(server_.place("nothing"), "database \"nothing\" does not exist");
    expectRefusal(place_, "no event archive");
    expectRefusal(place_ + "?sslmode=nonsense", "invalid sslmode value: \"nonsense\"");
    expectRefusal(place_ + "?options=-c%20nonsense%3D1",
                  "unrecognized configuration parameter \"nonsense\"");
    server_.sql("CREATE ROLE idle NOLOGIN");
    std::string other = place_;
    expectRefusal(other.replace(other.find("postgres@"), 8, "idle"),
                  "role \"idle\" is not permitted to log in");
    runDb({"create", "--db", place_, "--retention-days", "4"});
    server_.sql("UPDATE meta SET value = '1' WHERE name = 'layout'");
    expectRefusal(place_, "layout 1 of the archive is not known");
}

TEST_F(ArchiverStartTest, ServerThatComesWithoutAnArchiveEndsIt) {
    server_.stop();
    const auto archiver = std::move(startWaiting(place_).process);
    archiver->waitForOutput(AWAY);
    server_.start();
    EXPECT_EQ(archiver->wait(), exitedWith(2));
    EXPECT_THAT(archiver->errorOutput(), HasSubstr("no event archive"));
}

TEST_F(ArchiverStartTest, ServerThatIsFullIsWaitedFor) {
    runDb({"create", "--db", place_, "--retention-days", "4"});
    server_.sql("CREATE ROLE one LOGIN CONNECTION LIMIT 0; GRANT ev_writer TO one");
    std::string place = place_;
    place.replace(place.find("postgres@"), 8, "one");
    Archiver& archiver = startWaiting(place);
    archiver.process->waitForOutput(AWAY);
    server_.sql("ALTER ROLE one CONNECTION LIMIT -1");
    awaitPort(archiver);
    stopArchivers();
}
