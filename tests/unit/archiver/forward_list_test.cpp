#include "archiver/forward_list.h"

#include "archiver/forward.h"
#include "link_bench.h"

#include <sys/socket.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr EmpSite_t site = {1, "test"};
constexpr char WALK_BUGCHECK[] = "Item on Forward Pending List isn't FORWARD or PARTIAL FORWARD?";

class ForwardList : public LinkTest {
  protected:
    ForwardList() { setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL); }

    /** Queues a message of 100 bytes. */
    static EvMsgRecordEntry_t* queue(EMP_EVMSG_RECORD_STATE_e state, U32_t byteSent = 0,
                                     U8_t type = EMP_E_MSGS_LOG) {
        EvMsgRecordEntry_t* entry = empEvMsgTake(site);
        Bytes message = counting(100);
        empEvMsgKeepMessage(entry, message.data(), 100, site);
        entry->state = state;
        entry->evMsgType = type;
        entry->byteSent = byteSent;
        empEvMsgAppend(&EvMsgRecordForwardList, entry);
        empControl.forwardPendingListCount++;
        return entry;
    }

    /** A record on the response list. */
    static EvMsgRecordEntry_t* answerAwaited() {
        EvMsgRecordEntry_t* entry = empEvMsgTake(site);
        entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
        empEvMsgPush(&EvMsgRecordResponseList, entry);
        empControl.responsePendingListCount++;
        return entry;
    }

    static Bytes rest(size_t first) {
        Bytes message = counting(100);
        return Bytes(message.begin() + static_cast<std::ptrdiff_t>(first), message.end());
    }
};

TEST_F(ForwardList, PartlySentMessageGoesOnWhereItStopped) {
    for (U32_t sent : {0U, 1U, 50U, 99U}) {
        bench.sends.clear();
        EvMsgRecordResponseList = nullptr;
        queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, sent);
        empSendForwardListToEventArchiver();
        ASSERT_EQ(bench.sends.size(), 1U);
        EXPECT_EQ(bench.sends[0].bytes, rest(sent));
        EXPECT_EQ(bench.sends[0].flags, MSG_DONTWAIT);
    }
}

TEST_F(ForwardList, UnsentMessageGoesOutWhole) {
    queue(EMP_E_EVMSG_RECORD_ST_NOT_FORWARD);
    empSendForwardListToEventArchiver();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), ElementsAre(counting(100)));
}

TEST_F(ForwardList, MessageThatWentOutMovesToTheResponseListEvenAnEvent) {
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    EXPECT_EQ(linesOf([] { empSendForwardListToEventArchiver(); }), "");
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD);
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(entry));
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(empControl.forwardPendingListCount, 0);
    EXPECT_EQ(empControl.responsePendingListCount, 1);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
}

TEST_F(ForwardList, EventsThatWentOutAreCountedInquiriesAreNot) {
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40, EMP_E_MSGS_INQUIRY);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(empControl.EAmsgEventLogMsgSend, 0U);
    EvMsgRecordResponseList = nullptr;
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(empControl.EAmsgEventLogMsgSend, 1U);
}

TEST_F(ForwardList, WholeMessageOpensTheLinkFromAnyState) {
    for (auto state :
         {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT}) {
        setLink(state);
        EvMsgRecordResponseList = nullptr;
        queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
        empSendForwardListToEventArchiver();
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    }
}

TEST_F(ForwardList, OnlyOneMessageGoesOutAWalk) {
    EvMsgRecordEntry_t* first = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    EvMsgRecordEntry_t* second = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(bench.sends.size(), 1U);
    EXPECT_THAT(listed(&EvMsgRecordForwardList), ElementsAre(second));
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(first));
    EXPECT_EQ(empControl.forwardPendingListCount, 1);
}

TEST_F(ForwardList, WalkIntoTheResponseListIsABugCheck) {
    answerAwaited();
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    BugCheck bugCheck = bugCheckOf([] { empSendForwardListToEventArchiver(); });
    EXPECT_EQ(bugCheck.message, WALK_BUGCHECK);
    EXPECT_EQ(bugCheck.function, "empSendForwardListToEventArchiver");
    // The message has gone out and moved before.
    EXPECT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(EvMsgRecordResponseList, entry);
}

TEST_F(ForwardList, PartialWriteStopsTheWalk) {
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
    bench.archiverTakes = {7};
    EXPECT_EQ(
        linesOf([] { empSendForwardListToEventArchiver(); }),
        "empSendForwardListToEventArchiver(): Only send out partial [7] bytes of Event Msg from EMP to EA\n");
    EXPECT_EQ(entry->byteSent, 47U);
    EXPECT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(empControl.forwardPendingListCount, 2);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
}

