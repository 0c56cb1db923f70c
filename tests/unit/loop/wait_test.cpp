#include "loop/wait.h"

#include "diag/debug_line.h"
#include "dying_child.h"
#include "fixed_time_stamp.h"
#include "link_bench.h"
#include "mmsg/read_ahead.h"

#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SelectSets : public LinkTest {
  protected:
    SelectSets() { empInitSelectSets(); }

    /** What select is asked in a pass that begins now. */
    static SelectCall pass() {
        empUpdateSelectSets();
        empWaitForSockets();
        return bench.selects.back();
    }
};

TEST_F(SelectSets, StartWithTheMessageSwitchToRead) {
    SelectCall call = pass();
    EXPECT_EQ(call.count, MSM_SOCKET + 1);
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET));
    EXPECT_THAT(call.write, IsEmpty());
}

TEST_F(SelectSets, SelectGetsACopyOfTheTimeout) {
    empControl.selectTimeout = {0, 100};
    EXPECT_EQ(pass().timeout.tv_usec, 100);
    EXPECT_EQ(pass().timeout.tv_usec, 100);
    EXPECT_EQ(empControl.selectTimeout.tv_usec, 100);
}

TEST_F(SelectSets, ConnectedAddsTheArchiverToBothSets) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    SelectCall call = pass();
    EXPECT_EQ(call.count, ARCHIVER_SOCKET + 1);
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET, ARCHIVER_SOCKET));
    EXPECT_THAT(call.write, ElementsAre(ARCHIVER_SOCKET));
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 1);
}

TEST_F(SelectSets, EveryOtherStateLeavesOnlyTheReadSet) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    pass();
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT, EMP_E_ARCHIVER_SOCKET_ST_OPEN,
                       EMP_E_ARCHIVER_SOCKET_ST_FULL, EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        empControl.evArchiverSocketState = state;
        SelectCall call = pass();
        EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET, ARCHIVER_SOCKET));
        EXPECT_THAT(call.write, IsEmpty());
    }
}

TEST_F(SelectSets, LinkThatSkippedConnectedIsAddedToTheReadSet) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    SelectCall call = pass();
    EXPECT_EQ(call.count, ARCHIVER_SOCKET + 1);
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET, ARCHIVER_SOCKET));
    EXPECT_THAT(call.write, IsEmpty());
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 1);
}

TEST_F(SelectSets, FlagClearedRemovesTheArchiverAndLowersTheHighest) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    pass();
    empControl.evManagerStatusFlag = 0;
    SelectCall call = pass();
    EXPECT_EQ(call.count, MSM_SOCKET + 1);
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET));
    EXPECT_THAT(call.write, IsEmpty());
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
}

TEST_F(SelectSets, LowerArchiverDescriptorDoesNotLowerTheHighest) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empControl.socketFdEventArchiver = 40;
    SelectCall call = pass();
    EXPECT_EQ(call.count, MSM_SOCKET + 1);
    EXPECT_THAT(call.read, ElementsAre(40, MSM_SOCKET));
}

TEST_F(SelectSets, ConnectedLineComesOnEveryPassWithTheFlagWhateverTheState) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_OPEN,
                       EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        EXPECT_EQ(linesOf([] { empUpdateSelectSets(); }), "main(): Event Archiver is connected.\n");
    }
    empControl.evManagerStatusFlag = 0;
    EXPECT_EQ(linesOf([] { empUpdateSelectSets(); }), "");
}

TEST_F(SelectSets, OnlyBitZeroOfTheFlagCounts) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empControl.evManagerStatusFlag = 0xFFFE;
    EXPECT_EQ(linesOf([] { empUpdateSelectSets(); }), "");
}

TEST_F(SelectSets, FailedSelectIsABugCheckOfMain) {
    bench.selectResult = -1;
    BugCheck bugCheck = bugCheckOf([] { empWaitForSockets(); });
    EXPECT_EQ(bugCheck.message, "Linux select function fails");
    EXPECT_EQ(bugCheck.function, "main");
}

