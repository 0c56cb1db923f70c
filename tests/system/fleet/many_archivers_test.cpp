/** Several archivers, one PostgreSQL server. */
#include "blade_link.h"
#include "fleet_fixture.h"
#include "postgres/pg_store.h"

#include <csignal>
#include <iomanip>
#include <sstream>

using namespace support;
using namespace fleet;
using testing::HasSubstr;
using testing::Not;

namespace {

class ManyArchiversTest : public FleetProcessTest {
  protected:
    ManyArchiversTest() {
        static int databases = 0;
        name_ = "fleet" + std::to_string(++databases);
        place_ = sharedPgServer().makeDatabase(name_);
        runDb({"create", "--db", place_, "--retention-days", "4"});
    }

    std::string sql(const std::string& statements) {
        return sharedPgServer().sql(statements, name_);
    }

    static Bytes event(U32_t id, U32_t time, const Bytes& data = {1, 2, 3}) {
        return eventMessage({.id = id, .data = data, .time = time});
    }

    /** An event without the header of its message, as SQL writes bytes. */
    static std::string image(const Bytes& message) {
        std::ostringstream text;
        for (std::size_t i = 16; i < message.size(); ++i) {
            text << std::hex << std::setw(2) << std::setfill('0') << int{message[i]};
        }
        return text.str();
    }

    U64_t events() { return std::stoull(sql("SELECT count(*) FROM events")); }

    /** Until the archivers, which have just started, have answered so many. */
    void waitForHandshakes(std::size_t count) {
        const auto begin = std::chrono::steady_clock::now();
        requireSoon([&] { return handshakes() >= count; }, "all to be answered");
        std::printf(
            "%zu handshakes in %.2f s\n", count,
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    }

    std::size_t handshakes() const {
        std::size_t count = 0;
        for (const Archiver& archiver : archivers_) {
            std::istringstream lines(archiver.process->output());
            for (std::string line; std::getline(lines, line);) {
                count += line.find(" claimed") != std::string::npos ? 1 : 0;
            }
        }
        return count;
    }

    std::string name_;
    std::string place_;
};

} // namespace

TEST_F(ManyArchiversTest, FleetThatGoesToAndFroIsWholeByContent) {
    startArchiver(place_);
    startArchiver(place_);
    const auto fleet = startFleet(place_, {"--blades", "40", "--events", "60", "--rate", "60",
                                           "--outages", "2", "--rebuilds", "0.5", "--size", "0:500",
                                           "--ring", "50", "--clock-jumps", "7"});
    EXPECT_EQ(fleet->wait(std::chrono::seconds(90)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(), HasSubstr("\"missing\":0,\"twice\":0,\"corrupt\":0"));
    stopArchivers();
    EXPECT_THAT(runDb({"maintain", "--db", place_}), HasSubstr("0 partitions made"));
}

// All at once at first, and again each time that both archivers were killed in mid-ingest.
TEST_F(ManyArchiversTest, BladesThatComeAllAtOnceAreServedAfterEachOutage) {
    const int outages = rounds(2);
    const unsigned blades = outages > 2 ? 1000 : 300; // of scripts/prove, and here
    startArchiver(place_);
    startArchiver(place_);
    const double rate = 30.0 / (3 * outages); // for some seconds an outage
    const auto fleet = startFleet(place_, {"--blades", std::to_string(blades), "--events", "29",
                                           "--rate", std::to_string(rate)});
    waitForHandshakes(blades);
    for (int outage = 0; outage < outages; ++outage) {
        const U64_t before = events();
        ASSERT_TRUE(waitForServer([&] { return events() > before + 300; }));
        for (Archiver& archiver : archivers_) {
            archiver.process->signal(SIGKILL);
            archiver.process->wait();
        }
        for (Archiver& archiver : archivers_) {
            restart(archiver, place_);
        }
        waitForHandshakes(blades);
    }
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(), HasSubstr("\"lost\":0,\"held\":" + std::to_string(30 * blades) +
                                           ",\"missing\":0,\"twice\":0,\"corrupt\":0"));
    // A matter of speed: asked where nothing else runs. Else a blade that is closed comes again.
    for (std::size_t i = 0; outages > 2 && i < archivers_.size(); ++i) {
        EXPECT_THAT(archivers_[i].process->output(), Not(HasSubstr("does not answer")));
    }
    stopArchivers();
}

// A log that is rebuilt counts from the start. The archive may have met the one before late.
TEST_F(ManyArchiversTest, RebuiltLogThatCountsBelowTheArchivesIsKnownToAnotherArchiver) {
    Archiver& first = startArchiver(place_);
    Archiver& second = startArchiver(place_);
    BladeLink before(first.port);
    before.ask(statusRequest({}, 100, {1, 2, 3}, 1));
    before.send(event(100, 1000) + event(101, 1001) + event(102, 1002) + event(103, 1003));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "4\n"; }));

    BladeLink after(second.port);
    EXPECT_EQ(claimOf(after.ask(statusRequest({}, 98, {1, 2, 3}, 1))), (Claim{0, 1}));
    after.send(event(98, 2000) + event(99, 2001) + event(100, 2002) + event(101, 2003));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "8\n"; }));
    EXPECT_EQ(sql("SELECT generation, min(id), max(id) FROM events GROUP BY 1 ORDER BY 1"),
              "1|100|103\n2|98|101\n");
    EXPECT_EQ(sql("SELECT oldest FROM generations ORDER BY generation"), "100\n98\n");
    stopArchivers();
}

