#include "session.h"

#include "archive_fixture.h"

using namespace evarchive;
using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

// A session on top of an archive, without a lane in between.
class SessionTest : public ArchiveTest, protected Requests {
  protected:
    Session open(U64_t closeAfter = 0) {
        ++link_;
        return Session(
            *this, counts_, [this](Level, const std::string& line) { lines_.push_back(line); },
            closeAfter);
    }

    void takeEvent(View body, Certainty certainty) override {
        passedOn_.push_back(certainty);
        used_->fileEvent(link_, body, certainty);
    }
    void takeBackEvent(View body) override { used_->takeBack(link_, body); }
    void takeInquiry(U32_t handle, const EmpEvInquiryMsg_t& inquiry) override {
        const auto event = used_->answerInquiry(inquiry);
        answers_.push_back(event ? makeEventAnswer(handle, event->image)
                                 : makeEmptyAnswer(handle, inquiry, EMP_E_RESPONSE_FAILURE));
    }
    void takeStatusRequest(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request) override {
        const StatusVerdict verdict = used_->answerStatus(link_, request);
        answers_.push_back(
            makeStatusAnswer(handle, request, verdict.sequenceIdLast, verdict.controlFlag));
    }

    Archive* used_ = &archive_;
    LinkNumber link_ = 1;
    SessionCounts counts_;
    std::vector<Certainty> passedOn_;
    std::vector<Bytes> answers_;
    std::vector<std::string> lines_;
    Session session_ = open();
};

using BorderLossTest = SessionTest;

TEST_F(SessionTest, StatusRequestIsAnsweredAtOnce) {
    EXPECT_EQ(session_.receive(statusRequest({}, 0, {1, 2, 3}, 1000)), Verdict::GO_ON);
    ASSERT_THAT(answers_, SizeIs(1));
    EXPECT_EQ(answers_[0].size(), 192U);
    EXPECT_EQ(get16(answers_[0], 6), 2U);        // response
    EXPECT_EQ(get32(answers_[0], 12), 1000U);    // handle
    EXPECT_EQ(get32(answers_[0], 16 + 168), 0U); // last id
    EXPECT_EQ(get32(answers_[0], 16 + 172), 1U); // no data
}

TEST_F(SessionTest, EventIsNotAnswered) {
    session_.receive(eventMessage(event(0)));
    session_.idle();
    EXPECT_THAT(answers_, SizeIs(0));
    EXPECT_EQ(counts().stored, 1U);
}

TEST_F(SessionTest, EventWithNothingBehindItIsDoubtfulAndCertainAfterLong) {
    session_.receive(eventMessage(event(0)));
    EXPECT_TRUE(session_.isUnsettled());
    session_.idle();
    session_.idle();
    EXPECT_TRUE(session_.isUnsettled());
    session_.idleForLong();
    session_.idleForLong();
    EXPECT_FALSE(session_.isUnsettled());
    EXPECT_THAT(passedOn_, ElementsAre(Certainty::SILENT, Certainty::CERTAIN));
    EXPECT_EQ(counts().stored, 1U);
    session_.receive(eventMessage(event(1)));
    EXPECT_THAT(passedOn_, SizeIs(2));
}

TEST_F(SessionTest, EventBecomesCertainWithTheBorderBehindIt) {
    session_.receive(eventMessage(event(0)));
    session_.idle();
    session_.receive(eventMessage(event(1)));
    EXPECT_THAT(passedOn_, ElementsAre(Certainty::SILENT, Certainty::CERTAIN));
    EXPECT_EQ(counts().stored, 1U);
    EXPECT_EQ(counts().duplicates, 0U);
}

TEST_F(SessionTest, AllButTheLastOfManyEventsAreCertainAtOnce) {
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)) + eventMessage(event(2)));
    EXPECT_THAT(passedOn_, ElementsAre(Certainty::CERTAIN, Certainty::CERTAIN));
}

