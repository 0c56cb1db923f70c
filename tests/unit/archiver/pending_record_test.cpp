#include "archiver/pending.h"

#include "link_bench.h"

#include <algorithm>

namespace {

constexpr EmpSite_t taker = {12, "taker"};

class PendingRecord : public LinkTest {
  protected:
    EvMsgRecordEntry_t* a = empEvMsgTake(taker);
    EvMsgRecordEntry_t* b = empEvMsgTake(taker);
};

TEST_F(PendingRecord, TakingGivesTheHeadOnNoList) {
    EXPECT_EQ(a, &EvMsgRecord[63]);
    EXPECT_EQ(b, &EvMsgRecord[62]);
    EXPECT_EQ(a->link.flink, nullptr);
    EXPECT_EQ(a->link.blink, nullptr);
    EXPECT_EQ(listed(&EvMsgRecordFreeList).size(), 62U);
}

TEST_F(PendingRecord, SixtyFifthIsABugCheckOfTheSite) {
    for (int i = 2; i < 64; i++) {
        empEvMsgTake(taker);
    }
    BugCheck bugCheck = bugCheckOf([] { empEvMsgTake(taker); });
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
    EXPECT_EQ(bugCheck.function, "taker");
    EXPECT_EQ(bugCheck.line, 12);
}

TEST_F(PendingRecord, FreeingChangesNeitherCounter) {
    empControl.forwardPendingListCount = 3;
    empControl.responsePendingListCount = 4;
    empEvMsgPush(&EvMsgRecordResponseList, a);
    empEvMsgEntryFree(a);
    EXPECT_EQ(empControl.forwardPendingListCount, 3);
    EXPECT_EQ(empControl.responsePendingListCount, 4);
}

TEST_F(PendingRecord, KeepsACopyOfTheWholeMessage) {
    Bytes message = counting(100);
    a->byteSent = 9;
    empEvMsgKeepMessage(a, message.data(), 100, taker);
    std::fill(message.begin(), message.end(), U8_t{0});
    EXPECT_EQ(Bytes(a->memAddressPtr, a->memAddressPtr + 100), counting(100));
    EXPECT_EQ(a->msgLength, 100U);
    EXPECT_EQ(a->byteSent, 0U);
}

TEST_F(PendingRecord, NoMemoryForTheCopyIsTheBugCheckOfNoRecord) {
    Bytes message = counting(100);
    bench.failMalloc = true;
    BugCheck bugCheck = bugCheckOf([&] { empEvMsgKeepMessage(a, message.data(), 100, taker); });
    bench.failMalloc = false;
    EXPECT_EQ(bugCheck.message, "No more Event Message Record?");
    EXPECT_EQ(bugCheck.function, "taker");
}

TEST_F(PendingRecord, AdmitsUntilBothCountersAddUpTo64) {
    empControl.forwardPendingListCount = 31;
    empControl.responsePendingListCount = 32;
    EXPECT_TRUE(empPendingRecordAdmitted());
    empControl.responsePendingListCount = 33;
    EXPECT_FALSE(empPendingRecordAdmitted());
}

TEST_F(PendingRecord, TheSumOfTheCountersDoesNotWrap) {
    empControl.forwardPendingListCount = 255;
    empControl.responsePendingListCount = 1;
    EXPECT_FALSE(empPendingRecordAdmitted());
}

} // namespace
