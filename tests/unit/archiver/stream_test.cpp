#include "archiver/stream.h"

#include "archiver/message.h"
#include "link_bench.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>

namespace {

class ArchiverStream : public LinkTest {
  protected:
    ArchiverStream() {
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
        memset(empControl.empInMsg, 0xA5, EMP_WORK_SPACE_SIZE);
    }
    static Bytes headerOf(const Bytes& message) {
        return Bytes(message.begin(), message.begin() + 16);
    }
    static Bytes inMsg(size_t length) {
        return Bytes(empControl.empInMsg, empControl.empInMsg + length);
    }
};

TEST_F(ArchiverStream, HeaderIsPeekedAndTheMessageReadInOneCall) {
    Bytes message = archiverMessage(6, statusBody(1, 2));
    bench.receives = {{headerOf(message)}, {message}};
    EXPECT_TRUE(empReceiveEventArchiverMsg(empPeekEventArchiverHeader()));
    EXPECT_EQ(inMsg(message.size()), message);
    ASSERT_EQ(bench.recvCalls.size(), 2U);
    EXPECT_EQ(bench.recvCalls[0].descriptor, ARCHIVER_SOCKET);
    EXPECT_EQ(bench.recvCalls[0].length, 16U);
    EXPECT_EQ(bench.recvCalls[0].flags, MSG_PEEK);
    EXPECT_EQ(bench.recvCalls[1].length, 192U);
    EXPECT_EQ(bench.recvCalls[1].flags, 0);
}

TEST_F(ArchiverStream, NothingStaleStandsBehindTheMessage) {
    Bytes message = archiverMessage(6, {});
    bench.receives = {{message}, {message}};
    EXPECT_TRUE(empReceiveEventArchiverMsg(empPeekEventArchiverHeader()));
    Bytes expected = message;
    expected.resize(4064, 0);
    EXPECT_EQ(inMsg(4064), expected);
}

TEST_F(ArchiverStream, LongestBodyIsReadWhole) {
    Bytes message = archiverMessage(1, counting(65535));
    bench.receives = {{headerOf(message)}, {message}};
    EXPECT_TRUE(empReceiveEventArchiverMsg(empPeekEventArchiverHeader()));
    EXPECT_EQ(bench.recvCalls[1].length, 65'551U);
    EXPECT_EQ(inMsg(message.size()), message);
}

/** An answer whose body is as long as any may be: @p structLength announced, 3912 bytes there. */
Bytes longestAnswer(size_t structLength, U32_t handle) {
    return archiverMessage(1, eventHeader(9, structLength) + counting(3912), 1, handle);
}

TEST_F(ArchiverStream, BodyOf4064BytesIsReadAndHandedOn) {
    // With an unknown handle; with data that no event may have; with the longest that one may.
    const struct {
        U32_t handle;
        size_t structLength;
        size_t answers;
    } cases[] = {{78, 3848, 0}, {78, 3912, 0}, {77, 3849, 0}, {77, 3912, 0}, {77, 3848, 1}};
    EvMsgRecordEntry_t* asked = empEvMsgTake({1, "test"});
    asked->handle = 77;
    asked->requestor = 29;
    asked->evInquiryType = EMP_E_INQUIRY_TYPE_FIRST;
    empEvMsgPush(&EvMsgRecordResponseList, asked);
    for (const auto& test : cases) {
        EXPECT_THAT(listed(&EvMsgRecordResponseList), testing::ElementsAre(asked));
        Bytes message = longestAnswer(test.structLength, test.handle);
        ASSERT_EQ(message.size(), 4080U);
        bench.receives = {{headerOf(message)}, {message}};
        ASSERT_TRUE(empReceiveEventArchiverMsg(empPeekEventArchiverHeader()));
        EXPECT_EQ(bench.recvCalls.back().length, 4080U);
        EXPECT_EQ(inMsg(4080), message);
        linesOf([] {
            empProcEventArchiverMsg(
                reinterpret_cast<const EmpEvArchiverMsg_t*>(empControl.empInMsg));
        });
        EXPECT_EQ(bench.printedMessages.back(), message);
        EXPECT_EQ(sentTo(MSM_SOCKET).size(), test.answers);
    }
    EXPECT_EQ(empControl.EAmsgEventLogMsgReceive, 5U);
    EXPECT_THAT(sentTo(MSM_SOCKET), testing::ElementsAre(replyHeader(2, 4064, 1, 29, 77) +
                                                         eventHeader(9, 3848) + counting(3848)));
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
}

TEST_F(ArchiverStream, EveryIncompleteHeaderCloses) {
    for (const RecvStep& peek : {RecvStep{{}, 0, 11}, RecvStep{{}, -1, 11}, RecvStep{{0}, 0, 11},
                                 RecvStep{counting(15), 0, 11}}) {
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
        bench.receives = {peek};
        ssize_t result = peek.data.empty() ? peek.result : static_cast<ssize_t>(peek.data.size());
        bool received = true;
        EXPECT_EQ(
            linesOf([&] { received = empReceiveEventArchiverMsg(empPeekEventArchiverHeader()); }),
            "main(): recvSize = [" + std::to_string(result) +
                "], errno = [11]\n"
                "main(): Event Archiver connection receives error. Close the connection.\n"
                "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n");
        EXPECT_FALSE(received);
        EXPECT_EQ(empControl.socketFdEventArchiver, 0);
    }
    EXPECT_EQ(empControl.empInMsg[0], 0xA5);
}

TEST_F(ArchiverStream, ShortMessageIsDumpedAndFatal) {
    Bytes message = archiverMessage(1, {1, 2, 3, 4});
    bench.receives = {{headerOf(message)}, {Bytes(message.begin(), message.begin() + 18)}};
    BugCheck bugCheck =
        bugCheckOf([] { empReceiveEventArchiverMsg(empPeekEventArchiverHeader()); });
    EXPECT_EQ(bugCheck.message,
              "Linux recv function fails, Event Archiver Msg length readSize = [18] is wrong");
    EXPECT_EQ(bugCheck.function, "main");
    EXPECT_EQ(output, "00010004 00010002 00000001 00000000 0102\n");
}

TEST_F(ArchiverStream, FailedReadOfTheMessageIsFatalWithTheResult) {
    bench.receives = {{archiverMessage(1, {})}, {{}, -1, ECONNRESET}};
    BugCheck bugCheck =
        bugCheckOf([] { empReceiveEventArchiverMsg(empPeekEventArchiverHeader()); });
    EXPECT_EQ(bugCheck.message,
              "Linux recv function fails, Event Archiver Msg length readSize = [-1] is wrong");
    EXPECT_EQ(output, "\n");
}

TEST_F(ArchiverStream, ShortReadOfAnOverlongMessageIsDumpedWhole) {
    Bytes message = archiverMessage(1, counting(65535));
    Bytes piece(message.begin(), message.end() - 1);
    bench.receives = {{headerOf(message)}, {piece}};
    BugCheck bugCheck =
        bugCheckOf([] { empReceiveEventArchiverMsg(empPeekEventArchiverHeader()); });
    EXPECT_EQ(bugCheck.message,
              "Linux recv function fails, Event Archiver Msg length readSize = [65550] is wrong");
    EXPECT_EQ(output, hexDumpOf(piece));
}

TEST_F(ArchiverStream, ProbeBreaksOnlyOnResetAndRefused) {
    for (int error : {ECONNRESET, ECONNREFUSED}) {
        bench.receives = {{{}, -1, error}};
        EXPECT_TRUE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
    }
    for (int error : {EAGAIN, EPIPE, ETIMEDOUT, ENOTCONN}) {
        bench.receives = {{{}, -1, error}};
        EXPECT_FALSE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
    }
    EXPECT_EQ(bench.recvCalls[0].length, 16U);
    EXPECT_EQ(bench.recvCalls[0].flags, MSG_PEEK);
}

TEST_F(ArchiverStream, ProbeJudgesAStaleErrorAfterAnEndOfStreamOrAPartialHeader) {
    for (const RecvStep& peek : {RecvStep{{}, 0, ECONNRESET}, RecvStep{{1, 2}, 0, ECONNREFUSED}}) {
        bench.receives = {peek};
        EXPECT_TRUE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
    }
    bench.receives = {{{}, 0, EAGAIN}};
    EXPECT_FALSE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
}

TEST_F(ArchiverStream, ProbeOfAWholeHeaderIsFineWhateverTheError) {
    bench.receives = {{counting(16), 0, ECONNRESET}};
    EXPECT_FALSE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
}

TEST_F(ArchiverStream, ProbeWithoutASocketAsksNobody) {
    empControl.socketFdEventArchiver = 0;
    errno = ECONNRESET;
    EXPECT_FALSE(empEventArchiverConnectionBroken(empPeekEventArchiverHeader()));
    EXPECT_TRUE(bench.recvCalls.empty());
}

TEST_F(ArchiverStream, PeekFindsWhatSelectWouldName) {
    for (const RecvStep& found : {RecvStep{counting(16)}, RecvStep{{1}}, RecvStep{{}, 0, EAGAIN},
                                  RecvStep{{}, -1, ECONNRESET}}) {
        bench.receives = {found};
        EXPECT_TRUE(empPeekFoundSomething(empPeekEventArchiverHeader()));
    }
    EXPECT_FALSE(empPeekFoundSomething(empPeekEventArchiverHeader())) << "nothing is there";
}

TEST_F(ArchiverStream, SocketErrorIsTaken) {
    EXPECT_EQ(empEventArchiverSocketError(), 0);
    bench.socketError = ECONNREFUSED;
    EXPECT_EQ(empEventArchiverSocketError(), ECONNREFUSED);
}

} // namespace
