#include "switch_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>

using namespace support;
using testing::HasSubstr;

namespace {

/** Two switches in two directories, each told where the other's link is. */
class Linked : public testing::Test {
  protected:
    void startFirst() {
        first = std::make_unique<RunningSwitch>(
            firstDirectory.path(),
            std::vector<std::string>{"--link", secondDirectory.file("link")});
    }
    void startSecond() {
        second = std::make_unique<RunningSwitch>(
            secondDirectory.path(),
            std::vector<std::string>{"--link", firstDirectory.file("link")});
    }
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