TEST_F(SessionTest, EventIsFiledWhenTheNextHeaderIsThere) {
    const Bytes next = eventMessage(event(1));
    session_.receive(eventMessage(event(0)));
    session_.receive(View(next).first(7));
    session_.idle(); // 7 bytes may yet be no header
    EXPECT_EQ(counts().stored, 0U);
    session_.receive(View(next).subspan(7, 1));
    EXPECT_EQ(counts().stored, 1U);
}

TEST_F(SessionTest, EventIsKeptAsDoubtfulAtTheEndOfTheStream) {
    session_.receive(eventMessage(event(0)));
    session_.end();
    EXPECT_THAT(passedOn_, ElementsAre(Certainty::ENDED));
    EXPECT_EQ(counts().stored, 1U);
    EXPECT_TRUE(lines_.empty());
}

TEST_F(SessionTest, StreamThatEndsWithinAMessageKeepsTheEventsBeforeIt) {
    const Bytes next = eventMessage(event(2));
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)));
    session_.receive(View(next).first(100));
    session_.end();
    EXPECT_EQ(counts().stored, 2U);
    EXPECT_THAT(lines_, ElementsAre("ended within a message"));
}

TEST_F(SessionTest, EventWithLessThanABorderBehindItIsGivenUpAtTheEnd) {
    const Bytes next = eventMessage(event(2));
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)));
    session_.receive(View(next).first(7));
    session_.end();
    EXPECT_EQ(counts().stored, 1U);
    EXPECT_EQ(counts_.givenUp, 1U);
}

TEST_F(SessionTest, BytesMayComeOneByOne) {
    const Bytes stream = statusRequest({}, 0, event(0).data, 1000) + eventMessage(event(0)) +
                         eventMessage(event(1)) + inquiryMessage(LAST, {}, 0, 5) +
                         statusRequest({}, 0, event(0).data, 1001);
    for (const U8_t byte : stream) {
        ASSERT_EQ(session_.receive(View(&byte, 1)), Verdict::GO_ON);
    }
    ASSERT_THAT(answers_, SizeIs(3));
    EXPECT_EQ(get32(answers_[1], 16 + 136), 1U);
    EXPECT_EQ(get32(answers_[2], 16 + 168), 0U); // and asks for event 1 again
    EXPECT_EQ(get32(answers_[2], 16 + 172), 0U);
    EXPECT_EQ(counts_.messages, 5U);
}

TEST_F(SessionTest, BytesMayComeAllAtOnce) {
    Bytes stream;
    for (U32_t id = 0; id < 50; ++id) {
        stream = stream + eventMessage(event(id));
    }
    session_.receive(stream + inquiryMessage(LAST, {}, 0, 5));
    ASSERT_THAT(answers_, SizeIs(1));
    EXPECT_EQ(answers_[0], makeResponse(1, 1, 5, eventBody(event(49))));
}

TEST_F(SessionTest, InquiryWithoutAnEventEchoesWhatWasAsked) {
    const LogName other{"ENC-Z", "BLADE-9", 9, 8};
    session_.receive(inquiryMessage(NEXT, other, 77, 0xABCD));
    Bytes expected = {0, 1, 0, 152, 0, 1, 0, 2, 0, 0, 0, 2, 0, 0, 0xAB, 0xCD};
    putLog(expected, other);
    put32(expected, 77);
    expected.resize(168);
    EXPECT_THAT(answers_, ElementsAre(expected));
}

TEST_F(SessionTest, StatusAnswerCountsTheEventThatCameJustBefore) {
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)) +
                     statusRequest({}, 0, event(0).data, 1));
    ASSERT_THAT(answers_, SizeIs(1));
    EXPECT_EQ(get32(answers_[0], 16 + 172), 0U);
}

TEST_F(SessionTest, SpeakersIdentityIsThatOfItsStatusRequest) {
    session_.receive(statusRequest({}, 0, event(0).data, 1) + eventMessage(event(0)) +
                     eventMessage(event(1, {.slot = 9})) + eventMessage(event(2)) +
                     statusRequest({}, 0, event(0).data, 2));
    EXPECT_EQ(counts().strangers, 1U);
    EXPECT_EQ(get32(answers_.at(1), 16 + 168), 1U);
}

