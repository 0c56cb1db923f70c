/** An archive that is spread over two servers, a third one being its hub. */
#include "fleet_fixture.h"

using namespace support;
using namespace fleet;
using testing::HasSubstr;

namespace {

class SpreadTest : public FleetProcessTest {
  protected:
    SpreadTest() {
        std::vector<std::string> command = {"hub", "--db", hub_.place()};
        for (const PgServer* node : {&first_, &second_}) {
            runDb({"create", "--db", node->place(), "--retention-days", "4"});
            command.insert(command.end(), {"--node", node->place()});
        }
        runDb(command);
    }

    static U64_t count(PgServer& server, const std::string& table) {
        return std::stoull(server.sql("SELECT count(*) FROM " + table));
    }

    PgServer hub_;
    PgServer first_;
    PgServer second_;
};

} // namespace

TEST_F(SpreadTest, ServerThatIsKilledIsMissedByNobodyElseAndComesBackWithAll) {
    // Little room: what waits for the server that is away must not keep the other one's blades out.
    startArchiver(hub_.place(), {"--spool", "262144"});
    startArchiver(hub_.place(), {"--spool", "262144"});
    const auto fleet = startFleet(
        hub_.place(), {"--blades", "60", "--events", "99", "--rate", "50", "--outages", "1"});
    ASSERT_TRUE(waitUntil([&] { return count(second_, "events") > 300; }));
    second_.kill();
    // The other one's blades get all of theirs filed meanwhile.
    const U64_t logs = count(first_, "logs");
    EXPECT_GT(logs, 10U);
    EXPECT_LT(logs, 50U);
    EXPECT_TRUE(waitUntil([&] { return count(first_, "events") >= 100 * logs; }));
    archivers_.front().process->waitForOutput("events wait, tried again");
    second_.start();
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(),
                HasSubstr("\"held\":6000,\"missing\":0,\"twice\":0,\"corrupt\":0"));
    EXPECT_EQ(count(first_, "events") + count(second_, "events"), count(hub_, "events"));
    EXPECT_GT(count(second_, "events"), 1000U);
    stopArchivers();
}
