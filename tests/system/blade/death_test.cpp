#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <unistd.h>

using namespace support;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

static void sendOneMessage(const BladeUnderTest& blade) {
    MmsgClient snmp(blade.slotFile("mmsg/snmp"));
    snmp.send(makeMmsg({.requestor = 28, .local = {27}}));
}

static void expectNothingLeft(const BladeUnderTest& blade) {
    EXPECT_FALSE(blade.key.exists());
    EXPECT_NE(access(blade.slotFile("mmsg/eventlog").c_str(), F_OK), 0);
}

TEST(BladeDeath, EventManagerThatExitsEndsTheBlade) {
    BladeUnderTest blade({}, {{"STANDIN", "exit"}});
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(blade.process.output(),
                ContainsRegex("blade: emp \\(pid [0-9]+\\) exited with "
                              "status 3 before the blade was up, see " +
                              blade.slotFile("log/emp.log") + "\nblade: down\n"));
    expectNothingLeft(blade);
}

TEST(BladeDeath, EventManagerThatNeverCameUpIsNotKeptFor) {
    BladeUnderTest blade({"--keep"}, {{"STANDIN", "exit"}});
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(blade.process.output(), HasSubstr("exited with status 3 before the blade was up"));
    EXPECT_THAT(blade.process.output(), Not(HasSubstr("blade: up: ")));
    expectNothingLeft(blade);
}

TEST(BladeDeath, EventManagerIsNotStartedBeforeTheSwitchSaysReady) {
    BladeUnderTest blade({"--msm", standIn(), "--timeout", "1"}, {{"STANDIN", "idle"}});
    waitForLine(blade.slotFile("log/msm.log"), "up");
    // That one endpoint listens says nothing of the others.
    MmsgListener startup(blade.slotFile("mmsg/startup"));
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_EQ(blade.process.output(),
              "blade: msm has not said that it listens within 1 seconds\nblade: down\n");
    EXPECT_EQ(readFile(blade.slotFile("log/emp.log")), "");
}

TEST(BladeDeath, EventManagerThatAbortsEndsTheBlade) {
    BladeUnderTest blade({}, {{"STANDIN", "abort"}});
    blade.waitUntilUp();
    sendOneMessage(blade);
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(
        blade.process.output(),
        ContainsRegex("emp \\(pid [0-9]+\\) died of signal 6 \\(Aborted\\)\nblade: down\n"));
    expectNothingLeft(blade);
}

TEST(BladeDeath, SilentEventManagerEndsTheBladeAfterTheTimeout) {
    BladeUnderTest blade({"--timeout", "1"}, {{"STANDIN", "mute"}});
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_EQ(blade.process.output(),
              "blade: emp has not said that it is initialised within 1 seconds\nblade: down\n");
    expectNothingLeft(blade);
}

TEST(BladeDeath, SwitchThatDiesEndsTheBlade) {
    BladeUnderTest blade;
    blade.waitUntilUp();
    kill(childOf(blade.process.pid(), blade.slotFile("mmsg")), SIGKILL);
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(blade.process.output(), ContainsRegex("msm \\(pid [0-9]+\\) died of signal 9"));
    EXPECT_FALSE(blade.key.exists());
}

TEST(BladeDeath, SwitchThatCannotStartEndsTheBlade) {
    BladeUnderTest blade({"--msm", standIn()}, {{"STANDIN", "exit"}});
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(
        blade.process.output(),
        ContainsRegex("msm \\(pid [0-9]+\\) exited with status 2 before the blade was up\n"));
    EXPECT_FALSE(blade.key.exists());
}

TEST(BladeDeath, KeptBladeStaysUpForAnEventManagerStartedByHand) {
    BladeUnderTest blade({"--keep"}, {{"STANDIN", "abort"}});
    blade.waitUntilUp();
    sendOneMessage(blade);
    std::string line = blade.process.waitForOutput("the blade stays up");
    EXPECT_THAT(line,
                ContainsRegex("emp \\(pid [0-9]+\\) died of signal 6 \\(Aborted\\); the blade "
                              "stays up, start it again with: emp " +
                              blade.key.text()));
    Process byHand(commandOf("tests/standin_emp", {blade.key.text()}), blade.base.file("hand"));
    byHand.waitForOutput("key ");
    MmsgClient snmp(blade.slotFile("mmsg/snmp"));
    requireSoon(
        [&] { return blade.process.output().rfind("the event manager is initialised") > 200; },
        "the second notice");
    snmp.send(makeMmsg({.requestor = 28, .local = {27}, .handle = 4}));
    EXPECT_EQ(headerOf(snmp.receive()).handle, 4U);
    byHand.signal(SIGKILL);
    byHand.wait();
    blade.stop(SIGTERM, 1);
}

TEST(BladeDeath, FailedEventManagerIsStartedAgainSoOften) {
    BladeUnderTest blade({"--restart", "on-failure", "--restart-limit", "1"},
                         {{"STANDIN", "abort"}});
    blade.waitUntilUp();
    sendOneMessage(blade);
    blade.process.waitForOutput("(Aborted); it is started again (1 of 1)");
    requireSoon(
        [&] { return blade.process.output().rfind("the event manager is initialised") > 200; },
        "the second notice");
    sendOneMessage(blade);
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(blade.process.output(),
                ContainsRegex("blade: the event manager was started again 1 times in a row: no "
                              "more\nblade: emp .* died of signal 6 .Aborted.\nblade: down\n"));
    expectNothingLeft(blade);
}

TEST(BladeDeath, EventManagerThatWasAskedToEndIsNotStartedAgain) {
    BladeUnderTest blade({"--restart", "on-failure"});
    blade.waitUntilUp();
    kill(childOf(blade.process.pid(), "standin_emp"), SIGTERM);
    EXPECT_EQ(blade.process.wait(), exitedWith(1));
    EXPECT_THAT(blade.process.output(), Not(HasSubstr("started again")));
}

TEST(BladeDeath, SecondSignalKillsWhatDoesNotEnd) {
    TempDirectory directory;
    BladeUnderTest blade({"--msm", standIn(), "--msm-log", directory.file("log")},
                         {{"STANDIN", "stubborn"}});
    waitForLine(directory.file("log"), "up");
    blade.process.signal(SIGTERM);
    blade.process.waitForOutput("stopping: Terminated");
    blade.process.signal(SIGTERM);
    EXPECT_EQ(blade.process.wait(std::chrono::seconds(4)), exitedWith(0));
    EXPECT_THAT(blade.process.output(), HasSubstr("blade: stopping at once\nblade: down\n"));
}

TEST(BladeDeath, ChildThatIgnoresItsSignalIsKilledInTheEnd) {
    TempDirectory directory;
    BladeUnderTest blade({"--msm", standIn(), "--msm-log", directory.file("log")},
                         {{"STANDIN", "stubborn"}});
    waitForLine(directory.file("log"), "up");
    blade.process.signal(SIGTERM);
    EXPECT_EQ(blade.process.wait(), exitedWith(0));
    EXPECT_FALSE(blade.key.exists());
}
