#include "archiver/forward.h"

#include "link_bench.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::EndsWith;

constexpr char FULL_LOG_LINES[] =
    "empSendEventLogToEventArchiver(): Found the exact valid Entry with Sequence ID [4]\n"
    "empSendEventLogToEventArchiver(): Found Entry Offset = [200]\n"
    "empSendEventLogToEventArchiver(): Read [160] bytes of Event Record to Temp place.\n"
    "empSendEventLogToEventArchiver(): Read [40] bytes of Event Structure to Temp place.\n";

class Forward : public LinkTest {
  protected:
    Forward() {
        storeRange(3, 8);
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
        empLogFilePosition = 555;
    }
    static S32_t forward(U32_t id) { return empSendEventLogToEventArchiver(id); }
};

TEST_F(Forward, EventMessageIsTheRecordBehindItsFirstEightBytes) {
    EXPECT_EQ(forward(4), 0);
    ASSERT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(bench.sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(bench.sends[0].descriptor, ARCHIVER_SOCKET);
    Bytes header = {0, 1, 0, 192, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(bench.sends[0].bytes, header + eventHeader(4, 40) + dataOf(4));
    EXPECT_EQ(empControl.EAmsgEventLogMsgSend, 1U);
}

TEST_F(Forward, PrintsAndRestoresThePosition) {
    EXPECT_EQ(
        linesOf([] { forward(4); }),
        std::string(FULL_LOG_LINES) +
            "<archiver message>\n"
            "empSendEventLogToEventArchiver(): Switch back to the original File Position [555]\n");
    EXPECT_EQ(filePosition(), 555);
    EXPECT_THAT(bench.printedMessages, ElementsAre(archiverEvent(4, dataOf(4))));
}

TEST_F(Forward, WholeWriteTakesNoRecord) {
    forward(4);
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 64U);
    EXPECT_EQ(empControl.forwardPendingListCount, 0);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
}

TEST_F(Forward, NextIdIsNotThereAndTheFileIsNotRead) {
    for (U32_t id : {2U, 8U, 0U, 0xFFFFFFFFU}) {
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(forward(id), -1); }), "");
    }
    EXPECT_EQ(bench.reads, 0);
    EXPECT_EQ(filePosition(), 555);
}

TEST_F(Forward, FlagClearIsARefusal) {
    empControl.evManagerStatusFlag = 0;
    EXPECT_EQ(forward(4), -1);
    EXPECT_EQ(bench.reads, 0);
}

TEST_F(Forward, GapIsARefusalWithALine) {
    eventEntryDatabase[4].evFlag = 0;
    EXPECT_EQ(
        linesOf([] { EXPECT_EQ(forward(4), -1); }),
        "empSendEventLogToEventArchiver(): Can not find the exact valid Entry with Sequence ID [4]\n");
    EXPECT_EQ(bench.reads, 0);
}

TEST_F(Forward, StatesOtherThanOpenAndFullReadButSendNothing) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT,
                       EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        EXPECT_EQ(
            linesOf([] { EXPECT_EQ(forward(4), 0); }),
            std::string(FULL_LOG_LINES) +
                "empSendEventLogToEventArchiver(): Switch back to the original File Position [555]\n");
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 64U);
    EXPECT_EQ(empControl.EAmsgEventLogMsgSend, 0U);
}

TEST_F(Forward, PartialWriteOfEverySizeQueuesTheRestAtTheHead) {
    const Bytes whole = archiverEvent(4, dataOf(4));
    for (ssize_t taken = 0; taken < static_cast<ssize_t>(whole.size()); taken += 23) {
        empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
        bench.archiverTakes = {taken};
        EXPECT_EQ(forward(4), 0);
        EvMsgRecordEntry_t* entry = EvMsgRecordForwardList;
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
        EXPECT_EQ(entry->evMsgType, 1);
        EXPECT_EQ(entry->handle, 0U);
        EXPECT_EQ(entry->requestor, 0);
        EXPECT_EQ(entry->responseTimeout.tv_sec, 0);
        EXPECT_EQ(entry->byteSent, static_cast<U32_t>(taken));
        EXPECT_EQ(entry->msgLength, whole.size());
        EXPECT_EQ(Bytes(entry->memAddressPtr, entry->memAddressPtr + whole.size()), whole);
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
    }
    EXPECT_EQ(listed(&EvMsgRecordForwardList).size(), 10U);
    EXPECT_EQ(empControl.forwardPendingListCount, 10);
    EXPECT_EQ(empControl.EAmsgEventLogMsgSend, 0U);
}

