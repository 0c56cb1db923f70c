#include "requests/inquiry.h"

#include "dispatch.h"
#include "inquiry_fixture.h"

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// --- What all types share ------------------------------------------------------------------------

TEST_F(Inquiry, ResponseIsIgnored) {
    for (unsigned cont : {0x40U, 0xC0U, 0xFFU}) {
        EXPECT_EQ(
            ask(localMessage(2, inquiryBody(EXACT, 104), 29, cont)),
            "empRcvEventInquiryMsg(): Response Message for Event Inquiry Test Message from Event Manager. Do nothing and return.\n\n");
    }
    EXPECT_TRUE(bench.sends.empty());
    EXPECT_EQ(empControl.mmsgEventInquiryMsgInvalid, 0U);
}

TEST_F(Inquiry, ResponseChangesNothingButTheCountOfMessages) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    for (U32_t type : {FIRST, NEXT, EXACT, PREVIOUS, LAST, 6U}) {
        MMSG_t* response = received(localMessage(2, inquiryBody(type, 104, "ENC-2"), 29, 0x40));
        // Byte for byte, with what lies between the fields.
        Bytes expected(sizeof(empControl));
        empControl.mmsgEventInquiryMsgReceive++;
        memcpy(expected.data(), &empControl, sizeof(empControl));
        empControl.mmsgEventInquiryMsgReceive--;
        linesOf([&] { empProcEventMmsgMsg(response); });
        EXPECT_EQ(memcmp(expected.data(), &empControl, sizeof(empControl)), 0) << "type " << type;
    }
    EXPECT_EQ(empControl.mmsgEventInquiryMsgReceive, 6U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Inquiry, UnknownTypeIsCountedAfterTheHeaderAndGetsNoReply) {
    for (U32_t type : {0U, 6U, 0x0103U, 0xFFFFFFFFU}) {
        EXPECT_EQ(ask(type, 104),
                  "empRcvEventInquiryMsg(): Current File Position is at [555]\n"
                  "empRcvEventInquiryMsg(): This Inquiry Message is from Local Blade.\n");
    }
    EXPECT_EQ(empControl.mmsgEventInquiryMsgInvalid, 4U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Inquiry, HeaderOnlyMessageIsOfTypeZero) {
    ask(localMessage(2, {}));
    EXPECT_EQ(empControl.mmsgEventInquiryMsgInvalid, 1U);
    EXPECT_TRUE(bench.sends.empty());
}

TEST_F(Inquiry, ReplyIsTheEventBehindTheRequestorsHeader) {
    ask(EXACT, 104);
    EXPECT_THAT(replies(), ElementsAre(answer(104)));
    EXPECT_THAT(bench.printedMmsgs, ElementsAre(answer(104)));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 0U);
    EXPECT_EQ(filePosition(), 555);
}

TEST_F(Inquiry, RequestorOfTheOtherBladeIsInTheOtherBitmap) {
    EXPECT_THAT(ask(localMessage(2, inquiryBody(EXACT, 104), 33, 0x80, 9)),
                HasSubstr("empRcvEventInquiryMsg(): This Inquiry Message is from Other Blade.\n"));
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 256, 1, 33, 9, 3, 2) + eventHeader(104, 40) +
                                       dataOf(104)));
    ask(localMessage(2, inquiryBody(EXACT, 1), 33, 0xBF, 9));
    EXPECT_EQ(slice(replies()[1], 0, 64), replyHeader(2, 216, 2, 33, 9, 3, 2));
}

TEST_F(Inquiry, RequestorsFrom64OnGetTheirReplyWithoutABit) {
    ask(localMessage(2, inquiryBody(EXACT, 104), 200));
    EXPECT_THAT(replies(), ElementsAre(replyHeader(2, 256, 1, 200, 0x12345678, -1) +
                                       eventHeader(104, 40) + dataOf(104)));
}

