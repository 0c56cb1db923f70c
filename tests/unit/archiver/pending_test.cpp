#include "archiver/pending.h"

#include "fixed_time_stamp.h"
#include "state/control.h"

#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** Positions in the pool of a list's records, in list order. */
std::vector<int> positions(EvMsgRecordList_t list) {
    std::vector<int> result;
    for (const EvMsgRecordEntry_t* entry = list; entry != nullptr && result.size() < 100;
         entry = entry->link.flink) {
        result.push_back(static_cast<int>(entry - EvMsgRecord));
    }
    return result;
}

/** Whether every record's back link addresses what points to it. */
bool linksAgree(EvMsgRecordList_t* list) {
    EvMsgRecordEntry_t** pointsHere = list;
    for (EvMsgRecordEntry_t* entry = *list; entry != nullptr; entry = entry->link.flink) {
        if (entry->link.blink != pointsHere) {
            return false;
        }
        pointsHere = &entry->link.flink;
    }
    return true;
}

bool isZero(const EvMsgRecordEntry_t& entry) {
    EvMsgRecordEntry_t copy = entry;
    copy.link = {};
    copy.state = 0;
    const auto* bytes = reinterpret_cast<const U8_t*>(&copy);
    for (size_t i = 0; i < sizeof(copy); i++) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

class Pending : public testing::Test {
  protected:
    Pending() {
        empControl.empDebug = 1;
        memset(static_cast<void*>(EvMsgRecord), 0xA5, sizeof(EvMsgRecord));
        EvMsgRecordForwardList = EvMsgRecordResponseList = &EvMsgRecord[1];
        empEvMsgPoolInit();
    }

    /** Takes a record off the free list and puts it at the end of a list. */
    static EvMsgRecordEntry_t* move(int position, EvMsgRecordList_t* list) {
        EvMsgRecordEntry_t* entry = &EvMsgRecord[position];
        empEvMsgUnlink(entry);
        empEvMsgAppend(list, entry);
        return entry;
    }
};

TEST_F(Pending, PoolIs64RecordsTheLastOneAtTheHead) {
    EXPECT_EQ(EMP_PENDING_RECORDS, 64U);
    std::vector<int> expected;
    for (int i = 63; i >= 0; i--) {
        expected.push_back(i);
    }
    EXPECT_EQ(positions(EvMsgRecordFreeList), expected);
    EXPECT_TRUE(linksAgree(&EvMsgRecordFreeList));
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
}

TEST_F(Pending, PoolRecordsAreZeroAndNotUsed) {
    for (const EvMsgRecordEntry_t& entry : EvMsgRecord) {
        EXPECT_EQ(entry.state, 1);
        EXPECT_TRUE(isZero(entry));
    }
}

TEST_F(Pending, InitialisedRecordComesToTheHeadOfTheFreeList) {
    EvMsgRecordEntry_t* entry = &EvMsgRecord[10];
    empEvMsgUnlink(entry);
    memset(static_cast<void*>(entry), 0x5A, sizeof(*entry));
    empEvMsgEntryInit(entry);
    EXPECT_EQ(EvMsgRecordFreeList, entry);
    EXPECT_EQ(entry->link.flink, &EvMsgRecord[63]);
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_NOT_USED);
    EXPECT_TRUE(isZero(*entry));
    EXPECT_TRUE(linksAgree(&EvMsgRecordFreeList));
    EXPECT_EQ(positions(EvMsgRecordFreeList).size(), 64U);
}

TEST_F(Pending, PushGoesToTheHeadAppendToTheEnd) {
    for (int i : {1, 2, 3}) {
        move(i, &EvMsgRecordForwardList);
    }
    EvMsgRecordEntry_t* pushed = &EvMsgRecord[4];
    empEvMsgUnlink(pushed);
    empEvMsgPush(&EvMsgRecordForwardList, pushed);
    EXPECT_THAT(positions(EvMsgRecordForwardList), ElementsAre(4, 1, 2, 3));
    EXPECT_TRUE(linksAgree(&EvMsgRecordForwardList));
    EXPECT_TRUE(linksAgree(&EvMsgRecordFreeList));
    EXPECT_EQ(positions(EvMsgRecordFreeList).size(), 60U);
}

