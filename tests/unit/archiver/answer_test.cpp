#include "archiver/answer.h"

#include "link_bench.h"

#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char FUNCTION[] = "empRcvEventLogMsgFromEventArchiver";
constexpr U32_t HANDLE = 0x12345678;

class Answer : public LinkTest {
  protected:
    Answer() {
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
        storeRange(100, 110);
    }

    /** An inquiry that awaits its answer. */
    static EvMsgRecordEntry_t* pending(U8_t inquiryType, U32_t handle = HANDLE, U8_t mmsgCont = 0) {
        EvMsgRecordEntry_t* entry = empEvMsgTake({1, "test"});
        entry->state = EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD;
        entry->evMsgType = 2;
        entry->requestor = 29;
        entry->mmsg_cont = mmsgCont;
        entry->handle = handle;
        entry->evInquiryType = inquiryType;
        empEvMsgPush(&EvMsgRecordResponseList, entry);
        empControl.responsePendingListCount++;
        return entry;
    }

    static Bytes headerOf(const std::string& enclosure, const std::string& blade, U32_t slot,
                          U32_t instance, U32_t id, unsigned length) {
        Bytes bytes;
        putText(bytes, enclosure, 64);
        putText(bytes, blade, 64);
        put32(bytes, slot);
        put32(bytes, instance);
        put32(bytes, id);
        putZeros(bytes, 4);
        put16(bytes, length);
        putZeros(bytes, 6);
        return bytes;
    }
    /** A failure about this blade. */
    static Bytes failure(U32_t id) { return headerOf(ENCLOSURE, BLADE, SLOT, INSTANCE, id, 0); }

    /** The archiver answers; the lines. */
    static std::string answer(const Bytes& body, U32_t returnCode = 1, U32_t handle = HANDLE) {
        return linesOf([&] {
            empRcvEventLogMsgFromEventArchiver(
                receivedFromArchiver(archiverMessage(1, body, returnCode, handle)));
        });
    }
    static std::vector<Bytes> replies() { return sentTo(MSM_SOCKET); }

    const Bytes other = headerOf("ENC-OTHER", "BLADE-OTHER", 9, 11, 42, 5) + Bytes{1, 2, 3, 4, 5};
};

TEST_F(Answer, AboutAnotherBladeIsHandedOnAsItIs) {
    EvMsgRecordEntry_t* entry = pending(3);
    EXPECT_EQ(
        answer(other),
        "empRcvEventLogMsgFromEventArchiver(): This Inquiry Message is from Local Blade.\n"
        "empRcvEventLogMsgFromEventArchiver(): Send out a MMSG from the Event Manager to Requestor.\n"
        "<MMSG>\n"
        "empEvMsgEntryFree(): Free Event Message Record with handle = [305419896]\n");
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 221, 1) + other));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
    EXPECT_EQ(EvMsgRecordFreeList, entry);
    EXPECT_EQ(empControl.responsePendingListCount, 1);
}

TEST_F(Answer, RequestorOfTheOtherBladeIsInTheOtherBitmap) {
    pending(3, HANDLE, 0x80);
    EXPECT_THAT(
        answer(other),
        testing::StartsWith(
            "empRcvEventLogMsgFromEventArchiver(): This Inquiry Message is from Other Blade.\n"));
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 221, 1, 29, HANDLE, 2, 0x20000000) + other));
}

TEST_F(Answer, ReturnCodeIsHandedOnAndCounted) {
    for (U32_t code : {2U, 3U, 77U}) {
        pending(1);
        answer(other, code);
        EXPECT_EQ(replies().back(), replyHeader(2, 221, code) + other);
    }
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 0U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 3U);
}

TEST_F(Answer, UnknownHandleIsDroppedWithoutATrace) {
    EvMsgRecordEntry_t* entry = pending(3);
    EXPECT_EQ(answer(other, 1, HANDLE + 1), "");
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(entry));
}

TEST_F(Answer, ForwardListIsNotSearched) {
    EvMsgRecordEntry_t* entry = pending(3);
    empEvMsgUnlink(entry);
    empEvMsgPush(&EvMsgRecordForwardList, entry);
    EXPECT_EQ(answer(other), "");
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Answer, NewestOfTwoInquiriesWithOneHandleIsAnswered) {
    EvMsgRecordEntry_t* older = pending(3);
    EvMsgRecordEntry_t* newer = pending(3);
    answer(other);
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(older));
    EXPECT_EQ(newer->state, EMP_E_EVMSG_RECORD_ST_NOT_USED);
}

