#include "switch_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

using namespace support;
using testing::HasSubstr;

// What the switch does for the endpoint eventlog alone: nothing for it is dropped, its senders
// wait.

namespace {

class EventManager : public testing::Test {
  protected:
    explicit EventManager(const std::string& holdSeconds = "60") : hold(holdSeconds) {}

    MmsgClient connect(const std::string& endpoint) { return msm.connect(endpoint); }

    static Bytes eventOf(U32_t number, size_t body = 4000) {
        return makeMmsg({.type = 1, .local = {27}, .handle = number}, Bytes(body));
    }

    /** Sends events from another thread, since the switch stops reading them. */
    static std::jthread sendEvents(MmsgClient& sender, U32_t count) {
        return std::jthread([&sender, count] {
            for (U32_t i = 0; i < count; ++i) {
                sender.send(eventOf(i));
            }
        });
    }

    static void expectEvents(MmsgClient& manager, U32_t count) {
        for (U32_t i = 0; i < count; ++i) {
            ASSERT_EQ(headerOf(manager.receive()).handle, i);
        }
    }

    std::string hold;
    TempDirectory directory;
    RunningSwitch msm{directory.path(), {"--queue", "50", "--hold", hold}};
};

class ImpatientSwitch : public EventManager {
  protected:
    ImpatientSwitch() : EventManager("1") {}
};

/** Far more than sockets and a queue of 50 hold. */
constexpr U32_t MANY = 1000;

} // namespace

TEST_F(EventManager, SenderThatIsFasterWaitsAndLosesNothing) {
    MmsgClient manager = connect("eventlog");
    MmsgClient startup = connect("startup");
    {
        std::jthread sending = sendEvents(startup, MANY);
        msm.process().waitForOutput("startup#2: held, the event manager is slower");
        expectEvents(manager, MANY);
    }
    std::string output = msm.stop();
    EXPECT_THAT(output, HasSubstr("eventlog: received 0, delivered 1000, dropped 0, unconnected"));
    EXPECT_EQ(findLine(output, "senders held 0,"), "");
}

TEST_F(EventManager, WaitingOfOneSenderStopsNobodyElse) {
    MmsgClient manager = connect("eventlog");
    MmsgClient startup = connect("startup");
    MmsgClient snmp = connect("snmp");
    std::jthread sending = sendEvents(startup, MANY);
    // Until the sender has filled all there is, and long after: others get through.
    for (U32_t i = 0; i < MANY; ++i) {
        snmp.send(makeMmsg({.local = {28}, .handle = i}));
        ASSERT_EQ(headerOf(snmp.receive()).handle, i);
    }
    expectEvents(manager, MANY);
}

TEST_F(EventManager, IsReadWhileItsOwnQueueIsFull) {
    MmsgClient manager = connect("eventlog");
    MmsgClient startup = connect("startup");
    MmsgClient management = connect("smi_ind");
    std::jthread sending = sendEvents(startup, MANY);
    // It sends before it reads: were it not read now, neither side would ever go on.
    for (U32_t i = 0; i < MANY; ++i) {
        manager.send(makeMmsg({.requestor = 27, .local = {30}, .handle = i}, Bytes(4000)));
        ASSERT_EQ(headerOf(management.receive()).handle, i);
    }
    expectEvents(manager, MANY);
}

TEST_F(EventManager, SeveralFastSendersGetTheirTurn) {
    MmsgClient manager = connect("eventlog");
    MmsgClient startup = connect("startup");
    MmsgClient drivead = connect("drivead");
    std::jthread first = sendEvents(startup, MANY);
    std::jthread second = sendEvents(drivead, MANY);
    U32_t next[2] = {0, 0};
    for (U32_t i = 0; i < 2 * MANY; ++i) {
        U32_t handle = headerOf(manager.receive()).handle;
        ASSERT_TRUE(handle == next[0] || handle == next[1]) << handle;
        ++next[handle == next[0] ? 0 : 1];
    }
}

TEST_F(EventManager, EventsThatCameBeforeItWait) {
    MmsgClient startup = connect("startup");
    for (U32_t i = 0; i < 5; ++i) {
        startup.send(eventOf(i));
    }
    msm.process().waitForOutput(
        "startup#1: waits for an event manager to connect, for 60 seconds at most");
    MmsgClient manager = connect("eventlog");
    expectEvents(manager, 5);
    expectNothingBefore(startup, manager, 27);
}

