#include "switch_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <sys/socket.h>

using namespace support;
using testing::HasSubstr;

namespace {

class Flow : public testing::Test {
  protected:
    TempDirectory directory;
    RunningSwitch msm{directory.path(), {"--queue", "50"}};

    MmsgClient connect(const std::string& endpoint) { return msm.connect(endpoint); }
};

} // namespace

TEST_F(Flow, EachMessageArrivesInOnePiece) {
    MmsgClient startup = connect("startup");
    MmsgClient eventlog = connect("eventlog");
    for (size_t body : {0, 1, 152, 3999, 4000}) {
        for (int round = 0; round < 40; ++round) {
            Bytes message = makeMmsg({.local = {27}}, Bytes(body, 0x11));
            startup.send(message);
            // One recv() takes what is there: all of it, as soon as any of it is.
            ASSERT_EQ(eventlog.receivePiece(), message);
        }
    }
}

TEST_F(Flow, MessageSentByteByByteArrivesInOnePiece) {
    MmsgClient startup = connect("startup");
    MmsgClient eventlog = connect("eventlog");
    Bytes message = makeMmsg({.local = {27}}, Bytes(100, 0x22));
    for (U8_t byte : message) {
        startup.send({byte});
    }
    EXPECT_EQ(eventlog.receivePiece(), message);
}

TEST_F(Flow, LengthsOutside64To4064CloseTheConnection) {
    MmsgClient eventlog = connect("eventlog");
    int number = 1;
    for (U32_t length : {0, 63, 4065, 65535}) {
        MmsgClient bad = connect("startup");
        Bytes message = makeMmsg({.local = {27}});
        headerOf(message).mmsg_length = static_cast<U16_t>(length);
        bad.send(message);
        bad.waitForEnd();
        msm.process().waitForOutput("startup#" + std::to_string(++number) +
                                    ": closed, mmsg_length " + std::to_string(length) +
                                    " is not between 64 and 4064");
    }
    MmsgClient good = connect("startup");
    expectNothingBefore(good, eventlog, 27);
    EXPECT_THAT(msm.stop(), HasSubstr("bad lengths 4, broken messages 0"));
}

TEST_F(Flow, MessagesBeforeABadOneAreDelivered) {
    MmsgClient eventlog = connect("eventlog");
    MmsgClient bad = connect("startup");
    Bytes good = makeMmsg({.local = {27}, .handle = 1});
    Bytes both = good;
    Bytes broken = makeMmsg({.local = {27}});
    headerOf(broken).mmsg_length = 1;
    both.insert(both.end(), broken.begin(), broken.end());
    bad.send(both);
    EXPECT_EQ(eventlog.receive(), good);
    bad.waitForEnd();
}

TEST_F(Flow, DeathInTheMiddleOfAMessageTakesTheMessageOnly) {
    MmsgClient eventlog = connect("eventlog");
    MmsgClient dying = connect("startup");
    Bytes message = makeMmsg({.local = {27}}, Bytes(100));
    dying.send(message);
    message.resize(70);
    dying.send(message);
    dying.close();
    msm.process().waitForOutput(
        "startup#2: ended in the middle of a message, after 70 bytes of it");
    EXPECT_EQ(eventlog.receive().size(), 164U);
    MmsgClient next = connect("startup");
    expectNothingBefore(next, eventlog, 27);
    EXPECT_THAT(msm.stop(), HasSubstr("bad lengths 0, broken messages 1"));
}

TEST_F(Flow, LastWordsOfADeadPeerAreDelivered) {
    // More than the switch reads at once, all of it there before the switch looks again; each
    // message goes to the dead peer, too, so that the switch finds it gone while it still reads.
    constexpr U32_t COUNT = 20;
    MmsgClient eventlog = connect("eventlog");
    MmsgClient management = connect("smi_ind");
    {
        MmsgClient dying = connect("startup");
        msm.process().signal(SIGSTOP);
        for (U32_t i = 0; i < COUNT; ++i) {
            dying.send(makeMmsg({.local = {18, 27}, .handle = i}, Bytes(4000)));
        }
    }
    msm.process().signal(SIGCONT);
    for (U32_t i = 0; i < COUNT; ++i) {
        ASSERT_EQ(headerOf(eventlog.receive()).handle, i);
    }
    expectNothingBefore(management, eventlog, 27);
}