TEST_F(ForwardList, UnsentMessageThatGoesOutInPartIsPartlySent) {
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_NOT_FORWARD);
    bench.archiverTakes = {0};
    empSendForwardListToEventArchiver();
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_NOT_FORWARD);
    EXPECT_EQ(entry->byteSent, 0U);
    bench.archiverTakes = {99};
    empSendForwardListToEventArchiver();
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
    EXPECT_EQ(entry->byteSent, 99U);
}

TEST_F(ForwardList, FailedWriteTakesOneByteBackAndItIsSentAgain) {
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    bench.archiverTakes = {-1, -1};
    EXPECT_EQ(
        linesOf([] { empSendForwardListToEventArchiver(); }),
        "empSendForwardListToEventArchiver(): Only send out partial [-1] bytes of Event Msg from EMP to EA\n");
    EXPECT_EQ(entry->byteSent, 39U);
    empSendForwardListToEventArchiver();
    empSendForwardListToEventArchiver();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), ElementsAre(rest(40), rest(39), rest(38)));
}

TEST_F(ForwardList, FailedWritesNeverReachBeforeTheMessage) {
    EvMsgRecordEntry_t* entry = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 0xFFFFFFFF);
    bench.archiverTakes = {-1, -1, 30};
    empSendForwardListToEventArchiver();
    EXPECT_EQ(entry->byteSent, 0xFFFFFFFFU);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(entry->byteSent, 0xFFFFFFFFU);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(entry->byteSent, 30U);
    empSendForwardListToEventArchiver();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET),
                ElementsAre(counting(100), counting(100), counting(100), rest(30)));
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD);
}

TEST_F(ForwardList, NothingHappensWithCounterZeroOrFlagClear) {
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    empControl.evManagerStatusFlag = 0;
    empSendForwardListToEventArchiver();
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    empControl.forwardPendingListCount = 0;
    empSendForwardListToEventArchiver();
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(ForwardList, CounterWithoutRecordsWritesNothing) {
    empControl.forwardPendingListCount = 1;
    empSendForwardListToEventArchiver();
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(ForwardList, RecordInAnotherStateIsABugCheck) {
    queue(EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD);
    BugCheck bugCheck = bugCheckOf([] { empSendForwardListToEventArchiverWithInterleave(); });
    EXPECT_EQ(bugCheck.message, WALK_BUGCHECK);
    EXPECT_EQ(bugCheck.function, "empSendForwardListToEventArchiver");
}

TEST_F(ForwardList, InterleaveSendsAFreshEventBehindTheQueuedMessage) {
    storeRange(3, 8);
    empControl.empEventArchiverSequenceId = 4;
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    empSendForwardListToEventArchiverWithInterleave();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), ElementsAre(rest(40), archiverEvent(5, dataOf(5))));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 5U);
}

TEST_F(ForwardList, InterleavesCatchUpComesBeforeTheBugCheck) {
    storeRange(3, 8);
    empControl.empEventArchiverSequenceId = 4;
    answerAwaited();
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    bugCheckOf([] { empSendForwardListToEventArchiverWithInterleave(); });
    EXPECT_EQ(bench.sends.size(), 2U);
}

TEST_F(ForwardList, InterleaveHasItsOwnCatchUpLineButTheOtherPartialLine) {
    storeRange(3, 8);
    empControl.empEventArchiverSequenceId = 9;
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    EXPECT_THAT(
        linesOf([] { empSendForwardListToEventArchiverWithInterleave(); }),
        StartsWith(
            "empSendForwardListToEventArchiverWithInterleave(): Event Archiver SeqId [9] > Event Log File SeqId [8].\n"));
    EvMsgRecordResponseList = nullptr;
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    bench.archiverTakes = {3};
    EXPECT_EQ(
        linesOf([] { empSendForwardListToEventArchiverWithInterleave(); }),
        "empSendForwardListToEventArchiver(): Only send out partial [3] bytes of Event Msg from EMP to EA\n");
}

TEST_F(ForwardList, EventThatFillsTheLinkDuringTheInterleaveWaitsForTheNextWalk) {
    storeRange(3, 8);
    empControl.empEventArchiverSequenceId = 4;
    EvMsgRecordEntry_t* first = queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    bench.archiverTakes = {60, 12};
    empSendForwardListToEventArchiverWithInterleave();
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(first));
    ASSERT_EQ(listed(&EvMsgRecordForwardList).size(), 1U);
    EXPECT_EQ(EvMsgRecordForwardList->byteSent, 12U);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
    // Drained before the response timer has run, it meets the first one: plain slowness is enough.
    EXPECT_EQ(bugCheckOf([] { empSendForwardListToEventArchiver(); }).message, WALK_BUGCHECK);
}

TEST_F(ForwardList, ResponseCounterNeverFallsAndBothWrapAt256) {
    empControl.responsePendingListCount = 255;
    empControl.forwardPendingListCount = 255;
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    EXPECT_EQ(empControl.forwardPendingListCount, 0);
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
    empSendForwardListToEventArchiver();
    EXPECT_EQ(empControl.forwardPendingListCount, 0);
    EXPECT_EQ(empControl.responsePendingListCount, 0);
    empEvMsgEntryFree(EvMsgRecordResponseList);
    EXPECT_EQ(empControl.responsePendingListCount, 0);
}