TEST_F(Inquiry, EventWithoutDataIs216BytesAndTheLargest4064) {
    store(104, 3000);
    EXPECT_EQ(replyTo(EXACT, 104), replyHeader(2, 216, 1) + eventHeader(104, 0));
    store(104, 3000, counting(3848));
    EXPECT_EQ(replyTo(EXACT, 104),
              replyHeader(2, 4064, 1) + eventHeader(104, 3848) + counting(3848));
}

TEST_F(Inquiry, FailureReplyEchoesTheQuestion) {
    EXPECT_EQ(ask(localMessage(2, inquiryBody(EXACT, 0xFEDCBA98, "ENC-9", "BLADE-9", 9, 11))),
              beginning(EXACT, 0xFEDCBA98) + failureLines());
    EXPECT_THAT(replies(), ElementsAre(failure(0xFEDCBA98, "ENC-9", "BLADE-9", 9, 11)));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 1U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 0U);
}

TEST_F(Inquiry, IdsWithoutANulAreComparedOver64Bytes) {
    const std::string full(64, 'E');
    memset(empControl.empEnclosureId, 'E', 64);
    memset(empControl.empBladeId, 'B', 64);
    ask(localMessage(2, inquiryBody(EXACT, 104, full, std::string(64, 'B'))));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
    std::string other = full;
    other[63] = 'F';
    EXPECT_THAT(ask(localMessage(2, inquiryBody(NEXT, 104, other, std::string(64, 'B')))),
                HasSubstr("empRcvEventInquiryMsg(): empEnclosureId = [" + full +
                          "]\n"
                          "empRcvEventInquiryMsg(): evEnclosureId = [" +
                          other + "]\n"));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 1U);
}

TEST_F(Inquiry, RefusedRelayIsAFailureReplyThoughTheFlagIsSet) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    empControl.responsePendingListCount = 64;
    for (U32_t type : {FIRST, NEXT, EXACT, PREVIOUS, LAST}) {
        bench.sends.clear();
        EXPECT_THAT(ask(localMessage(2, inquiryBody(type, 104, "ENC-2", "BLADE-2"))),
                    EndsWith(failureLines()));
        EXPECT_THAT(replies(), ElementsAre(failure(104, "ENC-2", "BLADE-2"))) << "type " << type;
        EXPECT_TRUE(relayed().empty());
    }
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 5U);
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
}

// --- FIRST ---------------------------------------------------------------------------------------

TEST_F(Inquiry, FirstIsTheOldest) {
    EXPECT_EQ(
        ask(FIRST, 7),
        beginning(FIRST, 7) +
            "empRcvEventInquiryMsg(): empStartSequenceId = [100], Read Event Entry at evOffset = [0].\n"
            "empRcvEventInquiryMsg(): Read [160] bytes of Event Record to temp place.\n"
            "empRcvEventInquiryMsg(): Read [40] bytes of Event Structur into Event Log Message.\n" +
            ending());
    EXPECT_THAT(replies(), ElementsAre(answer(100)));
}

TEST_F(Inquiry, FirstAsksTheArchiverBeforeTheLogEvenForThisBlade) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EXPECT_EQ(ask(FIRST, 7), beginning(FIRST, 7));
    EXPECT_TRUE(replies().empty());
    EXPECT_EQ(relayed().size(), 1U);
    // Refused there, it is answered here.
    empControl.responsePendingListCount = 64;
    EXPECT_EQ(replyTo(FIRST, 7), answer(100));
}

TEST_F(Inquiry, FirstOfNoEnclosureIsAnsweredHereAtOnce) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    ask(localMessage(2, inquiryBody(FIRST, 7, "", "X", 99, 99)));
    EXPECT_THAT(replies(), ElementsAre(answer(100)));
    EXPECT_TRUE(relayed().empty());
}

