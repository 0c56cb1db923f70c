/** Events of an archive on a PostgreSQL server, which goes away meanwhile. */
#include "bridge_fixture.h"
#include "pg_server.h"

using namespace support;

namespace {

class ServerTest : public BridgeTest {
  protected:
    ServerTest() {
        database_ = from_ = server_.place();
        Process create(commandOf("evarchiver", {"db", "create", "--db", database_}),
                       directory_.file("create"));
        EXPECT_EQ(create.wait(), exitedWith(0)) << create.errorOutput();
    }
    ~ServerTest() override { archiver_.reset(); }

    PgServer server_;
};

TEST_F(ServerTest, EventsAreHandedOnAndAfterAnOutageOfTheServerTheRest) {
    file(1, 700);
    const Datagrams receiver(socketPath_);
    const auto running = bridge(syslog_, {});
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

} // namespace