TEST_F(SelectSets, TellWhatIsReady) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    pass();
    EXPECT_FALSE(empMsmReadable() || empArchiverWritable());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO);
    bench.readable = {MSM_SOCKET};
    bench.writable = {ARCHIVER_SOCKET};
    pass();
    EXPECT_TRUE(empMsmReadable());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO);
    EXPECT_TRUE(empArchiverWritable());
    bench.readable = {ARCHIVER_SOCKET};
    bench.writable = {};
    pass();
    EXPECT_FALSE(empMsmReadable());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_YES);
    EXPECT_FALSE(empArchiverWritable());
}

TEST_F(SelectSets, ReadinessOfAClosedSocketNeverReachesTheNextOneOfItsNumber) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.readable = bench.writable = {ARCHIVER_SOCKET};
    pass();
    empForgetArchiverDescriptor();
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO);
    EXPECT_FALSE(empArchiverWritable());
    // The next pass waits for the new socket as for any other.
    SelectCall call = pass();
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET, ARCHIVER_SOCKET));
    EXPECT_THAT(call.write, ElementsAre(ARCHIVER_SOCKET));
}

TEST_F(SelectSets, DescriptorZeroIsNoArchiver) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    empControl.socketFdEventArchiver = 0;
    bench.readable = bench.writable = {0};
    SelectCall call = pass();
    EXPECT_THAT(call.read, ElementsAre(MSM_SOCKET));
    EXPECT_THAT(call.write, IsEmpty());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO);
    EXPECT_FALSE(empArchiverWritable());
    empForgetArchiverDescriptor();
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
}

// --- Passes that find a local message read ahead

class ReadAhead : public SelectSets {
  protected:
    ReadAhead() {
        bench.receives = {{counting(10)}};
        U8_t byte = 0;
        EXPECT_EQ(empReceiveFromMsm(&byte, 1, 0), 1);
    }

    static void takeTheRest() {
        U8_t rest[9];
        ASSERT_EQ(empReceiveFromMsm(rest, sizeof(rest), 0), 9);
    }
};

TEST_F(ReadAhead, PassDoesNotAskSelectAndFindsTheMessage) {
    empUpdateSelectSets();
    empWaitForSockets();
    EXPECT_TRUE(bench.selects.empty());
    EXPECT_TRUE(empMsmReadable());
    EXPECT_FALSE(empArchiverWritable());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO) << "there is none";
}

TEST_F(ReadAhead, PassBehindTheLastByteWaitsAgain) {
    takeTheRest();
    pass();
    EXPECT_EQ(bench.selects.size(), 1U);
    EXPECT_FALSE(empMsmReadable());
}

TEST_F(ReadAhead, ArchiverWasNotAsked) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empUpdateSelectSets();
    empWaitForSockets();
    EXPECT_TRUE(bench.selects.empty());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NOT_ASKED);
    empForgetArchiverDescriptor();
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO) << "the next one of its number is new";
}

TEST_F(ReadAhead, ConnectIsAskedAboutWithoutWaiting) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.writable = {ARCHIVER_SOCKET};
    SelectCall call = pass();
    EXPECT_EQ(call.timeout.tv_sec, 0);
    EXPECT_EQ(call.timeout.tv_usec, 0);
    EXPECT_THAT(call.write, ElementsAre(ARCHIVER_SOCKET));
    EXPECT_TRUE(empArchiverWritable());
    EXPECT_EQ(empArchiverReadable(), EMP_E_READABLE_NO);
    EXPECT_TRUE(empMsmReadable()) << "whatever select says";
}

/** Shows in the output of a child what had been written so far. */
void mark() {
    EXPECT_EQ(write(STDOUT_FILENO, "|", 1), 1);
}

TEST_F(ReadAhead, OutputIsWrittenInTheSixtyFourthPassAtTheLatest) {
    ChildEnd end = endOf([] {
        empBufferOutput();
        empDebugLine("main(): a line\n");
        for (int i = 1; i <= 63; i++) {
            empWaitForSockets();
        }
        mark();
        empWaitForSockets();
        _exit(0);
    });
    EXPECT_EQ(end.output, "|" STAMP "main(): a line\n");
}

// --- Passes behind one that has served a message

class BehindAMessage : public SelectSets {
  protected:
    BehindAMessage() { serveOne(); }

