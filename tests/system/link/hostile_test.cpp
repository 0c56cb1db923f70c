#include "link_fixture.h"

#include <csignal>

using namespace support;

namespace {

class Hostile : public LinkProcessTest {
  protected:
    Hostile() : end_(open(0, 0)) { counts(); }

    /** Sends a message that must change nothing. */
    void sendInVain(const Bytes& message, const std::string& line) {
        end_.send(message);
        emp_.process.waitForOutput(line);
        EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1}));
        expectForwarding(end_, {1});
    }

    /** A whole message, found at once however large it is. */
    void deliverWhole(const Bytes& message) {
        emp_.process.signal(SIGSTOP);
        end_.send(message);
        end_.waitUntilDelivered();
        emp_.process.signal(SIGCONT);
    }

    ArchiverEnd end_;
};

TEST_F(Hostile, WrongVersionIsDropped) {
    Bytes answer = statusAnswer(0xFFFFFFFF, 3);
    answer[1] = 2;
    sendInVain(answer, "Event Archiver Msg Header version [2] is not supported");
}

TEST_F(Hostile, RequestIsDropped) {
    Bytes answer = statusAnswer(0xFFFFFFFF, 3);
    answer[7] = 1;
    sendInVain(answer, "Event Archiver Message flag [1] is not RESPONSE");
}

TEST_F(Hostile, UnknownTypesAreDropped) {
    for (U32_t type : {0U, 2U, 3U, 4U, 5U, 7U, 0xFFFFU}) {
        end_.send(answerHeader(0, type, 1, 0));
    }
    sendInVain(answerHeader(0, 4, 1, 0), "EMP does not support Get Event Archiver Message.");
}

TEST_F(Hostile, BodiesAboveTheLimitAreDropped) {
    for (U32_t length : {4065U, 65535U}) {
        Bytes answer = answerHeader(length, 6, 1, 0);
        answer.resize(16 + length, 0xFF);
        deliverWhole(answer);
        emp_.process.waitForOutput("Event Archiver Message length [" + std::to_string(length) +
                                   "] is out of range");
    }
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1}));
    expectForwarding(end_, {1});
}

TEST_F(Hostile, LongBodyThatDoesNotComeEndsTheEventManager) {
    Bytes answer = answerHeader(65535, 6, 1, 0);
    answer.resize(116);
    end_.send(answer);
    emp_.expectBugCheck(
        "main", "Linux recv function fails, Event Archiver Msg length readSize = [116] is wrong");
}

TEST_F(Hostile, SplitAnswerEndsTheEventManager) {
    Bytes answer = statusAnswer(0, 0);
    answer.resize(100);
    end_.send(answer);
    emp_.expectBugCheck(
        "main", "Linux recv function fails, Event Archiver Msg length readSize = [100] is wrong");
}

TEST_F(Hostile, PartOfAHeaderClosesTheLink) {
    end_.send(Bytes(15, 0));
    EXPECT_TRUE(end_.isClosed());
    EXPECT_EQ(counts(), (LinkCounts{0, 0, 1, 1}));
}

TEST_F(Hostile, UnknownHandleIsDroppedAndTheInquiryWaitsOn) {
    emp_.msm.send(inquiry(EXACT, other_, 1, 7));
    end_.receive(160);
    end_.send(inquiryAnswer(other_, 1, 1, 8));
    const Bytes answer = inquiryAnswer(other_, 1, 1, 7);
    end_.send(answer);
    EXPECT_EQ(reply(1, 7), Bytes(answer.begin() + 16, answer.end()));
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1}));
}

TEST_F(Hostile, AnswerThatClaimsMoreDataThanFitIsDropped) {
    emp_.msm.send(inquiry(EXACT, other_, 1, 7));
    end_.receive(160);
    Bytes answer = inquiryAnswer(other_, 1, 1, 7);
    answer[16 + 144] = 0xFF;
    answer[16 + 145] = 0xFF;
    end_.send(answer);
    answer[16 + 144] = 3848 >> 8;
    answer[16 + 145] = 3848 & 0xFF;
    end_.send(answer);
    const Bytes body = reply(1, 7);
    ASSERT_EQ(body.size(), 4000U);
    EXPECT_EQ(Bytes(body.begin() + 152, body.end()), Bytes(3848)) << "what did not come is zero";
}

TEST_F(Hostile, LastAboutThisBladeEndsTheEventManager) {
    emp_.msm.send(inquiry(LAST, other_, 1, 7));
    end_.receive(160);
    end_.send(inquiryAnswer(own_, 1, 1, 7));
    emp_.expectBugCheck("empRcvEventLogMsgFromEventArchiver",
                        "Receive Get Last Msg from Event Archiver?");
}

TEST_F(Hostile, ClearingBeyondTheLogEndsAtOnce) {
    end_.send(statusAnswer(0xFFFFFFFE, 2));
    emp_.process.waitForOutput("asks us to clear Event Log prior than Seq Id = [-2]");
    EXPECT_EQ(counts(), (LinkCounts{1, 0, 0, 1}));
}

} // namespace
