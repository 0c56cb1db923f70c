#include "archiver/handshake.h"

#include "link_bench.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class StatusRequest : public LinkTest {
  protected:
    StatusRequest() {
        storeRange(7, 9);
        setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    }

    /** The 196 bytes for an oldest record of id 7 with this length and these first bytes. */
    static Bytes request(U32_t handle, U32_t oldest, unsigned length, Bytes random) {
        random.resize(24, 0);
        Bytes bytes;
        put16(bytes, 1);
        put16(bytes, 176);
        put16(bytes, 6);
        put16(bytes, 1);
        put32(bytes, 0);
        put32(bytes, handle);
        putText(bytes, ENCLOSURE, 64);
        putText(bytes, BLADE, 64);
        put32(bytes, SLOT);
        put32(bytes, INSTANCE);
        put32(bytes, oldest);
        put16(bytes, length);
        put16(bytes, 0);
        bytes = bytes + random;
        putZeros(bytes, 12);
        return bytes;
    }
};

TEST_F(StatusRequest, IsThese196Bytes) {
    EXPECT_EQ(empSendGetEventArchiverStatusMsg(), 0);
    ASSERT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(bench.sends[0].descriptor, ARCHIVER_SOCKET);
    EXPECT_EQ(bench.sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(bench.sends[0].bytes.size(), 196U);
    EXPECT_EQ(bench.sends[0].bytes, request(1000, 7, 40, counting(24, 7)));
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
}

TEST_F(StatusRequest, Prints) {
    empLogFilePosition = 123;
    EXPECT_EQ(
        linesOf([] { empSendGetEventArchiverStatusMsg(); }),
        "empSendGetEventArchiverStatusMsg(): Found Entry Offset = [0]\n"
        "empSendGetEventArchiverStatusMsg(): Read [160] bytes of Event Record to Temp place.\n"
        "empSendGetEventArchiverStatusMsg(): Read [40] bytes of Event Structure to Temp place.\n"
        "empSendGetEventArchiverStatusMsg(): Switch back to the original File Position [123]\n"
        "<archiver message>\n");
    EXPECT_EQ(filePosition(), 123);
    ASSERT_EQ(bench.printedMessages.size(), 1U);
    EXPECT_EQ(bench.printedMessages[0].size(), 192U);
}

TEST_F(StatusRequest, ShortDataFillOnlyPartOfTheRandomText) {
    store(7, 0, {0xAA, 0xBB, 0xCC});
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[0], request(1000, 7, 3, {0xAA, 0xBB, 0xCC}));
}

TEST_F(StatusRequest, EmptyDataLeaveTheRandomTextZero) {
    store(7, 0, {});
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[0], request(1000, 7, 0, {}));
}

TEST_F(StatusRequest, ReadsNoMoreThanTheRandomTextOfLongData) {
    store(7, 0, counting(4000));
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[0], request(1000, 7, 4000, counting(24)));
}

TEST_F(StatusRequest, ClearedEntryLeadsToTheRecordAtOffsetZero) {
    empControl.empStartSequenceId = 100;
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[0], request(1000, 100, 40, counting(24, 7)));
}

TEST_F(StatusRequest, HandleGrowsByOneARequestAlsoWhenItIsNotSentWhole) {
    bench.archiverTakes = {195};
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(empControl.empEventArchiverHandle, 1001U);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empSendGetEventArchiverStatusMsg();
    EXPECT_EQ(empControl.empEventArchiverHandle, 1002U);
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[1], request(1001, 7, 40, counting(24, 7)));
}

TEST_F(StatusRequest, PartialSendOfEverySizeCloses) {
    for (ssize_t taken : {ssize_t{-1}, ssize_t{0}, ssize_t{1}, ssize_t{192}, ssize_t{195}}) {
        setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
        bench.archiverTakes = {taken};
        S32_t result = 0;
        std::string lines = linesOf([&] { result = empSendGetEventArchiverStatusMsg(); });
        EXPECT_EQ(result, -1);
        EXPECT_THAT(
            lines,
            testing::EndsWith(
                "empSendGetEventArchiverStatusMsg(): Partial [" + std::to_string(taken) +
                "] bytes of Event Archiver Status Msg sent from EMP to EA\n"
                "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n"));
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CLOSE);
        EXPECT_EQ(empControl.socketFdEventArchiver, 0);
    }
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
}

TEST_F(StatusRequest, NeedsTheFlagAndTheStateConnected) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT, EMP_E_ARCHIVER_SOCKET_ST_OPEN,
                       EMP_E_ARCHIVER_SOCKET_ST_FULL, EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        EXPECT_EQ(empSendGetEventArchiverStatusMsg(), -1);
    }
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empControl.evManagerStatusFlag = 0;
    EXPECT_EQ(empSendGetEventArchiverStatusMsg(), -1);
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(empControl.empEventArchiverHandle, 1000U);
}