TEST_F(EventManager, EventsOfASenderThatIsGoneWaitToo) {
    {
        MmsgClient startup = connect("startup");
        for (U32_t i = 0; i < 5; ++i) {
            startup.send(eventOf(i));
        }
    }
    msm.process().waitForOutput("startup#1: waits for");
    MmsgClient manager = connect("eventlog");
    expectEvents(manager, 5);
    msm.process().waitForOutput("startup#1: disconnected");
}

TEST_F(ImpatientSwitch, ClosesASenderThatWaitedForNobody) {
    MmsgClient startup = connect("startup");
    startup.send(eventOf(1));
    startup.waitForEnd();
    msm.process().waitForOutput("startup#1: closed, it waited 1 seconds for an event manager, but "
                                "none is connected");
    EXPECT_THAT(msm.stop(), HasSubstr("senders held 1, closed after waiting 1, second ones"));
}

TEST_F(ImpatientSwitch, ClosesASenderThatWaitedForAnEventManagerThatTakesNothing) {
    MmsgClient manager = connect("eventlog");
    MmsgClient startup = connect("startup");
    EXPECT_THROW(
        {
            for (U32_t i = 0; i < MANY; ++i) {
                startup.send(eventOf(i));
            }
        },
        std::exception);
    msm.process().waitForOutput(
        "startup#2: closed, it waited 1 seconds for eventlog#1, which takes nothing");
}

TEST_F(EventManager, ThatDiedLeavesWhatWaitedForItToTheNext) {
    MmsgClient startup = connect("startup");
    std::string kept;
    U32_t taken = 0;
    {
        MmsgClient manager = connect("eventlog");
        std::jthread sending = sendEvents(startup, MANY);
        msm.process().waitForOutput("startup#1: held, the event manager is slower");
        expectEvents(manager, 10);
        manager.close();
        kept = msm.process().waitForOutput("are kept for the next event manager");
        MmsgClient next = connect("eventlog");
        // What was in the socket of the dead one went with it; the rest comes whole and in order.
        taken = headerOf(next.receive()).handle;
        for (U32_t i = taken + 1; i < MANY; ++i) {
            ASSERT_EQ(headerOf(next.receive()).handle, i);
        }
    }
    EXPECT_GT(taken, 10U);
    EXPECT_LT(taken, MANY / 2);
    EXPECT_THAT(msm.stop(), HasSubstr("eventlog: received 0, delivered 1000, dropped 0"));
}

TEST_F(EventManager, SecondOneIsRefusedWhileTheFirstStands) {
    MmsgClient manager = connect("eventlog");
    MmsgClient second(directory.file("eventlog"));
    second.waitForEnd();
    EXPECT_EQ(msm.process().waitForOutput("eventlog#2"),
              "msm: eventlog#2: refused, eventlog#1 is connected: a second event manager would "
              "write into the log of the first");
    MmsgClient startup = connect("startup");
    expectNothingBefore(startup, manager, 27);
    manager.close();
    MmsgClient next = connect("eventlog");
    expectNothingBefore(startup, next, 27);
    EXPECT_THAT(msm.stop(), HasSubstr("second ones refused 1"));
}

TEST_F(EventManager, SuccessorOfADeadOneIsTakenWhileTheDeadOneIsStillRead) {
    MmsgClient management = connect("smi_ind");
    MmsgClient startup = connect("startup");
    auto dead = std::make_unique<MmsgClient>(connect("eventlog"));
    // The switch finds the end of the one, much to read from it, and the other, all at once.
    msm.process().signal(SIGSTOP);
    for (U32_t i = 0; i < 30; ++i) {
        dead->send(makeMmsg({.requestor = 27, .local = {30}, .handle = i}, Bytes(4000)));
    }
    dead.reset();
    MmsgClient next(directory.file("eventlog"));
    msm.process().signal(SIGCONT);
    for (U32_t i = 0; i < 30; ++i) {
        ASSERT_EQ(headerOf(management.receive()).handle, i);
    }
    expectNothingBefore(startup, next, 27);
}
