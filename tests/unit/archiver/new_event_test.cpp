#include "archiver/new_event.h"

#include "link_bench.h"

namespace {

using testing::StartsWith;

constexpr EmpForwardNewTexts_t texts = {"direct %d\n", "ahead %d %d\n", "not open\n"};

class NewEvent : public LinkTest {
  protected:
    NewEvent() {
        storeRange(3, 8);
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    }
    /** Event 7 has just been stored. */
    static std::string arrive(U32_t cursor, U32_t id = 7) {
        empControl.empEventArchiverSequenceId = cursor;
        return linesOf([&] { empForwardNewEvent(id, texts); });
    }
    static std::vector<Bytes> event(U32_t id) { return {archiverEvent(id, dataOf(id))}; }
};

TEST_F(NewEvent, FlagClearDoesNothing) {
    empControl.evManagerStatusFlag = 0xFFFE;
    EXPECT_EQ(arrive(6), "");
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(NewEvent, UpToDateArchiverGetsTheEvent) {
    EXPECT_THAT(arrive(6), StartsWith("direct 7\nempSendEventLogToEventArchiver(): Found"));
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(7));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 7U);
}

TEST_F(NewEvent, CursorMovesAlsoWhenTheEventWasOnlyQueued) {
    bench.archiverTakes = {10};
    arrive(6);
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 7U);
    EXPECT_EQ(empControl.forwardPendingListCount, 1);
}

TEST_F(NewEvent, CursorStaysWhenTheEventIsRefused) {
    eventEntryDatabase[7].evFlag = 0;
    EXPECT_THAT(arrive(6), StartsWith("direct 7\n"));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
}

TEST_F(NewEvent, BehindByMoreThanOneSendsAnOlderEventInstead) {
    arrive(5);
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(6));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
}

TEST_F(NewEvent, CatchUpMovesTheCursorWhateverTheSendSays) {
    eventEntryDatabase[6].evFlag = 0;
    arrive(5);
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
}

TEST_F(NewEvent, FarBehindStartsFromTheOldest) {
    arrive(0);
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(3));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
}

TEST_F(NewEvent, CursorAtOrBeyondTheNewIdIsSentDirectlyAndRunsOneAhead) {
    // After "clear all" the cursor equals the id of the next event.
    EXPECT_THAT(arrive(7), StartsWith("direct 7\n"));
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(7));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 8U);
}

TEST_F(NewEvent, EventZeroTakesTheCatchUpBranchBelowTheLargestCursor) {
    // The ids have wrapped: 0 was just given out, 1 is next.
    storeRange(0, 1);
    EXPECT_THAT(arrive(0xFFFFFFFE, 0), StartsWith("ahead -2 1\n"));
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(0));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
    bench.sends.clear();
    EXPECT_THAT(arrive(0xFFFFFFFF, 0), StartsWith("direct 0\n"));
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET), event(0));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
}

TEST_F(NewEvent, LastIdMakesTheNextIdZeroAndEveryCursorAhead) {
    storeRange(0xFFFFFFFE, 0);
    EXPECT_THAT(arrive(5, 0xFFFFFFFF), StartsWith("ahead 5 0\n"));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0xFFFFFFFE);
}

TEST_F(NewEvent, FullLinkDrainsTheListAndLeavesTheCursor) {
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    bench.archiverTakes = {10};
    arrive(6);
    bench.sends.clear();
    EXPECT_EQ(arrive(6, 7), "");
    Bytes whole = archiverEvent(7, dataOf(7));
    ASSERT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(bench.sends[0].bytes, Bytes(whole.begin() + 10, whole.end()));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
}

TEST_F(NewEvent, OtherStatesPrintThatTheLinkIsNotOpen) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT,
                       EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        EXPECT_EQ(arrive(6), "not open\n");
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
}

} // namespace
