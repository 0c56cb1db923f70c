#include "archiver/response_timer.h"

#include "archiver/relay.h"
#include "link_bench.h"

namespace {

using testing::ElementsAre;

constexpr U32_t HANDLE = 0x12345678;

class ResponseTimer : public LinkTest {
  protected:
    ResponseTimer() { setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN); }

    static EvMsgRecordEntry_t* relay(U32_t handle = HANDLE, unsigned mmsgCont = 0) {
        empSendEventInquiryToEventArchiver(received(localMessage(
            2, inquiryBody(3, 0xFEDCBA98, "ENC-9", "BLADE-9", 9, 11), 29, mmsgCont, handle)));
        bench.sends.clear();
        return EvMsgRecordResponseList;
    }
    /** An event that went out from the forward list. */
    static EvMsgRecordEntry_t* drainedEvent() {
        EvMsgRecordEntry_t* entry = empEvMsgTake({1, "test"});
        entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
        entry->evMsgType = 1;
        empEvMsgPush(&EvMsgRecordResponseList, entry);
        empControl.responsePendingListCount++;
        return entry;
    }
    static void passes(int count) {
        for (int pass = 0; pass < count; pass++) {
            empProcessResponseTimeout();
        }
    }
    static std::vector<Bytes> replies() { return sentTo(MSM_SOCKET); }

    /** The reply to an inquiry of relay(). */
    static Bytes timeoutReply(U32_t handle = HANDLE, int word = 0) {
        Bytes bytes = replyHeader(2, 216, 3, 29, handle, word, 0x20000000);
        putText(bytes, "ENC-9", 64);
        putZeros(bytes, 64); // never the blade id
        put32(bytes, 9);
        put32(bytes, 11);
        put32(bytes, 0xFEDCBA98);
        putZeros(bytes, 12);
        return bytes;
    }
};

TEST_F(ResponseTimer, UnansweredInquiryIsAnsweredOnTheSixteenthPass) {
    relay();
    EXPECT_EQ(linesOf([] { passes(15); }), "");
    EXPECT_TRUE(replies().empty());
    EXPECT_EQ(linesOf([] { passes(1); }),
              "empProcessResponseTimeout(): This Inquiry Message is from Local Blade.\n"
              "empProcessResponseTimeout(): Send out a MMSG from the Event Manager to Requestor.\n"
              "<MMSG>\n"
              "empEvMsgEntryFree(): Free Event Message Record with handle = [305419896]\n");
    EXPECT_THAT(replies(), ElementsAre(timeoutReply()));
    passes(100);
    EXPECT_EQ(replies().size(), 1U);
}

TEST_F(ResponseTimer, RequestorOfTheOtherBladeIsInTheOtherBitmap) {
    relay(HANDLE, 0x80);
    EXPECT_THAT(linesOf([] { passes(16); }),
                testing::StartsWith(
                    "empProcessResponseTimeout(): This Inquiry Message is from Other Blade.\n"));
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(HANDLE, 2)));
}

TEST_F(ResponseTimer, TimedOutInquiryIsCountedTwiceOver) {
    relay();
    passes(16);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendResourceNotAvailable, 1U);
    EXPECT_EQ(empControl.evManagerInquiryMsgTimeout, 1U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 0U);
    EXPECT_EQ(empControl.responsePendingListCount, 1);
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 64U);
}

TEST_F(ResponseTimer, DrainedEventGivesOneReplyToEndpointZeroOnTheNextPass) {
    drainedEvent();
    passes(3);
    Bytes reply = replyHeader(2, 216, 3, 0, 0, 0, 1);
    putZeros(reply, 152);
    EXPECT_THAT(replies(), ElementsAre(reply));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendResourceNotAvailable, 1U);
    EXPECT_EQ(empControl.evManagerInquiryMsgTimeout, 0U);
}

TEST_F(ResponseTimer, TwoExpiredTogetherAreAnsweredOnePassApart) {
    relay(1);
    relay(2);
    passes(15);
    passes(1);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(2)));
    passes(1);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(2), timeoutReply(1)));
    passes(10);
    EXPECT_EQ(replies().size(), 2U);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
}

TEST_F(ResponseTimer, FreedRecordWithAnEmptyFreeListEndsTheWalk) {
    relay(1);
    relay(2);
    EvMsgRecordFreeList = nullptr;
    passes(16);
    EXPECT_EQ(replies().size(), 1U);
    EXPECT_THAT(listed(&EvMsgRecordResponseList), testing::SizeIs(1));
}

TEST_F(ResponseTimer, RecordBeforeAnExpiredOneIsCountedDownFirst) {
    EvMsgRecordEntry_t* old = relay(1);
    passes(5);
    EvMsgRecordEntry_t* young = relay(2);
    passes(11);
    EXPECT_EQ(old->state, EMP_E_EVMSG_RECORD_ST_NOT_USED);
    EXPECT_EQ(young->responseTimeout.tv_sec, 4);
    passes(5);
    EXPECT_EQ(replies().size(), 2U);
}

