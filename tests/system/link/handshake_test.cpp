#include "link_fixture.h"

using namespace support;

namespace {

class Handshake : public LinkProcessTest {};

TEST_F(Handshake, ComesFirstAndTheEventsFollowInOrder) {
    Bytes expected = firstEntry();
    for (U8_t size = 0; size < 5; ++size) {
        expected = std::move(expected) + log(Bytes(size, 0x30));
    }
    ArchiverEnd end = open(0, 1);
    EXPECT_EQ(end.receive(expected.size()), expected);
    expectForwarding(end, {7, 8, 9});
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1}));
    EXPECT_TRUE(end.isQuiet());
}

TEST_F(Handshake, EventsGoOnBehindWhatTheArchiverHas) {
    log({1});
    log({2});
    const Bytes third = log({3});
    ArchiverEnd end = open(2, 0);
    EXPECT_EQ(end.receive(third.size()), third);
    expectForwarding(end, {4, 4, 4, 4});
}

TEST_F(Handshake, SecondSetRequestInARowGetsAHandshakeToo) {
    archiver_.listen();
    emp_.msm.send(joined({setRequest(), setRequest()}));
    EXPECT_EQ(emp_.msm.receive().size(), 72U);
    EXPECT_EQ(emp_.msm.receive().size(), 72U);
    ArchiverEnd first = archiver_.accept();
    EXPECT_TRUE(first.isClosed());
    ArchiverEnd second = archiver_.accept();
    EXPECT_EQ(second.receive(196), firstStatusRequest(1000));
    second.send(statusAnswer(0, 1));
    EXPECT_EQ(second.receive(208), firstEntry());
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 1, 2}));
}

TEST_F(Handshake, SetRequestOnAnOpenLinkStartsAnew) {
    ArchiverEnd first = open(0, 0);
    expectForwarding(first, {1});
    emp_.msm.send(setRequest());
    EXPECT_EQ(emp_.msm.receive().size(), 72U);
    EXPECT_TRUE(first.isClosed());
    ArchiverEnd second = archiver_.accept();
    EXPECT_EQ(second.receive(196), firstStatusRequest(1001));
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 1, 2}));
}

TEST_F(Handshake, RefusedArchiverIsTriedAgainByTheReconnectTimer) {
    emp_.msm.send(setRequest());
    EXPECT_EQ(emp_.msm.receive().size(), 72U);
    emp_.process.waitForOutput("Close the Event Archiver connection.");
    EXPECT_EQ(counts(), (LinkCounts{0, 0, 1, 1}));
    archiver_.listen();
    emp_.msm.send(passes(301));
    ArchiverEnd end = archiver_.accept();
    EXPECT_EQ(end.receive(196), firstStatusRequest(1000));
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 1, 2}));
}

TEST_F(Handshake, LostLinkIsTriedAgainByTheReconnectTimer) {
    { ArchiverEnd end = open(0, 0); }
    emp_.process.waitForOutput("Close the Event Archiver connection.");
    const Bytes missed = log({1, 2});
    emp_.msm.send(passes(301));
    ArchiverEnd end = archiver_.accept();
    EXPECT_EQ(end.receive(196), firstStatusRequest(1001));
    end.send(statusAnswer(0, 0, 1001));
    EXPECT_EQ(end.receive(missed.size()), missed);
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 1, 2}));
}

TEST_F(Handshake, EventAfterClearAllIsSentTwice) {
    log({1});
    ArchiverEnd end = open(1, 2);
    emp_.process.waitForOutput("asks us to clear Event Log prior than Seq Id = [1]");
    const Bytes twice = log({2, 2});
    EXPECT_EQ(end.receive(2 * twice.size()), joined({twice, twice}));
    expectForwarding(end, {3});
    emp_.msm.send(passes(2));
    counts();
    EXPECT_TRUE(end.isQuiet());
}

TEST_F(Handshake, LargestIdClearsNothingAndTheLogIsSentFromTheOldest) {
    const Bytes event = log({1});
    ArchiverEnd end = open(0xFFFFFFFF, 2);
    EXPECT_EQ(end.receive(208), firstEntry());
    EXPECT_EQ(end.receive(event.size()), event);
    emp_.msm.send(inquiry(EXACT, own_, 0, 9));
    EXPECT_EQ(reply(1, 9), blade_.logged(8, 192));
}

TEST_F(Handshake, ClearAllThenWrapLeavesALogOfThatEvent) {
    U32_t newest = 0;
    for (; newest < 399; ++newest) {
        log(Bytes(3848, 0x11)); // the 400th of them does not fit
    }
    ArchiverEnd end = open(newest, 2);
    emp_.process.waitForOutput("asks us to clear Event Log prior than Seq Id = [399]");
    const Bytes twice = log(Bytes(3848, 0x22));
    EXPECT_EQ(end.receive(2 * twice.size()), joined({twice, twice}));
    emp_.msm.send(inquiry(EXACT, own_, newest + 1, 9));
    EXPECT_EQ(reply(1, 9), Bytes(twice.begin() + 16, twice.end()));
    EXPECT_EQ(blade_.logged(8, 4000), Bytes(twice.begin() + 16, twice.end()));
    emp_.kill();
    RunningEmp again(blade_);
    again.startQuietly();
    EXPECT_EQ(again.log(18, {1}), newest + 2);
}

} // namespace
