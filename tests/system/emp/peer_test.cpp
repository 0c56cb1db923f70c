#include "blade.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace support;

namespace {

/** Processor time in ticks. */
long ticksOf(pid_t pid) {
    return atol(statField(pid, 14).c_str()) + atol(statField(pid, 15).c_str());
}

/** Expects that a process lives on busily. */
void expectSpin(RunningEmp& emp) {
    long before = ticksOf(emp.process.pid());
    requireSoon([&] { return ticksOf(emp.process.pid()) >= before + 20; }, "the spin");
    EXPECT_EQ(emp.process.poll(), std::nullopt);
    emp.kill();
}

void waitForState(pid_t pid, const std::string& state) {
    requireSoon([&] { return statField(pid, 3) == state; }, "state " + state);
}

void stopAndContinue(RunningEmp& emp) {
    waitForState(emp.process.pid(), "S");
    emp.process.signal(SIGSTOP);
    waitForState(emp.process.pid(), "T");
    emp.process.signal(SIGCONT);
    waitForState(emp.process.pid(), "S");
}

TEST(Peer, GoneWithUnreadDataIsABugCheck) {
    Blade blade;
    RunningEmp emp(blade);
    emp.process.waitForOutput("Wait for Event Messages.");
    emp.msm.close(); // the notice is still in it
    emp.expectBugCheck("main", READ_FAILS);
}

TEST(Peer, GoneBeforeACopyIsABugCheckNotASignal) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    // Stopped meanwhile, so that no copy can be under way when the peer goes.
    emp.process.signal(SIGSTOP);
    waitForState(emp.process.pid(), "T");
    emp.msm.send(eventMessage(18, {'x'}));
    emp.msm.close();
    emp.process.signal(SIGCONT);
    std::string output = emp.expectBugCheck("empSendEventLogMsgToSmi",
                                            "Linux send function fails, sendSize = [217] is wrong");
    EXPECT_NE(output.find("| Line:      5198\n"), std::string::npos);
    EXPECT_EQ(blade.logged(200, 2), (Bytes{0xB6, 0x8F})) << "the event was stored before";
    EXPECT_EQ(blade.alternateFiles(), 24U);
}

TEST(Peer, EndOfStreamSpins) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.msm.close();
    emp.process.waitForOutput("main(): The socket to MSM is selected.");
    expectSpin(emp);
}

TEST(Peer, EndOfStreamInsideAMessageSpins) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    Bytes message = eventMessage(18, Bytes(100));
    message.resize(200);
    emp.msm.send(message);
    emp.msm.finishSending();
    emp.process.waitForOutput("main(): The socket to MSM is selected.");
    expectSpin(emp);
}

TEST(Peer, StopAndContinueWhileWaitingForMessages) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    for (U32_t id = 1; id <= 3; id++) {
        stopAndContinue(emp);
        EXPECT_EQ(emp.log(18, {1}), id);
    }
}

TEST(Peer, StopAndContinueInsideAMessage) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    // The last piece alone is left of a split message; this one is a message by itself.
    Bytes piece = bareMessage(4);
    Bytes first = eventMessage(18, Bytes(100));
    first.resize(316 - piece.size());
    emp.msm.send(first);
    emp.process.waitForOutput("main(): The socket to MSM is selected.");
    stopAndContinue(emp);
    emp.msm.send(piece);
    emp.process.waitForOutput("EMP does not support Get Event Archiver Message.");
    EXPECT_EQ(emp.log(18, {1}), 1U) << "the split event is lost";
}

TEST(Peer, EventsWaitWhileTheProcessIsStopped) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.process.signal(SIGSTOP);
    waitForState(emp.process.pid(), "T");
    emp.msm.send(joined({eventMessage(18, {1}), eventMessage(18, {2})}));
    emp.process.signal(SIGCONT);
    EXPECT_EQ(number32(emp.msm.receive(), 200), 1U);
    EXPECT_EQ(number32(emp.msm.receive(), 200), 2U);
}

TEST(Peer, OneThatDoesNotReadHoldsEverythingUpAndLosesNothing) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    // Events without reading a copy, until both directions are full. A message of this size goes
    // into the socket whole or not at all.
    U32_t sent = 0;
    auto sendOne = [&] {
        Bytes event = eventMessage(18, Bytes(3848, static_cast<U8_t>(sent)));
        return ::send(emp.msm.descriptor(), event.data(), event.size(), MSG_DONTWAIT) > 0;
    };
    while (waitUntil(sendOne, std::chrono::milliseconds(300))) {
        sent++;
        ASSERT_LT(sent, 1000U) << "nothing holds it up";
    }
    EXPECT_EQ(emp.process.poll(), std::nullopt);
    for (U32_t id = 1; id <= sent; id++) {
        Bytes copy = emp.msm.receive();
        ASSERT_EQ(number32(copy, 200), id);
        EXPECT_EQ(copy.at(216), static_cast<U8_t>(id - 1));
    }
    EXPECT_EQ(emp.log(18, {}), sent + 1);
}

} // namespace