TEST_F(Flow, DeathOfAReaderLeavesTheOthersAlone) {
    MmsgClient startup = connect("startup");
    MmsgClient eventlog = connect("snmp");
    MmsgClient dead = connect("snmp");
    dead.close();
    msm.process().waitForOutput("snmp#3: disconnected");
    expectNothingBefore(startup, eventlog, 28);
}

TEST_F(Flow, SlowReaderStallsNobodyAndItsLossIsSaid) {
    MmsgClient startup = connect("startup");
    MmsgClient slow = connect("snmp");
    MmsgClient fast = connect("snmp");
    // Far more than the socket and the queue of 50 hold.
    constexpr U32_t COUNT = 1000;
    for (U32_t i = 0; i < COUNT; ++i) {
        startup.send(makeMmsg({.local = {28}, .handle = i}, Bytes(4000)));
        ASSERT_EQ(headerOf(fast.receive()).handle, i);
    }
    msm.process().waitForOutput("snmp#2: 50 messages wait for it already, messages are dropped");
    // What it gets is the beginning of the stream, whole messages in their order.
    startup.send(makeMmsg({.local = {29}, .handle = COUNT}));
    U32_t received = 0;
    std::string dropped;
    while (dropped.empty()) {
        ASSERT_EQ(headerOf(slow.receive()).handle, received);
        ++received;
        dropped = findLine(msm.process().output(), "messages were dropped");
    }
    // The queue is empty now: all that is left waits in the socket.
    EXPECT_EQ(dropped.rfind("msm: snmp#2: ", 0), 0U);
    U32_t lost = static_cast<U32_t>(std::stoul(dropped.substr(sizeof("msm: snmp#2: ") - 1)));
    for (; received < COUNT - lost; ++received) {
        ASSERT_EQ(headerOf(slow.receive()).handle, received);
    }
    EXPECT_GT(received, 50U);
    expectNothingBefore(startup, slow, 28);
    EXPECT_EQ(headerOf(fast.receive()).handle & 0xF0000000U, 0xF0000000U);
    EXPECT_THAT(msm.stop(),
                HasSubstr("snmp: received 0, delivered " + std::to_string(2 * COUNT - lost + 2) +
                          ", dropped " + std::to_string(lost) + ", unconnected 0"));
}

TEST_F(Flow, SlowReaderIsStillRead) {
    MmsgClient mute = connect("snmp");
    MmsgClient startup = connect("startup");
    // The peer of a full queue sends on: a switch that stopped to read it would block it.
    for (U32_t i = 0; i < 300; ++i) {
        startup.send(makeMmsg({.local = {28}}, Bytes(4000)));
    }
    msm.process().waitForOutput("snmp#1: 50 messages wait for it already");
    for (U32_t i = 0; i < 300; ++i) {
        mute.send(makeMmsg({.requestor = 27, .local = {18}, .handle = i}, Bytes(4000)));
        ASSERT_EQ(headerOf(startup.receive()).handle, i);
    }
}

TEST_F(Flow, MessagesThatWaitForADyingReaderCountAsDropped) {
    MmsgClient startup = connect("startup");
    {
        MmsgClient slow = connect("snmp");
        for (U32_t i = 0; i < 300; ++i) {
            startup.send(makeMmsg({.local = {28}}, Bytes(4000)));
        }
        msm.process().waitForOutput("snmp#2: 50 messages wait for it already");
    }
    msm.process().waitForOutput("snmp#2: 50 messages that waited for it are dropped");
    msm.process().waitForOutput("snmp#2: disconnected");
}

TEST_F(Flow, ReaderThatComesBackIsServed) {
    MmsgClient startup = connect("startup");
    connect("eventlog").close();
    msm.process().waitForOutput("eventlog#2: disconnected");
    MmsgClient again = connect("eventlog");
    expectNothingBefore(startup, again, 27);
}
