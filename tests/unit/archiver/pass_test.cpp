#include "archiver/pass.h"

#include "link_bench.h"
#include "loop/wait.h"
#include "mmsg/read_ahead.h"
#include "requests/archiver_settings.h"

#include <arpa/inet.h>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char NOT_SET[] =
    "main(): Event Archiver FD isn't set. Check whether Event Archiver is still connected?\n";

/** A set-archiver request for 127.0.0.1, port 0x1234. */
void setArchiver(U8_t lastByte) {
    Bytes bytes = localMessage(3, {127, 0, 0, lastByte, 0x12, 0x34, 0, 0});
    empRcvSetEventArchiverMsg(reinterpret_cast<MMSG_t*>(bytes.data()));
}

/** Timers show: the pending inquiry loses a second when the response timer runs, and selectTimeout
 * becomes 1 s when the forward timer runs. */
class Pass : public LinkTest {
  protected:
    Pass() {
        storeRange(3, 8);
        empControl.empEventArchiverSequenceId = 7;
        waiting = empEvMsgTake({1, "test"});
        waiting->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
        waiting->evMsgType = 2;
        empEvMsgPush(&EvMsgRecordResponseList, waiting);
        empControl.responsePendingListCount = 1;
        empInitSelectSets();
    }

    /** One pass of the loop without a local message; its lines. */
    std::string pass() {
        waiting->responseTimeout = {15, 0};
        empControl.selectTimeout = {0, 100};
        return linesOf([&] {
            empUpdateSelectSets();
            empWaitForSockets();
            if (local) {
                local();
            }
            empServeEventArchiver();
        });
    }
    bool responseTimerRan() const { return waiting->responseTimeout.tv_sec == 14; }
    static bool forwardTimerRan() { return empControl.selectTimeout.tv_sec == 1; }
    bool noTimerRan() const { return !responseTimerRan() && !forwardTimerRan(); }
    bool bothTimersRan() const { return responseTimerRan() && forwardTimerRan(); }

    /** Has local bytes read ahead, so that the passes that follow do not wait. */
    static void readAhead() {
        bench.receives = {{counting(65)}};
        U8_t byte = 0;
        ASSERT_EQ(empReceiveFromMsm(&byte, 1, 0), 1);
        bench.recvCalls.clear();
    }

    EvMsgRecordEntry_t* waiting;
    std::function<void()> local; ///< what a local message does
};

TEST_F(Pass, WithoutTheFlagOnlyTheReconnectTimerRuns) {
    EXPECT_EQ(pass(), "");
    EXPECT_TRUE(noTimerRan());
    empControl.socketAddressEventArchiver.sin_addr.s_addr = 1;
    empControl.socketAddressEventArchiver.sin_port = 1;
    EXPECT_EQ(pass(), "");
    EXPECT_FALSE(responseTimerRan());
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 299);
    EXPECT_TRUE(bench.recvCalls.empty());
}

TEST_F(Pass, FinishedConnectSendsTheStatusRequestAndGoesOn) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.writable = {ARCHIVER_SOCKET};
    std::string lines = pass();
    EXPECT_THAT(
        lines,
        StartsWith("main(): Event Archiver is connected.\n"
                   "main(): Event Manager connects to Event Archiver. Send [Get Status Msg].\n"
                   "empSendGetEventArchiverStatusMsg(): Found Entry"));
    EXPECT_THAT(lines, HasSubstr(std::string("<archiver message>\n") + NOT_SET));
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    EXPECT_TRUE(bothTimersRan());
    // The write set has done its duty.
    pass();
    EXPECT_THAT(bench.selects.back().write, testing::IsEmpty());
    EXPECT_EQ(bench.sends.size(), 1U);
}

TEST_F(Pass, RefusedConnectClosesWithoutTimers) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.writable = bench.readable = {ARCHIVER_SOCKET};
    bench.socketError = ECONNREFUSED;
    EXPECT_EQ(pass(), "main(): Event Archiver is connected.\n"
                      "main(): Event Archiver isn't connected. eventArchiverSocketError = [111].\n"
                      "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n");
    EXPECT_TRUE(noTimerRan());
    EXPECT_TRUE(bench.recvCalls.empty());
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
}

TEST_F(Pass, FailedStatusRequestClosesAndThePassGoesOnWithoutASocket) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.writable = bench.readable = {ARCHIVER_SOCKET};
    bench.archiverTakes = {-1};
    EXPECT_THAT(
        pass(),
        EndsWith("empCloseEventArchiverConnection(): Close the Event Archiver connection.\n" +
                 std::string(NOT_SET)));
    EXPECT_TRUE(bothTimersRan());
    EXPECT_TRUE(bench.recvCalls.empty());
}

TEST_F(Pass, WritableSocketInAnotherStateIsNoConnect) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.writable = {ARCHIVER_SOCKET};
    local = [] { empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN; };
    EXPECT_THAT(pass(), Not(HasSubstr("Get Status")));
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Pass, SilentLinkIsProbedAndTheTimersRun) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EXPECT_EQ(pass(), "main(): Event Archiver is connected.\n" + std::string(NOT_SET));
    EXPECT_TRUE(bothTimersRan());
    EXPECT_EQ(bench.recvCalls.size(), 1U);
}