TEST_F(StatusRequest, FailedSeekIsABugCheck) {
    bench.failSeek = 1;
    BugCheck bugCheck = bugCheckOf([] { empSendGetEventArchiverStatusMsg(); });
    EXPECT_EQ(bugCheck.message, "Linux lseek function fails for Event Log File!");
    EXPECT_EQ(bugCheck.function, "empSendGetEventArchiverStatusMsg");
}

TEST_F(StatusRequest, ShortReadsAreDumped) {
    const Bytes stored = record(7, dataOf(7));
    bench.failRead = 1;
    bench.shortRead = 8;
    BugCheck bugCheck = bugCheckOf([] { empSendGetEventArchiverStatusMsg(); });
    EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
    EXPECT_EQ(bugCheck.function, "empSendGetEventArchiverStatusMsg");
    EXPECT_THAT(output, testing::EndsWith("place.\nB68F0100 C1C2C3C4 \n"));

    bench.failRead = 2;
    bench.shortRead = 5;
    bugCheck = bugCheckOf([] { empSendGetEventArchiverStatusMsg(); });
    EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
    EXPECT_THAT(output, testing::EndsWith("place.\n0708090A 0B\n"));
}

TEST_F(StatusRequest, BadSignatureIsDumped) {
    Bytes stored = record(7, dataOf(7));
    stored[0] = 0xB7;
    ASSERT_EQ(pwrite(empControl.eventLogFileFd, stored.data(), stored.size(), 0), 200);
    BugCheck bugCheck = bugCheckOf([] { empSendGetEventArchiverStatusMsg(); });
    EXPECT_EQ(bugCheck.message, "Start points to invalid Event Entry?");
    EXPECT_EQ(bugCheck.function, "empSendGetEventArchiverStatusMsg");
    stored.resize(160);
    EXPECT_THAT(output, testing::EndsWith("place.\n" + hexDumpOf(stored)));
}

class StatusResponse : public LinkTest {
  protected:
    /** Takes a response in; its lines. */
    static std::string respond(U32_t last, U32_t flag) {
        return linesOf([&] {
            empRcvGetEventArchiverStatusMsg(
                receivedFromArchiver(archiverMessage(6, statusBody(last, flag))));
        });
    }
};

TEST_F(StatusResponse, OpensInEveryStateEvenUnasked) {
    storeRange(0, 5);
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT,
                       EMP_E_ARCHIVER_SOCKET_ST_OPEN, EMP_E_ARCHIVER_SOCKET_ST_FULL,
                       EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        respond(4, 0);
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    }
    empControl.evManagerStatusFlag = 0;
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_CLOSE;
    respond(4, 0);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
}

TEST_F(StatusResponse, NewestIdLeavesNothingToSend) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_EQ(
        respond(7, 0),
        "empRcvGetEventArchiverStatusMsg(): Event Archiver has data up to Event Log Seq Id = [7]\n");
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 7U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(StatusResponse, OlderIdSendsTheNextEvent) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    respond(5, 0);
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 6U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(6, dataOf(6))));
}

TEST_F(StatusResponse, IdBelowTheLogRestartsFromTheOldest) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    respond(2, 0);
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(3, dataOf(3))));
}

TEST_F(StatusResponse, IdBeyondTheLogRestartsFromTheOldest) {
    storeRange(3, 8);
    for (U32_t last : {8U, 9U, 0x80000000U, 0xFFFFFFFFU}) {
        bench.sends.clear();
        setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
        const std::string id = std::to_string(static_cast<int>(last));
        std::string lines =
            "empRcvGetEventArchiverStatusMsg(): Event Archiver has data up to Event Log Seq Id = [";
        lines += id;
        lines += "]\nempRcvGetEventArchiverStatusMsg(): SeqId [";
        lines += id;
        lines += "] in Event Archiver > SeqId [8] in Event Log File.\n";
        EXPECT_THAT(respond(last, 0), testing::StartsWith(lines));
        EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
        EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(3, dataOf(3))));
    }
}

TEST_F(StatusResponse, NoDataSendsTheOldest) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_THAT(
        respond(7, 1),
        testing::StartsWith(
            "empRcvGetEventArchiverStatusMsg(): Event Archiver no data. Send Event Log Seq Id = [3]\n"
            "empSendEventLogToEventArchiver(): Found the exact"));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 3U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(3, dataOf(3))));
}