TEST_F(SessionTest, ClosesAfterAsManyMessagesAsAsked) {
    Session session = open(3);
    EXPECT_EQ(session.receive(statusRequest({}, 0, {}, 1) + eventMessage(event(0))),
              Verdict::GO_ON);
    EXPECT_EQ(session.receive(eventMessage(event(1)) + eventMessage(event(2))), Verdict::CLOSE);
    session.end();
    EXPECT_EQ(counts().stored, 2U);
}

// What a stalled blade does: the message's bytes up to `position`, then again from there, so that
// the byte before `position` is there twice. The next message follows.
TEST_F(BorderLossTest, ByteSentTwiceAtAnyPositionGivesThatMessageUp) {
    const Bytes good = eventMessage(event(10));
    const Bytes stalled = eventMessage(event(11));
    const Bytes next = eventMessage(event(12));
    for (size_t position = 1; position <= stalled.size(); ++position) {
        const auto store = openArchiveInMemory();
        Archive archive(*store, {}, [](Level, const std::string&) {});
        used_ = &archive;
        counts_ = {};
        Session session = open();
        session.receive(eventMessage(event(9)));
        const Bytes head(stalled.begin(), stalled.begin() + static_cast<std::ptrdiff_t>(position));
        const Bytes tail(stalled.begin() + static_cast<std::ptrdiff_t>(position) - 1,
                         stalled.end());
        session.receive(good);
        Verdict verdict = session.receive(head);
        for (const Bytes& piece : {tail, next, eventMessage(event(13))}) {
            if (verdict == Verdict::GO_ON) {
                verdict = session.receive(piece);
            }
        }
        EXPECT_EQ(verdict, Verdict::CLOSE) << position;
        session.end();
        EXPECT_EQ(counts_.bordersLost, 1U) << position;
        // A byte sent twice within what tells a border leaves open which side of it is damaged:
        // then the message before it goes, too, and comes again.
        const bool isBorderHit = position <= 7;
        EXPECT_EQ(status(archive, event(9)), isBorderHit ? NO_DATA : heldTo(10)) << position;
        EXPECT_EQ(store->rowCount(), isBorderHit ? 1U : 2U) << position;
    }
    used_ = &archive_;
}

TEST_F(BorderLossTest, MessageBeforeADamagedOneIsKept) {
    session_.receive(eventMessage(event(0)));
    Bytes damaged = eventMessage(event(1));
    damaged.insert(damaged.begin() + 20, U8_t{0});
    session_.receive(damaged);
    session_.end();
    EXPECT_EQ(counts().stored, 1U);
}

TEST_F(BorderLossTest, ItIsSaidWithTheEventGivenUp) {
    Bytes damaged = eventMessage({.id = 41, .data = {1, 2, 3, 4}});
    damaged.push_back(4);
    EXPECT_EQ(session_.receive(damaged), Verdict::CLOSE);
    EXPECT_THAT(lines_, ElementsAre("the stream has lost its message borders (header version "
                                    "is not 1), event with id 41 given up, closed"));
    EXPECT_EQ(counts_.givenUp, 1U);
}

TEST_F(BorderLossTest, StrayByteThatCouldBeginAHeaderWaitsForMore) {
    Bytes damaged = eventMessage({.id = 41, .data = {1, 2, 3, 0}});
    damaged.push_back(0);
    EXPECT_EQ(session_.receive(damaged), Verdict::GO_ON);
    session_.idle();
    EXPECT_EQ(counts().stored, 0U);
    EXPECT_EQ(session_.receive(eventMessage(event(42))), Verdict::CLOSE);
    EXPECT_EQ(counts().stored, 0U);
    EXPECT_EQ(counts_.givenUp, 1U);
}

TEST_F(BorderLossTest, RestOfAnOldMessageBehindTheStatusRequestClosesTheLink) {
    const Bytes old = eventMessage(event(7));
    session_.receive(statusRequest({}, 0, event(0).data, 1000));
    EXPECT_EQ(session_.receive(View(old).subspan(80)), Verdict::CLOSE);
    EXPECT_THAT(lines_.back(), HasSubstr("lost its message borders"));
    EXPECT_EQ(counts_.givenUp, 0U);
}

