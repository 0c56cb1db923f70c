#include "archiver/relay.h"

#include "link_bench.h"

#include <sys/socket.h>

namespace {

using testing::ElementsAre;

class Relay : public LinkTest {
  protected:
    Relay() { setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN); }

    const Bytes body = inquiryBody(0xAABBCC03, 0xFEDCBA98, "ENC-OTHER", "BLADE-OTHER", 9, 11);

    S32_t relay(U32_t handle = 0x12345678) const {
        return empSendEventInquiryToEventArchiver(
            received(localMessage(2, body, 29, 0x80, handle)));
    }
    Bytes wire(U32_t handle = 0x12345678) const {
        Bytes header = {0, 1, 0, 144, 0, 2, 0, 1, 0, 0, 0, 0};
        put32(header, handle);
        return header + body;
    }
};

TEST_F(Relay, InquiryIsThese160Bytes) {
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(relay(), 0); }), "");
    ASSERT_EQ(bench.sends.size(), 1U);
    EXPECT_EQ(bench.sends[0].descriptor, ARCHIVER_SOCKET);
    EXPECT_EQ(bench.sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(bench.sends[0].bytes.size(), 160U);
    EXPECT_EQ(bench.sends[0].bytes, wire());
}

TEST_F(Relay, WholeInquiryAwaitsItsAnswer) {
    relay();
    std::vector<EvMsgRecordEntry_t*> waiting = listed(&EvMsgRecordResponseList);
    ASSERT_EQ(waiting.size(), 1U);
    const EvMsgRecordEntry_t& entry = *waiting[0];
    EXPECT_EQ(entry.state, EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD);
    EXPECT_EQ(entry.evMsgType, 2);
    EXPECT_EQ(entry.mmch_version, 1);
    EXPECT_EQ(entry.requestor, 29);
    EXPECT_EQ(entry.mmsg_cont, 0x80);
    EXPECT_EQ(entry.handle, 0x12345678U);
    EXPECT_STREQ(reinterpret_cast<const char*>(entry.evEnclosureId), "ENC-OTHER");
    EXPECT_STREQ(reinterpret_cast<const char*>(entry.evBladeId), "BLADE-OTHER");
    EXPECT_EQ(entry.evSlotId, 9U);
    EXPECT_EQ(entry.evInstanceNumber, 11U);
    EXPECT_EQ(entry.evSeqIdInquiry, 0xFEDCBA98U);
    EXPECT_EQ(entry.evInquiryType, 3); // the low byte
    EXPECT_EQ(entry.msgLength, 160U);
    EXPECT_EQ(entry.byteSent, 160U);
    EXPECT_EQ(entry.memAddressPtr, nullptr);
    EXPECT_EQ(entry.responseTimeout.tv_sec, 15);
    EXPECT_EQ(entry.responseTimeout.tv_usec, 0);
    EXPECT_EQ(empControl.responsePendingListCount, 1);
    EXPECT_EQ(empControl.forwardPendingListCount, 0);
}

TEST_F(Relay, NewestInquiryStandsFirst) {
    relay(1);
    relay(2);
    ASSERT_EQ(listed(&EvMsgRecordResponseList).size(), 2U);
    EXPECT_EQ(EvMsgRecordResponseList->handle, 2U);
}

TEST_F(Relay, PartialWriteQueuesAtTheHeadAndLeavesTheLinkOpen) {
    EvMsgRecordEntry_t* queued = empEvMsgTake({1, "test"});
    empEvMsgAppend(&EvMsgRecordForwardList, queued);
    for (ssize_t taken : {ssize_t{-1}, ssize_t{0}, ssize_t{1}, ssize_t{80}, ssize_t{159}}) {
        bench.archiverTakes = {taken};
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(relay(), 0); }),
                  "empSendEventInquiryToEventArchiver(): Only send out partial [" +
                      std::to_string(taken) + "] bytes of Event Record from EMP to EA\n");
        const EvMsgRecordEntry_t& entry = *EvMsgRecordForwardList;
        EXPECT_EQ(entry.state, EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD);
        EXPECT_EQ(entry.byteSent, static_cast<U32_t>(taken));
        EXPECT_EQ(entry.msgLength, 160U);
        EXPECT_EQ(Bytes(entry.memAddressPtr, entry.memAddressPtr + 160), wire());
        EXPECT_EQ(entry.responseTimeout.tv_sec, 15);
        EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    }
    EXPECT_EQ(listed(&EvMsgRecordForwardList).back(), queued);
    EXPECT_EQ(empControl.forwardPendingListCount, 5);
    EXPECT_EQ(empControl.responsePendingListCount, 0);
}