TEST_F(StatusResponse, ClearingDropsUpToAndIncludingTheId) {
    storeRange(3, 8);
    empControl.empEventInLogFile = 5;
    empControl.empEventDelFromLogFile = 10;
    empControl.empStart = 77;
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_THAT(
        respond(4, 2),
        testing::StartsWith(
            "empRcvGetEventArchiverStatusMsg(): Event Archiver asks us to clear Event Log prior than Seq Id = [4]\n"
            "empRcvGetEventArchiverStatusMsg(): Event Archiver has data up to Event Log Seq Id = [4]\n"));
    EXPECT_EQ(empControl.empStartSequenceId, 5U);
    EXPECT_EQ(empControl.empEventInLogFile, 3U);
    EXPECT_EQ(empControl.empEventDelFromLogFile, 12U);
    EXPECT_EQ(empControl.empStart, 77U);
    EXPECT_EQ(eventEntryDatabase[3].evFlag, 0);
    EXPECT_EQ(eventEntryDatabase[4].evFlag, 0);
    EXPECT_EQ(eventEntryDatabase[4].evOffset, 0U);
    EXPECT_EQ(eventEntryDatabase[5].evFlag, 1);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(5, dataOf(5))));
}

TEST_F(StatusResponse, BothBitsClearFirstAndRestartFromTheNewOldest) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_THAT(
        respond(4, 3),
        testing::StartsWith(
            "empRcvGetEventArchiverStatusMsg(): Event Archiver asks us to clear Event Log prior than Seq Id = [4]\n"
            "empRcvGetEventArchiverStatusMsg(): Event Archiver no data. Send Event Log Seq Id = [5]\n"));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 5U);
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), testing::ElementsAre(archiverEvent(5, dataOf(5))));
}

TEST_F(StatusResponse, ClearingBelowTheLogDropsNothing) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    respond(2, 2);
    EXPECT_EQ(empControl.empStartSequenceId, 3U);
    EXPECT_EQ(eventEntryDatabase[3].evFlag, 1);
}

TEST_F(StatusResponse, LargestIdClearsNothing) {
    storeRange(3, 8);
    empControl.empEventInLogFile = 5;
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    respond(0xFFFFFFFF, 2);
    EXPECT_EQ(empControl.empStartSequenceId, 3U);
    EXPECT_EQ(empControl.empEventInLogFile, 5U);
    EXPECT_EQ(eventEntryDatabase[3].evFlag, 1);
}

TEST_F(StatusResponse, ClearingFarBeyondTheLogEndsAtOnce) {
    storeRange(3, 8);
    empControl.empEventInLogFile = 5;
    empControl.empEventDelFromLogFile = 0;
    for (U32_t slot = 0; slot < 10000; slot++) {
        eventEntryDatabase[slot].evFlag = 1;
        eventEntryDatabase[slot].evOffset = slot;
    }
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    std::string lines = respond(0xFFFFFFFE, 2);
    EXPECT_EQ(empControl.empStartSequenceId, 0xFFFFFFFF);
    // 5 - 4,294,967,292 and 0 + 4,294,967,292, modulo 2^32.
    EXPECT_EQ(empControl.empEventInLogFile, 9U);
    EXPECT_EQ(empControl.empEventDelFromLogFile, 0xFFFFFFFCU);
    for (U32_t slot = 0; slot < 10000; slot++) {
        ASSERT_EQ(eventEntryDatabase[slot].evFlag, 0);
    }
    // The oldest id lies beyond the newest now: every catch-up says so, and gets nothing.
    EXPECT_THAT(
        lines,
        testing::EndsWith(
            "empRcvGetEventArchiverStatusMsg(): SeqId [-2] in Event Archiver > SeqId [8] in Event Log File.\n"));
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 0xFFFFFFFF);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(StatusResponse, ClearingExactlyTenThousandEntriesClearsEverySlot) {
    setRange(3, 10'003);
    for (U32_t slot = 0; slot < 10000; slot++) {
        eventEntryDatabase[slot].evFlag = 1;
    }
    // Without the flag no event is sent, so no record is looked for.
    respond(10'001, 2);
    EXPECT_EQ(eventEntryDatabase[10'002 % 10'000].evFlag, 1);
    EXPECT_EQ(eventEntryDatabase[10'001 % 10'000].evFlag, 0);
    respond(10'002, 2);
    EXPECT_EQ(eventEntryDatabase[10'002 % 10'000].evFlag, 0);
    EXPECT_EQ(empControl.empStartSequenceId, 10'003U);
}

TEST_F(StatusResponse, ClearAllLeavesTheCursorAtTheNextId) {
    storeRange(3, 8);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    respond(7, 2);
    EXPECT_EQ(empControl.empStartSequenceId, 8U);
    // 7 is below the new oldest id, so the cursor moves to that one, which does not exist yet.
    EXPECT_EQ(empControl.empEventArchiverSequenceId, 8U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(StatusResponse, EmptyBodyMeansIdZeroAndNoFlag) {
    storeRange(0, 1);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_EQ(
        linesOf(
            [] { empRcvGetEventArchiverStatusMsg(receivedFromArchiver(archiverMessage(6, {}))); }),
        "empRcvGetEventArchiverStatusMsg(): Event Archiver has data up to Event Log Seq Id = [0]\n");
    EXPECT_EQ(eventEntryDatabase[0].evFlag, 1);
}

} // namespace
