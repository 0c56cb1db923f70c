#include "archiver/select_sets.h"

#include "link_bench.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SelectSets : public LinkTest {
  protected:
    SelectSets() { empInitSelectSets(); }

    /** What select is asked in a pass that begins now. */
    static SelectCall pass() {
        empUpdateSelectSets();
        empSelect();
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
    BugCheck bugCheck = bugCheckOf([] { empSelect(); });
    EXPECT_EQ(bugCheck.message, "Linux select function fails");
    EXPECT_EQ(bugCheck.function, "main");
}

TEST_F(SelectSets, TellWhatIsReady) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    pass();
    EXPECT_FALSE(empMsmSelected() || empArchiverSelectedToRead() || empArchiverSelectedToWrite());
    bench.readable = {MSM_SOCKET};
    bench.writable = {ARCHIVER_SOCKET};
    pass();
    EXPECT_TRUE(empMsmSelected());
    EXPECT_FALSE(empArchiverSelectedToRead());
    EXPECT_TRUE(empArchiverSelectedToWrite());
    bench.readable = {ARCHIVER_SOCKET};
    bench.writable = {};
    pass();
    EXPECT_FALSE(empMsmSelected());
    EXPECT_TRUE(empArchiverSelectedToRead());
    EXPECT_FALSE(empArchiverSelectedToWrite());
}

TEST_F(SelectSets, ReadinessOfAClosedSocketNeverReachesTheNextOneOfItsNumber) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_CONNECTED);
    bench.readable = bench.writable = {ARCHIVER_SOCKET};
    pass();
    empForgetArchiverDescriptor();
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
    EXPECT_FALSE(empArchiverSelectedToRead());
    EXPECT_FALSE(empArchiverSelectedToWrite());
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
    EXPECT_FALSE(empArchiverSelectedToRead());
    EXPECT_FALSE(empArchiverSelectedToWrite());
    empForgetArchiverDescriptor();
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
}

} // namespace
