#include "switch_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <thread>

using namespace support;
using testing::HasSubstr;

namespace {

/** Two switches in two directories, each told where the other's link is. */
class Linked : public testing::Test {
  protected:
    explicit Linked(std::vector<std::string> options = {}) : options_(std::move(options)) {}
    void startFirst() { first = start(firstDirectory, secondDirectory); }
    void startSecond() { second = start(secondDirectory, firstDirectory); }
    void startBoth() {
        startFirst();
        startSecond();
        waitForLink();
    }
    void waitForLink() {
        first->process().waitForOutput("link: connected to");
        second->process().waitForOutput("link: connected to");
    }
    static MmsgClient connect(RunningSwitch& msm, const std::string& endpoint) {
        return msm.connect(endpoint);
    }

    TempDirectory firstDirectory;
    TempDirectory secondDirectory;
    std::unique_ptr<RunningSwitch> first;
    std::unique_ptr<RunningSwitch> second;

  private:
    std::unique_ptr<RunningSwitch> start(const TempDirectory& own, const TempDirectory& other) {
        std::vector<std::string> arguments{"--link", other.file("link")};
        arguments.insert(arguments.end(), options_.begin(), options_.end());
        return std::make_unique<RunningSwitch>(own.path(), arguments);
    }

    std::vector<std::string> options_;
};

/** Far more than sockets and queues of 50 hold. */
constexpr U32_t MANY_MESSAGES = 1500;

Bytes eventForOther(U32_t number) {
    return makeMmsg({.type = 1, .other = {27}, .handle = number}, Bytes(4000));
}

class LinkedWithShortQueues : public Linked {
  protected:
    explicit LinkedWithShortQueues(const std::string& hold = "60")
        : Linked({"--queue", "50", "--hold", hold}) {}

    /** Sends events from another thread, since the switch stops reading them. */
    static std::jthread sendEvents(MmsgClient& sender, U32_t count) {
        return std::jthread([&sender, count] {
            for (U32_t i = 0; i < count; ++i) {
                sender.send(eventForOther(i));
            }
        });
    }
};

class ImpatientLinked : public LinkedWithShortQueues {
  protected:
    ImpatientLinked() : LinkedWithShortQueues("1") {}
};

/** @p message as it arrives on the other blade. */
Bytes fromOtherBlade(Bytes message) {
    headerOf(message).mmsg_cont |= 0x80;
    return message;
}

} // namespace

TEST_F(Linked, OtherBladesBitsGoOverTheLinkWithBit80) {
    startBoth();
    MmsgClient sender = connect(*first, "startup");
    MmsgClient here = connect(*first, "eventlog");
    MmsgClient there = connect(*second, "eventlog");
    Bytes message =
        makeMmsg({.type = 2, .cont = 0x40, .other = {27}, .handle = 5}, Bytes(144, 0x33));
    sender.send(message);
    Bytes expected = message;
    expected[17] = 0xC0;
    EXPECT_EQ(there.receive(), expected);
    expectNothingBefore(sender, here, 27);
}

TEST_F(Linked, BothBitmapsReachBothBladesOnce) {
    startBoth();
    MmsgClient sender = connect(*first, "eventlog");
    MmsgClient here = connect(*first, "smi_ind");
    MmsgClient there = connect(*second, "smi_ind");
    MmsgClient senderThere = connect(*second, "startup");
    Bytes message = makeMmsg({.requestor = 27, .local = {30}, .other = {30}});
    sender.send(message);
    EXPECT_EQ(here.receive(), message);
    EXPECT_EQ(there.receive(), fromOtherBlade(message));
    expectNothingBefore(sender, here, 30);
    expectNothingBefore(senderThere, there, 30);
}

TEST_F(Linked, LocalBitsStayOnTheirBlade) {
    startBoth();
    MmsgClient sender = connect(*first, "startup");
    MmsgClient here = connect(*first, "eventlog");
    MmsgClient there = connect(*second, "eventlog");
    // Bit 18 for the other blade takes the message over; its local bit 27 means nothing there.
    Bytes message = makeMmsg({.local = {27}, .other = {18}});
    MmsgClient startupThere = connect(*second, "startup");
    sender.send(message);
    EXPECT_EQ(here.receive(), message);
    EXPECT_EQ(startupThere.receive(), fromOtherBlade(message));
    expectNothingBefore(startupThere, there, 27);
}

TEST_F(Linked, RequestAndAnswerCrossTheLink) {
    startBoth();
    MmsgClient asker = connect(*first, "startup");
    MmsgClient manager = connect(*second, "eventlog");
    asker.send(makeMmsg({.type = 2, .other = {27}, .handle = 6}));
    Bytes request = manager.receive();
    ASSERT_EQ(headerOf(request).mmsg_cont, 0x80);
    manager.send(makeMmsg({.type = 2, .requestor = 27, .cont = 0x40, .other = {18}, .handle = 6},
                          Bytes(152)));
    Bytes answer = asker.receive();
    EXPECT_EQ(headerOf(answer).mmsg_cont, 0xC0);
    EXPECT_EQ(headerOf(answer).handle, 6U);
}