TEST_F(Inquiry, FirstComparesOnlyEnclosureAndSlot) {
    ask(localMessage(2, inquiryBody(FIRST, 7, ENCLOSURE, "X", SLOT, 99)));
    EXPECT_THAT(replies(), ElementsAre(answer(100)));
    bench.sends.clear();
    ask(localMessage(2, inquiryBody(FIRST, 7, "ENC-2", BLADE, SLOT, INSTANCE)));
    EXPECT_THAT(replies(), ElementsAre(failure(7, "ENC-2")));
    bench.sends.clear();
    ask(localMessage(2, inquiryBody(FIRST, 7, ENCLOSURE, BLADE, SLOT + 1, INSTANCE)));
    EXPECT_THAT(replies(), ElementsAre(failure(7, ENCLOSURE, BLADE, SLOT + 1)));
}

TEST_F(Inquiry, FirstAndLastIgnoreTheFlagOfTheEntry) {
    setRange(500, 501);
    EXPECT_EQ(replyTo(FIRST, 0), answer(100)); // the record at offset 0
    EXPECT_EQ(replyTo(LAST, 0), answer(100));
}

// --- NEXT ----------------------------------------------------------------------------------------

TEST_F(Inquiry, NextIsTheFirstValidBehindTheId) {
    EXPECT_EQ(ask(NEXT, 103), beginning(NEXT, 103) +
                                  "empRcvEventInquiryMsg(): Current Entry Index = [103].\n"
                                  "empRcvEventInquiryMsg(): Found Entry with Index = [104].\n"
                                  "empRcvEventInquiryMsg(): Move File Position to [800].\n" +
                                  readLines() + ending());
    EXPECT_THAT(replies(), ElementsAre(answer(104)));
}

TEST_F(Inquiry, NextPassesOverGaps) {
    eventEntryDatabase[104].evFlag = eventEntryDatabase[105].evFlag = 0;
    EXPECT_EQ(replyTo(NEXT, 103), answer(106));
}

TEST_F(Inquiry, NextOfTheIdBeforeTheLogIsTheOldest) {
    EXPECT_EQ(replyTo(NEXT, 99), answer(100));
    EXPECT_THAT(ask(NEXT, 99), Not(HasSubstr("below the range")));
}

TEST_F(Inquiry, NextBelowTheLogIsOfferedToTheArchiverFirst) {
    EXPECT_THAT(
        ask(NEXT, 98),
        StartsWith(
            beginning(NEXT, 98) +
            "empRcvEventInquiryMsg(): SeqId [98] in Inquiry Msg below the range for Get Next Case.\n"
            "empRcvEventInquiryMsg(): Current Entry Index = [99].\n"));
    EXPECT_THAT(replies(), ElementsAre(answer(100)));
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    EXPECT_THAT(ask(NEXT, 98), EndsWith("Get Next Case.\n"));
    EXPECT_EQ(relayed().size(), 1U);
    EXPECT_TRUE(replies().empty());
    empControl.responsePendingListCount = 64;
    EXPECT_EQ(replyTo(NEXT, 0), answer(100));
}

TEST_F(Inquiry, NextInALogFromZeroStartsAtTheIdItself) {
    storeRange(0, 5);
    EXPECT_EQ(replyTo(NEXT, 0), answer(1));
    EXPECT_EQ(replyTo(NEXT, 3), answer(4));
    EXPECT_THAT(ask(NEXT, 2), Not(HasSubstr("below the range")));
}

TEST_F(Inquiry, NextOfTheNewestIsRelayedOrFails) {
    EXPECT_EQ(replyTo(NEXT, 109), failure(109));
    EXPECT_EQ(replyTo(NEXT, 0xFFFFFFFF), failure(0xFFFFFFFF));
    EXPECT_EQ(replyTo(NEXT, 108), answer(109));
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(NEXT, 109);
    EXPECT_EQ(relayed().size(), 1U);
    EXPECT_TRUE(replies().empty());
}

TEST_F(Inquiry, NextWithNothingValidExaminesTheStartingSlotLast) {
    for (U32_t id = 100; id < 110; id++) {
        eventEntryDatabase[id].evFlag = 0;
    }
    EXPECT_THAT(
        ask(NEXT, 103),
        EndsWith(
            "empRcvEventInquiryMsg(): Reach the bottom. Start searching from the top.\n"
            "empRcvEventInquiryMsg(): Can not find the next valid Entry after Sequence ID [103]?n" +
            // the stamp of the next line follows at once
            failureLines()));
    EXPECT_THAT(replies(), ElementsAre(failure(103)));
    eventEntryDatabase[103].evFlag = 1;
    EXPECT_THAT(ask(NEXT, 103), HasSubstr("Found Entry with Index = [103]."));
}