TEST_F(Pass, ProbeThatFindsAHeaderLeavesItForTheNextPass) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.receives = {{archiverMessage(7, {})}};
    pass();
    EXPECT_TRUE(bothTimersRan());
    EXPECT_EQ(empControl.EAmsgEventUnknownMsgReceive, 0U);
}

TEST_F(Pass, BrokenLinkIsClosedWithoutTimers) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.receives = {{{}, -1, ECONNRESET}};
    EXPECT_EQ(pass(),
              "main(): Event Archiver is connected.\n" + std::string(NOT_SET) +
                  "main(): Connection to Event Archiver is broken. Close current connection.\n"
                  "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n");
    EXPECT_TRUE(noTimerRan());
}

TEST_F(Pass, ReadableLinkGivesOneMessageThenTheTimersRun) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.readable = {ARCHIVER_SOCKET};
    Bytes message = archiverMessage(7, {});
    bench.receives = {{message}, {message}, {message}, {message}};
    EXPECT_EQ(pass(),
              "main(): Event Archiver is connected.\n"
              "main(): Event Archiver FD is set. Check the data in the Event Archiver socket.\n"
              "empProcEventArchiverMsg(): Receive an Event Archiver Message to the Event Manager\n"
              "<archiver message>\n");
    EXPECT_EQ(empControl.EAmsgEventUnknownMsgReceive, 1U);
    EXPECT_EQ(bench.receives.size(), 2U);
    EXPECT_TRUE(bothTimersRan());
}

TEST_F(Pass, EndOfStreamClosesWithoutTimers) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.readable = {ARCHIVER_SOCKET};
    bench.receives = {{{}, 0, EAGAIN}};
    EXPECT_THAT(pass(), HasSubstr("main(): recvSize = [0], errno = [11]\n"));
    EXPECT_TRUE(noTimerRan());
    EXPECT_EQ(empControl.evManagerStatusFlag, 0);
}

// --- Passes that do not wait because a local message is here

TEST_F(Pass, SilentLinkBesideALocalMessageIsProbedWithOneCall) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    readAhead();
    EXPECT_EQ(pass(), "main(): Event Archiver is connected.\n" + std::string(NOT_SET));
    EXPECT_TRUE(bothTimersRan());
    EXPECT_TRUE(bench.selects.empty());
    ASSERT_EQ(bench.recvCalls.size(), 1U);
    EXPECT_EQ(bench.recvCalls[0].descriptor, ARCHIVER_SOCKET);
}

TEST_F(Pass, MessageBesideALocalOneIsReadAndTheTimersRun) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    readAhead();
    Bytes message = archiverMessage(7, {});
    bench.receives = {{message}, {message}};
    EXPECT_THAT(pass(), HasSubstr("main(): Event Archiver FD is set."));
    EXPECT_EQ(empControl.EAmsgEventUnknownMsgReceive, 1U);
    EXPECT_EQ(bench.recvCalls.size(), 2U);
    EXPECT_TRUE(bothTimersRan());
}

TEST_F(Pass, ResetBesideALocalMessageIsWhatSelectWouldHaveNamed) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    readAhead();
    bench.receives = {{{}, -1, ECONNRESET}};
    EXPECT_THAT(pass(), HasSubstr("main(): recvSize = [-1], errno = [104]\n"
                                  "main(): Event Archiver connection receives error. Close"));
    EXPECT_EQ(bench.recvCalls.size(), 1U) << "the error shows once";
    EXPECT_TRUE(noTimerRan());
}

TEST_F(Pass, EndOfStreamBesideALocalMessageClosesWithoutTimers) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    readAhead();
    bench.receives = {{{}, 0, EAGAIN}};
    EXPECT_THAT(pass(), HasSubstr("main(): recvSize = [0], errno = [11]\n"));
    EXPECT_TRUE(noTimerRan());
}

TEST_F(Pass, FinishedConnectBesideALocalMessageIsLearnedWithoutWaiting) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    readAhead();
    bench.writable = {ARCHIVER_SOCKET};
    EXPECT_THAT(pass(), HasSubstr("Send [Get Status Msg]."));
    ASSERT_EQ(bench.selects.size(), 1U);
    EXPECT_EQ(bench.selects[0].timeout.tv_sec, 0);
    EXPECT_EQ(bench.selects[0].timeout.tv_usec, 0);
}

TEST_F(Pass, SetRequestInAPassThatDidNotWaitLeadsToAProbe) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    readAhead();
    bench.nextSocket = ARCHIVER_SOCKET;
    local = [] { setArchiver(1); };
    bench.receives = {{{}, -1, ECONNREFUSED}};
    EXPECT_THAT(pass(), HasSubstr("main(): Connection to Event Archiver is broken."));
}

