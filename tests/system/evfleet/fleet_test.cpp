/** A fleet of simulated blades against a real archiver. */
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

namespace {

using support::Process;

class FleetSystemTest : public testing::Test {
  protected:
    FleetSystemTest() {
        const std::string line = archiver_.waitForOutput("listening on 127.0.0.1:");
        place_ = "127.0.0.1:" + line.substr(line.rfind(':') + 1);
    }

    ~FleetSystemTest() override {
        archiver_.signal(SIGTERM);
        archiver_.wait();
    }

    /** Runs a fleet to its end. @return its exit status */
    int run(std::vector<std::string> arguments) {
        const std::vector<std::string> always = {"--to",   place_,       "--check", database_,
                                                 "--json", "--progress", "0"};
        if (std::ranges::count(arguments, "--reconnect") == 0) {
            arguments.insert(arguments.end(), {"--reconnect", "100"});
        }
        arguments.insert(arguments.end(), always.begin(), always.end());
        Process fleet(support::commandOf("evfleet", arguments), directory_.file("fleet"));
        const support::Ending ending = fleet.wait(std::chrono::seconds(90));
        output_ = fleet.output();
        return ending.exited ? ending.status : -1;
    }

    support::TempDirectory directory_;
    std::string database_ = directory_.file("events.db");
    Process archiver_{
        support::commandOf("evarchiver", {"--listen", "127.0.0.1:0", "--db", database_}),
        directory_.file("archiver")};
    std::string place_;
    std::string output_;
};

TEST_F(FleetSystemTest, QuietFleetIsArchivedByContent) {
    EXPECT_EQ(run({"--blades", "50", "--events", "99", "--size", "0:1000"}), 0) << output_;
    EXPECT_NE(output_.find("\"held\":5000,\"missing\":0,\"twice\":0,\"corrupt\":0"),
              std::string::npos)
        << output_;
}

TEST_F(FleetSystemTest, RebuiltLogsAreArchivedAnew) {
    EXPECT_EQ(run({"--blades", "20", "--events", "100", "--rate", "100", "--rebuilds", "1"}), 0)
        << output_;
}

// A log that goes round while its blade is away is met in its middle, and counts from the start
// when it is rebuilt.
TEST_F(FleetSystemTest, RebuiltLogsOfSmallRingsAreNotFiledAmongTheEventsOfBefore) {
    EXPECT_EQ(run({"--blades", "40", "--events", "200", "--rate", "40", "--rebuilds", "1",
                   "--outages", "1", "--ring", "40", "--reconnect", "1500"}),
              0)
        << output_;
}

TEST_F(FleetSystemTest, ClocksThatJumpLoseNothing) {
    EXPECT_EQ(run({"--blades", "20", "--events", "100", "--clock-jumps", "5", "--outages", "1",
                   "--rebuilds", "1"}),
              0)
        << output_;
}

// Only what an archiver cannot know may be wrong: which of the logs an event of both belongs to.
TEST_F(FleetSystemTest, RebuiltLogsThatBeginAlikeMayMissEventsButNothingIsHeldTwiceOrCorrupt) {
    EXPECT_NE(run({"--blades", "10", "--events", "50", "--rate", "100", "--rebuilds", "2",
                   "--same-first", "--settle", "1"}),
              -1);
    EXPECT_NE(output_.find("\"twice\":0,\"corrupt\":0"), std::string::npos) << output_;
    EXPECT_EQ(run({"--blades", "5", "--events", "50", "--enclosure", "OTHER"}), 0) << output_;
}

TEST_F(FleetSystemTest, AnotherFleetsArchiveIsFoundOut) {
    ASSERT_EQ(run({"--blades", "2", "--events", "10"}), 0) << output_;
    // The same blades with other events, into the archive that holds the first ones.
    EXPECT_EQ(run({"--blades", "2", "--events", "10", "--seed", "2", "--settle", "1"}), 1);
    // The last event of each blade has nothing behind it: doubtful, so nothing is said of it.
    EXPECT_NE(output_.find("\"held\":44,\"missing\":0,\"twice\":0,\"corrupt\":20"),
              std::string::npos)
        << output_;
}

} // namespace