TEST_F(Inquiry, NextGoesRoundTheEndOfTheIndex) {
    store(19'999, 4000, dataOf(19'999));
    store(20'000, 4200, dataOf(20'000));
    setRange(19'999, 20'001);
    EXPECT_THAT(
        ask(NEXT, 19'999),
        HasSubstr("empRcvEventInquiryMsg(): Current Entry Index = [9999].\n"
                  "empRcvEventInquiryMsg(): Reach the bottom. Start searching from the top.\n"
                  "empRcvEventInquiryMsg(): Found Entry with Index = [0].\n"));
    EXPECT_THAT(replies(), ElementsAre(answer(20'000)));
}

TEST_F(Inquiry, NextDoesNotCompareTheRecordsId) {
    store(5, 4000, dataOf(5));
    eventEntryDatabase[104].evOffset = 4000;
    EXPECT_EQ(replyTo(NEXT, 103), answer(5));
}

TEST_F(Inquiry, NextAboutAnotherBladeTellsWhy) {
    struct Case {
        Bytes body;
        std::string lines;
    };
    const std::string instance =
        "empRcvEventInquiryMsg(): empInstanceNumbe [5] != evInstanceNumber [6]\n";
    const std::string enclosure = "empRcvEventInquiryMsg(): empEnclosureId = [ENC-1]\n"
                                  "empRcvEventInquiryMsg(): evEnclosureId = [ENC-2]\n";
    const std::string blade = "empRcvEventInquiryMsg(): empBladeId = [BLADE-1]\n"
                              "empRcvEventInquiryMsg(): evBladeId = [BLADE-2]\n";
    const std::string slot = "empRcvEventInquiryMsg(): empSlotId [3] != evSlotId [4]\n";
    for (const Case& test : {
             Case{inquiryBody(NEXT, 1, "ENC-2", BLADE, SLOT, INSTANCE), enclosure},
             Case{inquiryBody(NEXT, 1, "ENC-2", "BLADE-2", 4, 6), enclosure + instance},
             Case{inquiryBody(NEXT, 1, ENCLOSURE, "BLADE-2", SLOT, INSTANCE), blade},
             Case{inquiryBody(NEXT, 1, ENCLOSURE, "BLADE-2", SLOT, 6), blade + instance},
             Case{inquiryBody(NEXT, 1, ENCLOSURE, "BLADE-2", 4, INSTANCE), slot},
             Case{inquiryBody(NEXT, 1, ENCLOSURE, BLADE, 4, 6), slot + instance},
             Case{inquiryBody(NEXT, 1, ENCLOSURE, BLADE, SLOT, 6), instance},
         }) {
        EXPECT_EQ(ask(localMessage(2, test.body)),
                  beginning(NEXT, 1) +
                      "empRcvEventInquiryMsg(): This Event Inquiry Message is NOT for us.\n" +
                      test.lines + failureLines());
    }
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(localMessage(2, inquiryBody(NEXT, 1, "ENC-2")));
    EXPECT_EQ(relayed().size(), 1U);
    EXPECT_TRUE(replies().empty());
}

// --- EXACT ---------------------------------------------------------------------------------------

TEST_F(Inquiry, ExactIsTheRecordOfTheSlot) {
    EXPECT_EQ(ask(EXACT, 104),
              beginning(EXACT, 104) +
                  "empRcvEventInquiryMsg(): Found the exact valid Entry with Sequence ID [104]\n"
                  "empRcvEventInquiryMsg(): Found Entry Offset = [800]\n" +
                  readLines() + ending());
    EXPECT_EQ(replyTo(EXACT, 100), answer(100));
    EXPECT_EQ(replyTo(EXACT, 109), answer(109));
}

TEST_F(Inquiry, ExactOutsideTheLogIsRelayedOrFailsWithoutExplanation) {
    for (U32_t id : {99U, 110U, 0U, 0xFFFFFFFFU}) {
        EXPECT_EQ(ask(EXACT, id), beginning(EXACT, id) + failureLines());
    }
    EXPECT_EQ(ask(localMessage(2, inquiryBody(EXACT, 104, "ENC-2"))),
              beginning(EXACT, 104) + failureLines());
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(EXACT, 99);
    ask(localMessage(2, inquiryBody(EXACT, 104, ENCLOSURE, BLADE, SLOT, INSTANCE + 1)));
    EXPECT_EQ(relayed().size(), 2U);
    EXPECT_TRUE(replies().empty());
}

TEST_F(Inquiry, ExactOfAGapFailsWithoutAskingTheArchiver) {
    eventEntryDatabase[104].evFlag = 0;
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EXPECT_EQ(
        ask(EXACT, 104),
        beginning(EXACT, 104) +
            "empRcvEventInquiryMsg(): Can not find the exact valid Entry with Sequence ID [104]?n" +
            failureLines());
    EXPECT_TRUE(relayed().empty());
}

TEST_F(Inquiry, ExactDoesNotCompareTheRecordsId) {
    store(5, 4000, dataOf(5));
    eventEntryDatabase[104].evOffset = 4000;
    EXPECT_EQ(replyTo(EXACT, 104), answer(5));
}

// --- PREVIOUS ------------------------------------------------------------------------------------

TEST_F(Inquiry, PreviousIsTheLastValidBeforeTheId) {
    EXPECT_EQ(ask(PREVIOUS, 104), beginning(PREVIOUS, 104) +
                                      "empRcvEventInquiryMsg(): Current Entry Index = [104].\n"
                                      "empRcvEventInquiryMsg(): New Entry Index = [103].\n"
                                      "empRcvEventInquiryMsg(): Found Entry with Index = [103].\n"
                                      "empRcvEventInquiryMsg(): Move File Position to [600].\n" +
                                      readLines() + ending());
    EXPECT_THAT(replies(), ElementsAre(answer(103)));
    EXPECT_EQ(replyTo(PREVIOUS, 101), answer(100));
}

TEST_F(Inquiry, PreviousOfTheOldestIsRelayedOrFails) {
    EXPECT_EQ(replyTo(PREVIOUS, 100), failure(100));
    EXPECT_EQ(replyTo(PREVIOUS, 0), failure(0));
    bench.sends.clear();
    EXPECT_EQ(ask(localMessage(2, inquiryBody(PREVIOUS, 104, "ENC-2"))),
              beginning(PREVIOUS, 104) + failureLines());
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(PREVIOUS, 100);
    EXPECT_EQ(relayed().size(), 1U);
    EXPECT_TRUE(replies().empty());
}

TEST_F(Inquiry, PreviousOfTheNextIdStartsThereWithoutTheArchiver) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    EXPECT_EQ(replyTo(PREVIOUS, 110), answer(109));
    EXPECT_TRUE(relayed().empty());
}

TEST_F(Inquiry, PreviousBeyondTheLogIsTheNewestAfterTheArchiverWasAsked) {
    EXPECT_EQ(replyTo(PREVIOUS, 111), answer(109));
    EXPECT_EQ(replyTo(PREVIOUS, 0xFFFFFFFF), answer(109));
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(PREVIOUS, 111);
    EXPECT_EQ(relayed().size(), 1U);
    EXPECT_TRUE(replies().empty());
    empControl.responsePendingListCount = 64;
    EXPECT_EQ(replyTo(PREVIOUS, 111), answer(109));
}

TEST_F(Inquiry, PreviousWithTheLargestNextIdTakesEveryIdForBeyond) {
    // The next id plus one wraps to 0.
    storeRange(0xFFFFFFFA, 0xFFFFFFFF);
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    ask(PREVIOUS, 0xFFFFFFFC);
    EXPECT_EQ(relayed().size(), 1U);
    empControl.responsePendingListCount = 64;
    EXPECT_EQ(replyTo(PREVIOUS, 0xFFFFFFFC), answer(0xFFFFFFFE));
}

TEST_F(Inquiry, PreviousThroughTheTopExaminesTheSpareEntry) {
    store(9'999, 4000, dataOf(9'999));
    store(10'000, 4200, dataOf(10'000));
    eventEntryDatabase[0].evFlag = 0;
    setRange(9'999, 10'003);
    EXPECT_THAT(
        ask(PREVIOUS, 10'001),
        HasSubstr("empRcvEventInquiryMsg(): Current Entry Index = [1].\n"
                  "empRcvEventInquiryMsg(): New Entry Index = [0].\n"
                  "empRcvEventInquiryMsg(): New Entry Index = [-1].\n"
                  "empRcvEventInquiryMsg(): Reach the top. Start searching from the bottom.\n"
                  "empRcvEventInquiryMsg(): New Entry Index = [9999].\n"
                  "empRcvEventInquiryMsg(): Found Entry with Index = [9999].\n"));
    EXPECT_THAT(replies(), ElementsAre(answer(9'999)));
}

TEST_F(Inquiry, PreviousSearchesTenThousandStepsOneOfThemInVain) {
    for (U32_t id = 100; id < 110; id++) {
        eventEntryDatabase[id].evFlag = 0;
    }
    // From 104 down: 104 steps to slot 0, one for the spare entry, and 9895 down to slot 105.
    eventEntryDatabase[104].evFlag = 1;
    std::string lines = ask(PREVIOUS, 104);
    EXPECT_THAT(
        lines,
        EndsWith(
            "empRcvEventInquiryMsg(): New Entry Index = [105].\n"
            "empRcvEventInquiryMsg(): New Entry Index = [104].\n"
            "empRcvEventInquiryMsg(): Can not find the previous valid Entry before Sequence ID [104]?n" +
            failureLines()));
    EXPECT_THAT(replies(), ElementsAre(failure(104)));
    eventEntryDatabase[105].evFlag = 1;
    EXPECT_THAT(ask(PREVIOUS, 104), HasSubstr("Found Entry with Index = [105]."));
}

// --- LAST ----------------------------------------------------------------------------------------

TEST_F(Inquiry, LastIsTheNewest) {
    EXPECT_EQ(ask(LAST, 7), beginning(LAST, 7) +
                                "empRcvEventInquiryMsg(): Move File Position to [1800].\n" +
                                readLines() + ending());
    EXPECT_THAT(replies(), ElementsAre(answer(109)));
}

TEST_F(Inquiry, LastOfNoEnclosureOrThisBladeIsAnsweredHereThoughAnArchiverIsThere) {
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    ask(localMessage(2, inquiryBody(LAST, 7, "", "X", 99, 99)));
    ask(LAST, 7);
    EXPECT_THAT(replies(), ElementsAre(answer(109), answer(109)));
    EXPECT_TRUE(relayed().empty());
}

TEST_F(Inquiry, LastNeedsAFullMatchOtherwise) {
    for (const Bytes& body : {inquiryBody(LAST, 7, "ENC-2"), inquiryBody(LAST, 7, ENCLOSURE, "X"),
                              inquiryBody(LAST, 7, ENCLOSURE, BLADE, 99),
                              inquiryBody(LAST, 7, ENCLOSURE, BLADE, SLOT, 99)}) {
        EXPECT_EQ(ask(localMessage(2, body)), beginning(LAST, 7) + failureLines());
    }
    setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    bench.sends.clear();
    ask(localMessage(2, inquiryBody(LAST, 7, "ENC-2")));
    EXPECT_EQ(relayed().size(), 1U);
}

TEST_F(Inquiry, LastWithANextIdOfZeroLooksAtTheSlotOfTheLargestId) {
    store(0xFFFFFFFF, 4000, dataOf(0xFFFFFFFF));
    setRange(100, 0);
    EXPECT_EQ(replyTo(LAST, 0), answer(0xFFFFFFFF));
}

} // namespace