TEST_F(Answer, MoreDataThanAnEventMayHaveIsDroppedAndTheInquiryStays) {
    EvMsgRecordEntry_t* entry = pending(3);
    for (unsigned length : {3849U, 65535U}) {
        EXPECT_EQ(answer(headerOf("ENC-OTHER", "B", 9, 11, 42, length)), "");
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_THAT(listed(&EvMsgRecordResponseList), ElementsAre(entry));
}

TEST_F(Answer, LargestEventIsHandedOn) {
    pending(3);
    Bytes largest = headerOf("ENC-OTHER", "B", 9, 11, 42, 3848) + counting(3848);
    answer(largest);
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 4064, 1) + largest));
}

TEST_F(Answer, DataThatDidNotComeReadAsZero) {
    pending(3);
    Bytes header = headerOf("ENC-OTHER", "B", 9, 11, 42, 100);
    answer(header + Bytes{7, 8});
    Bytes expected = header + Bytes{7, 8};
    putZeros(expected, 98);
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 316, 1) + expected));
}

TEST_F(Answer, FirstExactAndPreviousAboutThisBladeAreHandedOn) {
    for (U8_t type : {U8_t{1}, U8_t{3}, U8_t{4}}) {
        pending(type);
        answer(failure(100), 2);
        EXPECT_EQ(replies().back(), replyHeader(2, 216, 2) + failure(100));
    }
    EXPECT_EQ(bench.reads, 0);
}

TEST_F(Answer, NextIsFilledInFromTheLog) {
    pending(2);
    empLogFilePosition = 321;
    EXPECT_EQ(
        answer(failure(103), 2),
        "empRcvEventLogMsgFromEventArchiver(): This Inquiry Message is from Local Blade.\n"
        "empRcvEventLogMsgFromEventArchiver(): Read [160] bytes of Event Record to Temp place.\n"
        "empRcvEventLogMsgFromEventArchiver(): Read [40] bytes of Event Structure to Temp place.\n"
        "empRcvEventLogMsgFromEventArchiver(): Send out a MMSG from the Event Manager to Requestor.\n"
        "<MMSG>\n"
        "empEvMsgEntryFree(): Free Event Message Record with handle = [305419896]\n");
    EXPECT_THAT(replies(),
                ElementsAre(replyHeader(2, 256, 1) + eventHeader(104, 40) + dataOf(104)));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
    EXPECT_EQ(filePosition(), 321);
}

/** The id that a failed "next" after @p id is filled in with; 0: handed on as it is. */
#define EXPECT_FILLED_IN(id, served)                                                               \
    do {                                                                                           \
        pending(2);                                                                                \
        answer(failure(id), 2);                                                                    \
        const U32_t expectedId = (served);                                                         \
        EXPECT_EQ(replies().back(),                                                                \
                  replyHeader(2, 256, 1) + eventHeader(expectedId, 40) + dataOf(expectedId));      \
    } while (false)
#define EXPECT_HANDED_ON(id)                                                                       \
    do {                                                                                           \
        pending(2);                                                                                \
        answer(failure(id), 2);                                                                    \
        EXPECT_EQ(replies().back(), replyHeader(2, 216, 2) + failure(id));                         \
    } while (false)

TEST_F(Answer, NextBelowTheLogIsTheOldest) {
    EXPECT_FILLED_IN(0U, 100U);
    EXPECT_FILLED_IN(98U, 100U);
    EXPECT_FILLED_IN(99U, 100U);
    EXPECT_FILLED_IN(100U, 101U);
}

TEST_F(Answer, NextNeverFillsInTheNewest) {
    EXPECT_FILLED_IN(107U, 108U);
    EXPECT_HANDED_ON(108U);
    EXPECT_HANDED_ON(109U);
    EXPECT_HANDED_ON(0xFFFFFFFFU);
}

TEST_F(Answer, LogThatNeverLostAnEventHasNothingBelowIt) {
    storeRange(0, 5);
    EXPECT_FILLED_IN(0U, 1U);
    EXPECT_FILLED_IN(2U, 3U);
    EXPECT_HANDED_ON(3U);
    EXPECT_HANDED_ON(0xFFFFFFFEU);
}

TEST_F(Answer, LogOfOneEventOrNoneHasNothingAbove) {
    storeRange(0, 1);
    EXPECT_HANDED_ON(0U);
    EXPECT_HANDED_ON(0xFFFFFFFFU);
    setRange(0, 0);
    EXPECT_HANDED_ON(0U);
    EXPECT_HANDED_ON(0xFFFFFFFDU);
}

TEST_F(Answer, NextIgnoresTheFlagOfTheEntry) {
    eventEntryDatabase[104].evFlag = 0;
    EXPECT_FILLED_IN(103U, 104U);
}

TEST_F(Answer, NextThatDidNotFailIsHandedOn) {
    for (U32_t code : {1U, 3U}) {
        pending(2);
        answer(failure(103), code);
        EXPECT_EQ(replies().back(), replyHeader(2, 216, code) + failure(103));
    }
}

