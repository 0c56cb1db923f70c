/** An archive that is spread over two servers, a third one being its hub. */
#include "blade_link.h"
#include "fleet_fixture.h"

#include <algorithm>

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

    /** Blades that this test plays itself, all of the first server: how do they fare? */
    void openProbes() {
        for (U32_t number = 0; number < 24; ++number) {
            const LogName log{"PROBE", "P" + std::to_string(number), number, 1};
            auto link = std::make_unique<BladeLink>(archivers_.front().port);
            link->ask(statusRequest(log, 0, {}, 1));
            probes_.push_back({log, std::move(link)});
        }
        std::erase_if(probes_, [this](const Probe& probe) {
            return count(first_, "logs WHERE blade = '" + probe.log.blade + "'") == 0;
        });
    }

    /** The time from an event of each probe until the last of them is filed. */
    std::chrono::milliseconds timeToFile() {
        const auto begin = std::chrono::steady_clock::now();
        for (const Probe& probe : probes_) {
            probe.link->send(eventMessage({.log = probe.log, .id = filed_}));
        }
        ++filed_;
        EXPECT_TRUE(waitForServer([this] {
            return count(first_, "event_list WHERE enclosure = 'PROBE'") == filed_ * probes_.size();
        }));
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begin);
    }

    std::vector<std::chrono::milliseconds> timesToFile() {
        std::vector<std::chrono::milliseconds> times;
        for (int i = 0; i < 7; ++i) {
            times.push_back(timeToFile());
        }
        std::ranges::sort(times);
        return times;
    }

    struct Probe {
        LogName log;
        std::unique_ptr<BladeLink> link;
    };

    std::vector<Probe> probes_;
    U32_t filed_ = 0; ///< events of each
    PgServer hub_;
    PgServer first_;
    PgServer second_;
};

} // namespace

TEST_F(SpreadTest, ServerThatIsKilledIsMissedByNobodyElseAndComesBackWithAll) {
    // Little room: what waits for the server that is away must not keep the other one's blades out.
    startArchiver(hub_.place(), {"--spool", "262144"});
    startArchiver(hub_.place(), {"--spool", "262144"});
    openProbes();
    ASSERT_GE(probes_.size(), 3U);
    const auto fleet = startFleet(
        hub_.place(), {"--blades", "60", "--events", "99", "--rate", "25", "--outages", "1"});
    ASSERT_TRUE(waitForServer([&] { return count(second_, "events") > 300; }));
    const auto before = timesToFile();
    second_.kill();
    archivers_.front().process->waitForOutput("events wait, tried again");
    const auto meanwhile = timesToFile();
    // Behind a wait for a server each one would take that long, and on a slow machine some do.
    EXPECT_LT(meanwhile[1], before.back() + std::chrono::milliseconds(1000));
    for (const Probe& probe : probes_) {
        EXPECT_TRUE(probe.link->isQuiet()) << "its link goes on";
        BladeLink(archivers_.back().port).ask(statusRequest(probe.log, 0, {}, 2));
    }
    // The other one's blades get all of theirs filed meanwhile.
    const U64_t logs = count(first_, "logs WHERE enclosure = 'FLEET'");
    EXPECT_GT(logs, 10U);
    EXPECT_LT(logs, 50U);
    EXPECT_TRUE(waitForServer(
        [&] { return count(first_, "event_list WHERE enclosure = 'FLEET'") >= 100 * logs; }));
    second_.start();
    EXPECT_EQ(fleet->wait(std::chrono::seconds(100)), exitedWith(0)) << fleet->output();
    EXPECT_THAT(fleet->output(),
                HasSubstr("\"lost\":0,\"held\":6000,\"missing\":0,\"twice\":0,\"corrupt\":0"));
    EXPECT_EQ(count(first_, "events") + count(second_, "events"), count(hub_, "events"));
    EXPECT_GT(count(second_, "events"), 1000U);
    stopArchivers();
}
