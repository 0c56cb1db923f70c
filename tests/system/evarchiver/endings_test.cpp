#include "blade_link.h"
#include "program.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <sqlite3.h>
#include <thread>
#include <unistd.h>

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
    EXPECT_THAT(
        archiver_->output(),
        HasSubstr("summary: 9 messages, 5 events stored, 1 duplicates dropped, 0 "
                  "generations opened, 0 of another identity, 0 set aside, 0 refused, 1 status "
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
    EXPECT_EQ(claim(link, event(0)), (Claim{3, 0})); // and 4 again
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
    EXPECT_EQ(claim(link, again), (Claim{0, 1})); // it comes again
    EXPECT_THAT(archiver_->output(), HasSubstr("other bytes under id 0, generation 2 opened\n"));
    EXPECT_EQ(stop(), exitedWith(1));
}

TEST_F(EndingsTest, FullArchiveClosesTheLinkAndIsAFinding) {
    start({"--row-limit", "3"});
    BladeLink link(port_);
    link.send(events(0, 9));
    EXPECT_TRUE(link.isClosed());
    BladeLink again(port_);
    EXPECT_EQ(claim(again, event(0)), (Claim{1, 0})); // and 2 again
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
    EXPECT_THAT(archiver_->waitForOutput("5 events stored"), HasSubstr(" info: 5 messages"));
}

TEST_F(EndingsTest, FindingIsNoFailureToAServiceManager) {
    start();
    BladeLink link(port_);
    link.send(events(0, 4) + events(8, 9));
    claim(link, event(0));
    archiver_->signal(SIGTERM);
    EXPECT_EQ(archiver_->wait(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr(", 1 gaps\n"));
}

TEST_F(EndingsTest, LinkAboveTheLimitOfItsAddressIsClosed) {
    start({"--per-host", "1"});
    BladeLink first(port_);
    claim(first, event(0));
    BladeLink second(port_);
    EXPECT_TRUE(second.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("its address has 1 links already"), HasSubstr("closed"));
}

TEST_F(EndingsTest, AddressThatIsNotAllowedIsClosed) {
    start({"--allow", "10.0.0.0/8", "--allow", "127.0.0.2"});
    BladeLink link(port_);
    EXPECT_TRUE(link.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("is not allowed"), HasSubstr("closed"));
}

TEST_F(EndingsTest, ServingEveryAddressIsWarnedOf) {
    archiver_ = std::make_unique<Process>(
        commandOf("evarchiver", {"--listen", "0", "--db", database_}), directory_.file("run"));
    EXPECT_THAT(archiver_->waitForOutput("every address"), HasSubstr(" warning: "));
}

TEST_F(EndingsTest, TooFewDescriptorsForTheLinksAskedForRefuseTheStart) {
    const std::string line = "ulimit -n 200; exec " + program("evarchiver") +
                             " --listen 127.0.0.1:0 --connection-limit 500 --db " + database_;
    archiver_ = std::make_unique<Process>(std::vector<std::string>{"bash", "-c", line},
                                          directory_.file("run"));
    EXPECT_EQ(archiver_->wait(), exitedWith(2));
    EXPECT_THAT(archiver_->errorOutput(), HasSubstr("500 links need 564 descriptors"));
    EXPECT_FALSE(std::filesystem::exists(database_));
}

TEST_F(EndingsTest, LinksBeyondTheDescriptorsAreClosedAndNotLeftWaiting) {
    const std::string line =
        "ulimit -n 84; exec " + program("evarchiver") + " --listen 127.0.0.1:0 --db " + database_;
    archiver_ = std::make_unique<Process>(std::vector<std::string>{"bash", "-c", line},
                                          directory_.file("run"));
    const std::string listening = archiver_->waitForOutput("listening on 127.0.0.1:");
    port_ = static_cast<U16_t>(std::stoi(listening.substr(listening.find(':') + 1)));
    std::vector<std::unique_ptr<BladeLink>> links;
    for (U32_t slot = 0; slot < 20; ++slot) {
        links.push_back(std::make_unique<BladeLink>(port_));
        claim(*links.back(), event(0, {.slot = slot}));
    }
    BladeLink further(port_);
    EXPECT_TRUE(further.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("there are 20 links already"), HasSubstr("closed"));
}

TEST_F(EndingsTest, NamesThatKeepNothingAreRefused) {
    for (const char* name : {"", ":memory:", "file:x?mode=memory"}) {
        EXPECT_EQ(run({"--listen", "127.0.0.1:0", "--db", name}), exitedWith(2)) << name;
    }
}

TEST_F(EndingsTest, DeletedArchiveEndsIt) {
    start();
    BladeLink link(port_);
    claim(link, event(0));
    ASSERT_EQ(unlink(database_.c_str()), 0);
    link.send(events(0, 4));
    EXPECT_EQ(archiver_->wait(), exitedWith(2));
    EXPECT_THAT(archiver_->output(), HasSubstr("was deleted or replaced"));
}

TEST_F(EndingsTest, LockedArchiveMakesEventsWaitAndLosesNone) {
    start({"--progress", "0"});
    BladeLink link(port_);
    claim(link, event(0));
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database_.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    link.send(events(0, 500)); // is taken all the same
    EXPECT_THAT(archiver_->waitForOutput("events wait, tried again"), HasSubstr(" error: "));
    sqlite3_close(other);
    EXPECT_EQ(claim(link, event(0)), (Claim{499, 0}));
    EXPECT_THAT(archiver_->output(), HasSubstr("can be written again"));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(EndingsTest, LinksAreShedWhenTooMuchWaits) {
    start({"--progress", "0", "--spool", "65536"});
    BladeLink link(port_);
    claim(link, event(0));
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database_.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    std::thread sender([&] {
        try {
            link.send(events(0, 2000));
        } catch (const std::runtime_error&) {
            // closed in the middle
        }
    });
    EXPECT_TRUE(link.isClosed());
    sender.join();
    BladeLink further(port_);
    EXPECT_TRUE(further.isClosed()); // none is taken meanwhile
    sqlite3_close(other);
    const auto resumes = [&] {
        try {
            BladeLink again(port_);
            const Claim held = claim(again, event(0));
            return held.flag == 0 && held.last > 100;
        } catch (const std::runtime_error&) {
            return false;
        }
    };
    EXPECT_TRUE(waitUntil(resumes));
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 generations opened"));
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