TEST_F(ResponseTimer, QueuedEventsNeverExpire) {
    EvMsgRecordEntry_t* entry = empEvMsgTake({1, "test"});
    entry->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    entry->evMsgType = 1;
    empEvMsgPush(&EvMsgRecordForwardList, entry);
    empControl.forwardPendingListCount = 1;
    passes(20);
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_THAT(listed(&EvMsgRecordForwardList), ElementsAre(entry));
}

TEST_F(ResponseTimer, UnsentInquiryIsAnsweredAndFreedButStaysCounted) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay();
    ASSERT_EQ(listed(&EvMsgRecordForwardList).size(), 1U);
    passes(16);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply()));
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(empControl.forwardPendingListCount, 1);
    EXPECT_EQ(empControl.evManagerInquiryMsgTimeout, 1U);
}

TEST_F(ResponseTimer, PartlySentInquiryIsAnsweredOnEveryPassUntilItIsOut) {
    bench.archiverTakes = {10};
    relay();
    ASSERT_EQ(listed(&EvMsgRecordForwardList).size(), 1U);
    passes(18);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(), timeoutReply(), timeoutReply()));
    EXPECT_EQ(listed(&EvMsgRecordForwardList).size(), 1U);
    EXPECT_EQ(empControl.evManagerInquiryMsgTimeout, 3U);
    // Out at last, it is answered once more from the response list.
    EvMsgRecordEntry_t* entry = EvMsgRecordForwardList;
    empEvMsgUnlink(entry);
    entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
    empEvMsgPush(&EvMsgRecordResponseList, entry);
    passes(5);
    EXPECT_EQ(replies().size(), 4U);
}

TEST_F(ResponseTimer, FreedRecordEndsTheForwardWalkToo) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay(1);
    relay(2);
    passes(16);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(1)));
    passes(1);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(1), timeoutReply(2)));
}

TEST_F(ResponseTimer, InquiryBehindAQueuedEventIsAnswered) {
    EvMsgRecordEntry_t* event = empEvMsgTake({1, "test"});
    event->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    event->evMsgType = 1;
    empEvMsgPush(&EvMsgRecordForwardList, event);
    empControl.forwardPendingListCount = 1;
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay();
    ASSERT_THAT(listed(&EvMsgRecordForwardList), testing::SizeIs(2));
    ASSERT_EQ(EvMsgRecordForwardList, event);
    passes(15);
    EXPECT_TRUE(replies().empty());
    passes(1);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply()));
    EXPECT_THAT(listed(&EvMsgRecordForwardList), ElementsAre(event));
}

TEST_F(ResponseTimer, PartlySentInquiryDoesNotEndTheWalk) {
    bench.archiverTakes = {10};
    relay(1);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay(2);
    ASSERT_THAT(listed(&EvMsgRecordForwardList), testing::SizeIs(2));
    passes(15);
    EXPECT_TRUE(replies().empty());
    passes(1);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(1), timeoutReply(2)));
    ASSERT_THAT(listed(&EvMsgRecordForwardList), testing::SizeIs(1));
    EXPECT_EQ(EvMsgRecordForwardList->handle, 1U);
}

TEST_F(ResponseTimer, BothListsAreWalkedInOnePass) {
    relay(1);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay(2);
    passes(16);
    EXPECT_THAT(replies(), ElementsAre(timeoutReply(1), timeoutReply(2)));
}

TEST_F(ResponseTimer, CountersThatWrappedToZeroStopTheTimer) {
    relay();
    empControl.responsePendingListCount = 0;
    passes(30);
    EXPECT_TRUE(replies().empty());
    empControl.forwardPendingListCount = 1;
    passes(16);
    EXPECT_EQ(replies().size(), 1U);
}

TEST_F(ResponseTimer, ShortSendIsABugCheckWithTheResultAndNoDump) {
    relay();
    passes(15);
    bench.msmTakes = {7};
    BugCheck bugCheck = bugCheckOf([] { passes(1); });
    EXPECT_EQ(bugCheck.message, "Linux send function fails, sendSize = [7] is wrong");
    EXPECT_EQ(bugCheck.function, "empProcessResponseTimeout");
    EXPECT_THAT(output, testing::EndsWith("Requestor.\n<MMSG>\n"));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendResourceNotAvailable, 1U);
}

TEST_F(ResponseTimer, FastPassesTakeHundredMicrosecondsOff) {
    EvMsgRecordEntry_t* entry = relay();
    empControl.selectTimeout = {0, 100};
    passes(1);
    EXPECT_EQ(entry->responseTimeout.tv_sec, 14);
    EXPECT_EQ(entry->responseTimeout.tv_usec, 999'900);
}

} // namespace
