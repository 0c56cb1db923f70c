/** Events of a running blade: its switch and its event manager are real. */
#include "bridge_fixture.h"
#include "ipc_key.h"

#include <gmock/gmock.h>

#include <csignal>

using namespace support;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

class BladeFeedTest : public BridgeTest {
  protected:
    BladeFeedTest() { blade_.waitForOutput("blade: up: slot 0"); }

    /** Logs events and waits until the last one is stored. */
    void log(int count, U32_t lastId, const std::string& text) {
        evctl({"log", "--id", "7", "--count", std::to_string(count), "--text", text});
        const auto newest = [this] {
            return static_cast<U32_t>(std::stoul(evctl({"get", "last"})));
        };
        requireSoon([&] { return newest() == lastId; }, "event " + std::to_string(lastId));
    }

    std::string evctl(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--dir", base_.file("slot0/mmsg")});
        Process process(commandOf("evctl", arguments),
                        directory_.file("evctl" + std::to_string(++runs_)));
        EXPECT_EQ(process.wait(), exitedWith(0)) << process.errorOutput();
        return process.output();
    }

    std::unique_ptr<Process> fromBlade(const std::vector<std::string>& more = {"--once"}) {
        std::vector<std::string> all = {"--from",   "blade",     key_.text(),  "--to", syslog_,
                                        "--cursor", cursorPath_, "--interval", "0.1"};
        all.insert(all.end(), more.begin(), more.end());
        return std::make_unique<Process>(commandOf("evbridge", all),
                                         directory_.file("bridge" + std::to_string(++starts_)));
    }

    TempDirectory base_;
    IpcKey key_;
    Process blade_{commandOf("blade", {sourceFile("demo/blade.conf"), "--base", base_.path(),
                                       "--key", key_.text()}),
                   base_.file("blade")};
    int runs_ = 0;
};

TEST_F(BladeFeedTest, EachEventIsHandedOnOnceAndANewStartGoesOn) {
    log(20, 20, "one of many");
    const Datagrams receiver(socketPath_);
    const auto first = fromBlade();
    EXPECT_EQ(ids(receiver, 21), range(0, 20));
    EXPECT_EQ(first->wait(), exitedWith(0));
    const auto running = fromBlade({});
    log(5, 25, "one more");
    EXPECT_EQ(ids(receiver, 5), range(21, 25));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
}

TEST_F(BladeFeedTest, WhatTheLogHasOverwrittenIsSaidAsAMessageOfItsOwn) {
    log(3, 3, "the first");
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(fromBlade()->wait(), exitedWith(0));
    EXPECT_EQ(ids(receiver, 4), range(0, 3));
    const std::string large(3800, 'x');
    log(600, 603, large); // more than the log holds
    const auto running = fromBlade();
    const std::string gone = receiver.next();
    EXPECT_THAT(gone, HasSubstr("emp evbridge OVERWRITTEN [overwritten@32473 enclosure=\""));
    EXPECT_THAT(gone, HasSubstr(" first=\"4\" "));
    const U32_t next = sequenceOf(receiver.next());
    EXPECT_GT(next, 100U);
    EXPECT_THAT(gone, HasSubstr(" last=\"" + std::to_string(next - 1) + "\" count=\"" +
                                std::to_string(next - 4) + "\"] " + std::to_string(next - 4) +
                                " events overwritten"));
    EXPECT_EQ(ids(receiver, 603 - next), range(next + 1, 603));
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(BladeFeedTest, TheArchiverIsAskedNothingOnItsBehalf) {
    start({"--progress", "1"});
    evctl({"archiver", "set", "127.0.0.1:" + std::to_string(port_)});
    archiver_->waitForOutput("1 status answers");
    log(30, 30, "one of many");
    const Datagrams receiver(socketPath_);
    const auto running = fromBlade({});
    EXPECT_EQ(ids(receiver, 31), range(0, 30));
    for (U32_t id = 31; id < 34; ++id) {
        log(1, id, "one more"); // after looks that found nothing
        EXPECT_EQ(ids(receiver, 1), range(id, id));
    }
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
    archiver_->signal(SIGTERM);
    archiver_->wait();
    EXPECT_THAT(archiver_->output(), Not(ContainsRegex("[1-9][0-9]* inquiries answered")));
    EXPECT_THAT(archiver_->output(), Not(ContainsRegex("[1-9][0-9]* answered with nothing")));
}

TEST_F(BladeFeedTest, ABladeThatGoesAwayIsWaitedFor) {
    log(2, 2, "before");
    const Datagrams receiver(socketPath_);
    const auto running = fromBlade({});
    EXPECT_EQ(ids(receiver, 3), range(0, 2));
    blade_.signal(SIGTERM);
    running->waitForOutput("events wait, tried again");
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(BladeFeedTest, WhatIsNoBladeIsNamed) {
    Process process(
        commandOf("evbridge", {"--from", "blade", "7", "--to", syslog_, "--cursor", cursorPath_}),
        directory_.file("none"));
    EXPECT_EQ(process.wait(), exitedWith(2));
    EXPECT_THAT(process.errorOutput(), HasSubstr("'7' is not a key"));
}

} // namespace
