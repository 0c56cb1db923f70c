#include "link_fixture.h"

using namespace support;

namespace {

class Relay : public LinkProcessTest {
  protected:
    /** What an inquiry becomes on the link. */
    static Bytes relayed(U32_t type, const LogName& log, U32_t id, U32_t handle) {
        return inquiryMessage(type, log, id, handle);
    }
};

TEST_F(Relay, SixteenTimerPassesEndAnInquiryWithOneReply) {
    ArchiverEnd end = open(0, 0);
    counts();
    // The sixteenth pass serves the first status request in front of its timers.
    emp_.msm.send(
        joined({inquiry(EXACT, other_, 77, 0x1234), passes(14), bareMessage(5), bareMessage(5)}));
    EXPECT_EQ(end.receive(160), relayed(EXACT, other_, 77, 0x1234));
    EXPECT_EQ(get32(emp_.msm.receive(), 72), 0U) << "no time-out yet";
    Bytes expected;
    putText(expected, "CHASSIS-7");
    expected.resize(128); // no blade
    put32(expected, 4);
    put32(expected, 0);
    put32(expected, 77);
    expected.resize(152);
    EXPECT_EQ(reply(3, 0x1234), expected);
    EXPECT_EQ(get32(emp_.msm.receive(), 72), 1U);
    emp_.msm.send(passes(20));
    EXPECT_EQ(counts(), (LinkCounts{1, 1, 0, 1})) << "and nothing else";
    emp_.msm.send(inquiry(EXACT, own_, 0, 5));
    EXPECT_EQ(reply(1, 5), blade_.logged(8, 192));
    emp_.msm.send(inquiry(EXACT, other_, 78, 6));
    EXPECT_EQ(end.receive(160), relayed(EXACT, other_, 78, 6));
    end.send(inquiryAnswer(other_, 78, 1, 6));
    EXPECT_EQ(get32(reply(1, 6), 136), 78U);
}

TEST_F(Relay, SixtyFifthInquiryIsRefusedAfterSixtyFourAnswers) {
    ArchiverEnd end = open(0, 0);
    counts();
    for (U32_t handle = 1; handle <= 64; ++handle) {
        emp_.msm.send(inquiry(EXACT, other_, handle, handle));
        EXPECT_EQ(end.receive(160), relayed(EXACT, other_, handle, handle));
        const Bytes answer = inquiryAnswer(other_, handle, 1, handle);
        end.send(answer);
        EXPECT_EQ(reply(1, handle), Bytes(answer.begin() + 16, answer.end()));
    }
    emp_.msm.send(inquiry(EXACT, other_, 65, 65));
    EXPECT_EQ(reply(2, 65).size(), 152U);
    EXPECT_TRUE(end.isQuiet());
    expectForwarding(end, {1}); // events still go
}

TEST_F(Relay, SixtyFiveInquiriesBeforeTheHandshakeUseUpThePool) {
    ArchiverEnd end = connect();
    for (U32_t handle = 1; handle <= 64; ++handle) {
        emp_.msm.send(inquiry(EXACT, other_, 1, handle));
    }
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1})) << "nobody got an answer";
    emp_.msm.send(inquiry(EXACT, other_, 1, 65));
    emp_.expectBugCheck("empSendEventInquiryToEventArchiver", "No more Event Message Record?");
    EXPECT_TRUE(end.isClosed());
}

TEST_F(Relay, FailedNextAboutThisBladeIsFilledInUpToTheNewestButOne) {
    log({1});
    log({2});
    const Bytes third = log({3});
    log({4}); // next id 5
    ArchiverEnd end = open(4, 0);
    emp_.msm.send(inquiry(NEXT, other_, 2, 50));
    EXPECT_EQ(end.receive(160), relayed(NEXT, other_, 2, 50));
    end.send(inquiryAnswer(own_, 2, 2, 50));
    EXPECT_EQ(reply(1, 50), Bytes(third.begin() + 16, third.end()));
    emp_.msm.send(inquiry(NEXT, other_, 3, 51));
    EXPECT_EQ(end.receive(160), relayed(NEXT, other_, 3, 51));
    const Bytes failure = inquiryAnswer(own_, 3, 2, 51);
    end.send(failure);
    EXPECT_EQ(reply(2, 51), Bytes(failure.begin() + 16, failure.end()));
}

} // namespace