    /** A pass that finds a message, and takes it. */
    static void serveOne() {
        bench.receives = {{counting(10)}};
        bench.readable = {MSM_SOCKET};
        empUpdateSelectSets();
        empWaitForSockets();
        takeOne();
        bench.readable = {};
        bench.selects.clear();
    }

    static void takeOne() {
        U8_t message[10];
        ASSERT_EQ(empReceiveFromMsm(message, sizeof(message), 0), 10);
    }

    /** The next message comes while others run, so that the pass need not wait. */
    static void findTheNext() {
        bench.receives = {{counting(10)}};
        empWaitForSockets();
        EXPECT_TRUE(empMsmReadable());
        takeOne();
    }
};

TEST_F(BehindAMessage, OthersRunAndTheNextMessageIsFoundWithoutAWait) {
    for (int i = 1; i <= 20; i++) {
        findTheNext();
        EXPECT_EQ(bench.yields, i);
        EXPECT_EQ(bench.recvCalls.back().flags, MSG_DONTWAIT);
    }
    EXPECT_TRUE(bench.selects.empty());
}

TEST_F(BehindAMessage, LookInVainIsFollowedByTheWait) {
    EXPECT_EQ(pass().timeout.tv_sec, 1);
    EXPECT_EQ(bench.yields, 1);
    EXPECT_FALSE(empMsmReadable());
}

TEST_F(BehindAMessage, LookInVainIsTheLastForAThousandMessages) {
    pass();
    serveOne();
    for (int i = 0; i < 1000; i++) {
        serveOne();
    }
    EXPECT_EQ(bench.yields, 1);
    serveOne();
    EXPECT_EQ(bench.yields, 2);
}

TEST_F(BehindAMessage, LookForWhichTheProcessorWasAwayForLongIsTheLastForAWhile) {
    bench.yieldTakes = 1'000'000;
    findTheNext();
    bench.yieldTakes = 1'000'001;
    findTheNext();
    EXPECT_EQ(bench.yields, 2);
    EXPECT_TRUE(bench.selects.empty()) << "it has found one all the same";
    pass();
    EXPECT_EQ(bench.yields, 2);
    EXPECT_EQ(bench.selects.size(), 1U);
}

TEST_F(BehindAMessage, PassBehindOneWithoutAMessageOnlyWaits) {
    bench.yieldTakes = 1;
    pass();
    pass();
    EXPECT_EQ(bench.yields, 1);
    EXPECT_EQ(bench.selects.size(), 2U);
}

TEST_F(BehindAMessage, ErrorThatALookMeetsIsReceivedBehindTheWait) {
    bench.receives = {{{}, -1, ECONNRESET}};
    bench.readable = {MSM_SOCKET};
    pass();
    EXPECT_EQ(bench.selects.size(), 1U);
    EXPECT_TRUE(empMsmReadable());
    U8_t byte = 0;
    EXPECT_EQ(empReceiveFromMsm(&byte, 1, MSG_PEEK), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(BehindAMessage, EndOfStreamThatALookMeetsIsReceivedBehindTheWait) {
    bench.receives = {{{}, 0}, {{}, 0}};
    bench.readable = {MSM_SOCKET};
    pass();
    EXPECT_EQ(bench.selects.size(), 1U);
    U8_t byte = 0;
    EXPECT_EQ(empReceiveFromMsm(&byte, 1, MSG_PEEK), 0);
}

TEST_F(BehindAMessage, LinesStayForThreePassesThatNeedNotWait) {
    ChildEnd end = endOf([] {
        empBufferOutput();
        empDebugLine("main(): a line\n");
        for (int i = 0; i < 3; i++) {
            findTheNext();
        }
        mark();
        findTheNext();
        empDebugLine("main(): another\n");
        mark();
        pass();
        _exit(0);
    });
    EXPECT_EQ(end.output, "|" STAMP "main(): a line\n|" STAMP "main(): another\n");
}

TEST_F(ReadAhead, OutputIsWrittenBeforeAPassThatWaits) {
    ChildEnd end = endOf([] {
        empBufferOutput();
        empDebugLine("main(): a line\n");
        empWaitForSockets();
        mark();
        takeTheRest();
        empWaitForSockets();
        _exit(0);
    });
    EXPECT_EQ(end.output, "|" STAMP "main(): a line\n");
}

} // namespace
