/** Events of archives on PostgreSQL servers, which go away meanwhile. */
#include "bridge_fixture.h"
#include "pg_server.h"
#include "postgres/pg_connection.h"
#include "wait.h"

#include <gmock/gmock.h>

using namespace support;
using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

class ServerTest : public BridgeTest {
  protected:
    ServerTest() {
        database_ = from_ = server_.place();
        create({"create", "--db", database_});
    }
    ~ServerTest() override { archiver_.reset(); }

    void create(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "db");
        Process creation(commandOf("evarchiver", arguments), directory_.file("create"));
        EXPECT_EQ(creation.wait(), exitedWith(0)) << creation.errorOutput();
    }

    std::unique_ptr<Process> bridgeWith(std::vector<std::string> more) {
        more.insert(more.begin(), {"--lag", "1"});
        return bridge(syslog_, more);
    }

    /** What comes while all is handed on, which is so many. */
    std::vector<U32_t> handedOn(size_t count) {
        const Datagrams receiver(socketPath_);
        const auto run = bridgeWith({"--once"});
        const std::vector<U32_t> found = ids(receiver, count);
        EXPECT_EQ(run->wait(), exitedWith(0)) << run->errorOutput();
        EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
        return found;
    }

    /** Makes the archive one that is spread over two servers. @return the place of one */
    std::string spread() {
        const std::vector<std::string> nodes = {server_.makeDatabase("node1"),
                                                server_.makeDatabase("node2")};
        for (const std::string& node : nodes) {
            create({"create", "--db", node});
        }
        database_ = from_ = server_.makeDatabase("hub");
        create({"hub", "--db", database_, "--node", nodes[0], nodes[1]});
        return nodes[0];
    }

    /** A slot whose log is on a node, of those that have some. */
    U32_t slotOn(const std::string& node) {
        return static_cast<U32_t>(std::stoul(server_.sql("SELECT min(slot) FROM logs", node)));
    }

    PgServer server_;
};

