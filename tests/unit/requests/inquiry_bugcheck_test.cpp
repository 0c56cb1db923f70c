// Every place at which answering an inquiry may fail, with its fixed source line.
#include "inquiry_fixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

struct Sites {
    U32_t type;
    int seek;
    int record;
    int signature;
    int data;
    const char* seekText;
    const char* signatureText;
};

constexpr char SEEK_FUNCTION[] = "Linux lseek function fails for Event Log File!";
constexpr char SEEK_CALL[] = "Linux lseek function call fails!";
constexpr char READ[] = "Linux read function fails for Event Log File!";
constexpr char INVALID[] = "Start points to invalid Event Entry?";

const Sites allSites[] = {
    {FIRST, 5706, 5723, 5738, 5758, SEEK_FUNCTION,
     "empStartSequenceId = [100] points to invalid Event Entry?"},
    {NEXT, 6032, 6049, 6065, 6083, SEEK_CALL, INVALID},
    {EXACT, 6184, 6202, 6210, 6227, SEEK_FUNCTION, INVALID},
    {PREVIOUS, 6469, 6485, 6501, 6519, SEEK_CALL, INVALID},
    {LAST, 6625, 6642, 6657, 6675, SEEK_CALL, INVALID},
};

class InquiryBugCheck : public Inquiry {
  protected:
    void expectBugCheck(U32_t type, int line, const std::string& message) {
        BugCheck bugCheck = bugCheckOf(
            [&] { empRcvEventInquiryMsg(received(localMessage(2, inquiryBody(type, 104)))); });
        EXPECT_EQ(bugCheck.file, "empmain");
        EXPECT_EQ(bugCheck.line, line);
        EXPECT_EQ(bugCheck.function, "empRcvEventInquiryMsg");
        EXPECT_EQ(bugCheck.message, message);
    }
    /** Offset of the record that answers a question about 104. */
    static U32_t offsetFor(U32_t type) {
        constexpr U32_t offsets[] = {0, 0, 1000, 800, 600, 1800};
        return offsets[type];
    }
};

TEST_F(InquiryBugCheck, Seeking) {
    for (const Sites& sites : allSites) {
        bench.failSeek = 1;
        expectBugCheck(sites.type, sites.seek, sites.seekText);
        EXPECT_EQ(empLogFilePosition, 555);
    }
}

TEST_F(InquiryBugCheck, ReadingTheRecord) {
    for (const Sites& sites : allSites) {
        bench.failRead = 1;
        bench.shortRead = 6;
        expectBugCheck(sites.type, sites.record, READ);
        EXPECT_THAT(output, EndsWith("place.\nB68F0100 C1C2\n"));
    }
}

TEST_F(InquiryBugCheck, SignatureIsDumpedExceptForExact) {
    for (const Sites& sites : allSites) {
        const U8_t bad = 0xB7;
        ASSERT_EQ(pwrite(empControl.eventLogFileFd, &bad, 1, offsetFor(sites.type)), 1);
        expectBugCheck(sites.type, sites.signature, sites.signatureText);
        if (sites.type == EXACT) {
            EXPECT_THAT(output, EndsWith("place.\n"));
        } else {
            EXPECT_THAT(output, HasSubstr("place.\nB78F0100 C1C2C3C4 454E432D 31"));
        }
    }
}

TEST_F(InquiryBugCheck, SlotThatWasNeverFilledPointsToOffsetZero) {
    for (const Sites& sites : {allSites[0], allSites[4]}) {
        setRange(500, 501);
        const Bytes nothing(160, 0);
        ASSERT_EQ(pwrite(empControl.eventLogFileFd, nothing.data(), 160, 0), 160);
        BugCheck bugCheck = bugCheckOf([&] {
            empRcvEventInquiryMsg(received(localMessage(2, inquiryBody(sites.type, 7, ""))));
        });
        EXPECT_EQ(bugCheck.line, sites.type == FIRST ? 5738 : 6657);
        EXPECT_EQ(bugCheck.function, "empRcvEventInquiryMsg");
        EXPECT_EQ(bugCheck.message,
                  sites.type == FIRST ? "empStartSequenceId = [500] points to invalid Event Entry?"
                                      : "Start points to invalid Event Entry?");
        EXPECT_THAT(output, EndsWith("emp place.\n" + hexDumpOf(nothing)));
        EXPECT_TRUE(bench.sends.empty());
    }
}

TEST_F(InquiryBugCheck, ReadingTheData) {
    for (const Sites& sites : allSites) {
        bench.failRead = 2;
        bench.shortRead = 0;
        expectBugCheck(sites.type, sites.data, READ);
        EXPECT_THAT(output, EndsWith(".\n\n"));
    }
}

TEST_F(InquiryBugCheck, OverlongRecordIsDumpedAndTakesTheDataReadsSite) {
    for (const Sites& sites : allSites) {
        const U8_t length[] = {0x0F, 0x09}; // 3849
        ASSERT_EQ(pwrite(empControl.eventLogFileFd, length, 2, offsetFor(sites.type) + 152), 2);
        expectBugCheck(sites.type, sites.data, READ);
        EXPECT_THAT(output, HasSubstr("[3849] bytes of Event Struct"));
        EXPECT_THAT(output, HasSubstr(".\nB68F0100 C1C2C3C4 454E432D 31"));
        EXPECT_TRUE(bench.sends.empty());
    }
}

TEST_F(InquiryBugCheck, ShortReply) {
    bench.msmTakes = {4};
    expectBugCheck(EXACT, 6740, "Linux send function fails, sendSize = [4] is wrong");
    EXPECT_THAT(output, EndsWith("<MMSG>\n00000000 \n"));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
}

TEST_F(InquiryBugCheck, ShortFailureReply) {
    bench.msmTakes = {-1};
    BugCheck bugCheck =
        bugCheckOf([] { empRcvEventInquiryMsg(received(localMessage(2, inquiryBody(EXACT, 1)))); });
    EXPECT_EQ(bugCheck.line, 5557);
    EXPECT_EQ(bugCheck.function, "empSendEventInquiryMsgFailureToRequestor");
    EXPECT_EQ(bugCheck.message, "Linux send function fails, sendSize = [-1] is wrong");
    EXPECT_THAT(output, EndsWith("<MMSG>\n\n"));
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 1U);
}

} // namespace