// The first archiver holds events of the blade's lost log, when the second one has its new one.
TEST_F(ManyArchiversTest, LateArchiverSetsAsideAndOpensNothing) {
    Archiver& first = startArchiver(place_);
    Archiver& second = startArchiver(place_);
    BladeLink before(first.port);
    before.ask(statusRequest({}, 0, {1, 2, 3}, 1));
    before.send(event(0, 1000));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "1\n"; }));
    first.process->signal(SIGSTOP);
    before.send(event(1, 1001) + event(2, 1002) + event(3, 1003));

    BladeLink after(second.port); // of the log that was rebuilt
    EXPECT_EQ(claimOf(after.ask(statusRequest({}, 0, {1, 2, 3}, 1))), (Claim{0, 1}));
    after.send(event(0, 1000) + event(1, 2001) + event(2, 2002) + event(3, 2003));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "4\n"; }));

    first.process->signal(SIGCONT);
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM set_aside") != "0\n"; }));
    EXPECT_TRUE(before.isClosed());
    stopArchivers();
    EXPECT_EQ(sql("SELECT id, reason FROM set_aside ORDER BY id"), "1|4\n2|4\n3|4\n");
    EXPECT_EQ(sql("SELECT generation, id, extract(epoch FROM time)::int FROM events ORDER BY id"),
              "1|0|1000\n1|1|2001\n1|2|2002\n1|3|2003\n");
}

// Each log whole in its generation, what came late kept aside, and the blade's present log claimed.
TEST_F(ManyArchiversTest, LogThatWasRebuiltWhileAnArchiverSleptStaysTheNewest) {
    Archiver& first = startArchiver(place_);
    Archiver& second = startArchiver(place_);
    BladeLink before(first.port);
    before.ask(statusRequest({}, 0, {1, 2, 3}, 1));
    before.send(event(0, 1000) + event(1, 1001));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "2\n"; }));
    first.process->signal(SIGSTOP);
    before.send(event(2, 1002) + event(3, 1003));

    BladeLink after(second.port);
    EXPECT_EQ(claimOf(after.ask(statusRequest({}, 0, {9, 9, 9}, 1))), (Claim{0, 1}));
    const auto rebuilt = [](U32_t id) { return event(id, 2000 + id, {9, 9, 9}); };
    after.send(rebuilt(0) + rebuilt(1) + rebuilt(2) + rebuilt(3));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "6\n"; }));

    first.process->signal(SIGCONT);
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM set_aside") == "2\n"; }));
    EXPECT_TRUE(before.isClosed());
    BladeLink back(first.port); // to the one that had its old log
    EXPECT_EQ(claimOf(back.ask(statusRequest({}, 0, {9, 9, 9}, 2))), (Claim{1, 0}));
    back.send(rebuilt(2) + rebuilt(3) + rebuilt(4));
    ASSERT_TRUE(waitForServer([this] { return sql("SELECT count(*) FROM events") == "7\n"; }));
    stopArchivers();
    EXPECT_EQ(sql("SELECT id, reason, encode(image, 'hex') FROM set_aside ORDER BY id"),
              "2|4|" + image(event(2, 1002)) + "\n3|4|" + image(event(3, 1003)) + "\n");
    EXPECT_EQ(sql("SELECT generation, id, extract(epoch FROM time)::int, encode(data, 'hex')"
                  " FROM events ORDER BY generation, id"),
              "1|0|1000|010203\n1|1|1001|010203\n"
              "2|0|2000|090909\n2|1|2001|090909\n2|2|2002|090909\n2|3|2003|090909\n"
              "2|4|2004|090909\n");
    EXPECT_EQ(sql("SELECT generation FROM logs"), "2\n");
}

TEST_F(ManyArchiversTest, ArchiverWithoutADatabaseSaysSo) {
    Process archiver(commandOf("evarchiver", {"--listen", "127.0.0.1:0", "--db",
                                              sharedPgServer().place("nothing")}),
                     directory_.file("none"));
    EXPECT_EQ(archiver.wait(), exitedWith(2));
    EXPECT_THAT(archiver.errorOutput(), HasSubstr("database \"nothing\" does not exist"));
}

TEST_F(ManyArchiversTest, WhatOneOfManyMayNotAskIsRefused) {
    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--keep-days", "3"}, {"--clear", "all", "--may-stop-blades"}}) {
        std::vector<std::string> all = {"--listen", "127.0.0.1:0", "--db", place_};
        all.insert(all.end(), bad.begin(), bad.end());
        Process archiver(commandOf("evarchiver", all), directory_.file("bad"));
        EXPECT_EQ(archiver.wait(), exitedWith(2));
    }
}