TEST_F(Pass, StatusResponseSendsOneEventAndTheForwardTimerAnother) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    bench.readable = {ARCHIVER_SOCKET};
    Bytes message = archiverMessage(6, statusBody(4, 0));
    bench.receives = {{Bytes(message.begin(), message.begin() + 16)}, {message}};
    pass();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET),
                ElementsAre(archiverEvent(5, dataOf(5)), archiverEvent(6, dataOf(6))));
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
}

TEST_F(Pass, SetRequestLeadsTheSamePassIntoTheArchiverPart) {
    local = [] { setArchiver(1); };
    EXPECT_THAT(pass(), EndsWith(NOT_SET));
    EXPECT_EQ(bench.recvCalls.size(), 1U);
    EXPECT_EQ(bench.recvCalls[0].descriptor, NEW_SOCKET);
    EXPECT_TRUE(bothTimersRan());
}

TEST_F(Pass, RefusedLoopbackConnectIsEatenByTheProbeOfTheSamePass) {
    local = [] { setArchiver(1); };
    bench.receives = {{{}, -1, ECONNREFUSED}};
    EXPECT_THAT(pass(), HasSubstr("main(): Connection to Event Archiver is broken."));
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
}

TEST_F(Pass, SecondArchiverOfTheSameDescriptorGetsItsHandshake) {
    bench.nextSocket = ARCHIVER_SOCKET;
    local = [] { setArchiver(1); };
    pass();
    local = nullptr;
    bench.writable = {ARCHIVER_SOCKET};
    pass();
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET).size(), 1U);

    // The old socket is readable and writable in the pass that switches; the new one must not be
    // taken for it.
    bench.nextSocket = ARCHIVER_SOCKET;
    bench.readable = {ARCHIVER_SOCKET};
    local = [] { setArchiver(2); };
    std::string lines = pass();
    EXPECT_THAT(lines, EndsWith(NOT_SET));
    EXPECT_THAT(bench.closed, ElementsAre(ARCHIVER_SOCKET));
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET).size(), 1U);

    local = nullptr;
    bench.readable = {};
    pass();
    EXPECT_THAT(bench.selects.back().write, ElementsAre(ARCHIVER_SOCKET));
    ASSERT_EQ(sentTo(ARCHIVER_SOCKET).size(), 2U);
    EXPECT_EQ(sentTo(ARCHIVER_SOCKET)[1].size(), 196U);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
}

TEST_F(Pass, SwitchingOffLeavesOnlyTheReconnectTimerInTheSamePass) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.readable = {ARCHIVER_SOCKET};
    local = [] {
        Bytes bytes = localMessage(3, {0, 0, 0, 0, 0, 0, 0, 0});
        empRcvSetEventArchiverMsg(reinterpret_cast<MMSG_t*>(bytes.data()));
    };
    pass();
    EXPECT_TRUE(bench.recvCalls.empty());
    EXPECT_TRUE(noTimerRan());
}

TEST_F(Pass, SwitchingOffABacklogKeepsHundredMicroseconds) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    local = [] {
        Bytes bytes = localMessage(3, {0, 0, 0, 0, 0, 0, 0, 0});
        empRcvSetEventArchiverMsg(reinterpret_cast<MMSG_t*>(bytes.data()));
    };
    pass();
    local = nullptr;
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
    empServeEventArchiver();
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
}

TEST_F(Pass, LeftoverThatGoesOutBeforeTheHandshakeOpensTheLinkWithoutOne) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    EvMsgRecordEntry_t* leftover = empEvMsgTake({1, "test"});
    Bytes message = counting(100);
    empEvMsgKeepMessage(leftover, message.data(), 100, {1, "test"});
    leftover->state = EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD;
    leftover->evMsgType = 1;
    leftover->byteSent = 90;
    empEvMsgPush(&EvMsgRecordForwardList, leftover);
    empControl.forwardPendingListCount = 1;
    empControl.forwardTimeout = {0, 0};
    EvMsgRecordResponseList = nullptr;
    pass();
    EXPECT_THAT(sentTo(ARCHIVER_SOCKET), ElementsAre(Bytes(message.begin() + 90, message.end())));
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.writable = {ARCHIVER_SOCKET};
    pass();
    EXPECT_EQ(empControl.empEventArchiverHandle, 1000U);
}

TEST_F(Pass, TimedOutInquiryIsAnsweredOnTheSixteenthTimerPass) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    waiting->responseTimeout = {15, 0};
    for (int i = 1; i <= 15; i++) {
        empControl.selectTimeout = {1, 0};
        empServeEventArchiver();
    }
    EXPECT_TRUE(sentTo(MSM_SOCKET).empty());
    empServeEventArchiver();
    EXPECT_EQ(sentTo(MSM_SOCKET).size(), 1U);
}

TEST_F(Pass, LostLinkFreezesPendingInquiries) {
    empControl.evManagerStatusFlag = 0;
    waiting->responseTimeout = {0, 0};
    empServeEventArchiver();
    EXPECT_TRUE(sentTo(MSM_SOCKET).empty());
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(waiting));
}

} // namespace