TEST_F(Pending, PushAndAppendToAnEmptyListAgree) {
    EvMsgRecordEntry_t* one = move(7, &EvMsgRecordForwardList);
    EvMsgRecordEntry_t* other = &EvMsgRecord[8];
    empEvMsgUnlink(other);
    empEvMsgPush(&EvMsgRecordResponseList, other);
    EXPECT_EQ(one->link.flink, nullptr);
    EXPECT_EQ(one->link.blink, &EvMsgRecordForwardList);
    EXPECT_EQ(other->link.flink, nullptr);
    EXPECT_EQ(other->link.blink, &EvMsgRecordResponseList);
}

TEST_F(Pending, AppendOverwritesAStaleForwardLink) {
    EvMsgRecordEntry_t* entry = &EvMsgRecord[9];
    empEvMsgUnlink(entry);
    entry->link.flink = &EvMsgRecord[1];
    empEvMsgAppend(&EvMsgRecordForwardList, entry);
    EXPECT_THAT(positions(EvMsgRecordForwardList), ElementsAre(9));
}

TEST_F(Pending, UnlinkWorksAtHeadMiddleAndEnd) {
    for (int i : {1, 2, 3, 4}) {
        move(i, &EvMsgRecordForwardList);
    }
    empEvMsgUnlink(&EvMsgRecord[1]);
    EXPECT_THAT(positions(EvMsgRecordForwardList), ElementsAre(2, 3, 4));
    empEvMsgUnlink(&EvMsgRecord[3]);
    EXPECT_THAT(positions(EvMsgRecordForwardList), ElementsAre(2, 4));
    empEvMsgUnlink(&EvMsgRecord[4]);
    EXPECT_THAT(positions(EvMsgRecordForwardList), ElementsAre(2));
    EXPECT_TRUE(linksAgree(&EvMsgRecordForwardList));
    empEvMsgUnlink(&EvMsgRecord[2]);
    EXPECT_THAT(positions(EvMsgRecordForwardList), IsEmpty());
    EXPECT_EQ(EvMsgRecord[2].link.flink, nullptr);
    EXPECT_EQ(EvMsgRecord[2].link.blink, nullptr);
}

TEST_F(Pending, UnlinkOfARecordOnNoListDoesNothing) {
    EvMsgRecordEntry_t* entry = &EvMsgRecord[20];
    empEvMsgUnlink(entry);
    std::vector<int> before = positions(EvMsgRecordFreeList);
    empEvMsgUnlink(entry);
    EXPECT_EQ(positions(EvMsgRecordFreeList), before);
    EXPECT_EQ(before.size(), 63U);
}

TEST_F(Pending, FreePrintsTheHandleAndReturnsTheRecordFromAnyList) {
    for (int i : {1, 2, 3}) {
        move(i, &EvMsgRecordResponseList);
    }
    EvMsgRecordEntry_t* entry = &EvMsgRecord[2];
    entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
    entry->handle = 0x80000001;
    entry->requestor = 18;
    entry->memAddressPtr = static_cast<U8_t*>(malloc(100));
    ASSERT_NE(entry->memAddressPtr, nullptr);
    testing::internal::CaptureStdout();
    empEvMsgEntryFree(entry);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              STAMP "empEvMsgEntryFree(): Free Event Message Record with handle = [-2147483647]\n");
    EXPECT_THAT(positions(EvMsgRecordResponseList), ElementsAre(1, 3));
    EXPECT_TRUE(linksAgree(&EvMsgRecordResponseList));
    EXPECT_EQ(EvMsgRecordFreeList, entry);
    EXPECT_EQ(entry->state, EMP_E_EVMSG_RECORD_ST_NOT_USED);
    EXPECT_TRUE(isZero(*entry)) << "the message's memory was freed, which a sanitizer checks";
}

TEST_F(Pending, FreeOfARecordWithoutAMessage) {
    EvMsgRecordEntry_t* entry = move(0, &EvMsgRecordForwardList);
    testing::internal::CaptureStdout();
    empEvMsgEntryFree(entry);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              STAMP "empEvMsgEntryFree(): Free Event Message Record with handle = [0]\n");
    EXPECT_THAT(positions(EvMsgRecordForwardList), IsEmpty());
    EXPECT_EQ(EvMsgRecordFreeList, entry);
}

TEST_F(Pending, FreedRecordIsTheNextOneTaken) {
    empEvMsgEntryFree(move(30, &EvMsgRecordForwardList));
    empEvMsgEntryFree(move(40, &EvMsgRecordForwardList));
    std::vector<int> free = positions(EvMsgRecordFreeList);
    EXPECT_EQ(free.size(), 64U);
    EXPECT_EQ(free[0], 40);
    EXPECT_EQ(free[1], 30);
    EXPECT_EQ(free[2], 63);
}

} // namespace