TEST_F(BorderLossTest, InquiryThatIsFollowedByNoBorderIsNotAnswered) {
    Bytes stream = inquiryMessage(FIRST, {}, 0, 5);
    stream.push_back(0xEE);
    EXPECT_EQ(session_.receive(stream), Verdict::CLOSE);
    EXPECT_THAT(answers_, SizeIs(0));
}

TEST_F(BorderLossTest, EventInsideAnInquiryGivesNothingWrongToTheArchive) {
    const Bytes inquiry = inquiryMessage(FIRST, {}, 0, 5);
    Bytes stream(inquiry.begin(), inquiry.begin() + 60);
    stream = stream + eventMessage(event(0));
    stream.insert(stream.end(), inquiry.begin() + 60, inquiry.end());
    EXPECT_EQ(session_.receive(stream), Verdict::CLOSE);
    EXPECT_EQ(counts().stored, 0U);
    EXPECT_THAT(answers_, SizeIs(0));
}

TEST_F(BorderLossTest, NextStatusAnswerResumesBehindTheLastWholeEvent) {
    Bytes damaged = eventMessage(event(2));
    damaged.push_back(9);
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)) + damaged);
    session_.end();
    Session again = open();
    again.receive(statusRequest({}, 0, event(0).data, 1001));
    EXPECT_EQ(get32(answers_.back(), 16 + 168), 0U); // and asks for event 1 again
    EXPECT_EQ(get32(answers_.back(), 16 + 172), 0U);
    again.receive(eventMessage(event(1)) + eventMessage(event(2)) + eventMessage(event(3)));
    EXPECT_EQ(status(event(0)), heldTo(2));
    EXPECT_EQ(counts().generations, 0U);
    EXPECT_EQ(counts().duplicates, 1U);
}

// An event with one byte twice, and its last byte late: what came first looks whole.
TEST_F(BorderLossTest, EventThatLooksWholeUntilItsLastByteComesIsTakenBack) {
    session_.receive(statusRequest({}, 0, event(0).data, 1) + eventMessage(event(0)) +
                     eventMessage(event(1)));
    Bytes stalled = eventMessage(event(2));
    stalled.insert(stalled.begin() + 170, stalled[169]);
    session_.receive(View(stalled).first(stalled.size() - 1));
    session_.idle();
    EXPECT_EQ(status(event(0)), heldTo(1)); // it is not claimed
    EXPECT_EQ(session_.receive(View(stalled).last(1)), Verdict::CLOSE);
    EXPECT_EQ(ask(EXACT, {}, 2), std::nullopt);
    Session again = open();
    again.receive(statusRequest({}, 0, event(0).data, 2) + eventMessage(event(1)) +
                  eventMessage(event(2)) + eventMessage(event(3)));
    EXPECT_EQ(counts().generations, 0U);
    EXPECT_EQ(status(event(0)), heldTo(2));
}

TEST_F(BorderLossTest, EventThatLookedWholeForLongIsTakenBackToo) {
    session_.receive(eventMessage(event(0)) + eventMessage(event(1)));
    session_.idle();
    session_.idleForLong();
    EXPECT_EQ(status(event(0)), heldTo(1));
    session_.receive(Bytes{0xEE});
    EXPECT_EQ(status(event(0)), NO_DATA); // event 0 comes again, it is the last
    EXPECT_EQ(ask(LAST, {}, 0), 0U);
    EXPECT_EQ(counts().setAside, 1U);
}

TEST_F(BorderLossTest, DoubtfulEventAtTheEndGivesWayToTheTrueOne) {
    Bytes stalled = eventMessage(event(0));
    stalled.insert(stalled.begin() + 170, stalled[169]);
    session_.receive(View(stalled).first(stalled.size() - 1));
    session_.end();
    EXPECT_EQ(status(event(0)), NO_DATA);
    Session again = open();
    again.receive(eventMessage(event(0)) + eventMessage(event(1)) + eventMessage(event(2)));
    EXPECT_EQ(status(event(0)), heldTo(1));
    EXPECT_EQ(counts().generations, 0U);
}