TEST_F(Forward, FailedWriteKeepsMinusOne) {
    bench.archiverTakes = {-1};
    EXPECT_EQ(
        linesOf([] { EXPECT_EQ(forward(4), 0); }),
        std::string(FULL_LOG_LINES) +
            "<archiver message>\n"
            "empSendEventLogToEventArchiver(): Only send out partial [-1] bytes of Event Record from EMP to EA\n"
            "empSendEventLogToEventArchiver(): Switch back to the original File Position [555]\n");
    EXPECT_EQ(EvMsgRecordForwardList->byteSent, 0xFFFFFFFFU);
}

TEST_F(Forward, PartialWriteIsQueuedWithoutAdmission) {
    empControl.responsePendingListCount = 64;
    bench.archiverTakes = {5};
    EXPECT_EQ(forward(4), 0);
    EXPECT_EQ(empControl.forwardPendingListCount, 1);
}

TEST_F(Forward, NoRecordForAPartialWriteIsABugCheck) {
    EvMsgRecordFreeList = nullptr;
    bench.archiverTakes = {5};
    BugCheck bugCheck = bugCheckOf([] { forward(4); });
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
    EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
}

TEST_F(Forward, NoMemoryForAPartialWriteIsABugCheck) {
    bench.archiverTakes = {5};
    bench.failMalloc = true;
    BugCheck bugCheck = bugCheckOf([] { forward(4); });
    bench.failMalloc = false;
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
}

TEST_F(Forward, FullLinkQueuesBehindTheListUnprinted) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    EXPECT_EQ(
        linesOf([] { EXPECT_EQ(forward(4), 0); }),
        std::string(FULL_LOG_LINES) +
            "empSendEventLogToEventArchiver(): Switch back to the original File Position [555]\n");
    EXPECT_EQ(forward(5), 0);
    EXPECT_TRUE(bench.sends.empty());
    std::vector<EvMsgRecordEntry_t*> queued = listed(&EvMsgRecordForwardList);
    ASSERT_EQ(queued.size(), 2U);
    EXPECT_EQ(queued[0], &EvMsgRecord[63]);
    EXPECT_EQ(queued[1], &EvMsgRecord[62]);
    // In part already, with nothing written.
    EXPECT_EQ(queued[1]->state, EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
    EXPECT_EQ(queued[1]->byteSent, 0U);
    EXPECT_EQ(queued[1]->msgLength, 208U);
    EXPECT_EQ(empControl.forwardPendingListCount, 2);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
}

TEST_F(Forward, FullLinkWith64CountedRefusesAndRestoresThePosition) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    empControl.forwardPendingListCount = 30;
    empControl.responsePendingListCount = 33;
    EXPECT_EQ(forward(4), 0);
    EXPECT_EQ(empControl.forwardPendingListCount, 31);
    EXPECT_EQ(
        linesOf([] { EXPECT_EQ(forward(5), -1); }).find("Switch back"),
        std::string(
            "empSendEventLogToEventArchiver(): Found the exact valid Entry with Sequence ID [5]\n"
            "empSendEventLogToEventArchiver(): Found Entry Offset = [400]\n"
            "empSendEventLogToEventArchiver(): Read [160] bytes of Event Record to Temp place.\n"
            "empSendEventLogToEventArchiver(): Read [40] bytes of Event Structure to Temp place.\n"
            "empSendEventLogToEventArchiver(): ")
            .size());
    EXPECT_EQ(filePosition(), 555);
    EXPECT_EQ(listed(&EvMsgRecordForwardList).size(), 1U);
    EXPECT_EQ(empControl.forwardPendingListCount, 31);
}

TEST_F(Forward, NoRecordOnAFullLinkIsABugCheck) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    EvMsgRecordFreeList = nullptr;
    BugCheck bugCheck = bugCheckOf([] { forward(4); });
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
    EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
}

TEST_F(Forward, LargestEventGoesOut) {
    store(4, 2000, counting(3848));
    EXPECT_EQ(forward(4), 0);
    EXPECT_EQ(bench.sends[0].bytes, archiverEvent(4, counting(3848)));
    EXPECT_EQ(bench.sends[0].bytes.size(), 4016U);
}

