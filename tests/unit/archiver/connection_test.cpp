#include "archiver/connection.h"

#include "link_bench.h"
#include "loop/wait.h"

#include <arpa/inet.h>

namespace {

constexpr EmpSite_t opener = {7040, "opener"};

class Connection : public LinkTest {};

TEST_F(Connection, IsConfiguredByAddressAndPort) {
    EXPECT_FALSE(empEventArchiverConfigured());
    empControl.socketAddressEventArchiver.sin_port = 1;
    EXPECT_FALSE(empEventArchiverConfigured());
    empControl.socketAddressEventArchiver.sin_addr.s_addr = 1;
    EXPECT_TRUE(empEventArchiverConfigured());
    empControl.socketAddressEventArchiver.sin_port = 0;
    EXPECT_FALSE(empEventArchiverConfigured());
}

TEST_F(Connection, OpensANonBlockingSocket) {
    empOpenEventArchiverSocket(opener);
    EXPECT_EQ(empControl.socketFdEventArchiver, NEW_SOCKET);
    EXPECT_EQ(bench.nonBlocking, NEW_SOCKET);
}

TEST_F(Connection, NoSocketIsABugCheck) {
    bench.sockets = {-1};
    BugCheck bugCheck = bugCheckOf([] { empOpenEventArchiverSocket(opener); });
    EXPECT_EQ(bugCheck.message, "Linux socket function fails for EMP socket!");
    EXPECT_EQ(bugCheck.line, 7040);
    EXPECT_EQ(bugCheck.function, "opener");
}

TEST_F(Connection, FailedSocketStandsInTheControlBlock) {
    // The report of the bug-check shows it.
    bench.sockets = {-1};
    bugCheckOf([] { empOpenEventArchiverSocket(opener); });
    EXPECT_EQ(empControl.socketFdEventArchiver, -1);
    EXPECT_EQ(bench.nonBlocking, -1);
}

TEST_F(Connection, DescriptorThatNoSetHoldsIsNoSocket) {
    bench.sockets = {1023, 1024};
    empOpenEventArchiverSocket(opener);
    EXPECT_EQ(empControl.socketFdEventArchiver, 1023);
    EXPECT_EQ(bugCheckOf([] { empOpenEventArchiverSocket(opener); }).message,
              "Linux socket function fails for EMP socket!");
}

TEST_F(Connection, ConnectTellsItsResultAndErrnoApart) {
    empControl.socketFdEventArchiver = ARCHIVER_SOCKET;
    empControl.socketAddressEventArchiver.sin_port = htons(0x1234);
    empControl.socketAddressEventArchiver.sin_addr.s_addr = htonl(0x7F000001);
    EmpConnectResult_t result = empConnectEventArchiverSocket();
    EXPECT_FALSE(result.connected);
    EXPECT_TRUE(result.inProgress);
    ASSERT_EQ(bench.connects.size(), 1U);
    ASSERT_EQ(bench.connects[0].size(), 16U);
    EXPECT_EQ(Bytes(bench.connects[0].begin() + 2, bench.connects[0].begin() + 8),
              (Bytes{0x12, 0x34, 127, 0, 0, 1}));

    bench.connectResult = 0;
    result = empConnectEventArchiverSocket();
    EXPECT_TRUE(result.connected);
    EXPECT_TRUE(result.inProgress);

    bench.connectError = ENETUNREACH;
    bench.connectResult = -1;
    result = empConnectEventArchiverSocket();
    EXPECT_FALSE(result.connected);
    EXPECT_FALSE(result.inProgress);
}

TEST_F(Connection, MarkingSetsTheFlagAndTheState) {
    empMarkEventArchiverConnected();
    EXPECT_EQ(empControl.evManagerStatusFlag, 1);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
}

TEST_F(Connection, ClosingCountsAsAFailure) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.evManagerStatusFlag = 0xFFFF;
    empControl.socketFdEventArchiverSet = 1;
    EXPECT_EQ(linesOf([] { EXPECT_EQ(empCloseEventArchiverConnection(), 0); }),
              "empCloseEventArchiverConnection(): Close the Event Archiver connection.\n");
    EXPECT_THAT(bench.closed, testing::ElementsAre(ARCHIVER_SOCKET));
    EXPECT_EQ(empControl.socketFdEventArchiver, 0);
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
    EXPECT_EQ(empControl.evManagerStatusFlag, 0xFFFE);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_CLOSE);
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
}

TEST_F(Connection, ClosingNeverTouchesDescriptorZero) {
    EXPECT_EQ(empCloseEventArchiverConnection(), -1);
    EXPECT_TRUE(bench.closed.empty());
    EXPECT_EQ(empControl.evArchiverConnectionFailed, 1U);
}

TEST_F(Connection, ClosingLeavesListsAndTimersAlone) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EvMsgRecordEntry_t* queued = empEvMsgTake(opener);
    EvMsgRecordEntry_t* waiting = empEvMsgTake(opener);
    empEvMsgPush(&EvMsgRecordForwardList, queued);
    empEvMsgPush(&EvMsgRecordResponseList, waiting);
    empControl.forwardPendingListCount = 1;
    empControl.responsePendingListCount = 2;
    empControl.forwardTimeout = {2, 3};
    empControl.reconnectTimeout = {4, 5};
    empCloseEventArchiverConnection();
    EXPECT_THAT(listed(&EvMsgRecordForwardList), testing::ElementsAre(queued));
    EXPECT_THAT(listed(&EvMsgRecordResponseList), testing::ElementsAre(waiting));
    EXPECT_EQ(empControl.forwardPendingListCount, 1);
    EXPECT_EQ(empControl.responsePendingListCount, 2);
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 2);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 4);
}

TEST_F(Connection, ClosingTakesTheDescriptorOutOfTheSets) {
    empInitSelectSets();
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empUpdateSelectSets();
    empCloseEventArchiverConnection();
    empUpdateSelectSets();
    empWaitForSockets();
    EXPECT_THAT(bench.selects[0].read, testing::ElementsAre(MSM_SOCKET));
    EXPECT_THAT(bench.selects[0].write, testing::IsEmpty());
    EXPECT_EQ(bench.selects[0].count, MSM_SOCKET + 1);
}

} // namespace