class ForwardTimer : public ForwardList {
  protected:
    static void expectSelectTimeout(long seconds, long microseconds) {
        EXPECT_EQ(empControl.selectTimeout.tv_sec, seconds);
        EXPECT_EQ(empControl.selectTimeout.tv_usec, microseconds);
    }
};

TEST_F(ForwardTimer, FiresOnTheSixthCallAndStartsAgain) {
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    bench.archiverTakes = {1, 1};
    for (int call = 1; call <= 5; call++) {
        empProcessForwardTimeout();
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 0);
    empProcessForwardTimeout();
    EXPECT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 5);
    for (int call = 7; call <= 11; call++) {
        empProcessForwardTimeout();
    }
    EXPECT_EQ(bench.sends.size(), 1U);
    empProcessForwardTimeout();
    EXPECT_EQ(bench.sends.size(), 2U);
}

TEST_F(ForwardTimer, QueuedMessagesLeaveTheSelectTimeoutAlone) {
    queue(EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD, 40);
    empControl.selectTimeout = {0, 100};
    empProcessForwardTimeout();
    expectSelectTimeout(0, 100);
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 4);
    EXPECT_EQ(empControl.forwardTimeout.tv_usec, 999'900);
    empControl.forwardTimeout = {0, 99};
    empProcessForwardTimeout();
    expectSelectTimeout(0, 100);
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 5);
    EXPECT_EQ(empControl.forwardTimeout.tv_usec, 0);
}

TEST_F(ForwardTimer, BacklogGoesOutOneEventACallAtHundredMicroseconds) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 3;
    empProcessForwardTimeout();
    expectSelectTimeout(0, 100);
    empProcessForwardTimeout();
    empProcessForwardTimeout();
    expectSelectTimeout(0, 100);
    empProcessForwardTimeout();
    expectSelectTimeout(1, 0);
    empProcessForwardTimeout();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET),
                ElementsAre(archiverEvent(4, dataOf(4)), archiverEvent(5, dataOf(5)),
                            archiverEvent(6, dataOf(6)), archiverEvent(7, dataOf(7))));
}

TEST_F(ForwardTimer, LinkThatFillsUpWaitsASecond) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 3;
    empControl.selectTimeout = {0, 100};
    bench.archiverTakes = {20};
    empProcessForwardTimeout();
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
    expectSelectTimeout(1, 0);
}

TEST_F(ForwardTimer, OtherStatesSendNothingAndWaitASecond) {
    storeRange(3, 8);
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT,
                       EMP_E_ARCHIVER_SOCKET_ST_FULL, EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        empControl.empEventArchiverSequenceId = 3;
        empControl.selectTimeout = {0, 100};
        empProcessForwardTimeout();
        expectSelectTimeout(1, 0);
    }
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(ForwardTimer, CursorBeyondTheLogSaysSo) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 0x80000000;
    EXPECT_THAT(
        linesOf([] { empProcessForwardTimeout(); }),
        StartsWith(
            "empProcessForwardTimeout(): SeqId [-2147483648] in Event Archiver > SeqId [8] in Event Log File.\n"));
}

TEST_F(ForwardTimer, ClearAllSpinsAtHundredMicrosecondsUntilTheNextEventWhichGoesOutTwice) {
    storeRange(3, 9);
    setRange(8, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 8;
    for (int call = 0; call < 3; call++) {
        EXPECT_EQ(
            linesOf([] { empProcessForwardTimeout(); }),
            "empProcessForwardTimeout(): SeqId [8] in Event Archiver > SeqId [8] in Event Log File.\n");
        expectSelectTimeout(0, 100);
    }
    // The next event is sent when it arrives, which moves the cursor one too far, and again here.
    setRange(8, 9);
    empControl.empEventArchiverSequenceId = 9;
    empProcessForwardTimeout();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), ElementsAre(archiverEvent(8, dataOf(8))));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 8U);
    expectSelectTimeout(1, 0);
}

TEST_F(ForwardTimer, OldestBeyondTheNewestSpinsForEver) {
    setRange(20, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 20;
    empProcessForwardTimeout();
    expectSelectTimeout(0, 100);
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 20U);
}

TEST_F(ForwardTimer, CountLeftByAFreedInquiryStopsCatchingUp) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 3;
    empControl.forwardPendingListCount = 1;
    for (int call = 0; call < 20; call++) {
        empProcessForwardTimeout();
    }
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(ForwardTimer, NothingIsUpToDateWithANextIdOfZero) {
    setRange(0, 0);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.empEventArchiverSequenceId = 0xFFFFFFFF;
    EXPECT_NE(linesOf([] { empProcessForwardTimeout(); }), "");
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
    expectSelectTimeout(0, 100);
}

} // namespace
