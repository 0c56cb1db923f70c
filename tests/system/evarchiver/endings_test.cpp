#include "blade_link.h"
#include "program.h"

#include <gmock/gmock.h>

#include <csignal>

using namespace support;
using testing::HasSubstr;

class EndingsTest : public ArchiverProcessTest {
  protected:
    // Runs the archiver to its own end.
    Ending run(const std::vector<std::string>& arguments) {
        archiver_ = std::make_unique<Process>(commandOf("evarchiver", arguments),
                                              directory_.file("run" + std::to_string(++starts_)));
        return archiver_->wait();
    }
};

TEST_F(EndingsTest, SummaryIsPrintedOnSigint) {
    start();
    BladeLink link(port_);
    link.send(events(0, 4) + events(4, 4));
    claim(link, event(0));
    link.ask(inquiryMessage(LAST, {}, 0, 1));
    link.ask(inquiryMessage(NEXT, {}, 4, 1));
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(),
                HasSubstr("summary: 9 messages, 5 events stored, 1 duplicates dropped, 0 "
                          "generations opened, 0 of another identity, 0 refused, 1 status "
                          "answers, 1 inquiries answered, 1 answered with nothing, 0 streams "
                          "without borders, 0 events given up, 0 gaps\n"));
}

TEST_F(EndingsTest, SigtermEndsItTheSameWay) {
    start();
    archiver_->signal(SIGTERM);
    EXPECT_EQ(archiver_->wait(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr("summary: 0 messages"));
}

TEST_F(EndingsTest, GapIsSaidAndIsAFinding) {
    start();
    BladeLink link(port_);
    link.send(events(0, 4) + events(8, 9));
    EXPECT_EQ(claim(link, event(0)), (Claim{4, 0}));
    EXPECT_THAT(archiver_->output(), HasSubstr("gap, ids 5 to 7 are missing\n"));
    EXPECT_EQ(stop(), exitedWith(1));
    EXPECT_THAT(archiver_->output(), HasSubstr(", 1 gaps\n"));
}

TEST_F(EndingsTest, NewGenerationIsSaidAndIsAFinding) {
    start();
    BladeLink link(port_);
    EventFields again = event(0);
    again.time = 2000;
    link.send(events(0, 4) + eventMessage(again));
    EXPECT_EQ(claim(link, again), (Claim{0, 0}));
    EXPECT_THAT(archiver_->output(), HasSubstr("other bytes under id 0, generation 2 opened\n"));
    EXPECT_EQ(stop(), exitedWith(1));
}

TEST_F(EndingsTest, FullArchiveClosesTheLinkAndIsAFinding) {
    start({"--row-limit", "3"});
    BladeLink link(port_);
    link.send(events(0, 9));
    EXPECT_TRUE(link.isClosed());
    BladeLink again(port_);
    EXPECT_EQ(claim(again, event(0)), (Claim{2, 0}));
    EXPECT_EQ(stop(), exitedWith(1));
}

TEST_F(EndingsTest, LinkAboveTheLimitIsClosed) {
    start({"--connection-limit", "1"});
    BladeLink first(port_);
    claim(first, event(0));
    BladeLink second(port_);
    EXPECT_TRUE(second.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("there are 1 links already"), HasSubstr("closed"));
}

TEST_F(EndingsTest, ProgressIsSaidWhenSomethingHasHappened) {
    start({"--progress", "1"});
    BladeLink link(port_);
    link.send(events(0, 4));
    EXPECT_THAT(archiver_->waitForOutput("5 events stored"), testing::StartsWith("5 messages"));
}

TEST_F(EndingsTest, SecondArchiverOfAnArchiveCannotRun) {
    start();
    const auto first = std::move(archiver_);
    EXPECT_EQ(run({"--listen", "127.0.0.1:0", "--db", database_}), exitedWith(2));
    EXPECT_THAT(archiver_->errorOutput(), HasSubstr("another archiver has this archive open"));
}

TEST_F(EndingsTest, PortInUseCannotBeListenedOn) {
    start();
    const auto first = std::move(archiver_);
    const std::string place = "127.0.0.1:" + std::to_string(port_);
    EXPECT_EQ(run({"--listen", place, "--db", directory_.file("other.db")}), exitedWith(2));
    EXPECT_THAT(archiver_->errorOutput(), HasSubstr("evarchiver: bind"));
}

TEST_F(EndingsTest, FileThatIsNoArchiveCannotBeUsed) {
    writeFile(database_, std::string(10'000, 'x'));
    EXPECT_EQ(run({"--listen", "127.0.0.1:0", "--db", database_}), exitedWith(2));
    EXPECT_THAT(archiver_->errorOutput(), HasSubstr("file is not a database"));
}

TEST_F(EndingsTest, HelpAndVersionAreAnswered) {
    EXPECT_EQ(run({"--help"}), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr("--test-close-after"));
    EXPECT_EQ(run({"--version"}), exitedWith(0));
    EXPECT_THAT(archiver_->output(), testing::StartsWith("1.2.0.3 | "));
}