TEST_F(Linked, WhatCameOverTheLinkIsNeverSentBack) {
    startBoth();
    MmsgClient sender = connect(*first, "smi_ind");
    MmsgClient there = connect(*second, "smi_ind");
    sender.send(makeMmsg({.other = {30}}));
    there.receive();
    // The way back works: a mark that the other blade sends is the next that arrives.
    Bytes mark = makeMmsg({.type = 78, .other = {30}});
    there.send(mark);
    EXPECT_EQ(sender.receive(), fromOtherBlade(mark));
    second->stop();
    EXPECT_THAT(second->process().output(),
                HasSubstr("other blade: received 1, sent 1, dropped 0"));
    EXPECT_THAT(first->stop(), HasSubstr("other blade: received 1, sent 1, dropped 0"));
}

TEST_F(Linked, SwitchesStartInAnyOrder) {
    startSecond();
    second->process().waitForOutput("link: the other switch is not there yet");
    startFirst();
    waitForLink();
    MmsgClient sender = connect(*second, "startup");
    MmsgClient there = connect(*first, "eventlog");
    sender.send(makeMmsg({.other = {27}}));
    EXPECT_EQ(there.receive().size(), 64U);
}

TEST_F(Linked, MessagesForAMissingBladeAreCountedAsDropped) {
    startFirst();
    MmsgClient sender = connect(*first, "startup");
    sender.send(makeMmsg({.other = {27}}));
    first->process().waitForOutput("-> nobody, dropped for 1");
    EXPECT_THAT(first->stop(), HasSubstr("other blade: received 0, sent 0, dropped 1"));
}

TEST_F(Linked, LinkIsMadeAgainAfterTheOtherSwitchDied) {
    startBoth();
    second->process().signal(SIGKILL);
    second->process().wait();
    first->process().waitForOutput("link: lost " + secondDirectory.file("link"));
    MmsgClient sender = connect(*first, "startup");
    sender.send(makeMmsg({.other = {27}, .handle = 1}));
    first->process().waitForOutput("dropped for 1");
    startSecond();
    second->process().waitForOutput("link: connected to");
    MmsgClient there = connect(*second, "eventlog");
    // The first switch finds the second again by itself; until then messages are dropped.
    requireSoon(
        [&] {
            size_t at = first->process().output().find("link: lost");
            return first->process().output().find("link: connected to", at) != std::string::npos;
        },
        "the link to come back");
    sender.send(makeMmsg({.other = {27}, .handle = 2}));
    EXPECT_EQ(headerOf(there.receive()).handle, 2U);
}

TEST_F(LinkedWithShortQueues, EventsForAnEventManagerThatIsNotThereYetWaitAndNothingElseDoes) {
    startBoth();
    MmsgClient sender = connect(*first, "startup");
    MmsgClient other = connect(*first, "snmp");
    MmsgClient otherThere = connect(*second, "smi_ind");
    std::jthread sending = sendEvents(sender, MANY_MESSAGES);
    first->process().waitForOutput("held, the other blade's event manager is slower");
    for (U32_t i = 0; i < MANY_MESSAGES; ++i) {
        other.send(makeMmsg({.other = {30}, .handle = i}));
        ASSERT_EQ(headerOf(otherThere.receive()).handle, i);
    }
    MmsgClient manager = connect(*second, "eventlog");
    for (U32_t i = 0; i < MANY_MESSAGES; ++i) {
        ASSERT_EQ(headerOf(manager.receive()).handle, i);
    }
    sending.join();
    EXPECT_THAT(second->stop(), HasSubstr("eventlog: received 0, delivered 1500, dropped 0"));
    EXPECT_THAT(first->stop(), HasSubstr("other blade: received 0, sent 3000, dropped 0"));
}

TEST_F(ImpatientLinked, SenderThatWaitsTooLongForTheOtherBladeIsClosed) {
    startBoth();
    MmsgClient sender = connect(*first, "startup");
    EXPECT_THROW(
        {
            for (U32_t i = 0; i < MANY_MESSAGES; ++i) {
                sender.send(eventForOther(i));
            }
        },
        std::exception);
    first->process().waitForOutput("closed, it waited 1 seconds for the other blade's event "
                                   "manager, which takes nothing");
    EXPECT_THAT(first->stop(), HasSubstr("closed after waiting 1,"));
}

TEST_F(LinkedWithShortQueues, EventsThatWaitForASwitchThatDiesGoToTheNext) {
    startBoth();
    MmsgClient sender = connect(*first, "startup");
    std::jthread sending = sendEvents(sender, MANY_MESSAGES);
    first->process().waitForOutput("held, the other blade's event manager is slower");
    second->process().signal(SIGKILL);
    second->process().wait();
    // Nobody waits for a blade that is not there.
    sending.join();
    second.reset();
    startSecond();
    MmsgClient manager = connect(*second, "eventlog");
    U32_t begin = headerOf(manager.receive()).handle;
    for (U32_t i = 1; i < 50; ++i) {
        ASSERT_EQ(headerOf(manager.receive()).handle, begin + i);
    }
}
