#include "archiver/reconnect.h"

#include "link_bench.h"

#include <arpa/inet.h>

namespace {

class Reconnect : public LinkTest {
  protected:
    Reconnect() {
        empControl.socketAddressEventArchiver.sin_family = AF_INET;
        empControl.socketAddressEventArchiver.sin_addr.s_addr = htonl(0x0A000001);
        empControl.socketAddressEventArchiver.sin_port = htons(5000);
    }
};

TEST_F(Reconnect, CountsDownOneSelectTimeoutACall) {
    EXPECT_EQ(linesOf([] { empProcessReconnectTimeout(); }), "");
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 299);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 0U);
}

TEST_F(Reconnect, FiresOnThe301stCall) {
    for (int call = 1; call <= 300; call++) {
        empProcessReconnectTimeout();
    }
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 0);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 0U);
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 300);
    EXPECT_EQ(empControl.reconnectTimeout.tv_usec, 0);
}

TEST_F(Reconnect, OneSecondLeftReachesZeroAndFiresOnTheNextCall) {
    empControl.reconnectTimeout = {1, 0};
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 0);
    EXPECT_TRUE(bench.connects.empty());
    empProcessReconnectTimeout();
    EXPECT_EQ(bench.connects.size(), 1U);
}

TEST_F(Reconnect, ConnectThatDoesNotSucceedAtOnceWaitsForTheLoop) {
    for (int error : {EINPROGRESS, ENETUNREACH}) {
        empControl.evManagerStatusFlag = 0;
        empControl.reconnectTimeout = {0, 0};
        bench.connectError = error;
        EXPECT_EQ(
            linesOf([] { empProcessReconnectTimeout(); }),
            "empProcessReconnectTimeout(): The Reconnect Timer is timeout.\n"
            "empProcessReconnectTimeout(): Event Manager might not connect to Event Archiver during Reconnect Timeout.\n");
        EXPECT_EQ(empControl.evManagerStatusFlag, 1);
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(bench.nonBlocking, NEW_SOCKET + 1);
}

TEST_F(Reconnect, ImmediateSuccessSendsTheStatusRequest) {
    storeRange(0, 1);
    empControl.reconnectTimeout = {0, 0};
    bench.connectResult = 0;
    bench.connectError = 0;
    std::string lines = linesOf([] { empProcessReconnectTimeout(); });
    EXPECT_THAT(
        lines,
        testing::StartsWith(
            "empProcessReconnectTimeout(): The Reconnect Timer is timeout.\n"
            "empProcessReconnectTimeout(): Event Manager connects to the Event Archiver during Reconnect Timeout.\n"
            "empSendGetEventArchiverStatusMsg(): Found Entry Offset"));
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    ASSERT_EQ(sentTo(NEW_SOCKET).size(), 1U);
    EXPECT_EQ(sentTo(NEW_SOCKET)[0].size(), 196U);
}

TEST_F(Reconnect, InProgressLineBelongsToSuccess) {
    storeRange(0, 1);
    empControl.reconnectTimeout = {0, 0};
    bench.connectResult = 0;
    EXPECT_THAT(linesOf([] { empProcessReconnectTimeout(); }),
                testing::HasSubstr(
                    "timeout.\n"
                    "empProcessReconnectTimeout(): Connection to Event Archiver in progress....\n"
                    "empProcessReconnectTimeout(): Event Manager connects to the"));
}

TEST_F(Reconnect, FailedStatusRequestClosesAndTheTimerStartsAgain) {
    storeRange(0, 1);
    empControl.reconnectTimeout = {0, 0};
    bench.connectResult = 0;
    bench.archiverTakes = {50};
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CLOSE);
    EXPECT_EQ(empControl.evManagerStatusFlag, 0);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 300);
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
}

TEST_F(Reconnect, EveryActingCallSetsTheSelectTimeoutToOneSecond) {
    empControl.selectTimeout = {0, 100};
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.selectTimeout.tv_sec, 1);
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 0);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 299);
    EXPECT_EQ(empControl.reconnectTimeout.tv_usec, 999'900);
}

TEST_F(Reconnect, WithoutAnArchiverNothingMoves) {
    empControl.selectTimeout = {0, 100};
    empControl.socketAddressEventArchiver.sin_port = 0;
    empProcessReconnectTimeout();
    empControl.socketAddressEventArchiver.sin_port = htons(5000);
    empControl.socketAddressEventArchiver.sin_addr.s_addr = 0;
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 300);
}

TEST_F(Reconnect, WithAConnectionNothingMoves) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.selectTimeout = {0, 100};
    empProcessReconnectTimeout();
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 300);
}

TEST_F(Reconnect, NoSocketIsABugCheckAfterTheAttemptIsCounted) {
    empControl.reconnectTimeout = {0, 0};
    bench.sockets = {-1};
    BugCheck bugCheck = bugCheckOf([] { empProcessReconnectTimeout(); });
    EXPECT_EQ(bugCheck.message, "Linux socket function fails for EMP socket!");
    EXPECT_EQ(bugCheck.function, "empProcessReconnectTimeout");
    EXPECT_EQ(empControl.evArchiverConnectionAttempt, 1U);
}

} // namespace