TEST_F(Answer, NextAboutAnotherBladeIsHandedOn) {
    for (const Bytes& body : {headerOf("ENC-2", BLADE, SLOT, INSTANCE, 103, 0),
                              headerOf(ENCLOSURE, "BLADE-2", SLOT, INSTANCE, 103, 0),
                              headerOf(ENCLOSURE, BLADE, SLOT + 1, INSTANCE, 103, 0),
                              headerOf(ENCLOSURE, BLADE, SLOT, INSTANCE + 1, 103, 0)}) {
        pending(2);
        answer(body, 2);
        EXPECT_EQ(replies().back(), replyHeader(2, 216, 2) + body);
    }
}

TEST_F(Answer, LastAboutThisBladeIsABugCheck) {
    pending(5);
    BugCheck bugCheck = bugCheckOf([] {
        empRcvEventLogMsgFromEventArchiver(
            receivedFromArchiver(archiverMessage(1, failure(1), 2, HANDLE)));
    });
    EXPECT_EQ(bugCheck.message, "Receive Get Last Msg from Event Archiver?");
    EXPECT_EQ(bugCheck.function, FUNCTION);
}

TEST_F(Answer, LastAboutAnotherBladeIsHandedOn) {
    pending(5);
    answer(other);
    EXPECT_EQ(replies().size(), 1U);
}

TEST_F(Answer, EventRecordMatchedByHandleZeroIsABugCheckAboutThisBlade) {
    for (U8_t type : {U8_t{0}, U8_t{6}}) {
        pending(type, 0)->evMsgType = 1;
        BugCheck bugCheck = bugCheckOf([] {
            empRcvEventLogMsgFromEventArchiver(
                receivedFromArchiver(archiverMessage(1, failure(1), 1, 0)));
        });
        EXPECT_EQ(bugCheck.message, "Receive unsupported MSG type from Event Archiver?");
        EXPECT_EQ(bugCheck.function, FUNCTION);
    }
}

TEST_F(Answer, ShortReplyIsDumpedAndABugCheckWithTheResult) {
    pending(3);
    bench.msmTakes = {6};
    BugCheck bugCheck = bugCheckOf([&] {
        empRcvEventLogMsgFromEventArchiver(
            receivedFromArchiver(archiverMessage(1, other, 1, HANDLE)));
    });
    EXPECT_EQ(bugCheck.message, "Linux send function fails, sendSize = [6] is wrong");
    EXPECT_EQ(bugCheck.function, FUNCTION);
    EXPECT_THAT(output, EndsWith("<MMSG>\n00000000 0000\n"));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
}

class FillInFailure : public Answer {
  protected:
    BugCheck fillIn() {
        pending(2);
        return bugCheckOf([] {
            empRcvEventLogMsgFromEventArchiver(
                receivedFromArchiver(archiverMessage(1, failure(103), 2, HANDLE)));
        });
    }
};

TEST_F(FillInFailure, SeekIsABugCheck) {
    bench.failSeek = 1;
    BugCheck bugCheck = fillIn();
    EXPECT_EQ(bugCheck.message, "Linux lseek function fails for Event Log File!");
    EXPECT_EQ(bugCheck.function, FUNCTION);
}

TEST_F(FillInFailure, ShortReadsAreDumped) {
    for (int read : {1, 2}) {
        bench.failRead = read;
        bench.shortRead = 4;
        BugCheck bugCheck = fillIn();
        EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
        EXPECT_EQ(bugCheck.function, FUNCTION);
        EXPECT_THAT(output, EndsWith(read == 1 ? "place.\nB68F0100 \n" : "place.\n68696A6B \n"));
    }
}

TEST_F(FillInFailure, BadSignatureIsDumped) {
    const U8_t bad = 0;
    ASSERT_EQ(pwrite(empControl.eventLogFileFd, &bad, 1, 800), 1);
    BugCheck bugCheck = fillIn();
    EXPECT_EQ(bugCheck.message, "Start points to invalid Event Entry?");
    EXPECT_EQ(bugCheck.function, FUNCTION);
    EXPECT_THAT(output, HasSubstr("Temp place.\n008F0100 C1C2C3C4 "));
}

TEST_F(FillInFailure, OverlongRecordIsDumpedAndTakesTheDataReadsBugCheck) {
    store(104, 5000, counting(3849));
    BugCheck bugCheck = fillIn();
    EXPECT_EQ(bugCheck.message, "Linux read function fails for Event Log File!");
    EXPECT_EQ(bugCheck.function, FUNCTION);
    Bytes stored = record(104, counting(3849));
    stored.resize(160);
    EXPECT_THAT(output, EndsWith("place.\n" + hexDumpOf(stored)));
}

} // namespace