TEST_F(Relay, FullLinkQueuesAtTheEndUnsent) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_FULL);
    relay(1);
    EXPECT_EQ(relay(2), 0);
    EXPECT_TRUE(bench.sends.empty());
    std::vector<EvMsgRecordEntry_t*> queued = listed(&EvMsgRecordForwardList);
    ASSERT_EQ(queued.size(), 2U);
    EXPECT_EQ(queued[1]->handle, 2U);
    EXPECT_EQ(queued[1]->state, EMP_E_EVMSG_RECORD_ST_NOT_FORWARD);
    EXPECT_EQ(queued[1]->byteSent, 0U);
    EXPECT_EQ(Bytes(queued[1]->memAddressPtr, queued[1]->memAddressPtr + 160), wire(2));
    EXPECT_EQ(empControl.forwardPendingListCount, 2);
}

TEST_F(Relay, BeforeTheHandshakeTheRecordIsLostForGood) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_CONNECTED, EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT,
                       EMP_E_ARCHIVER_SOCKET_ST_CLOSE}) {
        setLink(state);
        EXPECT_EQ(relay(), 0);
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 61U);
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
    EXPECT_EQ(empControl.forwardPendingListCount + empControl.responsePendingListCount, 0);
}

TEST_F(Relay, SixtyFifthInquiryBeforeTheHandshakeIsABugCheck) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT);
    for (int i = 0; i < 64; i++) {
        ASSERT_EQ(relay(), 0);
    }
    BugCheck bugCheck = bugCheckOf([&] { relay(); });
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
    EXPECT_EQ(bugCheck.function, "empSendEventInquiryToEventArchiver");
}

TEST_F(Relay, SixtyFifthInquiryIsRefusedThoughAllWereAnswered) {
    for (U32_t i = 0; i < 64; i++) {
        ASSERT_EQ(relay(i), 0);
        empEvMsgEntryFree(EvMsgRecordResponseList);
    }
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 64U);
    EXPECT_EQ(empControl.responsePendingListCount, 64);
    EXPECT_EQ(relay(), -1);
    EXPECT_EQ(bench.sends.size(), 64U);
}

TEST_F(Relay, BothCountersCountForAdmission) {
    empControl.forwardPendingListCount = 40;
    empControl.responsePendingListCount = 23;
    EXPECT_EQ(relay(), 0);
    EXPECT_EQ(relay(), -1);
}

TEST_F(Relay, FlagClearIsARefusal) {
    empControl.evManagerStatusFlag = 0xFFFE;
    EXPECT_EQ(relay(), -1);
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 64U);
}

TEST_F(Relay, NoMemoryIsABugCheck) {
    for (auto state : {EMP_E_ARCHIVER_SOCKET_ST_OPEN, EMP_E_ARCHIVER_SOCKET_ST_FULL}) {
        setLink(state);
        bench.archiverTakes = {3};
        bench.failMalloc = true;
        BugCheck bugCheck = bugCheckOf([&] { relay(); });
        bench.failMalloc = false;
        EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
        EXPECT_EQ(bugCheck.function, "empSendEventInquiryToEventArchiver");
    }
}

TEST_F(Relay, ReplyUnderConstructionIsNotTouched) {
    relay();
    EXPECT_EQ(eventEntryWorkSpace[0], 0xA5);
    EXPECT_EQ(eventEntryWorkSpace[159], 0xA5);
}

} // namespace
