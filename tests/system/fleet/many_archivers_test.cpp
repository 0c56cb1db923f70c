/** Several archivers, one PostgreSQL server. */
#include "blade_link.h"
#include "fleet_fixture.h"
#include "postgres/pg_store.h"

#include <csignal>

using namespace support;
using namespace fleet;
using testing::HasSubstr;

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

    static Bytes event(U32_t id, U32_t time) {
        return eventMessage({.id = id, .data = {1, 2, 3}, .time = time});
    }

    std::string name_;
    std::string place_;
};

} // namespace

TEST_F(ManyArchiversTest, FleetThatGoesToAndFroIsWholeByContent) {
    startArchiver(place_);
    startArchiver(place_);
    const auto fleet =
        startFleet(place_, {"--blades", "40", "--events", "60", "--rate", "60", "--outages", "2",
                            "--rebuilds", "0.5", "--size", "0:500"});
    EXPECT_EQ(fleet->wait(std::chrono::seconds(90)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(), HasSubstr("\"missing\":0,\"twice\":0,\"corrupt\":0"));
    stopArchivers();
    EXPECT_THAT(runDb({"maintain", "--db", place_}), HasSubstr("0 partitions made"));
}

// The first archiver holds events of the blade's lost log, when the second one has its new one.
TEST_F(ManyArchiversTest, LateArchiverSetsAsideAndOpensNothing) {
    Archiver& first = startArchiver(place_);
    Archiver& second = startArchiver(place_);
    BladeLink before(first.port);
    before.ask(statusRequest({}, 0, {1, 2, 3}, 1));
    before.send(event(0, 1000));
    ASSERT_TRUE(waitUntil([this] { return sql("SELECT count(*) FROM events") == "1\n"; }));
    first.process->signal(SIGSTOP);
    before.send(event(1, 1001) + event(2, 1002) + event(3, 1003));

    BladeLink after(second.port); // of the log that was rebuilt
    EXPECT_EQ(claimOf(after.ask(statusRequest({}, 0, {1, 2, 3}, 1))), (Claim{0, 1}));
    after.send(event(0, 1000) + event(1, 2001) + event(2, 2002) + event(3, 2003));
    ASSERT_TRUE(waitUntil([this] { return sql("SELECT count(*) FROM events") == "4\n"; }));

    first.process->signal(SIGCONT);
    ASSERT_TRUE(waitUntil([this] { return sql("SELECT count(*) FROM set_aside") != "0\n"; }));
    EXPECT_TRUE(before.isClosed());
    stopArchivers();
    EXPECT_EQ(sql("SELECT id, reason FROM set_aside ORDER BY id"), "1|4\n2|4\n3|4\n");
    EXPECT_EQ(sql("SELECT generation, id, extract(epoch FROM time)::int FROM events ORDER BY id"),
              "1|0|1000\n1|1|2001\n1|2|2002\n1|3|2003\n");
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