TEST_F(Forward, OverlongRecordIsDumpedAndTakesTheDataReadsBugCheck) {
    for (size_t length : {size_t{3849}, size_t{65535}}) {
        store(4, 2000, counting(length));
        BugCheck bugCheck = bugCheckOf([] { forward(4); });
        EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
        EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
        Bytes stored = record(4, counting(length));
        stored.resize(160);
        EXPECT_THAT(output, EndsWith("place.\n" + hexDumpOf(stored)));
    }
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Forward, ShortReadsAreDumped) {
    for (int read : {1, 2}) {
        bench.failRead = read;
        bench.shortRead = 4;
        BugCheck bugCheck = bugCheckOf([] { forward(4); });
        EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
        EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
        EXPECT_THAT(output, EndsWith(read == 1 ? "place.\nB68F0100 \n" : "place.\n04050607 \n"));
    }
}

TEST_F(Forward, BadSignatureIsNotDumped) {
    const U8_t bad = 0;
    ASSERT_EQ(pwrite(empControl.eventLogFileFd, &bad, 1, 201), 1);
    BugCheck bugCheck = bugCheckOf([] { forward(4); });
    EXPECT_EQ(bugCheck.message, "Start points to invalid Event Entry?");
    EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
    EXPECT_THAT(output, EndsWith("Read [160] bytes of Event Record to Temp place.\n"));
}

TEST_F(Forward, FailedSeekIsABugCheck) {
    bench.failSeek = 1;
    BugCheck bugCheck = bugCheckOf([] { forward(4); });
    EXPECT_EQ(bugCheck.message, "Linux lseek function fails for Event Log File!");
    EXPECT_EQ(bugCheck.function, "empSendEventLogToEventArchiver");
    EXPECT_EQ(empLogFilePosition, 555);
}

TEST_F(Forward, IdsAroundTheWrapAreFoundBySlot) {
    storeRange(0xFFFFFFFD, 0xFFFFFFFF);
    EXPECT_EQ(forward(0xFFFFFFFE), 0);
    EXPECT_EQ(bench.sends[0].bytes, archiverEvent(0xFFFFFFFE, dataOf(0xFFFFFFFE)));
    EXPECT_EQ(forward(0xFFFFFFFF), -1);
    EXPECT_EQ(forward(0xFFFFFFFC), -1);
}

class CatchUp : public LinkTest {
  protected:
    CatchUp() {
        storeRange(3, 8);
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    }
    /** One step from a cursor; what was sent. */
    static std::vector<Bytes> step(U32_t cursor) {
        bench.sends.clear();
        empControl.empEventArchiverSequenceId = cursor;
        empSendCatchUpEvent("cursor %d, next %d\n");
        return sentTo(ARCHIVER_SOCKET);
    }
    static std::vector<Bytes> event(U32_t id) { return {archiverEvent(id, dataOf(id))}; }
};

TEST_F(CatchUp, BehindTheLogSendsTheOldest) {
    EXPECT_EQ(step(0), event(3));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
    EXPECT_EQ(step(2), event(3));
}

TEST_F(CatchUp, WithinTheLogSendsTheNext) {
    EXPECT_EQ(step(3), event(4));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 4U);
    EXPECT_EQ(step(6), event(7));
}

TEST_F(CatchUp, UpToDateSendsNothing) {
    EXPECT_TRUE(step(7).empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 7U);
}

TEST_F(CatchUp, AheadOfTheLogSaysSoAndSendsTheOldest) {
    EXPECT_EQ(linesOf([] { EXPECT_EQ(step(8), event(3)); }).substr(0, 17), "cursor 8, next 8\n");
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
    EXPECT_EQ(step(0xFFFFFFFF), event(3));
}

TEST_F(CatchUp, CursorPassesOverAGap) {
    eventEntryDatabase[5].evFlag = 0;
    EXPECT_TRUE(step(4).empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 5U);
    EXPECT_EQ(step(5), event(6));
}

TEST_F(CatchUp, AfterTheIdsWrappedEveryCursorIsAhead) {
    setRange(0, 0);
    EXPECT_TRUE(step(0).empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
    EXPECT_TRUE(step(0xFFFFFFFE).empty());
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0U);
}

TEST_F(CatchUp, OldestBeyondTheNewestNeverCatchesUp) {
    setRange(20, 8);
    EXPECT_EQ(linesOf([] { EXPECT_TRUE(step(20).empty()); }), "cursor 20, next 8\n");
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 20U);
}

} // namespace