TEST_F(ServerTest, EventsAreHandedOnAndAfterAnOutageOfTheServerTheRest) {
    file(1, 700);
    const Datagrams receiver(socketPath_);
    const auto running = bridgeWith({});
    EXPECT_EQ(ids(receiver, 700), range(1, 700));
    server_.kill();
    running->waitForOutput("events wait, tried again");
    server_.start();
    archiver_.reset();
    file(1, 710);
    EXPECT_EQ(ids(receiver, 10), range(701, 710));
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(ServerTest, WhatACommitBringsLateIsHandedOnBeforeWhatIsBehindIt) {
    file(1, 2);
    const Datagrams receiver(socketPath_);
    const auto running = bridgeWith({});
    EXPECT_EQ(ids(receiver, 2), range(1, 2));
    evarchive::PgConnection late(database_, evarchive::PgPatience::endless());
    late.execute("BEGIN");
    late.execute("INSERT INTO events SELECT log, 9, time, clock_timestamp(), generation, event, "
                 "source, type, category, idversion, own, doubtful, head, data FROM events "
                 "WHERE id = 1");
    file(1, 4);
    const auto looked = [this] {
        return server_.sql("SELECT max(query_start) > (SELECT max(received) + interval '1.5 s' "
                           "FROM events) FROM pg_stat_activity "
                           "WHERE application_name = 'evbridge'") == "t\n";
    };
    ASSERT_TRUE(waitUntil(looked));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
    late.execute("COMMIT");
    EXPECT_THAT(ids(receiver, 3), ElementsAre(9, 3, 4));
}

TEST_F(ServerTest, ACursorThatKeptIdsGoesOnAsOneThatKeepsAPlace) {
    file(1, 8);
    writeFile(cursorPath_, "evbridge 1\n1-3,5-6 ENC-A/BLADE-1/1/1/1\n");
    EXPECT_THAT(handedOn(3), ElementsAre(4, 7, 8));
    EXPECT_THAT(readFile(cursorPath_), MatchesRegex("evbridge 1\narrivals 1( -?[0-9]+){4}\n"));
    EXPECT_THAT(handedOn(0), ElementsAre());
    file(1, 9);
    EXPECT_THAT(handedOn(1), ElementsAre(9));
    cursorPath_ = directory_.file("another");
    const auto first = bridgeWith({"--once", "--skip-old"});
    EXPECT_EQ(first->wait(), exitedWith(0)) << first->errorOutput();
    EXPECT_THAT(first->output(), testing::HasSubstr("what is there is left out"));
    file(1, 11);
    EXPECT_THAT(handedOn(2), ElementsAre(10, 11));
}

TEST_F(ServerTest, EachServerOfASpreadArchiveHasAPlaceInTheCursor) {
    const std::string node = spread();
    for (U32_t slot = 0; slot < 8; ++slot) {
        file(10 * slot, 10 * slot + 1, {.slot = slot});
    }
    EXPECT_GT(std::stoi(server_.sql("SELECT count(*) FROM logs", "node1")), 0);
    EXPECT_GT(std::stoi(server_.sql("SELECT count(*) FROM logs", "node2")), 0);
    std::vector<U32_t> all = handedOn(16);
    std::ranges::sort(all);
    EXPECT_THAT(all, ElementsAre(0, 1, 10, 11, 20, 21, 30, 31, 40, 41, 50, 51, 60, 61, 70, 71));
    EXPECT_THAT(readFile(cursorPath_), MatchesRegex("evbridge 1\narrivals 1.*\narrivals 2.*\n"));
    EXPECT_THAT(handedOn(0), ElementsAre());
    from_ = node;
    EXPECT_EQ(bridgeWith({"--once"})->wait(), exitedWith(2)) << "of another archive";
}

TEST_F(ServerTest, AServerThatStopsAnsweringHoldsUpTheOthersForAWhileOnly) {
    spread();
    for (U32_t slot = 0; slot < 8; ++slot) {
        file(1, 1, {.slot = slot});
    }
    const U32_t there = slotOn("node2");
    const Datagrams receiver(socketPath_);
    const auto running = bridgeWith({"--patience", "1"});
    EXPECT_EQ(ids(receiver, 8), std::vector<U32_t>(8, 1));
    const auto asked = std::stoi(server_.sql("SELECT pid FROM pg_stat_activity WHERE datname = "
                                             "'node1' AND application_name = 'evbridge'"));
    ASSERT_EQ(kill(asked, SIGSTOP), 0);
    file(2, 2, {.slot = there});
    EXPECT_THAT(ids(receiver, 1), ElementsAre(2));
    running->waitForOutput("the server does not answer; its events wait, those of other servers");
    EXPECT_EQ(kill(asked, SIGCONT), 0);
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(ServerTest, WhileOneServerOfASpreadArchiveIsAwayEventsOfTheOthersGoOn) {
    spread();
    for (U32_t slot = 0; slot < 8; ++slot) {
        file(1, 1, {.slot = slot});
    }
    const U32_t away = slotOn("node1");
    const U32_t there = slotOn("node2");
    const Datagrams receiver(socketPath_);
    auto running = bridgeWith({});
    EXPECT_EQ(ids(receiver, 8), std::vector<U32_t>(8, 1));
    file(2, 2, {.slot = away}); // handed on before it is away, or after it was
    server_.sql("ALTER DATABASE node1 ALLOW_CONNECTIONS false");
    server_.sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'node1'");
    running->waitForOutput("its events wait, those of other servers go on");
    file(3, 3, {.slot = there});
    std::vector<U32_t> found = ids(receiver, 1);
    while (found.back() == 2) {
        found.push_back(ids(receiver, 1).at(0));
    }
    EXPECT_EQ(found.back(), 3) << "did not wait";
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
    running = bridgeWith({}); // one that begins while it is away, as well
    running->waitForOutput("its events wait, those of other servers go on");
    file(4, 4, {.slot = there});
    found.push_back(ids(receiver, 1).at(0));
    server_.sql("ALTER DATABASE node1 ALLOW_CONNECTIONS true");
    running->waitForOutput("its events go on");
    file(5, 5, {.slot = away});
    while (found.back() != 5) {
        found.push_back(ids(receiver, 1).at(0));
    }
    std::ranges::sort(found);
    EXPECT_THAT(found, ElementsAre(2, 3, 4, 5)) << "nothing is lost, nothing comes twice";
}

} // namespace
